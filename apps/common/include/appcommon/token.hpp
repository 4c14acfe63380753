#pragma once
// Where the programs take the shared secret from: a file or the environment, so that it stays
// out of every process listing; the command line still works but is warned about.

#include <stdexcept>
#include <string>

namespace qvapp {

// The environment variable read when neither --token nor --token-file is given.
inline constexpr const char kTokenVariable[] = "QV_TOKEN";

// A token that cannot be taken as given; the text says why.
class TokenError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct TokenSource {
  std::string token;    // --token TEXT, empty when not given
  std::string file;     // --token-file PATH, empty when not given
  std::string warning;  // set by resolveToken when the source deserves one
};

// The token to use: from the file (its contents without one trailing newline; refused unless a
// regular file that neither group nor others may read, and not empty), else --token (with a
// warning), else $QV_TOKEN, else none (""). Both --token and --token-file: refused.
// Throws TokenError.
std::string resolveToken(TokenSource& source);

}  // namespace qvapp
