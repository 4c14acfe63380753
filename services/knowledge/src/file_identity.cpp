#include "file_identity.hpp"

#include <algorithm>
#include <cstdio>

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>

#include "schema.hpp"
#include "store_error.hpp"

namespace QV::detail {

namespace {

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

FileIdentity readIdentityHere(SQLite::Database& db) {
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
}

}  // namespace

FileIdentity readIdentity(SQLite::Database& db) {
  if (sqlite3_get_autocommit(db.getHandle()) == 0) {
    return readIdentityHere(db);
  }
  SQLite::Transaction transaction(db);
  FileIdentity identity = readIdentityHere(db);
  transaction.commit();
  return identity;
}

void throwReadError(const SQLite::Exception& error, const std::string& path) {
  if (error.getErrorCode() == SQLITE_NOTADB) {
    throw storeError(path, "the file is not a SQLite database");
  }
  throw storeError(path, std::string("cannot read the file: ") + error.what());
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

}  // namespace QV::detail
