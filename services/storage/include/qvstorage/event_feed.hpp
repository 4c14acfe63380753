#pragma once
// How the daemons sharing one backend's stores tell each other of changes the stores do not carry
// themselves: each announces events, and hears the others'.

#include <qvstorage/api.hpp>

#include <cstdint>
#include <functional>
#include <string>

namespace QV {

// A change one daemon announced to the others: what happened (`kind`, e.g. "users.created") and
// its details in a form its kind defines.
struct StoreEvent {
  std::int64_t id = 0;  // increasing in commit order
  std::string origin;   // the announcing daemon's feed
  std::string kind;
  std::string payload;
};

// Thread-safe. Events of this feed's own announcing are never handed back to it.
class QVSTORAGE_API EventFeed {
 public:
  // Receives the events of other daemons, in commit order, on the feed's own thread.
  using EventHandler = std::function<void(const StoreEvent&)>;

  virtual ~EventFeed();

  // Records an event of this daemon (for the others) and wakes their feeds. `notice` numbers the
  // announcements of this feed (distinct for each, from 1): recording one again under the same
  // number, as a retry does when the reply to the first recording was lost, changes nothing, so
  // the others hear it once. Throws the backend's error (a std::runtime_error) when the event
  // cannot be recorded; it may have been recorded all the same.
  virtual void announce(const std::string& kind, const std::string& payload,
                        std::uint64_t notice) = 0;
  // Hands events of `kind` from other daemons to `handler` from now on; an empty handler stops
  // that, waiting for a delivery in progress on another thread.
  virtual void follow(const std::string& kind, EventHandler handler) = 0;

 protected:
  EventFeed() = default;
  EventFeed(const EventFeed&) = delete;
  EventFeed& operator=(const EventFeed&) = delete;
};

}  // namespace QV
