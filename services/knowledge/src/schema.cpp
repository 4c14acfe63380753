#include "schema.hpp"

#include <algorithm>
#include <cstdio>

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>

#include "store_error.hpp"

namespace QV::detail {

namespace {

// What a file's header and catalogue say about who owns it.
struct FileIdentity {
  int applicationId = 0;
  int userVersion = 0;
  std::vector<std::string> objects;  // tables, indexes, views, triggers not internal to SQLite
};

enum class Verdict { Empty, CurrentStore };

std::string joinNames(const std::vector<std::string>& names) {
  constexpr std::size_t kShown = 5;
  std::string text;
  for (std::size_t i = 0; i < names.size() && i < kShown; ++i) {
    text += (i == 0 ? "" : ", ") + names[i];
  }
  if (names.size() > kShown) {
    text += ", ...";
  }
  return text;
}

FileIdentity readIdentity(SQLite::Database& db, const std::string& path) {
  try {
    FileIdentity identity;
    identity.applicationId = db.execAndGet("PRAGMA application_id").getInt();
    identity.userVersion = db.execAndGet("PRAGMA user_version").getInt();
    SQLite::Statement list(db,
                           "SELECT name FROM sqlite_master WHERE name NOT LIKE 'sqlite\\_%' "
                           "ESCAPE '\\' ORDER BY name");
    while (list.executeStep()) {
      identity.objects.push_back(list.getColumn(0).getString());
    }
    return identity;
  } catch (const SQLite::Exception& error) {
    if (error.getErrorCode() == SQLITE_NOTADB) {
      throw storeError(path, "the file is not a SQLite database");
    }
    throw storeError(path, std::string("cannot read the file: ") + error.what());
  }
}

Verdict judge(const FileIdentity& identity, const std::string& path) {
  const auto& objects = identity.objects;
  if (identity.applicationId == kApplicationId) {
    if (identity.userVersion > kSchemaVersion) {
      throw storeError(path, "schema version " + std::to_string(identity.userVersion) +
                                 " is newer than version " + std::to_string(kSchemaVersion) +
                                 " supported by this build");
    }
    if (identity.userVersion != kSchemaVersion) {
      throw storeError(path, "unknown schema version " + std::to_string(identity.userVersion));
    }
    if (std::find(objects.begin(), objects.end(), kTableName) == objects.end()) {
      throw storeError(path,
                       std::string("the store is damaged: table '") + kTableName + "' is missing");
    }
    return Verdict::CurrentStore;
  }
  if (identity.applicationId != 0) {
    char id[16];
    std::snprintf(id, sizeof id, "0x%08X", static_cast<unsigned>(identity.applicationId));
    throw storeError(
        path,
        std::string("the database belongs to another application (application_id ") + id + ")");
  }
  if (!objects.empty()) {
    throw storeError(
        path, "the database belongs to another application (it holds " + joinNames(objects) + ")");
  }
  if (identity.userVersion != 0) {
    throw storeError(path, "the database belongs to another application (user_version " +
                               std::to_string(identity.userVersion) + ")");
  }
  return Verdict::Empty;
}

std::string createIndexSql(const IndexDefinition& index) {
  std::string sql = index.unique ? "CREATE UNIQUE INDEX " : "CREATE INDEX ";
  sql += index.name + std::string(" ON ") + kTableName + " (";
  for (std::size_t i = 0; i < index.columns.size(); ++i) {
    sql += (i == 0 ? "" : ", ") + std::string(kColumnNames[index.columns[i]]);
  }
  return sql + ")";
}

// Values are BLOBs so that SQLite never converts them and compares them with memcmp. The rowid
// alias gives the storage order: a new row always gets a larger id than every stored one.
void createSchema(SQLite::Database& db) {
  db.exec(std::string("CREATE TABLE ") + kTableName +
          " (id INTEGER PRIMARY KEY, domain BLOB NOT NULL, subject BLOB NOT NULL, "
          "predicate BLOB NOT NULL, object BLOB NOT NULL)");
  for (const auto& index : tripletIndexes()) {
    db.exec(createIndexSql(index));
  }
  db.exec("PRAGMA application_id = " + std::to_string(kApplicationId));
  db.exec("PRAGMA user_version = " + std::to_string(kSchemaVersion));
}

void enableWal(SQLite::Database& db, const std::string& path) {
  const std::string mode = db.execAndGet("PRAGMA journal_mode = WAL").getString();
  if (mode != "wal") {
    throw storeError(path, "cannot use the WAL journal mode (SQLite kept '" + mode + "')");
  }
}

}  // namespace

// The key serves every call with a fixed domain and subject; the others give a subject, an object
// or a predicate a leading column, so that no shape with a fixed position scans the table. The
// subject index also covers every column: a subject's rows across all domains are read from it
// alone, without a lookup in the table per row.
const std::vector<IndexDefinition>& tripletIndexes() {
  static const std::vector<IndexDefinition> indexes = {
      {"triplets_by_key", {kDomain, kSubject, kPredicate, kObject}, true},
      {"triplets_by_subject", {kSubject, kPredicate, kObject, kDomain}, false},
      {"triplets_by_object", {kObject, kDomain, kPredicate}, false},
      {"triplets_by_predicate", {kPredicate, kDomain}, false},
  };
  return indexes;
}

void openSchema(SQLite::Database& db, const std::string& path, bool inMemory) {
  if (sqlite3_db_readonly(db.getHandle(), "main") == 1) {
    throw storeError(path, "the file cannot be written (SQLite could open it read-only only)");
  }
  const Verdict verdict = judge(readIdentity(db, path), path);
  // Only an accepted file may be switched: the journal mode is recorded in the header.
  if (!inMemory) {
    enableWal(db, path);
  }
  if (verdict == Verdict::CurrentStore) {
    return;
  }
  SQLite::Transaction transaction(db, SQLite::TransactionBehavior::IMMEDIATE);
  // Judged again under the write lock: another process may have created the schema meanwhile.
  if (judge(readIdentity(db, path), path) == Verdict::Empty) {
    createSchema(db);
  }
  transaction.commit();
}

}  // namespace QV::detail
