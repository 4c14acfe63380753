#pragma once
// The services of the daemon on one session: the knowledge store, the user-session service
// (unless another process provides it) and the user information service, served on the
// configured endpoints or published on a directory joined elsewhere; and their orderly end.

#include "options.hpp"

#include <ka/session.hpp>

#include <boost/shared_ptr.hpp>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace QV {
class QVUserInfo;
class Storage;
class TripletStore;
class UserSessionService;
}  // namespace QV

namespace qvuserinfod {

class UserInfoRelay;

// Why the daemon could not start: `what` names the step ("database", "listen", "connect"...),
// the text the reason.
class StartError : public std::runtime_error {
 public:
  StartError(std::string what, const std::string& reason)
      : std::runtime_error(reason), what_(std::move(what)) {}
  const std::string& step() const { return what_; }

 private:
  std::string what_;
};

class ServiceHost {
 public:
  // Opens the stores, publishes the services and starts serving (or joins the directory).
  // Throws StartError; what was started is stopped again.
  explicit ServiceHost(const Settings& settings);
  // Stops at once if stop() was not called.
  ~ServiceHost();
  ServiceHost(const ServiceHost&) = delete;
  ServiceHost& operator=(const ServiceHost&) = delete;

  // The text after "ready ": the endpoints served (chosen ports filled in), or
  // "connected <url>".
  std::string readiness() const;

  // Stops accepting connections and calls, lets the calls in flight finish and their replies go
  // out (for at most `limit`), then closes the session and the stores. False when calls were
  // still running at the limit, or a store was still held by someone after the session closed.
  bool stop(std::chrono::milliseconds limit);

 private:
  void openStores();

  const Settings _settings;
  ka::SessionPtr _session;
  // Where the stores are; when other daemons share it, its feed carries the service's signals
  // to and from them through the relay.
  std::unique_ptr<QV::Storage> _storage;
  std::unique_ptr<UserInfoRelay> _relay;
  std::shared_ptr<QV::TripletStore> _store;
  boost::shared_ptr<QV::UserSessionService> _users;
  boost::shared_ptr<QV::QVUserInfo> _userInfo;
};

}  // namespace qvuserinfod
