// The service front: user resolution through "QVUserSession", delegation to the data store,
// the change signals, and the registration of the class with the middleware at load time.

#include <qvuserinfo/qvuserinfo.hpp>

#include "qvuserinfoprivate.hpp"

#include <qverror/qverror.hpp>
#include <qvknowledge/knowledge_client.hpp>
#include <qvusersession/usersession_client.hpp>

#include <ka/future.hpp>
#include <ka/log.hpp>
#include <ka/objecttypebuilder.hpp>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <typeinfo>
#include <utility>

namespace QV {
namespace {

const std::string defaultDomain = "com.quorvelin.userinfo";
const ka::log::CategoryPtr logCategory = ka::log::addCategory("QVUserInfo");

// The error every failure to follow "ServiceDirectory" becomes.
QVError directoryError(unsigned int line) {
  return QVError("QVUserInfo", "QVUserInfo()", "Can't find service \"ServiceDirectory\"",
                 "src/qvuserinfo", line);
}

// The user-session service there now, or an empty client (logged) when there is none.
UserSessionClient userSessionNow(const ka::ServiceWatcher& watcher) {
  UserSessionClient client(watcher.current());
  if (!client.isValid()) {
    KA_LOG_AT(ka::LogLevel::Error, logCategory, "xCheckUserSession")
        << "Serice \"" << UserSessionClient::kServiceName << "\" is needed but not yet registered";
  }
  return client;
}

}  // namespace

struct QVUserInfo::DeliveryGate {
  std::mutex mutex;
  bool open = true;  // guarded by mutex
};

QVUserInfo::QVUserInfo(const boost::shared_ptr<ka::Session>& session)
    : deliveryGate(std::make_shared<DeliveryGate>()) {
  // The knowledge store is not guarded: its lookup error is the caller's to see as it is.
  KnowledgeClient knowledge(
      session->service(KnowledgeClient::kServiceName).value(ka::FutureTimeout_Infinite));
  dataStore = boost::make_shared<QVUserInfoPrivate>(std::move(knowledge));

  ka::ServiceWatcher::Callbacks callbacks;
  callbacks.arrived = [this](const ka::AnyObject& service) { xSubscribeToUserSession(service); };
  callbacks.lookupFailed = [] {
    KA_LOG_AT(ka::LogLevel::Error, logCategory, "xConnectUserSessionService")
        << "Can't find service \"" << UserSessionClient::kServiceName << "\"";
  };
  try {
    userSession = std::make_unique<ka::ServiceWatcher>(session, UserSessionClient::kServiceName,
                                                       std::move(callbacks));
  } catch (...) {
    throw directoryError(43);
  }
  if (!userSession->current()) {
    KA_LOG_AT(ka::LogLevel::Verbose, logCategory, "QVUserInfo")
        << "Service \"" << UserSessionClient::kServiceName << "\" is not registered yet";
  }
}

QVUserInfo::~QVUserInfo() {
  // The directory first: once its deliveries have ended, no new subscription can appear.
  userSession.reset();
  std::vector<UserSessionSubscriptions> ended;
  {
    std::lock_guard<std::mutex> lock(subscriptionsMutex);
    ended.swap(subscriptions);
  }
  ended.clear();
  // Deliveries of an instance that is gone were not waited for above.
  std::lock_guard<std::mutex> lock(deliveryGate->mutex);
  deliveryGate->open = false;
}

// --- Reads -------------------------------------------------------------------------------

ka::AnyValue QVUserInfo::get(const std::string& dataName) const {
  return get(defaultDomain, xGetFocusedUser(), dataName);
}

ka::AnyValue QVUserInfo::get(int userId, const std::string& dataName) const {
  return get(defaultDomain, userId, dataName);
}

ka::AnyValue QVUserInfo::get(const std::string& domain, const std::string& dataName) const {
  return get(domain, xGetFocusedUser(), dataName);
}

ka::AnyValue QVUserInfo::get(const std::string& domain, int userId,
                             const std::string& dataName) const {
  if (!xCheckUser(userId)) {
    return ka::AnyValue::makeVoid();
  }
  return dataStore->get(userId, dataName, domain);
}

bool QVUserInfo::has(const std::string& dataName) const {
  return has(defaultDomain, xGetFocusedUser(), dataName);
}

bool QVUserInfo::has(int userId, const std::string& dataName) const {
  return has(defaultDomain, userId, dataName);
}

bool QVUserInfo::has(const std::string& domain, const std::string& dataName) const {
  return has(domain, xGetFocusedUser(), dataName);
}

bool QVUserInfo::has(const std::string& domain, int userId, const std::string& dataName) const {
  return xCheckUser(userId) && dataStore->contains(userId, dataName, domain);
}

std::string QVUserInfo::getType(const std::string& domain, const std::string& dataName) const {
  return dataStore->getType(domain, dataName);
}

bool QVUserInfo::checkDateValidity(const std::string& date) {
  (void)date;
  return false;
}

// --- Writes and removals -----------------------------------------------------------------

bool QVUserInfo::set(const std::string& domain, const std::string& dataName,
                     const ka::AnyValue& value) {
  return set(domain, xGetFocusedUser(), dataName, value);
}

bool QVUserInfo::set(const std::string& domain, int userId, const std::string& dataName,
                     const ka::AnyValue& value) {
  return xCheckUser(userId) && dataStore->set(userId, dataName, value, domain);
}

bool QVUserInfo::_set(const std::string& dataName, const ka::AnyValue& value) {
  return _set(xGetFocusedUser(), dataName, value);
}

bool QVUserInfo::_set(int userId, const std::string& dataName, const ka::AnyValue& value) {
  xBeginWrite();
  bool written = false;
  try {
    written = xCheckUser(userId) && dataStore->update(userId, dataName, value);
  } catch (...) {
    (void)xEndWrite(userId);
    throw;
  }
  if (xEndWrite(userId) && written) {
    dataStore->remove(userId, dataName);
    xLogUnknownUser(userId);
    return false;
  }
  if (!written) {
    return false;
  }
  // The caller's value, not the text that was stored.
  userInfoEdited(userId, dataName, value);
  return true;
}

bool QVUserInfo::remove(const std::string& domain, const std::string& dataName) const {
  return remove(domain, xGetFocusedUser(), dataName);
}

bool QVUserInfo::remove(const std::string& domain, int userId, const std::string& dataName) const {
  return xCheckUser(userId) && dataStore->remove(userId, dataName, domain);
}

bool QVUserInfo::_remove(const std::string& dataName) const {
  return _remove(xGetFocusedUser(), dataName);
}

bool QVUserInfo::_remove(int userId, const std::string& dataName) const {
  if (!xCheckUser(userId) || !dataStore->remove(userId, dataName)) {
    return false;
  }
  userInfoRemoved(userId, dataName);
  return true;
}

bool QVUserInfo::removeUser(const std::string& domain) const {
  return removeUser(domain, xGetFocusedUser());
}

bool QVUserInfo::removeUser(const std::string& domain, int userId) const {
  return xCheckUser(userId) && dataStore->removeUser(userId, domain);
}

bool QVUserInfo::_removeUser() const {
  const int userId = xGetFocusedUser();
  if (!xCheckUser(userId)) {
    return false;
  }
  dataStore->removeUser(userId);
  return true;
}

bool QVUserInfo::_removeUser(int userId) const {
  dataStore->removeUser(userId);
  return true;
}

// --- Following "QVUserSession" -------------------------------------------------------------

void QVUserInfo::xSubscribeToUserSession(const ka::AnyObject& service) {
  const UserSessionClient users(service);
  // Each delivery runs only while the gate is open, holding it.
  const auto gated = [this,
                      gate = deliveryGate](void (QVUserInfo::*handler)(const std::vector<int>&)) {
    return [this, gate, handler](const std::vector<int>& ids) {
      std::lock_guard<std::mutex> lock(gate->mutex);
      if (gate->open) {
        (this->*handler)(ids);
      }
    };
  };
  UserSessionSubscriptions made{service.asGenericObject(), {}, {}};
  try {
    made.createdUsers =
        users.onCreatedUsers(gated(&QVUserInfo::xOnCreatedUsers), ka::MetaCallType::Queued);
    made.deletedUsers =
        users.onDeletedUsers(gated(&QVUserInfo::xOnDeletedUsers), ka::MetaCallType::Queued);
  } catch (...) {
    KA_LOG_AT(ka::LogLevel::Error, logCategory, "xConnectUserSessionService")
        << "Could not connect to \"" << UserSessionClient::kServiceName << "\" signals";
  }
  std::lock_guard<std::mutex> lock(subscriptionsMutex);
  subscriptions.erase(
      std::remove_if(subscriptions.begin(), subscriptions.end(),
                     [](const UserSessionSubscriptions& s) { return s.instance.expired(); }),
      subscriptions.end());
  subscriptions.push_back(std::move(made));
}

void QVUserInfo::xOnCreatedUsers(const std::vector<int>& userIds) {
  // New users need nothing from this service; the subscription is kept for symmetry.
  (void)userIds;
}

void QVUserInfo::xOnDeletedUsers(const std::vector<int>& userIds) {
  {
    // Recorded before erasing: a write in flight either sees it or lands before the erasure.
    std::lock_guard<std::mutex> lock(writesMutex);
    if (writesInFlight > 0) {
      usersErasedSince.insert(userIds.begin(), userIds.end());
    }
  }
  // The users are gone from "QVUserSession", so they are not checked; a failure stops here and
  // reaches the signal's deliverer.
  for (const int userId : userIds) {
    dataStore->removeUser(userId);
  }
}

void QVUserInfo::xBeginWrite() {
  std::lock_guard<std::mutex> lock(writesMutex);
  ++writesInFlight;
}

bool QVUserInfo::xEndWrite(int userId) {
  std::lock_guard<std::mutex> lock(writesMutex);
  const bool erased = usersErasedSince.count(userId) > 0;
  if (--writesInFlight == 0) {
    usersErasedSince.clear();
  }
  return erased;
}

int QVUserInfo::xGetFocusedUser() const {
  const UserSessionClient users = userSessionNow(*userSession);
  if (!users.isValid()) {
    return UserSessionClient::kNoUser;
  }
  const int userId = users.getFocusedUser();
  if (userId == UserSessionClient::kNoUser) {
    KA_LOG_AT(ka::LogLevel::Error, logCategory, "xGetFocusedUser") << "There is no focused user";
  }
  return userId;
}

bool QVUserInfo::xCheckUser(int userId) const {
  const UserSessionClient users = userSessionNow(*userSession);
  if (!users.isValid()) {
    return false;
  }
  if (users.doesUserExist(userId)) {
    return true;
  }
  xLogUnknownUser(userId);
  return false;
}

void QVUserInfo::xLogUnknownUser(int userId) {
  KA_LOG_AT(ka::LogLevel::Error, logCategory, "xCheckUser")
      << "User " << userId << " does not exists";
}

// --- Registration with the middleware ------------------------------------------------------

namespace {

// Runs once when the library is loaded, after the constants above.
bool registerQVUserInfoType() {
  using Self = QVUserInfo;
  using S = const std::string&;
  using V = const ka::AnyValue&;
  constexpr auto kAuto = ka::MetaCallType::Auto;

  ka::ObjectTypeBuilder<Self> builder;
  builder.buildFor(true);
  builder.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  builder.advertiseMethod("get", static_cast<ka::AnyValue (Self::*)(S) const>(&Self::get), kAuto,
                          -1);
  builder.advertiseMethod("get", static_cast<ka::AnyValue (Self::*)(int, S) const>(&Self::get),
                          kAuto, -1);
  builder.advertiseMethod("get", static_cast<ka::AnyValue (Self::*)(S, S) const>(&Self::get), kAuto,
                          -1);
  builder.advertiseMethod("get", static_cast<ka::AnyValue (Self::*)(S, int, S) const>(&Self::get),
                          kAuto, -1);
  builder.advertiseMethod("_set", static_cast<bool (Self::*)(S, V)>(&Self::_set), kAuto, -1);
  builder.advertiseMethod("_set", static_cast<bool (Self::*)(int, S, V)>(&Self::_set), kAuto, -1);
  builder.advertiseMethod("set", static_cast<bool (Self::*)(S, S, V)>(&Self::set), kAuto, -1);
  builder.advertiseMethod("set", static_cast<bool (Self::*)(S, int, S, V)>(&Self::set), kAuto, -1);
  builder.advertiseMethod("has", static_cast<bool (Self::*)(S) const>(&Self::has), kAuto, -1);
  builder.advertiseMethod("has", static_cast<bool (Self::*)(int, S) const>(&Self::has), kAuto, -1);
  builder.advertiseMethod("has", static_cast<bool (Self::*)(S, S) const>(&Self::has), kAuto, -1);
  builder.advertiseMethod("has", static_cast<bool (Self::*)(S, int, S) const>(&Self::has), kAuto,
                          -1);
  builder.advertiseMethod("_remove", static_cast<bool (Self::*)(S) const>(&Self::_remove), kAuto,
                          -1);
  builder.advertiseMethod("_remove", static_cast<bool (Self::*)(int, S) const>(&Self::_remove),
                          kAuto, -1);
  builder.advertiseMethod("remove", static_cast<bool (Self::*)(S, S) const>(&Self::remove), kAuto,
                          -1);
  builder.advertiseMethod("remove", static_cast<bool (Self::*)(S, int, S) const>(&Self::remove),
                          kAuto, -1);
  builder.advertiseMethod("removeUser", static_cast<bool (Self::*)(S) const>(&Self::removeUser),
                          kAuto, -1);
  builder.advertiseMethod("removeUser",
                          static_cast<bool (Self::*)(S, int) const>(&Self::removeUser), kAuto, -1);
  builder.advertiseMethod("_removeUser", static_cast<bool (Self::*)() const>(&Self::_removeUser),
                          kAuto, -1);
  builder.advertiseMethod("_removeUser", static_cast<bool (Self::*)(int) const>(&Self::_removeUser),
                          kAuto, -1);
  builder.advertiseMethod("getType", &Self::getType, kAuto, -1);
  builder.advertiseSignal("userInfoEdited", &Self::userInfoEdited, -1);
  builder.advertiseSignal("userInfoRemoved", &Self::userInfoRemoved, -1);
  ka::registerType(typeid(Self), builder.type());
  return true;
}

[[maybe_unused]] const bool typeRegistered = registerQVUserInfoType();

}  // namespace
}  // namespace QV
