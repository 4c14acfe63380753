// The front next to the real "QVUserSession" on its SQLite file and a real in-memory knowledge
// store, driven by name by a client on another session. Only what the test double cannot show: a
// front gone while the user-session instance lives on, and users created and deleted under
// concurrent reads and writes.

#include "front_fixture.hpp"

#include <ka/future.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace front_test {
namespace {

using Ids = std::vector<int>;
using Rows = std::vector<std::vector<std::string>>;

ka::AnyValue text(const std::string& value) {
  return ka::AnyValue(value);
}

class RealSessionTest : public FrontTest {
 protected:
  void SetUp() override {
    servicesOnFrontSession = true;
    FrontTest::SetUp();
    userSessionService = usersFile.open();
    publishUserSessionObject(QV::makeUserSessionObject(userSessionService));
    startFront();
  }

  ka::AnyObject users() const { return clientSession->service("QVUserSession").value(kWaitMs); }
  int createUser() const { return users()->call<int>("createUser"); }
  bool deleteUsers(const Ids& userIds) const { return users()->call<bool>("deleteUsers", userIds); }

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
    return signature + ":";
  }

  Rows rowsOf(int userId) {
    return knowledge.direct().queryTriplet("*", std::to_string(userId), "*", "*");
  }
  // The removal of a deleted user's data runs on a queued delivery: waits until it has.
  bool waitUntilDataIsGone(const Ids& userIds) {
    return knowledge.waitFor(
        [&](const StoreCalls&) {
          return std::all_of(userIds.begin(), userIds.end(),
                             [&](int id) { return rowsOf(id).empty(); });
        },
        kWaitMs);
  }

  UserSessionFile usersFile;
  boost::shared_ptr<QV::UserSessionService> userSessionService;
};

TEST_F(RealSessionTest, AFrontGoneAfterItsUserSessionLeftIsNotCalledByThatInstanceAgain) {
  const int user = createUser();
  ASSERT_TRUE(call<bool>("_set", user, "name", text("Ada")));
  // The service leaves but its instance lives on, as in a host stopping: the front lets go of
  // its handle, so its destructor cannot end that subscription; then the front goes.
  withdrawUserSession();
  clientSession->close();
  session->close();
  client.reset();
  front.reset();
  forget();

  // A deletion the instance still announces, queued to the front that is gone: it must not run
  // there (ASan reports the use after free otherwise). A queued probe on the same signal shows
  // that the deliveries of this emission have been dispatched.
  std::mutex mutex;
  std::condition_variable delivered;
  bool probed = false;  // guarded by mutex
  const ka::SignalLink probe = userSessionService->deletedUsers.connect(
      ka::SignalSubscriber(ka::AnyFunction::from([&](const std::vector<int>&) {
                             std::lock_guard<std::mutex> lock(mutex);
                             probed = true;
                             delivered.notify_all();
                           }),
                           ka::MetaCallType::Queued));
  ASSERT_TRUE(userSessionService->deleteUsers({user}));
  {
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_TRUE(
        delivered.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return probed; }));
  }
  userSessionService->deletedUsers.disconnect(probe);
  EXPECT_EQ(calls(), StoreCalls{}) << "the front that is gone erased the user";
}

TEST_F(RealSessionTest, CallsOnUsersBeingCreatedAndDeletedAnswerOrRefuseAndLeaveNoData) {
  constexpr int kCallers = 2;
  constexpr std::size_t kLiveUsers = 3;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1000);
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
