// A process of its own: SQLite's process-wide settings only take while nothing in the process has
// used SQLite yet.

#include <qvsqlite/sqlite_triplet_store.hpp>
#include <qvsqlite/sqlite_user_store.hpp>
#include <qvusersession/usersession_service.hpp>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace {

// Must stay the only test of this executable: it needs SQLite untouched when it starts.
TEST(SqliteSetup, AUserSessionOpenedBeforeTheKnowledgeStoreLeavesAllocationStatisticsOffForBoth) {
  ASSERT_EQ(sqlite3_memory_highwater(0), 0) << "SQLite was used before this test";
  QV::UserSessionService users(QV::openSqliteUserStore(":memory:"));
  users.setFocusedUser(users.createUser());
  QV::SqliteTripletStore store(":memory:");
  store.add("users", "1", "name", "Ada");
  EXPECT_EQ(store.getObject("users", "1", "name"), std::vector<std::string>{"Ada"});
  EXPECT_EQ(sqlite3_memory_highwater(0), 0)
      << "the first store opened let SQLite count every allocation under its global mutex";
}

}  // namespace
