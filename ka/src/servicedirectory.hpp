#pragma once
// The registry of services shared by the sessions of one directory, and the object
// that publishes it as the "ServiceDirectory" service.

#include <ka/object.hpp>
#include <ka/session.hpp>
#include <ka/signal.hpp>

#include <boost/enable_shared_from_this.hpp>

#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace ka {
namespace detail {

class ServiceDirectory : public boost::enable_shared_from_this<ServiceDirectory> {
 public:
  ServiceDirectory() = default;

  // Throws std::runtime_error with the reason when refused.
  unsigned int registerService(const std::string& name, const AnyObject& object,
                               std::uint64_t owner);
  // Throws when no service has that id; the directory itself cannot be removed.
  void unregisterService(unsigned int id);
  // Unregisters every service of `owner` and refuses its registrations from now on.
  void closeOwner(std::uint64_t owner);
  // A null object when nothing has that name.
  AnyObject lookup(const std::string& name) const;
  std::vector<ServiceInfo> list() const;

  // The directory as a middleware object (one per live directory).
  AnyObject object();

  // As advertised on the directory object.
  std::vector<std::tuple<std::string, unsigned int>> servicesMethod() const;
  std::tuple<std::string, unsigned int> serviceMethod(const std::string& name) const;
  unsigned int registerServiceMethod(const std::string& name, const AnyObject& object);
  void unregisterServiceMethod(unsigned int id);

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
  // Emits the pending events in the order of the changes, with no lock held. One
  // thread drains at a time; a change made meanwhile (even from inside a subscriber)
  // is emitted by that thread after the current event.
  void drainEvents();

  mutable std::mutex _mutex;
  // Guarded by _mutex.
  std::map<unsigned int, Entry> _services;
  // Guarded by _mutex.
  unsigned int _nextId = Session::kDirectoryId + 1;
  // Guarded by _mutex: owners (sessions) that have closed.
  std::set<std::uint64_t> _closedOwners;
  // Guarded by _mutex: changes not yet announced, oldest first, and whether a thread is
  // announcing them.
  std::deque<Event> _pending;
  bool _draining = false;
};

}  // namespace detail
}  // namespace ka
