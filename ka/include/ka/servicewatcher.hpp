#pragma once
// ServiceWatcher: follows one service name in a session's directory as the service appears, goes
// and comes back, and keeps the handle of the one that is there, for callers on any thread.

#include <ka/api.hpp>
#include <ka/object.hpp>
#include <ka/scopedconnection.hpp>
#include <ka/session.hpp>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace ka {

class KA_API ServiceWatcher {
 public:
  // Each runs on the thread that announces the change (the constructor's for a service that is
  // there already), never with a lock of the watcher held; any may be left empty.
  struct Callbacks {
    // The service was looked up and its handle is current.
    std::function<void(const AnyObject& service)> arrived;
    // The service was announced but could not be looked up (it left at once, say); nothing is
    // current.
    std::function<void()> lookupFailed;
    // The service left; nothing is current.
    std::function<void()> departed;
  };

  // Subscribes to the directory's "serviceAdded" and "serviceRemoved" first, then looks `name`
  // up, so that a registration right after that lookup is seen. Throws when the directory
  // cannot be looked up or subscribed to (the error of the step that failed).
  ServiceWatcher(SessionPtr session, std::string name, Callbacks callbacks = {});
  // Ends both subscriptions, waiting for a callback in progress on another thread: none runs once
  // the destructor is done. Lets go of the current handle.
  ~ServiceWatcher();
  ServiceWatcher(const ServiceWatcher&) = delete;
  ServiceWatcher& operator=(const ServiceWatcher&) = delete;

  const std::string& name() const noexcept { return _name; }
  // The handle of the service now registered under the name; empty when there is none.
  AnyObject current() const;

 private:
  // Looks the service up and makes it current, unless it left while it was being looked up:
  // the departure's own announcement has the last word then.
  void lookUp(bool announced);
  void depart();

  const SessionPtr _session;
  const std::string _name;
  const Callbacks _callbacks;
  // Never held across a lookup or a callback.
  mutable std::mutex _mutex;
  AnyObject _current;             // guarded by _mutex
  std::uint64_t _departures = 0;  // guarded by _mutex
  // Last: they end first, before anything their subscribers use is gone.
  ScopedConnection _added;
  ScopedConnection _removed;
};

}  // namespace ka
