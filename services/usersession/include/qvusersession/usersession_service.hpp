#pragma once
// The user-session service "QVUserSession": owns the list of users, hands out their ids and
// remembers which one is focused, kept in a UserStore (qvstorage/user_store.hpp): a SQLite file
// of its own beside the knowledge store (libqvsqlite), or a database shared by several daemons
// (libqvpostgres). Thread-safe; see docs/user-session-service.md.
//
// Ids are positive, handed out in increasing order and never reused, even after the highest one
// is deleted and the service restarts: a deleted user's data may still be in other stores until
// their removal has run, and must never be taken for a new user's.

#include <qvstorage/user_store.hpp>

#include <ka/future.hpp>
#include <ka/object.hpp>
#include <ka/session.hpp>
#include <ka/signal.hpp>

#include <boost/shared_ptr.hpp>

#include <memory>
#include <string>
#include <vector>

// Marks the symbols that libqvusersession exports; everything else stays hidden.
#define QVUSERSESSION_API __attribute__((visibility("default")))

namespace QV {

class QVUSERSESSION_API UserSessionService {
 public:
  static constexpr const char* kServiceName = "QVUserSession";
  static constexpr int kNoUser = UserStore::kNoUser;

  // Serves the users of `store`, and announces the changes other services sharing it make as if
  // they were its own (the focus, kept per service, leaves a user deleted elsewhere first).
  explicit UserSessionService(std::unique_ptr<UserStore> store);
  ~UserSessionService();
  UserSessionService(const UserSessionService&) = delete;
  UserSessionService& operator=(const UserSessionService&) = delete;

  // The signals go out after the change they announce is committed, in the order of the
  // commits, never with a lock of this object held: a subscriber may call back into it. Changes
  // another service sharing the store made are announced too, once this one hears of them.
  // Ids created by one createUser: always one.
  ka::Signal<std::vector<int>> createdUsers;
  // The ids of one deleteUsers, in the caller's order. When the focused user is among them,
  // focusChanged(-1) goes out first.
  ka::Signal<std::vector<int>> deletedUsers;
  // The new focused id, -1 when the focus is cleared. Only on an actual change.
  ka::Signal<int> focusChanged;

  // The focused user's id, or -1 when none is.
  int getFocusedUser() const;
  bool doesUserExist(int userId) const;
  // Every user, in increasing id order.
  std::vector<int> users() const;

  // Adds a user and answers its id, larger than every id handed out before. Throws
  // UserSessionError when the store cannot be written or no id is left.
  int createUser();
  // Deletes every listed user, or none: false, changing nothing, if an id is unknown or listed
  // twice. An empty list answers true and announces nothing.
  bool deleteUsers(const std::vector<int>& userIds);
  // False, changing nothing, for an unknown id. Focusing the focused user answers true and
  // announces nothing.
  bool setFocusedUser(int userId);
  // No focused user afterwards; announces only if one was focused.
  void clearFocus();

  const std::string& path() const noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> _impl;
};

// The middleware object serving `service` (multi-threaded; the service serialises its calls).
QVUSERSESSION_API ka::AnyObject makeUserSessionObject(
    boost::shared_ptr<UserSessionService> service);

// Serves `store` and registers it on `session` as "QVUserSession"; answers the service id.
QVUSERSESSION_API ka::Future<unsigned int> registerUserSessionService(
    const ka::SessionPtr& session, std::unique_ptr<UserStore> store);

}  // namespace QV
