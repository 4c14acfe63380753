#pragma once
// The announcements of this daemon on their way to the other daemons: recorded in order through
// the event feed, kept while the database cannot take them and tried again on a timer, so that a
// change made just before an outage is heard once the database is back, without waiting for the
// next change. Each keeps its notice number across tries, so a retry of one whose first
// recording went through (its reply lost) is not heard twice.

#include <qvstorage/event_feed.hpp>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace qvuserinfod {

class AnnouncementOutbox {
 public:
  // Past `limit` waiting announcements the oldest are dropped (logged).
  AnnouncementOutbox(std::shared_ptr<QV::EventFeed> feed,
                     std::chrono::milliseconds retryEvery = std::chrono::seconds(1),
                     std::size_t limit = 10000);
  // Stops the retries; what is still waiting is dropped (logged).
  ~AnnouncementOutbox();
  AnnouncementOutbox(const AnnouncementOutbox&) = delete;
  AnnouncementOutbox& operator=(const AnnouncementOutbox&) = delete;

  // Records `kind`/`payload` after whatever still waits, on the calling thread; if the feed
  // refuses, it waits for the retry timer. Never throws for the feed's failure.
  void post(std::string kind, std::string payload);
  // How many announcements wait for the database.
  std::size_t waiting() const;

 private:
  struct Announcement {
    std::uint64_t notice;
    std::string kind;
    std::string payload;
  };

  // Records the waiting announcements in order until one fails. Called with _mutex held: the
  // order of the others' hearing is the order of posting.
  void flush(std::unique_lock<std::mutex>& lock);
  void retryLoop();

  const std::shared_ptr<QV::EventFeed> _feed;
  const std::chrono::milliseconds _retryEvery;
  const std::size_t _limit;

  mutable std::mutex _mutex;
  std::condition_variable _wake;
  std::deque<Announcement> _waiting;  // guarded by _mutex, oldest first
  std::uint64_t _lastNotice = 0;      // guarded by _mutex
  bool _stopping = false;             // guarded by _mutex
  std::thread _retrier;               // last: started once the members it uses exist
};

}  // namespace qvuserinfod
