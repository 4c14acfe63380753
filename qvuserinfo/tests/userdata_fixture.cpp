#include "userdata_fixture.hpp"

#include <ka/dynamicobjectbuilder.hpp>

#include <boost/make_shared.hpp>

#include <chrono>
#include <stdexcept>
#include <utility>

namespace userdata_test {

namespace {
using Strings = std::vector<std::string>;
using Rows = std::vector<std::vector<std::string>>;
}  // namespace

std::ostream& operator<<(std::ostream& out, const StoreCall& call) {
  out << call.method << "(";
  for (std::size_t i = 0; i < call.args.size(); ++i) {
    out << (i ? ", " : "") << '"' << call.args[i] << '"';
  }
  return out << ")";
}

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << "[" << static_cast<int>(line.level) << " " << line.category << " " << line.function
             << " '" << line.file << "':" << line.line << "] " << line.message;
}

LogLine storeLine(ka::LogLevel level, const std::string& function, const std::string& message) {
  return {level, "QVUserInfoPrivate", function, message, "", 0};
}

std::shared_ptr<void> RecordingKnowledge::State::record(const std::string& method,
                                                        std::vector<std::string> args) {
  std::lock_guard lock(mutex);
  calls.push_back({method, std::move(args)});
  changed.notify_all();
  if (!failingMethod.empty() && failingMethod == method) {
    throw std::runtime_error(failureText);
  }
  ++running;
  return std::shared_ptr<void>(nullptr, [this](void*) {
    std::lock_guard lock(mutex);
    --running;
    changed.notify_all();
  });
}

RecordingKnowledge::RecordingKnowledge() : state_(std::make_shared<State>()) {
  state_->service =
      std::make_unique<QV::KnowledgeService>(std::make_shared<QV::SqliteTripletStore>(":memory:"));
  using S = const std::string&;
  const auto st = state_;
  ka::DynamicObjectBuilder builder;
  builder.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  builder.advertiseMethod("getObject", [st](S d, S s, S p) -> Strings {
    const auto running = st->record("getObject", {d, s, p});
    return st->service->getObject(d, s, p);
  });
  builder.advertiseMethod("contains", [st](S d, S s, S p, S o) -> bool {
    const auto running = st->record("contains", {d, s, p, o});
    return st->service->contains(d, s, p, o);
  });
  builder.advertiseMethod("update", [st](S d, S s, S p, S o) {
    const auto running = st->record("update", {d, s, p, o});
    st->service->update(d, s, p, o);
  });
  builder.advertiseMethod("remove", [st](S d, S s, S p, S o) {
    const auto running = st->record("remove", {d, s, p, o});
    st->service->remove(d, s, p, o);
  });
  builder.advertiseMethod("queryTriplet", [st](S d, S s, S p, S o) -> Rows {
    const auto running = st->record("queryTriplet", {d, s, p, o});
    return st->service->queryTriplet(d, s, p, o);
  });
  object_ = builder.object();
}

StoreCalls RecordingKnowledge::calls() const {
  std::lock_guard lock(state_->mutex);
  return state_->calls;
}

void RecordingKnowledge::clearCalls() {
  std::lock_guard lock(state_->mutex);
  state_->calls.clear();
}

bool RecordingKnowledge::waitFor(const std::function<bool(const StoreCalls&)>& done, int ms) const {
  std::unique_lock lock(state_->mutex);
  return state_->changed.wait_for(lock, std::chrono::milliseconds(ms),
                                  [&] { return state_->running == 0 && done(state_->calls); });
}

void RecordingKnowledge::failCallsOf(const std::string& method, const std::string& text) {
  std::lock_guard lock(state_->mutex);
  state_->failingMethod = method;
  state_->failureText = text;
}

LogCapture::LogCapture()
    : handler_([state = state_](const ka::log::Message& m) {
        if (m.category != "QVUserInfo" && m.category != "QVUserInfoPrivate") {
          return;
        }
        std::lock_guard lock(state->mutex);
        state->lines.push_back({m.level, m.category, m.function, m.message, m.file, m.line});
      }) {}

LogLines LogCapture::lines() const {
  std::lock_guard lock(state_->mutex);
  return state_->lines;
}

void LogCapture::clear() {
  std::lock_guard lock(state_->mutex);
  state_->lines.clear();
}

void CapturingTest::SetUp() {
  ka::log::setDefaultHandlerEnabled(false);
  ka::log::setVerbosity("QVUserInfo*", ka::LogLevel::Debug);
}

void CapturingTest::TearDown() {
  ka::log::resetVerbosity();
  ka::log::setDefaultHandlerEnabled(true);
}

void UserDataTest::SetUp() {
  CapturingTest::SetUp();
  session = ka::makeSession();
  session->registerService("QVKnowledge", knowledge.object()).value(kWaitMs);
  handle = boost::make_shared<ka::AnyObject>(session->service("QVKnowledge").value(kWaitMs));
  store = makeStore();
  forget();
}

void UserDataTest::TearDown() {
  store.reset();
  session->close();
  CapturingTest::TearDown();
}

std::unique_ptr<QV::QVUserInfoPrivate> UserDataTest::makeStore() {
  return std::make_unique<QV::QVUserInfoPrivate>(handle, [date = today] { return *date; });
}

}  // namespace userdata_test
