#include <qvusersession/usersession_client.hpp>

#include <ka/anyfunction.hpp>
#include <ka/future.hpp>
#include <ka/genericobject.hpp>

#include <boost/weak_ptr.hpp>

namespace QV {
namespace {

template <typename F>
ka::ScopedConnection subscribe(const ka::AnyObject& service, const char* signal, F subscriber,
                               ka::MetaCallType callType) {
  const ka::SignalLink link =
      service
          ->connect(signal,
                    ka::SignalSubscriber(ka::AnyFunction::from(std::move(subscriber)), callType))
          .value(ka::FutureTimeout_Infinite);
  return ka::ScopedConnection(
      link,
      [weak = boost::weak_ptr<ka::GenericObject>(service.asGenericObject())](ka::SignalLink l) {
        if (const auto object = weak.lock()) {
          (void)object->disconnect(l).wait(ka::FutureTimeout_Infinite);
        }
      });
}

}  // namespace

int UserSessionClient::getFocusedUser() const {
  return _service->call<int>("getFocusedUser");
}

bool UserSessionClient::doesUserExist(int userId) const {
  return _service->call<bool>("doesUserExist", userId);
}

UserSessionClient::Ids UserSessionClient::users() const {
  return _service->call<Ids>("users");
}

int UserSessionClient::createUser() const {
  return _service->call<int>("createUser");
}

bool UserSessionClient::deleteUsers(const Ids& userIds) const {
  return _service->call<bool>("deleteUsers", userIds);
}

bool UserSessionClient::setFocusedUser(int userId) const {
  return _service->call<bool>("setFocusedUser", userId);
}

void UserSessionClient::clearFocus() const {
  _service->call<void>("clearFocus");
}

ka::ScopedConnection UserSessionClient::onCreatedUsers(std::function<void(const Ids&)> subscriber,
                                                       ka::MetaCallType callType) const {
  return subscribe(
      _service, "createdUsers", [f = std::move(subscriber)](const Ids& ids) { f(ids); }, callType);
}

ka::ScopedConnection UserSessionClient::onDeletedUsers(std::function<void(const Ids&)> subscriber,
                                                       ka::MetaCallType callType) const {
  return subscribe(
      _service, "deletedUsers", [f = std::move(subscriber)](const Ids& ids) { f(ids); }, callType);
}

ka::ScopedConnection UserSessionClient::onFocusChanged(std::function<void(int)> subscriber,
                                                       ka::MetaCallType callType) const {
  return subscribe(
      _service, "focusChanged", [f = std::move(subscriber)](int id) { f(id); }, callType);
}

}  // namespace QV
