#pragma once
// The registry of services shared by the sessions of one directory, and the per-session object
// that publishes it as the "ServiceDirectory" service.

#include <ka/object.hpp>
#include <ka/session.hpp>
#include <ka/signal.hpp>

#include <boost/enable_shared_from_this.hpp>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace ka {
namespace detail {

// Every service belongs to one owner (a session). Owners are open between openOwner and
// closeOwner; only open owners register, and only the owner of a service unregisters it.
//
// Announcements: "serviceAdded" / "serviceRemoved" go out in the order of the changes, one at a
// time, with no lock held. When a change returns, every direct subscriber has been called for
// it; the one exception is a change made by a subscriber while it is being called (on the
// announcing thread), which goes out right after the current announcement.
class ServiceDirectory : public boost::enable_shared_from_this<ServiceDirectory> {
 public:
  ServiceDirectory() = default;

  // A fresh owner id, unique in the process (sessions and remote participants alike).
  static std::uint64_t newOwnerId();

  void openOwner(std::uint64_t owner);
  // Unregisters every service of `owner` and refuses its registrations from now on.
  void closeOwner(std::uint64_t owner);

  // Throw std::runtime_error with the reason when refused.
  unsigned int registerService(const std::string& name, const AnyObject& object,
                               std::uint64_t owner);
  void unregisterService(unsigned int id, std::uint64_t owner);

  // A null object when nothing has that name.
  AnyObject lookup(const std::string& name) const;
  std::vector<ServiceInfo> list() const;

  // The directory as `owner` sees it, as a middleware object: what is registered through it
  // belongs to `owner`.
  AnyObject objectFor(std::uint64_t owner);

  Signal<int, std::string> serviceAdded;
  Signal<int, std::string> serviceRemoved;

 private:
  struct Entry {
    std::string name;
    AnyObject object;
    std::uint64_t owner;
  };

  struct Event {
    bool added;
    unsigned int id;
    std::string name;
  };
  // With _mutex held: queues the announcement of a change; returns its sequence number.
  std::uint64_t queueEventLocked(Event event);
  // Returns once event `seq` has been announced (see the class comment for the exception).
  void announceUpTo(std::uint64_t seq);
  // Announces every pending event; called with `lock` held on a thread that became the drainer.
  void drainLocked(std::unique_lock<std::mutex>& lock);

  mutable std::mutex _mutex;
  // All guarded by _mutex:
  std::map<unsigned int, Entry> _services;
  unsigned int _nextId = Session::kDirectoryId + 1;
  std::set<std::uint64_t> _openOwners;
  // Changes not announced yet, oldest first; how many changes were queued and announced in all;
  // whether (and which) thread is announcing.
  std::deque<Event> _pending;
  std::uint64_t _queued = 0;
  std::uint64_t _announced = 0;
  bool _draining = false;
  std::thread::id _drainer;
  std::condition_variable _announcedChanged;  // _announced or _draining changed
};

}  // namespace detail
}  // namespace ka
