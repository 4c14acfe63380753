#include "test_util.hpp"

#include <ka/eventloop.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <tuple>

namespace {

using namespace std::chrono_literals;
using ka::EventLoop;
using ka::Future;
using ka::FutureState;
using ka::Promise;

// Long enough never to expire on a loaded machine: reaching it means the test failed.
constexpr int kLimit = 10000;
constexpr std::chrono::milliseconds kLimitMs{kLimit};

TEST(EventLoopPost, EveryPostedTaskRunsBeforeTheDestructorReturns) {
  std::atomic<int> ran{0};
  {
    EventLoop loop("post", 3);
    for (int i = 0; i < 2000; ++i) {
      loop.post([&] { ++ran; });
    }
  }
  EXPECT_EQ(ran.load(), 2000);
}

TEST(EventLoopPost, ZeroSizedLoopRunsTasksInQueueOrderOnOneWorker) {
  EventLoop loop("order", 0);
  EXPECT_EQ(loop.size(), 1);
  std::vector<int> order;  // touched by the single worker only
  std::vector<int> expected;
  for (int i = 0; i < 100; ++i) {
    loop.post([&order, i] { order.push_back(i); });
    expected.push_back(i);
  }
  EXPECT_EQ(loop.async([&] { return order; }).value(kLimit), expected);
}

TEST(EventLoopAsync, RunsTheCallOnItsOwnWorkersAndGivesItsResultOrError) {
  EventLoop loop("async", 1);
  EventLoop other("other", 1);
  EXPECT_FALSE(loop.isInLoopThread());
  EXPECT_TRUE(loop.async([&] { return loop.isInLoopThread(); }).value(kLimit));
  EXPECT_FALSE(other.async([&] { return loop.isInLoopThread(); }).value(kLimit));
  EXPECT_EQ(loop.async([p = std::make_unique<int>(9)] { return *p; }).value(kLimit), 9);
  EXPECT_TRUE(loop.async([] {}).hasValue(kLimit));
  EXPECT_EQ(loop.async([]() -> int { throw std::invalid_argument("bad input"); }).error(kLimit),
            "bad input");
}

TEST(EventLoopDelay, RunsNoSoonerThanDueInDeadlineOrderAndGivesTheResultOrError) {
  EventLoop loop("delay", 1);
  std::vector<int> order;  // touched by the single worker only
  const auto start = std::chrono::steady_clock::now();
  auto late = loop.asyncDelay(
      [&] {
        order.push_back(2);
        return std::chrono::steady_clock::now() - start;
      },
      80ms);
  Future<void> early = loop.asyncDelay([&] { order.push_back(1); }, 10ms);
  EXPECT_GE(late.value(kLimit), 80ms);
  EXPECT_TRUE(early.hasValue(kLimit));
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_EQ(loop.asyncDelay([] { return 3; }, 0ms).value(kLimit), 3);
  Future<void> failed = loop.asyncDelay([] { throw std::runtime_error("late failure"); }, 1ms);
  EXPECT_EQ(failed.error(kLimit), "late failure");
}

TEST(EventLoopExceptions, ThrowingTaskIsLoggedAndItsWorkerCarriesOn) {
  ka::test::LogCapture log("ka.eventloop");
  EventLoop loop("exceptions", 1);
  loop.post([] { throw std::runtime_error("kaboom"); });
  loop.post([] { throw 42; });
  EXPECT_EQ(loop.async([] { return 1; }).value(kLimit), 1);
  EXPECT_TRUE(log.waitFor("kaboom"));
  EXPECT_TRUE(log.waitFor("unknown exception"));
  EXPECT_EQ(loop.threadCount(), 1);
}

TEST(ManagedBlocking, TwoWorkersMayBothWaitOnAThirdTask) {
  EventLoop loop("blocking", 2);
  Promise<int> third;
  std::vector<Promise<void>> started(2);
  std::vector<Future<int>> waiters;
  for (Promise<void>& s : started) {
    waiters.push_back(loop.async([s, result = third.future()]() mutable {
      s.setValue();
      return result.value(kLimit);
    }));
  }
  ASSERT_TRUE(started[0].future().hasValue(kLimit) && started[1].future().hasValue(kLimit));
  // Both workers are busy: this only runs if the loop adds a worker.
  loop.post([third]() mutable { third.setValue(3); });
  EXPECT_EQ(waiters[0].value(kLimit) + waiters[1].value(kLimit), 6);
}

TEST(ManagedBlocking, SparesStartOnlyForRealWaitsAndLeaveOnceIdle) {
  EventLoop loop("blocking", 1);
  loop.async([] { return ka::makeReadyFuture(1).value(kLimit); }).wait(kLimit);
  EXPECT_EQ(loop.threadCount(), 1);  // checked before a short idle timeout could hide a spare
  loop.setSpareIdleTimeout(20ms);
  for (int round = 0; round < 2; ++round) {
    Future<int> workersDuringBlock = loop.async([&] {
      loop.async([] {}).wait(kLimit);
      return loop.threadCount();
    });
    EXPECT_EQ(workersDuringBlock.value(kLimit), 2);
    EXPECT_TRUE(loop.waitForSparesToLeave(kLimitMs));
    EXPECT_EQ(loop.threadCount(), 1);
  }
}

TEST(EventLoopShutdown, StopRunsWorkAlreadyQueuedAndRefusesNewWork) {
  ka::test::LogCapture log("ka.eventloop");
  std::atomic<int> ran{0};
  std::promise<void> gate;  // holds the worker without managed blocking, so work queues up
  EventLoop loop("shutdown", 1);
  loop.post([opened = gate.get_future().share()] { opened.wait_for(kLimitMs); });
  for (int i = 0; i < 50; ++i) {
    loop.post([&] { ++ran; });
  }
  // Runs after stop() began: the call it waits on must be refused, not left hanging.
  Future<std::string> nested =
      loop.async([&] { return loop.async([] { return 1; }).error(kLimit); });
  EXPECT_FALSE(loop.stop(0ms));
  EXPECT_TRUE(loop.isStopped());
  Future<int> refused = loop.async([] { return 1; });
  EXPECT_EQ(refused.wait(ka::FutureTimeout_None), FutureState::Canceled);
  EXPECT_EQ(refused.error(), ka::kEventLoopStopped);
  loop.post([&] { ran += 1000; });
  EXPECT_TRUE(log.waitFor("task dropped"));
  gate.set_value();
  loop.stop();
  EXPECT_EQ(ran.load(), 50);
  EXPECT_EQ(nested.value(kLimit), ka::kEventLoopStopped);
  EXPECT_EQ(loop.threadCount(), 0);
}

TEST(EventLoopShutdown, StopFromATaskReturnsAtOnceAndCancelsDelaysNotYetDue) {
  EventLoop loop("shutdown", 2);
  Future<int> later = loop.asyncDelay([] { return 1; }, std::chrono::hours(1));
  EXPECT_TRUE(loop.async([&] { loop.stop(); }).hasValue(kLimit));
  EXPECT_TRUE(loop.stop(kLimitMs));
  EXPECT_EQ(later.wait(ka::FutureTimeout_None), FutureState::Canceled);
  EXPECT_EQ(later.error(), ka::kEventLoopStopped);
  EXPECT_EQ(loop.asyncDelay([] { return 2; }, 0ms).wait(ka::FutureTimeout_None),
            FutureState::Canceled);
}

// The default loop is process-wide: each EXPECT_EXIT runs in a child process of its own.
class DefaultEventLoop : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(DefaultEventLoop, SizeSetBeforeFirstUseWinsOverTheEnvironmentAndIsFixedAfter) {
  EXPECT_EXIT(
      {
        ::setenv("KA_EVENTLOOP_THREADS", "5", 1);
        const bool accepted = ka::setDefaultEventLoopSize(3);
        const int size = ka::defaultEventLoop().size();
        std::exit(accepted && size == 3 && !ka::setDefaultEventLoopSize(4) ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(DefaultEventLoop, ExitWithQueuedDelayedAndBlockedWorkIsClean) {
  EXPECT_EXIT(
      {
        ka::EventLoop& loop = ka::defaultEventLoop();
        for (int i = 0; i < 1000; ++i) {
          loop.post([] {});
        }
        (void)loop.asyncDelay([] {}, std::chrono::hours(1));
        loop.post([&loop] { loop.async([] {}).wait(kLimit); });
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(DefaultEventLoop, ExitDoesNotHangOnATaskThatNeverEnds) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EXIT(
      {
        ka::defaultEventLoop().post([] {
          // Everything it waits on lives on its own stack: exit destroys nothing under it.
          std::promise<void> never;
          never.get_future().wait_for(kLimitMs);
        });
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  // The task would hold its worker for kLimit: exit must give up well before.
  EXPECT_LT(std::chrono::steady_clock::now() - start, kLimitMs - 2s);
}

// Exit destroys statics in the reverse order of their making, and the default loop is stopped
// only after those made once it started: a value released on a worker then must still find its
// type's description. The handoff, made between the loop and the type, lets the worker release
// the value just after the exit has run past the type.
struct ExitHandoff {
  ~ExitHandoff() {
    std::unique_lock<std::mutex> lock(mutex);
    go = true;
    changed.notify_all();
    changed.wait_for(lock, kLimitMs, [this] { return released; });
  }
  std::mutex mutex;
  std::condition_variable changed;
  bool go = false;        // guarded by mutex
  bool released = false;  // guarded by mutex
};

TEST_F(DefaultEventLoop, AValueReleasedOnAWorkerDuringExitStillFindsItsType) {
  EXPECT_EXIT(
      {
        ka::EventLoop& loop = ka::defaultEventLoop();
        static ExitHandoff handoff;
        auto value =
            std::make_shared<ka::AnyValue>(std::vector<std::tuple<short, short>>{{1, 2}, {3, 4}});
        loop.post([value = std::move(value)]() mutable {
          std::unique_lock<std::mutex> lock(handoff.mutex);
          handoff.changed.wait(lock, [] { return handoff.go; });
          value.reset();
          handoff.released = true;
          handoff.changed.notify_all();
        });
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
