#include <ka/future.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
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

TEST(FutureValue, ReturnsTheValueSetOnAnotherThread) {
  Promise<std::string> promise;
  Future<std::string> future = promise.future();
  Worker worker([promise]() mutable { promise.setValue("hello"); });
  EXPECT_EQ(future.value(kLimit), "hello");
  EXPECT_EQ(future.wait(FutureTimeout_None), FutureState::FinishedWithValue);
  EXPECT_TRUE(future.isFinished());
  EXPECT_FALSE(future.isRunning());
}

TEST(FutureValue, EveryCopyAndEveryWaiterSeesTheSameValue) {
  Promise<std::vector<int>> promise;
  const Future<std::vector<int>> future = promise.future();
  std::atomic<int> matches{0};
  {
    std::vector<std::unique_ptr<Worker>> waiters;
    for (int i = 0; i < 4; ++i) {
      waiters.push_back(std::make_unique<Worker>([future, &matches] {
        if (future.value(kLimit) == std::vector<int>{1, 2, 3}) {
          ++matches;
        }
      }));
    }
    promise.setValue({1, 2, 3});
  }
  EXPECT_EQ(matches.load(), 4);
  EXPECT_EQ(future.value(), (std::vector<int>{1, 2, 3}));
}

TEST(FutureValue, VoidFutureFinishesWithoutAValue) {
  Promise<void> promise;
  Future<void> future = promise.future();
  EXPECT_TRUE(future.isRunning());
  promise.setValue();
  EXPECT_NO_THROW(future.value(FutureTimeout_None));
  EXPECT_TRUE(future.hasValue(FutureTimeout_None));
}

TEST(FutureValue, SupportsTypesWithoutDefaultConstructor) {
  struct NoDefault {
    explicit NoDefault(int v) : value(v) {}
    int value;
  };
  EXPECT_EQ(ka::makeReadyFuture(NoDefault(7)).value().value, 7);
}

TEST(FutureValue, InvalidFutureNeverBlocks) {
  const Future<int> future;
  EXPECT_FALSE(future.isValid());
  EXPECT_EQ(future.wait(), FutureState::None);  // infinite limit, yet returns at once
  EXPECT_FALSE(future.isFinished());
  EXPECT_FALSE(future.isRunning());
  EXPECT_FALSE(future.hasValue());
  EXPECT_FALSE(future.hasError());
  EXPECT_EQ(future.error(), "");
  try {
    future.value();
    FAIL() << "value() of an invalid future must throw";
  } catch (const ka::FutureError& e) {
    EXPECT_STREQ(e.what(), "Future is invalid");
  }
}

TEST(FutureTimeout, ValueThrowsTimeoutErrorNamingTheLimit) {
  Promise<int> promise;
  try {
    promise.future().value(5);
    FAIL() << "value() must time out";
  } catch (const ka::FutureTimeoutError& e) {
    EXPECT_STREQ(e.what(), "Future timeout after 5 ms");
    EXPECT_EQ(e.msecs(), 5);
  }
}

TEST(FutureTimeout, ZeroLimitDoesNotWait) {
  Promise<int> promise;
  const Future<int> future = promise.future();
  EXPECT_EQ(future.wait(FutureTimeout_None), FutureState::Running);
  EXPECT_FALSE(future.hasValue(FutureTimeout_None));
  EXPECT_FALSE(future.hasError(FutureTimeout_None));
  EXPECT_THROW(future.value(FutureTimeout_None), ka::FutureTimeoutError);
  EXPECT_THROW(future.error(FutureTimeout_None), ka::FutureTimeoutError);
  EXPECT_THROW(future.value(-3), ka::FutureTimeoutError);  // negative limits do not wait either
}

TEST(FutureTimeout, WaitReturnsRunningWhenTimeRunsOutAndKeepsWaitingPossible) {
  Promise<int> promise;
  const Future<int> future = promise.future();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(future.wait(20), FutureState::Running);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  promise.setValue(1);
  EXPECT_EQ(future.value(FutureTimeout_None), 1);
}

TEST(FutureTimeout, InfiniteWaitWakesWhenTheValueArrives) {
  Promise<int> promise;
  Promise<void> waiting;
  Promise<FutureState> seen;
  Worker waiter([future = promise.future(), waiting, seen]() mutable {
    waiting.setValue();
    seen.setValue(future.wait(ka::FutureTimeout_Infinite));
  });
  ASSERT_TRUE(waiting.future().hasValue(kLimit));
  promise.setValue(3);
  EXPECT_EQ(seen.future().value(kLimit), FutureState::FinishedWithValue);
}

TEST(FutureError, ValueThrowsExactlyTheErrorText) {
  Promise<int> promise;
  promise.setError("disk on fire");
  try {
    promise.future().value();
    FAIL() << "value() of a failed future must throw";
  } catch (const ka::FutureError& e) {
    EXPECT_STREQ(e.what(), "disk on fire");
  }
}

TEST(FutureError, ReportsErrorOnlyForFailedFutures) {
  const Future<int> failed = ka::makeFutureError<int>("boom");
  EXPECT_TRUE(failed.hasError());
  EXPECT_FALSE(failed.hasValue());
  EXPECT_EQ(failed.error(), "boom");
  EXPECT_EQ(failed.wait(), FutureState::FinishedWithError);

  const Future<int> succeeded = ka::makeReadyFuture(1);
  EXPECT_FALSE(succeeded.hasError());
  EXPECT_EQ(succeeded.error(), "");
}

TEST(FutureError, VoidFutureThrowsItsError) {
  const Future<void> failed = ka::makeFutureError<void>("nope");
  EXPECT_THROW(failed.value(), ka::FutureError);
  EXPECT_EQ(failed.error(), "nope");
}

TEST(FutureError, CanceledFutureHasNeitherValueNorErrorButGivesItsReason) {
  Promise<int> promise;
  promise.setCanceled("shutting down");
  const Future<int> future = promise.future();
  EXPECT_EQ(future.wait(), FutureState::Canceled);
  EXPECT_TRUE(future.isFinished());
  EXPECT_FALSE(future.hasValue());
  EXPECT_FALSE(future.hasError());
  EXPECT_EQ(future.error(), "shutting down");
  EXPECT_THROW(future.value(), ka::FutureError);
}

TEST(FutureContinuation, ThenRunsAtOnceOnTheCallerWhenAlreadyFinished) {
  std::thread::id ranOn;
  const Future<int> next = ka::makeReadyFuture(20).then([&](Future<int> done) {
    ranOn = std::this_thread::get_id();
    return done.value() + 1;
  });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_EQ(next.value(FutureTimeout_None), 21);
}

TEST(FutureContinuation, ThenRunsOnTheThreadThatCompletesThePromise) {
  Promise<int> promise;
  std::thread::id ranOn;
  const Future<void> next =
      promise.future().then([&](const Future<int>&) { ranOn = std::this_thread::get_id(); });
  std::thread::id completer;
  {
    Worker worker([&, promise]() mutable {
      completer = std::this_thread::get_id();
      promise.setValue(1);
    });
  }
  EXPECT_TRUE(next.hasValue(kLimit));
  EXPECT_EQ(ranOn, completer);
}

TEST(FutureContinuation, ThenSeesFailuresAndMayRecoverFromThem) {
  const Future<std::string> next = ka::makeFutureError<int>("bad").then(
      [](Future<int> done) { return done.hasError() ? "recovered from " + done.error() : "?"; });
  EXPECT_EQ(next.value(), "recovered from bad");
}

TEST(FutureContinuation, ThrowingCallbackFailsTheNextFutureWithItsMessage) {
  const Future<int> next =
      ka::makeReadyFuture(1).then([](Future<int>) -> int { throw std::runtime_error("oops"); });
  EXPECT_EQ(next.error(), "oops");
  const Future<void> unknown = ka::makeReadyFuture().andThen([] { throw 42; });
  EXPECT_EQ(unknown.error(), "Unknown exception");
}

TEST(FutureContinuation, AndThenPassesTheValueAndChains) {
  Promise<int> promise;
  const Future<std::string> next =
      promise.future().andThen([](int v) { return v * 2; }).andThen([](const int& v) {
        return std::to_string(v);
      });
  promise.setValue(21);
  EXPECT_EQ(next.value(kLimit), "42");
}

TEST(FutureContinuation, AndThenSkipsTheCallbackAndKeepsTheErrorText) {
  bool called = false;
  const Future<int> next = ka::makeFutureError<int>("original").andThen([&](int v) {
    called = true;
    return v;
  });
  EXPECT_FALSE(called);
  EXPECT_TRUE(next.hasError());
  EXPECT_EQ(next.error(), "original");
}

TEST(FutureContinuation, AndThenKeepsACancelationCanceled) {
  Promise<void> promise;
  const Future<void> next = promise.future().andThen([] {});
  promise.setCanceled("stop");
  EXPECT_EQ(next.wait(kLimit), FutureState::Canceled);
  EXPECT_EQ(next.error(), "stop");
}

TEST(FutureContinuation, CallbackMayUseTheSameFutureWithoutDeadlock) {
  Promise<int> promise;
  const Future<int> future = promise.future();
  Future<int> inner;
  const Future<int> next = future.then([&](Future<int> done) {
    // Registering on and querying the finishing future from its own continuation.
    inner = future.then([](Future<int> f) { return f.value() + 1; });
    return done.value() + future.value(FutureTimeout_None);
  });
  promise.setValue(5);
  EXPECT_EQ(next.value(kLimit), 10);
  EXPECT_EQ(inner.value(kLimit), 6);
}

TEST(FutureContinuation, AcceptsMoveOnlyCallbacks) {
  auto owned = std::make_unique<int>(8);
  const Future<int> next =
      ka::makeReadyFuture(2).andThen([p = std::move(owned)](int v) { return *p * v; });
  EXPECT_EQ(next.value(), 16);
}

TEST(FutureContinuation, ThenOnAnInvalidFutureFailsInsteadOfHanging) {
  const Future<int> next = Future<int>().then([](Future<int>) { return 1; });
  EXPECT_EQ(next.error(kLimit), "Future is invalid");
}

TEST(FutureContinuation, RacingRegistrationAndCompletionRunEachContinuationOnce) {
  for (int round = 0; round < 200; ++round) {
    Promise<int> promise;
    const Future<int> future = promise.future();
    std::atomic<int> runs{0};
    std::vector<Future<void>> nexts;
    {
      Worker completer([promise]() mutable { promise.setValue(1); });
      for (int i = 0; i < 5; ++i) {
        nexts.push_back(future.then([&runs](Future<int>) { ++runs; }));
      }
    }
    for (const auto& next : nexts) {
      ASSERT_TRUE(next.hasValue(kLimit));
    }
    ASSERT_EQ(runs.load(), 5);
  }
}

TEST(PromiseLifetime, DestroyingTheLastUnsetCopyBreaksTheFuture) {
  Future<int> future;
  {
    Promise<int> promise;
    future = promise.future();
    Promise<int> copy = promise;
    { Promise<int> moved = std::move(copy); }
    EXPECT_TRUE(future.isRunning());  // `promise` still alive
  }
  EXPECT_EQ(future.wait(FutureTimeout_None), FutureState::FinishedWithError);
  EXPECT_EQ(future.error(), "Promise broken");
}

TEST(PromiseLifetime, WaiterWakesWhenThePromiseDiesOnAnotherThread) {
  auto promise = std::make_unique<Promise<void>>();
  const Future<void> future = promise->future();
  Promise<void> go;
  Worker worker([p = std::move(promise), started = go.future()]() mutable {
    started.wait(kLimit);
    p.reset();
  });
  go.setValue();
  EXPECT_EQ(future.error(kLimit), "Promise broken");
}

TEST(PromiseLifetime, BrokenPromiseRunsContinuations) {
  Future<int> next;
  {
    Promise<int> promise;
    next = promise.future().then([](Future<int> f) { return f.hasError() ? -1 : 1; });
  }
  EXPECT_EQ(next.value(FutureTimeout_None), -1);
}

TEST(PromiseLifetime, FutureKeepsItsValueAfterThePromiseIsGone) {
  Future<std::string> future;
  {
    Promise<std::string> promise;
    future = promise.future();
    promise.setValue("kept");
  }
  EXPECT_EQ(future.value(), "kept");
}

TEST(PromiseLifetime, CompletingTwiceIsALogicError) {
  Promise<int> promise;
  EXPECT_FALSE(promise.isFinished());
  promise.setValue(1);
  EXPECT_TRUE(promise.isFinished());
  EXPECT_THROW(promise.setValue(2), std::logic_error);
  EXPECT_THROW(promise.setError("late"), std::logic_error);
  EXPECT_THROW(promise.setCanceled(), std::logic_error);
  EXPECT_FALSE(promise.trySetValue(3));
  EXPECT_FALSE(promise.trySetError("late"));
  EXPECT_EQ(promise.future().value(), 1);

  Promise<void> failed;
  failed.setError("first");
  EXPECT_THROW(failed.setValue(), std::logic_error);
  EXPECT_EQ(failed.future().error(), "first");
}

TEST(PromiseLifetime, ConcurrentCompletionsLetExactlyOneWin) {
  for (int round = 0; round < 100; ++round) {
    Promise<int> promise;
    std::atomic<int> winners{0};
    {
      std::vector<std::unique_ptr<Worker>> racers;
      for (int i = 0; i < 3; ++i) {
        racers.push_back(std::make_unique<Worker>([promise, i, &winners]() mutable {
          if (promise.trySetValue(i)) {
            ++winners;
          }
        }));
      }
    }
    ASSERT_EQ(winners.load(), 1);
  }
}

}  // namespace
