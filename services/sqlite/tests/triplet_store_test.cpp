// What only the SQLite knowledge store has: durability across closing and killing, concurrent
// reads on a file or in memory, writes grouped into one commit, and the query plans. What every
// store answers alike: services/storage/tests; opening and refusing files: store_open_test.

#include "qvsqlite/sqlite_triplet_store.hpp"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "temp_dir_test.hpp"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using QV::Durability;
using QV::SqliteTripletStore;
using QV::TripletStore;
using QV::TripletStoreOptions;
using ::testing::HasSubstr;
using Objects = std::vector<std::string>;
using Rows = std::vector<std::vector<std::string>>;

constexpr auto kHangLimit = 60s;

Rows all(const TripletStore& store) {
  return store.queryTriplet("*", "*", "*", "*");
}

// Suites that need a real file get a fresh directory, removed with its content.
using FileStore = TempDirTest;

using Durable = FileStore;

void writeSample(TripletStore& store) {
  store.add("users", "alice", "group", "admins");
  store.update("users", "alice", "email", "a@x");
  store.add("users", "bob", "email", "b@x");
  store.remove("users", "bob", "?", "?");
  store.addMany({{"users", "carol", "email", "c@x"}});
}

const Rows kSampleAfterWrites = {{"users", "alice", "group", "admins"},
                                 {"users", "alice", "email", "a@x"},
                                 {"users", "carol", "email", "c@x"}};

TEST_F(Durable, KeepsEveryWriteInAMarkedWalStoreAcrossClosingAndReopening) {
  for (Durability durability : {Durability::Full, Durability::Normal}) {
    TripletStoreOptions options;
    options.durability = durability;
    std::ofstream{path};  // an empty file becomes a store
    {
      SqliteTripletStore store(path, options);
      writeSample(store);
    }
    EXPECT_EQ(all(SqliteTripletStore(path, options)), kSampleAfterWrites);
  }
  SQLite::Database raw(path);
  EXPECT_EQ(raw.execAndGet("PRAGMA journal_mode").getString(), "wal");
  EXPECT_NE(raw.execAndGet("PRAGMA application_id").getInt(), 0);
  EXPECT_EQ(raw.execAndGet("PRAGMA user_version").getInt(), 1);
}

TEST_F(Durable, LosesNoAcknowledgedWriteWhenTheProcessIsKilled) {
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    // No test machinery here: the child reports through how it ends.
    try {
      SqliteTripletStore store(path);
      writeSample(store);
      raise(SIGKILL);
    } catch (...) {
    }
    _exit(1);
  }
  auto exited = std::async(std::launch::async, [child] {
    int status = 0;
    waitpid(child, &status, 0);
    return status;
  });
  if (exited.wait_for(kHangLimit) != std::future_status::ready) {
    kill(child, SIGKILL);
    FAIL() << "the writing child hung";
  }
  const int status = exited.get();
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the child failed early";
  // The writes were never checkpointed: they survive in the WAL only.
  ASSERT_GT(fs::file_size(path + "-wal"), 0u);
  EXPECT_EQ(all(SqliteTripletStore(path)), kSampleAfterWrites);
}

using ConcurrentReads = FileStore;

// Readers of every kind run while a writer keeps replacing the single object of a key: every read
// must see exactly one object, never the moment between the delete and the insert.
TEST_F(ConcurrentReads, NeverSeeAHalfDoneUpdateOnAFileOrInMemory) {
  TripletStoreOptions options;
  options.durability = Durability::Normal;
  options.readConnections = 2;  // fewer than readers: some wait for a free connection
  for (const std::string& where : {path, std::string(":memory:")}) {
    SCOPED_TRACE(where);
    SqliteTripletStore store(where, options);
    store.update("d", "counter", "value", "0");
    const std::function<std::size_t()> reads[] = {
        [&] { return store.getObject("d", "counter", "value").size(); },
        [&] { return store.queryTriplet("*", "counter", "value", "*").size(); },
        [&] { return std::size_t{store.contains("d", "counter", "value", "?")}; },
        [&] { return store.getObject("d", "counter", "value").size(); }};
    std::atomic<bool> writerDone{false};
    std::atomic<int> torn{0};
    std::vector<std::future<void>> readers;
    for (const auto& read : reads) {
      readers.push_back(std::async(std::launch::async, [&] {
        do {
          torn += read() == 1 ? 0 : 1;
        } while (!writerDone);
      }));
    }
    auto writer = std::async(std::launch::async, [&] {
      for (int i = 1; i <= 300; ++i) {
        store.update("d", "counter", "value", std::to_string(i));
        store.add("d", "noise", std::to_string(i % 5), std::to_string(i));
      }
    });
    const bool finished = writer.wait_for(kHangLimit) == std::future_status::ready;
    writerDone = true;
    ASSERT_TRUE(finished) << "the writer hung";
    writer.get();
    for (auto& reader : readers) {
      ASSERT_EQ(reader.wait_for(kHangLimit), std::future_status::ready) << "a reader hung";
      reader.get();
    }
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(store.getObject("d", "counter", "value"), Objects{"300"});
  }
}

// Writes arriving together from many threads share commits; each call still returns only once
// its own write is stored, or fails alone.
using GroupedWrites = FileStore;

// Runs `body(thread)` on `threads` threads at once; fails the test if one hangs.
void onThreads(int threads, const std::function<void(int)>& body) {
  std::vector<std::future<void>> running;
  for (int thread = 0; thread < threads; ++thread) {
    running.push_back(std::async(std::launch::async, body, thread));
  }
  for (auto& done : running) {
    ASSERT_EQ(done.wait_for(kHangLimit), std::future_status::ready) << "a writer hung";
    done.get();
  }
}

TEST_F(GroupedWrites, EveryWriteIsVisibleToAnotherConnectionWhenItsCallReturnsAndTheWalBounded) {
  constexpr int kThreads = 8, kWrites = 600;
  SqliteTripletStore store(path);
  std::atomic<int> unseen{0};
  onThreads(kThreads, [&](int thread) {
    SQLite::Database other(path, SQLite::OPEN_READONLY);
    SQLite::Statement read(other, "SELECT count(*) FROM triplets WHERE subject = ? AND object = ?");
    for (int i = 0; i < kWrites; ++i) {
      const std::string subject = std::to_string(thread) + "/" + std::to_string(i);
      store.update("d", subject, "p", "v");
      read.bindNoCopy(1, subject.data(), static_cast<int>(subject.size()));
      read.bindNoCopy(2, "v", 1);
      unseen += read.executeStep() && read.getColumn(0).getInt() == 1 ? 0 : 1;
      read.reset();
    }
  });
  EXPECT_EQ(unseen.load(), 0);
  // Under steady writes the writer checkpoints itself past 4,000 pages; unchecked, the WAL grows
  // past 9,000.
  const auto page = SQLite::Database(path).execAndGet("PRAGMA page_size").getInt64() + 24;
  EXPECT_LT(fs::file_size(path + "-wal"), 5000u * static_cast<std::uintmax_t>(page));
  EXPECT_EQ(all(SqliteTripletStore(path)).size(), std::size_t{kThreads * kWrites});
}

TEST_F(GroupedWrites, AFailingWriteFailsAloneWithItsOwnErrorAndLeavesNothingOfItself) {
  SqliteTripletStore store(path);
  store.update("d", "kept", "p", "before");
  // Another connection makes the file refuse one object: a write storing it fails in SQLite.
  SQLite::Database(path, SQLite::OPEN_READWRITE)
      .exec(
          "CREATE TRIGGER refuse BEFORE INSERT ON triplets WHEN NEW.object = CAST('bad' AS BLOB) "
          "BEGIN SELECT RAISE(ABORT, 'refused'); END");
  const std::string failed = "knowledge store '" + path + "': ";
  struct Case {
    std::function<void(TripletStore&, const std::string&)> write;
    std::string error;  // empty when the write commits
  };
  const Case cases[] = {
      {[](TripletStore& s, const std::string& k) { s.add("d", k, "p", "ok"); }, ""},
      {[](TripletStore& s, const std::string& k) { s.add("d", k, "p", "bad"); },
       failed + "add failed: refused"},
      // The failed update's delete is undone with it: the key keeps its object.
      {[](TripletStore& s, const std::string&) { s.update("d", "kept", "p", "bad"); },
       failed + "update failed: refused"},
      {[](TripletStore& s, const std::string& k) { s.update("d", k, "q", "ok"); }, ""},
      {[](TripletStore& s, const std::string& k) {
         s.addMany({{"d", k, "m", "ok"}, {"d", k, "m", "bad"}, {"d", k, "n", "ok"}});
       },
       failed + "addMany failed: refused"},
      {[](TripletStore& s, const std::string& k) { s.remove("d", k, "?", "?"); }, ""},
  };
  constexpr int kThreads = 8, kRounds = 20;
  std::atomic<int> wrong{0};
  onThreads(kThreads, [&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      const std::string key = std::to_string(thread) + "/" + std::to_string(round);
      for (const Case& c : cases) {
        std::string error;
        try {
          c.write(store, key);
        } catch (const QV::KnowledgeStoreError& e) {
          error = e.what();
        }
        wrong += error == c.error ? 0 : 1;
      }
      // What the successful writes left, before the final remove.
      wrong += store.queryTriplet("d", key, "*", "*").empty() ? 0 : 1;
    }
  });
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(all(store), (Rows{{"d", "kept", "p", "before"}}));
}

TEST_F(GroupedWrites, WhenTheTransactionFailsEveryWriteOfItsGroupFailsAndLeavesNothing) {
  TripletStoreOptions options;
  options.busyTimeout = 50ms;
  SqliteTripletStore store(path, options);
  SQLite::Database other(path, SQLite::OPEN_READWRITE);
  other.exec("BEGIN IMMEDIATE");  // the store cannot begin its transactions
  const std::string locked = "knowledge store '" + path + "': add failed: database is locked";
  std::atomic<int> wrong{0};
  onThreads(8, [&](int thread) {
    try {
      store.add("d", std::to_string(thread), "p", "o");
      ++wrong;
    } catch (const QV::KnowledgeStoreError& e) {
      wrong += e.what() == locked ? 0 : 1;
    }
  });
  other.exec("COMMIT");
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(all(store), Rows{});
  store.add("d", "after", "p", "o");  // the writer is not left inside a transaction
  EXPECT_EQ(all(store), (Rows{{"d", "after", "p", "o"}}));
}

TEST_F(GroupedWrites, ConcurrentUpdatesOfOneKeyLeaveOneObjectTheLastOfAThread) {
  constexpr int kThreads = 8, kWrites = 100;
  for (const std::string& where : {path, std::string(":memory:")}) {
    SCOPED_TRACE(where);
    SqliteTripletStore store(where);
    onThreads(kThreads, [&](int thread) {
      for (int i = 1; i <= kWrites; ++i) {
        store.update("d", "shared", "p", std::to_string(thread) + "/" + std::to_string(i));
      }
    });
    const Objects left = store.getObject("d", "shared", "p");
    ASSERT_EQ(left.size(), 1u);
    EXPECT_THAT(left[0], ::testing::EndsWith("/" + std::to_string(kWrites)));
  }
}

using QueryPlans = FileStore;

TEST_F(QueryPlans, EveryStatementWithAFixedPositionSearchesThroughItsMostSelectiveIndex) {
  SqliteTripletStore store(path);
  const auto plans = store.explainQueryPlans();
  ASSERT_GE(plans.size(), 34u);
  std::map<std::string, std::string> byStatement;
  for (const auto& plan : plans) {
    byStatement[plan.statement] = plan.plan;
    if (plan.statement == "queryTriplet(*,*,*,*)") {
      EXPECT_THAT(plan.plan, HasSubstr("SCAN triplets"));
    } else if (plan.statement != "insert(d,s,p,o)") {
      EXPECT_THAT(plan.plan, ::testing::Not(HasSubstr("SCAN"))) << plan.statement;
      EXPECT_THAT(plan.plan, HasSubstr("SEARCH triplets USING ")) << plan.statement;
    }
  }
  const std::map<std::string, std::string> expectedIndex = {
      {"getObject(d,s,p)",
       "COVERING INDEX triplets_by_key (domain=? AND subject=? AND predicate=?)"},
      {"contains(d,s,p,o)",
       "triplets_by_key (domain=? AND subject=? AND predicate=? AND object=?)"},
      {"queryTriplet(*,s,*,*)", "triplets_by_subject (subject=?)"},
      {"queryTriplet(d,*,*,o)", "triplets_by_object (object=? AND domain=?)"},
      {"contains(d,?,p,o)", "triplets_by_object (object=? AND domain=? AND predicate=?)"},
      {"remove(d,?,p,?)", "triplets_by_predicate (predicate=? AND domain=?)"},
  };
  for (const auto& [statement, index] : expectedIndex) {
    EXPECT_THAT(byStatement[statement], HasSubstr(index)) << statement;
  }
  // getObject() orders its rows itself: SQLite must not sort them in a temporary B-tree per call.
  EXPECT_THAT(byStatement["getObject(d,s,p)"], ::testing::Not(HasSubstr("TEMP B-TREE")));
}

}  // namespace
