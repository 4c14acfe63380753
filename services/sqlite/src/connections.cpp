#include "connections.hpp"

#include <sqlite3.h>

#include "busy_wait.hpp"
#include "file_inspection.hpp"
#include "store_error.hpp"
#include "triplet_schema.hpp"

namespace QV::detail {

namespace {

// Settings every connection gets, whatever its role.
void configure(SQLite::Database& db, const TripletStoreOptions& options) {
  installBusyHandler(db.getHandle(), options.busyTimeout);
  db.exec("PRAGMA temp_store = MEMORY");
  db.exec("PRAGMA mmap_size = " + std::to_string(options.mappedBytes));
}

// Nothing opens the file for writing before inspectFile() accepted it. Until openSchema() accepts
// it again under this connection (another process may have changed it in between), closing the
// connection must not checkpoint a WAL into a file that is then refused.
// Each connection is used by one thread at a time (the store's mutexes see to it), so SQLite's
// own per-connection mutex is not needed.
SQLite::Database openWriter(const std::string& path, const TripletStoreOptions& options,
                            bool inMemory) {
  if (!inMemory) {
    inspectFile(path, options);
  }
  SQLite::Database db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX);
  sqlite3_db_config(db.getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  installBusyHandler(db.getHandle(), options.busyTimeout);
  openSchema(db, path, inMemory, options.busyTimeout);
  sqlite3_db_config(db.getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
  db.exec(options.durability == Durability::Full ? "PRAGMA synchronous = FULL"
                                                 : "PRAGMA synchronous = NORMAL");
  configure(db, options);
  // A bulk import grows the WAL to the size of the transaction; trim it back after checkpoints.
  db.exec("PRAGMA journal_size_limit = 67108864");
  return db;
}

// SQLite's default threshold for its automatic checkpoint: past it, the checkpointer is asked.
constexpr int kCheckpointPages = 1000;
// Under steady writes a checkpoint running beside them never finds the WAL copied whole at the
// moment a write starts, so the WAL never starts over; past this (16 MiB of 4 KiB pages) the
// writer checkpoints between two groups itself, after which the next write starts it over.
constexpr int kWriterCheckpointPages = 4000;

// Called by SQLite after every commit of the writer with the pages now in the WAL.
int onWalCommit(void* writer, sqlite3*, const char*, int pages) noexcept {
  static_cast<WriterConnection*>(writer)->walPages = pages;
  return SQLITE_OK;
}

SQLite::Database openReader(const std::string& path, const TripletStoreOptions& options) {
  SQLite::Database db(path, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX);
  configure(db, options);
  return db;
}

}  // namespace

WriterConnection::WriterConnection(const std::string& path, const TripletStoreOptions& options,
                                   bool inMemory)
    : db(openWriter(path, options, inMemory)), writes(db) {
  if (inMemory) {
    reads.emplace(db);
  } else {
    // Replaces SQLite's automatic checkpoint: see checkpointIfDue().
    sqlite3_wal_hook(db.getHandle(), &onWalCommit, this);
  }
}

void WriterConnection::checkpointIfDue(Checkpointer* checkpointer) {
  if (walPages < kCheckpointPages) {
    return;
  }
  if (checkpointer != nullptr && walPages < kWriterCheckpointPages) {
    checkpointer->request();
    return;
  }
  walPages = 0;
  // A failure is left for later, as with the automatic checkpoint: the next commit over the
  // threshold tries again (a WAL that readers kept from being copied whole is still over it).
  sqlite3_wal_checkpoint_v2(db.getHandle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
}

ReaderConnection::ReaderConnection(const std::string& path, const TripletStoreOptions& options)
    : db(openReader(path, options)), reads(db) {}

}  // namespace QV::detail
