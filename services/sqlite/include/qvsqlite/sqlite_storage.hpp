#pragma once
// The SQLite backend as the store factory opens it: the knowledge store in one file and the
// users in the file beside it; nobody else shares them, so there is no event feed.

#include <qvsqlite/api.hpp>
#include <qvstorage/durability.hpp>
#include <qvstorage/storage.hpp>

#include <memory>
#include <string>

namespace QV {

// Whether `uri` names a SQLite file: "sqlite:PATH", or any text that is no URI of another
// backend, which the factory asks first.
QVSQLITE_API bool isSqliteLocation(const std::string& uri);

// The stores in PATH and PATH.users (PATH is `uri` without a leading "sqlite:"); nothing is
// opened until the Storage's open calls.
QVSQLITE_API std::unique_ptr<Storage> openSqliteStorage(const std::string& uri,
                                                        const StoreOptions& options);

}  // namespace QV
