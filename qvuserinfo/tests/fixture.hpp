#pragma once
// What the tests of the user information service share: a real in-memory knowledge store and a
// real user-session service published on an in-process session, the store recording the calls it
// receives; the service's log lines; a data store or a published front built on that session,
// and the signals a client of the front receives.

#include "qvuserinfoprivate.hpp"

#include <qvknowledge/knowledge_service.hpp>
#include <qvsqlite/sqlite_triplet_store.hpp>
#include <qvsqlite/sqlite_user_store.hpp>
#include <qvuserinfo/qvuserinfo.hpp>
#include <qvusersession/usersession_service.hpp>

#include <ka/log.hpp>
#include <ka/session.hpp>

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <QDate>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace userinfo_test {

// A string value, as a client writes one.
inline ka::AnyValue text(const std::string& s) {
  return ka::AnyValue(s);
}

using Strings = std::vector<std::string>;
using Rows = std::vector<Strings>;
using Ids = std::vector<int>;

constexpr int kWaitMs = 10000;
inline const std::string kOwn = "com.quorvelin.userinfo";
inline const std::string kOther = "com.example.other";
inline const std::string kPhotos = "com.quorvelin.photostorage";

// A log line of the service's categories, "<level> <category> <function> '<file>':<line>
// <message>"; the service never gives a file or a line.
using LogLine = std::string;
using LogLines = std::vector<LogLine>;
LogLine storeLine(ka::LogLevel level, const std::string& function, const std::string& message);
LogLine frontLine(ka::LogLevel level, const std::string& function, const std::string& message);
// What an operation that needs "QVUserSession" logs while there is none.
LogLine serviceAbsent();

// A call the knowledge store received, "<method>(<arg>, ...)".
using StoreCall = std::string;
using StoreCalls = std::vector<StoreCall>;
StoreCall storeCall(const std::string& method, const Strings& args);

// The triplets behind "QVKnowledge": an in-memory store that records every call it receives and
// fails the calls of one method on request.
class RecordingStore final : public QV::TripletStore {
  using S = const std::string&;

 public:
  Strings getObject(S d, S s, S p) const override;
  bool contains(S d, S s, S p, S o) const override;
  Rows queryTriplet(S d, S s, S p, S o) const override;
  void update(S d, S s, S p, S o) override;
  void add(S d, S s, S p, S o) override;
  void remove(S d, S s, S p, S o) override;
  void addMany(const std::vector<QV::Triplet>& triplets) override;
  const std::string& path() const noexcept override { return inner_.path(); }

  // The store itself, to seed and inspect without being recorded.
  QV::SqliteTripletStore& inner() { return inner_; }
  StoreCalls calls() const;
  void clear();
  // Calls of `method` throw KnowledgeStoreError(`text`) once recorded; "" stops that.
  void failCallsOf(const std::string& method, const std::string& text = "store is down");
  // Waits until `done` holds, checking whenever a call ends; false when the time runs out.
  bool waitUntil(const std::function<bool()>& done) const;

 private:
  template <typename F>
  auto recorded(const char* method, Strings args, F&& call) const;

  QV::SqliteTripletStore inner_{":memory:"};
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;  // a call ended
  mutable StoreCalls calls_;                 // guarded by mutex_
  std::string failing_;                      // guarded by mutex_
  std::string failure_;                      // guarded by mutex_
};

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

// "QVKnowledge" published on `services`, a peer of the session the service under test uses.
class UserInfoTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A data store on the session's "QVKnowledge" whose today is *today, read at each use.
  std::unique_ptr<QV::QVUserInfoPrivate> makeStore();
  void seed(const Rows& rows);
  Strings stored(const std::string& domain, int userId, const std::string& name);
  Rows rowsOf(int userId);
  LogLines logs() const { return capture.lines(); }
  void forget();

  const std::shared_ptr<RecordingStore> triplets = std::make_shared<RecordingStore>();
  ka::SessionPtr session;
  ka::SessionPtr services;
  std::shared_ptr<QDate> today = std::make_shared<QDate>(2026, 6, 15);
  LogCapture capture;
};

// An emission of userInfoEdited, "<id> <name> <describe(value)>", or userInfoRemoved,
// "<id> <name>".
using Emission = std::string;
using Emissions = std::vector<Emission>;
Emission emission(int userId, const std::string& name, const std::string& value = "");

// A "QVUserSession" whose answers are fixed, for what the real service never does:
// "doesUserExist" throws `checkFailure` unless it is empty.
ka::AnyObject scriptedUsers(int focused, Ids known, const std::string& checkFailure = "",
                            bool deletedUsersSignal = true);

// The front on `session`, published and seen by a client from another session, next to the real
// "QVUserSession" in `users`, published on demand.
class FrontTest : public UserInfoTest {
 protected:
  void TearDown() override;

  // Publishes the real service, or `object`, as "QVUserSession" (or under another name).
  void publishUsers(ka::AnyObject object = {}, const std::string& name = "QVUserSession");
  void withdrawUsers();
  void startFront();
  Emissions edited() const;
  Emissions removed() const;

  boost::shared_ptr<QV::UserSessionService> users =
      boost::make_shared<QV::UserSessionService>(QV::openSqliteUserStore(":memory:"));
  unsigned int usersId = 0;
  boost::shared_ptr<QV::QVUserInfo> front;
  ka::SessionPtr clientSession;
  ka::AnyObject client;

 private:
  struct Received {
    mutable std::mutex mutex;
    Emissions edited;   // guarded by mutex
    Emissions removed;  // guarded by mutex
  };
  std::shared_ptr<Received> received_ = std::make_shared<Received>();
};

// The text of what `f` throws, "" when it returns.
std::string errorOf(const std::function<void()>& f);

// A value as "<signature>:<text>", "v:" for the void value and ":" for the empty one.
std::string describe(const ka::AnyValue& value);

}  // namespace userinfo_test
