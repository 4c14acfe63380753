#pragma once
// Helpers shared by the tests: what subscribers see, waited on with a time limit; an echo
// service; what a log category says; a guard that reports a deadlock instead of freezing the run;
// and this test program started again as a second process.

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/log.hpp>
#include <ka/session.hpp>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace ka {
namespace test {

// Long enough never to expire on a loaded machine: reaching it means the test failed.
inline constexpr int kWaitMs = 10000;

template <typename T>
class Recorder {
 public:
  void add(T value) {
    std::lock_guard<std::mutex> lock(m_);
    seen_.push_back(std::move(value));
    cv_.notify_all();
  }
  // Everything seen once `pred(seen)` holds, or when time runs out.
  template <typename P>
  std::vector<T> waitUntil(P pred) {
    std::unique_lock<std::mutex> lock(m_);
    cv_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return pred(seen_); });
    return seen_;
  }
  std::vector<T> waitFor(std::size_t n) {
    return waitUntil([n](const std::vector<T>& s) { return s.size() >= n; });
  }
  std::vector<T> now() {
    std::lock_guard<std::mutex> lock(m_);
    return seen_;
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  std::vector<T> seen_;  // guarded by m_
};

// Records "+<name>" and "-<name>" (with `ids`, "+<id><name>") as a session's "ServiceDirectory"
// announces them.
inline void watchDirectory(const SessionPtr& session, Recorder<std::string>& events,
                           bool ids = false) {
  AnyObject directory = session->service("ServiceDirectory").value(kWaitMs);
  for (const char* sign : {"+", "-"}) {
    directory
        ->connect(*sign == '+' ? "serviceAdded" : "serviceRemoved",
                  [&events, sign, ids](int id, const std::string& name) {
                    events.add(sign + (ids ? std::to_string(id) : "") + name);
                  })
        .value(kWaitMs);
  }
}

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Whether `condition` holds within the time limit. For state that another thread settles
// without telling anyone; whatever signals is waited on instead.
template <typename Condition>
bool becomes(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

inline AnyObject echoObject(const std::string& prefix = "") {
  DynamicObjectBuilder b;
  b.setThreadingModel(ObjectThreadingModel::MultiThread);
  b.advertiseMethod("echo", [prefix](const std::string& s) { return prefix + s; });
  return b.object();
}

// Collects the messages of one log category.
class LogCapture {
 public:
  explicit LogCapture(std::string category) : category_(std::move(category)) {}
  // Whether a message holding `text` has come, or comes within the time limit.
  bool waitFor(const std::string& text) {
    std::unique_lock<std::mutex> lock(m_);
    return cv_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                        [&] { return text_.find(text) != std::string::npos; });
  }
  int warnings() {
    std::lock_guard<std::mutex> lock(m_);
    return warnings_;
  }

 private:
  const std::string category_;
  std::mutex m_;
  std::condition_variable cv_;
  std::string text_;  // guarded by m_
  int warnings_ = 0;  // guarded by m_
  log::ScopedHandler handler_{[this](const log::Message& m) {
    if (m.category == category_) {
      std::lock_guard<std::mutex> lock(m_);
      text_ += m.message + "\n";
      warnings_ += m.level == LogLevel::Warning ? 1 : 0;
      cv_.notify_all();
    }
  }};  // declared last: unregistered before the members it uses go
};

// Runs `work` on its own thread; false if it has not finished within `limit`. A deadlocked
// thread is abandoned (detached) so that the failure is reported instead of freezing the run.
inline bool finishesInTime(std::function<void()> work,
                           std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> finished = done->get_future();
  std::thread runner([work = std::move(work), done] {
    work();
    done->set_value();
  });
  if (finished.wait_for(limit) != std::future_status::ready) {
    runner.detach();
    return false;
  }
  runner.join();
  return true;
}

// This test program started again, running only the test `filter` names, with `variable` set to
// `value`. Killed and reaped with this object at the latest.
class ChildProcess {
 public:
  ChildProcess(const std::string& filter, const std::string& variable, const std::string& value) {
    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) {
      environment.emplace_back(*e);
    }
    environment.push_back(variable + "=" + value);
    std::vector<char*> envp;
    for (auto& entry : environment) {
      envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    std::string self = std::filesystem::read_symlink("/proc/self/exe");
    std::string option = "--gtest_filter=" + filter;
    char* argv[] = {self.data(), option.data(), nullptr};
    if (::posix_spawn(&pid_, self.c_str(), nullptr, nullptr, argv, envp.data()) != 0) {
      pid_ = 0;
    }
  }
  ~ChildProcess() { killAndWait(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // 0 if the program could not be started.
  pid_t pid() const { return pid_; }
  // Kills the process and returns its wait status (0 once reaped before).
  int killAndWait() {
    int status = 0;
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      pid_ = 0;
    }
    return status;
  }

 private:
  pid_t pid_ = 0;
};

}  // namespace test
}  // namespace ka
