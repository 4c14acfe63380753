#pragma once
// Who a database belongs to (application_id, user_version, its tables) and whether this build may
// use it as a store: the same judgement for the read-only inspection and the read-write open.

#include <string>

#include <SQLiteCpp/Database.h>

#include "schema_identity.hpp"

namespace QV::detail {

enum class Verdict { Empty, CurrentStore };

// Empty database or store of this schema version; throws KnowledgeStoreError naming `path` for
// anything else.
Verdict judge(const FileIdentity& identity, const std::string& path);

// Turns a SQLite failure while reading a file to accept it into the error naming `path`.
[[noreturn]] void throwReadError(const SQLite::Exception& error, const std::string& path);

}  // namespace QV::detail
