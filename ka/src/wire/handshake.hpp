#pragma once
// The bodies of the frames that open a connection, and the token check. The client sends Hello
// with the token it has (empty when none); the server answers Welcome, or Refused with a reason
// and closes. Bodies are msgpack arrays; a receiver ignores elements past the ones it knows, so
// later versions can append fields.
//   Hello   = [token: str]
//   Welcome = [version: uint]
//   Refused = [reason: str]

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace ka {
namespace wire {

// Handshake bodies are tiny; anything longer is refused before it is read.
constexpr std::size_t kMaxHandshakeBody = 4096;

std::vector<char> encodeHello(const std::string& token);
std::vector<char> encodeWelcome();
std::vector<char> encodeRefused(const std::string& reason);

// Each returns nothing when the body is not what its grammar says.
std::optional<std::string> decodeHello(const std::vector<char>& body);
bool decodeWelcome(const std::vector<char>& body);
std::optional<std::string> decodeRefused(const std::vector<char>& body);

// Whether `presented` equals `expected`, in a time that depends only on their lengths, so that
// timing does not tell an attacker how many leading bytes of a guess were right.
bool constantTimeEquals(const std::string& presented, const std::string& expected);

}  // namespace wire
}  // namespace ka
