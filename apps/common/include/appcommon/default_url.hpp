#pragma once
// Where the programs of this project meet by default: the url of the daemon's socket and the
// per-user directories, shared by the daemon and the command-line client so that both find each
// other without being told.

#include <stdexcept>
#include <string>

namespace qvapp {

// The file name of the daemon's socket inside its state directory.
inline constexpr const char kSocketName[] = "qvuserinfod.sock";
// The state directory of a daemon started from the README command, relative to where it runs.
inline constexpr const char kCheckoutStateDir[] = "./var";

// A directory that cannot be used; the text says which and why.
class DirectoryError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The per-user runtime directory: $XDG_RUNTIME_DIR/qvuserinfo when XDG_RUNTIME_DIR is set, else
// /tmp/qvuserinfo-<uid>. Created with mode 0700 when missing. Throws DirectoryError when it
// exists and is not a directory of this user with mode 0700.
std::string runtimeDir();
// Where the daemon puts its socket when not told: runtimeDir().
std::string defaultStateDir();
// "unix://<dir>/qvuserinfod.sock", with `dir` made absolute.
std::string socketUrlIn(const std::string& dir);
// The url a client uses when not told: $QV_URL when set and not empty; else the socket of a
// daemon started from the README command in the working directory (./var/qvuserinfod.sock)
// when that file exists; else the socket in runtimeDir().
std::string defaultUrl();

}  // namespace qvapp
