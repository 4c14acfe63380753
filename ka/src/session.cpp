#include <ka/session.hpp>

#include "federation.hpp"
#include "servicedirectory.hpp"

#include <boost/make_shared.hpp>

#include <atomic>
#include <mutex>

namespace ka {

struct Session::State {
  const std::uint64_t id = detail::ServiceDirectory::newOwnerId();
  std::atomic<bool> closed{false};
  mutable std::mutex mutex;
  // Guarded by mutex: this session's "ServiceDirectory" object, made on first use.
  AnyObject directoryObject;
  // Guarded by mutex: what serves the directory on endpoints (made by the first listen), and
  // the directory joined instead of the own one (set by connect).
  std::shared_ptr<detail::DirectoryServer> server;
  std::shared_ptr<detail::JoinedDirectory> joined;

  std::shared_ptr<detail::JoinedDirectory> joinedDirectory() const {
    std::lock_guard<std::mutex> lock(mutex);
    return joined;
  }
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
  if (const auto joined = _state->joinedDirectory()) {
    return joined->service(name);
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
  if (const auto joined = _state->joinedDirectory()) {
    return joined->services();
  }
  return makeReadyFuture(_directory->list());
}

Future<unsigned int> Session::registerService(const std::string& name, AnyObject object) {
  if (_state->closed) {
    return closedError<unsigned int>();
  }
  if (const auto joined = _state->joinedDirectory()) {
    return joined->registerService(name, object);
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
  if (const auto joined = _state->joinedDirectory()) {
    return joined->unregisterService(serviceId);
  }
  try {
    _directory->unregisterService(serviceId, _state->id);
    return makeReadyFuture();
  } catch (const std::exception& e) {
    return makeFutureError<void>(e.what());
  }
}

Future<void> Session::listen(const std::string& url, const EndpointOptions& options) {
  if (_state->closed) {
    return closedError<void>();
  }
  std::shared_ptr<detail::DirectoryServer> server;
  {
    std::lock_guard<std::mutex> lock(_state->mutex);
    if (_state->joined) {
      return makeFutureError<void>("Cannot listen on " + url +
                                   ": the session joined the directory at " +
                                   _state->joined->url());
    }
    if (!_state->server) {
      _state->server = std::make_shared<detail::DirectoryServer>(_directory);
    }
    server = _state->server;
  }
  try {
    server->listen(url, options);
  } catch (const std::exception& e) {
    return makeFutureError<void>(e.what());
  }
  return makeReadyFuture();
}

std::vector<std::string> Session::endpoints() const {
  std::shared_ptr<detail::DirectoryServer> server;
  {
    std::lock_guard<std::mutex> lock(_state->mutex);
    server = _state->server;
  }
  return server ? server->endpoints() : std::vector<std::string>();
}

Future<void> Session::connect(const std::string& url, const EndpointOptions& options) {
  if (_state->closed) {
    return closedError<void>();
  }
  {
    std::lock_guard<std::mutex> lock(_state->mutex);
    if (_state->server && _state->server->isListening()) {
      return makeFutureError<void>("Cannot connect to " + url +
                                   ": the session serves its own directory");
    }
    if (_state->joined && _state->joined->isConnected()) {
      return makeFutureError<void>("Cannot connect to " + url + ": the session is connected to " +
                                   _state->joined->url());
    }
  }
  const boost::weak_ptr<Session> weak = weak_from_this();
  return detail::JoinedDirectory::join(url, options)
      .andThen([weak](const std::shared_ptr<detail::JoinedDirectory>& joined) {
        const auto self = weak.lock();
        std::shared_ptr<detail::JoinedDirectory> previous;
        {
          if (!self || self->_state->closed) {
            joined->close();
            throw std::runtime_error("The session is closed");
          }
          std::lock_guard<std::mutex> lock(self->_state->mutex);
          if (self->_state->joined && self->_state->joined->isConnected()) {
            joined->close();
            throw std::runtime_error("The session is connected to " + self->_state->joined->url());
          }
          previous = std::move(self->_state->joined);
          self->_state->joined = joined;
        }
      });
}

bool Session::drain(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::shared_ptr<detail::DirectoryServer> server;
  std::shared_ptr<detail::JoinedDirectory> joined;
  {
    std::lock_guard<std::mutex> lock(_state->mutex);
    server = _state->server;
    joined = _state->joined;
  }
  bool complete = true;
  if (server) {
    complete = server->drain(deadline) && complete;
  }
  if (joined) {
    complete = joined->drain(deadline) && complete;
  }
  return complete;
}

void Session::close() {
  if (_state->closed.exchange(true)) {
    return;
  }
  _directory->closeOwner(_state->id);
  std::shared_ptr<detail::DirectoryServer> server;
  std::shared_ptr<detail::JoinedDirectory> joined;
  {
    std::lock_guard<std::mutex> lock(_state->mutex);
    _state->directoryObject.reset();
    server = std::move(_state->server);
    joined = std::move(_state->joined);
  }
  if (server) {
    server->close();
  }
  if (joined) {
    joined->close();
  }
}

bool Session::isConnected() const {
  if (_state->closed) {
    return false;
  }
  const auto joined = _state->joinedDirectory();
  return !joined || joined->isConnected();
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
