#include "wire/url.hpp"

#include <sys/un.h>

#include <stdexcept>

namespace ka {
namespace wire {

namespace {

[[noreturn]] void fail(const std::string& text, const std::string& why) {
  throw std::invalid_argument("invalid url '" + text + "': " + why +
                              " (expected unix:///absolute/path or tcp://host:port)");
}

constexpr const char kUnixScheme[] = "unix://";
constexpr const char kTcpScheme[] = "tcp://";

bool startsWith(const std::string& s, const char* prefix) {
  return s.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

}  // namespace

std::string Url::text() const {
  if (kind == Kind::Unix) {
    return kUnixScheme + path;
  }
  const bool v6 = host.find(':') != std::string::npos;
  return kTcpScheme + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

Url parseUrl(const std::string& text) {
  Url url;
  if (startsWith(text, kUnixScheme)) {
    url.kind = Url::Kind::Unix;
    url.path = text.substr(std::char_traits<char>::length(kUnixScheme));
    if (url.path.empty() || url.path[0] != '/') {
      fail(text, "the socket path must be absolute");
    }
    if (url.path.size() == 1 || url.path.back() == '/') {
      fail(text, "the socket path names a directory");
    }
    if (url.path.find('\0') != std::string::npos) {
      fail(text, "the socket path contains a NUL byte");
    }
    // The path and its terminating NUL must fit in sockaddr_un.
    if (url.path.size() >= sizeof(sockaddr_un{}.sun_path)) {
      fail(text, "the socket path is longer than " +
                     std::to_string(sizeof(sockaddr_un{}.sun_path) - 1) + " bytes");
    }
    return url;
  }
  if (!startsWith(text, kTcpScheme)) {
    fail(text, "unknown scheme");
  }
  url.kind = Url::Kind::Tcp;
  const std::string rest = text.substr(std::char_traits<char>::length(kTcpScheme));
  std::string::size_type portStart;
  if (!rest.empty() && rest[0] == '[') {
    const auto close = rest.find(']');
    if (close == std::string::npos) {
      fail(text, "unterminated '[' in the host");
    }
    url.host = rest.substr(1, close - 1);
    if (close + 1 >= rest.size() || rest[close + 1] != ':') {
      fail(text, "missing ':port' after the host");
    }
    portStart = close + 2;
  } else {
    const auto colon = rest.rfind(':');
    if (colon == std::string::npos) {
      fail(text, "missing ':port' after the host");
    }
    url.host = rest.substr(0, colon);
    if (url.host.find(':') != std::string::npos) {
      fail(text, "an IPv6 host must be written in brackets");
    }
    portStart = colon + 1;
  }
  if (url.host.empty()) {
    fail(text, "empty host");
  }
  if (url.host.find_first_of("/?#@ ") != std::string::npos) {
    fail(text, "unexpected character in the host");
  }
  const std::string port = rest.substr(portStart);
  if (port.empty() || port.size() > 5 ||
      port.find_first_not_of("0123456789") != std::string::npos) {
    fail(text, "the port must be a decimal number from 0 to 65535");
  }
  const unsigned long value = std::stoul(port);
  if (value > 65535) {
    fail(text, "the port must be a decimal number from 0 to 65535");
  }
  url.port = static_cast<std::uint16_t>(value);
  return url;
}

}  // namespace wire
}  // namespace ka
