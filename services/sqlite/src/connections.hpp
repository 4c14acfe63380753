#pragma once
// The store's SQLite connections, each opened and configured for its role, owning the statements
// it runs (declared after the database so they are finalized before it closes).

#include <optional>
#include <string>

#include <SQLiteCpp/Database.h>

#include "checkpointer.hpp"
#include "prepared_statements.hpp"
#include "qvsqlite/sqlite_triplet_store.hpp"
#include "sqlite_setup.hpp"

namespace QV::detail {

// The one connection that writes. In memory it is the only connection and also serves reads,
// because every connection to ":memory:" would open a database of its own.
struct WriterConnection {
  WriterConnection(const std::string& path, const TripletStoreOptions& options, bool inMemory);

  // Once the WAL holds about as many pages as SQLite's own automatic checkpoint would wait for,
  // has it copied into the database file passively (neither waiting for nor disturbing readers):
  // by `checkpointer`, in the background, or here between groups when there is none or the WAL
  // has grown well past that. The automatic one ran inside COMMIT, making every caller of a
  // group wait for its fsyncs.
  void checkpointIfDue(Checkpointer* checkpointer);

  SqliteConfigured configured;  // before db: the process-wide settings precede the first open
  SQLite::Database db;
  WriteStatements writes;
  std::optional<ReadStatements> reads;  // in memory only
  int walPages = 0;                     // in the WAL after this connection's last commit
};

// A read-only connection; WAL gives each of its statements a consistent snapshot.
struct ReaderConnection {
  ReaderConnection(const std::string& path, const TripletStoreOptions& options);

  SqliteConfigured configured;  // before db: the process-wide settings precede the first open
  SQLite::Database db;
  ReadStatements reads;
};

}  // namespace QV::detail
