#pragma once
// Frames in the form docs/protocol.md shows them ("header | body" in hex, one line each), and
// whether the document does show a given frame: its worked examples are checked against the
// encoders, so the document cannot drift from the code.

#include "wire/frame_header.hpp"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace ka {
namespace wire {
namespace docs {

// Where the build says the document is.
constexpr const char kProtocolDocument[] = QV_PROTOCOL_DOCUMENT;

inline std::string hexBytes(const char* data, std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i) {
    char byte[4];
    std::snprintf(byte, sizeof byte, "%02x", static_cast<unsigned char>(data[i]));
    out += (i == 0 ? "" : " ") + std::string(byte);
  }
  return out;
}

// A frame as it goes on a socket: the 16-byte header in hex, " | ", then the body in hex.
inline std::string onTheWire(std::uint8_t type, std::uint64_t requestId,
                             const std::vector<char>& body) {
  char header[kFrameHeaderSize];
  encodeFrameHeader(type, requestId, static_cast<std::uint32_t>(body.size()), header);
  return hexBytes(header, kFrameHeaderSize) + " | " + hexBytes(body.data(), body.size());
}

// Whether `line` is a whole line of the document (empty text when it cannot be read).
inline bool isDocumented(const std::string& line) {
  static const std::string text = [] {
    std::ifstream in(kProtocolDocument);
    std::ostringstream out;
    out << in.rdbuf();
    return "\n" + out.str();
  }();
  return text.find("\n" + line + "\n") != std::string::npos;
}

}  // namespace docs
}  // namespace wire
}  // namespace ka
