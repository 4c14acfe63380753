#pragma once
// Sessions: where services are published by name and looked up. Every session
// answers the service "ServiceDirectory", whose signals "serviceAdded" and
// "serviceRemoved" (int service id, string name) follow each registration.

#include <ka/api.hpp>
#include <ka/future.hpp>
#include <ka/object.hpp>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace ka {

struct KA_API ServiceInfo {
  std::string name;
  unsigned int serviceId = 0;
};

// How a session listens or connects over sockets.
struct KA_API EndpointOptions {
  // A shared secret, compared in constant time. Listening: when set, every client must present
  // it. Connecting: presented to the server.
  std::string token;
  // Listening on TCP: accept a non-loopback address (a token is then required).
  bool allowNonLoopback = false;
  // The largest frame body accepted from or sent to a peer.
  std::size_t maxFrameBody = std::size_t{16} << 20;
  // Output a connection may hold for a peer that does not read; past it the connection closes.
  std::size_t maxQueuedOutput = std::size_t{64} << 20;
};

namespace detail {
class ServiceDirectory;
}

class KA_API Session : public boost::enable_shared_from_this<Session> {
 public:
  // The name and id under which every directory lists itself.
  static constexpr const char* kDirectoryName = "ServiceDirectory";
  static constexpr unsigned int kDirectoryId = 1;

  explicit Session(boost::shared_ptr<detail::ServiceDirectory> directory);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  // Closes the session.
  ~Session();

  // The object registered under `name`. "ServiceDirectory" answers this session's view of the
  // directory: services registered through it belong to this session. Fails with
  // "Cannot find service \"<name>\"" when none is. An empty protocol accepts any way
  // of reaching the service; in-process sessions accept only that.
  Future<AnyObject> service(const std::string& name, const std::string& protocol = "");
  Future<std::vector<ServiceInfo>> services();
  // Publishes `object` under `name`; fails when the name is empty or taken, or the
  // object is null. The service belongs to this session and goes when it closes. When the
  // future is returned, every direct subscriber of "serviceAdded" has been called for it
  // (unless the call comes from such a subscriber, on the announcing thread: then the
  // announcement follows the current one). The same holds for unregisterService.
  Future<unsigned int> registerService(const std::string& name, AnyObject object);
  // Only the session that registered a service may unregister it.
  Future<void> unregisterService(unsigned int serviceId);

  // Serves this session's directory on `url`: "unix:///path/to.sock", "tcp://host:port" (port
  // 0 picks a free one) or "local://name" (reachable from this process only). Every session that
  // connects there joins the directory. May be called for several urls; fails with the reason
  // when the url cannot be listened on, or when this session joined another directory.
  Future<void> listen(const std::string& url, const EndpointOptions& options = EndpointOptions());
  // The urls this session listens on, as they really are (a chosen port filled in).
  std::vector<std::string> endpoints() const;
  // Joins the directory served at `url`: from then on service() and services() see the
  // services registered anywhere on it, registerService publishes there (calls come over the
  // connection) and "ServiceDirectory" is that directory, whose "serviceAdded" and
  // "serviceRemoved" follow every participant. When the connection is lost, this session's
  // services there are gone and isConnected() is false; connect again to rejoin. Fails for a
  // session that listens, or that is connected already. Announcements reach the subscribers of
  // other participants asynchronously: registerService's guarantee about direct subscribers
  // holds in the serving process only. Services registered before connect stay in this
  // session's own directory.
  Future<void> connect(const std::string& url, const EndpointOptions& options = EndpointOptions());

  // Stops serving other processes gracefully, for a process that is shutting down: stops
  // listening (Unix socket files removed) and turns away new connections; the calls, lookups and
  // subscriptions peers send from then on are refused with "The session is shutting down",
  // while the calls already running finish and their replies go out; then every connection
  // (also the one to a joined directory) ends. Waits for all that at most `limit`: answers true
  // when it all happened in time, false when something was still running (close() then cuts
  // it). The services stay registered in this process until close(). Blocks: not from a method
  // or subscriber that a peer's call runs.
  bool drain(std::chrono::milliseconds limit);
  // Unregisters this session's services ("serviceRemoved" goes out for each, possibly on
  // this thread); afterwards every call fails. The destructor closes too.
  void close();
  // False once closed, or when the connection to a joined directory is lost.
  bool isConnected() const;

 private:
  friend KA_API boost::shared_ptr<Session> makeSession(const boost::shared_ptr<Session>& peer);

  const boost::shared_ptr<detail::ServiceDirectory> _directory;
  struct State;
  const std::unique_ptr<State> _state;
};

using SessionPtr = boost::shared_ptr<Session>;

// A session with a directory of its own.
KA_API SessionPtr makeSession();
// Another session on the same directory as `peer`: both see the same services, and
// each owns what it registered. That is `peer`'s own directory, not one `peer` joined with
// connect().
KA_API SessionPtr makeSession(const SessionPtr& peer);

}  // namespace ka
