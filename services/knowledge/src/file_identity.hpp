#pragma once
// Who a database belongs to (application_id, user_version, its tables) and whether this build may
// use it as a store: the same judgement for the read-only inspection and the read-write open.

#include <string>
#include <vector>

#include <SQLiteCpp/Database.h>

namespace QV::detail {

struct FileIdentity {
  int applicationId = 0;
  int userVersion = 0;
  std::vector<std::string> objects;  // tables, indexes, views, triggers not internal to SQLite
};

enum class Verdict { Empty, CurrentStore };

// Reads the identity in one read transaction (or in the caller's, if `db` is inside one), so that
// a store another process creates meanwhile is seen either before or after, never half made.
// Throws the SQLite::Exception of a failed read.
FileIdentity readIdentity(SQLite::Database& db);

// Empty database or store of this schema version; throws KnowledgeStoreError naming `path` for
// anything else.
Verdict judge(const FileIdentity& identity, const std::string& path);

// Turns a SQLite failure while reading a file to accept it into the error naming `path`.
[[noreturn]] void throwReadError(const SQLite::Exception& error, const std::string& path);

}  // namespace QV::detail
