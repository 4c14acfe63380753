#include "sqlite_setup.hpp"

#include <mutex>

#include <sqlite3.h>

#include "busy_wait.hpp"

namespace QV::detail {

void configureSqliteOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    // SQLITE_MISUSE when SQLite is already initialised: ignored on purpose. Shutting SQLite down to
    // apply it would pull it from under the host's own connections.
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  });
}

std::string enableWal(SQLite::Database& db, std::chrono::milliseconds timeout) {
  std::string mode;
  for (int attempt = 0;; ++attempt) {
    try {
      mode = db.execAndGet("PRAGMA journal_mode = WAL").getString();
      break;
    } catch (const SQLite::Exception& error) {
      const int code = error.getErrorCode();
      if ((code != SQLITE_BUSY && code != SQLITE_LOCKED) || !sleepBeforeRetry(attempt, timeout)) {
        throw;
      }
    }
  }
  return mode == "wal" ? "" : "cannot use the WAL journal mode (SQLite kept '" + mode + "')";
}

}  // namespace QV::detail
