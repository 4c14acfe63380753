// What only the SQLite user store has: the focus kept across restarts, the end of the ids,
// refused files, a busy file, and the file living beside the knowledge store without either store
// touching the other's. What every user store answers alike: services/storage/tests.

#include <qvsqlite/sqlite_triplet_store.hpp>
#include <qvsqlite/sqlite_user_store.hpp>
#include <qvusersession/usersession_service.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "temp_dir_test.hpp"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using QV::UserSessionError;
using QV::UserSessionOptions;
using QV::UserSessionService;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Ids = std::vector<int>;

std::string readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string openError(const std::string& path) {
  try {
    UserSessionService service(QV::openSqliteUserStore(path));
  } catch (const UserSessionError& error) {
    return error.what();
  }
  return "";
}

class UserSessionFile : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    path = file("users.db");
  }

  // Refused with a text that names the file and the reason, leaving the main file as it was.
  void expectRefusedUnchanged(const std::string& at, const std::string& reason) {
    const std::string before = readBytes(at);
    const std::string error = openError(at);
    EXPECT_THAT(error, HasSubstr("user session store '" + at + "'"));
    EXPECT_THAT(error, HasSubstr(reason));
    EXPECT_EQ(readBytes(at), before) << "the refused file changed";
  }
};

using UserIdsAcrossRestarts = UserSessionFile;

TEST_F(UserIdsAcrossRestarts, RunningOutOfIdsFailsClearlyAndChangesNothing) {
  {
    UserSessionService service(QV::openSqliteUserStore(path));
    service.createUser();
  }
  {
    SQLite::Database raw(path, SQLite::OPEN_READWRITE);
    raw.exec("UPDATE sqlite_sequence SET seq = " + std::to_string(std::numeric_limits<int>::max()) +
             " WHERE name = 'users'");
  }
  UserSessionService service(QV::openSqliteUserStore(path));
  EXPECT_THAT([&] { service.createUser(); },
              ::testing::ThrowsMessage<UserSessionError>(HasSubstr("no user id left")));
  EXPECT_THAT(service.users(), ElementsAre(1));
}

using FocusAcrossRestarts = UserSessionFile;

TEST_F(FocusAcrossRestarts, AFocusSetClearedOrClearedByDeletingItsUserIsKeptAcrossARestart) {
  {
    UserSessionService service(QV::openSqliteUserStore(path));
    ASSERT_TRUE(service.setFocusedUser(service.createUser()));
  }
  {
    UserSessionService service(QV::openSqliteUserStore(path));
    EXPECT_EQ(service.getFocusedUser(), 1);
    service.clearFocus();
  }
  {
    UserSessionService service(QV::openSqliteUserStore(path));
    EXPECT_EQ(service.getFocusedUser(), -1);
    ASSERT_TRUE(service.setFocusedUser(1));
    ASSERT_TRUE(service.deleteUsers({1}));
  }
  EXPECT_EQ(UserSessionService(QV::openSqliteUserStore(path)).getFocusedUser(), -1);
}

using RefusedFile = UserSessionFile;

void execOn(const std::string& path, const std::string& sql) {
  SQLite::Database(path, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE).exec(sql);
}

void makeStore(const std::string& path) {
  UserSessionService service(QV::openSqliteUserStore(path));
  for (int i = 0; i < 5; ++i) {
    service.createUser();
  }
}

// Sets the b-tree page type byte of the users table to 0xFF, none of the four SQLite knows.
void damageUsersPage(const std::string& path) {
  makeStore(path);
  int root = 0;
  std::uint32_t pageSize = 0;
  {
    SQLite::Database raw(path, SQLite::OPEN_READONLY);
    root = raw.execAndGet("SELECT rootpage FROM sqlite_master WHERE name = 'users'").getInt();
    pageSize = static_cast<std::uint32_t>(raw.execAndGet("PRAGMA page_size").getInt());
  }
  ASSERT_GT(root, 1);
  std::fstream bytes(path, std::ios::binary | std::ios::in | std::ios::out);
  bytes.seekp(static_cast<std::streamoff>(std::uint64_t{pageSize} * (root - 1)));
  bytes.put(static_cast<char>(0xFF));
}

TEST_F(RefusedFile, EachForeignNewerDamagedOrMissingFileIsRefusedWithItsReasonAndLeftAsItWas) {
  struct Case {
    const char* name;  // the file, in the test's directory
    void (*make)(const std::string& path);
    const char* reason;
  };
  const Case cases[] = {
      {"text.db", [](const std::string& p) { std::ofstream(p) << std::string(8192, 'x'); },
       "the file is not a SQLite database"},
      {"other-id.db", [](const std::string& p) { execOn(p, "PRAGMA application_id = 1234"); },
       "belongs to another application (application_id 0x000004D2)"},
      {"other-tables.db", [](const std::string& p) { execOn(p, "CREATE TABLE users (name TEXT)"); },
       "belongs to another application (it holds users)"},
      {"newer.db",
       [](const std::string& p) {
         makeStore(p);
         execOn(p, "PRAGMA user_version = 2");
       },
       "schema version 2 is newer than version 1"},
      {"no-focus.db",
       [](const std::string& p) {
         makeStore(p);
         execOn(p, "DROP TABLE focus");
       },
       "the store is damaged: table 'focus' is missing"},
      {"damaged.db", &damageUsersPage, "the file is damaged"},
      {"no-such-dir/users.db", [](const std::string&) {}, "cannot open the file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string at = file(c.name);
    c.make(at);
    expectRefusedUnchanged(at, c.reason);
  }
}

TEST_F(RefusedFile, AWriteBlockedByAnotherConnectionGivesUpAfterTheBusyTimeoutChangingNothing) {
  UserSessionOptions options;
  options.busyTimeout = 50ms;
  UserSessionService service(QV::openSqliteUserStore(path, options));
  EXPECT_EQ(service.createUser(), 1);
  {
    SQLite::Database other(path, SQLite::OPEN_READWRITE);
    other.exec("BEGIN IMMEDIATE");
    EXPECT_THAT([&] { service.createUser(); },
                ::testing::ThrowsMessage<UserSessionError>(HasSubstr("createUser failed")));
    other.exec("ROLLBACK");
  }
  EXPECT_THAT(service.users(), ElementsAre(1));
  EXPECT_EQ(service.createUser(), 2) << "a failed create must not use up an id";
}

// Neither store accepts the other's file, so a swapped path cannot write into the other's tables.
using BesideTheKnowledgeStore = UserSessionFile;

TEST_F(BesideTheKnowledgeStore, NeitherStoreAcceptsTheOthersFile) {
  const std::string knowledge = file("knowledge.db");
  const std::string users = QV::userSessionPathBeside(knowledge);
  EXPECT_EQ(fs::path(users).parent_path(), fs::path(knowledge).parent_path());
  { QV::SqliteTripletStore(knowledge).add("dom", "1", "name", "Ada"); }
  { UserSessionService(QV::openSqliteUserStore(users)).createUser(); }
  expectRefusedUnchanged(knowledge, "the file is a knowledge store, not a user session store");
  const std::string before = readBytes(users);
  EXPECT_THROW(QV::SqliteTripletStore store(users), QV::KnowledgeStoreError);
  EXPECT_EQ(readBytes(users), before);
  EXPECT_EQ(QV::SqliteTripletStore(knowledge).getObject("dom", "1", "name"),
            std::vector<std::string>{"Ada"});
}

}  // namespace
