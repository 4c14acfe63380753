#include "test_util.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>

using namespace std::chrono_literals;
using ka::LogLevel;
using ka::log::Message;
using ka::test::finishesInTime;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// Date and time of a formatted line, up to the milliseconds.
const std::string kStamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.";

// Records every message it receives until destroyed.
struct Capture {
  std::vector<std::string> texts() const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> out;
    for (const auto& m : messages)
      out.push_back(m.message);
    return out;
  }

  mutable std::mutex mutex;  // guards messages
  std::vector<Message> messages;
  ka::log::ScopedHandler handler{[this](const Message& m) {
    std::lock_guard<std::mutex> lock(mutex);
    messages.push_back(m);
  }};  // declared last: unregistered before messages dies
};

// Every test starts from the default levels, with the stderr handler quiet.
class Log : public testing::Test {
 protected:
  Log() {
    ka::log::resetVerbosity();
    ka::log::setDefaultHandlerEnabled(false);
  }
};
using LogVerbosity = Log;
using LogMacros = Log;
using LogHandler = Log;
using LogHandlerRemoval = Log;
using LogConcurrency = Log;

}  // namespace

TEST_F(LogVerbosity, ShowsUpToInfoByDefaultAndAnExactNameOrPrefixChangesOnlyWhatItMatches) {
  const auto exact = ka::log::addCategory("VerbExact");
  EXPECT_EQ(ka::log::addCategory("VerbExact"), exact);
  const auto info = ka::log::addCategory("VerbUserInfo");
  EXPECT_TRUE(ka::log::isVisible(exact, LogLevel::Info));
  EXPECT_FALSE(ka::log::isVisible(exact, LogLevel::Verbose));
  EXPECT_FALSE(ka::log::isVisible(exact, LogLevel::Silent));

  ka::log::setVerbosity("VerbExact", LogLevel::Debug);
  ka::log::setVerbosity("VerbUser*", LogLevel::Error);
  EXPECT_TRUE(ka::log::isVisible(exact, LogLevel::Debug));
  EXPECT_EQ(ka::log::verbosity("VerbExactly"), LogLevel::Info);  // an exact name is no prefix
  EXPECT_FALSE(ka::log::isVisible(info, LogLevel::Warning));
  EXPECT_TRUE(ka::log::isVisible("VerbUserInfoPrivate", LogLevel::Error));
}

TEST_F(LogVerbosity, LatestMatchingRuleWinsAlsoForCategoriesRegisteredLater) {
  const auto other = ka::log::addCategory("OrderOther");
  ka::log::setVerbosity("OrderUser*", LogLevel::Debug);
  ka::log::setVerbosity("OrderUserInfo", LogLevel::Error);
  ka::log::setVerbosity("Order*", LogLevel::Verbose);
  ka::log::setVerbosity("OrderUserInfoPrivate", LogLevel::Silent);
  EXPECT_EQ(ka::log::verbosity("OrderUserInfo"), LogLevel::Verbose);  // not registered yet
  const auto info = ka::log::addCategory("OrderUserInfo");
  EXPECT_EQ(ka::log::verbosity(info), LogLevel::Verbose);
  EXPECT_EQ(ka::log::verbosity(other), LogLevel::Verbose);
  EXPECT_EQ(ka::log::verbosity(ka::log::addCategory("OrderUserInfoPrivate")), LogLevel::Silent);
  EXPECT_EQ(ka::log::verbosity(ka::log::addCategory("Unrelated")), LogLevel::Info);

  ka::log::setVerbosity("OrderUser*", LogLevel::Fatal);  // setting it again makes it the latest
  EXPECT_EQ(ka::log::verbosity(info), LogLevel::Fatal);
  EXPECT_EQ(ka::log::verbosity(other), LogLevel::Verbose);
  ka::log::setVerbosity(LogLevel::Debug);  // "*" overrides every earlier rule
  EXPECT_EQ(ka::log::verbosity(info), LogLevel::Debug);
  ka::log::resetVerbosity();
  EXPECT_EQ(ka::log::verbosity(info), LogLevel::Info);
  EXPECT_EQ(ka::log::verbosity(ka::log::addCategory("OrderAfterReset")), LogLevel::Info);
}

TEST_F(LogMacros, MessageBelowTheLevelIsNeverComposedAndKeepsTheCallersElse) {
  const auto cat = ka::log::addCategory("MacroLazy");
  int evaluations = 0;
  auto sideEffect = [&] { return ++evaluations; };
  bool elseTaken = false;
  Capture capture;
  for (bool condition : {true, false}) {
    if (condition)
      KA_LOG_DEBUG(cat) << sideEffect();
    else
      elseTaken = true;
  }
  KA_LOG_VERBOSE("MacroLazy") << sideEffect();
  ka::log::log(LogLevel::Silent, cat, "Silent is never shown", nullptr, nullptr, 0);
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(elseTaken);

  ka::log::setVerbosity("MacroLazy", LogLevel::Debug);
  KA_LOG_DEBUG(cat) << "value " << sideEffect();
  ka::log::setVerbosity("MacroLazy", LogLevel::Silent);
  KA_LOG_FATAL(cat) << sideEffect();
  EXPECT_EQ(evaluations, 1);
  EXPECT_THAT(capture.texts(), ElementsAre("value 1"));
}

TEST_F(LogHandler, ReceivesEveryFieldOfTheMessage) {
  const auto cat = ka::log::addCategory("HandlerFields");
  Capture capture;
  const auto before = std::chrono::system_clock::now();
  const int line = __LINE__ + 1;
  KA_LOG_WARNING(cat) << "user " << 7;
  const auto after = std::chrono::system_clock::now();

  ASSERT_EQ(capture.messages.size(), 1u);
  const Message& got = capture.messages[0];
  EXPECT_EQ(got.level, LogLevel::Warning);
  EXPECT_EQ(got.category, "HandlerFields");
  EXPECT_EQ(got.message, "user 7");
  EXPECT_EQ(got.file, __FILE__);
  EXPECT_EQ(got.function, "TestBody");
  EXPECT_EQ(got.line, line);
  EXPECT_TRUE(before <= got.date && got.date <= after);
}

TEST_F(LogHandler, HandlerThatThrowsLogsOrRemovesItselfNeitherEscapesNorDeadlocks) {
  const auto cat = ka::log::addCategory("HandlerNested");
  std::atomic<int> loggerCalls{0};
  std::atomic<int> selfCalls{0};
  std::atomic<ka::log::HandlerId> self{0};
  ka::log::ScopedHandler thrower([](const Message&) { throw std::runtime_error("boom"); });
  ka::log::ScopedHandler logger([&](const Message& m) {
    ++loggerCalls;
    KA_LOG_ERROR(cat) << "nested after " << m.message;
  });
  self = ka::log::addHandler([&](const Message&) {
    ++selfCalls;
    ka::log::removeHandler(self.load());
  });
  Capture capture;
  testing::internal::CaptureStderr();
  const bool finished = finishesInTime([&] {
    KA_LOG_INFO(cat) << "outer";
    KA_LOG_INFO(cat) << "again";
  });
  const std::string err = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(finished) << "a handler calling into the logger deadlocked";
  EXPECT_EQ(loggerCalls.load(), 2);  // nested messages go to stderr, not to the handlers
  EXPECT_EQ(selfCalls.load(), 1);
  EXPECT_THAT(capture.texts(), ElementsAre("outer", "again"));
  EXPECT_THAT(err, HasSubstr("boom"));
  EXPECT_THAT(err, testing::ContainsRegex(kStamp + "[0-9]{3} E HandlerNested operator\\(\\): "
                                                   "nested after outer\n"));
}

TEST(LogFormat, PadsMillisecondsAndLeavesOutAnUnknownFunction) {
  const auto date = std::chrono::system_clock::from_time_t(0) + 5ms;
  const Message m{LogLevel::Debug, "QVUserInfo", "User 7 does not exist", "", "", 0, date};
  EXPECT_THAT(ka::log::format(m),
              testing::MatchesRegex(kStamp + "005 D QVUserInfo: User 7 does not exist"));
}

TEST_F(LogHandlerRemoval, NoCallRunsOrStartsAfterRemoveHandlerReturns) {
  const auto cat = ka::log::addCategory("RemovalWhileLogging");
  std::promise<void> entered, removed;
  std::atomic<bool> isRemoved{false};
  std::atomic<int> calls{0}, violations{0};
  auto state = std::make_shared<int>(0);
  const std::weak_ptr<int> handlerState = state;
  const auto id =
      ka::log::addHandler([&, state, removedSoon = removed.get_future().share()](const Message&) {
        violations += isRemoved ? 1 : 0;
        if (++calls == 1) {
          entered.set_value();
          // Stay inside this call for a while: removeHandler, running meanwhile, must wait for it.
          violations += removedSoon.wait_for(200ms) == std::future_status::ready ? 1 : 0;
        }
      });
  state.reset();
  // Keeps logging until it has sent 2000 messages after the removal.
  std::thread logger([&] {
    for (int afterRemoval = 0; afterRemoval < 2000; afterRemoval += isRemoved ? 1 : 0)
      KA_LOG_INFO(cat) << "tick";
  });
  EXPECT_EQ(entered.get_future().wait_for(10s), std::future_status::ready);
  ka::log::removeHandler(id);
  EXPECT_TRUE(handlerState.expired());  // the handler is destroyed before removeHandler returns
  isRemoved = true;
  removed.set_value();
  logger.join();
  EXPECT_EQ(violations.load(), 0);
}

TEST_F(LogConcurrency, ThreadsLoggingWhileRulesAndHandlersChangeLoseNothingAndKeepTheirOrder) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 2000;
  const auto cat = ka::log::addCategory("ConcurrentLog");
  Capture capture;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kMessages; ++i)
        KA_LOG_INFO(cat) << t << ' ' << i;
    });
  }
  threads.emplace_back([] {
    for (int i = 0; i < 300; ++i) {
      ka::log::setVerbosity("ConcurrentChurn*", i % 2 ? LogLevel::Debug : LogLevel::Error);
      ka::log::addCategory("ConcurrentChurn" + std::to_string(i));
      // State that dies with its handler: a call after removal would touch freed memory.
      auto calls = std::make_unique<std::atomic<int>>(0);
      ka::log::ScopedHandler handler([c = calls.get()](const Message&) { ++*c; });
    }
  });
  for (auto& th : threads)
    th.join();

  std::vector<int> next(kThreads, 0);
  const auto texts = capture.texts();
  ASSERT_EQ(texts.size(), std::size_t{kThreads * kMessages});
  for (const auto& text : texts) {
    const int t = std::stoi(text);
    ASSERT_EQ(std::stoi(text.substr(text.find(' ') + 1)), next[t]++) << "thread " << t;
  }
  EXPECT_EQ(ka::log::verbosity("ConcurrentChurn7"), LogLevel::Debug);
}
