#include "service_host.hpp"

#include "userinfo_relay.hpp"

#include <qvknowledge/knowledge_service.hpp>
#include <qvstorage/store_factory.hpp>
#include <qvuserinfo/qvuserinfo.hpp>
#include <qvusersession/usersession_service.hpp>

#include <ka/log.hpp>

#include <boost/make_shared.hpp>

namespace qvuserinfod {
namespace {

constexpr const char kCategory[] = "qvuserinfod";
constexpr const char kUserInfoName[] = "QVUserInfo";
// How long a start step that talks to another process may take (connecting, registering).
constexpr int kStartWaitMs = 10000;

template <typename T>
T waitFor(ka::Future<T> future, const char* step) {
  if (future.wait(kStartWaitMs) == ka::FutureState::Running) {
    throw StartError(step, "no answer within " + std::to_string(kStartWaitMs / 1000) + " s");
  }
  if (future.hasError(ka::FutureTimeout_None)) {
    throw StartError(step, future.error(ka::FutureTimeout_None));
  }
  if constexpr (!std::is_void_v<T>) {
    return future.value(ka::FutureTimeout_None);
  }
}

}  // namespace

ServiceHost::ServiceHost(const Settings& settings) : _settings(settings) {
  _session = ka::makeSession();
  ka::EndpointOptions endpoint;
  endpoint.token = settings.token;
  try {
    // Joined first: services registered before connect() would stay in the own directory.
    if (!settings.connect.empty()) {
      waitFor(_session->connect(settings.connect, endpoint), "connect");
    }

    openStores();
    waitFor(_session->registerService(QV::KnowledgeService::kServiceName,
                                      QV::makeKnowledgeObject(_store)),
            "publish QVKnowledge");

    if (_users) {
      waitFor(_session->registerService(QV::UserSessionService::kServiceName,
                                        QV::makeUserSessionObject(_users)),
              "publish QVUserSession");
    }

    try {
      _userInfo = boost::make_shared<QV::QVUserInfo>(_session);
    } catch (const std::exception& e) {
      throw StartError("user information service", e.what());
    }
    if (auto feed = _storage->feed()) {
      _relay = std::make_unique<UserInfoRelay>(*_userInfo, std::move(feed));
    }
    waitFor(_session->registerService(kUserInfoName, ka::makeObject(_userInfo)),
            "publish QVUserInfo");

    // Served last: a client that connects finds every service there.
    for (const auto& url : settings.listen) {
      waitFor(_session->listen(url, endpoint), "listen");
    }
  } catch (...) {
    _session->close();
    throw;
  }
}

ServiceHost::~ServiceHost() {
  _relay.reset();
  if (_session) {
    _session->close();
  }
}

void ServiceHost::openStores() {
  try {
    QV::StoreOptions options;
    options.durability = _settings.durability;
    // Without a store URI the database is a file path, whatever it looks like.
    _storage = QV::openStorage(
        _settings.store.empty() ? "sqlite:" + _settings.database : _settings.store, options);
    _store = _storage->openTripletStore();
  } catch (const std::exception& e) {
    throw StartError("database", e.what());
  }
  if (!_settings.ownUserSession) {
    return;
  }
  try {
    _users = boost::make_shared<QV::UserSessionService>(_storage->openUserStore());
  } catch (const std::exception& e) {
    throw StartError("user database", e.what());
  }
}

std::string ServiceHost::readiness() const {
  if (!_settings.connect.empty()) {
    return "connected " + _settings.connect;
  }
  std::string out;
  for (const auto& endpoint : _session->endpoints()) {
    out += (out.empty() ? "" : " ") + endpoint;
  }
  return out;
}

bool ServiceHost::stop(std::chrono::milliseconds limit) {
  bool complete = _session->drain(limit);
  if (!complete) {
    KA_LOG_WARNING(kCategory) << "calls still running after " << limit.count()
                              << " ms were cut short";
  }
  _session->close();
  _relay.reset();
  _userInfo.reset();
  _session.reset();
  // The services' objects went with the session; what is left holds the files.
  const std::weak_ptr<QV::TripletStore> store = _store;
  const boost::weak_ptr<QV::UserSessionService> users = _users;
  _store.reset();
  _users.reset();
  _storage.reset();
  if (!store.expired() || !users.expired()) {
    KA_LOG_WARNING(kCategory) << "a store is still in use after the session closed";
    complete = false;
  }
  return complete;
}

}  // namespace qvuserinfod
