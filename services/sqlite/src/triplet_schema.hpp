#pragma once
// The store's on-disk schema: its table, its indexes, how a file is recognised as a store of this
// version, and how an empty file becomes one.

#include <chrono>
#include <string>
#include <vector>

#include <SQLiteCpp/Database.h>

namespace QV::detail {

// Positions of a triplet, also the column order of the table.
enum Column : unsigned { kDomain = 0, kSubject = 1, kPredicate = 2, kObject = 3 };
inline constexpr unsigned kColumnCount = 4;
inline constexpr const char* kColumnNames[kColumnCount] = {"domain", "subject", "predicate",
                                                           "object"};

inline constexpr const char* kTableName = "triplets";
// Written to the header as application_id ("QVKS") and user_version.
inline constexpr int kApplicationId = 0x51564B53;
inline constexpr int kSchemaVersion = 1;

struct IndexDefinition {
  const char* name;
  std::vector<Column> columns;
  bool unique;
};

// Every index of the table; the first one is the unique key that makes a triplet a set member.
const std::vector<IndexDefinition>& tripletIndexes();

// Accepts the database behind `db` if it is empty or a store of this schema version, creating the
// schema in the former case; throws KnowledgeStoreError naming `path` otherwise. Nothing is written
// to a rejected file: every check reads only. Waits up to `busyTimeout` for the switch to WAL.
void openSchema(SQLite::Database& db, const std::string& path, bool inMemory,
                std::chrono::milliseconds busyTimeout);

}  // namespace QV::detail
