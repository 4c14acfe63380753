#include <appcommon/default_url.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace qvapp {
namespace {

// The variable's value, or empty when it is unset or empty.
std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

// Creates `dir` with mode 0700 unless it exists, then checks that nobody else may enter it.
void ensurePrivateDirectory(const std::string& dir) {
  if (::mkdir(dir.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    throw DirectoryError("cannot create " + dir + ": " + std::strerror(errno));
  }
  struct stat status {};
  if (::lstat(dir.c_str(), &status) != 0) {
    throw DirectoryError("cannot use " + dir + ": " + std::strerror(errno));
  }
  if (!S_ISDIR(status.st_mode) || status.st_uid != ::getuid() ||
      (status.st_mode & 07777) != S_IRWXU) {
    throw DirectoryError("cannot use " + dir +
                         ": it must be a directory of this user with mode 0700");
  }
}

}  // namespace

std::string runtimeDir() {
  const std::string xdg = env("XDG_RUNTIME_DIR");
  const std::string dir =
      xdg.empty() ? "/tmp/qvuserinfo-" + std::to_string(::getuid()) : xdg + "/qvuserinfo";
  ensurePrivateDirectory(dir);
  return dir;
}

std::string defaultStateDir() {
  return runtimeDir();
}

std::string socketUrlIn(const std::string& dir) {
  return "unix://" + (std::filesystem::absolute(dir).lexically_normal() / kSocketName).string();
}

std::string defaultUrl() {
  const std::string fromEnv = env("QV_URL");
  if (!fromEnv.empty()) {
    return fromEnv;
  }
  std::error_code ignored;
  if (std::filesystem::exists(std::filesystem::path(kCheckoutStateDir) / kSocketName, ignored)) {
    return socketUrlIn(kCheckoutStateDir);
  }
  return socketUrlIn(runtimeDir());
}

}  // namespace qvapp
