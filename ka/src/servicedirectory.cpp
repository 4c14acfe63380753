#include "servicedirectory.hpp"

#include <ka/objecttypebuilder.hpp>

#include <mutex>

namespace ka {
namespace detail {
namespace {

void registerDirectoryType() {
  static std::once_flag once;
  std::call_once(once, [] {
    ObjectTypeBuilder<ServiceDirectory> b;
    b.buildFor(true);
    b.setThreadingModel(ObjectThreadingModel::MultiThread);
    b.advertiseMethod("services", &ServiceDirectory::servicesMethod);
    b.advertiseMethod("service", &ServiceDirectory::serviceMethod);
    b.advertiseMethod("registerService", &ServiceDirectory::registerServiceMethod);
    b.advertiseMethod("unregisterService", &ServiceDirectory::unregisterServiceMethod);
    b.advertiseSignal("serviceAdded", &ServiceDirectory::serviceAdded);
    b.advertiseSignal("serviceRemoved", &ServiceDirectory::serviceRemoved);
    b.registerType();
  });
}

}  // namespace

AnyObject ServiceDirectory::object() {
  registerDirectoryType();
  return makeObject(shared_from_this());
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
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (owner != 0 && _closedOwners.count(owner) != 0) {
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
    _pending.push_back(Event{true, id, name});
  }
  drainEvents();
  return id;
}

void ServiceDirectory::unregisterService(unsigned int id) {
  std::string name;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _services.find(id);
    if (it == _services.end()) {
      throw std::runtime_error("No service has the id " + std::to_string(id));
    }
    name = it->second.name;
    _services.erase(it);
    _pending.push_back(Event{false, id, name});
  }
  drainEvents();
}

void ServiceDirectory::closeOwner(std::uint64_t owner) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _closedOwners.insert(owner);
    for (auto it = _services.begin(); it != _services.end();) {
      if (it->second.owner == owner) {
        _pending.push_back(Event{false, it->first, it->second.name});
        it = _services.erase(it);
      } else {
        ++it;
      }
    }
  }
  drainEvents();
}

void ServiceDirectory::drainEvents() {
  std::unique_lock<std::mutex> lock(_mutex);
  if (_draining) {
    return;
  }
  _draining = true;
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
  }
  _draining = false;
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

std::vector<std::tuple<std::string, unsigned int>> ServiceDirectory::servicesMethod() const {
  std::vector<std::tuple<std::string, unsigned int>> out;
  for (const auto& info : list()) {
    out.emplace_back(info.name, info.serviceId);
  }
  return out;
}

std::tuple<std::string, unsigned int> ServiceDirectory::serviceMethod(
    const std::string& name) const {
  for (const auto& info : list()) {
    if (info.name == name) {
      return std::make_tuple(info.name, info.serviceId);
    }
  }
  throw std::runtime_error("Cannot find service \"" + name + "\"");
}

unsigned int ServiceDirectory::registerServiceMethod(const std::string& name,
                                                     const AnyObject& object) {
  // Registered through the directory object itself: owned by nobody in particular.
  return registerService(name, object, 0);
}

void ServiceDirectory::unregisterServiceMethod(unsigned int id) {
  unregisterService(id);
}

}  // namespace detail
}  // namespace ka
