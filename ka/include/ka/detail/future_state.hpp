#pragma once
// The state a Promise shares with its futures: completion, error text, value and the callbacks
// waiting for it. Owned through shared_ptr by every promise and future copy.

#include <ka/api.hpp>
#include <ka/detail/unique_function.hpp>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace ka {

// None: an invalid (default-constructed) future. Running: not finished yet. The other three are
// final: once there, a state never changes again.
enum class FutureState { None, Running, Canceled, FinishedWithError, FinishedWithValue };

namespace detail {

// Failure text of a future that has no state.
inline constexpr const char kInvalidFutureError[] = "Future is invalid";
// Failure text of a future whose every promise copy died without setting it.
inline constexpr const char kBrokenPromiseError[] = "Promise broken";

// Stands for the value of a Future<void>.
struct KA_API Unit {};

// Always owned through a shared_ptr (shared_from_this keeps it alive for continuations handed
// off to another thread).
class KA_API SharedStateBase : public std::enable_shared_from_this<SharedStateBase> {
 public:
  using Continuation = UniqueFunction<void()>;
  // Takes one task that runs, in order, the continuations chained before completion. Must not
  // block and must run the task exactly once, on some thread.
  using HandOff = void (*)(Continuation task);

  SharedStateBase();
  // A state that is final from the start (a ready value or error): no promise, no waiting.
  SharedStateBase(FutureState final, std::string error);
  virtual ~SharedStateBase();
  SharedStateBase(const SharedStateBase&) = delete;
  SharedStateBase& operator=(const SharedStateBase&) = delete;

  FutureState state() const;
  // Waits until the state is final or `msecs` have passed (<= 0: not at all,
  // FutureTimeout_Infinite: without limit) and returns the state then. Blocks inside a
  // BlockingScope.
  FutureState wait(int msecs) const;
  // The failure text of a failed or canceled state, empty otherwise.
  std::string error() const;

  // Both return false and change nothing when the state is already final. Completing calls
  // (these and trySetValue) need the caller to own a reference to the state until they return.
  bool trySetError(std::string error);
  bool trySetCanceled(std::string reason);

  // Runs `continuation` once the state is final: at once on the calling thread if it already is,
  // otherwise on the thread that finishes it. No lock is held while it runs.
  void onFinished(Continuation continuation);

  // Internal completion mode, for states completed on a thread that must not run the code
  // chained to them (a transport thread): continuations chained before completion are given to
  // `handOff` instead of running on the completing thread, so a completion with nothing chained
  // (a plain waiter) costs only the notification. Continuations chained after completion still
  // run at once on the chaining thread. Call before the state is shared with another thread.
  void handContinuationsTo(HandOff handOff) noexcept { handOff_ = handOff; }

 protected:
  // Makes the state final; `store` runs under the lock first, and only if it was still running.
  template <class Store>
  bool finish(FutureState final, Store&& store) {
    std::vector<Continuation> continuations;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (state_ != FutureState::Running) {
        return false;
      }
      store();
      state_ = final;
      final_.store(true, std::memory_order_release);
      continuations.swap(continuations_);
    }
    // The caller owns a reference (see trySetError), so the state outlives the notification.
    cond_.notify_all();
    if (!continuations.empty()) {
      if (handOff_ != nullptr) {
        handOffContinuations(continuations);
      } else {
        runContinuations(continuations);
      }
    }
    return true;
  }
  bool finishWithText(FutureState final, std::string text);

 private:
  static void runContinuations(std::vector<Continuation>& continuations);
  // Spins briefly, when that may pay, for the state to become final; true if it did.
  bool spinUntilFinal() const;
  void handOffContinuations(std::vector<Continuation>& continuations);

  mutable std::mutex mutex_;
  mutable std::condition_variable cond_;      // signalled when state_ becomes final
  FutureState state_ = FutureState::Running;  // guarded by mutex_
  std::string error_;                         // guarded by mutex_; set with a final state
  std::vector<Continuation> continuations_;   // guarded by mutex_; emptied when state_ is final
  HandOff handOff_ = nullptr;  // set before the state is shared, read-only afterwards
  // Set with a final state_ (under mutex_), for a waiter spinning without the lock.
  std::atomic<bool> final_{false};
};

template <class T>
class SharedState final : public SharedStateBase {
 public:
  using Stored = std::conditional_t<std::is_void_v<T>, Unit, T>;

  SharedState() = default;
  // Already holding a value.
  template <class... Args>
  explicit SharedState(std::in_place_t, Args&&... args)
      : SharedStateBase(FutureState::FinishedWithValue, std::string()),
        value_(std::in_place, std::forward<Args>(args)...) {}
  // Already failed with `error`.
  explicit SharedState(std::string error)
      : SharedStateBase(FutureState::FinishedWithError, std::move(error)) {}

  template <class... Args>
  bool trySetValue(Args&&... args) {
    return finish(FutureState::FinishedWithValue,
                  [&] { value_.emplace(std::forward<Args>(args)...); });
  }

  // Only after state() or wait() reported FinishedWithValue.
  const Stored& value() const { return *value_; }
  // The same, for a caller that holds the only reference to this state.
  Stored takeValue() { return std::move(*value_); }

 private:
  // Written once under the base's mutex before the state becomes FinishedWithValue, read-only
  // afterwards: readers that saw that state (under the same mutex) need no lock.
  std::optional<Stored> value_;
};

// Shared by all copies of one Promise: when the last copy goes, a state nobody set fails with
// kBrokenPromiseError, so that no waiter hangs on it.
class KA_API PromiseGuard {
 public:
  explicit PromiseGuard(std::shared_ptr<SharedStateBase> state) noexcept;
  ~PromiseGuard();
  PromiseGuard(const PromiseGuard&) = delete;
  PromiseGuard& operator=(const PromiseGuard&) = delete;

 private:
  std::shared_ptr<SharedStateBase> state_;
};

}  // namespace detail
}  // namespace ka
