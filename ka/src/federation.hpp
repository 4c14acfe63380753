#pragma once
// A directory shared across processes: the session that serves it on endpoints, and the
// sessions that join it from elsewhere.

#include <ka/future.hpp>
#include <ka/object.hpp>
#include <ka/session.hpp>

#include "servicedirectory.hpp"
#include "wire/connection.hpp"
#include "wire/local_endpoints.hpp"
#include "wire/transport.hpp"

#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace ka {
namespace detail {

// Serves a directory on listening endpoints. Every accepted connection is a participant: an
// owner in the directory whose registrations go when its connection does.
class DirectoryServer : public std::enable_shared_from_this<DirectoryServer> {
 public:
  explicit DirectoryServer(boost::shared_ptr<ServiceDirectory> directory);
  ~DirectoryServer();

  // Throws std::exception with the reason.
  void listen(const std::string& url, const EndpointOptions& options);
  std::vector<std::string> endpoints() const;
  bool isListening() const;
  // Stops listening and ends every connection.
  void close();
  // Stops listening and accepting, refuses new requests on every connection, waits until the
  // calls running finish and their replies have gone out, then ends the connections. False when
  // `deadline` passed first (what is left is cut by close()).
  bool drain(std::chrono::steady_clock::time_point deadline);

 private:
  void accept(const wire::ChannelPtr& channel);

  const boost::shared_ptr<ServiceDirectory> _directory;
  // Serialises listen() and close(): the socket transport must not be destroyed while it is
  // listening. Never held by handlers of the transport.
  std::mutex _lifecycle;
  mutable std::mutex _mutex;
  // All guarded by _mutex: the socket transport (made by the first socket url), the local
  // endpoints, every url listened on, and the connections accepted.
  bool _closed = false;
  bool _draining = false;  // accepted connections are turned away
  std::unique_ptr<wire::Transport> _transport;
  std::vector<std::unique_ptr<wire::LocalListener>> _localListeners;
  std::vector<std::string> _endpoints;
  std::set<std::shared_ptr<wire::Connection>> _connections;
};

// A session's membership of a directory served elsewhere, over one connection.
class JoinedDirectory {
 public:
  JoinedDirectory(std::string url, std::unique_ptr<wire::Transport> transport,
                  std::shared_ptr<wire::Connection> connection);
  ~JoinedDirectory();

  // Connects to `url` (waiting for a socket's handshake) and fetches its directory object.
  static Future<std::shared_ptr<JoinedDirectory>> join(const std::string& url,
                                                       const EndpointOptions& options);

  const std::string& url() const { return _url; }
  bool isConnected() const;
  AnyObject directoryObject() const;

  Future<AnyObject> service(const std::string& name);
  Future<std::vector<ServiceInfo>> services();
  Future<unsigned int> registerService(const std::string& name, const AnyObject& object);
  Future<void> unregisterService(unsigned int serviceId);
  void close();
  // Refuses the peer's new requests, waits for the calls running here, then ends the
  // connection once the replies have gone out. False when `deadline` passed first.
  bool drain(std::chrono::steady_clock::time_point deadline);

 private:
  template <typename T>
  Future<T> lostError() const;

  const std::string _url;
  // The I/O thread of a socket connection (null for a local one): declared before the
  // connection, so that it outlives it.
  const std::unique_ptr<wire::Transport> _transport;
  const std::shared_ptr<wire::Connection> _connection;
  mutable std::mutex _mutex;
  // Guarded by _mutex: the directory's object, set once joined.
  AnyObject _directoryObject;
};

}  // namespace detail
}  // namespace ka
