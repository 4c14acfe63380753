#include "ka/log.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using ka::LogLevel;
using ka::log::Message;
using testing::HasSubstr;

namespace {

// Records every message it receives until destroyed.
class Capture {
 public:
  Capture()
      : handler_([this](const Message& m) {
          std::lock_guard<std::mutex> lock(mutex_);
          messages_.push_back(m);
        }) {}

  std::vector<Message> messages() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
  }
  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (const auto& m : messages()) {
      out.push_back(m.message);
    }
    return out;
  }

 private:
  mutable std::mutex mutex_;  // guards messages_
  std::vector<Message> messages_;
  ka::log::ScopedHandler handler_;  // declared last: unregistered before messages_ dies
};

// Runs `work` on its own thread; false if it has not finished in time (the thread is then
// abandoned, as it is presumably deadlocked).
bool finishesWithin(std::function<void()> work, std::chrono::seconds limit) {
  std::packaged_task<void()> task(std::move(work));
  auto done = task.get_future();
  std::thread worker(std::move(task));
  if (done.wait_for(limit) != std::future_status::ready) {
    worker.detach();
    return false;
  }
  worker.join();
  return true;
}

// Every test starts from the default levels, with the stderr handler quiet.
class Log : public testing::Test {
 protected:
  void SetUp() override {
    ka::log::resetVerbosity();
    ka::log::setDefaultHandlerEnabled(false);
  }
  void TearDown() override {
    ka::log::resetVerbosity();
    ka::log::setDefaultHandlerEnabled(true);
  }
};

using LogCategory = Log;
using LogVerbosity = Log;
using LogMacros = Log;
using LogHandler = Log;
using LogHandlerRemoval = Log;
using LogConcurrency = Log;

}  // namespace

TEST_F(LogCategory, SameNameGivesTheSameHandleWithItsName) {
  const auto a = ka::log::addCategory("CatSame");
  EXPECT_EQ(ka::log::addCategory("CatSame"), a);
  EXPECT_NE(ka::log::addCategory("CatSameOther"), a);
  EXPECT_EQ(a->name(), "CatSame");
  // Asking by name registers the category, which then follows later rules.
  EXPECT_FALSE(ka::log::isVisible("CatByName", LogLevel::Debug));
  ka::log::setVerbosity("CatByName", LogLevel::Debug);
  EXPECT_TRUE(ka::log::isVisible(ka::log::addCategory("CatByName"), LogLevel::Debug));
}

TEST_F(LogCategory, ShowsUpToInfoByDefault) {
  const auto cat = ka::log::addCategory("CatDefault");
  EXPECT_EQ(ka::log::verbosity(cat), LogLevel::Info);
  EXPECT_TRUE(ka::log::isVisible(cat, LogLevel::Fatal));
  EXPECT_TRUE(ka::log::isVisible(cat, LogLevel::Info));
  EXPECT_FALSE(ka::log::isVisible(cat, LogLevel::Verbose));
  EXPECT_FALSE(ka::log::isVisible(cat, LogLevel::Silent));
}

TEST_F(LogVerbosity, ExactNameChangesOnlyThatCategoryAndPrefixCoversItsFamily) {
  const auto exact = ka::log::addCategory("VerbExact");
  const auto longer = ka::log::addCategory("VerbExactly");
  const auto info = ka::log::addCategory("VerbUserInfo");
  const auto priv = ka::log::addCategory("VerbUserInfoPrivate");
  ka::log::setVerbosity("VerbExact", LogLevel::Debug);
  ka::log::setVerbosity("VerbUser*", LogLevel::Error);
  EXPECT_EQ(ka::log::verbosity(exact), LogLevel::Debug);
  EXPECT_EQ(ka::log::verbosity(longer), LogLevel::Info);
  EXPECT_EQ(ka::log::verbosity(info), LogLevel::Error);
  EXPECT_EQ(ka::log::verbosity(priv), LogLevel::Error);
  EXPECT_FALSE(ka::log::isVisible(info, LogLevel::Warning));
}

TEST_F(LogVerbosity, StarAloneAndTheGlobalLevelOverrideEarlierRulesUntilReset) {
  const auto a = ka::log::addCategory("VerbStarA");
  const auto b = ka::log::addCategory("VerbStarB");
  ka::log::setVerbosity("VerbStarA", LogLevel::Debug);
  ka::log::setVerbosity("*", LogLevel::Warning);
  EXPECT_EQ(ka::log::verbosity(a), LogLevel::Warning);
  EXPECT_EQ(ka::log::verbosity(b), LogLevel::Warning);
  ka::log::setVerbosity(LogLevel::Verbose);
  EXPECT_EQ(ka::log::verbosity(a), LogLevel::Verbose);
  EXPECT_EQ(ka::log::verbosity("VerbStarNeverRegistered"), LogLevel::Verbose);

  ka::log::resetVerbosity();
  EXPECT_EQ(ka::log::verbosity(a), LogLevel::Info);
  EXPECT_EQ(ka::log::verbosity(ka::log::addCategory("VerbStarLater")), LogLevel::Info);
}

TEST_F(LogVerbosity, LaterRuleWinsOverAnEarlierOne) {
  const auto info = ka::log::addCategory("OrderUserInfo");
  const auto other = ka::log::addCategory("OrderOther");
  ka::log::setVerbosity("Order*", LogLevel::Debug);
  ka::log::setVerbosity("OrderUser*", LogLevel::Error);
  EXPECT_EQ(ka::log::verbosity(info), LogLevel::Error);
  EXPECT_EQ(ka::log::verbosity(other), LogLevel::Debug);

  ka::log::setVerbosity("Order*", LogLevel::Warning);
  EXPECT_EQ(ka::log::verbosity(info), LogLevel::Warning);

  // Setting a pattern again makes it the latest rule.
  ka::log::setVerbosity("OrderUser*", LogLevel::Fatal);
  EXPECT_EQ(ka::log::verbosity(info), LogLevel::Fatal);
  EXPECT_EQ(ka::log::verbosity(other), LogLevel::Warning);
}

TEST_F(LogVerbosity, CategoryRegisteredLaterFollowsTheRulesInOrder) {
  ka::log::setVerbosity("LateUser*", LogLevel::Debug);
  ka::log::setVerbosity("LateUserInfo", LogLevel::Error);
  ka::log::setVerbosity("Late*", LogLevel::Verbose);
  ka::log::setVerbosity("LateUserInfoPrivate", LogLevel::Silent);
  EXPECT_EQ(ka::log::verbosity("LateUserInfo"), LogLevel::Verbose);
  EXPECT_EQ(ka::log::verbosity(ka::log::addCategory("LateUserInfo")), LogLevel::Verbose);
  EXPECT_EQ(ka::log::verbosity(ka::log::addCategory("LateUserInfoPrivate")), LogLevel::Silent);
  EXPECT_EQ(ka::log::verbosity(ka::log::addCategory("LateOther")), LogLevel::Verbose);
  EXPECT_EQ(ka::log::verbosity(ka::log::addCategory("Unrelated")), LogLevel::Info);
}

TEST_F(LogMacros, HiddenMessageIsNeverComposed) {
  const auto cat = ka::log::addCategory("MacroLazy");
  int evaluations = 0;
  auto sideEffect = [&] { return ++evaluations; };
  Capture capture;

  KA_LOG_DEBUG(cat) << "value " << sideEffect();
  KA_LOG_VERBOSE("MacroLazy") << sideEffect();
  EXPECT_EQ(evaluations, 0);

  ka::log::setVerbosity("MacroLazy", LogLevel::Debug);
  KA_LOG_DEBUG(cat) << "value " << sideEffect();
  EXPECT_EQ(evaluations, 1);
  EXPECT_THAT(capture.texts(), testing::ElementsAre("value 1"));
}

TEST_F(LogMacros, EveryLevelMacroReachesTheHandlerWithItsLevel) {
  const auto cat = ka::log::addCategory("MacroLevels");
  ka::log::setVerbosity("MacroLevels", LogLevel::Debug);
  Capture capture;
  KA_LOG_FATAL(cat) << "f";
  KA_LOG_ERROR(cat) << "e";
  KA_LOG_WARNING(std::string("MacroLevels")) << "w";
  KA_LOG_INFO("MacroLevels") << "i";
  KA_LOG_VERBOSE(cat) << "v";
  KA_LOG_DEBUG(cat) << "d";
  const auto got = capture.messages();
  ASSERT_EQ(got.size(), 6u);
  const LogLevel expected[] = {LogLevel::Fatal, LogLevel::Error,   LogLevel::Warning,
                               LogLevel::Info,  LogLevel::Verbose, LogLevel::Debug};
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].level, expected[i]);
    EXPECT_EQ(got[i].category, "MacroLevels");
  }
}

TEST_F(LogMacros, CallersElseStillBindsToTheCallersIf) {
  const auto cat = ka::log::addCategory("MacroElse");
  Capture capture;
  bool elseTaken = false;
  for (bool condition : {true, false}) {
    if (condition)
      KA_LOG_DEBUG(cat) << "hidden";  // not visible: must not swallow the else below
    else
      elseTaken = true;
  }
  EXPECT_TRUE(elseTaken);
  EXPECT_TRUE(capture.messages().empty());
}

TEST_F(LogMacros, ExplicitFunctionContextHasNoSourcePosition) {
  const auto cat = ka::log::addCategory("MacroAt");
  Capture capture;
  const LogLevel level = LogLevel::Warning;
  KA_LOG_AT(level, cat, "xCheckUser") << "User " << 7 << " does not exist";
  KA_LOG_AT(LogLevel::Error, "MacroAt", std::string("getUser")) << "from a string";
  KA_LOG_AT(LogLevel::Debug, cat, "hidden") << "dropped";
  const auto got = capture.messages();
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].function, "xCheckUser");
  EXPECT_EQ(got[0].message, "User 7 does not exist");
  EXPECT_EQ(got[0].file, "");
  EXPECT_EQ(got[0].line, 0);
  EXPECT_EQ(got[1].function, "getUser");
}

TEST_F(LogHandler, ReceivesEveryFieldOfTheMessage) {
  const auto cat = ka::log::addCategory("HandlerFields");
  Capture capture;
  const auto before = std::chrono::system_clock::now();
  // clang-format off
  KA_LOG_WARNING(cat) << "user " << 7; const int line = __LINE__;
  // clang-format on
  const auto after = std::chrono::system_clock::now();

  const auto got = capture.messages();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].level, LogLevel::Warning);
  EXPECT_EQ(got[0].category, "HandlerFields");
  EXPECT_EQ(got[0].message, "user 7");
  EXPECT_EQ(got[0].file, __FILE__);
  EXPECT_EQ(got[0].function, "TestBody");
  EXPECT_EQ(got[0].line, line);
  EXPECT_LE(before, got[0].date);
  EXPECT_GE(after, got[0].date);
}

TEST_F(LogHandler, MessageBelowTheLevelNeverReachesAHandler) {
  Capture capture;
  ka::log::log(LogLevel::Verbose, "HandlerBelow", "dropped", __FILE__, __func__, __LINE__);
  ka::log::log(LogLevel::Silent, "HandlerBelow", "never shown", nullptr, nullptr, 0);
  ka::log::log(LogLevel::Info, "HandlerBelow", "kept", nullptr, nullptr, 0);
  ka::log::setVerbosity("HandlerBelow", LogLevel::Silent);
  KA_LOG_FATAL("HandlerBelow") << "silenced";
  const auto got = capture.messages();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].message, "kept");
  EXPECT_EQ(got[0].file, "");
  EXPECT_EQ(got[0].function, "");
}

TEST_F(LogHandler, ScopedHandlerStopsDeliveryWhenDestroyedAndMovesOwnership) {
  const auto cat = ka::log::addCategory("HandlerScoped");
  int calls = 0;
  ka::log::ScopedHandler outer;
  {
    ka::log::ScopedHandler inner([&](const Message&) { ++calls; });
    KA_LOG_INFO(cat) << "one";
    outer = std::move(inner);
  }
  KA_LOG_INFO(cat) << "two";
  EXPECT_EQ(calls, 2);
  outer.reset();
  KA_LOG_INFO(cat) << "three";
  EXPECT_EQ(calls, 2);
}

TEST_F(LogHandler, ThrowingHandlerNeitherEscapesNorStopsTheOthers) {
  const auto cat = ka::log::addCategory("HandlerThrows");
  ka::log::ScopedHandler thrower([](const Message&) { throw std::runtime_error("boom"); });
  Capture capture;
  testing::internal::CaptureStderr();
  EXPECT_NO_THROW(KA_LOG_ERROR(cat) << "still delivered");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("boom"));
  EXPECT_THAT(capture.texts(), testing::ElementsAre("still delivered"));
}

TEST_F(LogHandler, HandlerThatLogsWritesTheNestedMessageToStderrWithoutRecursing) {
  const auto cat = ka::log::addCategory("HandlerNested");
  std::atomic<int> calls{0};
  ka::log::ScopedHandler handler([&](const Message& m) {
    ++calls;
    KA_LOG_ERROR(cat) << "nested after " << m.message;
  });
  testing::internal::CaptureStderr();
  const bool finished = finishesWithin([&] { KA_LOG_INFO(cat) << "outer"; }, 10s);
  const std::string err = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(finished) << "logging from a handler deadlocked";
  EXPECT_EQ(calls.load(), 1);
  EXPECT_THAT(err, HasSubstr(" E HandlerNested operator(): nested after outer"));
}

TEST_F(LogHandler, DefaultHandlerWritesOneFormattedLineToStderr) {
  ka::log::setDefaultHandlerEnabled(true);
  testing::internal::CaptureStderr();
  KA_LOG_AT(LogLevel::Warning, "HandlerDefault", "xCheckUser") << "User 7 does not exist";
  ka::log::setDefaultHandlerEnabled(false);
  KA_LOG_WARNING("HandlerDefault") << "not written";
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_THAT(err, testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"
                                         "\\.[0-9]{3} W HandlerDefault xCheckUser: "
                                         "User 7 does not exist\n"));
}

TEST(LogFormat, ShowsLocalTimeWithMillisecondsLevelCategoryFunctionAndText) {
  std::tm tm{};
  tm.tm_year = 2026 - 1900;
  tm.tm_mon = 10;
  tm.tm_mday = 22;
  tm.tm_hour = 3;
  tm.tm_min = 10;
  tm.tm_isdst = -1;
  const auto second = std::chrono::system_clock::from_time_t(std::mktime(&tm));

  Message m{LogLevel::Warning, "QVUserInfo", "User 7 does not exist", "", "xCheckUser", 0,
            second + 123ms};
  EXPECT_EQ(ka::log::format(m),
            "2026-11-22 03:10:00.123 W QVUserInfo xCheckUser: User 7 does not exist");

  m.function.clear();
  m.level = LogLevel::Debug;
  m.date = second + 5ms;
  EXPECT_EQ(ka::log::format(m), "2026-11-22 03:10:00.005 D QVUserInfo: User 7 does not exist");
}

TEST_F(LogHandlerRemoval, NoCallRunsOrStartsAfterRemoveHandlerReturns) {
  const auto cat = ka::log::addCategory("RemovalWhileLogging");
  std::mutex mutex;
  std::condition_variable changed;
  bool entered = false;  // guarded by mutex
  bool removed = false;  // guarded by mutex
  std::atomic<bool> removedSeen{false};
  std::atomic<int> violations{0};
  // Storage the handler writes into, destroyed right after removal (ASan would catch a late call).
  auto lines = std::make_unique<std::vector<std::string>>();

  const ka::log::HandlerId id = ka::log::addHandler([&, out = lines.get()](const Message& m) {
    std::unique_lock<std::mutex> lock(mutex);
    if (removed) {
      ++violations;
      return;
    }
    out->push_back(m.message);
    if (!entered) {
      entered = true;
      changed.notify_all();
      // Stay inside this call for a while: removeHandler, now running, must wait for us.
      if (changed.wait_for(lock, 200ms, [&] { return removed; })) {
        ++violations;
      }
    }
  });

  // Keeps logging until it has sent 2000 messages after the removal.
  std::thread logger([&] {
    for (int afterRemoval = 0; afterRemoval < 2000;) {
      KA_LOG_INFO(cat) << "tick";
      afterRemoval += removedSeen.load() ? 1 : 0;
    }
  });
  {
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, 10s, [&] { return entered; }));
  }
  ka::log::removeHandler(id);
  {
    std::lock_guard<std::mutex> lock(mutex);
    removed = true;
  }
  changed.notify_all();
  removedSeen = true;
  lines.reset();
  logger.join();
  EXPECT_EQ(violations.load(), 0);
}

TEST_F(LogHandlerRemoval, HandlerRemovingItselfDoesNotWaitForItself) {
  const auto cat = ka::log::addCategory("RemovalSelf");
  std::atomic<int> calls{0};
  std::atomic<ka::log::HandlerId> self{0};
  self = ka::log::addHandler([&](const Message&) {
    ++calls;
    ka::log::removeHandler(self.load());
  });
  ASSERT_TRUE(finishesWithin([&] { KA_LOG_INFO(cat) << "first"; }, 10s));
  KA_LOG_INFO(cat) << "second";
  EXPECT_EQ(calls.load(), 1);
}

TEST_F(LogConcurrency, ThreadsLoggingAtOnceLoseNothingAndKeepTheirOwnOrder) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 2000;
  const auto cat = ka::log::addCategory("ConcurrentLog");
  Capture capture;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kMessages; ++i) {
        KA_LOG_INFO(cat) << t << ' ' << i;
      }
    });
  }
  // Rules and registrations change meanwhile, on categories the loggers do not use.
  threads.emplace_back([] {
    for (int i = 0; i < 500; ++i) {
      ka::log::setVerbosity("ConcurrentChurn*", i % 2 ? LogLevel::Debug : LogLevel::Error);
      ka::log::addCategory("ConcurrentChurn" + std::to_string(i));
    }
  });
  for (auto& th : threads) {
    th.join();
  }

  std::vector<int> next(kThreads, 0);
  const auto texts = capture.texts();
  ASSERT_EQ(texts.size(), std::size_t{kThreads * kMessages});
  for (const auto& text : texts) {
    const int t = std::stoi(text);
    const int i = std::stoi(text.substr(text.find(' ') + 1));
    ASSERT_EQ(i, next[t]) << "thread " << t << " out of order";
    ++next[t];
  }
  EXPECT_EQ(ka::log::verbosity("ConcurrentChurn7"), LogLevel::Debug);
}

TEST_F(LogConcurrency, HandlersComeAndGoWhileThreadsLog) {
  const auto cat = ka::log::addCategory("ConcurrentHandlers");
  std::atomic<bool> stop{false};
  std::vector<std::thread> loggers;
  for (int t = 0; t < 3; ++t) {
    loggers.emplace_back([&] {
      while (!stop.load()) {
        KA_LOG_INFO(cat) << "tick";
      }
    });
  }
  for (int i = 0; i < 300; ++i) {
    // A handler whose state dies with it: a call after removal would touch freed memory.
    auto calls = std::make_unique<std::atomic<int>>(0);
    ka::log::ScopedHandler handler([c = calls.get()](const Message&) { ++*c; });
  }
  stop = true;
  for (auto& th : loggers) {
    th.join();
  }
}
