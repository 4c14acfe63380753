// Two real daemons on one PostgreSQL database: what one learns, the other knows, and the other's
// subscribers hear of it; the database going away and coming back under a stream of writes.

#include "daemon_fixture.hpp"

#include "pg_test_server.hpp"

#include <ka/signal.hpp>

namespace e2e {
namespace {

class SharedDatabase : public Daemon {
 protected:
  std::unique_ptr<Process> startOn(const std::string& uri, const std::string& name) {
    return start({"--state-dir", (dir_ / name).string(), "--store", uri});
  }
  std::string urlOf(const std::string& name) const {
    return "unix://" + (dir_ / name / "qvuserinfod.sock").string();
  }
};

// What a subscriber of one daemon heard, for the test to wait on.
struct Edits {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> heard;  // guarded by mutex

  void add(std::string what) {
    std::lock_guard<std::mutex> lock(mutex);
    heard.push_back(std::move(what));
    changed.notify_all();
  }
  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, kLimit, [&] { return heard.size() >= count; });
    return heard;
  }
};

TEST_F(SharedDatabase, AUserAndAValueMadeThroughOneDaemonAreKnownAndAnnouncedOnTheOther) {
  pgtest::TestDatabase database;
  auto a = startOn(database.uri(), "a");
  auto b = startOn(database.uri(), "b");
  ASSERT_TRUE(a && b);
  Edits edits;
  {
    Client onA(urlOf("a"));
    Client onB(urlOf("b"));
    const auto link =
        onB.info
            ->connect("userInfoEdited", ka::SignalSubscriber(ka::AnyFunction::from(
                                            [&](int user, std::string name, ka::AnyValue value) {
                                              edits.add(std::to_string(user) + " " + name + " " +
                                                        value.signature(true).toString() + ":" +
                                                        (value.signature(true).toString() == "s"
                                                             ? value.to<std::string>()
                                                             : std::to_string(value.to<int>())));
                                            })))
            .value(kCallMs);
    (void)link;

    const int user = onA.createUser();
    EXPECT_TRUE(onB.users->async<bool>("doesUserExist", user).value(kCallMs));
    ASSERT_TRUE(onA.set(user, "name", "Ada"));
    EXPECT_EQ(onB.get(user, "name"), "Ada");
    ASSERT_TRUE(onA.info->async<bool>("_set", user, std::string("birthyear"), ka::AnyValue(1990))
                    .value(kCallMs));
    // a's edits reach b through the database, after b's own would: wait for them first.
    ASSERT_EQ(edits.waitFor(2).size(), 2u);
    // One of b's own: announced once to b's subscriber, not again through the database.
    ASSERT_TRUE(onB.set(user, "fullname", "Ada King"));
    const auto heard = edits.waitFor(3);
    EXPECT_EQ(heard, (std::vector<std::string>{std::to_string(user) + " name s:Ada",
                                               std::to_string(user) + " birthyear i:1990",
                                               std::to_string(user) + " fullname s:Ada King"}));

    // A later edit through a: had b's own been announced again through the database, that copy
    // would come before this one.
    ASSERT_TRUE(onA.set(user, "name", "Ada II"));
    EXPECT_EQ(edits.waitFor(4).back(), std::to_string(user) + " name s:Ada II");

    // The focus stays each daemon's own.
    ASSERT_TRUE(onA.users->async<bool>("setFocusedUser", user).value(kCallMs));
    EXPECT_EQ(onB.users->async<int>("getFocusedUser").value(kCallMs), -1);
  }
  stop(*a);
  stop(*b);
}

TEST_F(SharedDatabase, TheDaemonServesAgainAfterTheDatabaseRestartsAndLosesNoAcknowledgedWrite) {
  pgtest::PrivateServer server;
  auto daemon = startOn(server.uri(), "a");
  ASSERT_TRUE(daemon);
  AcknowledgedWrites writes(urlOf("a"), 2);
  ASSERT_TRUE(writes.waitFor(20));
  server.halt();
  writes.join();  // each writer stops at its first failed call
  {
    // While it is down, a call fails at once with the reason.
    Client client(urlOf("a"));
    const auto before = std::chrono::steady_clock::now();
    try {
      client.createUser();
      ADD_FAILURE() << "a user was created without a database";
    } catch (const std::exception& e) {
      EXPECT_TRUE(contains(e.what(), "unreachable")) << e.what();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
  }
  server.start();
  Client client(urlOf("a"));
  const auto limit = std::chrono::steady_clock::now() + kLimit;
  int user = 0;
  while (user == 0 && std::chrono::steady_clock::now() < limit) {
    try {
      user = client.createUser();
    } catch (const std::exception&) {
      std::this_thread::yield();
    }
  }
  ASSERT_GT(user, 0) << "the daemon did not serve again";
  writes.expectAllThere(client);
  stop(*daemon);
}

}  // namespace
}  // namespace e2e
