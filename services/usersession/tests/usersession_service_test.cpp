// The user-session service's behaviour: refused requests change nothing, deleting the focused user
// clears the focus, announcements follow committed changes in order with no lock held, and the
// object answers by name from another session, also under concurrent calls.

#include <qvsqlite/sqlite_user_store.hpp>
#include <qvusersession/usersession_service.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/make_shared.hpp>

namespace {

using namespace std::chrono_literals;
using QV::UserSessionService;
using ::testing::ElementsAre;
using Ids = std::vector<int>;

constexpr int kWaitMs = 10000;
constexpr auto kWait = std::chrono::milliseconds(kWaitMs);

std::string join(const Ids& ids) {
  std::string text;
  for (const int id : ids) {
    text += (text.empty() ? "" : ",") + std::to_string(id);
  }
  return text;
}

// What a subscriber heard, as lines like "created 1", "deleted 3,1", "focus -1", in order.
class Heard {
 public:
  void add(std::string line) {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _lines.push_back(std::move(line));
    }
    _changed.notify_all();
  }
  // The lines once there are at least `count` (fewer if the wait runs out).
  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait_for(lock, kWait, [&] { return _lines.size() >= count; });
    return _lines;
  }
  std::vector<std::string> now() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _lines;
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  std::vector<std::string> _lines;  // guarded by _mutex
};

// Hears every signal of `service` directly, on the emitting thread.
struct Listener {
  explicit Listener(UserSessionService& service)
      : created(service.createdUsers.connectScoped(
            [this](const Ids& ids) { heard.add("created " + join(ids)); })),
        deleted(service.deletedUsers.connectScoped(
            [this](const Ids& ids) { heard.add("deleted " + join(ids)); })),
        focus(service.focusChanged.connectScoped(
            [this](int id) { heard.add("focus " + std::to_string(id)); })) {}

  Heard heard;
  ka::ScopedConnection created;
  ka::ScopedConnection deleted;
  ka::ScopedConnection focus;
};

// Runs `f` on a thread of its own; false if it has not returned within the wait, so that a
// deadlock fails the test instead of hanging it. `f` must own what it uses.
template <typename F>
bool returnsInTime(F f) {
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  std::thread([f = std::move(f), done]() mutable {
    f();
    done->set_value();
  }).detach();
  return finished.wait_for(kWait) == std::future_status::ready;
}

class UserSession : public ::testing::Test {
 protected:
  boost::shared_ptr<UserSessionService> service =
      boost::make_shared<UserSessionService>(QV::openSqliteUserStore(":memory:"));
  Listener listener{*service};
};

using RefusedRequest = UserSession;

TEST_F(RefusedRequest, DeletingAListWithOneUnknownOrRepeatedIdDeletesNoneAndAnnouncesNothing) {
  service->createUser();
  service->createUser();
  ASSERT_TRUE(service->setFocusedUser(1));
  EXPECT_FALSE(service->deleteUsers({1, 7, 2}));
  EXPECT_FALSE(service->deleteUsers({1, 2, 0}));
  EXPECT_FALSE(service->deleteUsers({-1}));
  EXPECT_FALSE(service->deleteUsers({2, 1, 2}));
  EXPECT_THAT(service->users(), ElementsAre(1, 2));
  EXPECT_EQ(service->getFocusedUser(), 1);
  EXPECT_THAT(listener.heard.now(), ElementsAre("created 1", "created 2", "focus 1"));
}

TEST_F(RefusedRequest, FocusingAnUnknownOrDeletedIdKeepsTheFocusAndAnnouncesNothing) {
  service->createUser();
  service->createUser();
  ASSERT_TRUE(service->deleteUsers({2}));
  ASSERT_TRUE(service->setFocusedUser(1));
  EXPECT_FALSE(service->deleteUsers({2})) << "deleted twice";
  for (const int id : {0, -1, 2, 3, std::numeric_limits<int>::min()}) {
    EXPECT_FALSE(service->setFocusedUser(id)) << id;
    EXPECT_FALSE(service->doesUserExist(id)) << id;
  }
  EXPECT_EQ(service->getFocusedUser(), 1);
  EXPECT_THAT(listener.heard.now(), ElementsAre("created 1", "created 2", "deleted 2", "focus 1"));
}

using Focus = UserSession;

TEST_F(Focus, DeletingTheFocusedUserClearsTheFocusAndAnnouncesThatBeforeTheDeletion) {
  for (int i = 0; i < 3; ++i) {
    service->createUser();
  }
  ASSERT_TRUE(service->setFocusedUser(2));
  ASSERT_TRUE(service->deleteUsers({3, 2}));
  EXPECT_EQ(service->getFocusedUser(), -1);
  EXPECT_THAT(service->users(), ElementsAre(1));
  EXPECT_THAT(listener.heard.now(), ElementsAre("created 1", "created 2", "created 3", "focus 2",
                                                "focus -1", "deleted 3,2"));
}

TEST_F(Focus, DeletingOtherUsersLeavesTheFocusAndAnnouncesNoFocusChange) {
  service->createUser();
  service->createUser();
  ASSERT_TRUE(service->setFocusedUser(1));
  ASSERT_TRUE(service->deleteUsers({2}));
  EXPECT_EQ(service->getFocusedUser(), 1);
  EXPECT_THAT(listener.heard.now(), ElementsAre("created 1", "created 2", "focus 1", "deleted 2"));
}

TEST_F(Focus, OnlyActualChangesAreAnnounced) {
  service->clearFocus();
  service->createUser();
  service->createUser();
  ASSERT_TRUE(service->setFocusedUser(1));
  ASSERT_TRUE(service->setFocusedUser(1));
  ASSERT_TRUE(service->setFocusedUser(2));
  service->clearFocus();
  service->clearFocus();
  EXPECT_TRUE(service->deleteUsers({}));
  EXPECT_THAT(listener.heard.now(),
              ElementsAre("created 1", "created 2", "focus 1", "focus 2", "focus -1"));
}

using Announcement = UserSession;

TEST_F(Announcement, ADirectSubscriberAlreadySeesTheChangeItIsToldOfAndMayCallBack) {
  // Owned by the calls below, so that a deadlock fails the test on a thread left behind.
  auto seen = std::make_shared<Heard>();
  auto created = std::make_shared<ka::ScopedConnection>(
      service->createdUsers.connectScoped([seen, svc = service.get()](const Ids& ids) {
        seen->add(join(ids) + " in " + join(svc->users()));
      }));
  auto deleted = std::make_shared<ka::ScopedConnection>(
      service->deletedUsers.connectScoped([seen, svc = service.get()](const Ids& ids) {
        seen->add(join(ids) + (svc->doesUserExist(ids.front()) ? " exists" : " gone") + ", focus " +
                  std::to_string(svc->getFocusedUser()));
      }));
  ASSERT_TRUE(returnsInTime([svc = service, created, deleted] {
    svc->createUser();
    svc->setFocusedUser(svc->createUser());
    svc->deleteUsers({2});
  }));
  EXPECT_THAT(seen->now(), ElementsAre("1 in 1", "2 in 1,2", "2 gone, focus -1"));
}

TEST_F(Announcement, ASubscriberThatChangesTheUsersItselfDoesNotDeadlockAndItsChangeFollows) {
  // Holds the connection so the subscriber may outlive a failed test on the detached thread.
  auto connection = std::make_shared<ka::ScopedConnection>(
      service->createdUsers.connectScoped([svc = service.get()](const Ids& ids) {
        if (ids.front() == 1) {
          svc->setFocusedUser(svc->createUser());
        }
      }));
  ASSERT_TRUE(returnsInTime([svc = service, connection] { svc->createUser(); }));
  EXPECT_THAT(listener.heard.waitFor(3), ElementsAre("created 1", "created 2", "focus 2"));
}

// The service as its clients reach it: through another session on the same directory.
class UserSessionOverSession : public ::testing::Test {
 protected:
  void SetUp() override {
    QV::registerUserSessionService(host, QV::openSqliteUserStore(":memory:")).value(kWaitMs);
    users = client->service("QVUserSession").value(kWaitMs);
  }
  ka::SessionPtr host = ka::makeSession();
  ka::SessionPtr client = ka::makeSession(host);
  ka::AnyObject users;
};

TEST_F(UserSessionOverSession, AdvertisesExactlyTheMethodsAndSignalsItsClientsUse) {
  std::set<std::string> members;
  for (const auto& m : users->metaObject().methods()) {
    members.insert(m.name + m.parametersSignature().toString() + m.returnSignature().toString());
  }
  for (const auto& s : users->metaObject().signals()) {
    members.insert("signal " + s.name + s.signature().toString());
  }
  EXPECT_EQ(members,
            (std::set<std::string>{"clearFocus()v", "createUser()i", "deleteUsers([i])b",
                                   "doesUserExist(i)b", "getFocusedUser()i", "setFocusedUser(i)b",
                                   "users()[i]", "signal createdUsers([i])",
                                   "signal deletedUsers([i])", "signal focusChanged(i)"}));
}

TEST_F(UserSessionOverSession, QueuedSubscribersHearTheIdsAfterTheChangeIsVisibleToAnotherReader) {
  Heard heard;
  const ka::AnyObject reader = users;
  // Later changes may already be visible too when a delivery runs: only the announced ones count.
  const auto listed = [&](const Ids& ids) {
    const Ids now = reader->call<Ids>("users");
    return std::count_if(ids.begin(), ids.end(), [&](int id) {
      return std::find(now.begin(), now.end(), id) != now.end();
    });
  };
  auto created = users->connectScoped(
      "createdUsers",
      [&](const Ids& ids) {
        heard.add("created " + join(ids) + (listed(ids) == 1 ? " listed" : " missing"));
      },
      ka::MetaCallType::Queued);
  auto deleted = users->connectScoped(
      "deletedUsers",
      [&](const Ids& ids) {
        heard.add("deleted " + join(ids) + (listed(ids) == 0 ? " gone" : " still listed") +
                  ", focus " + std::to_string(reader->call<int>("getFocusedUser")));
      },
      ka::MetaCallType::Queued);
  for (int i = 0; i < 4; ++i) {
    users->call<int>("createUser");
  }
  // Deleting before the deliveries ran would take the users away before they were looked at.
  ASSERT_EQ(heard.waitFor(4).size(), 4u);
  ASSERT_TRUE(users->call<bool>("setFocusedUser", 3));
  ASSERT_TRUE(users->call<bool>("deleteUsers", Ids{3, 1}));
  EXPECT_THAT(heard.waitFor(5),
              ElementsAre("created 1 listed", "created 2 listed", "created 3 listed",
                          "created 4 listed", "deleted 3,1 gone, focus -1"))
      << "each line: what was announced, then what a reader saw when told";
  ASSERT_TRUE(users->call<bool>("setFocusedUser", 2));
  users->call<void>("clearFocus");
  EXPECT_EQ(users->call<int>("getFocusedUser"), -1);
}

TEST_F(UserSessionOverSession, UsersCreatedFromSeveralThreadsAtOnceGetDistinctIdsAnnouncedInOrder) {
  std::mutex mutex;
  Ids announced;  // guarded by mutex
  auto created = users->connectScoped("createdUsers", [&](const Ids& ids) {
    std::lock_guard<std::mutex> lock(mutex);
    announced.insert(announced.end(), ids.begin(), ids.end());
  });
  constexpr int kThreads = 4;
  constexpr int kMaxPerThread = 2000;
  const auto deadline = std::chrono::steady_clock::now() + 1s;
  std::vector<std::future<Ids>> workers;
  for (int t = 0; t < kThreads; ++t) {
    workers.push_back(std::async(std::launch::async, [&, t] {
      Ids mine;
      while (static_cast<int>(mine.size()) < kMaxPerThread &&
             std::chrono::steady_clock::now() < deadline) {
        mine.push_back(users->call<int>("createUser"));
        // Readers meet writers at the same lock.
        EXPECT_TRUE(users->call<bool>("doesUserExist", mine.back()));
        if (t == 0) {
          EXPECT_TRUE(users->call<bool>("setFocusedUser", mine.back()));
        }
      }
      return mine;
    }));
  }
  Ids all;
  for (auto& worker : workers) {
    ASSERT_EQ(worker.wait_for(kWait), std::future_status::ready);
    const Ids mine = worker.get();
    EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
    all.insert(all.end(), mine.begin(), mine.end());
  }
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "an id was handed out twice";
  EXPECT_EQ(users->call<Ids>("users"), all);
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(announced, all) << "announcements out of commit order, missing or repeated";
}

}  // namespace
