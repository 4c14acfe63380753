#include "federation.hpp"

#include <ka/log.hpp>

#include <algorithm>
#include <tuple>

namespace ka {
namespace detail {

DirectoryServer::DirectoryServer(boost::shared_ptr<ServiceDirectory> directory)
    : _directory(std::move(directory)) {}

DirectoryServer::~DirectoryServer() {
  close();
}

namespace {

wire::TransportOptions transportOptions(const EndpointOptions& options) {
  wire::TransportOptions out;
  out.token = options.token;
  out.allowNonLoopback = options.allowNonLoopback;
  out.maxFrameBody = options.maxFrameBody;
  out.maxQueuedOutput = options.maxQueuedOutput;
  return out;
}

}  // namespace

void DirectoryServer::listen(const std::string& url, const EndpointOptions& options) {
  std::lock_guard<std::mutex> lifecycle(_lifecycle);
  const std::weak_ptr<DirectoryServer> weak = weak_from_this();
  auto onAccept = [weak](wire::ChannelPtr channel) {
    if (const auto self = weak.lock()) {
      self->accept(channel);
    } else {
      channel->close("The session is closed");
    }
  };
  if (wire::isLocalUrl(url)) {
    auto listener = wire::listenLocal(url, onAccept);
    std::lock_guard<std::mutex> lock(_mutex);
    if (_closed || _draining) {
      throw std::runtime_error(_closed ? "The session is closed" : "The session is shutting down");
    }
    _localListeners.push_back(std::move(listener));
    _endpoints.push_back(url);
    return;
  }
  wire::Transport* transport;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_closed) {
      throw std::runtime_error("The session is closed");
    }
    if (_draining) {
      throw std::runtime_error("The session is shutting down");
    }
    if (!_transport) {
      _transport = std::make_unique<wire::Transport>();
    }
    transport = _transport.get();  // stays while _lifecycle is held
  }
  auto endpoints = transport->listen(url, transportOptions(options), onAccept);
  std::lock_guard<std::mutex> lock(_mutex);
  _endpoints.insert(_endpoints.end(), endpoints.begin(), endpoints.end());
}

std::vector<std::string> DirectoryServer::endpoints() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _endpoints;
}

bool DirectoryServer::isListening() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return !_endpoints.empty();
}

void DirectoryServer::accept(const wire::ChannelPtr& channel) {
  const std::uint64_t owner = ServiceDirectory::newOwnerId();
  _directory->openOwner(owner);
  const boost::shared_ptr<ServiceDirectory> directory = _directory;
  wire::ServedDirectory served{directory->objectFor(owner), [directory](const std::string& name) {
                                 return directory->lookup(name);
                               }};
  const auto connection = wire::Connection::create(channel, std::move(served));
  bool closed;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    closed = _closed || _draining;
    if (!closed) {
      _connections.insert(connection);
    }
  }
  const std::weak_ptr<DirectoryServer> weak = weak_from_this();
  const wire::Connection* raw = connection.get();
  // The participant goes with its connection: its services are unregistered ("serviceRemoved"
  // for each, on the event loop where this runs) and the connection forgotten.
  connection->start([weak, directory, owner, raw](const std::string&) {
    directory->closeOwner(owner);
    if (const auto self = weak.lock()) {
      std::lock_guard<std::mutex> lock(self->_mutex);
      for (auto it = self->_connections.begin(); it != self->_connections.end(); ++it) {
        if (it->get() == raw) {
          self->_connections.erase(it);
          break;
        }
      }
    }
  });
  if (closed) {
    connection->close("The session is closed");
  }
}

void DirectoryServer::close() {
  std::lock_guard<std::mutex> lifecycle(_lifecycle);
  std::unique_ptr<wire::Transport> transport;
  std::vector<std::unique_ptr<wire::LocalListener>> listeners;
  std::set<std::shared_ptr<wire::Connection>> connections;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _closed = true;
    transport = std::move(_transport);
    listeners.swap(_localListeners);
    connections.swap(_connections);
    _endpoints.clear();
  }
  for (auto& l : listeners) {
    l->close();
  }
  for (const auto& c : connections) {
    c->close("The serving session closed");
  }
  // Stops listening and the I/O thread, with no lock held: its handlers take _mutex.
  transport.reset();
}

namespace {

constexpr const char kStopping[] = "The session is shutting down";

// Refuses new requests on every connection, waits for the calls running, then ends each
// connection and waits for its last replies to go out.
bool drainConnections(const std::vector<std::shared_ptr<wire::Connection>>& connections,
                      std::chrono::steady_clock::time_point deadline) {
  for (const auto& c : connections) {
    c->stopServing(kStopping);
  }
  bool complete = true;
  for (const auto& c : connections) {
    complete = c->waitIdle(deadline) && complete;
  }
  for (const auto& c : connections) {
    c->close(kStopping);
  }
  for (const auto& c : connections) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    complete = c->ended().wait(std::max<int>(0, static_cast<int>(left.count()))) ==
                   FutureState::FinishedWithValue &&
               complete;
  }
  return complete;
}

}  // namespace

bool DirectoryServer::drain(std::chrono::steady_clock::time_point deadline) {
  std::lock_guard<std::mutex> lifecycle(_lifecycle);
  std::vector<std::unique_ptr<wire::LocalListener>> listeners;
  std::vector<std::shared_ptr<wire::Connection>> connections;
  wire::Transport* transport;
  {
    // From here accept() turns new connections away, so this set is final.
    std::lock_guard<std::mutex> lock(_mutex);
    _draining = true;
    listeners.swap(_localListeners);
    transport = _transport.get();  // stays while _lifecycle is held
    _endpoints.clear();
    connections.assign(_connections.begin(), _connections.end());
  }
  // Refusing first: once the endpoints are gone, no request is let in any more.
  for (const auto& c : connections) {
    c->stopServing(kStopping);
  }
  for (auto& l : listeners) {
    l->close();
  }
  if (transport != nullptr) {
    transport->stopListening();
  }
  return drainConnections(connections, deadline);
}

bool JoinedDirectory::drain(std::chrono::steady_clock::time_point deadline) {
  return drainConnections({_connection}, deadline);
}

JoinedDirectory::JoinedDirectory(std::string url, std::unique_ptr<wire::Transport> transport,
                                 std::shared_ptr<wire::Connection> connection)
    : _url(std::move(url)), _transport(std::move(transport)), _connection(std::move(connection)) {}

JoinedDirectory::~JoinedDirectory() {
  close();
}

Future<std::shared_ptr<JoinedDirectory>> JoinedDirectory::join(const std::string& url,
                                                               const EndpointOptions& options) {
  std::unique_ptr<wire::Transport> transport;
  wire::ChannelPtr channel;
  try {
    if (wire::isLocalUrl(url)) {
      channel = wire::connectLocal(url);
    } else {
      transport = std::make_unique<wire::Transport>();
      channel = transport->connect(url, transportOptions(options));
    }
  } catch (const std::exception& e) {
    return makeFutureError<std::shared_ptr<JoinedDirectory>>(e.what());
  }
  auto connection = wire::Connection::create(channel);
  auto joined = std::make_shared<JoinedDirectory>(url, std::move(transport), connection);
  connection->start();
  Promise<std::shared_ptr<JoinedDirectory>> promise;
  Future<std::shared_ptr<JoinedDirectory>> result = promise.future();
  (void)connection->lookup(Session::kDirectoryName)
      .then([promise, joined](Future<AnyObject> directory) mutable {
        if (directory.wait(FutureTimeout_None) != FutureState::FinishedWithValue) {
          promise.setError("Cannot join the directory at " + joined->url() + ": " +
                           directory.error(FutureTimeout_None));
          return;
        }
        {
          std::lock_guard<std::mutex> lock(joined->_mutex);
          joined->_directoryObject = directory.value(FutureTimeout_None);
        }
        promise.setValue(joined);
      });
  return result;
}

bool JoinedDirectory::isConnected() const {
  return _connection->isOpen();
}

AnyObject JoinedDirectory::directoryObject() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _directoryObject;
}

template <typename T>
Future<T> JoinedDirectory::lostError() const {
  return makeFutureError<T>("The connection to the directory at " + _url + " is lost");
}

Future<AnyObject> JoinedDirectory::service(const std::string& name) {
  if (!isConnected()) {
    return lostError<AnyObject>();
  }
  if (name == Session::kDirectoryName) {
    return makeReadyFuture(directoryObject());
  }
  return _connection->lookup(name);
}

Future<std::vector<ServiceInfo>> JoinedDirectory::services() {
  if (!isConnected()) {
    return lostError<std::vector<ServiceInfo>>();
  }
  using Listed = std::vector<std::tuple<std::string, unsigned int>>;
  return directoryObject()->async<Listed>("services").andThen([](const Listed& listed) {
    std::vector<ServiceInfo> out;
    out.reserve(listed.size());
    for (const auto& entry : listed) {
      out.push_back(ServiceInfo{std::get<0>(entry), std::get<1>(entry)});
    }
    return out;
  });
}

Future<unsigned int> JoinedDirectory::registerService(const std::string& name,
                                                      const AnyObject& object) {
  if (!object) {
    return makeFutureError<unsigned int>("Cannot register a null object as service \"" + name +
                                         "\"");
  }
  if (!isConnected()) {
    return lostError<unsigned int>();
  }
  return directoryObject()->async<unsigned int>("registerService", name, object);
}

Future<void> JoinedDirectory::unregisterService(unsigned int serviceId) {
  if (!isConnected()) {
    return lostError<void>();
  }
  return directoryObject()->async<void>("unregisterService", serviceId);
}

void JoinedDirectory::close() {
  _connection->close("The session left the directory");
}

}  // namespace detail
}  // namespace ka
