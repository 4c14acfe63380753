#include <ka/session.hpp>

#include "servicedirectory.hpp"

#include <boost/make_shared.hpp>

#include <atomic>
#include <mutex>

namespace ka {
namespace {
std::atomic<std::uint64_t> nextSessionId{1};
}

struct Session::State {
  const std::uint64_t id = nextSessionId.fetch_add(1);
  std::atomic<bool> closed{false};
  std::mutex mutex;
  // Guarded by mutex: this session's "ServiceDirectory" object, made on first use.
  AnyObject directoryObject;
};

Session::Session(boost::shared_ptr<detail::ServiceDirectory> directory)
    : _directory(std::move(directory)), _state(std::make_unique<State>()) {
  _directory->openOwner(_state->id);
}

Session::~Session() {
  close();
}

namespace {
template <typename T>
Future<T> closedError() {
  return makeFutureError<T>("The session is closed");
}
}  // namespace

Future<AnyObject> Session::service(const std::string& name, const std::string& protocol) {
  (void)protocol;
  if (_state->closed) {
    return closedError<AnyObject>();
  }
  if (name == kDirectoryName) {
    std::lock_guard<std::mutex> lock(_state->mutex);
    if (!_state->directoryObject.isValid()) {
      _state->directoryObject = _directory->objectFor(_state->id);
    }
    return makeReadyFuture(_state->directoryObject);
  }
  AnyObject object = _directory->lookup(name);
  if (!object.isValid()) {
    return makeFutureError<AnyObject>("Cannot find service \"" + name + "\"");
  }
  return makeReadyFuture(std::move(object));
}

Future<std::vector<ServiceInfo>> Session::services() {
  if (_state->closed) {
    return closedError<std::vector<ServiceInfo>>();
  }
  return makeReadyFuture(_directory->list());
}

Future<unsigned int> Session::registerService(const std::string& name, AnyObject object) {
  if (_state->closed) {
    return closedError<unsigned int>();
  }
  try {
    return makeReadyFuture(_directory->registerService(name, object, _state->id));
  } catch (const std::exception& e) {
    return makeFutureError<unsigned int>(e.what());
  }
}

Future<void> Session::unregisterService(unsigned int serviceId) {
  if (_state->closed) {
    return closedError<void>();
  }
  try {
    _directory->unregisterService(serviceId, _state->id);
    return makeReadyFuture();
  } catch (const std::exception& e) {
    return makeFutureError<void>(e.what());
  }
}

void Session::close() {
  if (_state->closed.exchange(true)) {
    return;
  }
  _directory->closeOwner(_state->id);
  std::lock_guard<std::mutex> lock(_state->mutex);
  _state->directoryObject.reset();
}

bool Session::isConnected() const {
  return !_state->closed;
}

SessionPtr makeSession() {
  return boost::make_shared<Session>(boost::make_shared<detail::ServiceDirectory>());
}

SessionPtr makeSession(const SessionPtr& peer) {
  if (!peer) {
    throw std::invalid_argument("makeSession needs a peer session");
  }
  return boost::make_shared<Session>(peer->_directory);
}

}  // namespace ka
