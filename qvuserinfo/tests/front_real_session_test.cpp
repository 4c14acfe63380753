// The front next to the real "QVUserSession", on its SQLite file, and a real in-memory knowledge
// store, all on one session, driven by name by a client on another: the focused user and its
// changes, unknown and deleted users, a user-session service that comes late or restarts, and
// users created and deleted under concurrent reads and writes.

#include "front_fixture.hpp"

#include <ka/future.hpp>

#include <QDate>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace front_test {
namespace {

using Ids = std::vector<int>;
using Rows = std::vector<std::vector<std::string>>;

LogLines noFocusLines() {
  return {frontLine(ka::LogLevel::Error, "xGetFocusedUser", "There is no focused user"),
          frontLine(ka::LogLevel::Error, "xCheckUser", "User -1 does not exists")};
}

LogLines unknownUserLines(int userId) {
  return {frontLine(ka::LogLevel::Error, "xCheckUser",
                    "User " + std::to_string(userId) + " does not exists")};
}

ka::AnyValue text(const std::string& value) {
  return ka::AnyValue(value);
}

class RealSessionTest : public FrontTest {
 protected:
  void SetUp() override {
    servicesOnFrontSession = true;
    FrontTest::SetUp();
  }

  // A fresh instance on the test's file, published as "QVUserSession".
  void openUserSession() {
    userSessionService = usersFile.open();
    publishUserSessionObject(QV::makeUserSessionObject(userSessionService));
  }
  void closeUserSession() {
    withdrawUserSession();
    userSessionService.reset();
  }

  // The client's "QVUserSession", looked up afresh: it may have been replaced.
  ka::AnyObject users() const { return clientSession->service("QVUserSession").value(kWaitMs); }
  int createUser() const { return users()->call<int>("createUser"); }
  bool deleteUsers(const Ids& userIds) const { return users()->call<bool>("deleteUsers", userIds); }
  bool focus(int userId) const { return users()->call<bool>("setFocusedUser", userId); }

  template <typename R, typename... A>
  R call(const std::string& method, const A&... args) const {
    return client->call<R>(method, args...);
  }
  // What `get` answers, as "<signature>:<text>": "v:" for a refusal, ":" for nothing stored.
  template <typename... A>
  std::string read(const A&... args) const {
    const ka::AnyValue value = call<ka::AnyValue>("get", args...);
    const std::string signature = value.signature(true).toString();
    if (signature == "s") {
      return "s:" + value.toString();
    }
    if (signature == "i") {
      return "i:" + std::to_string(value.toInt64());
    }
    return signature + ":";
  }

  // Everything the knowledge store holds about `userId`, photo storage included.
  Rows rowsOf(int userId) {
    return knowledge.direct().queryTriplet("*", std::to_string(userId), "*", "*");
  }
  Rows rowsOutsidePhotoStorage(int userId) {
    Rows rows = rowsOf(userId);
    rows.erase(std::remove_if(rows.begin(), rows.end(),
                              [](const auto& row) { return row.at(0) == kPhotoDomain; }),
               rows.end());
    return rows;
  }
  // The removal of a deleted user's data runs on a queued delivery: waits until it has.
  bool waitUntilDataIsGone(const Ids& userIds) {
    return knowledge.waitFor(
        [&](const StoreCalls&) {
          return std::all_of(userIds.begin(), userIds.end(),
                             [&](int id) { return rowsOutsidePhotoStorage(id).empty(); });
        },
        kWaitMs);
  }

  UserSessionFile usersFile;
  boost::shared_ptr<QV::UserSessionService> userSessionService;
};

// --- The focused user ------------------------------------------------------------------------

class RealSessionFocusTest : public RealSessionTest {
 protected:
  void SetUp() override {
    RealSessionTest::SetUp();
    openUserSession();
    startFront();
    ann = createUser();
    bo = createUser();
    ASSERT_TRUE(focus(ann));
    forget();
  }

  int ann = 0;
  int bo = 0;
};

TEST_F(RealSessionFocusTest, CallsWithoutAnIdWriteReadAndRemoveTheFocusedUsersData) {
  EXPECT_TRUE(call<bool>("_set", "name", text("Ann")));
  EXPECT_EQ(read("name"), "s:Ann");
  EXPECT_EQ(read(ann, "name"), "s:Ann");
  EXPECT_EQ(read(bo, "name"), ":") << "the other user got the focused user's data";
  EXPECT_TRUE(call<bool>("has", "name"));
  EXPECT_TRUE(call<bool>("_remove", "name"));
  EXPECT_FALSE(call<bool>("has", "name"));
  EXPECT_FALSE(call<bool>("_remove", "name")) << "removing an absent datum succeeded";

  EXPECT_EQ(edited(), (Emissions{{ann, "name", "s", "Ann"}}));
  EXPECT_EQ(removed(), (Emissions{{ann, "name", "", ""}}));
  EXPECT_EQ(logs(), (LogLines{userdata_test::storeLine(
                        ka::LogLevel::Info, "remove",
                        "The information name doesn't exist int the domain " + kOwnDomain)}));
}

TEST_F(RealSessionFocusTest, TheAgeFollowsTheFocusedUsersBirthDate) {
  const int year = QDate::currentDate().year() - 30;
  EXPECT_TRUE(call<bool>("_set", "birthyear", ka::AnyValue(year)));
  EXPECT_TRUE(call<bool>("_set", "birthmonth", ka::AnyValue(1)));
  EXPECT_TRUE(call<bool>("_set", "birthday", ka::AnyValue(1)));
  EXPECT_EQ(read("age"), "i:30");

  EXPECT_TRUE(call<bool>("_set", "birthyear", ka::AnyValue(year - 12)));
  EXPECT_EQ(read("age"), "i:42") << "the age was not derived afresh";
  EXPECT_EQ(read(bo, "age"), ":") << "a user without a birth date got an age";
}

TEST_F(RealSessionFocusTest, ChangingTheFocusRedirectsTheCallsWithoutAnId) {
  ASSERT_TRUE(call<bool>("_set", "name", text("Ann")));
  ASSERT_TRUE(focus(bo));
  EXPECT_EQ(read("name"), ":");
  EXPECT_TRUE(call<bool>("_set", "name", text("Bo")));
  EXPECT_EQ(read("name"), "s:Bo");
  EXPECT_EQ(read(ann, "name"), "s:Ann") << "the write went to the previously focused user";

  ASSERT_TRUE(focus(ann));
  EXPECT_TRUE(call<bool>("_remove", "name"));
  EXPECT_EQ(read(bo, "name"), "s:Bo");
  EXPECT_EQ(edited(), (Emissions{{ann, "name", "s", "Ann"}, {bo, "name", "s", "Bo"}}));
  EXPECT_EQ(removed(), (Emissions{{ann, "name", "", ""}}));
}

TEST_F(RealSessionFocusTest, WithTheFocusClearedTheCallsWithoutAnIdAreRefused) {
  ASSERT_TRUE(call<bool>("_set", "name", text("Ann")));
  users()->call<void>("clearFocus");
  forget();

  EXPECT_EQ(read("name"), "v:");
  EXPECT_EQ(logs(), noFocusLines());
  forget();
  EXPECT_FALSE(call<bool>("_set", "name", text("Nobody")));
  EXPECT_EQ(logs(), noFocusLines());
  forget();
  EXPECT_FALSE(call<bool>("has", "name"));
  EXPECT_EQ(logs(), noFocusLines());
  forget();
  EXPECT_FALSE(call<bool>("_remove", "name"));
  EXPECT_EQ(logs(), noFocusLines());

  EXPECT_EQ(read(ann, "name"), "s:Ann") << "a refused call changed the data";
  EXPECT_EQ(edited(), (Emissions{{ann, "name", "s", "Ann"}}));
  EXPECT_TRUE(removed().empty());
}

TEST_F(RealSessionFocusTest, DeletingTheFocusedUserLeavesNoFocusBehind) {
  ASSERT_TRUE(call<bool>("_set", "name", text("Ann")));
  ASSERT_TRUE(deleteUsers({ann}));
  ASSERT_TRUE(waitUntilDataIsGone({ann}));
  forget();
  EXPECT_FALSE(call<bool>("_set", "name", text("Ghost")));
  EXPECT_EQ(logs(), noFocusLines());
  EXPECT_TRUE(rowsOf(ann).empty()) << "a write reached the deleted user";
}

// --- Unknown and deleted users ---------------------------------------------------------------

class RealSessionUnknownUserTest : public RealSessionTest {
 protected:
  void SetUp() override {
    RealSessionTest::SetUp();
    openUserSession();
    startFront();
  }
};

TEST_F(RealSessionUnknownUserTest, AnIdNeverHandedOutIsRefusedWithoutTouchingTheStore) {
  const int known = createUser();
  const int unknown = known + 1;
  forget();
  EXPECT_EQ(read(unknown, "name"), "v:");
  EXPECT_FALSE(call<bool>("_set", unknown, "name", text("Nobody")));
  EXPECT_FALSE(call<bool>("has", unknown, "name"));
  EXPECT_FALSE(call<bool>("_remove", unknown, "name"));
  const LogLine line = unknownUserLines(unknown).front();
  EXPECT_EQ(logs(), (LogLines{line, line, line, line}));
  EXPECT_TRUE(rowsOf(unknown).empty());
  EXPECT_TRUE(edited().empty());
  EXPECT_TRUE(removed().empty());
  EXPECT_EQ(createUser(), unknown) << "the refusals created the user";
}

TEST_F(RealSessionUnknownUserTest, DeletingAUserErasesItsDataSilentlyButSparesThePhotoStorage) {
  const int gone = createUser();
  const int kept = createUser();
  ASSERT_TRUE(call<bool>("_set", gone, "name", text("Gone")));
  ASSERT_TRUE(call<bool>("_set", gone, "birthyear", ka::AnyValue(1980)));
  ASSERT_TRUE(call<bool>("set", kOtherDomain, gone, "nickname", text("G")));
  ASSERT_TRUE(call<bool>("_set", kept, "name", text("Kept")));
  knowledge.direct().update(kPhotoDomain, std::to_string(gone), "face", "f1");
  forget();

  ASSERT_TRUE(deleteUsers({gone}));
  ASSERT_TRUE(waitUntilDataIsGone({gone})) << "the deleted user's data is still stored";
  EXPECT_EQ(rowsOf(gone), (Rows{{kPhotoDomain, std::to_string(gone), "face", "f1"}}));
  EXPECT_EQ(read(kept, "name"), "s:Kept");
  EXPECT_TRUE(removed().empty()) << "the erasure announced itself";
  EXPECT_TRUE(logs().empty());

  EXPECT_EQ(read(gone, "name"), "v:");
  EXPECT_FALSE(call<bool>("_set", gone, "name", text("Back")));
  const LogLine line = unknownUserLines(gone).front();
  EXPECT_EQ(logs(), (LogLines{line, line}));
  EXPECT_EQ(rowsOutsidePhotoStorage(gone), Rows{});
}

// --- A user-session service that comes late or restarts --------------------------------------

class RealSessionRestartTest : public RealSessionTest {};

TEST_F(RealSessionRestartTest, AServicePublishedAfterTheFrontIsFollowed) {
  startFront();
  EXPECT_FALSE(call<bool>("has", "name"));
  EXPECT_EQ(logs(), serviceAbsentLines());

  openUserSession();
  const int user = createUser();
  ASSERT_TRUE(focus(user));
  forget();
  EXPECT_TRUE(call<bool>("_set", "name", text("Late")));
  EXPECT_EQ(read(user, "name"), "s:Late");
  EXPECT_TRUE(logs().empty());

  ASSERT_TRUE(deleteUsers({user}));
  EXPECT_TRUE(waitUntilDataIsGone({user})) << "the front did not subscribe to the late service";
}

TEST_F(RealSessionRestartTest, AFreshInstanceOnTheSameFileIsFollowedAndHandsOutNoIdAgain) {
  openUserSession();
  startFront();
  const int ann = createUser();
  const int last = createUser();
  ASSERT_TRUE(focus(ann));
  ASSERT_TRUE(call<bool>("_set", "name", text("Ann")));
  ASSERT_TRUE(call<bool>("_set", last, "name", text("Last")));
  ASSERT_TRUE(deleteUsers({last}));
  ASSERT_TRUE(waitUntilDataIsGone({last}));

  closeUserSession();
  forget();
  EXPECT_EQ(read("name"), "v:");
  EXPECT_EQ(logs(), serviceAbsentLines());

  openUserSession();
  forget();
  EXPECT_EQ(read("name"), "s:Ann") << "the focus or the user was lost across the restart";
  EXPECT_TRUE(logs().empty());
  const int next = createUser();
  EXPECT_GT(next, last) << "the id of a deleted user was handed out again";
  EXPECT_FALSE(call<bool>("has", next, "name"));
  EXPECT_EQ(read(last, "name"), "v:");

  // The fresh instance's deletions reach the front too.
  ASSERT_TRUE(deleteUsers({ann}));
  EXPECT_TRUE(waitUntilDataIsGone({ann}));
}

// --- Users created and deleted under concurrent calls ----------------------------------------

class RealSessionStressTest : public RealSessionTest {};

TEST_F(RealSessionStressTest, CallsOnUsersBeingCreatedAndDeletedAnswerOrRefuseAndLeaveNoData) {
  constexpr int kCallers = 2;
  constexpr std::size_t kLiveUsers = 3;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1000);
  openUserSession();
  startFront();
  const int steady = createUser();

  std::mutex mutex;
  Ids live;     // guarded by mutex: the users the callers pick from, the oldest first
  Ids deleted;  // guarded by mutex
  const auto pick = [&](int i) {
    std::lock_guard lock(mutex);
    return live.empty() || i % 4 == 0 ? steady : live[static_cast<std::size_t>(i) % live.size()];
  };

  std::atomic<int> malformed{0};
  std::atomic<int> answered{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < kCallers; ++t) {
    callers.emplace_back([&, t] {
      for (int i = t; std::chrono::steady_clock::now() < deadline; ++i) {
        const int user = pick(i);
        const std::string name = "n" + std::to_string(user);
        try {
          const bool written = call<bool>("_set", user, "name", text(name));
          const std::string answer = read(user, "name");
          if (answer == "s:" + name) {
            ++answered;
          } else if (answer == "v:" || (answer == ":" && user != steady)) {
            ++refused;
          } else {
            ADD_FAILURE() << "user " << user << " (written: " << written << ") read " << answer;
            ++malformed;
          }
        } catch (const std::exception& e) {
          ADD_FAILURE() << "user " << user << ": " << e.what();
          ++malformed;
        }
      }
    });
  }
  try {
    while (std::chrono::steady_clock::now() < deadline) {
      const int user = createUser();
      int oldest = 0;
      {
        std::lock_guard lock(mutex);
        live.push_back(user);
        if (live.size() > kLiveUsers) {
          oldest = live.front();
          live.erase(live.begin());
          deleted.push_back(oldest);
        }
      }
      // Callers that picked it a moment ago may still be calling on it.
      if (oldest != 0) {
        EXPECT_TRUE(deleteUsers({oldest}));
      }
    }
  } catch (const std::exception& e) {
    ADD_FAILURE() << "creating or deleting users: " << e.what();
  }
  for (auto& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(malformed.load(), 0);
  EXPECT_GT(answered.load(), 0);
  ASSERT_FALSE(deleted.empty());

  EXPECT_TRUE(waitUntilDataIsGone(deleted)) << "data of a deleted user remains";
  for (const int user : deleted) {
    EXPECT_EQ(rowsOf(user), Rows{}) << "user " << user;
  }
  EXPECT_EQ(read(steady, "name"), "s:n" + std::to_string(steady));
  EXPECT_TRUE(removed().empty());
  RecordProperty("answered", answered.load());
  RecordProperty("refused", refused.load());
  RecordProperty("deleted", static_cast<int>(deleted.size()));
}

}  // namespace
}  // namespace front_test
