#include "checkpointer.hpp"

#include <sqlite3.h>

namespace QV::detail {

Checkpointer::Checkpointer(const std::string& path, const TripletStoreOptions& options)
    : db_(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX) {
  // The writer, closing last, is the one that checkpoints at close.
  sqlite3_db_config(db_.getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  // A checkpoint syncs the WAL and the database file as its connection's setting says.
  db_.exec(options.durability == Durability::Full ? "PRAGMA synchronous = FULL"
                                                  : "PRAGMA synchronous = NORMAL");
  thread_ = std::thread([this] { run(); });
}

Checkpointer::~Checkpointer() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void Checkpointer::request() {
  {
    std::lock_guard lock(mutex_);
    if (requested_) {
      return;
    }
    requested_ = true;
  }
  changed_.notify_one();
}

void Checkpointer::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return requested_ || stopping_; });
    if (stopping_) {
      return;
    }
    requested_ = false;
    lock.unlock();
    // A failure (busy, I/O) is left for the next request, as SQLite's automatic checkpoint does.
    sqlite3_wal_checkpoint_v2(db_.getHandle(), nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr,
                              nullptr);
    lock.lock();
  }
}

}  // namespace QV::detail
