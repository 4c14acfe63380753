#include <ka/future.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using ka::Future;
using ka::FutureState;
using ka::FutureTimeout_None;
using ka::Promise;

// Long enough never to expire on a loaded machine: reaching it means the test failed.
constexpr int kLimit = 10000;

// Runs `f` on a thread joined by the destructor.
class Worker {
 public:
  template <class F>
  explicit Worker(F&& f) : thread_(std::forward<F>(f)) {}
  ~Worker() { thread_.join(); }

 private:
  std::thread thread_;
};

// The text of the E that value() threw, or "" if it returned.
template <class E = ka::FutureError, class T>
std::string thrown(const Future<T>& future, int msecs = ka::FutureTimeout_Infinite) {
  try {
    future.value(msecs);
  } catch (const E& e) {
    return e.what();
  }
  return "";
}

TEST(FutureValue, EveryCopyAndWaiterGetsTheValueSetOnAnotherThreadEvenAfterThePromiseIsGone) {
  auto promise = std::make_unique<Promise<std::vector<int>>>();
  const Future<std::vector<int>> future = promise->future();
  std::atomic<int> matches{0};
  // No time limit: an infinite wait must wake when the value arrives.
  const auto wait = [future, &matches] { matches += future.value() == std::vector<int>{1, 2, 3}; };
  {
    Worker first(wait), second(wait), third(wait);
    Worker setter([p = std::move(promise)] { p->setValue({1, 2, 3}); });
  }
  EXPECT_EQ(matches.load(), 3);
  EXPECT_EQ(future.wait(FutureTimeout_None), FutureState::FinishedWithValue);
  EXPECT_TRUE(future.isFinished() && !future.isRunning() && future.hasValue(FutureTimeout_None));
  EXPECT_FALSE(future.hasError());
  EXPECT_EQ(future.error(), "");
}

TEST(FutureValue, ReadingFromATemporaryLeavesTheValueToOtherCopies) {
  const std::string big(1000, 'v');
  ka::Future<std::string> first = ka::makeReadyFuture(big);
  ka::Future<std::string> second = first;
  // Another copy still holds the state: the value must be copied, not moved out.
  EXPECT_EQ(std::move(first).value(), big);
  EXPECT_EQ(second.value(), big);
  EXPECT_EQ(std::move(second).value(), big);  // sole holder now: moved out
  ka::Promise<std::string> promise;
  ka::Future<std::string> waiting = promise.future();
  std::thread setter([&] { promise.setValue(big); });
  EXPECT_EQ(ka::Future<std::string>(waiting).value(kLimit), big);
  EXPECT_EQ(waiting.value(kLimit), big);
  setter.join();
  EXPECT_EQ(ka::makeFutureError<int>("gone").error(), "gone");
}

TEST(FutureValue, InvalidFutureAndWhatChainsOnItFinishAtOnce) {
  const Future<int> future;
  EXPECT_FALSE(future.isValid());
  EXPECT_EQ(future.wait(), FutureState::None);  // infinite limit, yet returns at once
  EXPECT_FALSE(future.isFinished() || future.isRunning() || future.hasValue() || future.hasError());
  EXPECT_EQ(future.error(), "");
  EXPECT_EQ(thrown(future), "Future is invalid");
  EXPECT_EQ(future.then([](Future<int>) { return 1; }).error(kLimit), "Future is invalid");
}

TEST(FutureTimeout, RunningFutureReportsTheTimeoutAndStaysUsable) {
  Promise<int> promise;
  const Future<int> future = promise.future();
  EXPECT_EQ(thrown<ka::FutureTimeoutError>(future, 5), "Future timeout after 5 ms");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(future.wait(20), FutureState::Running);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  // A zero or negative limit does not wait at all.
  EXPECT_EQ(future.wait(FutureTimeout_None), FutureState::Running);
  EXPECT_FALSE(future.hasValue(FutureTimeout_None) || future.hasError(FutureTimeout_None));
  EXPECT_THROW(future.error(FutureTimeout_None), ka::FutureTimeoutError);
  EXPECT_THROW(future.value(-3), ka::FutureTimeoutError);

  promise.setValue(1);
  EXPECT_EQ(future.value(FutureTimeout_None), 1);
}

TEST(FutureError, FailedFutureThrowsExactlyItsTextAndCanceledOneHasNeitherValueNorError) {
  const Future<int> failed = ka::makeFutureError<int>("disk on fire");
  EXPECT_EQ(failed.wait(), FutureState::FinishedWithError);
  EXPECT_TRUE(failed.hasError());
  EXPECT_FALSE(failed.hasValue());
  EXPECT_EQ(failed.error(), "disk on fire");
  EXPECT_EQ(thrown(failed), "disk on fire");
  EXPECT_EQ(thrown(ka::makeFutureError<void>("nope")), "nope");

  Promise<int> promise;
  promise.setCanceled("shutting down");
  const Future<int> canceled = promise.future();
  EXPECT_EQ(canceled.wait(), FutureState::Canceled);
  EXPECT_TRUE(canceled.isFinished());
  EXPECT_FALSE(canceled.hasValue() || canceled.hasError());
  EXPECT_EQ(canceled.error(), "shutting down");
  EXPECT_EQ(thrown(canceled), "shutting down");
}

TEST(FutureContinuation, RunsAtOnceWhenAlreadyFinishedOrElseOnTheCompletingThread) {
  std::thread::id ranOn;
  const Future<int> ready = ka::makeReadyFuture(20).then([&](Future<int> done) {
    ranOn = std::this_thread::get_id();
    return done.value() + 1;
  });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(ready.value(FutureTimeout_None), 21);

  Promise<int> promise;
  auto factor = std::make_unique<int>(2);  // move-only callbacks are accepted
  const Future<std::string> later = promise.future()
                                        .andThen([&, f = std::move(factor)](int v) {
                                          ranOn = std::this_thread::get_id();
                                          return v * *f;
                                        })
                                        .andThen([](const int& v) { return std::to_string(v); });
  std::thread::id completer;
  {
    Worker worker([&, promise]() mutable {
      completer = std::this_thread::get_id();
      promise.setValue(21);
    });
  }
  EXPECT_EQ(later.value(kLimit), "42");
  EXPECT_EQ(ranOn, completer);
}

TEST(FutureContinuation, ThenSeesAFailureButAndThenPassesItOnWithoutCalling) {
  const Future<std::string> recovered = ka::makeFutureError<int>("bad").then(
      [](Future<int> done) { return done.hasError() ? "recovered from " + done.error() : "?"; });
  EXPECT_EQ(recovered.value(), "recovered from bad");

  bool called = false;
  const auto failed = ka::makeFutureError<int>("original").andThen([&](int) { called = true; });
  EXPECT_TRUE(failed.hasError());
  EXPECT_EQ(failed.error(), "original");
  Promise<void> canceling;
  const Future<void> canceled = canceling.future().andThen([&] { called = true; });
  canceling.setCanceled("stop");
  EXPECT_EQ(canceled.wait(kLimit), FutureState::Canceled);
  EXPECT_EQ(canceled.error(), "stop");
  EXPECT_FALSE(called);
}

TEST(FutureContinuation, ThrowingCallbackFailsTheNextFutureWithItsMessage) {
  const Future<int> failing =
      ka::makeReadyFuture(1).then([](Future<int>) -> int { throw std::runtime_error("oops"); });
  EXPECT_EQ(failing.error(), "oops");
  const Future<void> unknown = ka::makeReadyFuture().andThen([] { throw 42; });
  EXPECT_EQ(unknown.error(), "Unknown exception");
}

TEST(FutureContinuation, CallbackMayUseTheFinishingFutureWithoutDeadlock) {
  Promise<int> promise;
  const Future<int> future = promise.future();
  Future<int> inner;
  const Future<int> next = future.then([&](Future<int> done) {
    inner = future.then([](Future<int> f) { return f.value() + 1; });
    return done.value() + future.value(FutureTimeout_None);
  });
  promise.setValue(5);
  EXPECT_EQ(next.value(kLimit), 10);
  EXPECT_EQ(inner.value(kLimit), 6);
}

TEST(PromiseLifetime, LastUnsetCopyDyingBreaksTheFutureAndRunsItsContinuations) {
  auto promise = std::make_unique<Promise<int>>();
  const Future<int> future = promise->future();
  const Future<int> next = future.then([](Future<int> f) { return f.hasError() ? -1 : 1; });
  {
    Promise<int> copy = *promise;
    Promise<int> moved = std::move(copy);
  }
  EXPECT_TRUE(future.isRunning());  // the original is still alive
  Worker worker([p = std::move(promise)]() mutable { p.reset(); });
  EXPECT_EQ(future.error(kLimit), "Promise broken");
  EXPECT_EQ(next.value(kLimit), -1);
}

TEST(PromiseLifetime, CompletingTwiceIsALogicError) {
  Promise<int> promise;
  EXPECT_FALSE(promise.isFinished());
  promise.setValue(1);
  EXPECT_TRUE(promise.isFinished());
  EXPECT_THROW(promise.setValue(2), std::logic_error);
  EXPECT_THROW(promise.setError("late"), std::logic_error);
  EXPECT_THROW(promise.setCanceled(), std::logic_error);
  EXPECT_FALSE(promise.trySetValue(3) || promise.trySetError("late"));
  EXPECT_EQ(promise.future().value(), 1);
}

TEST(PromiseLifetime, RacingCompletionsLetOneWinAndRunEachContinuationOnce) {
  for (int round = 0; round < 200; ++round) {
    Promise<int> promise;
    std::atomic<int> winners{0}, runs{0};
    std::vector<Future<void>> nexts;
    {
      Worker value([promise, &winners]() mutable { winners += promise.trySetValue(1); });
      Worker error([promise, &winners]() mutable { winners += promise.trySetError("lost"); });
      for (int i = 0; i < 5; ++i)
        nexts.push_back(promise.future().then([&runs](Future<int>) { ++runs; }));
    }
    ASSERT_EQ(winners.load(), 1);
    for (const auto& next : nexts)
      ASSERT_TRUE(next.hasValue(kLimit));
    ASSERT_EQ(runs.load(), 5);
  }
}

// The hand-off mode of states completed on threads that must not run chained code: tasks the
// states hand off wait here until the test runs them on its own thread.
struct HandedOff {
  static std::mutex mutex;
  static std::vector<ka::detail::SharedStateBase::Continuation> tasks;  // guarded by mutex

  static void take(ka::detail::SharedStateBase::Continuation task) {
    std::lock_guard<std::mutex> lock(mutex);
    tasks.push_back(std::move(task));
  }
  static void runAll() {
    std::vector<ka::detail::SharedStateBase::Continuation> now;
    {
      std::lock_guard<std::mutex> lock(mutex);
      now.swap(tasks);
    }
    for (auto& task : now) {
      task();
    }
  }
};
std::mutex HandedOff::mutex;
std::vector<ka::detail::SharedStateBase::Continuation> HandedOff::tasks;

template <class T>
Promise<T> handingOffPromise() {
  Promise<T> promise;
  ka::detail::PromiseAccess::state(promise).handContinuationsTo(&HandedOff::take);
  return promise;
}

TEST(HandedOffContinuations, AThenRacingTheCompletionRunsOnceAndNeverOnTheCompletingThread) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  for (int round = 0; round < 500 && std::chrono::steady_clock::now() < until; ++round) {
    Promise<int> promise = handingOffPromise<int>();
    const Future<int> future = promise.future();
    std::atomic<int> runs{0};
    std::thread::id ranOn;
    std::thread::id completer;
    Future<int> next;
    {
      Worker worker([&completer, promise]() mutable {
        completer = std::this_thread::get_id();
        promise.setValue(1);
      });
      next = future.then([&](Future<int> done) {
        ++runs;
        ranOn = std::this_thread::get_id();
        return done.value(FutureTimeout_None) + 1;
      });
    }
    // Chained before the completion: handed off; after it: run at once, here.
    HandedOff::runAll();
    ASSERT_EQ(next.value(FutureTimeout_None), 2) << "round " << round;
    ASSERT_EQ(runs.load(), 1) << "round " << round;
    ASSERT_EQ(ranOn, std::this_thread::get_id()) << "round " << round;
    ASSERT_NE(ranOn, completer) << "round " << round;
  }
}

TEST(HandedOffContinuations, KeepTheStateAliveWhenNobodyElseHoldsItAndWakeWaitersAtOnce) {
  Future<int> next;
  Future<void> failed;
  {
    Promise<int> promise = handingOffPromise<int>();
    Promise<int> broken = handingOffPromise<int>();
    next = promise.future().andThen([](int v) { return v + 1; });
    failed = broken.future().then([](Future<int> done) {
      if (done.error(FutureTimeout_None) != ka::detail::kBrokenPromiseError) {
        throw std::runtime_error("unexpected: " + done.error(FutureTimeout_None));
      }
    });
    const Future<int> waited = promise.future();
    promise.setValue(41);
    // The waiter needs nothing handed off.
    EXPECT_EQ(waited.value(FutureTimeout_None), 41);
  }
  // Only the handed-off tasks hold the two states now, and the chained futures wait for them.
  EXPECT_TRUE(next.isRunning());
  EXPECT_TRUE(failed.isRunning());
  HandedOff::runAll();
  EXPECT_EQ(next.value(FutureTimeout_None), 42);
  EXPECT_TRUE(failed.hasValue(FutureTimeout_None)) << failed.error(FutureTimeout_None);
}

}  // namespace
