#pragma once
// A fixed set of read connections handed out one call at a time, so reads run in parallel while
// every connection (and its prepared statements) is used by a single thread.

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "connections.hpp"

namespace QV::detail {

class ReaderPool {
 public:
  // Opens `count` connections (at least one) to a store that already has its schema.
  ReaderPool(const std::string& path, const TripletStoreOptions& options, std::size_t count);

  // Exclusive use of one connection until destroyed; returns it to the pool then.
  class Lease {
   public:
    Lease(ReaderPool& pool, std::unique_ptr<ReaderConnection> connection)
        : pool_(pool), connection_(std::move(connection)) {}
    ~Lease() { pool_.giveBack(std::move(connection_)); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    ReadStatements& reads() const { return connection_->reads; }

   private:
    ReaderPool& pool_;
    std::unique_ptr<ReaderConnection> connection_;
  };

  // Waits until a connection is free.
  Lease checkout();

 private:
  void giveBack(std::unique_ptr<ReaderConnection> connection);

  std::mutex mutex_;                  // guards idle_
  std::condition_variable returned_;  // signalled whenever idle_ gains a connection
  std::vector<std::unique_ptr<ReaderConnection>> idle_;
};

}  // namespace QV::detail
