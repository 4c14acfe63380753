// The process-wide SQLite settings the store applies before its first connection. A process of its
// own: the settings only take while nothing in the process has used SQLite yet.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "qvsqlite/sqlite_triplet_store.hpp"

namespace {

using namespace std::chrono_literals;

bool storeWorks() {
  QV::SqliteTripletStore store(":memory:");
  store.add("users", "alice", "email", "a@x");
  return store.getObject("users", "alice", "email") == std::vector<std::string>{"a@x"};
}

// Must stay the only test of this executable: it needs SQLite untouched when it starts.
TEST(SqliteSetup, TheFirstStoreTurnsOffAllocationStatisticsAndAHostThatStartedSqliteFirstKeepsIt) {
  ASSERT_EQ(sqlite3_memory_highwater(0), 0) << "SQLite was used before this test";
  // A host that initialised SQLite itself: the refused setting must not stop the store.
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    try {
      const bool ok = sqlite3_initialize() == SQLITE_OK && storeWorks() &&
                      sqlite3_memory_highwater(0) > 0;  // the host's statistics are still on
      _exit(ok ? 0 : 1);
    } catch (...) {
    }
    _exit(2);
  }
  auto exited = std::async(std::launch::async, [child] {
    int status = 0;
    waitpid(child, &status, 0);
    return status;
  });
  if (exited.wait_for(60s) != std::future_status::ready) {
    kill(child, SIGKILL);
    FAIL() << "the child hung";
  }
  const int status = exited.get();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "a store in a host that initialised SQLite first failed (status " << status << ")";

  // Here the store is SQLite's first user: its allocations go uncounted.
  ASSERT_TRUE(storeWorks());
  EXPECT_EQ(sqlite3_memory_highwater(0), 0);
}

}  // namespace
