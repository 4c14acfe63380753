#include "file_identity.hpp"

#include <algorithm>

#include <sqlite3.h>

#include "store_error.hpp"
#include "triplet_schema.hpp"

namespace QV::detail {

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
  const std::string foreign = foreignOwnerReason(identity);
  if (!foreign.empty()) {
    throw storeError(path, foreign);
  }
  return Verdict::Empty;
}

}  // namespace QV::detail
