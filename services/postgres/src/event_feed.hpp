#pragma once
// Follows the events other daemons record in qv_events, on a thread of its own with a connection
// of its own that LISTENs for their notifications. Delivery: every event committed while the
// feed is connected is handed over once, in commit order; after a lost connection the feed
// reconnects with backoff and first hands over what was committed meanwhile (what is still kept,
// see PostgresOptions::eventRetention), so nothing is missed unless the gap outlasted that. The
// same thread brings the call pool back once the server answers again, and prunes old events.

#include "connection_pool.hpp"

#include <qvpostgres/postgres_database.hpp>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace QV::pg {

class EventFeed {
 public:
  // Hands over events committed after `startAfter` (an event id) that `origin` did not record.
  EventFeed(std::string conninfo, const PostgresOptions& options, std::string origin, Pool& pool,
            std::string location, std::int64_t startAfter);
  // Stops the thread, waiting for a delivery in progress.
  ~EventFeed();
  EventFeed(const EventFeed&) = delete;
  EventFeed& operator=(const EventFeed&) = delete;

  void follow(const std::string& kind, PostgresDatabase::EventHandler handler);

 private:
  void run();
  // Connects and LISTENs; true on success.
  bool connect();
  // Hands over every event after lastSeen_. Throws Failure.
  void catchUp();
  void deliver(const StoreEvent& event);
  // Sleeps until `until` or stop; false when stopping.
  bool pause(Clock::time_point until);
  void waitForNotification(Clock::time_point until);

  const std::string conninfo_;
  const PostgresOptions options_;
  const std::string origin_;
  const std::string location_;
  Pool& pool_;

  // Used by the feed's thread only.
  std::unique_ptr<Connection> listener_;
  std::int64_t lastSeen_;
  bool reconnected_ = false;
  Clock::time_point nextPrune_;

  // Held while a handler runs and while handlers change: follow() waits for a delivery.
  std::mutex handlersMutex_;
  std::map<std::string, PostgresDatabase::EventHandler> handlers_;  // guarded by handlersMutex_

  std::mutex stopMutex_;
  std::condition_variable stopped_;
  bool stopping_ = false;  // guarded by stopMutex_
  int wakeFd_;             // an eventfd written to stop the thread's wait on its socket
  std::thread thread_;
};

}  // namespace QV::pg
