#include "wire/frame_header.hpp"

#include <cstdio>

namespace ka {
namespace wire {

namespace {

template <typename T>
void putLittleEndian(T value, char* out) {
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    out[i] = static_cast<char>(static_cast<std::uint8_t>(value >> (8 * i)));
  }
}

template <typename T>
T getLittleEndian(const char* in) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    value |= static_cast<T>(static_cast<std::uint8_t>(in[i])) << (8 * i);
  }
  return value;
}

}  // namespace

void encodeFrameHeader(std::uint8_t type, std::uint64_t requestId, std::uint32_t bodyLength,
                       char* out) {
  out[0] = static_cast<char>(kFrameMagic);
  out[1] = static_cast<char>(kProtocolVersion);
  out[2] = static_cast<char>(type);
  out[3] = 0;
  putLittleEndian(bodyLength, out + 4);
  putLittleEndian(requestId, out + 8);
}

HeaderError decodeFrameHeader(const char* in, std::size_t maxBody, FrameHeader& header) {
  header.version = static_cast<std::uint8_t>(in[1]);
  header.type = static_cast<std::uint8_t>(in[2]);
  header.flags = static_cast<std::uint8_t>(in[3]);
  header.bodyLength = getLittleEndian<std::uint32_t>(in + 4);
  header.requestId = getLittleEndian<std::uint64_t>(in + 8);
  if (static_cast<std::uint8_t>(in[0]) != kFrameMagic) {
    return HeaderError::BadMagic;
  }
  if (header.version != kProtocolVersion) {
    return HeaderError::UnsupportedVersion;
  }
  if (header.flags != 0) {
    return HeaderError::UnknownFlags;
  }
  if (header.bodyLength > maxBody) {
    return HeaderError::BodyTooLarge;
  }
  return HeaderError::None;
}

std::string describeHeaderError(HeaderError error, const FrameHeader& header, const char* in,
                                std::size_t maxBody) {
  switch (error) {
    case HeaderError::None:
      return "valid frame header";
    case HeaderError::BadMagic: {
      // The first bytes usually tell what was talking to us (an HTTP request, a TLS hello...).
      std::string hex;
      char byte[4];
      for (std::size_t i = 0; i < 4; ++i) {
        std::snprintf(byte, sizeof byte, "%02x",
                      static_cast<unsigned>(static_cast<std::uint8_t>(in[i])));
        hex += (i ? " " : "") + std::string(byte);
      }
      return "malformed frame header: bad magic (starts with " + hex + ")";
    }
    case HeaderError::UnsupportedVersion:
      return "unsupported protocol version " + std::to_string(header.version) +
             " (this side speaks " + std::to_string(kProtocolVersion) + ")";
    case HeaderError::UnknownFlags:
      return "malformed frame header: unknown flags 0x" + [&] {
        char buf[4];
        std::snprintf(buf, sizeof buf, "%02x", static_cast<unsigned>(header.flags));
        return std::string(buf);
      }();
    case HeaderError::BodyTooLarge:
      return "frame body of " + std::to_string(header.bodyLength) + " bytes exceeds the limit of " +
             std::to_string(maxBody) + " bytes";
  }
  return "malformed frame header";
}

}  // namespace wire
}  // namespace ka
