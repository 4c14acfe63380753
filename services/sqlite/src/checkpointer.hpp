#pragma once
// Copies the WAL into the database file on a thread and a connection of its own, so that neither
// the writes nor the threads serving calls wait for a checkpoint's copying and fsyncs.

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include <SQLiteCpp/Database.h>

#include "qvsqlite/sqlite_triplet_store.hpp"
#include "sqlite_setup.hpp"

namespace QV::detail {

class Checkpointer {
 public:
  // Opens its connection to a store whose schema the writer has already accepted.
  Checkpointer(const std::string& path, const TripletStoreOptions& options);
  // Lets a checkpoint in progress finish, then stops.
  ~Checkpointer();
  Checkpointer(const Checkpointer&) = delete;
  Checkpointer& operator=(const Checkpointer&) = delete;

  // Asks for a passive checkpoint: it copies what the WAL holds when it starts, neither waiting
  // for nor blocking readers and the writer. Requests made while one runs are served by one more.
  void request();

 private:
  void run();

  SqliteConfigured configured_;  // before db_: the process-wide settings precede the first open
  SQLite::Database db_;          // used by thread_ alone
  std::mutex mutex_;
  std::condition_variable changed_;
  bool requested_ = false;  // guarded by mutex_
  bool stopping_ = false;   // guarded by mutex_
  std::thread thread_;      // last: starts once everything it uses exists
};

}  // namespace QV::detail
