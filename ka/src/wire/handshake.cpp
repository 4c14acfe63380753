#include "wire/handshake.hpp"

#include "wire/frame_header.hpp"

#include <msgpack.hpp>

#include <exception>

namespace ka {
namespace wire {

namespace {

std::vector<char> toBytes(const msgpack::sbuffer& buffer) {
  return std::vector<char>(buffer.data(), buffer.data() + buffer.size());
}

// Parses a handshake body as an array whose first element has type `first`. The limits keep a
// claimed element count from sizing an allocation: the body is at most kMaxHandshakeBody bytes,
// but msgpack would otherwise reserve room for the count it reads.
std::optional<msgpack::object_handle> unpackArray(const std::vector<char>& body,
                                                  msgpack::type::object_type first) {
  if (body.size() > kMaxHandshakeBody) {
    return std::nullopt;
  }
  try {
    const msgpack::unpack_limit limits(/*array=*/16, /*map=*/16, /*str=*/kMaxHandshakeBody,
                                       /*bin=*/kMaxHandshakeBody, /*ext=*/kMaxHandshakeBody,
                                       /*depth=*/4);
    std::size_t offset = 0;
    msgpack::object_handle handle =
        msgpack::unpack(body.data(), body.size(), offset, nullptr, nullptr, limits);
    const msgpack::object& o = handle.get();
    if (offset != body.size() || o.type != msgpack::type::ARRAY || o.via.array.size < 1 ||
        o.via.array.ptr[0].type != first) {
      return std::nullopt;
    }
    return handle;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

std::vector<char> encodeHello(const std::string& token) {
  msgpack::sbuffer buffer;
  msgpack::packer<msgpack::sbuffer> pk(buffer);
  pk.pack_array(1);
  pk.pack(token);
  return toBytes(buffer);
}

std::vector<char> encodeWelcome() {
  msgpack::sbuffer buffer;
  msgpack::packer<msgpack::sbuffer> pk(buffer);
  pk.pack_array(1);
  pk.pack(static_cast<unsigned>(kProtocolVersion));
  return toBytes(buffer);
}

std::vector<char> encodeRefused(const std::string& reason) {
  msgpack::sbuffer buffer;
  msgpack::packer<msgpack::sbuffer> pk(buffer);
  pk.pack_array(1);
  pk.pack(reason);
  return toBytes(buffer);
}

std::optional<std::string> decodeHello(const std::vector<char>& body) {
  const auto handle = unpackArray(body, msgpack::type::STR);
  if (!handle) {
    return std::nullopt;
  }
  const auto& s = handle->get().via.array.ptr[0].via.str;
  return std::string(s.ptr, s.size);
}

bool decodeWelcome(const std::vector<char>& body) {
  const auto handle = unpackArray(body, msgpack::type::POSITIVE_INTEGER);
  return handle && handle->get().via.array.ptr[0].via.u64 == kProtocolVersion;
}

std::optional<std::string> decodeRefused(const std::vector<char>& body) {
  const auto handle = unpackArray(body, msgpack::type::STR);
  if (!handle) {
    return std::nullopt;
  }
  const auto& s = handle->get().via.array.ptr[0].via.str;
  return std::string(s.ptr, s.size);
}

bool constantTimeEquals(const std::string& presented, const std::string& expected) {
  // Every byte of `expected` is visited and no comparison result is branched on.
  unsigned difference = presented.size() == expected.size() ? 0u : 1u;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const unsigned char p = i < presented.size() ? static_cast<unsigned char>(presented[i]) : 0u;
    difference |= p ^ static_cast<unsigned char>(expected[i]);
  }
  return difference == 0;
}

}  // namespace wire
}  // namespace ka
