// The default url and directories the daemon and the client agree on, from the environment
// and the working directory.

#include <appcommon/default_url.hpp>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>

namespace fs = std::filesystem;

namespace {

// Runs each test in a fresh temporary directory with the variables it reads cleared, and puts
// everything back afterwards.
class DefaultUrl : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"QV_URL", "XDG_RUNTIME_DIR", "XDG_DATA_HOME", "HOME"}) {
      const char* value = std::getenv(name);
      saved_[name] = value ? std::optional<std::string>(value) : std::nullopt;
      ::unsetenv(name);
    }
    char pattern[] = "/tmp/qv-default-url-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    previous_ = fs::current_path();
    fs::current_path(dir_);
  }
  void TearDown() override {
    fs::current_path(previous_);
    fs::remove_all(dir_);
    for (const auto& [name, value] : saved_) {
      if (value) {
        ::setenv(name.c_str(), value->c_str(), 1);
      } else {
        ::unsetenv(name.c_str());
      }
    }
  }

  // A runtime dir under the test's directory, as XDG_RUNTIME_DIR.
  fs::path useRuntimeDir() {
    const fs::path runtime = dir_ / "run";
    fs::create_directory(runtime);
    ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    return runtime;
  }

  // Leaves a bound Unix socket file at `path` (no one listens on it).
  static void makeSocketFile(const fs::path& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
  }

  fs::path dir_;

 private:
  fs::path previous_;
  std::map<std::string, std::optional<std::string>> saved_;
};

TEST_F(DefaultUrl, TheEnvironmentVariableWinsForBothProgramsWhenNotEmpty) {
  useRuntimeDir();
  ::setenv("QV_URL", "tcp://127.0.0.1:7000", 1);
  EXPECT_EQ(qvapp::defaultUrl(), "tcp://127.0.0.1:7000");
  EXPECT_EQ(qvapp::daemonDefaultUrl(), "tcp://127.0.0.1:7000");
  ::setenv("QV_URL", "", 1);
  EXPECT_EQ(qvapp::defaultUrl(), "unix://" + (dir_ / "run/qvuserinfo/qvuserinfod.sock").string());
}

TEST_F(DefaultUrl, TheClientPrefersTheSocketOfADaemonStartedInTheWorkingDirectory) {
  const fs::path runtime = useRuntimeDir();
  fs::create_directory("var");
  const std::string perUser = "unix://" + (runtime / "qvuserinfo/qvuserinfod.sock").string();
  EXPECT_EQ(qvapp::defaultUrl(), perUser) << "./var without a socket is not a daemon";
  makeSocketFile(dir_ / "var/qvuserinfod.sock");
  EXPECT_EQ(qvapp::defaultUrl(), "unix://" + (dir_ / "var/qvuserinfod.sock").string());
  EXPECT_EQ(qvapp::daemonDefaultUrl(), perUser) << "the daemon never picks ./var by itself";
}

TEST_F(DefaultUrl, TheRuntimeDirIsCreatedPrivateUnderXdgRuntimeDirOrTmp) {
  const fs::path runtime = useRuntimeDir();
  EXPECT_EQ(qvapp::runtimeDir(), (runtime / "qvuserinfo").string());
  struct stat status {};
  ASSERT_EQ(::stat((runtime / "qvuserinfo").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  EXPECT_EQ(qvapp::runtimeDir(), (runtime / "qvuserinfo").string()) << "an existing one is kept";

  ::unsetenv("XDG_RUNTIME_DIR");
  EXPECT_EQ(qvapp::runtimeDir(), "/tmp/qvuserinfo-" + std::to_string(::getuid()));
}

TEST_F(DefaultUrl, ARuntimeDirThatOthersCouldEnterOrThatIsNoDirectoryIsRefused) {
  const fs::path runtime = useRuntimeDir();
  fs::create_directory(runtime / "qvuserinfo");
  ::chmod((runtime / "qvuserinfo").c_str(), 0755);
  try {
    qvapp::runtimeDir();
    FAIL() << "a 0755 runtime dir was accepted";
  } catch (const qvapp::DirectoryError& e) {
    EXPECT_NE(std::string(e.what()).find("0755"), std::string::npos) << e.what();
  }
  EXPECT_THROW(qvapp::defaultUrl(), qvapp::DirectoryError);
  fs::remove(runtime / "qvuserinfo");
  { std::ofstream file(runtime / "qvuserinfo"); }
  EXPECT_THROW(qvapp::runtimeDir(), qvapp::DirectoryError);
}

TEST_F(DefaultUrl, TheDataDirFollowsXdgDataHomeThenHome) {
  ::setenv("HOME", "/home/someone", 1);
  EXPECT_EQ(qvapp::dataDir(), "/home/someone/.local/share/qvuserinfo");
  ::setenv("XDG_DATA_HOME", "/data", 1);
  EXPECT_EQ(qvapp::dataDir(), "/data/qvuserinfo");
  ::unsetenv("XDG_DATA_HOME");
  ::unsetenv("HOME");
  EXPECT_THROW(qvapp::dataDir(), qvapp::DirectoryError);
}

}  // namespace
