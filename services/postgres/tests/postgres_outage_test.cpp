// What calls meet when the database's connections or the server itself go: with the server up
// no call fails for want of a connection, and while it is down each failure says what a fresh
// attempt would.

#include <qvpostgres/postgres_stores.hpp>
#include <qvusersession/usersession_service.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pg_test_server.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;

constexpr auto kWait = std::chrono::seconds(20);

// Ends every client session on the server but the asking one, and returns once they are gone.
void killEveryConnection(const std::string& uri) {
  const std::string pids = pgtest::query(
      uri,
      "SELECT string_agg(pid::text, ',') FROM pg_stat_activity WHERE backend_type = 'client "
      "backend' AND pid <> pg_backend_pid()");
  ASSERT_FALSE(pids.empty()) << "the daemon had no connection to kill";
  pgtest::query(
      uri,
      "SELECT count(pg_terminate_backend(pid)) FROM pg_stat_activity WHERE pid IN (" + pids + ")");
  const auto limit = Clock::now() + kWait;
  while (pgtest::query(uri, "SELECT count(*) FROM pg_stat_activity WHERE pid IN (" + pids + ")") !=
         "0") {
    ASSERT_LT(Clock::now(), limit) << "the killed sessions stayed";
    std::this_thread::yield();
  }
}

TEST(DatabaseOutage, WithEveryConnectionKilledWhileTheServerRunsNoCallFails) {
  pgtest::PrivateServer server;
  auto database = QV::PostgresDatabase::open(server.uri());
  auto store = QV::makePostgresTripletStore(database);
  QV::UserSessionService users(QV::makePostgresUserStore(database));
  const int user = users.createUser();
  for (int round = 0; round < 3; ++round) {
    // Several calls at once first, so that the pool holds several idle connections to lose.
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
      callers.emplace_back([&, i] { store->update("d", std::to_string(i), "name", "Ada"); });
    }
    for (auto& caller : callers) {
      caller.join();
    }
    killEveryConnection(server.uri());
    // Reads, a write that is not repeated on failure, and the other store.
    EXPECT_EQ(store->getObject("d", "1", "name"), std::vector<std::string>{"Ada"});
    EXPECT_NO_THROW(store->add("d", "2", "seen", std::to_string(round)));
    EXPECT_TRUE(users.doesUserExist(user));
    EXPECT_GT(users.createUser(), user);
  }
}

TEST(DatabaseOutage, WhileTheServerIsDownEachFailureSaysWhatAFreshAttemptWould) {
  pgtest::PrivateServer server;
  auto database = QV::PostgresDatabase::open(server.uri());
  auto store = QV::makePostgresTripletStore(database);
  store->update("d", "1", "name", "Ada");
  server.halt();
  // The first failures may still be about the connections the stop cut; within a second every
  // call answers with what connecting says now.
  std::string last;
  const auto limit = Clock::now() + std::chrono::seconds(2);
  while (Clock::now() < limit) {
    try {
      store->getObject("d", "1", "name");
      FAIL() << "a call succeeded without a server";
    } catch (const QV::KnowledgeStoreError& e) {
      last = e.what();
    }
    std::this_thread::yield();
  }
  EXPECT_THAT(last, HasSubstr("unreachable"));
  EXPECT_THAT(last, Not(HasSubstr("closed the connection")));
  EXPECT_THAT(last, HasSubstr("failed: ")) << "not the words of a connection attempt";
}

// A retry after a lost reply records the announcement again under its number: heard once.
TEST(DatabaseOutage, AnAnnouncementRecordedAgainUnderItsNumberIsHeardOnce) {
  pgtest::TestDatabase database;
  auto announcer = QV::PostgresDatabase::open(database.uri());
  auto listener = QV::PostgresDatabase::open(database.uri());
  std::mutex mutex;
  std::condition_variable heardOne;
  std::vector<std::string> heard;  // guarded by mutex
  listener->follow("test.kind", [&](const QV::StoreEvent& event) {
    std::lock_guard lock(mutex);
    heard.push_back(event.payload);
    heardOne.notify_all();
  });
  announcer->announce("test.kind", "first", 1);
  announcer->announce("test.kind", "first", 1);
  announcer->announce("test.kind", "second", 2);
  std::unique_lock lock(mutex);
  heardOne.wait_for(lock, kWait, [&] { return heard.size() >= 2; });
  EXPECT_EQ(heard, (std::vector<std::string>{"first", "second"}));
  lock.unlock();
  listener->follow("test.kind", nullptr);
}

}  // namespace
