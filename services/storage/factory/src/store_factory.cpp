#include "qvstorage/store_factory.hpp"

#include <qvpostgres/postgres_stores.hpp>
#include <qvsqlite/sqlite_storage.hpp>

#include <stdexcept>

namespace QV {
namespace {

struct Backend {
  bool (*takes)(const std::string& uri);
  std::unique_ptr<Storage> (*open)(const std::string& uri, const StoreOptions& options);
};

// The first backend that takes the URI opens it: a new backend is one more line here.
const Backend kBackends[] = {
    {&isPostgresUri, &openPostgresStorage},
    {&isSqliteLocation, &openSqliteStorage},  // last: takes any text as a file path
};

}  // namespace

std::unique_ptr<Storage> openStorage(const std::string& uri, const StoreOptions& options) {
  for (const auto& backend : kBackends) {
    if (backend.takes(uri)) {
      return backend.open(uri, options);
    }
  }
  throw std::invalid_argument("no store backend takes '" + uri + "'");
}

}  // namespace QV
