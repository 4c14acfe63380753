#include "servicedirectory.hpp"

#include <ka/detail/blocking_scope.hpp>
#include <ka/objecttypebuilder.hpp>

#include <boost/make_shared.hpp>

#include <atomic>
#include <mutex>

namespace ka {
namespace detail {
namespace {

// The "ServiceDirectory" object of one session: the shared registry, with the session as the
// owner of what is registered through it.
class DirectoryView {
 public:
  DirectoryView(boost::shared_ptr<ServiceDirectory> directory, std::uint64_t owner)
      : _directory(std::move(directory)), _owner(owner) {}

  std::vector<std::tuple<std::string, unsigned int>> services() const {
    std::vector<std::tuple<std::string, unsigned int>> out;
    for (const auto& info : _directory->list()) {
      out.emplace_back(info.name, info.serviceId);
    }
    return out;
  }

  std::tuple<std::string, unsigned int> service(const std::string& name) const {
    for (const auto& info : _directory->list()) {
      if (info.name == name) {
        return std::make_tuple(info.name, info.serviceId);
      }
    }
    throw std::runtime_error("Cannot find service \"" + name + "\"");
  }

  unsigned int registerService(const std::string& name, const AnyObject& object) {
    return _directory->registerService(name, object, _owner);
  }

  void unregisterService(unsigned int id) { _directory->unregisterService(id, _owner); }

  ServiceDirectory& directory() { return *_directory; }

 private:
  const boost::shared_ptr<ServiceDirectory> _directory;
  const std::uint64_t _owner;
};

void registerDirectoryType() {
  static std::once_flag once;
  std::call_once(once, [] {
    ObjectTypeBuilder<DirectoryView> b;
    b.buildFor(true);
    b.setThreadingModel(ObjectThreadingModel::MultiThread);
    b.advertiseMethod("services", &DirectoryView::services);
    b.advertiseMethod("service", &DirectoryView::service);
    b.advertiseMethod("registerService", &DirectoryView::registerService);
    b.advertiseMethod("unregisterService", &DirectoryView::unregisterService);
    b.advertiseSignalVia(
        "serviceAdded", [](DirectoryView & v) -> auto& { return v.directory().serviceAdded; });
    b.advertiseSignalVia(
        "serviceRemoved", [](DirectoryView & v) -> auto& { return v.directory().serviceRemoved; });
    b.registerType();
  });
}

}  // namespace

std::uint64_t ServiceDirectory::newOwnerId() {
  static std::atomic<std::uint64_t> next{1};
  return next.fetch_add(1);
}

AnyObject ServiceDirectory::objectFor(std::uint64_t owner) {
  registerDirectoryType();
  return makeObject(boost::make_shared<DirectoryView>(shared_from_this(), owner));
}

void ServiceDirectory::openOwner(std::uint64_t owner) {
  std::lock_guard<std::mutex> lock(_mutex);
  _openOwners.insert(owner);
}

void ServiceDirectory::closeOwner(std::uint64_t owner) {
  std::uint64_t last = 0;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _openOwners.erase(owner);
    for (auto it = _services.begin(); it != _services.end();) {
      if (it->second.owner == owner) {
        last = queueEventLocked(Event{false, it->first, it->second.name});
        it = _services.erase(it);
      } else {
        ++it;
      }
    }
  }
  if (last != 0) {
    announceUpTo(last);
  }
}

unsigned int ServiceDirectory::registerService(const std::string& name, const AnyObject& object,
                                               std::uint64_t owner) {
  if (name.empty()) {
    throw std::runtime_error("A service needs a non-empty name");
  }
  if (!object.isValid()) {
    throw std::runtime_error("Cannot register a null object as service \"" + name + "\"");
  }
  unsigned int id;
  std::uint64_t seq;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_openOwners.count(owner) == 0) {
      throw std::runtime_error("The session is closed");
    }
    if (name == Session::kDirectoryName) {
      throw std::runtime_error("Service \"" + name + "\" is already registered");
    }
    for (const auto& s : _services) {
      if (s.second.name == name) {
        throw std::runtime_error("Service \"" + name + "\" is already registered");
      }
    }
    id = _nextId++;
    _services.emplace(id, Entry{name, object, owner});
    seq = queueEventLocked(Event{true, id, name});
  }
  announceUpTo(seq);
  return id;
}

void ServiceDirectory::unregisterService(unsigned int id, std::uint64_t owner) {
  std::uint64_t seq;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _services.find(id);
    if (it == _services.end()) {
      throw std::runtime_error("No service has the id " + std::to_string(id));
    }
    if (it->second.owner != owner) {
      throw std::runtime_error("Service \"" + it->second.name + "\" (id " + std::to_string(id) +
                               ") belongs to another session");
    }
    seq = queueEventLocked(Event{false, id, it->second.name});
    _services.erase(it);
  }
  announceUpTo(seq);
}

std::uint64_t ServiceDirectory::queueEventLocked(Event event) {
  _pending.push_back(std::move(event));
  return ++_queued;
}

void ServiceDirectory::announceUpTo(std::uint64_t seq) {
  const auto self = std::this_thread::get_id();
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(_mutex);
      if (_announced >= seq) {
        return;
      }
      if (!_draining) {
        drainLocked(lock);
        return;
      }
      if (_drainer == self) {
        return;  // a subscriber's own change: the drain this thread is in announces it next
      }
    }
    // Another thread is announcing, maybe calling subscribers that wait for this one: wait as a
    // blocking wait, holding nothing.
    try {
      BlockingScope blocking;
      std::unique_lock<std::mutex> lock(_mutex);
      _announcedChanged.wait(lock, [&] { return _announced >= seq || !_draining; });
    } catch (const std::runtime_error&) {
      return;  // the event loop refused the wait: the announcing thread still gets to it
    }
  }
}

void ServiceDirectory::drainLocked(std::unique_lock<std::mutex>& lock) {
  _draining = true;
  _drainer = std::this_thread::get_id();
  while (!_pending.empty()) {
    const Event event = std::move(_pending.front());
    _pending.pop_front();
    lock.unlock();
    try {
      if (event.added) {
        serviceAdded(static_cast<int>(event.id), event.name);
      } else {
        serviceRemoved(static_cast<int>(event.id), event.name);
      }
    } catch (...) {
      // Subscriber failures are logged by the signal; only argument errors could get
      // here, and the remaining events must still go out.
    }
    lock.lock();
    ++_announced;
    _announcedChanged.notify_all();
  }
  _draining = false;
  _drainer = std::thread::id();
  _announcedChanged.notify_all();
}

AnyObject ServiceDirectory::lookup(const std::string& name) const {
  std::lock_guard<std::mutex> lock(_mutex);
  for (const auto& s : _services) {
    if (s.second.name == name) {
      return s.second.object;
    }
  }
  return AnyObject();
}

std::vector<ServiceInfo> ServiceDirectory::list() const {
  std::vector<ServiceInfo> out;
  out.push_back(ServiceInfo{Session::kDirectoryName, Session::kDirectoryId});
  std::lock_guard<std::mutex> lock(_mutex);
  for (const auto& s : _services) {
    out.push_back(ServiceInfo{s.second.name, s.first});
  }
  return out;
}

}  // namespace detail
}  // namespace ka
