#include "connections.hpp"

#include <algorithm>
#include <climits>

#include <sqlite3.h>

#include "schema.hpp"
#include "store_error.hpp"

namespace QV::detail {

namespace {

int busyTimeoutMs(const TripletStoreOptions& options) {
  const auto ms = options.busyTimeout.count();
  return ms < 0 ? 0 : static_cast<int>(std::min<decltype(ms)>(ms, INT_MAX));
}

// Settings every connection gets, whatever its role.
void configure(SQLite::Database& db, const TripletStoreOptions& options) {
  db.exec("PRAGMA temp_store = MEMORY");
  db.exec("PRAGMA mmap_size = " + std::to_string(options.mappedBytes));
}

// Each connection is used by one thread at a time (the store's mutexes see to it), so SQLite's
// own per-connection mutex is not needed.
SQLite::Database openWriter(const std::string& path, const TripletStoreOptions& options,
                            bool inMemory) {
  SQLite::Database db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                      busyTimeoutMs(options));
  openSchema(db, path, inMemory);
  db.exec(options.durability == Durability::Full ? "PRAGMA synchronous = FULL"
                                                 : "PRAGMA synchronous = NORMAL");
  configure(db, options);
  // A bulk import grows the WAL to the size of the transaction; trim it back after checkpoints.
  db.exec("PRAGMA journal_size_limit = 67108864");
  return db;
}

SQLite::Database openReader(const std::string& path, const TripletStoreOptions& options) {
  SQLite::Database db(path, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, busyTimeoutMs(options));
  configure(db, options);
  return db;
}

}  // namespace

WriterConnection::WriterConnection(const std::string& path, const TripletStoreOptions& options,
                                   bool inMemory)
    : db(openWriter(path, options, inMemory)), writes(db) {
  if (inMemory) {
    reads.emplace(db);
  }
}

ReaderConnection::ReaderConnection(const std::string& path, const TripletStoreOptions& options)
    : db(openReader(path, options)), reads(db) {}

}  // namespace QV::detail
