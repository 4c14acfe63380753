// UserSessionClient against the real service, in this process and over a connection: the typed
// calls, the signals through their hooks, and subscriptions that end with their handle without
// keeping the service alive.

#include <qvsqlite/sqlite_user_store.hpp>
#include <qvusersession/usersession_client.hpp>
#include <qvusersession/usersession_service.hpp>

#include <ka/future.hpp>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

using Ids = std::vector<int>;
constexpr int kWaitMs = 10000;

// The announcements a subscriber heard, as "created [ids]", "deleted [ids]" and "focus id".
class Heard {
 public:
  void add(const std::string& what, const Ids& ids) {
    std::string text = what;
    for (const int id : ids) {
      text += " " + std::to_string(id);
    }
    std::lock_guard lock(mutex_);
    seen_.push_back(text);
    changed_.notify_all();
  }
  std::vector<std::string> waitFor(std::size_t n) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return seen_.size() >= n; });
    return seen_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> seen_;  // guarded by mutex_
};

class UserSessionClientTest : public ::testing::TestWithParam<bool> {
 protected:
  UserSessionClientTest() {
    owner->registerService(QV::UserSessionClient::kServiceName, QV::makeUserSessionObject(service))
        .value(kWaitMs);
    if (GetParam()) {
      static std::atomic<int> next{0};
      const std::string url = "local://usersessionclient." + std::to_string(next++);
      owner->listen(url).value(kWaitMs);
      client->connect(url).value(kWaitMs);
    } else {
      client = ka::makeSession(owner);
    }
    users =
        QV::UserSessionClient(client->service(QV::UserSessionClient::kServiceName).value(kWaitMs));
  }
  ~UserSessionClientTest() override {
    client->close();
    owner->close();
  }

  boost::shared_ptr<QV::UserSessionService> service =
      boost::make_shared<QV::UserSessionService>(QV::openSqliteUserStore(":memory:"));
  ka::SessionPtr owner = ka::makeSession();
  ka::SessionPtr client = ka::makeSession();
  QV::UserSessionClient users;
};

TEST_P(UserSessionClientTest, TypedCallsAndSignalHooksSeeWhatTheServiceDoes) {
  Heard heard;
  {
    const auto created = users.onCreatedUsers([&](const Ids& ids) { heard.add("created", ids); });
    const auto deleted = users.onDeletedUsers([&](const Ids& ids) { heard.add("deleted", ids); });
    const auto focus = users.onFocusChanged([&](int id) { heard.add("focus", {id}); });
    const int a = users.createUser();
    const int b = users.createUser();
    EXPECT_EQ(users.users(), (Ids{a, b}));
    EXPECT_TRUE(users.doesUserExist(b));
    EXPECT_FALSE(users.doesUserExist(b + 1));
    EXPECT_EQ(users.getFocusedUser(), QV::UserSessionClient::kNoUser);
    EXPECT_TRUE(users.setFocusedUser(a));
    EXPECT_FALSE(users.setFocusedUser(b + 1));
    EXPECT_EQ(users.getFocusedUser(), a);
    EXPECT_FALSE(users.deleteUsers({a, b + 1}));
    EXPECT_TRUE(users.deleteUsers({a}));
    EXPECT_EQ(users.getFocusedUser(), QV::UserSessionClient::kNoUser);
    EXPECT_TRUE(users.setFocusedUser(b));
    users.clearFocus();
    const std::string sa = std::to_string(a);
    const std::string sb = std::to_string(b);
    // Compared without their order: across signals it is the service's and the transport's
    // business.
    std::vector<std::string> expected = {"created " + sa, "created " + sb, "focus " + sa,
                                         "focus -1",      "deleted " + sa, "focus " + sb,
                                         "focus -1"};
    std::vector<std::string> got = heard.waitFor(expected.size());
    std::stable_sort(got.begin(), got.end());
    std::stable_sort(expected.begin(), expected.end());
    EXPECT_EQ(got, expected);
  }
  EXPECT_FALSE(service->createdUsers.hasSubscribers()) << "ended with its handle";
  EXPECT_FALSE(service->deletedUsers.hasSubscribers()) << "ended with its handle";
  EXPECT_FALSE(service->focusChanged.hasSubscribers()) << "ended with its handle";
}

TEST_P(UserSessionClientTest, ASubscriptionDoesNotKeepTheServiceAlive) {
  const auto subscription = users.onCreatedUsers([](const Ids&) {});
  const boost::weak_ptr<ka::GenericObject> handle = users.object().asGenericObject();
  users = QV::UserSessionClient();
  client->close();
  owner->close();
  // A connection lets go of its objects on its own thread, soon after it closed.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (!handle.expired() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_TRUE(handle.expired());
  EXPECT_TRUE(subscription.isConnected());
}

INSTANTIATE_TEST_SUITE_P(Sessions, UserSessionClientTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Joined" : "Peer"; });

}  // namespace
