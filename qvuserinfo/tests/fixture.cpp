#include "fixture.hpp"

#include <qvknowledge/knowledge_client.hpp>
#include <qvusersession/usersession_client.hpp>

#include <ka/dynamicobjectbuilder.hpp>

#include <algorithm>
#include <chrono>
#include <utility>

namespace userinfo_test {

namespace {

LogLine lineOf(ka::LogLevel level, const std::string& category, const std::string& function,
               const std::string& message, const std::string& file = "", int line = 0) {
  return std::to_string(static_cast<int>(level)) + " " + category + " " + function + " '" + file +
         "':" + std::to_string(line) + " " + message;
}

}  // namespace

LogLine storeLine(ka::LogLevel level, const std::string& function, const std::string& message) {
  return lineOf(level, "QVUserInfoPrivate", function, message);
}

LogLine frontLine(ka::LogLevel level, const std::string& function, const std::string& message) {
  return lineOf(level, "QVUserInfo", function, message);
}

LogLine serviceAbsent() {
  return frontLine(ka::LogLevel::Error, "xCheckUserSession",
                   "Serice \"QVUserSession\" is needed but not yet registered");
}

StoreCall storeCall(const std::string& method, const Strings& args) {
  std::string call = method + "(";
  for (std::size_t i = 0; i < args.size(); ++i) {
    call += (i ? ", " : "") + args[i];
  }
  return call + ")";
}

Emission emission(int userId, const std::string& name, const std::string& value) {
  return std::to_string(userId) + " " + name + (value.empty() ? "" : " " + value);
}

std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

std::string describe(const ka::AnyValue& value) {
  const std::string signature = value.signature(true).toString();
  if (signature == "s") {
    return "s:" + value.toString();
  }
  if (signature == "b") {
    return std::string("b:") + (value.toBool() ? "true" : "false");
  }
  try {
    return signature + ":" + std::to_string(value.toInt64());
  } catch (const std::exception&) {
    return signature + ":";  // empty, void, or not a number
  }
}

// --- RecordingStore ------------------------------------------------------------------------

template <typename F>
auto RecordingStore::recorded(const char* method, Strings args, F&& call) const {
  {
    std::lock_guard lock(mutex_);
    calls_.push_back(storeCall(method, args));
    if (!failing_.empty() && failing_ == method) {
      throw QV::KnowledgeStoreError(failure_);
    }
  }
  struct Ended {
    const RecordingStore& self;
    ~Ended() {
      std::lock_guard lock(self.mutex_);
      self.changed_.notify_all();
    }
  } ended{*this};
  return call();
}

Strings RecordingStore::getObject(S d, S s, S p) const {
  return recorded("getObject", {d, s, p}, [&] { return inner_.getObject(d, s, p); });
}
bool RecordingStore::contains(S d, S s, S p, S o) const {
  return recorded("contains", {d, s, p, o}, [&] { return inner_.contains(d, s, p, o); });
}
Rows RecordingStore::queryTriplet(S d, S s, S p, S o) const {
  return recorded("queryTriplet", {d, s, p, o}, [&] { return inner_.queryTriplet(d, s, p, o); });
}
void RecordingStore::update(S d, S s, S p, S o) {
  recorded("update", {d, s, p, o}, [&] { inner_.update(d, s, p, o); });
}
void RecordingStore::add(S d, S s, S p, S o) {
  recorded("add", {d, s, p, o}, [&] { inner_.add(d, s, p, o); });
}
void RecordingStore::remove(S d, S s, S p, S o) {
  recorded("remove", {d, s, p, o}, [&] { inner_.remove(d, s, p, o); });
}
void RecordingStore::addMany(const std::vector<QV::Triplet>& triplets) {
  recorded("addMany", {}, [&] { inner_.addMany(triplets); });
}

StoreCalls RecordingStore::calls() const {
  std::lock_guard lock(mutex_);
  return calls_;
}

void RecordingStore::clear() {
  std::lock_guard lock(mutex_);
  calls_.clear();
}

void RecordingStore::failCallsOf(const std::string& method, const std::string& text) {
  std::lock_guard lock(mutex_);
  failing_ = method;
  failure_ = text;
}

bool RecordingStore::waitUntil(const std::function<bool()>& done) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs), done);
}

// --- LogCapture ----------------------------------------------------------------------------

LogCapture::LogCapture()
    : handler_([state = state_](const ka::log::Message& m) {
        if (m.category != "QVUserInfo" && m.category != "QVUserInfoPrivate") {
          return;
        }
        std::lock_guard lock(state->mutex);
        state->lines.push_back(lineOf(m.level, m.category, m.function, m.message, m.file, m.line));
      }) {}

LogLines LogCapture::lines() const {
  std::lock_guard lock(state_->mutex);
  return state_->lines;
}

void LogCapture::clear() {
  std::lock_guard lock(state_->mutex);
  state_->lines.clear();
}

// --- Fixtures ------------------------------------------------------------------------------

void UserInfoTest::SetUp() {
  ka::log::setDefaultHandlerEnabled(false);
  ka::log::setVerbosity("QVUserInfo*", ka::LogLevel::Debug);
  session = ka::makeSession();
  services = ka::makeSession(session);
  services->registerService(QV::KnowledgeClient::kServiceName, QV::makeKnowledgeObject(triplets))
      .value(kWaitMs);
}

void UserInfoTest::TearDown() {
  services->close();
  session->close();
  ka::log::resetVerbosity();
  ka::log::setDefaultHandlerEnabled(true);
}

std::unique_ptr<QV::QVUserInfoPrivate> UserInfoTest::makeStore() {
  QV::KnowledgeClient knowledge(session->service(QV::KnowledgeClient::kServiceName).value(kWaitMs));
  return std::make_unique<QV::QVUserInfoPrivate>(knowledge, [date = today] { return *date; });
}

void UserInfoTest::seed(const Rows& rows) {
  for (const auto& row : rows) {
    triplets->inner().update(row.at(0), row.at(1), row.at(2), row.at(3));
  }
}

Strings UserInfoTest::stored(const std::string& domain, int userId, const std::string& name) {
  return triplets->inner().getObject(domain, std::to_string(userId), name);
}

Rows UserInfoTest::rowsOf(int userId) {
  return triplets->inner().queryTriplet("*", std::to_string(userId), "*", "*");
}

void UserInfoTest::forget() {
  triplets->clear();
  capture.clear();
}

ka::AnyObject scriptedUsers(int focused, Ids known, const std::string& checkFailure,
                            bool deletedUsersSignal) {
  ka::DynamicObjectBuilder builder;
  builder.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  builder.advertiseMethod("getFocusedUser", [focused]() -> int { return focused; });
  builder.advertiseMethod("doesUserExist", [known, checkFailure](int userId) -> bool {
    if (!checkFailure.empty()) {
      throw std::runtime_error(checkFailure);
    }
    return std::count(known.begin(), known.end(), userId) > 0;
  });
  builder.advertiseSignal<Ids>("createdUsers");
  if (deletedUsersSignal) {
    builder.advertiseSignal<Ids>("deletedUsers");
  }
  return builder.object();
}

void FrontTest::TearDown() {
  // The sessions go first: the published front is held by its registration.
  if (clientSession) {
    clientSession->close();
  }
  services->close();
  session->close();
  client.reset();
  front.reset();
  UserInfoTest::TearDown();
}

void FrontTest::publishUsers(ka::AnyObject object, const std::string& name) {
  usersId = services->registerService(name, object ? object : QV::makeUserSessionObject(users))
                .value(kWaitMs);
}

void FrontTest::withdrawUsers() {
  services->unregisterService(usersId).value(kWaitMs);
}

void FrontTest::startFront() {
  front = boost::make_shared<QV::QVUserInfo>(session);
  session->registerService("QVUserInfo", ka::makeObject(front)).value(kWaitMs);
  clientSession = ka::makeSession(session);
  client = clientSession->service("QVUserInfo").value(kWaitMs);
  const auto received = received_;
  client
      ->connect("userInfoEdited",
                [received](int userId, const std::string& name, const ka::AnyValue& value) {
                  std::lock_guard lock(received->mutex);
                  received->edited.push_back(emission(userId, name, describe(value)));
                })
      .value(kWaitMs);
  client
      ->connect("userInfoRemoved",
                [received](int userId, const std::string& name) {
                  std::lock_guard lock(received->mutex);
                  received->removed.push_back(emission(userId, name));
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

}  // namespace userinfo_test
