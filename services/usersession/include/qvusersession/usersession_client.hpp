#pragma once
// UserSessionClient: the user-session service "QVUserSession" called through the middleware with
// its own types, and its signals subscribed to, on a handle from a session, whether the service
// runs in this process or another.

#include <ka/metacalltype.hpp>
#include <ka/object.hpp>
#include <ka/scopedconnection.hpp>

#include <functional>
#include <string>
#include <vector>

// Marks the symbols that libqvusersession exports (the same definition as the service's header).
#define QVUSERSESSION_API __attribute__((visibility("default")))

namespace QV {

// Each method is a blocking call of the service's method of the same name; see
// UserSessionService for what they do. A failed call throws ka::FutureError with the service's
// error text; a client on an empty handle throws std::runtime_error "This object is null" from
// every method. Copyable, and safe to use from several threads at once.
class QVUSERSESSION_API UserSessionClient {
 public:
  static constexpr const char* kServiceName = "QVUserSession";
  static constexpr int kNoUser = -1;

  using Ids = std::vector<int>;

  UserSessionClient() = default;
  explicit UserSessionClient(ka::AnyObject service) : _service(std::move(service)) {}

  bool isValid() const { return _service.isValid(); }
  const ka::AnyObject& object() const { return _service; }

  int getFocusedUser() const;
  bool doesUserExist(int userId) const;
  Ids users() const;
  int createUser() const;
  bool deleteUsers(const Ids& userIds) const;
  bool setFocusedUser(int userId) const;
  void clearFocus() const;

  // Subscribes to the signal of the same name; the subscription ends with the returned handle.
  // The handle holds the service weakly: it does not keep a service alive that everyone else let
  // go of (whose subscriptions went with it). Throws ka::FutureError when the service refuses.
  [[nodiscard]] ka::ScopedConnection onCreatedUsers(
      std::function<void(const Ids&)> subscriber,
      ka::MetaCallType callType = ka::MetaCallType::Auto) const;
  [[nodiscard]] ka::ScopedConnection onDeletedUsers(
      std::function<void(const Ids&)> subscriber,
      ka::MetaCallType callType = ka::MetaCallType::Auto) const;
  [[nodiscard]] ka::ScopedConnection onFocusChanged(
      std::function<void(int)> subscriber,
      ka::MetaCallType callType = ka::MetaCallType::Auto) const;

 private:
  ka::AnyObject _service;
};

}  // namespace QV
