#pragma once
// Who a SQLite file belongs to (application_id, user_version, its schema objects), read the same
// way by both stores before they accept a file, and the refusal of a file another program owns.

#include <string>
#include <vector>

#include <SQLiteCpp/Database.h>

namespace QV::detail {

struct FileIdentity {
  int applicationId = 0;
  int userVersion = 0;
  std::vector<std::string> objects;  // tables, indexes, views, triggers not internal to SQLite
};

// Reads the identity in one read transaction (or in the caller's, if `db` is inside one), so that
// a store another process creates meanwhile is seen either before or after, never half made.
// Throws the SQLite::Exception of a failed read.
FileIdentity readIdentity(SQLite::Database& db);

// For a file that carries no application id of ours: "" when it is empty (nothing in it, no id,
// no version), which a store may take; otherwise why it belongs to another application, naming
// its id, its first objects or its version.
std::string foreignOwnerReason(const FileIdentity& identity);

// An application id as the refusals print it: "0x000004D2".
std::string hexApplicationId(int applicationId);

}  // namespace QV::detail
