#include <ka/eventloop.hpp>
#include <ka/log.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using ka::EventLoop;
using ka::Future;
using ka::FutureState;
using ka::Promise;

// Long enough never to expire on a loaded machine: reaching it means the test failed.
constexpr int kLimit = 10000;
constexpr std::chrono::milliseconds kLimitMs{kLimit};

// Sets its future once count() was called `expected` times.
class CountDown {
 public:
  explicit CountDown(int expected) : left_(expected) {}
  void count() {
    if (--left_ == 0) {
      done_.setValue();
    }
  }
  Future<void> done() const { return done_.future(); }

 private:
  std::atomic<int> left_;
  Promise<void> done_;
};

// Blocks a worker without telling the loop (a plain std::future, no BlockingScope), so work
// stays queued behind it.
class RawGate {
 public:
  void open() { promise_.set_value(); }
  void wait() const { future_.wait_for(kLimitMs); }

 private:
  std::promise<void> promise_;
  std::shared_future<void> future_ = promise_.get_future().share();
};

// Collects what the event loop logs.
class LogCapture {
 public:
  LogCapture()
      : handler_([this](const ka::log::Message& m) {
          if (m.category == "ka.eventloop") {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(m.message);
          }
        }) {}
  bool contains(const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& line : lines_) {
      if (line.find(text) != std::string::npos) {
        return true;
      }
    }
    return false;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;  // guarded by mutex_
  ka::log::ScopedHandler handler_;
};

TEST(EventLoopPost, RunsTasksOnItsOwnWorkersOnly) {
  EventLoop loop("post", 2);
  EXPECT_EQ(loop.name(), "post");
  EXPECT_EQ(loop.size(), 2);
  EXPECT_EQ(loop.threadCount(), 2);
  EXPECT_FALSE(loop.isInLoopThread());
  EXPECT_TRUE(loop.async([&] { return loop.isInLoopThread(); }).value(kLimit));
  EventLoop other("other", 1);
  EXPECT_FALSE(other.async([&] { return loop.isInLoopThread(); }).value(kLimit));
}

TEST(EventLoopPost, RunsEveryPostedTask) {
  EventLoop loop("post", 3);
  constexpr int kTasks = 2000;
  CountDown countDown(kTasks);
  for (int i = 0; i < kTasks; ++i) {
    loop.post([&] { countDown.count(); });
  }
  EXPECT_TRUE(countDown.done().hasValue(kLimit));
}

TEST(EventLoopPost, SingleWorkerRunsTasksInQueueOrder) {
  EventLoop loop("order", 1);
  std::vector<int> order;  // touched by the single worker only
  for (int i = 0; i < 100; ++i) {
    loop.post([&order, i] { order.push_back(i); });
  }
  const std::vector<int> seen = loop.async([&] { return order; }).value(kLimit);
  ASSERT_EQ(seen.size(), 100u);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(seen[i], i);
  }
}

TEST(EventLoopPost, AtLeastOneWorkerIsStarted) {
  EventLoop loop("tiny", 0);
  EXPECT_EQ(loop.size(), 1);
  EXPECT_EQ(loop.async([] { return 5; }).value(kLimit), 5);
}

TEST(EventLoopAsync, GivesTheResultOfTheCall) {
  EventLoop loop("async", 2);
  EXPECT_EQ(loop.async([] { return std::string("done"); }).value(kLimit), "done");
  std::atomic<bool> ran{false};
  Future<void> done = loop.async([&] { ran = true; });
  EXPECT_TRUE(done.hasValue(kLimit));
  EXPECT_TRUE(ran.load());
}

TEST(EventLoopAsync, ExceptionFailsTheFutureWithItsMessage) {
  EventLoop loop("async", 1);
  Future<int> failed = loop.async([]() -> int { throw std::invalid_argument("bad input"); });
  EXPECT_EQ(failed.error(kLimit), "bad input");
  EXPECT_EQ(loop.async([] { return 1; }).value(kLimit), 1);
}

TEST(EventLoopAsync, AcceptsMoveOnlyCallables) {
  EventLoop loop("async", 1);
  auto owned = std::make_unique<int>(9);
  EXPECT_EQ(loop.async([p = std::move(owned)] { return *p; }).value(kLimit), 9);
}

TEST(EventLoopAsync, ContinuationOfATaskRunsOnTheWorker) {
  EventLoop loop("async", 1);
  Promise<void> registered;
  Future<int> task = loop.async([registered = registered.future()] {
    registered.wait(kLimit);  // still running when the continuation is attached
    return 1;
  });
  Future<bool> onWorker = task.then([&](Future<int>) { return loop.isInLoopThread(); });
  registered.setValue();
  EXPECT_TRUE(onWorker.value(kLimit));
}

TEST(EventLoopDelay, RunsNoSoonerThanTheDelay) {
  EventLoop loop("delay", 2);
  const auto start = std::chrono::steady_clock::now();
  Future<std::chrono::steady_clock::time_point> ranAt =
      loop.asyncDelay([] { return std::chrono::steady_clock::now(); }, 30ms);
  EXPECT_GE(ranAt.value(kLimit) - start, 30ms);
}

TEST(EventLoopDelay, EarlierDeadlineRunsFirst) {
  EventLoop loop("delay", 1);
  std::vector<int> order;  // touched by the single worker only
  Future<void> late = loop.asyncDelay([&] { order.push_back(2); }, 80ms);
  Future<void> early = loop.asyncDelay([&] { order.push_back(1); }, 10ms);
  ASSERT_TRUE(late.hasValue(kLimit));
  ASSERT_TRUE(early.hasValue(kLimit));
  EXPECT_EQ(loop.async([&] { return order; }).value(kLimit), (std::vector<int>{1, 2}));
}

TEST(EventLoopDelay, ZeroDelayRunsAndExceptionsFailTheFuture) {
  EventLoop loop("delay", 1);
  EXPECT_EQ(loop.asyncDelay([] { return 3; }, 0ms).value(kLimit), 3);
  Future<void> failed = loop.asyncDelay([] { throw std::runtime_error("late failure"); }, 1ms);
  EXPECT_EQ(failed.error(kLimit), "late failure");
}

TEST(ManagedBlocking, SingleWorkerMayWaitOnATaskItQueued) {
  EventLoop loop("blocking", 1);
  Future<int> outer = loop.async([&] { return loop.async([] { return 7; }).value(kLimit); });
  EXPECT_EQ(outer.value(kLimit), 7);
}

TEST(ManagedBlocking, TwoWorkersMayBothWaitOnAThirdTask) {
  EventLoop loop("blocking", 2);
  Promise<int> third;
  CountDown bothStarted(2);
  std::vector<Future<int>> waiters;
  for (int i = 0; i < 2; ++i) {
    waiters.push_back(loop.async([&bothStarted, result = third.future()] {
      bothStarted.count();
      return result.value(kLimit);
    }));
  }
  ASSERT_TRUE(bothStarted.done().hasValue(kLimit));
  // Both workers are busy: this only runs if the loop adds a worker.
  loop.post([third]() mutable { third.setValue(3); });
  EXPECT_EQ(waiters[0].value(kLimit), 3);
  EXPECT_EQ(waiters[1].value(kLimit), 3);
}

TEST(ManagedBlocking, DeepChainOfWaitingTasksCompletes) {
  EventLoop loop("blocking", 1);
  std::function<int(int)> depth = [&](int n) -> int {
    if (n == 0) {
      return 0;
    }
    return loop.async([&depth, n] { return depth(n - 1); }).value(kLimit) + 1;
  };
  EXPECT_EQ(loop.async([&] { return depth(20); }).value(kLimit), 20);
}

TEST(ManagedBlocking, SubscriberWaitingOnAQueuedCallDoesNotStallTheQueue) {
  // Every worker runs a "subscriber" that makes a blocking call queued behind the others.
  EventLoop loop("blocking", 2);
  std::vector<Future<int>> subscribers;
  for (int i = 0; i < 6; ++i) {
    subscribers.push_back(
        loop.async([&loop, i] { return loop.async([i] { return i * 10; }).value(kLimit); }));
  }
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(subscribers[i].value(kLimit), i * 10);
  }
}

TEST(ManagedBlocking, SparesLeaveOnceIdleAndComeBackWhenNeeded) {
  EventLoop loop("blocking", 1);
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

TEST(ManagedBlocking, WaitingOnAFinishedFutureStartsNoSpare) {
  EventLoop loop("blocking", 1);
  loop.async([] { return ka::makeReadyFuture(1).value(kLimit); }).wait(kLimit);
  EXPECT_EQ(loop.threadCount(), 1);
}

TEST(EventLoopShutdown, StopRunsWorkAlreadyQueuedAndRefusesNewWork) {
  EventLoop loop("shutdown", 1);
  RawGate gate;
  loop.post([&] { gate.wait(); });
  std::atomic<int> ran{0};
  for (int i = 0; i < 50; ++i) {
    loop.post([&] { ++ran; });
  }
  EXPECT_FALSE(loop.stop(0ms));  // starts stopping; the worker is still held by the gate
  EXPECT_TRUE(loop.isStopped());
  Future<int> refused = loop.async([] { return 1; });
  EXPECT_EQ(refused.wait(ka::FutureTimeout_None), FutureState::Canceled);
  EXPECT_EQ(refused.error(), ka::kEventLoopStopped);
  gate.open();
  loop.stop();
  EXPECT_EQ(ran.load(), 50);
  EXPECT_EQ(loop.threadCount(), 0);
}

TEST(EventLoopShutdown, QueuedTaskWaitingOnRefusedWorkDoesNotHang) {
  EventLoop loop("shutdown", 1);
  RawGate gate;
  loop.post([&] { gate.wait(); });
  Future<std::string> seen = loop.async([&] { return loop.async([] { return 1; }).error(kLimit); });
  loop.stop(0ms);
  gate.open();
  EXPECT_EQ(seen.value(kLimit), ka::kEventLoopStopped);
}

TEST(EventLoopShutdown, StopCancelsDelaysNotYetDue) {
  EventLoop loop("shutdown", 2);
  Future<int> later = loop.asyncDelay([] { return 1; }, std::chrono::hours(1));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(loop.stop(kLimitMs));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(later.wait(ka::FutureTimeout_None), FutureState::Canceled);
  EXPECT_EQ(later.error(), ka::kEventLoopStopped);
  EXPECT_EQ(loop.asyncDelay([] { return 2; }, 0ms).wait(ka::FutureTimeout_None),
            FutureState::Canceled);
}

TEST(EventLoopShutdown, PostAfterStopIsDroppedWithALog) {
  LogCapture log;
  EventLoop loop("shutdown", 1);
  loop.stop();
  bool ran = false;
  loop.post([&] { ran = true; });
  EXPECT_FALSE(ran);
  EXPECT_TRUE(log.contains("task dropped"));
}

TEST(EventLoopShutdown, StopFromOneOfItsTasksReturnsAtOnce) {
  auto loop = std::make_unique<EventLoop>("shutdown", 2);
  Future<bool> stopped = loop->async([&] {
    loop->stop();
    return loop->isStopped();
  });
  EXPECT_TRUE(stopped.value(kLimit));
  loop.reset();  // joins the workers
}

TEST(EventLoopShutdown, DestructorLetsQueuedWorkFinish) {
  std::atomic<int> ran{0};
  {
    EventLoop loop("shutdown", 2);
    for (int i = 0; i < 200; ++i) {
      loop.post([&] { ++ran; });
    }
  }
  EXPECT_EQ(ran.load(), 200);
}

TEST(EventLoopExceptions, ThrowingTaskIsLoggedAndItsWorkerCarriesOn) {
  LogCapture log;
  EventLoop loop("exceptions", 1);
  loop.post([] { throw std::runtime_error("kaboom"); });
  loop.post([] { throw 42; });
  EXPECT_EQ(loop.async([] { return 1; }).value(kLimit), 1);
  EXPECT_TRUE(log.contains("kaboom"));
  EXPECT_TRUE(log.contains("unknown exception"));
  EXPECT_EQ(loop.threadCount(), 1);
}

// The default loop is process-wide: each case runs in a child process of its own.
class DefaultEventLoop : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(DefaultEventLoop, SizeComesFromTheSetterCalledBeforeFirstUse) {
  EXPECT_EXIT(
      {
        ::setenv("KA_EVENTLOOP_THREADS", "5", 1);
        const bool accepted = ka::setDefaultEventLoopSize(3);
        const int size = ka::defaultEventLoop().size();
        const bool lateAccepted = ka::setDefaultEventLoopSize(4);
        std::exit(accepted && size == 3 && !lateAccepted ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(DefaultEventLoop, SizeComesFromTheEnvironmentOtherwise) {
  EXPECT_EXIT(
      {
        ::setenv("KA_EVENTLOOP_THREADS", "5", 1);
        std::exit(ka::defaultEventLoop().size() == 5 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(DefaultEventLoop, HasAtLeastTwoWorkersByDefault) {
  EXPECT_EXIT(
      {
        ::unsetenv("KA_EVENTLOOP_THREADS");
        ka::EventLoop& loop = ka::defaultEventLoop();
        std::exit(loop.size() >= 2 && &loop == &ka::defaultEventLoop() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(DefaultEventLoop, ExitWithQueuedAndDelayedWorkIsClean) {
  EXPECT_EXIT(
      {
        ka::EventLoop& loop = ka::defaultEventLoop();
        static std::atomic<int> ran{0};
        for (int i = 0; i < 1000; ++i) {
          loop.post([] { ++ran; });
        }
        loop.asyncDelay([] {}, std::chrono::hours(1));
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
          std::mutex mutex;
          std::condition_variable never;
          std::unique_lock<std::mutex> lock(mutex);
          never.wait_for(lock, kLimitMs, [] { return false; });
        });
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  // The gate would hold the worker for kLimit: exit must give up well before.
  EXPECT_LT(std::chrono::steady_clock::now() - start, kLimitMs - 2s);
}

}  // namespace
