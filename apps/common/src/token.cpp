#include <appcommon/token.hpp>

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace qvapp {

namespace {

std::string readTokenFile(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    throw TokenError("--token-file " + path + ": " + std::strerror(errno));
  }
  if (!S_ISREG(status.st_mode)) {
    throw TokenError("--token-file " + path + ": not a regular file");
  }
  // As libpq does with a password file: a secret others can read is no secret.
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw TokenError("--token-file " + path +
                     ": group or others may read it; make it the owner's only (chmod 600)");
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw TokenError("--token-file " + path + ": cannot be read");
  }
  std::string token((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!token.empty() && token.back() == '\n') {
    token.pop_back();
    if (!token.empty() && token.back() == '\r') {
      token.pop_back();
    }
  }
  if (token.empty()) {
    throw TokenError("--token-file " + path + ": the file is empty");
  }
  return token;
}

}  // namespace

std::string resolveToken(TokenSource& source) {
  source.warning.clear();
  if (!source.file.empty() && !source.token.empty()) {
    throw TokenError("--token and --token-file: give one of them");
  }
  if (!source.file.empty()) {
    return readTokenFile(source.file);
  }
  if (!source.token.empty()) {
    source.warning = std::string(
                         "--token shows the secret in every process listing; prefer "
                         "--token-file PATH or the environment variable ") +
                     kTokenVariable;
    return source.token;
  }
  const char* fromEnvironment = std::getenv(kTokenVariable);
  return fromEnvironment == nullptr ? std::string() : std::string(fromEnvironment);
}

}  // namespace qvapp
