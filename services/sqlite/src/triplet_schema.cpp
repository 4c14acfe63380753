#include "triplet_schema.hpp"

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>

#include "file_identity.hpp"
#include "sqlite_setup.hpp"
#include "store_error.hpp"

namespace QV::detail {

namespace {

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

void openSchema(SQLite::Database& db, const std::string& path, bool inMemory,
                std::chrono::milliseconds busyTimeout) {
  if (sqlite3_db_readonly(db.getHandle(), "main") == 1) {
    throw storeError(path, "the file cannot be written (SQLite could open it read-only only)");
  }
  Verdict verdict;
  try {
    verdict = judge(readIdentity(db), path);
  } catch (const SQLite::Exception& error) {
    throwReadError(error, path);
  }
  // Only an accepted file may be switched: the journal mode is recorded in the header.
  if (!inMemory) {
    if (const std::string refusal = enableWal(db, busyTimeout); !refusal.empty()) {
      throw storeError(path, refusal);
    }
  }
  if (verdict == Verdict::CurrentStore) {
    return;
  }
  SQLite::Transaction transaction(db, SQLite::TransactionBehavior::IMMEDIATE);
  // Judged again under the write lock: another process may have created the schema meanwhile.
  if (judge(readIdentity(db), path) == Verdict::Empty) {
    createSchema(db);
  }
  transaction.commit();
}

}  // namespace QV::detail
