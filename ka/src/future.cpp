// Shared state, waiting and error types behind ka::Future and ka::Promise.

#include <ka/detail/blocking_scope.hpp>
#include <ka/detail/future_type.hpp>
#include <ka/future.hpp>

#include <sched.h>

#include <atomic>
#include <chrono>

namespace ka {

FutureError::FutureError(const std::string& message) : std::runtime_error(message) {}
FutureError::~FutureError() = default;

namespace detail {
FutureResultType::~FutureResultType() = default;
}  // namespace detail

FutureTimeoutError::FutureTimeoutError(int msecs)
    : std::runtime_error("Future timeout after " + std::to_string(msecs) + " ms"), msecs_(msecs) {}
FutureTimeoutError::~FutureTimeoutError() = default;

namespace detail {

void throwPromiseAlreadySet() {
  throw std::logic_error("Promise already completed");
}

SharedStateBase::SharedStateBase() = default;
SharedStateBase::SharedStateBase(FutureState final, std::string error)
    : state_(final), error_(std::move(error)), final_(true) {}
SharedStateBase::~SharedStateBase() = default;

FutureState SharedStateBase::state() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}

namespace {

// How long a waiter spins before sleeping. A reply computed on another CPU often arrives within
// this: seeing it while spinning spares the sleep and the cross-CPU wake-up, which on a virtual
// machine cost more than the whole round trip on one CPU.
constexpr auto kSpin = std::chrono::microseconds(80);
// Waiters spinning now (at most one) and sleeping now, in the whole process. Spinning only pays
// when a CPU is otherwise idle: never with a single CPU, nor while other threads wait too (the
// process is then busy enough that the CPU is better left to the threads doing the work).
std::atomic<int> spinners{0};
std::atomic<int> sleepers{0};

bool mayUseSeveralCpus() {
  static const bool several = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    return ::sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 1;
  }();
  return several;
}

void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

}  // namespace

bool SharedStateBase::spinUntilFinal() const {
  if (sleepers.load(std::memory_order_relaxed) != 0 || !mayUseSeveralCpus()) {
    return false;
  }
  int none = 0;
  if (!spinners.compare_exchange_strong(none, 1, std::memory_order_relaxed)) {
    return false;
  }
  const auto until = std::chrono::steady_clock::now() + kSpin;
  bool done = final_.load(std::memory_order_acquire);
  while (!done && std::chrono::steady_clock::now() < until) {
    cpuRelax();
    done = final_.load(std::memory_order_acquire);
  }
  spinners.store(0, std::memory_order_relaxed);
  return done;
}

FutureState SharedStateBase::wait(int msecs) const {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != FutureState::Running || msecs <= 0) {
      return state_;
    }
  }
  if (spinUntilFinal()) {
    std::lock_guard<std::mutex> lock(mutex_);
    return state_;
  }
  // Entered without our lock held: it may start a thread.
  BlockingScope blocking;
  sleepers.fetch_add(1, std::memory_order_relaxed);
  struct Awake {
    ~Awake() { sleepers.fetch_sub(1, std::memory_order_relaxed); }
  } awake;  // also when the wait throws
  std::unique_lock<std::mutex> lock(mutex_);
  const auto finished = [this] { return state_ != FutureState::Running; };
  if (msecs >= FutureTimeout_Infinite) {
    cond_.wait(lock, finished);
  } else {
    cond_.wait_for(lock, std::chrono::milliseconds(msecs), finished);
  }
  return state_;
}

std::string SharedStateBase::error() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return error_;
}

bool SharedStateBase::finishWithText(FutureState final, std::string text) {
  return finish(final, [&] { error_ = std::move(text); });
}

bool SharedStateBase::trySetError(std::string error) {
  return finishWithText(FutureState::FinishedWithError, std::move(error));
}

bool SharedStateBase::trySetCanceled(std::string reason) {
  return finishWithText(FutureState::Canceled, std::move(reason));
}

void SharedStateBase::onFinished(Continuation continuation) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == FutureState::Running) {
      continuations_.push_back(std::move(continuation));
      return;
    }
  }
  continuation();
}

void SharedStateBase::runContinuations(std::vector<Continuation>& continuations) {
  for (auto& continuation : continuations) {
    continuation();
  }
}

void SharedStateBase::handOffContinuations(std::vector<Continuation>& continuations) {
  // The task keeps the state alive: a continuation made by then() only holds it weakly, and the
  // thread completing it may drop the last reference before the task runs.
  handOff_([self = shared_from_this(), continuations = std::move(continuations)]() mutable {
    runContinuations(continuations);
  });
}

PromiseGuard::PromiseGuard(std::shared_ptr<SharedStateBase> state) noexcept
    : state_(std::move(state)) {}

PromiseGuard::~PromiseGuard() {
  state_->trySetError(kBrokenPromiseError);
}

FutureBase::FutureBase(std::shared_ptr<SharedStateBase> state) noexcept
    : state_(std::move(state)) {}

FutureState FutureBase::wait(int msecs) const {
  return state_ ? state_->wait(msecs) : FutureState::None;
}

bool FutureBase::isFinished() const {
  const FutureState s = wait(FutureTimeout_None);
  return s != FutureState::None && s != FutureState::Running;
}

bool FutureBase::isRunning() const {
  return wait(FutureTimeout_None) == FutureState::Running;
}

bool FutureBase::hasValue(int msecs) const {
  return wait(msecs) == FutureState::FinishedWithValue;
}

bool FutureBase::hasError(int msecs) const {
  return wait(msecs) == FutureState::FinishedWithError;
}

std::string FutureBase::error(int msecs) const {
  switch (wait(msecs)) {
    case FutureState::None:
      return {};
    case FutureState::Running:
      throw FutureTimeoutError(msecs);
    default:
      return state_->error();
  }
}

void FutureBase::waitForValue(int msecs) const {
  switch (wait(msecs)) {
    case FutureState::FinishedWithValue:
      return;
    case FutureState::None:
      throw FutureError(kInvalidFutureError);
    case FutureState::Running:
      throw FutureTimeoutError(msecs);
    default:
      throw FutureError(state_->error());
  }
}

}  // namespace detail

Future<void> makeReadyFuture() {
  return Future<void>(std::make_shared<detail::SharedState<void>>(std::in_place));
}

}  // namespace ka
