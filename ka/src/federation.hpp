#pragma once
// A directory shared across processes: the session that serves it on endpoints, and the
// sessions that join it from elsewhere.

#include <ka/future.hpp>
#include <ka/object.hpp>
#include <ka/session.hpp>

#include "servicedirectory.hpp"
#include "wire/connection.hpp"
#include "wire/transport.hpp"

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

  // Throws std::runtime_error with the reason.
  void listen(const std::string& url);
  std::vector<std::string> endpoints() const;
  bool isListening() const;
  // Stops listening and ends every connection.
  void close();

 private:
  void accept(const wire::ChannelPtr& channel);

  const boost::shared_ptr<ServiceDirectory> _directory;
  mutable std::mutex _mutex;
  // All guarded by _mutex:
  bool _closed = false;
  std::vector<std::unique_ptr<wire::Listener>> _listeners;
  std::set<std::shared_ptr<wire::Connection>> _connections;
};

// A session's membership of a directory served elsewhere, over one connection.
class JoinedDirectory {
 public:
  JoinedDirectory(std::string url, std::shared_ptr<wire::Connection> connection);
  ~JoinedDirectory();

  // Connects to `url` and fetches its directory object.
  static Future<std::shared_ptr<JoinedDirectory>> join(const std::string& url);

  const std::string& url() const { return _url; }
  bool isConnected() const;
  AnyObject directoryObject() const;

  Future<AnyObject> service(const std::string& name);
  Future<std::vector<ServiceInfo>> services();
  Future<unsigned int> registerService(const std::string& name, const AnyObject& object);
  Future<void> unregisterService(unsigned int serviceId);
  void close();

 private:
  template <typename T>
  Future<T> lostError() const;

  const std::string _url;
  const std::shared_ptr<wire::Connection> _connection;
  mutable std::mutex _mutex;
  // Guarded by _mutex: the directory's object, set once joined.
  AnyObject _directoryObject;
};

}  // namespace detail
}  // namespace ka
