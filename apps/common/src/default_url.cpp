#include <appcommon/default_url.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace qvapp {
namespace {

constexpr const char kAppDirName[] = "qvuserinfo";

// The variable's value, or empty when it is unset or empty.
std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

// Creates `dir` with mode 0700 unless it exists, then checks that it is a directory of this
// user that nobody else may enter.
void ensurePrivateDirectory(const std::string& dir) {
  if (::mkdir(dir.c_str(), S_IRWXU) == 0) {
    ::chmod(dir.c_str(), S_IRWXU);  // the umask may have taken bits away, never added any
  } else if (errno != EEXIST) {
    throw DirectoryError("cannot create " + dir + ": " + std::strerror(errno));
  }
  struct stat status {};
  if (::lstat(dir.c_str(), &status) != 0) {
    throw DirectoryError("cannot use " + dir + ": " + std::strerror(errno));
  }
  if (!S_ISDIR(status.st_mode)) {
    throw DirectoryError("cannot use " + dir + ": it is not a directory");
  }
  if (status.st_uid != ::getuid()) {
    throw DirectoryError("cannot use " + dir + ": it belongs to another user (uid " +
                         std::to_string(status.st_uid) + ")");
  }
  if ((status.st_mode & 07777) != S_IRWXU) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
    throw DirectoryError("cannot use " + dir + ": its mode is " + mode +
                         ", not 0700 (others could reach the socket)");
  }
}

}  // namespace

std::string runtimeDir() {
  const std::string xdg = env("XDG_RUNTIME_DIR");
  const std::string dir =
      xdg.empty() ? "/tmp/" + std::string(kAppDirName) + "-" + std::to_string(::getuid())
                  : xdg + "/" + kAppDirName;
  ensurePrivateDirectory(dir);
  return dir;
}

std::string dataDir() {
  const std::string xdg = env("XDG_DATA_HOME");
  if (!xdg.empty()) {
    return xdg + "/" + kAppDirName;
  }
  const std::string home = env("HOME");
  if (home.empty()) {
    throw DirectoryError("no data directory: neither XDG_DATA_HOME nor HOME is set");
  }
  return home + "/.local/share/" + kAppDirName;
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
  if (std::filesystem::is_socket(std::filesystem::path(kCheckoutStateDir) / kSocketName, ignored)) {
    return socketUrlIn(kCheckoutStateDir);
  }
  return socketUrlIn(runtimeDir());
}

std::string daemonDefaultUrl() {
  const std::string fromEnv = env("QV_URL");
  return fromEnv.empty() ? socketUrlIn(defaultStateDir()) : fromEnv;
}

}  // namespace qvapp
