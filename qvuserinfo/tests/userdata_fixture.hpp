#pragma once
// What the data store's tests share: a real in-memory knowledge store published on an in-process
// session behind an object that records every call made to it, a capture of the log lines of the
// service's categories, and a data store built on that session with a date of the test's choice.

#include "qvuserinfoprivate.hpp"

#include <qvknowledge/knowledge_service.hpp>
#include <qvsqlite/sqlite_triplet_store.hpp>

#include <ka/log.hpp>
#include <ka/session.hpp>

#include <gtest/gtest.h>

#include <QDate>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace userdata_test {

constexpr int kWaitMs = 10000;
inline const std::string kOwnDomain = "com.quorvelin.userinfo";

// One call received by the knowledge store: its method and its text arguments.
struct StoreCall {
  std::string method;
  std::vector<std::string> args;
  bool operator==(const StoreCall& other) const {
    return method == other.method && args == other.args;
  }
  bool operator!=(const StoreCall& other) const { return !(*this == other); }
};
std::ostream& operator<<(std::ostream& out, const StoreCall& call);
using StoreCalls = std::vector<StoreCall>;

// "QVKnowledge" for the tests: forwards every call to a real in-memory store after recording it,
// and fails the calls of one method on request.
class RecordingKnowledge {
 public:
  RecordingKnowledge();

  ka::AnyObject object() const { return object_; }
  // The store itself, for seeding and inspecting without being recorded.
  QV::KnowledgeService& direct() { return *state_->service; }

  StoreCalls calls() const;
  void clearCalls();
  // Waits up to `ms` until `done` holds for the calls received so far and none is still running;
  // false when time runs out.
  bool waitFor(const std::function<bool(const StoreCalls&)>& done, int ms) const;
  // Calls of `method` throw std::runtime_error(`text`) after being recorded; "" stops that.
  void failCallsOf(const std::string& method, const std::string& text = "store is down");

 private:
  struct State {
    std::unique_ptr<QV::KnowledgeService> service;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;  // a call started or ended
    StoreCalls calls;                         // guarded by mutex
    int running = 0;                          // guarded by mutex
    std::string failingMethod;                // guarded by mutex
    std::string failureText;                  // guarded by mutex
    // Records the call and keeps it counted as running until the returned guard goes.
    std::shared_ptr<void> record(const std::string& method, std::vector<std::string> args);
  };
  std::shared_ptr<State> state_;
  ka::AnyObject object_;
};

// One log line as a handler receives it, with the fields the tests compare.
struct LogLine {
  ka::LogLevel level;
  std::string category;
  std::string function;
  std::string message;
  std::string file;
  int line;
  bool operator==(const LogLine& other) const {
    return level == other.level && category == other.category && function == other.function &&
           message == other.message && file == other.file && line == other.line;
  }
};
std::ostream& operator<<(std::ostream& out, const LogLine& line);
using LogLines = std::vector<LogLine>;

// A line of the data store's category with no file and line 0, as every line of the store is.
LogLine storeLine(ka::LogLevel level, const std::string& function, const std::string& message);

// Collects the lines of the categories "QVUserInfo" and "QVUserInfoPrivate" while it lives.
class LogCapture {
 public:
  LogCapture();
  LogLines lines() const;
  void clear();

 private:
  struct State {
    mutable std::mutex mutex;
    LogLines lines;  // guarded by mutex
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
  ka::log::ScopedHandler handler_;
};

// What every test of the library shares: the recording knowledge store and the captured log
// lines, with only the service's categories logged while the test runs.
class CapturingTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  StoreCalls calls() const { return knowledge.calls(); }
  LogLines logs() const { return capture.lines(); }

  RecordingKnowledge knowledge;
  LogCapture capture;
};

class UserDataTest : public CapturingTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A data store on the session's "QVKnowledge" whose today is `today` (read at each use).
  std::unique_ptr<QV::QVUserInfoPrivate> makeStore();

  void forget() {
    knowledge.clearCalls();
    capture.clear();
  }

  ka::SessionPtr session;
  QV::QVUserInfoPrivate::KnowledgeHandle handle;
  std::shared_ptr<QDate> today = std::make_shared<QDate>(2026, 6, 15);
  // Built in SetUp; the declarations it made are forgotten.
  std::unique_ptr<QV::QVUserInfoPrivate> store;
};

}  // namespace userdata_test
