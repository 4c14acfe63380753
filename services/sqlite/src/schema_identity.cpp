#include "schema_identity.hpp"

#include <cstdio>

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>

namespace QV::detail {

namespace {

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

// A refusal stays one readable line however many tables the other program made.
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

std::string hexApplicationId(int applicationId) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(applicationId));
  return text;
}

std::string foreignOwnerReason(const FileIdentity& identity) {
  const std::string prefix = "the database belongs to another application (";
  if (identity.applicationId != 0) {
    return prefix + "application_id " + hexApplicationId(identity.applicationId) + ")";
  }
  if (!identity.objects.empty()) {
    return prefix + "it holds " + joinNames(identity.objects) + ")";
  }
  if (identity.userVersion != 0) {
    return prefix + "user_version " + std::to_string(identity.userVersion) + ")";
  }
  return "";
}

}  // namespace QV::detail
