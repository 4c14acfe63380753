// Opening a QV::TripletStore file: damaged, foreign and read-only-format files are refused and left
// exactly as they were, many processes may create one store at once, and waits for another
// process's lock are bounded and let an event loop keep running.

#include "qvsqlite/sqlite_triplet_store.hpp"

#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ka/eventloop.hpp>
#include "temp_dir_test.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using QV::KnowledgeStoreError;
using QV::OpenCheck;
using QV::SqliteTripletStore;
using QV::TripletStore;
using QV::TripletStoreOptions;
using ::testing::HasSubstr;
using Rows = std::vector<std::vector<std::string>>;

constexpr auto kHangLimit = 60s;
constexpr std::uint32_t kPageSize = 4096;  // SQLite's default, used by every store

std::optional<std::string> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return std::nullopt;
  }
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Everything SQLite keeps of a database: the main file and its journals, a missing one as nullopt.
using Snapshot = std::map<std::string, std::optional<std::string>>;

Snapshot snapshot(const std::string& path) {
  Snapshot files;
  for (const char* suffix : {"", "-wal", "-journal"}) {
    files[suffix] = readBytes(path + suffix);
  }
  return files;
}

// Copies a database with its journals as they are now, e.g. while a connection holds them: the
// copy is the state a writer that died at this moment leaves behind.
void copyDatabase(const std::string& from, const std::string& to) {
  for (const char* suffix : {"", "-wal", "-journal"}) {
    if (fs::exists(from + suffix)) {
      fs::copy_file(from + suffix, to + suffix);
    }
  }
}

std::string openError(const std::string& path, TripletStoreOptions options = {}) {
  try {
    SqliteTripletStore store(path, options);
  } catch (const KnowledgeStoreError& error) {
    return error.what();
  }
  return "";
}

void expectRefusedUnchanged(const std::string& path, const std::string& reason,
                            TripletStoreOptions options = {}) {
  const Snapshot before = snapshot(path);
  const std::string error = openError(path, options);
  EXPECT_THAT(error, HasSubstr("knowledge store '" + path + "'"));
  EXPECT_THAT(error, HasSubstr(reason));
  EXPECT_TRUE(snapshot(path) == before) << "the refused file or one of its journals changed";
}

void writeByte(const std::string& path, std::uint64_t offset, unsigned char value) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file.put(static_cast<char>(value));
}

unsigned char readByte(const std::string& path, std::uint64_t offset) {
  std::ifstream file(path, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(offset));
  return static_cast<unsigned char>(file.get());
}

int rootPage(const std::string& path, const std::string& name) {
  SQLite::Database db(path, SQLite::OPEN_READONLY);
  SQLite::Statement query(db, "SELECT rootpage FROM sqlite_master WHERE name = ?");
  query.bind(1, name);
  return query.executeStep() ? query.getColumn(0).getInt() : 0;
}

// A closed store with enough rows that the table and every index span several pages.
void createStore(const std::string& at, int rows = 3000) {
  std::vector<QV::Triplet> triplets;
  for (int i = 0; i < rows; ++i) {
    const std::string n = std::to_string(i);
    triplets.push_back({"users", "user-" + n, "email", "user-" + n + "@example.org"});
  }
  SqliteTripletStore(at).addMany(triplets);
}

// Flips a bit of the high byte of a b-tree's root page cell count: the page claims 256 more
// cells than it holds.
void flipCellCount(const std::string& at, const std::string& tree) {
  const int root = rootPage(at, tree);
  ASSERT_GT(root, 1);
  const std::uint64_t offset = std::uint64_t(root - 1) * kPageSize + 3;
  writeByte(at, offset, readByte(at, offset) ^ 0x01);
}

// What a writer of another application (foreign) or of a newer store version (newer) leaves when
// it dies with the database open: its WAL still holds the change, which a check of the main file's
// header alone would miss (a closed file is the easier case of the same check).
void leaveBehind(const std::string& at, bool asStore,
                 const std::function<void(SQLite::Database&)>& write) {
  const std::string source = at + ".source";
  if (asStore) {
    SqliteTripletStore(source).add("users", "alice", "email", "a@x");
  }
  SQLite::Database writer(source, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
  write(writer);
  ASSERT_TRUE(fs::exists(source + "-wal"));
  copyDatabase(source, at);
}

void foreignWal(SQLite::Database& db) {
  db.exec("PRAGMA journal_mode = WAL");
  db.exec("PRAGMA application_id = 42");
  db.exec("CREATE TABLE contacts (name TEXT); INSERT INTO contacts VALUES ('alice')");
}

void newerStore(SQLite::Database& db) {
  db.exec("PRAGMA user_version = 99");
  db.exec("PRAGMA wal_autocheckpoint = 0");  // the change stays in the WAL
}

using FileStore = TempDirTest;

// A refused file must be left exactly as it was: no checkpoint, no rollback, no new journal.
using RefusedFile = FileStore;

TEST_F(RefusedFile, EachDamagedForeignNewerOrReadOnlyFileIsRefusedWithItsReasonAndLeftAsItWas) {
  const struct {
    const char* name;
    std::function<void(const std::string&)> make;
    std::string reason;
  } cases[] = {
      {"random bytes",
       [](const std::string& at) {
         std::string bytes(8192, '\0');
         std::generate(bytes.begin(), bytes.end(), std::mt19937(7));
         std::ofstream(at, std::ios::binary) << bytes;
       },
       "not a SQLite database"},
      {"torn last page",
       [](const std::string& at) {
         createStore(at);
         ASSERT_EQ(fs::file_size(at) % kPageSize, 0u);
         fs::resize_file(at, fs::file_size(at) - kPageSize / 2);
       },
       " bytes are not a whole number of 4096-byte pages"},
      // A single bit flip in an index or the table is found by the default quick check.
      {"bit flip in triplets_by_object",
       [](const std::string& at) {
         createStore(at);
         flipCellCount(at, "triplets_by_object");
       },
       "the file is damaged: quick_check found: "},
      {"bit flip in triplets",
       [](const std::string& at) {
         createStore(at);
         flipCellCount(at, "triplets");
       },
       "the file is damaged: quick_check found: "},
      {"foreign, left open", [](const std::string& at) { leaveBehind(at, false, foreignWal); },
       "application_id 0x0000002A"},
      {"newer, left open", [](const std::string& at) { leaveBehind(at, true, newerStore); },
       "schema version 99 is newer"},
      {"another application's tables",
       [](const std::string& at) {
         SQLite::Database(at, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE)
             .exec("CREATE TABLE contacts (name TEXT); INSERT INTO contacts VALUES ('alice')");
       },
       "belongs to another application (it holds contacts)"},
      {"hot rollback journal",
       [](const std::string& at) {
         const std::string source = at + ".source";
         SQLite::Database writer(source, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
         writer.exec(
             "CREATE TABLE blobs (data BLOB); INSERT INTO blobs VALUES (randomblob(10000))");
         writer.exec("PRAGMA cache_size = 1");  // spills the transaction into the main file early
         writer.exec("BEGIN");
         for (int i = 0; i < 50; ++i) {
           writer.exec("INSERT INTO blobs VALUES (randomblob(5000))");
         }
         ASSERT_TRUE(fs::exists(source + "-journal"));
         copyDatabase(source, at);
         writer.exec("ROLLBACK");
       },
       "hot journal"},
      {"header SQLite may only read",
       [](const std::string& at) {
         createStore(at, 10);
         constexpr std::uint64_t kWriteVersion = 18;
         writeByte(at, kWriteVersion, 3);
       },
       "the file cannot be written"},
  };
  int index = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string at = file("case" + std::to_string(index++) + ".db");
    c.make(at);
    if (HasFatalFailure()) {
      return;
    }
    expectRefusedUnchanged(at, c.reason);
  }
}

TEST_F(RefusedFile, AnIndexThatDisagreesWithItsTablePassesTheQuickCheckButNotTheFullOne) {
  createStore(path, 100);
  {
    // The index keeps its pages but claims other columns: its entries no longer match the rows.
    SQLite::Database db(path, SQLite::OPEN_READWRITE);
    db.exec("PRAGMA writable_schema = ON");
    db.exec(
        "UPDATE sqlite_master SET sql = 'CREATE INDEX triplets_by_predicate ON triplets "
        "(object, domain)' WHERE name = 'triplets_by_predicate'");
  }
  TripletStoreOptions full;
  full.openCheck = OpenCheck::Full;
  expectRefusedUnchanged(path, "the file is damaged: integrity_check found: ", full);
  EXPECT_EQ(openError(path), "");
}

// Sets or clears the immutable attribute, which keeps even root from writing the file.
bool setImmutable(const std::string& path, bool immutable) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int flags = 0;
  bool done = fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  flags = immutable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
  done = done && ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  if (fd >= 0) {
    ::close(fd);
  }
  return done;
}

TEST_F(RefusedFile, AFileThatCannotBeWrittenIsRefused) {
  SqliteTripletStore(path).add("users", "alice", "email", "a@x");
  if (!setImmutable(path, true)) {
    GTEST_SKIP() << "cannot make a file immutable here (needs CAP_LINUX_IMMUTABLE and ext4-like "
                    "attributes), and root writes any file whatever its mode";
  }
  struct Unlock {
    std::string path;
    ~Unlock() { setImmutable(path, false); }
  } unlock{path};
  expectRefusedUnchanged(path, "cannot be written");
}

TEST_F(RefusedFile, APathInAMissingDirectoryOrAnEmptyPathIsRefusedCreatingNothing) {
  const std::string missing = file("missing/knowledge.db");
  EXPECT_THAT(openError(missing), HasSubstr("'" + missing + "': cannot open"));
  EXPECT_FALSE(fs::exists(missing));
  EXPECT_THAT(openError(""), HasSubstr("the path is empty"));
}

TEST_F(RefusedFile, OurStoreWithAnInterruptedRollbackTransactionIsRolledBackAndOpens) {
  const std::string source = file("source.db");
  createStore(source, 10);
  const Rows stored = SqliteTripletStore(source).queryTriplet("*", "*", "*", "*");
  {
    SQLite::Database writer(source, SQLite::OPEN_READWRITE);
    writer.exec("PRAGMA journal_mode = DELETE");
    writer.exec("PRAGMA cache_size = 1");
    writer.exec("BEGIN");
    for (int i = 0; i < 200; ++i) {
      writer.exec(
          "INSERT INTO triplets (domain, subject, predicate, object) VALUES "
          "('x', randomblob(500), 'p', randomblob(500))");
    }
    ASSERT_TRUE(fs::exists(source + "-journal"));
    copyDatabase(source, path);
  }
  EXPECT_EQ(SqliteTripletStore(path).queryTriplet("*", "*", "*", "*"), stored);
}

// Several processes open one new path at the same moment, again and again.
constexpr char kChildPathVariable[] = "QV_STORE_OPEN_TEST_PATH";
constexpr char kChildReadyVariable[] = "QV_STORE_OPEN_TEST_READY_FD";
constexpr char kChildGateVariable[] = "QV_STORE_OPEN_TEST_GATE_FD";

// Runs only in the children ConcurrentCreation starts (a fresh process of this binary): says it is
// ready, waits for the gate to open, then opens the store and writes to it.
TEST(ConcurrentCreationChild, DISABLED_OpensTheStoreItIsGivenWhenTheGateOpens) {
  const char* path = std::getenv(kChildPathVariable);
  ASSERT_NE(path, nullptr);
  const int ready = std::atoi(std::getenv(kChildReadyVariable));
  const int gate = std::atoi(std::getenv(kChildGateVariable));
  char byte = 'r';
  ASSERT_EQ(write(ready, &byte, 1), 1);
  ASSERT_EQ(read(gate, &byte, 1), 1);
  SqliteTripletStore store(path);
  store.add("children", std::to_string(getpid()), "opened", "yes");
}

struct Pipe {
  Pipe() {
    if (pipe(fds.data()) != 0) {
      fds = {-1, -1};
    }
  }
  ~Pipe() {
    closeEnd(0);
    closeEnd(1);
  }
  void closeEnd(int end) {
    if (fds[end] >= 0) {
      close(fds[end]);
      fds[end] = -1;
    }
  }
  std::array<int, 2> fds{-1, -1};
};

pid_t spawnChild(const std::string& store, const std::string& log, const Pipe& ready,
                 const Pipe& gate) {
  std::vector<std::string> variables = {
      std::string(kChildPathVariable) + "=" + store,
      std::string(kChildReadyVariable) + "=" + std::to_string(ready.fds[1]),
      std::string(kChildGateVariable) + "=" + std::to_string(gate.fds[0])};
  std::vector<char*> environment;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    environment.push_back(*variable);
  }
  for (auto& variable : variables) {
    environment.push_back(variable.data());
  }
  environment.push_back(nullptr);
  std::string program = "/proc/self/exe";
  std::string runDisabled = "--gtest_also_run_disabled_tests";
  std::string filter = "--gtest_filter=ConcurrentCreationChild.*";
  char* arguments[] = {program.data(), runDisabled.data(), filter.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  pid_t child = -1;
  if (posix_spawn(&child, program.c_str(), &actions, nullptr, arguments, environment.data()) != 0) {
    child = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  return child;
}

// Waits for `count` bytes on `fd`, for at most `limit`.
bool readBytesWithin(int fd, int count, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (int got = 0; got < count;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd wait{fd, POLLIN, 0};
    if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) != 1) {
      return false;
    }
    char buffer[64];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) {
      return false;
    }
    got += static_cast<int>(n);
  }
  return true;
}

using ConcurrentCreation = FileStore;

TEST_F(ConcurrentCreation, ManyProcessesOpeningOneNewStoreAtOnceAllSucceed) {
  constexpr int kChildren = 8;
  constexpr int kMaxRounds = 12;
  const auto start = std::chrono::steady_clock::now();
  for (int round = 0;
       round < kMaxRounds && (round < 3 || std::chrono::steady_clock::now() - start < 2s);
       ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::string store = file("shared-" + std::to_string(round) + ".db");
    Pipe ready;
    Pipe gate;
    ASSERT_GE(ready.fds[0], 0);
    ASSERT_GE(gate.fds[0], 0);
    // The children inherit only their own ends.
    fcntl(ready.fds[0], F_SETFD, FD_CLOEXEC);
    fcntl(gate.fds[1], F_SETFD, FD_CLOEXEC);
    std::vector<pid_t> children;
    for (int i = 0; i < kChildren; ++i) {
      const pid_t child = spawnChild(
          store, file("child-" + std::to_string(round) + "-" + std::to_string(i)), ready, gate);
      ASSERT_GT(child, 0);
      children.push_back(child);
    }
    ready.closeEnd(1);
    gate.closeEnd(0);
    const bool allReady = readBytesWithin(ready.fds[0], kChildren, kHangLimit);
    const std::string open(kChildren, 'g');
    EXPECT_EQ(write(gate.fds[1], open.data(), open.size()), kChildren);
    gate.closeEnd(1);  // a child that missed its byte sees the end of the pipe instead of hanging
    auto statuses = std::async(std::launch::async, [&children] {
      std::vector<int> result;
      for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        result.push_back(status);
      }
      return result;
    });
    if (statuses.wait_for(kHangLimit) != std::future_status::ready) {
      for (const pid_t child : children) {
        kill(child, SIGKILL);
      }
      FAIL() << "a child hung";
    }
    ASSERT_TRUE(allReady) << "not every child started";
    const std::vector<int> results = statuses.get();
    for (int i = 0; i < kChildren; ++i) {
      EXPECT_TRUE(WIFEXITED(results[i]) && WEXITSTATUS(results[i]) == 0)
          << "child " << i << " failed:\n"
          << readBytes(file("child-" + std::to_string(round) + "-" + std::to_string(i)))
                 .value_or("");
    }
    EXPECT_EQ(SqliteTripletStore(store).queryTriplet("children", "*", "opened", "yes").size(),
              std::size_t{kChildren});
  }
}

// Another connection holds the write lock: a write of the store waits for it, at most busyTimeout.
class BusyWait : public FileStore {
 protected:
  void SetUp() override {
    FileStore::SetUp();
    SqliteTripletStore(path).add("users", "alice", "email", "a@x");
    other.emplace(path, SQLite::OPEN_READWRITE);
    other->exec("BEGIN IMMEDIATE");
  }
  void TearDown() override {
    other.reset();
    FileStore::TearDown();
  }
  void release() { other->exec("COMMIT"); }

  std::optional<SQLite::Database> other;
};

TEST_F(BusyWait, AWriteGivesUpWithAClearErrorAfterTheBusyTimeoutAndReadsGoOn) {
  TripletStoreOptions options;
  options.busyTimeout = 300ms;
  SqliteTripletStore store(path, options);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THAT([&] { store.add("users", "bob", "email", "b@x"); },
              ::testing::ThrowsMessage<KnowledgeStoreError>(
                  HasSubstr("'" + path + "': add failed: database is locked")));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 300ms);
  EXPECT_LT(waited, 3s);
  // Readers are not blocked by the writer, and the store is usable once the lock is free.
  EXPECT_EQ(store.getObject("users", "alice", "email"), std::vector<std::string>{"a@x"});
  release();
  store.update("users", "alice", "email", "new@x");
  EXPECT_EQ(store.getObject("users", "alice", "email"), std::vector<std::string>{"new@x"});
}

TEST_F(BusyWait, AWriteWaitingOnAnEventLoopWorkerLetsTheLoopRunItsOtherTasks) {
  SqliteTripletStore store(path);
  ka::EventLoop loop("busy-wait-test", 1);
  auto write = loop.async([&] {
    store.add("users", "bob", "email", "b@x");
    return 1;
  });
  auto other = loop.async([] { return 2; });
  // The only permanent worker is waiting for the lock: the other task needs a spare one.
  EXPECT_EQ(other.wait(5000), ka::FutureState::FinishedWithValue);
  EXPECT_EQ(write.wait(0), ka::FutureState::Running);
  release();
  ASSERT_EQ(write.wait(60000), ka::FutureState::FinishedWithValue) << write.error(0);
  EXPECT_TRUE(store.contains("users", "bob", "email", "b@x"));
}

TEST_F(BusyWait, AWriteOnALoopThatMayNotBlockAnotherWorkerGivesUpAtOnce) {
  TripletStoreOptions options;
  options.busyTimeout = 10s;
  SqliteTripletStore store(path, options);
  ka::EventLoop loop("busy-wait-test", 1);
  loop.setMaxSpareThreads(0);
  const auto start = std::chrono::steady_clock::now();
  auto write = loop.async([&] {
    store.add("users", "bob", "email", "b@x");
    return 1;
  });
  ASSERT_EQ(write.wait(60000), ka::FutureState::FinishedWithError);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s) << "waited although it would stall";
  EXPECT_THAT(write.error(0), HasSubstr("add failed: database is locked"));
}

}  // namespace
