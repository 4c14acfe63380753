#pragma once
// What the stores of this library reach through PostgresDatabase::impl(): the pool their calls
// run on and the feed of other daemons' events.

#include "qvpostgres/postgres_database.hpp"

#include "connection_pool.hpp"
#include "event_feed.hpp"

#include <memory>
#include <string>

namespace QV {

class PostgresDatabase::Impl {
 public:
  Impl(std::string conninfo, const PostgresOptions& options);

  // Runs `body(connection, deadline)` on a pooled connection, within the call timeout. When
  // `retryable` (the body may run twice with the same outcome: a read, or a write that leaves
  // the same state when repeated) and a connection that had sat in the pool turns out to be cut,
  // the body runs once more on a new connection.
  template <class Body>
  auto withConnection(Body&& body, bool retryable = false) {
    const auto deadline = pg::Clock::now() + options.callTimeout;
    for (int attempt = 0;; ++attempt) {
      pg::Pool::Lease lease = pool.checkout(deadline);
      try {
        return body(*lease, deadline);
      } catch (const pg::Failure& failure) {
        if (!retryable || attempt > 0 || !failure.lost() || !lease.reused()) {
          throw;
        }
      }
    }
  }

  const std::string conninfo;
  const PostgresOptions options;
  const std::string origin;
  pg::Pool pool;
  // Made once the schema is there; stopped before the pool goes.
  std::unique_ptr<pg::EventFeed> feed;
};

}  // namespace QV
