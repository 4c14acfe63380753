#include "sqlite_setup.hpp"

#include <mutex>

#include <sqlite3.h>

namespace QV::detail {

void configureSqliteOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    // SQLITE_MISUSE when SQLite is already initialised: ignored on purpose. Shutting SQLite down to
    // apply it would pull it from under the host's own connections.
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  });
}

}  // namespace QV::detail
