#include "sqlite_user_store.hpp"

#include "busy_wait.hpp"
#include "schema_identity.hpp"
#include "sqlite_setup.hpp"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <set>

#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>

namespace QV {

namespace detail {

namespace {

UserSessionError storeError(const std::string& path, const std::string& reason) {
  return UserSessionError("user session store '" + path + "': " + reason);
}

UserSessionError callFailed(const std::string& path, const char* operation,
                            const SQLite::Exception& error) {
  return storeError(path, std::string(operation) + " failed: " + error.what());
}

// --- recognising the file ------------------------------------------------------------------------

constexpr const char* kUsersTable = "users";
constexpr const char* kFocusTable = "focus";

enum class Verdict { Empty, Ours };

bool holds(const std::vector<std::string>& objects, const char* name) {
  return std::find(objects.begin(), objects.end(), name) != objects.end();
}

Verdict judge(const FileIdentity& identity, const std::string& path) {
  if (identity.applicationId == kUserSessionApplicationId) {
    if (identity.userVersion > kUserSessionSchemaVersion) {
      throw storeError(path, "schema version " + std::to_string(identity.userVersion) +
                                 " is newer than version " +
                                 std::to_string(kUserSessionSchemaVersion) +
                                 " supported by this build");
    }
    if (identity.userVersion != kUserSessionSchemaVersion) {
      throw storeError(path, "unknown schema version " + std::to_string(identity.userVersion));
    }
    for (const char* table : {kUsersTable, kFocusTable}) {
      if (!holds(identity.objects, table)) {
        throw storeError(path,
                         std::string("the store is damaged: table '") + table + "' is missing");
      }
    }
    return Verdict::Ours;
  }
  if (identity.applicationId == kKnowledgeApplicationId) {
    throw storeError(path,
                     "the file is a knowledge store, not a user session store (application_id " +
                         hexApplicationId(identity.applicationId) + ")");
  }
  const std::string foreign = foreignOwnerReason(identity);
  if (!foreign.empty()) {
    throw storeError(path, foreign);
  }
  return Verdict::Empty;
}

[[noreturn]] void throwOpenError(const SQLite::Exception& error, const std::string& path) {
  switch (error.getErrorCode()) {
    case SQLITE_NOTADB:
      throw storeError(path, "the file is not a SQLite database");
    case SQLITE_CORRUPT:
      throw storeError(path, std::string("the file is damaged: ") + error.what());
    default:
      throw storeError(path, std::string("cannot open the file: ") + error.what());
  }
}

void checkIntegrity(SQLite::Database& db, const std::string& path) {
  SQLite::Statement check(db, "PRAGMA quick_check(3)");
  std::string problems;
  while (check.executeStep()) {
    const std::string line = check.getColumn(0).getString();
    if (line != "ok") {
      problems += (problems.empty() ? "" : "; ") + line;
    }
  }
  if (!problems.empty()) {
    throw storeError(path, "the file is damaged: quick_check found: " + problems);
  }
}

// AUTOINCREMENT keeps the largest id ever handed out in sqlite_sequence, so a deleted highest id
// is not handed out again, across restarts too. At most one focus row, naming a user.
void createSchema(SQLite::Database& db) {
  db.exec(std::string("CREATE TABLE ") + kUsersTable + " (id INTEGER PRIMARY KEY AUTOINCREMENT)");
  db.exec(std::string("CREATE TABLE ") + kFocusTable +
          " (slot INTEGER PRIMARY KEY CHECK (slot = 1), user_id INTEGER NOT NULL)");
  db.exec("PRAGMA application_id = " + std::to_string(kUserSessionApplicationId));
  db.exec("PRAGMA user_version = " + std::to_string(kUserSessionSchemaVersion));
}

// Opens `path` read-write and accepts it only if it is empty or a store of this version, creating
// the schema in the former case. Every check before acceptance only reads.
SQLite::Database openStore(const std::string& path, const UserSessionOptions& options) {
  const bool inMemory = path == ":memory:";
  configureSqliteOnce();
  try {
    SQLite::Database db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX);
    installBusyHandler(db.getHandle(), options.busyTimeout);
    if (sqlite3_db_readonly(db.getHandle(), "main") == 1) {
      throw storeError(path, "the file cannot be written (SQLite could open it read-only only)");
    }
    const Verdict verdict = judge(readIdentity(db), path);
    if (verdict == Verdict::Ours) {
      checkIntegrity(db, path);
    }
    if (!inMemory) {
      if (const std::string refusal = enableWal(db, options.busyTimeout); !refusal.empty()) {
        throw storeError(path, refusal);
      }
    }
    db.exec(options.durability == Durability::Full ? "PRAGMA synchronous = FULL"
                                                   : "PRAGMA synchronous = NORMAL");
    if (verdict == Verdict::Empty) {
      SQLite::Transaction transaction(db, SQLite::TransactionBehavior::IMMEDIATE);
      // Judged again under the write lock: another process may have created it meanwhile.
      if (judge(readIdentity(db), path) == Verdict::Empty) {
        createSchema(db);
      }
      transaction.commit();
    }
    return db;
  } catch (const SQLite::Exception& error) {
    throwOpenError(error, path);
  }
}

}  // namespace

SqliteUserStore::SqliteUserStore(const std::string& path, const UserSessionOptions& options)
    : _path(path),
      _db(openStore(path, options)),
      _exists(_db, "SELECT 1 FROM users WHERE id = ?"),
      _focused(_db, "SELECT user_id FROM focus WHERE slot = 1") {}

int SqliteUserStore::focused() {
  try {
    return focusedHere();
  } catch (const SQLite::Exception& error) {
    throw callFailed(_path, "getFocusedUser", error);
  }
}

bool SqliteUserStore::exists(int userId) {
  try {
    return existsHere(userId);
  } catch (const SQLite::Exception& error) {
    throw callFailed(_path, "doesUserExist", error);
  }
}

// Each prepared read is reset once it has its answer: a statement left on its row would keep
// the connection's read transaction, and with it an old snapshot, open.
int SqliteUserStore::focusedHere() {
  _focused.reset();
  const int id = _focused.executeStep() ? _focused.getColumn(0).getInt() : kNoUser;
  _focused.reset();
  return id;
}

bool SqliteUserStore::existsHere(int userId) {
  _exists.reset();
  _exists.bind(1, userId);
  const bool found = _exists.executeStep();
  _exists.reset();
  return found;
}

std::vector<int> SqliteUserStore::all() {
  try {
    std::vector<int> ids;
    SQLite::Statement list(_db, "SELECT id FROM users ORDER BY id");
    while (list.executeStep()) {
      ids.push_back(list.getColumn(0).getInt());
    }
    return ids;
  } catch (const SQLite::Exception& error) {
    throw callFailed(_path, "users", error);
  }
}

int SqliteUserStore::create() {
  std::int64_t id = 0;
  try {
    SQLite::Transaction transaction(_db, SQLite::TransactionBehavior::IMMEDIATE);
    _db.exec("INSERT INTO users DEFAULT VALUES");
    id = _db.getLastInsertRowid();
    if (id <= 0 || id > std::numeric_limits<int>::max()) {
      // Rolled back by the transaction's destructor: ids are 32-bit on the wire.
      throw storeError(_path, "createUser failed: no user id left");
    }
    transaction.commit();
  } catch (const SQLite::Exception& error) {
    throw callFailed(_path, "createUser", error);
  }
  return static_cast<int>(id);
}

std::optional<UserDeletion> SqliteUserStore::remove(const std::vector<int>& userIds) {
  if (std::set<int>(userIds.begin(), userIds.end()).size() != userIds.size()) {
    return std::nullopt;
  }
  try {
    SQLite::Transaction transaction(_db, SQLite::TransactionBehavior::IMMEDIATE);
    for (const int id : userIds) {
      if (!existsHere(id)) {
        return std::nullopt;  // rolled back: nothing was written yet
      }
    }
    const int focusedId = focusedHere();
    SQLite::Statement erase(_db, "DELETE FROM users WHERE id = ?");
    UserDeletion deletion;
    for (const int id : userIds) {
      erase.reset();
      erase.bind(1, id);
      erase.exec();
      deletion.focusCleared = deletion.focusCleared || id == focusedId;
    }
    if (deletion.focusCleared) {
      _db.exec("DELETE FROM focus");
    }
    transaction.commit();
    return deletion;
  } catch (const SQLite::Exception& error) {
    throw callFailed(_path, "deleteUsers", error);
  }
}

std::optional<bool> SqliteUserStore::focus(int userId) {
  try {
    SQLite::Transaction transaction(_db, SQLite::TransactionBehavior::IMMEDIATE);
    if (!existsHere(userId)) {
      return std::nullopt;
    }
    if (focusedHere() == userId) {
      return false;
    }
    SQLite::Statement set(_db, "INSERT OR REPLACE INTO focus (slot, user_id) VALUES (1, ?)");
    set.bind(1, userId);
    set.exec();
    transaction.commit();
    return true;
  } catch (const SQLite::Exception& error) {
    throw callFailed(_path, "setFocusedUser", error);
  }
}

bool SqliteUserStore::clearFocus() {
  try {
    SQLite::Transaction transaction(_db, SQLite::TransactionBehavior::IMMEDIATE);
    const bool wasFocused = _db.exec("DELETE FROM focus") > 0;
    transaction.commit();
    return wasFocused;
  } catch (const SQLite::Exception& error) {
    throw callFailed(_path, "clearFocus", error);
  }
}

}  // namespace detail

std::string userSessionPathBeside(const std::string& knowledgeStorePath) {
  return knowledgeStorePath == ":memory:" ? knowledgeStorePath : knowledgeStorePath + ".users";
}

std::unique_ptr<UserStore> openSqliteUserStore(const std::string& path,
                                               UserSessionOptions options) {
  return std::make_unique<detail::SqliteUserStore>(path, options);
}

}  // namespace QV
