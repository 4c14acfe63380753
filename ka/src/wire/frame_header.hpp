#pragma once
// The fixed 16-byte header that precedes every frame body on a socket, and the frame types the
// transport keeps for itself. Layout (all integers little-endian):
//   0      magic 0x6B ('k')
//   1      protocol version (1)
//   2      message type
//   3      flags, all bits reserved: sent as 0, a frame with any bit set is refused
//   4..7   body length in bytes, uint32
//   8..15  request id, uint64
// Bytes 0 and 1 keep their meaning in every version, so a peer can always tell a version it
// does not speak from garbage.

#include <cstddef>
#include <cstdint>
#include <string>

namespace ka {
namespace wire {

constexpr std::size_t kFrameHeaderSize = 16;
constexpr std::uint8_t kFrameMagic = 0x6B;
constexpr std::uint8_t kProtocolVersion = 1;

// Types from here up belong to the transport (the handshake); the message layer uses the rest.
constexpr std::uint8_t kFirstTransportType = 0xF0;
constexpr std::uint8_t kHelloType = 0xF0;    // client -> server, first frame of a connection
constexpr std::uint8_t kWelcomeType = 0xF1;  // server -> client, the connection is accepted
constexpr std::uint8_t kRefusedType = 0xF2;  // server -> client, then the server closes

struct FrameHeader {
  std::uint8_t version = kProtocolVersion;
  std::uint8_t type = 0;
  std::uint8_t flags = 0;
  std::uint32_t bodyLength = 0;
  std::uint64_t requestId = 0;
};

enum class HeaderError { None, BadMagic, UnsupportedVersion, UnknownFlags, BodyTooLarge };

// Writes exactly kFrameHeaderSize bytes (magic, version and flags as this side sends them).
void encodeFrameHeader(std::uint8_t type, std::uint64_t requestId, std::uint32_t bodyLength,
                       char* out);

// Reads kFrameHeaderSize bytes into `header` (filled as far as readable even on an error) and
// checks them: magic, version, flags, and a body length of at most `maxBody`.
HeaderError decodeFrameHeader(const char* in, std::size_t maxBody, FrameHeader& header);

// Why a header was refused, for logs and close reasons.
std::string describeHeaderError(HeaderError error, const FrameHeader& header, const char* in,
                                std::size_t maxBody);

}  // namespace wire
}  // namespace ka
