#pragma once
// Where a transport listens or connects: "unix:///absolute/path" or "tcp://host:port".

#include <cstdint>
#include <string>

namespace ka {
namespace wire {

struct Url {
  enum class Kind { Unix, Tcp };
  Kind kind = Kind::Unix;
  std::string path;        // Unix: the absolute socket path
  std::string host;        // Tcp: a name or an address, IPv6 without its brackets
  std::uint16_t port = 0;  // Tcp: 0 asks the system for a free port when listening

  // The canonical text: "unix:///run/a.sock", "tcp://127.0.0.1:80", "tcp://[::1]:80".
  std::string text() const;
};

// Throws std::invalid_argument saying what is wrong and which forms are accepted.
Url parseUrl(const std::string& text);

}  // namespace wire
}  // namespace ka
