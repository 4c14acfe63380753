// Behaviour of QV::TripletStore: the semantics of each call, byte exactness, durability,
// concurrent reads, writes from many threads and the query plans. Opening and refusing files:
// store_open_test.

#include "qvknowledge/sqlite_triplet_store.hpp"

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
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace std::string_literals;
using QV::Durability;
using QV::SqliteTripletStore;
using QV::TripletStore;
using QV::TripletStoreOptions;
using ::testing::HasSubstr;
using Objects = std::vector<std::string>;
using Rows = std::vector<std::vector<std::string>>;

constexpr auto kHangLimit = 60s;

void fill(TripletStore& store, const Rows& rows) {
  for (const auto& row : rows) {
    store.add(row[0], row[1], row[2], row[3]);
  }
}

Rows all(const TripletStore& store) {
  return store.queryTriplet("*", "*", "*", "*");
}

// Suites that only need the semantics run on a private in-memory store.
class MemoryStore : public ::testing::Test {
 protected:
  SqliteTripletStore store{":memory:"};
};

// Suites that need a real file get a fresh directory, removed with its content.
class FileStore : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "qvknowledge-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir = pattern;
    path = file("knowledge.db");
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(dir, ignored);
  }
  std::string file(const std::string& name) const { return (dir / name).string(); }

  fs::path dir;
  std::string path;
};

using AddAndUpdate = MemoryStore;

TEST_F(AddAndUpdate, StoreADuplicateTripletOnceAtItsFirstPlaceAlsoInABatch) {
  store.add("users", "alice", "group", "staff");
  store.add("users", "alice", "group", "admins");
  store.add("users", "alice", "group", "staff");
  store.addMany({});
  store.addMany({{"users", "alice", "group", "ops"},
                 {"users", "bob", "group", "staff"},
                 {"users", "alice", "group", "admins"},
                 {"users", "bob", "group", "staff"}});
  EXPECT_EQ(store.getObject("users", "alice", "group"), (Objects{"staff", "admins", "ops"}));
  EXPECT_EQ(store.getObject("users", "bob", "group"), Objects{"staff"});
}

TEST_F(AddAndUpdate, UpdateLeavesOnlyTheNewObjectAsTheNewestRowOfItsKeyAndOtherKeysAlone) {
  fill(store, {{"users", "alice", "email", "old1"},
               {"users", "alice", "email", "old2"},
               {"users", "alice", "phone", "555"},
               {"users", "bob", "email", "b"},
               {"groups", "alice", "email", "g"}});
  store.update("users", "alice", "email", "old2");  // already stored: kept once
  EXPECT_EQ(store.getObject("users", "alice", "email"), Objects{"old2"});
  store.update("users", "alice", "email", "new");
  store.update("users", "carol", "email", "c");  // a key that did not exist
  store.update("users", "?", "email", "q");      // wildcards are literal keys here
  store.update("users", "*", "*", "s");
  EXPECT_EQ(all(store), (Rows{{"users", "alice", "phone", "555"},
                              {"users", "bob", "email", "b"},
                              {"groups", "alice", "email", "g"},
                              {"users", "alice", "email", "new"},
                              {"users", "carol", "email", "c"},
                              {"users", "?", "email", "q"},
                              {"users", "*", "*", "s"}}));
}

// The key index returns a key's objects by their bytes; getObject() must still give them oldest
// first, through removals and re-adds, and without mixing in the objects of neighbouring keys.
using ObjectOrder = MemoryStore;

// Removes `object` from the expected order and the store.
void removeObject(TripletStore& store, Objects& expected, std::string object) {
  expected.erase(std::find(expected.begin(), expected.end(), object));
  store.remove("users", "alice", "tag", object);
}

TEST_F(ObjectOrder, GetObjectReturnsObjectsOldestFirstWhateverTheirBytesThroughRemovesAndReAdds) {
  // Byte order far from insertion order: shuffled, with a shared prefix, NUL and high bytes.
  Objects fresh;
  for (int i = 0; i < 200; ++i) {
    fresh.push_back("tag" + std::to_string(i) + (i % 3 == 0 ? "\0x"s : "") +
                    (i % 5 == 0 ? "\xFF" : ""));
  }
  std::shuffle(fresh.begin(), fresh.end(), std::mt19937(11));
  // Neighbouring keys on both sides of the key in the index.
  store.add("users", "alice", "tae", "before");
  store.add("users", "alice", "tag\0"s, "after");
  Objects expected;
  for (std::size_t i = 0; i < fresh.size(); ++i) {
    store.add("users", "alice", "tag", fresh[i]);
    expected.push_back(fresh[i]);
    if (i % 7 == 6) {  // drop an older object now and then, the newest one too
      removeObject(store, expected,
                   expected[i % 2 == 0 ? expected.size() - 1 : expected.size() / 2]);
    }
  }
  ASSERT_EQ(store.getObject("users", "alice", "tag"), expected);
  // A re-added object is the newest; re-adding a stored one changes nothing.
  const Objects reAdded = {expected.front(), expected[expected.size() / 2]};
  for (const std::string& object : reAdded) {
    removeObject(store, expected, object);
    store.add("users", "alice", "tag", object);
    expected.push_back(object);
  }
  store.add("users", "alice", "tag", expected.front());
  EXPECT_EQ(store.getObject("users", "alice", "tag"), expected);
  EXPECT_EQ(store.getObject("users", "alice", "tae"), Objects{"before"});
}

// "?" is a wildcard in the subject, predicate and object of contains() and remove(); "*" in any
// position of queryTriplet(). Everywhere else, getObject() included, both are plain bytes.
using Matching = MemoryStore;

// Splits `stored` into the rows `pattern` matches, when `wildcard` matches anything from position
// `first` on, and the rest.
std::pair<Rows, Rows> split(const Rows& stored, const Objects& pattern, const std::string& wildcard,
                            int first) {
  std::pair<Rows, Rows> parts;
  for (const auto& row : stored) {
    bool match = true;
    for (int i = 0; i < 4; ++i) {
      match = match && (pattern[i] == row[i] || (i >= first && pattern[i] == wildcard));
    }
    (match ? parts.first : parts.second).push_back(row);
  }
  return parts;
}

TEST_F(Matching, EveryCallSelectsTheRowsItsWildcardsAndLiteralsMatchInStorageOrder) {
  // Stored out of every index order, so that the result order shows storage order; the last two
  // keys concatenate like users/bob/email.
  const Rows stored = {
      {"prefs", "carol", "theme", "dark"},  {"users", "alice", "email", "a@x"},
      {"auth", "alice", "role", "admin"},   {"users", "bob", "email", "b@x"},
      {"prefs", "alice", "theme", "dark"},  {"users", "alice", "group", "staff"},
      {"auth", "bob", "role", "user"},      {"users", "?", "email", "question"},
      {"prefs", "bob", "theme", "light"},   {"users", "*", "*", "star"},
      {"users", "alice", "group", "admin"}, {"users", "carol", "email", "dark"},
      {"usersb", "ob", "email", "light"},   {"users", "bobe", "mail", "dark"},
  };
  fill(store, stored);
  Rows probes = stored;  // and probes that miss in one position or hold a wildcard plus more
  probes.insert(probes.end(), {{"auth", "alice", "email", "a@x"},
                               {"users", "bob", "group", "staff"},
                               {"users", "alice", "theme", "dark"},
                               {"users", "alice", "email", "b@x"},
                               {"users", "??", "email", "question"},
                               {"users", "alice", "email", "?\0"s}});
  for (const auto& probe : probes) {
    for (const std::string wildcard : {"?", "*"}) {
      for (unsigned mask = 0; mask < 16; ++mask) {
        Objects p = probe;
        for (int i = 0; i < 4; ++i) {
          p[i] = (mask & (1u << i)) ? wildcard : p[i];
        }
        SCOPED_TRACE(::testing::PrintToString(p));
        EXPECT_EQ(store.queryTriplet(p[0], p[1], p[2], p[3]), split(stored, p, "*", 0).first);
        Objects objects;
        for (const auto& row : split(stored, {p[0], p[1], p[2], "*"}, "*", 3).first) {
          objects.push_back(row[3]);
        }
        EXPECT_EQ(store.getObject(p[0], p[1], p[2]), objects);
        const auto [removed, left] = split(stored, p, "?", 1);
        EXPECT_EQ(store.contains(p[0], p[1], p[2], p[3]), !removed.empty());
        SqliteTripletStore fresh(":memory:");
        fill(fresh, stored);
        fresh.remove(p[0], p[1], p[2], p[3]);
        EXPECT_EQ(all(fresh), left);
      }
    }
  }
}

using ByteExactness = MemoryStore;

TEST_F(ByteExactness, KeepsEveryValueAsItsExactBytesWithoutTruncatingFoldingOrTrimming) {
  const std::string utf8 = "J\xC3\xBCrgen \xE2\x9C\x93 \xF0\x9F\x98\x80",
                    binary = "\xFF\xFE\x80 bytes";
  const Objects values = {"a",      "a\0b"s,  "a\0c"s, "alice", "Alice",
                          "alice ", " alice", "",      utf8,    binary};
  for (const auto& value : values) {
    store.add("users", value, "note", value);
  }
  for (const auto& value : values) {
    SCOPED_TRACE(::testing::PrintToString(value));
    EXPECT_EQ(store.getObject("users", value, "note"), Objects{value});
    EXPECT_EQ(store.queryTriplet("*", "*", "*", value), (Rows{{"users", value, "note", value}}));
    for (const auto& other : values) {
      EXPECT_EQ(store.contains("users", value, "note", other), value == other)
          << ::testing::PrintToString(other);
    }
  }
}

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
