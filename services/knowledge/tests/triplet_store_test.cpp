// Behaviour of QV::TripletStore: the semantics of each call, byte exactness, durability, the
// refusal of files that are not stores, concurrent reads and the query plans.

#include "qvknowledge/triplet_store.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using QV::Durability;
using QV::KnowledgeStoreError;
using QV::Triplet;
using QV::TripletStore;
using QV::TripletStoreOptions;
using ::testing::HasSubstr;
using ::testing::Not;
using Objects = std::vector<std::string>;
using Rows = std::vector<std::vector<std::string>>;

constexpr auto kHangLimit = 60s;

// A fresh directory per test, removed with its content.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "qvknowledge-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("cannot create a temporary directory");
    }
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  fs::path path_;
};

std::string readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// The text of the error opening `path` gives, or "" if it opens.
std::string openError(const std::string& path) {
  try {
    TripletStore store(path);
  } catch (const KnowledgeStoreError& error) {
    return error.what();
  }
  return "";
}

// Suites that only need the semantics run on a private in-memory store.
class MemoryStore : public ::testing::Test {
 protected:
  TripletStore store{":memory:"};
};

// Suites that need a real file get a fresh directory.
class FileStore : public ::testing::Test {
 protected:
  TempDir dir;
  const std::string path = dir.file("knowledge.db");
};

// ---------------------------------------------------------------------------------------------
using GetObject = MemoryStore;

TEST_F(GetObject, ReturnsEveryObjectOfAKeyInTheOrderTheyWereStored) {
  store.add("users", "alice", "email", "c@example.org");
  store.add("users", "alice", "email", "a@example.org");
  store.add("users", "alice", "email", "b@example.org");
  EXPECT_EQ(store.getObject("users", "alice", "email"),
            (Objects{"c@example.org", "a@example.org", "b@example.org"}));
}

TEST_F(GetObject, ReturnsNothingForAKeyThatWasNeverStored) {
  store.add("users", "alice", "email", "a@example.org");
  EXPECT_TRUE(store.getObject("users", "alice", "phone").empty());
  EXPECT_TRUE(store.getObject("users", "bob", "email").empty());
  EXPECT_TRUE(store.getObject("groups", "alice", "email").empty());
}

TEST_F(GetObject, KeepsApartKeysWhoseConcatenationsAreEqual) {
  store.add("ab", "c", "p", "first");
  store.add("a", "bc", "p", "second");
  store.add("a", "b", "cp", "third");
  EXPECT_EQ(store.getObject("ab", "c", "p"), Objects{"first"});
  EXPECT_EQ(store.getObject("a", "bc", "p"), Objects{"second"});
  EXPECT_EQ(store.getObject("a", "b", "cp"), Objects{"third"});
}

TEST_F(GetObject, ReadsWildcardCharactersAsLiterals) {
  store.add("users", "alice", "email", "a@example.org");
  store.add("users", "?", "email", "question");
  store.add("users", "*", "email", "star");
  EXPECT_EQ(store.getObject("users", "?", "email"), Objects{"question"});
  EXPECT_EQ(store.getObject("users", "*", "email"), Objects{"star"});
  EXPECT_TRUE(store.getObject("users", "alice", "?").empty());
}

// ---------------------------------------------------------------------------------------------
using Add = MemoryStore;

TEST_F(Add, StoresAnIdenticalTripletOnceAndKeepsItsPlace) {
  store.add("users", "alice", "group", "admins");
  store.add("users", "alice", "group", "staff");
  store.add("users", "alice", "group", "admins");
  EXPECT_EQ(store.getObject("users", "alice", "group"), (Objects{"admins", "staff"}));
}

TEST_F(Add, StoresWildcardCharactersAsLiterals) {
  store.add("users", "?", "*", "?");
  EXPECT_EQ(store.queryTriplet("*", "*", "*", "*"), (Rows{{"users", "?", "*", "?"}}));
}

using AddMany = MemoryStore;

TEST_F(AddMany, StoresEveryTripletInOrderAndSkipsDuplicates) {
  store.add("users", "alice", "group", "staff");
  store.addMany({{"users", "alice", "group", "admins"},
                 {"users", "bob", "group", "staff"},
                 {"users", "alice", "group", "staff"},
                 {"users", "alice", "group", "ops"},
                 {"users", "bob", "group", "staff"}});
  EXPECT_EQ(store.getObject("users", "alice", "group"), (Objects{"staff", "admins", "ops"}));
  EXPECT_EQ(store.getObject("users", "bob", "group"), Objects{"staff"});
}

TEST_F(AddMany, AcceptsAnEmptyBatch) {
  store.addMany({});
  EXPECT_TRUE(store.queryTriplet("*", "*", "*", "*").empty());
}

// ---------------------------------------------------------------------------------------------
using Update = MemoryStore;

TEST_F(Update, ReplacesEveryEarlierObjectOfTheKey) {
  store.add("users", "alice", "email", "old1@example.org");
  store.add("users", "alice", "email", "old2@example.org");
  store.update("users", "alice", "email", "new@example.org");
  EXPECT_EQ(store.getObject("users", "alice", "email"), Objects{"new@example.org"});
}

TEST_F(Update, StoresAKeyThatDidNotExist) {
  store.update("users", "alice", "email", "a@example.org");
  EXPECT_EQ(store.getObject("users", "alice", "email"), Objects{"a@example.org"});
}

TEST_F(Update, KeepsOnlyOneCopyWhenTheNewObjectWasAlreadyStored) {
  store.add("users", "alice", "group", "admins");
  store.add("users", "alice", "group", "staff");
  store.update("users", "alice", "group", "admins");
  EXPECT_EQ(store.getObject("users", "alice", "group"), Objects{"admins"});
}

TEST_F(Update, LeavesKeysThatDifferInAnyPositionAlone) {
  store.add("users", "alice", "email", "a@example.org");
  store.add("users", "alice", "phone", "555");
  store.add("users", "bob", "email", "b@example.org");
  store.add("groups", "alice", "email", "g@example.org");
  store.update("users", "alice", "email", "new@example.org");
  EXPECT_EQ(store.getObject("users", "alice", "phone"), Objects{"555"});
  EXPECT_EQ(store.getObject("users", "bob", "email"), Objects{"b@example.org"});
  EXPECT_EQ(store.getObject("groups", "alice", "email"), Objects{"g@example.org"});
}

TEST_F(Update, TakesAQuestionMarkAsALiteralSubject) {
  store.add("users", "alice", "email", "a@example.org");
  store.update("users", "?", "email", "question");
  EXPECT_EQ(store.getObject("users", "alice", "email"), Objects{"a@example.org"});
  EXPECT_EQ(store.getObject("users", "?", "email"), Objects{"question"});
}

// ---------------------------------------------------------------------------------------------
using Contains = MemoryStore;

TEST_F(Contains, FindsOnlyTheExactTriplet) {
  store.add("users", "alice", "email", "a@example.org");
  EXPECT_TRUE(store.contains("users", "alice", "email", "a@example.org"));
  EXPECT_FALSE(store.contains("groups", "alice", "email", "a@example.org"));
  EXPECT_FALSE(store.contains("users", "bob", "email", "a@example.org"));
  EXPECT_FALSE(store.contains("users", "alice", "phone", "a@example.org"));
  EXPECT_FALSE(store.contains("users", "alice", "email", "b@example.org"));
}

TEST_F(Contains, QuestionMarkMatchesAnythingInSubjectPredicateAndObject) {
  store.add("users", "alice", "email", "a@example.org");
  const std::string value[3] = {"alice", "email", "a@example.org"};
  const std::string other[3] = {"bob", "phone", "b@example.org"};
  for (unsigned wild = 0; wild < 8; ++wild) {
    std::string probe[3];
    for (int i = 0; i < 3; ++i) {
      probe[i] = (wild & (1u << i)) ? "?" : value[i];
    }
    EXPECT_TRUE(store.contains("users", probe[0], probe[1], probe[2])) << "wildcards " << wild;
    for (int i = 0; i < 3; ++i) {
      if (!(wild & (1u << i))) {
        std::string miss[3] = {probe[0], probe[1], probe[2]};
        miss[i] = other[i];
        EXPECT_FALSE(store.contains("users", miss[0], miss[1], miss[2]))
            << "wildcards " << wild << ", position " << i << " differs";
      }
    }
  }
}

TEST_F(Contains, NeverTakesTheDomainAsAWildcard) {
  store.add("users", "alice", "email", "a@example.org");
  EXPECT_FALSE(store.contains("?", "alice", "email", "a@example.org"));
  EXPECT_FALSE(store.contains("?", "?", "?", "?"));
  store.add("?", "alice", "email", "a@example.org");
  EXPECT_TRUE(store.contains("?", "?", "?", "?"));
}

TEST_F(Contains, TakesAStarAsALiteral) {
  store.add("users", "alice", "email", "a@example.org");
  EXPECT_FALSE(store.contains("users", "*", "email", "a@example.org"));
  EXPECT_FALSE(store.contains("users", "alice", "*", "*"));
  store.add("users", "*", "email", "a@example.org");
  EXPECT_TRUE(store.contains("users", "*", "email", "a@example.org"));
}

TEST_F(Contains, TakesOnlyASingleQuestionMarkAsAWildcard) {
  store.add("users", "alice", "email", "a@example.org");
  EXPECT_FALSE(store.contains("users", "??", "email", "a@example.org"));
  EXPECT_FALSE(store.contains("users", "? ", "email", "a@example.org"));
  EXPECT_FALSE(store.contains("users", "alice", "email", std::string("?\0", 2)));
}

// ---------------------------------------------------------------------------------------------
using Remove = MemoryStore;

TEST_F(Remove, RemovesOnlyTheExactTriplet) {
  store.add("users", "alice", "group", "admins");
  store.add("users", "alice", "group", "staff");
  store.remove("users", "alice", "group", "admins");
  EXPECT_EQ(store.getObject("users", "alice", "group"), Objects{"staff"});
}

TEST_F(Remove, QuestionMarkMatchesAnythingInEachPosition) {
  const Rows all = {{"users", "alice", "email", "a@example.org"},
                    {"users", "alice", "phone", "555"},
                    {"users", "bob", "email", "b@example.org"},
                    {"users", "bob", "phone", "555"},
                    {"groups", "alice", "email", "a@example.org"}};
  struct Case {
    std::string subject, predicate, object;
    std::vector<int> remaining;  // indexes into all
  };
  const Case cases[] = {
      {"?", "phone", "555", {0, 2, 4}},    {"alice", "?", "a@example.org", {1, 2, 3, 4}},
      {"bob", "email", "?", {0, 1, 3, 4}}, {"?", "?", "555", {0, 2, 4}},
      {"alice", "?", "?", {2, 3, 4}},      {"?", "?", "?", {4}},
  };
  for (const Case& c : cases) {
    TripletStore fresh(":memory:");
    Rows expected;
    for (const auto& row : all) {
      fresh.add(row[0], row[1], row[2], row[3]);
    }
    for (int index : c.remaining) {
      expected.push_back(all[index]);
    }
    fresh.remove("users", c.subject, c.predicate, c.object);
    EXPECT_EQ(fresh.queryTriplet("*", "*", "*", "*"), expected)
        << "remove(users, " << c.subject << ", " << c.predicate << ", " << c.object << ")";
  }
}

TEST_F(Remove, NeverTakesTheDomainAsAWildcard) {
  store.add("users", "alice", "email", "a@example.org");
  store.remove("?", "?", "?", "?");
  EXPECT_TRUE(store.contains("users", "alice", "email", "a@example.org"));
}

TEST_F(Remove, TakesAStarAsALiteral) {
  store.add("users", "alice", "email", "a@example.org");
  store.add("users", "*", "email", "a@example.org");
  store.remove("users", "*", "email", "a@example.org");
  store.remove("users", "alice", "*", "*");
  EXPECT_EQ(store.queryTriplet("*", "*", "*", "*"),
            (Rows{{"users", "alice", "email", "a@example.org"}}));
}

TEST_F(Remove, RemovingNothingIsNotAnError) {
  EXPECT_NO_THROW(store.remove("users", "nobody", "email", "?"));
  EXPECT_NO_THROW(store.remove("users", "?", "?", "?"));
}

// ---------------------------------------------------------------------------------------------
using QueryTriplet = MemoryStore;

// Stored deliberately out of every index order, so that the result order shows storage order.
const Rows kSample = {
    {"prefs", "carol", "theme", "dark"}, {"users", "alice", "email", "a@example.org"},
    {"auth", "alice", "role", "admin"},  {"users", "bob", "email", "b@example.org"},
    {"prefs", "alice", "theme", "dark"}, {"users", "alice", "group", "staff"},
    {"auth", "bob", "role", "user"},     {"users", "alice", "group", "admins"},
    {"prefs", "bob", "theme", "light"},  {"auth", "carol", "role", "admin"},
    {"users", "carol", "email", "dark"},
};

TEST_F(QueryTriplet, StarMatchesAnythingInEveryCombinationOfPositions) {
  for (const auto& row : kSample) {
    store.add(row[0], row[1], row[2], row[3]);
  }
  Rows probes = kSample;
  probes.push_back({"users", "nobody", "theme", "admin"});
  for (const auto& probe : probes) {
    for (unsigned star = 0; star < 16; ++star) {
      std::vector<std::string> pattern = probe;
      Rows expected;
      for (int i = 0; i < 4; ++i) {
        if (star & (1u << i)) {
          pattern[i] = "*";
        }
      }
      for (const auto& row : kSample) {
        bool match = true;
        for (int i = 0; i < 4; ++i) {
          match = match && (pattern[i] == "*" || pattern[i] == row[i]);
        }
        if (match) {
          expected.push_back(row);
        }
      }
      EXPECT_EQ(store.queryTriplet(pattern[0], pattern[1], pattern[2], pattern[3]), expected)
          << "queryTriplet(" << pattern[0] << ", " << pattern[1] << ", " << pattern[2] << ", "
          << pattern[3] << ")";
    }
  }
}

TEST_F(QueryTriplet, TakesAQuestionMarkAsALiteral) {
  store.add("users", "alice", "email", "a@example.org");
  store.add("users", "?", "email", "question");
  EXPECT_EQ(store.queryTriplet("users", "?", "*", "*"),
            (Rows{{"users", "?", "email", "question"}}));
  EXPECT_TRUE(store.queryTriplet("?", "*", "*", "*").empty());
  EXPECT_TRUE(store.queryTriplet("users", "alice", "email", "?").empty());
}

TEST_F(QueryTriplet, ShowsAnUpdatedKeyAsItsNewestRow) {
  store.add("users", "alice", "email", "a@example.org");
  store.add("users", "alice", "phone", "555");
  store.update("users", "alice", "email", "new@example.org");
  EXPECT_EQ(
      store.queryTriplet("users", "alice", "*", "*"),
      (Rows{{"users", "alice", "phone", "555"}, {"users", "alice", "email", "new@example.org"}}));
}

// ---------------------------------------------------------------------------------------------
using ByteExactness = MemoryStore;

TEST_F(ByteExactness, KeepsEmbeddedNulBytesAsPartOfTheValue) {
  const std::string nulA("a\0b", 3);
  const std::string nulB("a\0c", 3);
  store.add("users", nulA, "note", nulB);
  store.add("users", "a", "note", "plain");
  EXPECT_EQ(store.getObject("users", nulA, "note"), Objects{nulB});
  EXPECT_EQ(store.getObject("users", "a", "note"), Objects{"plain"});
  EXPECT_TRUE(store.contains("users", nulA, "note", nulB));
  EXPECT_FALSE(store.contains("users", nulA, "note", "a"));
  EXPECT_EQ(store.queryTriplet("*", nulA, "*", "*"), (Rows{{"users", nulA, "note", nulB}}));
}

TEST_F(ByteExactness, ReturnsUtf8AndArbitraryBytesUnchanged) {
  const std::string utf8 = "J\xC3\xBCrgen \xE2\x9C\x93 \xF0\x9F\x98\x80";
  const std::string invalid = "\xFF\xFE\x80 not text";
  store.add("users", utf8, "name", invalid);
  EXPECT_EQ(store.getObject("users", utf8, "name"), Objects{invalid});
  EXPECT_EQ(store.queryTriplet("*", "*", "*", invalid), (Rows{{"users", utf8, "name", invalid}}));
}

TEST_F(ByteExactness, NeitherFoldsCaseNorTrimsSpaces) {
  store.add("users", "alice", "email", "lower");
  store.add("users", "Alice", "email", "upper");
  store.add("users", "alice ", "email", "trailing");
  store.add("users", " alice", "email", "leading");
  EXPECT_EQ(store.getObject("users", "alice", "email"), Objects{"lower"});
  EXPECT_EQ(store.getObject("users", "Alice", "email"), Objects{"upper"});
  EXPECT_EQ(store.getObject("users", "alice ", "email"), Objects{"trailing"});
  EXPECT_EQ(store.getObject("users", " alice", "email"), Objects{"leading"});
  EXPECT_FALSE(store.contains("users", "ALICE", "?", "?"));
}

TEST_F(ByteExactness, StoresTheEmptyStringAsAValue) {
  store.add("users", "", "email", "");
  EXPECT_EQ(store.getObject("users", "", "email"), Objects{""});
  EXPECT_TRUE(store.contains("users", "", "email", ""));
  EXPECT_EQ(store.queryTriplet("*", "", "*", ""), (Rows{{"users", "", "email", ""}}));
  EXPECT_TRUE(store.getObject("users", "?", "email").empty());
}

// ---------------------------------------------------------------------------------------------
using Durable = FileStore;

TEST_F(Durable, KeepsEveryWriteAcrossClosingAndReopening) {
  for (Durability durability : {Durability::Full, Durability::Normal}) {
    TripletStoreOptions options;
    options.durability = durability;
    fs::remove(path);
    {
      TripletStore store(path, options);
      store.add("users", "alice", "group", "admins");
      store.add("users", "alice", "group", "staff");
      store.update("users", "alice", "email", "a@example.org");
      store.add("users", "bob", "email", "b@example.org");
      store.remove("users", "bob", "?", "?");
    }
    TripletStore reopened(path, options);
    EXPECT_EQ(reopened.queryTriplet("*", "*", "*", "*"),
              (Rows{{"users", "alice", "group", "admins"},
                    {"users", "alice", "group", "staff"},
                    {"users", "alice", "email", "a@example.org"}}));
  }
}

TEST_F(Durable, LosesNoAcknowledgedWriteWhenTheProcessIsKilled) {
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    // No test machinery here: the child reports through how it ends.
    try {
      TripletStore store(path);
      store.add("users", "alice", "group", "admins");
      store.update("users", "alice", "email", "a@example.org");
      store.add("users", "bob", "email", "b@example.org");
      store.remove("users", "bob", "?", "?");
      store.addMany({{"users", "carol", "email", "c@example.org"}});
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
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
      << "the child failed before it was killed";
  // The writes were never checkpointed: they survive in the WAL only.
  ASSERT_TRUE(fs::exists(path + "-wal"));
  ASSERT_GT(fs::file_size(path + "-wal"), 0u);

  TripletStore store(path);
  EXPECT_EQ(store.queryTriplet("*", "*", "*", "*"),
            (Rows{{"users", "alice", "group", "admins"},
                  {"users", "alice", "email", "a@example.org"},
                  {"users", "carol", "email", "c@example.org"}}));
}

TEST_F(Durable, WritesAWalStoreMarkedWithItsApplicationAndVersion) {
  { TripletStore store(path); }
  SQLite::Database raw(path);
  EXPECT_EQ(raw.execAndGet("PRAGMA journal_mode").getString(), "wal");
  EXPECT_NE(raw.execAndGet("PRAGMA application_id").getInt(), 0);
  EXPECT_EQ(raw.execAndGet("PRAGMA user_version").getInt(), 1);
}

TEST_F(Durable, TurnsAnEmptyFileIntoAStore) {
  writeBytes(path, "");
  TripletStore store(path);
  store.add("users", "alice", "email", "a@example.org");
  EXPECT_TRUE(store.contains("users", "alice", "email", "a@example.org"));
}

// ---------------------------------------------------------------------------------------------
// Every refused file must be left exactly as it was.
class RefusedFile : public FileStore {
 protected:
  void expectRefused(const std::string& reason) {
    const std::string before = readBytes(path);
    const std::string error = openError(path);
    EXPECT_THAT(error, HasSubstr("'" + path + "'"));
    EXPECT_THAT(error, HasSubstr(reason));
    EXPECT_EQ(readBytes(path), before) << "the refused file was modified";
  }
};

TEST_F(RefusedFile, RandomBytesAreNotADatabase) {
  std::mt19937 random(7);
  std::string bytes(8192, '\0');
  for (char& byte : bytes) {
    byte = static_cast<char>(random());
  }
  writeBytes(path, bytes);
  expectRefused("not a SQLite database");
}

TEST_F(RefusedFile, AStoreOfANewerSchemaVersion) {
  {
    TripletStore store(path);
    store.add("users", "alice", "email", "a@example.org");
  }
  {
    SQLite::Database raw(path, SQLite::OPEN_READWRITE);
    raw.exec("PRAGMA user_version = 99");
  }
  expectRefused("schema version 99 is newer");
}

TEST_F(RefusedFile, ADatabaseWithTablesOfAnotherApplication) {
  {
    SQLite::Database raw(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    raw.exec("CREATE TABLE contacts (name TEXT); INSERT INTO contacts VALUES ('alice')");
  }
  expectRefused("belongs to another application (it holds contacts)");
}

TEST_F(RefusedFile, ADatabaseWithAnotherApplicationId) {
  {
    SQLite::Database raw(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    raw.exec("PRAGMA application_id = 42");
  }
  expectRefused("application_id 0x0000002A");
}

// Sets or clears the immutable attribute, which keeps even root from writing the file.
bool setImmutable(const std::string& path, bool immutable) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  int flags = 0;
  bool done = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  if (done) {
    flags = immutable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    done = ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  }
  ::close(fd);
  return done;
}

TEST_F(RefusedFile, AFileThatCannotBeWritten) {
  {
    TripletStore store(path);
    store.add("users", "alice", "email", "a@example.org");
  }
  if (!setImmutable(path, true)) {
    GTEST_SKIP() << "cannot make a file immutable here (needs CAP_LINUX_IMMUTABLE and ext4-like "
                    "attributes), and root writes any file whatever its mode";
  }
  struct Unlock {
    std::string path;
    ~Unlock() { setImmutable(path, false); }
  } unlock{path};
  expectRefused("cannot be written");
}

TEST_F(RefusedFile, APathInAMissingDirectory) {
  const std::string missing = dir.file("missing/knowledge.db");
  EXPECT_THAT(openError(missing), HasSubstr("'" + missing + "': cannot open"));
  EXPECT_FALSE(fs::exists(missing));
}

TEST_F(RefusedFile, AnEmptyPath) {
  EXPECT_THAT(openError(""), HasSubstr("the path is empty"));
}

// ---------------------------------------------------------------------------------------------
using FailedCall = FileStore;

TEST_F(FailedCall, ReportsAWriteThatCannotTakeTheLockAndLeavesTheStoreUsable) {
  TripletStoreOptions options;
  options.busyTimeout = 20ms;
  TripletStore store(path, options);
  store.update("users", "alice", "email", "a@example.org");

  SQLite::Database other(path, SQLite::OPEN_READWRITE);
  other.exec("BEGIN IMMEDIATE");
  try {
    store.update("users", "alice", "email", "new@example.org");
    ADD_FAILURE() << "the write succeeded while another connection held the lock";
  } catch (const KnowledgeStoreError& error) {
    EXPECT_THAT(error.what(), HasSubstr("'" + path + "': update failed: database is locked"));
  }
  // Readers are not blocked by a writer.
  EXPECT_EQ(store.getObject("users", "alice", "email"), Objects{"a@example.org"});
  other.exec("ROLLBACK");

  store.update("users", "alice", "email", "new@example.org");
  EXPECT_EQ(store.getObject("users", "alice", "email"), Objects{"new@example.org"});
}

// ---------------------------------------------------------------------------------------------
using ConcurrentReads = FileStore;

// Readers run while one writer keeps replacing the single object of a key: every read must see
// exactly one object, never the moment between the delete and the insert.
void expectNoTornReads(TripletStore& store, int updates) {
  store.update("d", "counter", "value", "0");
  std::atomic<bool> writerDone{false};
  std::atomic<int> torn{0};
  std::atomic<long> reads{0};
  auto reader = [&](int kind) {
    do {
      std::size_t seen = 0;
      switch (kind % 3) {
        case 0:
          seen = store.getObject("d", "counter", "value").size();
          break;
        case 1:
          seen = store.queryTriplet("*", "counter", "value", "*").size();
          break;
        default:
          seen = store.contains("d", "counter", "value", "?") ? 1 : 0;
      }
      torn += seen == 1 ? 0 : 1;
      ++reads;
    } while (!writerDone);
  };
  std::vector<std::future<void>> readers;
  for (int kind = 0; kind < 4; ++kind) {
    readers.push_back(std::async(std::launch::async, reader, kind));
  }
  auto writer = std::async(std::launch::async, [&] {
    for (int i = 1; i <= updates; ++i) {
      store.update("d", "counter", "value", std::to_string(i));
      store.add("d", "noise", std::to_string(i % 5), std::to_string(i));
    }
    writerDone = true;
  });
  const bool finished = writer.wait_for(kHangLimit) == std::future_status::ready;
  writerDone = true;
  ASSERT_TRUE(finished) << "the writer hung";
  writer.get();
  for (auto& r : readers) {
    ASSERT_EQ(r.wait_for(kHangLimit), std::future_status::ready) << "a reader hung";
    r.get();
  }
  EXPECT_EQ(torn.load(), 0);
  EXPECT_GE(reads.load(), 4);
  EXPECT_EQ(store.getObject("d", "counter", "value"), Objects{std::to_string(updates)});
}

TEST_F(ConcurrentReads, NeverSeeAHalfDoneUpdateOnAFile) {
  TripletStoreOptions options;
  options.durability = Durability::Normal;
  options.readConnections = 2;  // fewer than readers: some wait for a free connection
  TripletStore store(path, options);
  expectNoTornReads(store, 300);
}

TEST_F(ConcurrentReads, NeverSeeAHalfDoneUpdateInMemory) {
  TripletStore store(":memory:");
  expectNoTornReads(store, 300);
}

// ---------------------------------------------------------------------------------------------
using QueryPlans = FileStore;

TEST_F(QueryPlans, NoStatementWithAFixedPositionScansTheTable) {
  TripletStore store(path);
  const auto plans = store.explainQueryPlans();
  ASSERT_GE(plans.size(), 34u);
  for (const auto& plan : plans) {
    if (plan.statement == "insert(d,s,p,o)") {
      continue;
    }
    if (plan.statement == "queryTriplet(*,*,*,*)") {
      EXPECT_THAT(plan.plan, HasSubstr("SCAN triplets"));
      continue;
    }
    EXPECT_THAT(plan.plan, Not(HasSubstr("SCAN"))) << plan.statement << ": " << plan.sql;
    EXPECT_THAT(plan.plan, HasSubstr("SEARCH triplets USING "))
        << plan.statement << ": " << plan.sql;
  }
}

TEST_F(QueryPlans, LooksUpEachCallThroughItsMostSelectiveIndex) {
  TripletStore store(path);
  std::map<std::string, std::string> byStatement;
  for (const auto& plan : store.explainQueryPlans()) {
    byStatement[plan.statement] = plan.plan;
  }
  EXPECT_THAT(byStatement["getObject(d,s,p)"],
              HasSubstr("triplets_by_key (domain=? AND subject=? AND predicate=?)"));
  EXPECT_THAT(byStatement["contains(d,s,p,o)"],
              HasSubstr("triplets_by_key (domain=? AND subject=? AND predicate=? AND object=?)"));
  EXPECT_THAT(byStatement["queryTriplet(*,s,*,*)"], HasSubstr("triplets_by_subject (subject=?)"));
  EXPECT_THAT(byStatement["queryTriplet(d,*,*,o)"],
              HasSubstr("triplets_by_object (object=? AND domain=?)"));
  EXPECT_THAT(byStatement["contains(d,?,p,o)"],
              HasSubstr("triplets_by_object (object=? AND domain=? AND predicate=?)"));
  EXPECT_THAT(byStatement["remove(d,?,p,?)"],
              HasSubstr("triplets_by_predicate (predicate=? AND domain=?)"));
}

}  // namespace
