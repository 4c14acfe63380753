#include "front_fixture.hpp"

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/log.hpp>

#include <boost/make_shared.hpp>

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace front_test {

namespace {

// The value as the tests compare it: its resolved signature and a readable text.
std::pair<std::string, std::string> describe(const ka::AnyValue& value) {
  const std::string signature = value.signature(true).toString();
  if (signature == "s") {
    return {signature, value.toString()};
  }
  if (signature == "b") {
    return {signature, value.toBool() ? "true" : "false"};
  }
  if (!signature.empty() && signature != "v") {
    return {signature, std::to_string(value.toInt64())};
  }
  return {signature, ""};
}

}  // namespace

LogLine frontLine(ka::LogLevel level, const std::string& function, const std::string& message) {
  return {level, "QVUserInfo", function, message, "", 0};
}

LogLines serviceAbsentLines() {
  const LogLine line = frontLine(ka::LogLevel::Error, "xCheckUserSession",
                                 "Serice \"QVUserSession\" is needed but not yet registered");
  return {line, line};
}

std::ostream& operator<<(std::ostream& out, const Emission& emission) {
  return out << "(" << emission.userId << ", \"" << emission.dataName << "\", "
             << emission.valueSignature << " '" << emission.valueText << "')";
}

UserSessionDouble::UserSessionDouble(UserSessionOptions options) {
  const auto st = state_;
  ka::DynamicObjectBuilder builder;
  builder.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  builder.advertiseMethod("getFocusedUser", [st]() -> int {
    std::lock_guard lock(st->mutex);
    st->calls.push_back("getFocusedUser");
    return st->focusedUser;
  });
  builder.advertiseMethod("doesUserExist", [st](int userId) -> bool {
    std::lock_guard lock(st->mutex);
    st->calls.push_back("doesUserExist(" + std::to_string(userId) + ")");
    if (!st->checkFailure.empty()) {
      throw std::runtime_error(st->checkFailure);
    }
    return std::find(st->knownUsers.begin(), st->knownUsers.end(), userId) != st->knownUsers.end();
  });
  if (options.createdUsersSignal) {
    builder.advertiseSignal<std::vector<int>>("createdUsers");
  }
  if (options.deletedUsersSignal) {
    builder.advertiseSignal<std::vector<int>>("deletedUsers");
  }
  object_ = builder.object();
}

void UserSessionDouble::setFocusedUser(int userId) {
  std::lock_guard lock(state_->mutex);
  state_->focusedUser = userId;
}

void UserSessionDouble::setKnownUsers(std::vector<int> userIds) {
  std::lock_guard lock(state_->mutex);
  state_->knownUsers = std::move(userIds);
}

void UserSessionDouble::failUserChecks(const std::string& text) {
  std::lock_guard lock(state_->mutex);
  state_->checkFailure = text;
}

std::vector<std::string> UserSessionDouble::calls() const {
  std::lock_guard lock(state_->mutex);
  return state_->calls;
}

void UserSessionDouble::clearCalls() {
  std::lock_guard lock(state_->mutex);
  state_->calls.clear();
}

void UserSessionDouble::emitDeletedUsers(const std::vector<int>& userIds) {
  object_->post("deletedUsers", userIds);
}

void UserSessionDouble::emitCreatedUsers(const std::vector<int>& userIds) {
  object_->post("createdUsers", userIds);
}

UserSessionFile::UserSessionFile() {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "qvuserinfo-users-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot make a directory for the user-session store");
  }
  directory_ = pattern;
  path_ = (std::filesystem::path(directory_) / "knowledge.db.users").string();
}

UserSessionFile::~UserSessionFile() {
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

boost::shared_ptr<QV::UserSessionService> UserSessionFile::open() const {
  return boost::make_shared<QV::UserSessionService>(QV::openSqliteUserStore(path_));
}

void FrontTest::SetUp() {
  CapturingTest::SetUp();
  session = ka::makeSession();
  services = servicesOnFrontSession ? session : ka::makeSession(session);
  services->registerService("QVKnowledge", knowledge.object()).value(kWaitMs);
}

void FrontTest::TearDown() {
  // The sessions go first: the published front is held by its registration, and it hears about
  // the services leaving.
  if (clientSession) {
    clientSession->close();
  }
  services->close();
  session->close();
  client.reset();
  front.reset();
  CapturingTest::TearDown();
}

std::unique_ptr<UserSessionDouble> FrontTest::makeUserSession(UserSessionOptions options) {
  return std::make_unique<UserSessionDouble>(options);
}

void FrontTest::publishUserSession(const std::string& name) {
  userSessionId = services->registerService(name, userSession->object()).value(kWaitMs);
}

void FrontTest::publishUserSessionObject(ka::AnyObject object) {
  userSessionId = services->registerService("QVUserSession", std::move(object)).value(kWaitMs);
}

void FrontTest::withdrawUserSession() {
  services->unregisterService(userSessionId).value(kWaitMs);
}

void FrontTest::startFront() {
  front = boost::make_shared<QV::QVUserInfo>(session);
  session->registerService("QVUserInfo", ka::makeObject(front)).value(kWaitMs);
  clientSession = ka::makeSession(session);
  client = clientSession->service("QVUserInfo").value(kWaitMs);
  const auto received = received_;
  client
      ->connect("userInfoEdited",
                [received](int userId, const std::string& dataName, const ka::AnyValue& value) {
                  const auto [signature, text] = describe(value);
                  std::lock_guard lock(received->mutex);
                  received->edited.push_back({userId, dataName, signature, text});
                })
      .value(kWaitMs);
  client
      ->connect("userInfoRemoved",
                [received](int userId, const std::string& dataName) {
                  std::lock_guard lock(received->mutex);
                  received->removed.push_back({userId, dataName, "", ""});
                })
      .value(kWaitMs);
  forget();
}

Emissions FrontTest::edited() const {
  std::lock_guard lock(received_->mutex);
  return received_->edited;
}

Emissions FrontTest::removed() const {
  std::lock_guard lock(received_->mutex);
  return received_->removed;
}

void FrontTest::forget() {
  knowledge.clearCalls();
  capture.clear();
  userSession->clearCalls();
}

}  // namespace front_test
