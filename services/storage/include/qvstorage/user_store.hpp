#pragma once
// The storage interface behind the user-session service: the users, their never-reused ids and
// the focused user, and its error. The backends (services/sqlite, services/postgres) implement
// it; store_factory.hpp opens one by URI. See docs/user-session-service.md.

#include <qvstorage/api.hpp>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace QV {

// A file or database that cannot be used as the user-session store, or a failed call. The
// text names the file and the reason. A failed call changes nothing.
class QVSTORAGE_API UserSessionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~UserSessionError() override;
};

// What deleting a list of users did.
struct UserDeletion {
  bool focusCleared = false;
};

// Users created or deleted by another service sharing the store, in the order they were committed
// there. Exactly one of the two lists is non-empty.
struct ForeignUserChange {
  std::vector<int> created;
  std::vector<int> deleted;
};

// Where the users, their ids and the focus are kept. The service serialises every call, so an
// implementation needs no lock of its own for them; a failed call throws UserSessionError and
// changes nothing.
class QVSTORAGE_API UserStore {
 public:
  // Told of changes other services sharing the store made; called on a thread of the store's
  // own, never while one of the calls below runs on that thread.
  using ForeignChangeHandler = std::function<void(const ForeignUserChange&)>;

  // What focused() answers when nobody is focused.
  static constexpr int kNoUser = -1;

  virtual ~UserStore();

  virtual int focused() = 0;
  virtual bool exists(int userId) = 0;
  // In increasing id order.
  virtual std::vector<int> all() = 0;
  // The new id, committed: larger than every id handed out before by any service of the store.
  virtual int create() = 0;
  // Empty, changing nothing, when an id is unknown or listed twice.
  virtual std::optional<UserDeletion> remove(const std::vector<int>& userIds) = 0;
  // Empty, changing nothing, for an unknown id; otherwise whether the focus changed.
  virtual std::optional<bool> focus(int userId) = 0;
  // Whether a user was focused.
  virtual bool clearFocus() = 0;
  // Forgets the focus if it is on one of `userIds` (deleted elsewhere); whether it was.
  virtual bool dropFocusOf(const std::vector<int>& userIds) = 0;

  // A store that nobody else writes never calls `handler`; that is the default.
  virtual void onForeignChange(ForeignChangeHandler handler);

  // Where the users live, for messages: a file path, or a database URI without its password.
  virtual const std::string& path() const noexcept = 0;

 protected:
  UserStore() = default;
  UserStore(const UserStore&) = delete;
  UserStore& operator=(const UserStore&) = delete;
};

}  // namespace QV
