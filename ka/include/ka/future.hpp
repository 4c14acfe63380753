#pragma once
// Futures and promises: a result (a value or an error text) produced once on one thread and
// consumed on others, by waiting with a time limit or by chaining continuations.
//
// Threads: continuations registered with then()/andThen() run inline on the thread that
// completes the promise, or at once on the registering thread when the future already finished.
// No lock is held while they run, so they may wait on futures, set promises or register more
// continuations. Keep them short: they delay whoever completes the promise.
//
// Waiting happens on a condition variable inside a detail::BlockingScope, so a task of an
// EventLoop may wait on work queued to the same loop without deadlocking it. When the process
// may use several CPUs and no other thread is sleeping in a wait, a waiter first spins for up to
// 80 microseconds: a result computed on another CPU then needs no wake-up.

#include <ka/api.hpp>
#include <ka/detail/future_state.hpp>

#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace ka {

// Time limits of the waiting calls, in milliseconds.
constexpr int FutureTimeout_Infinite = 2147483647;  // wait without limit
constexpr int FutureTimeout_None = 0;               // do not wait

// Thrown by value() of a future that failed or was canceled: what() is exactly its error text.
// Also thrown, with "Future is invalid", by value() of a default-constructed future.
class KA_API FutureError : public std::runtime_error {
 public:
  explicit FutureError(const std::string& message);
  ~FutureError() override;
};

// Thrown by value() and error() when the time limit runs out first.
class KA_API FutureTimeoutError : public std::runtime_error {
 public:
  explicit FutureTimeoutError(int msecs);
  ~FutureTimeoutError() override;
  int msecs() const noexcept { return msecs_; }

 private:
  int msecs_;
};

template <class T>
class Future;
template <class T>
class Promise;

namespace detail {

template <class R>
using Decayed = std::decay_t<R>;

template <class F, class T>
using ThenResult = Decayed<std::invoke_result_t<std::decay_t<F>&, Future<T>>>;

template <class F, class T>
struct AndThenResultOf {
  using type = Decayed<std::invoke_result_t<std::decay_t<F>&, const T&>>;
};
template <class F>
struct AndThenResultOf<F, void> {
  using type = Decayed<std::invoke_result_t<std::decay_t<F>&>>;
};
template <class F, class T>
using AndThenResult = typename AndThenResultOf<F, T>::type;

[[noreturn]] KA_API void throwPromiseAlreadySet();

// The type-independent half of a future. Every waiting call takes a time limit in milliseconds.
class KA_API FutureBase {
 public:
  // Returns the state once final or when time runs out (then Running). An invalid future
  // returns None at once, whatever the limit.
  FutureState wait(int msecs = FutureTimeout_Infinite) const;
  bool isValid() const noexcept { return state_ != nullptr; }
  bool isFinished() const;  // final state: value, error or canceled
  bool isRunning() const;
  // True only when the future finished with a value within the limit.
  bool hasValue(int msecs = FutureTimeout_Infinite) const;
  // True only when the future finished with an error within the limit (not when canceled).
  bool hasError(int msecs = FutureTimeout_Infinite) const;
  // The error text of a failed future, or the reason of a canceled one; an empty string when it
  // finished with a value or is invalid. Throws FutureTimeoutError when time runs out.
  std::string error(int msecs = FutureTimeout_Infinite) const;

 protected:
  FutureBase() = default;
  explicit FutureBase(std::shared_ptr<SharedStateBase> state) noexcept;
  ~FutureBase() = default;
  FutureBase(const FutureBase&) = default;
  FutureBase(FutureBase&&) noexcept = default;
  FutureBase& operator=(const FutureBase&) = default;
  FutureBase& operator=(FutureBase&&) noexcept = default;

  // Returns once the future holds a value; throws FutureTimeoutError or FutureError otherwise.
  void waitForValue(int msecs) const;

  std::shared_ptr<SharedStateBase> state_;  // null for an invalid future
};

// Runs `fn(args...)` and puts its result, or the text of what it threw, into `promise`.
template <class R, class Fn, class... Args>
void fulfil(Promise<R>& promise, Fn& fn, Args&&... args) noexcept {
  try {
    if constexpr (std::is_void_v<R>) {
      fn(std::forward<Args>(args)...);
      promise.trySetValue();
    } else {
      promise.trySetValue(fn(std::forward<Args>(args)...));
    }
  } catch (const std::exception& e) {
    promise.trySetError(e.what());
  } catch (...) {
    promise.trySetError("Unknown exception");
  }
}

}  // namespace detail

// A copyable handle on a result that may not exist yet. Copies share the result; T must be
// copyable for value(), which returns a copy. Default-constructed: invalid. A future dropped
// unread usually hides an error, hence [[nodiscard]]: cast to void where that is the intent.
template <class T>
class [[nodiscard]] Future : public detail::FutureBase {
 public:
  using ValueType = T;

  Future() = default;
  explicit Future(std::shared_ptr<detail::SharedState<T>> state) noexcept
      : FutureBase(std::move(state)) {}

  // The value (nothing for Future<void>). Throws FutureTimeoutError when time runs out, and
  // FutureError carrying the error text when the future failed or was canceled.
  T value(int msecs = FutureTimeout_Infinite) const& {
    waitForValue(msecs);
    if constexpr (!std::is_void_v<T>) {
      return typedState().value();
    }
  }
  // The same; when this future is the only holder of the result, the value is moved out
  // instead of copied (nobody else can ever read it).
  T value(int msecs = FutureTimeout_Infinite) && {
    waitForValue(msecs);
    if constexpr (!std::is_void_v<T>) {
      if (state_.use_count() == 1) {
        return typedState().takeValue();
      }
      return typedState().value();
    }
  }

  // Calls `f(Future<T>)` with this future once it finished, whatever the outcome, and gives a
  // future of f's result. If f throws, that future fails with the exception's what().
  template <class F>
  Future<detail::ThenResult<F, T>> then(F&& f) const {
    using R = detail::ThenResult<F, T>;
    return chain<R>(
        [fn = std::decay_t<F>(std::forward<F>(f))](Promise<R>& next, Future<T> done) mutable {
          detail::fulfil(next, fn, std::move(done));
        });
  }

  // Calls `f(const T&)` (`f()` for Future<void>) only if this future gets a value. Otherwise f
  // is never called and the resulting future ends the same way: same error text, or canceled.
  template <class F>
  Future<detail::AndThenResult<F, T>> andThen(F&& f) const {
    using R = detail::AndThenResult<F, T>;
    return chain<R>(
        [fn = std::decay_t<F>(std::forward<F>(f))](Promise<R>& next, Future<T> done) mutable {
          switch (done.wait(FutureTimeout_None)) {
            case FutureState::FinishedWithValue:
              if constexpr (std::is_void_v<T>) {
                detail::fulfil(next, fn);
              } else {
                detail::fulfil(next, fn, done.typedState().value());
              }
              break;
            case FutureState::Canceled:
              next.trySetCanceled(done.error(FutureTimeout_None));
              break;
            default:
              next.trySetError(done.error(FutureTimeout_None));
              break;
          }
        });
  }

 private:
  template <class U>
  friend class Future;

  detail::SharedState<T>& typedState() const {
    return static_cast<detail::SharedState<T>&>(*state_);
  }

  // Registers `body(Promise<R>&, Future<T>)` to run once this future finished.
  template <class R, class Body>
  Future<R> chain(Body&& body) const;
};

namespace detail {

// What Promise<T> and Promise<void> share. Copies of a promise complete the same future.
template <class T>
class PromiseCore {
  friend struct PromiseAccess;

 public:
  Future<T> future() const { return Future<T>(state_); }
  bool isFinished() const { return state_->state() != FutureState::Running; }

  // Fails the future with `error`; throws std::logic_error when it was already completed.
  void setError(const std::string& error) {
    if (!trySetError(error)) {
      throwPromiseAlreadySet();
    }
  }
  // Returns false, changing nothing, when the future was already completed.
  bool trySetError(const std::string& error) { return keep()->trySetError(error); }

  // Ends the future as Canceled: it has no value and error() gives `reason`.
  void setCanceled(const std::string& reason = "Canceled") {
    if (!trySetCanceled(reason)) {
      throwPromiseAlreadySet();
    }
  }
  bool trySetCanceled(const std::string& reason = "Canceled") {
    return keep()->trySetCanceled(reason);
  }

 protected:
  PromiseCore()
      : state_(std::make_shared<SharedState<T>>()),
        guard_(std::make_shared<PromiseGuard>(state_)) {}
  // Copy only: a "moved-from" promise stays a usable copy instead of becoming empty.
  PromiseCore(const PromiseCore&) = default;
  PromiseCore& operator=(const PromiseCore&) = default;
  ~PromiseCore() = default;

  // Completing goes through a temporary reference: waiters woken by it may destroy this promise
  // while the completion is still notifying and running continuations.
  std::shared_ptr<SharedState<T>> keep() const { return state_; }

  std::shared_ptr<SharedState<T>> state_;
  std::shared_ptr<PromiseGuard> guard_;
};

// For the middleware's own completion modes, which the public API does not offer.
struct PromiseAccess {
  template <class T>
  static SharedState<T>& state(const PromiseCore<T>& promise) {
    return *promise.state_;
  }
};

}  // namespace detail

// The producing side of a Future. Completing it twice is a logic error: the set*() members
// throw std::logic_error, the trySet*() members return false instead. When the last copy is
// destroyed without completing it, the future fails with "Promise broken".
template <class T>
class Promise : public detail::PromiseCore<T> {
 public:
  Promise() = default;

  void setValue(T value) {
    if (!trySetValue(std::move(value))) {
      detail::throwPromiseAlreadySet();
    }
  }
  bool trySetValue(T value) { return this->keep()->trySetValue(std::move(value)); }
};

template <>
class KA_API Promise<void> : public detail::PromiseCore<void> {
 public:
  Promise() = default;

  void setValue() {
    if (!trySetValue()) {
      detail::throwPromiseAlreadySet();
    }
  }
  bool trySetValue() { return keep()->trySetValue(); }
};

template <class T>
template <class R, class Body>
Future<R> Future<T>::chain(Body&& body) const {
  Promise<R> next;
  Future<R> result = next.future();
  if (!state_) {
    next.setError(detail::kInvalidFutureError);
    return result;
  }
  // Weak: the continuation is stored in the state it observes. It only runs while someone
  // holds that state (the thread finishing it, or this future), so the lock always succeeds.
  std::weak_ptr<detail::SharedState<T>> weak =
      std::static_pointer_cast<detail::SharedState<T>>(state_);
  state_->onFinished([next, weak, body = std::forward<Body>(body)]() mutable {
    if (auto done = weak.lock()) {
      body(next, Future<T>(std::move(done)));
    } else {
      next.trySetError(detail::kInvalidFutureError);
    }
  });
  return result;
}

// A future that already holds `value`.
template <class T>
Future<std::decay_t<T>> makeReadyFuture(T&& value) {
  using D = std::decay_t<T>;
  return Future<D>(std::make_shared<detail::SharedState<D>>(std::in_place, std::forward<T>(value)));
}

// A Future<void> that already finished with success.
KA_API Future<void> makeReadyFuture();

// A future that already failed with `error`.
template <class T>
Future<T> makeFutureError(const std::string& error) {
  return Future<T>(std::make_shared<detail::SharedState<T>>(error));
}

}  // namespace ka
