#include <ka/servicewatcher.hpp>

#include <ka/future.hpp>

#include <stdexcept>
#include <utility>

namespace ka {

ServiceWatcher::ServiceWatcher(SessionPtr session, std::string name, Callbacks callbacks)
    : _session(std::move(session)), _name(std::move(name)), _callbacks(std::move(callbacks)) {
  const AnyObject directory =
      _session->service(Session::kDirectoryName).value(FutureTimeout_Infinite);
  if (!directory) {
    throw std::runtime_error(std::string("Cannot find service \"") + Session::kDirectoryName +
                             "\"");
  }
  // Auto: called on the announcing thread, so that a registration whose future returned has
  // been seen here already.
  _added = directory->connectScoped("serviceAdded", [this](int, const std::string& added) {
    if (added == _name) {
      lookUp(true);
    }
  });
  _removed = directory->connectScoped("serviceRemoved", [this](int, const std::string& removed) {
    if (removed == _name) {
      depart();
    }
  });
  lookUp(false);
}

ServiceWatcher::~ServiceWatcher() {
  _added.disconnect();
  _removed.disconnect();
}

AnyObject ServiceWatcher::current() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _current;
}

void ServiceWatcher::lookUp(bool announced) {
  std::uint64_t departuresBefore = 0;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    departuresBefore = _departures;
  }
  AnyObject found;
  try {
    found = _session->service(_name).value(FutureTimeout_Infinite);
  } catch (...) {
    // Not there: only a service that was announced was expected.
    if (announced && _callbacks.lookupFailed) {
      _callbacks.lookupFailed();
    }
    return;
  }
  {
    AnyObject released;  // let go outside the lock
    std::lock_guard<std::mutex> lock(_mutex);
    if (_departures != departuresBefore) {
      return;
    }
    released = std::exchange(_current, found);
  }
  if (_callbacks.arrived) {
    _callbacks.arrived(found);
  }
}

void ServiceWatcher::depart() {
  {
    AnyObject released;  // let go outside the lock
    std::lock_guard<std::mutex> lock(_mutex);
    ++_departures;
    released = std::exchange(_current, AnyObject());
  }
  if (_callbacks.departed) {
    _callbacks.departed();
  }
}

}  // namespace ka
