// Real daemons on one PostgreSQL database: what one learns, the others know, and their
// subscribers hear of it; one key written through several daemons at once; the database going
// away and coming back under a stream of writes; a --store the daemon must refuse.

#include "daemon_fixture.hpp"

#include "pg_test_server.hpp"

#include <ka/signal.hpp>

#include <algorithm>
#include <atomic>
#include <functional>

namespace e2e {
namespace {

using Clock = std::chrono::steady_clock;

// Where the service keeps a user's data: (domain, "<user id>", data name).
constexpr const char kDomain[] = "com.quorvelin.userinfo";

class DaemonsOnOneDatabase : public Daemon {
 protected:
  std::unique_ptr<Process> startOn(const std::string& uri, const std::string& name) {
    return start({"--state-dir", (dir_ / name).string(), "--store", uri});
  }
  std::string urlOf(const std::string& name) const {
    return "unix://" + (dir_ / name / "qvuserinfod.sock").string();
  }
  void serveAgainAfter(pgtest::PrivateServer& server, const std::function<void()>& goAway);
};

// What a subscriber of one daemon heard, one line per signal, for the test to wait on.
struct Heard {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> lines;  // guarded by mutex

  void add(std::string line) {
    std::lock_guard<std::mutex> lock(mutex);
    lines.push_back(std::move(line));
    changed.notify_all();
  }
  // Everything heard once `count` lines are, or at kLimit.
  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, kLimit, [&] { return lines.size() >= count; });
    return lines;
  }
  // Whether `line` was heard within kLimit.
  bool waitForLine(const std::string& line) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(
        lock, kLimit, [&] { return std::find(lines.begin(), lines.end(), line) != lines.end(); });
  }
};

// "<signature>:<value>" of the value of a string, int or bool.
std::string typed(const ka::AnyValue& value) {
  const std::string signature = value.signature(true).toString();
  if (signature == "s") {
    return "s:" + value.to<std::string>();
  }
  if (signature == "b") {
    return std::string("b:") + (value.to<bool>() ? "true" : "false");
  }
  return signature + ":" + std::to_string(value.to<std::int64_t>());
}

std::string ids(const std::vector<int>& list) {
  std::string out;
  for (int id : list) {
    out += (out.empty() ? "" : ",") + std::to_string(id);
  }
  return out;
}

// Records `client`'s userInfoEdited and userInfoRemoved as "edited <user> <name> <typed value>"
// and "removed <user> <name>" into `heard`.
void hearEdits(Client& client, Heard& heard) {
  client.info
      ->connect("userInfoEdited",
                ka::SignalSubscriber(
                    ka::AnyFunction::from([&heard](int user, std::string name, ka::AnyValue value) {
                      heard.add("edited " + std::to_string(user) + " " + name + " " + typed(value));
                    })))
      .value(kCallMs);
  client.info
      ->connect("userInfoRemoved",
                ka::SignalSubscriber(ka::AnyFunction::from([&heard](int user, std::string name) {
                  heard.add("removed " + std::to_string(user) + " " + name);
                })))
      .value(kCallMs);
}

// Records `client`'s createdUsers and deletedUsers as "created <ids>" and "deleted <ids>".
void hearUsers(Client& client, Heard& heard) {
  client.users
      ->connect("createdUsers",
                ka::SignalSubscriber(ka::AnyFunction::from(
                    [&heard](std::vector<int> list) { heard.add("created " + ids(list)); })))
      .value(kCallMs);
  client.users
      ->connect("deletedUsers",
                ka::SignalSubscriber(ka::AnyFunction::from(
                    [&heard](std::vector<int> list) { heard.add("deleted " + ids(list)); })))
      .value(kCallMs);
}

// A daemon writing a stream of acknowledged values, another subscribed to its edits, both on a
// private server which `goAway` stops: calls fail at once, with the reason, while it is gone;
// once it is back both serve again without a restart, nothing acknowledged is lost and the edits
// are heard across daemons again.
void DaemonsOnOneDatabase::serveAgainAfter(pgtest::PrivateServer& server,
                                           const std::function<void()>& goAway) {
  auto a = startOn(server.uri(), "a");
  auto b = startOn(server.uri(), "b");
  ASSERT_TRUE(a && b);
  const std::string urlA = urlOf("a");
  const std::string urlB = urlOf("b");
  Heard onBHeard;
  Client listener(urlB);
  hearEdits(listener, onBHeard);

  AcknowledgedWrites writes(urlA, 3);
  ASSERT_TRUE(writes.waitFor(30));
  goAway();
  // Each writer stops at its first failed call: none of those calls hangs.
  const auto gone = Clock::now();
  writes.join();
  EXPECT_LT(Clock::now() - gone, std::chrono::seconds(5)) << "writers hung on the lost database";
  {
    Client client(urlA);
    for (const auto& call : std::vector<std::function<void()>>{
             [&] { client.createUser(); },
             [&] { client.set(1, "name", "x"); },
             [&] { client.get(1, "name"); },
         }) {
      const auto before = Clock::now();
      try {
        call();
        ADD_FAILURE() << "a call succeeded without a database";
      } catch (const ka::FutureTimeoutError&) {
        ADD_FAILURE() << "a call hung without a database";
      } catch (const std::exception& e) {
        EXPECT_TRUE(contains(e.what(), "unreachable")) << e.what();
      }
      EXPECT_LT(Clock::now() - before, std::chrono::seconds(3));
    }
  }

  server.start();
  for (const auto& url : {urlA, urlB}) {
    Client client(url);
    const auto limit = Clock::now() + kLimit;
    int user = 0;
    while (user == 0 && Clock::now() < limit) {
      try {
        user = client.createUser();
      } catch (const std::exception&) {
        std::this_thread::yield();
      }
    }
    ASSERT_GT(user, 0) << url << " did not serve again";
  }
  Client client(urlA);
  writes.expectAllThere(client);
  const int user = client.createUser();
  ASSERT_TRUE(client.set(user, "name", "after"));
  const auto acknowledged = Clock::now();
  EXPECT_TRUE(onBHeard.waitForLine("edited " + std::to_string(user) + " name s:after"))
      << "b's subscriber no longer hears a's edits";
  EXPECT_LT(Clock::now() - acknowledged, std::chrono::seconds(3)) << "heard late";
  stop(*a);
  stop(*b);
}

TEST_F(DaemonsOnOneDatabase, AUserAndAValueMadeThroughOneDaemonAreKnownAndAnnouncedOnTheOther) {
  pgtest::TestDatabase database;
  auto a = startOn(database.uri(), "a");
  auto b = startOn(database.uri(), "b");
  ASSERT_TRUE(a && b);
  Heard edits;
  {
    Client onA(urlOf("a"));
    Client onB(urlOf("b"));
    hearEdits(onB, edits);

    const int user = onA.createUser();
    EXPECT_TRUE(onB.users->async<bool>("doesUserExist", user).value(kCallMs));
    ASSERT_TRUE(onA.set(user, "name", "Ada"));
    EXPECT_EQ(onB.get(user, "name"), "Ada");
    ASSERT_TRUE(onA.info->async<bool>("_set", user, std::string("birthyear"), ka::AnyValue(1990))
                    .value(kCallMs));
    // Read back through the other daemon with its type: an int stays an int.
    EXPECT_EQ(
        typed(onB.info->async<ka::AnyValue>("get", user, std::string("birthyear")).value(kCallMs)),
        "i:1990");
    // a's edits reach b through the database, after b's own would: wait for them first.
    ASSERT_EQ(edits.waitFor(2).size(), 2u);
    // One of b's own: announced once to b's subscriber, not again through the database.
    ASSERT_TRUE(onB.set(user, "fullname", "Ada King"));
    const auto heard = edits.waitFor(3);
    const std::string u = std::to_string(user);
    EXPECT_EQ(heard, (std::vector<std::string>{"edited " + u + " name s:Ada",
                                               "edited " + u + " birthyear i:1990",
                                               "edited " + u + " fullname s:Ada King"}));

    // A later change through a: had b's own edit been announced again through the database,
    // that copy would come before this one.
    ASSERT_TRUE(onA.info->async<bool>("_remove", user, std::string("fullname")).value(kCallMs));
    EXPECT_EQ(edits.waitFor(4).back(), "removed " + u + " fullname");
    EXPECT_FALSE(onB.info->async<bool>("has", user, std::string("fullname")).value(kCallMs))
        << "removed through a, still there through b";

    // The focus stays each daemon's own.
    ASSERT_TRUE(onA.users->async<bool>("setFocusedUser", user).value(kCallMs));
    EXPECT_EQ(onB.users->async<int>("getFocusedUser").value(kCallMs), -1);
    EXPECT_EQ(onA.users->async<int>("getFocusedUser").value(kCallMs), user);
  }
  stop(*a);
  stop(*b);
}

TEST_F(DaemonsOnOneDatabase,
       UsersCreatedAndDeletedThroughOneDaemonAreListedAndAnnouncedOnTheOther) {
  pgtest::TestDatabase database;
  auto a = startOn(database.uri(), "a");
  auto b = startOn(database.uri(), "b");
  ASSERT_TRUE(a && b);
  Heard onBHeard;
  {
    Client onA(urlOf("a"));
    Client onB(urlOf("b"));
    hearUsers(onB, onBHeard);

    const int first = onA.createUser();
    const int second = onA.createUser();
    const int third = onB.createUser();
    EXPECT_LT(first, second);
    EXPECT_LT(second, third) << "ids come from the one database, whichever daemon hands them out";
    EXPECT_EQ(onB.users->async<std::vector<int>>("users").value(kCallMs),
              (std::vector<int>{first, second, third}));

    ASSERT_TRUE(
        onA.users->async<bool>("deleteUsers", std::vector<int>{second, first}).value(kCallMs));
    EXPECT_FALSE(onB.users->async<bool>("doesUserExist", first).value(kCallMs));
    EXPECT_EQ(onB.users->async<std::vector<int>>("users").value(kCallMs),
              (std::vector<int>{third}));

    // b's own creation is heard once, a's changes once each, in the order of their commits
    // per daemon: a's through the database, so only their own order is fixed.
    const auto heard = onBHeard.waitFor(4);
    const std::vector<std::string> fromA{
        "created " + std::to_string(first), "created " + std::to_string(second),
        "deleted " + std::to_string(second) + "," + std::to_string(first)};
    std::vector<std::string> heardFromA;
    std::copy_if(
        heard.begin(), heard.end(), std::back_inserter(heardFromA),
        [&](const std::string& line) { return line != "created " + std::to_string(third); });
    EXPECT_EQ(heardFromA, fromA) << "all heard: " << ::testing::PrintToString(heard);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), "created " + std::to_string(third)), 1);
  }
  stop(*a);
  stop(*b);
}

TEST_F(DaemonsOnOneDatabase, EditsInQuickSuccessionThroughOneDaemonAreHeardAtOnceOnTheOther) {
  pgtest::TestDatabase database;
  auto a = startOn(database.uri(), "a");
  auto b = startOn(database.uri(), "b");
  ASSERT_TRUE(a && b);
  constexpr int kWriters = 3;
  constexpr int kRounds = 120;
  Heard onBHeard;
  {
    Client listener(urlOf("b"));
    hearEdits(listener, onBHeard);
    std::vector<std::unique_ptr<Client>> writers;
    for (int w = 0; w < kWriters; ++w) {
      writers.push_back(std::make_unique<Client>(urlOf("a")));
    }
    const int user = writers.front()->createUser();
    // Rounds of edits committed close together: the other daemon, woken by the first, reads
    // while the next come in. Each must wake it, not wait for its next look seconds later.
    for (int round = 0; round < kRounds; ++round) {
      std::vector<std::thread> threads;
      for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([&, w] {
          EXPECT_TRUE(writers[w]->set(user, "k" + std::to_string(w), std::to_string(round)));
        });
      }
      for (auto& thread : threads) {
        thread.join();
      }
      const auto acknowledged = Clock::now();
      const std::size_t expected = static_cast<std::size_t>((round + 1) * kWriters);
      ASSERT_EQ(onBHeard.waitFor(expected).size(), expected) << "round " << round;
      ASSERT_LT(Clock::now() - acknowledged, std::chrono::seconds(3))
          << "round " << round << ": heard late";
    }
  }
  stop(*a);
  stop(*b);
}

TEST_F(DaemonsOnOneDatabase, ManyWritersOfOneKeyThroughTwoDaemonsLeaveExactlyOneValueBothRead) {
  pgtest::TestDatabase database;
  auto a = startOn(database.uri(), "a");
  auto b = startOn(database.uri(), "b");
  ASSERT_TRUE(a && b);
  constexpr int kWritersPerDaemon = 3;
  constexpr int kWrites = 40;
  int user = 0;
  {
    Client onA(urlOf("a"));
    user = onA.createUser();
  }
  std::vector<std::string> lastWritten;
  std::atomic<int> refused{0};
  {
    std::vector<std::thread> writers;
    for (int w = 0; w < 2 * kWritersPerDaemon; ++w) {
      const std::string url = urlOf(w % 2 == 0 ? "a" : "b");
      lastWritten.push_back("w" + std::to_string(w) + "-" + std::to_string(kWrites - 1));
      writers.emplace_back([&, url, w] {
        try {
          Client client(url);
          for (int n = 0; n < kWrites; ++n) {
            if (!client.set(user, "name", "w" + std::to_string(w) + "-" + std::to_string(n))) {
              ++refused;
            }
          }
        } catch (const std::exception&) {
          ++refused;
        }
      });
    }
    for (auto& writer : writers) {
      writer.join();
    }
  }
  EXPECT_EQ(refused, 0);

  Client onA(urlOf("a"));
  Client onB(urlOf("b"));
  for (Client* client : {&onA, &onB}) {
    const auto knowledge = client->session->service("QVKnowledge").value(kCallMs);
    const auto objects =
        knowledge
            ->async<std::vector<std::string>>("getObject", std::string(kDomain),
                                              std::to_string(user), std::string("name"))
            .value(kCallMs);
    ASSERT_EQ(objects.size(), 1u) << ::testing::PrintToString(objects);
    // Each writer's writes follow one another: the one committed last is some writer's last.
    EXPECT_NE(std::find(lastWritten.begin(), lastWritten.end(), objects.front()), lastWritten.end())
        << objects.front();
  }
  EXPECT_EQ(onA.get(user, "name"), onB.get(user, "name"));
  stop(*a);
  stop(*b);
}

TEST_F(DaemonsOnOneDatabase,
       TheDaemonsServeAgainAfterTheDatabaseStopsAndStartsUnderAStreamOfWrites) {
  pgtest::PrivateServer server;
  serveAgainAfter(server, [&] { server.halt(); });
}

TEST_F(DaemonsOnOneDatabase, TheDaemonsServeAgainAfterTheDatabaseCrashesUnderAStreamOfWrites) {
  pgtest::PrivateServer server;
  serveAgainAfter(server, [&] { server.kill(); });
}

TEST_F(DaemonsOnOneDatabase, AStoreWithAPasswordIsRefusedWithoutShowingThePassword) {
  const std::string host = (dir_ / "nothing").string();
  for (const std::string& uri : std::vector<std::string>{
           "postgresql://qv:hunter2@/qv?host=" + host,
           "postgresql:///qv?host=" + host + "&password=hunter2",
           // Malformed as well: libpq's own reason quotes the string.
           "postgresql://qv:hunter2@[::1/qv",
           "postgresql://qv:hunter2@/qv?host=" + host + "&nosuchparameter=1",
       }) {
    const auto done =
        run(QV_DAEMON_PATH, {"--state-dir", stateDir().string(), "--store", uri}, kLimit, env_);
    EXPECT_EQ(done.exitCode, 1) << uri << "\n" << done.err;
    EXPECT_FALSE(contains(done.out, "ready ")) << done.out;
    EXPECT_EQ(lines(done.err).size(), 1u) << done.err;
    EXPECT_EQ(done.err.rfind("qvuserinfod: database: ", 0), 0u) << done.err;
    EXPECT_FALSE(contains(done.out + done.err, "hunter2")) << done.out << done.err;
  }
  const std::string line = startFails(
      {"--state-dir", stateDir().string(), "--store", "postgresql://qv:hunter2@/qv?host=" + host});
  EXPECT_TRUE(contains(line, "PGPASSWORD")) << line;
}

TEST_F(DaemonsOnOneDatabase, AStoreThatCannotBeReachedStopsTheStartWithOneLineSayingSo) {
  const std::string host = (dir_ / "nothing").string();
  const std::string line =
      startFails({"--state-dir", stateDir().string(), "--store", "postgresql:///qv?host=" + host});
  EXPECT_EQ(line.rfind("qvuserinfod: database: ", 0), 0u) << line;
  EXPECT_TRUE(contains(line, "unreachable")) << line;
  EXPECT_TRUE(contains(line, host)) << line;
}

}  // namespace
}  // namespace e2e
