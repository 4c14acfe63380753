#pragma once
// QV::QVUserInfo: the user information service. Stores and reads small typed facts about users
// (name, birth date, last seen...) for the focused user of "QVUserSession" or a given one, and
// announces the changes made in its own domain. The library registers the type with the
// middleware when it is loaded; the host constructs one on a session and publishes it.

#include <ka/anyvalue.hpp>
#include <ka/scopedconnection.hpp>
#include <ka/servicewatcher.hpp>
#include <ka/session.hpp>
#include <ka/signal.hpp>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

// libqvuserinfo is built with hidden visibility; this marks what it exports.
#define QVUSERINFO_API __attribute__((visibility("default")))

namespace QV {

class QVUserInfoPrivate;

// Every operation that addresses a user has an overload without the id, which means the user
// focused in "QVUserSession", and one with the id. A user that "QVUserSession" does not know (or
// no user-session service at all) is refused: false, or the void value for get, with the reason
// logged under "QVUserInfo". Operations with a leading underscore work in the service's own
// domain "com.quorvelin.userinfo", the only way to write there; the others take the caller's
// domain first and refuse to edit the service's own. Exceptions are reserved for failed remote
// calls. Safe to call from several threads at once.
class QVUSERINFO_API QVUserInfo {
 public:
  // Emitted after a successful _set, with the caller's value.
  ka::Signal<int, std::string, ka::AnyValue> userInfoEdited;
  // Emitted after a successful _remove.
  ka::Signal<int, std::string> userInfoRemoved;

  // Finds "QVKnowledge" (its lookup error passes through as it is), builds the data store on it,
  // follows "ServiceDirectory" to learn when "QVUserSession" comes and goes (QVError "Can't find
  // service \"ServiceDirectory\"" when that fails), and connects to "QVUserSession" if it is
  // already there.
  explicit QVUserInfo(const boost::shared_ptr<ka::Session>& session);
  // Disconnects every subscription this object made, waiting for deliveries in progress, so that
  // no signal reaches it once it is gone.
  ~QVUserInfo();
  QVUserInfo(const QVUserInfo&) = delete;
  QVUserInfo& operator=(const QVUserInfo&) = delete;

  // The stored value converted to its declared type, the empty value when nothing is stored, the
  // void value when refused. Without a domain: the service's own.
  ka::AnyValue get(const std::string& dataName) const;
  ka::AnyValue get(int userId, const std::string& dataName) const;
  ka::AnyValue get(const std::string& domain, const std::string& dataName) const;
  ka::AnyValue get(const std::string& domain, int userId, const std::string& dataName) const;

  // Writes into the caller's domain; never emits.
  bool set(const std::string& domain, const std::string& dataName, const ka::AnyValue& value);
  bool set(const std::string& domain, int userId, const std::string& dataName,
           const ka::AnyValue& value);

  // Type- and range-checked write into the service's own domain; emits userInfoEdited on success.
  bool _set(const std::string& dataName, const ka::AnyValue& value);
  bool _set(int userId, const std::string& dataName, const ka::AnyValue& value);

  bool has(const std::string& dataName) const;
  bool has(int userId, const std::string& dataName) const;
  bool has(const std::string& domain, const std::string& dataName) const;
  bool has(const std::string& domain, int userId, const std::string& dataName) const;

  // Removes one datum from the caller's domain; never emits.
  bool remove(const std::string& domain, const std::string& dataName) const;
  bool remove(const std::string& domain, int userId, const std::string& dataName) const;

  // Removes one datum from the service's own domain; emits userInfoRemoved on success, false
  // when the datum is absent.
  bool _remove(const std::string& dataName) const;
  bool _remove(int userId, const std::string& dataName) const;

  // Removes all of the user's data in the caller's domain. The id comes last.
  bool removeUser(const std::string& domain) const;
  bool removeUser(const std::string& domain, int userId) const;

  // Removes all of the user's data in every domain but the photo-storage ones; true unless the
  // focused user is refused. The overload with an id neither asks nor refuses: it is how the
  // data of a user already gone from "QVUserSession" is erased.
  bool _removeUser() const;
  bool _removeUser(int userId) const;

  // The type name declared for `dataName` in `domain` ("string", "int", "bool"), "" when none.
  std::string getType(const std::string& domain, const std::string& dataName) const;

  // Always false, whatever the date; kept for in-process callers and not advertised.
  bool checkDateValidity(const std::string& date);

 private:
  // Subscribes to the user signals of an instance of "QVUserSession" that has just arrived; logs
  // and returns on failure, never throws.
  void xSubscribeToUserSession(const ka::AnyObject& service);
  void xOnCreatedUsers(const std::vector<int>& userIds);
  // Erases the data of each deleted user, in list order, without signals.
  void xOnDeletedUsers(const std::vector<int>& userIds);

  // The focused user, or -1 (logged) when there is none or no user-session service.
  int xGetFocusedUser() const;
  // Whether "QVUserSession" knows `userId` (logged when not).
  bool xCheckUser(int userId) const;
  static void xLogUnknownUser(int userId);
  // Brackets a write that checked its user: begin before the check; end after the write, true
  // when a deletion of the user was handled meanwhile, in which case the caller undoes the write.
  void xBeginWrite();
  bool xEndWrite(int userId);

  boost::shared_ptr<QVUserInfoPrivate> dataStore;
  // Follows "QVUserSession" and holds the handle of the instance that is there, if any. Ended
  // first by the destructor: once it is gone no new subscription can appear.
  std::unique_ptr<ka::ServiceWatcher> userSession;
  // The subscriptions to the user signals of an instance that arrived, kept after it left (an
  // instance that lives on still announces deletions) until the instance is gone; they hold it
  // weakly.
  struct UserSessionSubscriptions {
    boost::weak_ptr<ka::GenericObject> instance;
    ka::ScopedConnection createdUsers;
    ka::ScopedConnection deletedUsers;
  };
  mutable std::mutex subscriptionsMutex;
  std::vector<UserSessionSubscriptions> subscriptions;  // guarded by subscriptionsMutex
  // _set checks its user, then writes; a deletion committed in between is erased by a queued
  // delivery that may run before the write lands. The deliveries record the users they erase
  // while writes are in flight, and each write looks for its user there when it is done: either
  // it sees the deletion and undoes itself, or it landed before the erasure, which removes it.
  // The record is emptied whenever no write is in flight.
  mutable std::mutex writesMutex;
  int writesInFlight = 0;          // guarded by writesMutex
  std::set<int> usersErasedSince;  // guarded by writesMutex
  // Deliveries of "createdUsers"/"deletedUsers" may still be queued when this object goes, also
  // from an instance whose handle is gone already, whose subscription the destructor can no
  // longer end. Each delivery runs holding the gate, and only while it is open; the destructor
  // closes it, waiting for a delivery in progress. Shared with the deliveries, which may run
  // after this object is gone.
  struct DeliveryGate;
  const std::shared_ptr<DeliveryGate> deliveryGate;
};

}  // namespace QV
