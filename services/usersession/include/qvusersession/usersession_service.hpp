#pragma once
// The user-session service "QVUserSession": owns the list of users, hands out their ids and
// remembers which one is focused, kept in a UserStore: by default a SQLite file of its own beside
// the knowledge store, or a database shared by several daemons (libqvpostgres). Thread-safe; see
// docs/user-session-service.md.
//
// SQLite storage: a separate file (by default the knowledge store's path + ".users", see
// userSessionPathBeside) with its own application_id and schema, in WAL mode, waiting for another
// connection's lock up to the busy timeout as the knowledge store does, committing with the
// knowledge store's Durability. It is a separate file so that neither store's open checks,
// schema or write lock ever involve the other: a long write to the knowledge store never delays
// createUser, and a damaged knowledge store does not take the user ids down with it.
//
// Ids are positive, handed out in increasing order and never reused, even after the highest one
// is deleted and the service restarts: a deleted user's data may still be in other stores until
// their removal has run, and must never be taken for a new user's.

#include <qvknowledge/triplet_store.hpp>

#include <ka/future.hpp>
#include <ka/object.hpp>
#include <ka/session.hpp>
#include <ka/signal.hpp>

#include <boost/shared_ptr.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// Marks the symbols that libqvusersession exports; everything else stays hidden.
#define QVUSERSESSION_API __attribute__((visibility("default")))

namespace QV {

// A file that cannot be used as the user-session store, or a SQLite failure during a call. The
// text names the file and the reason. A failed call changes nothing.
class QVUSERSESSION_API UserSessionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~UserSessionError() override;
};

struct UserSessionOptions {
  // The same meaning as the knowledge store's option; pass the same value to both.
  Durability durability = Durability::Full;
  // How long a call (or the open) waits for another connection's lock on the file; the wait
  // tells the event loop that the thread blocks.
  std::chrono::milliseconds busyTimeout{5000};
};

// The file that keeps the users next to the knowledge store at `knowledgeStorePath`
// (":memory:" stays ":memory:").
QVUSERSESSION_API std::string userSessionPathBeside(const std::string& knowledgeStorePath);

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
class QVUSERSESSION_API UserStore {
 public:
  // Told of changes other services sharing the store made; called on a thread of the store's
  // own, never while one of the calls below runs on that thread.
  using ForeignChangeHandler = std::function<void(const ForeignUserChange&)>;

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

class QVUSERSESSION_API UserSessionService {
 public:
  static constexpr const char* kServiceName = "QVUserSession";
  static constexpr int kNoUser = -1;

  // Opens or creates the store at `path` (":memory:" for one that lasts as long as the object).
  // Throws UserSessionError for a file that is not a SQLite database, belongs to another
  // application or a newer version, or is damaged.
  explicit UserSessionService(const std::string& path, UserSessionOptions options = {});
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

// Opens the store at `path` and registers it on `session` as "QVUserSession"; answers the
// service id. Throws UserSessionError when the file cannot be used.
QVUSERSESSION_API ka::Future<unsigned int> registerUserSessionService(
    const ka::SessionPtr& session, const std::string& path, UserSessionOptions options = {});

}  // namespace QV
