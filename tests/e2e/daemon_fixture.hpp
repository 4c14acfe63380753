#pragma once
// A gtest fixture running the real qvuserinfod on a fresh temporary directory, and a client
// session driving it, shared by the end-to-end and the load tests. Every wait has a time
// limit. The including program defines QV_DAEMON_PATH (the daemon binary).

#include "process_harness.hpp"

#include <ka/anyvalue.hpp>
#include <ka/future.hpp>
#include <ka/session.hpp>

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>

#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace e2e {

// Generous upper bounds (sanitizer builds start slowly); the tests take far less.
constexpr Millis kLimit{20000};
constexpr int kCallMs = 20000;

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

inline std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    out.push_back(line);
  }
  return out;
}

// A sanitized daemon fails its run on the first report, with an exit code no test expects.
inline const std::map<std::string, std::string>& sanitizedChildEnv() {
  static const std::map<std::string, std::string> env{
      {"TSAN_OPTIONS", "halt_on_error=1 second_deadlock_stack=1 exitcode=66"},
      {"ASAN_OPTIONS", "detect_leaks=1 exitcode=66"},
      {"UBSAN_OPTIONS", "print_stacktrace=1 halt_on_error=1 exitcode=66"},
  };
  return env;
}

inline void expectNoSanitizerReport(const std::string& err) {
  EXPECT_FALSE(contains(err, "Sanitizer") || contains(err, "runtime error:")) << err;
}

// A client of the daemon: a session joined to its directory and the two services it drives.
// Every call waits at most kCallMs, so a daemon that stops answering fails the test.
struct Client {
  explicit Client(const std::string& url) {
    session->connect(url).value(kCallMs);
    users = session->service("QVUserSession").value(kCallMs);
    info = session->service("QVUserInfo").value(kCallMs);
  }
  ~Client() { session->close(); }

  int createUser() { return users->async<int>("createUser").value(kCallMs); }
  bool set(int user, const std::string& name, const std::string& value) {
    return info->async<bool>("_set", user, name, ka::AnyValue(value)).value(kCallMs);
  }
  std::string get(int user, const std::string& name) {
    return info->async<ka::AnyValue>("get", user, name).value(kCallMs).to<std::string>();
  }

  ka::SessionPtr session = ka::makeSession();
  ka::AnyObject users;
  ka::AnyObject info;
};

// Writers, each on a connection and a user of its own, setting k0=v0, k1=v1, ... until the daemon
// refuses or goes. What each had acknowledged must be there after a restart.
class AcknowledgedWrites {
 public:
  AcknowledgedWrites(const std::string& url, int writers)
      : _userOf(writers, 0), _acknowledgedBy(writers, 0), _failures(writers) {
    for (int w = 0; w < writers; ++w) {
      _threads.emplace_back([this, url, w] { write(url, w); });
    }
  }
  ~AcknowledgedWrites() { join(); }

  // Whether `total` writes were acknowledged in all within kLimit.
  bool waitFor(int total) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _progressed.wait_for(lock, kLimit, [&] { return _acknowledged >= total; });
  }
  void join() {
    for (auto& t : _threads) {
      if (t.joinable()) {
        t.join();
      }
    }
  }
  // After join: no writer saw a refusal or a hang while the daemon ran, and every acknowledged
  // write reads back through `client`.
  void expectAllThere(Client& client) const {
    for (std::size_t w = 0; w < _threads.size(); ++w) {
      EXPECT_EQ(_failures[w], "") << "writer " << w;
      ASSERT_GT(_userOf[w], 0) << "writer " << w << " never got a user";
      EXPECT_TRUE(client.users->async<bool>("doesUserExist", _userOf[w]).value(kCallMs));
      for (int n = 0; n < _acknowledgedBy[w]; ++n) {
        ASSERT_EQ(client.get(_userOf[w], "k" + std::to_string(n)), "v" + std::to_string(n))
            << "writer " << w << " lost acknowledged write " << n << " of " << _acknowledgedBy[w];
      }
    }
  }

 private:
  void write(const std::string& url, int w) {
    try {
      Client client(url);
      _userOf[w] = client.createUser();
      for (int n = 0;; ++n) {
        if (!client.set(_userOf[w], "k" + std::to_string(n), "v" + std::to_string(n))) {
          _failures[w] = "refused a write while running";
          return;
        }
        _acknowledgedBy[w] = n + 1;
        std::lock_guard<std::mutex> lock(_mutex);
        ++_acknowledged;
        _progressed.notify_all();
      }
    } catch (const ka::FutureTimeoutError&) {
      _failures[w] = "a call was neither answered nor cut off";
    } catch (const std::exception&) {
      // refused by a stopping daemon or cut off: never acknowledged
    }
  }

  // Each writer's own slots, read by the test after join().
  std::vector<int> _userOf;
  std::vector<int> _acknowledgedBy;
  std::vector<std::string> _failures;
  std::vector<std::thread> _threads;
  std::mutex _mutex;
  std::condition_variable _progressed;
  int _acknowledged = 0;  // guarded by _mutex
};

class Daemon : public ::testing::Test {
 protected:
  void SetUp() override {
    env_ = sanitizedChildEnv();
    // Defaults resolve inside the test's directory, never in the user's.
    env_["XDG_RUNTIME_DIR"] = (dir_ / "run").string();
    env_["XDG_DATA_HOME"] = (dir_ / "data").string();
    env_["QV_URL"] = "";
    std::filesystem::create_directory(dir_ / "run");
  }
  std::filesystem::path stateDir() const { return dir_ / "var"; }
  std::string socketPath() const { return (stateDir() / "qvuserinfod.sock").string(); }
  std::string socketUrl() const { return "unix://" + socketPath(); }

  std::unique_ptr<Process> spawn(const std::vector<std::string>& args) {
    return std::make_unique<Process>(QV_DAEMON_PATH, args, env_);
  }
  // A daemon that has said it is ready; fails the test (and answers null) otherwise.
  std::unique_ptr<Process> start(std::vector<std::string> args = {}) {
    if (args.empty()) {
      args = {"--state-dir", stateDir().string()};
    }
    auto daemon = spawn(args);
    if (!daemon->waitForLine("ready ", kLimit)) {
      ADD_FAILURE() << "no readiness line; stdout:\n"
                    << daemon->out() << "stderr:\n"
                    << daemon->err();
      return nullptr;
    }
    return daemon;
  }
  // Stops a daemon with SIGTERM and checks it stopped cleanly.
  void stop(Process& daemon) {
    daemon.signal(SIGTERM);
    const auto code = daemon.waitExit(kLimit);
    ASSERT_TRUE(code) << "the daemon did not stop";
    EXPECT_EQ(*code, 0) << daemon.err();
    const auto out = lines(daemon.out());
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.back(), "stopped");
    expectNoSanitizerReport(daemon.err());
  }
  // Runs a daemon that must fail to start; answers its one stderr line.
  std::string startFails(const std::vector<std::string>& args) {
    const auto done = run(QV_DAEMON_PATH, args, kLimit, env_);
    EXPECT_EQ(done.exitCode, 1) << done.out << done.err;
    EXPECT_FALSE(contains(done.out, "ready ")) << done.out;
    const auto errLines = lines(done.err);
    EXPECT_EQ(errLines.size(), 1u) << done.err;
    return errLines.empty() ? std::string() : errLines.front();
  }

  const TempDir tempDir_{"qv-e2e"};
  const std::filesystem::path dir_ = tempDir_.path;
  std::map<std::string, std::string> env_;
};

}  // namespace e2e
