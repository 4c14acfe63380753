// The worker pool behind ka::EventLoop, managed blocking, and the process-wide default loop.

#include <ka/detail/blocking_scope.hpp>
#include <ka/eventloop.hpp>

#include <ka/log.hpp>
#include "serialgate.hpp"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <list>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <unordered_set>

namespace ka {
namespace detail {

namespace {

constexpr const char kCategory[] = "ka.eventloop";
// Spares allowed by default. Each is a blocked wait; far past this, something is wrong, and
// refusing the wait with an error beats exhausting the process.
constexpr int kDefaultMaxSpareThreads = 1024;
// Spares beyond this many make the pool warn (rate-limited): waits are piling up.
constexpr int kSpareWarningThreshold = 64;
constexpr std::chrono::seconds kWarningInterval{10};
constexpr std::chrono::milliseconds kDefaultSpareIdleTimeout{5000};

thread_local WorkerPool* tlsPool = nullptr;  // the pool this thread is a worker of
thread_local bool tlsInTask = false;         // this worker is running one of the pool's tasks
thread_local int tlsBlockingDepth = 0;       // nesting of BlockingScopes on this thread
// Run by the next BlockingScope on this thread, then cleared (see BlockingHookScope).
thread_local BlockingHookScope::Hook tlsBlockingHook = nullptr;
thread_local void* tlsBlockingHookContext = nullptr;

}  // namespace

// Threads, task accounting and the blocking compensation of one EventLoop.
//
// Progress rule: whenever a worker blocks and no other worker is idle, a spare starts (up to the
// cap). Since workers that are not blocked either finish what they run or block in turn, queued
// work always finds a thread. A spare leaves only if it is idle, above size() and another
// unblocked worker remains.
class WorkerPool {
 public:
  WorkerPool(std::string name, int size)
      : name_(std::move(name)),
        size_(std::max(1, size)),
        maxSpares_(kDefaultMaxSpareThreads),
        guard_(boost::asio::make_work_guard(io_)) {
    std::string failure;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (int i = 0; i < size_ && failure.empty(); ++i) {
        failure = spawnLocked();
      }
    }
    if (!failure.empty()) {
      stop(std::nullopt);  // the workers already started must be joined before unwinding
      throw std::runtime_error("EventLoop " + name_ + ": " + failure);
    }
  }

  ~WorkerPool() { stop(std::nullopt); }

  const std::string& name() const { return name_; }
  int size() const { return size_; }
  boost::asio::io_context& io() { return io_; }

  int threadCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return live_;
  }

  bool isStopped() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopping_;
  }

  void setSpareIdleTimeout(std::chrono::milliseconds timeout) {
    spareIdleMs_.store(std::max<std::int64_t>(1, timeout.count()));
  }

  bool waitForSparesToLeave(std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return workersChanged_.wait_for(lock, limit, [this] { return live_ <= size_; });
  }

  bool dispatch(UniqueFunction<void()> task) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) {
        return false;
      }
      ++inFlight_;
    }
    boost::asio::post(io_, [this, task = std::move(task)]() mutable {
      runTask(task);
      taskDone();
    });
    return true;
  }

  bool dispatchAfter(std::chrono::milliseconds delay, UniqueFunction<void(bool)> task) {
    auto timer = std::make_shared<boost::asio::steady_timer>(io_, delay);
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
      return false;
    }
    ++inFlight_;
    timers_.insert(timer);
    // Under mutex_: stop() cancels timers under it too, and a timer is not thread-safe.
    timer->async_wait(
        [this, timer, task = std::move(task)](const boost::system::error_code& error) mutable {
          {
            std::lock_guard<std::mutex> lock(mutex_);
            timers_.erase(timer);
          }
          const bool due = !error;
          runTask(task, due);
          taskDone();
        });
    return true;
  }

  bool isWorkerThread() const { return tlsPool == this; }

  // Stops and waits for the workers (for `limit` when given). False if some still run then.
  bool stop(std::optional<std::chrono::milliseconds> limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!stopping_) {
      stopping_ = true;
      for (const auto& timer : timers_) {
        timer->cancel();
      }
      guard_.reset();
      if (inFlight_ == 0) {
        stopIoLocked();
      }
    }
    if (isWorkerThread()) {
      return false;  // cannot wait for ourselves; the destructor joins
    }
    const auto allExited = [this] { return live_ == 0; };
    if (limit) {
      if (!workersChanged_.wait_for(lock, *limit, allExited)) {
        return false;
      }
    } else {
      workersChanged_.wait(lock, allExited);
    }
    // Every worker has left its loop; joining only waits for the threads to end.
    while (!threads_.empty() || !retired_.empty()) {
      std::list<std::thread> batch;
      batch.splice(batch.end(), threads_);
      batch.splice(batch.end(), retired_);
      lock.unlock();
      for (auto& thread : batch) {
        thread.join();
      }
      lock.lock();
    }
    return true;
  }

  void setMaxSpareThreads(int spares) { maxSpares_.store(std::max(0, spares)); }

  // Counts this worker as blocked and makes sure another can run the queued work. Returns an
  // empty string, or, counting nothing, why the wait is refused: no worker is idle and no
  // spare can start, so blocking here could stall every queued task for good.
  std::string enterBlocking() {
    std::string refusal;
    std::string warning;  // logged after unlocking: a log handler may use this loop
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!tlsInTask) {
        ++busy_;  // blocking outside a task still takes this worker away
      }
      if (live_ - busy_.load() > 0 || ioStopped_) {
        ++blocked_;
        return {};  // an idle worker can take the queued work
      }
      std::string failure;
      if (live_ >= size_ + maxSpares_.load()) {
        failure = "all " + std::to_string(live_) + " workers are busy or blocked";
      } else {
        joinRetiredLocked();
        failure = spawnLocked();
      }
      if (failure.empty()) {
        ++blocked_;
        if (live_ - size_ > kSpareWarningThreshold) {
          warning = std::to_string(live_ - size_) + " spare workers started for blocked waits";
        }
      } else {
        if (!tlsInTask) {
          --busy_;
        }
        warning = failure + "; refusing to block another";
        refusal = "EventLoop " + name_ + ": " + warning;
      }
    }
    if (!warning.empty()) {
      warnRateLimited(warning);
    }
    return refusal;
  }

  void leaveBlocking() {
    std::lock_guard<std::mutex> lock(mutex_);
    --blocked_;
    if (!tlsInTask) {
      --busy_;
    }
  }

 private:
  using Threads = std::list<std::thread>;

  // Returns why no worker could be started, or an empty string.
  std::string spawnLocked() {
    threads_.emplace_back();
    const auto self = std::prev(threads_.end());
    try {
      // The new thread touches `self` only under mutex_, which we hold until it is assigned.
      *self = std::thread([this, self] { workerMain(self); });
    } catch (const std::system_error& e) {
      threads_.erase(self);
      return std::string("cannot start a worker: ") + e.what();
    }
    ++live_;
    return {};
  }

  void joinRetiredLocked() {
    // A retired worker released mutex_ for good before exiting: joining cannot deadlock.
    for (auto& thread : retired_) {
      thread.join();
    }
    retired_.clear();
  }

  void stopIoLocked() {
    ioStopped_ = true;
    io_.stop();
  }

  void nameThisThread() const {
    const std::string shortName = name_.substr(0, 15);  // the kernel's limit
    pthread_setname_np(pthread_self(), shortName.c_str());
  }

  void workerMain(Threads::iterator self) {
    tlsPool = this;
    nameThisThread();
    for (;;) {
      std::size_t ran = 0;
      try {
        ran = io_.run_one_for(std::chrono::milliseconds(spareIdleMs_.load()));
      } catch (const std::exception& e) {
        // Only I/O handlers get here: tasks catch their own exceptions.
        KA_LOG_ERROR(kCategory) << name_ << ": handler threw: " << e.what();
        continue;
      } catch (...) {
        KA_LOG_ERROR(kCategory) << name_ << ": handler threw an unknown exception";
        continue;
      }
      if (ran != 0) {
        continue;
      }
      // Leaving is decided and counted under one lock, so idle spares cannot all leave at once.
      std::lock_guard<std::mutex> lock(mutex_);
      if (ioStopped_) {
        leaveLocked();
        break;
      }
      if (live_ > size_ && live_ - 1 - blocked_ >= 1) {
        retired_.splice(retired_.end(), threads_, self);
        leaveLocked();
        break;
      }
    }
    tlsPool = nullptr;
  }

  void leaveLocked() {
    --live_;
    workersChanged_.notify_all();
  }

  // At most one warning per interval; the next one says how many were held back.
  void warnRateLimited(const std::string& text) {
    const auto now = std::chrono::steady_clock::now();
    int held = 0;
    {
      std::lock_guard<std::mutex> lock(warnMutex_);
      if (warned_ && now - lastWarning_ < kWarningInterval) {
        ++heldWarnings_;
        return;
      }
      warned_ = true;
      lastWarning_ = now;
      held = heldWarnings_;
      heldWarnings_ = 0;
    }
    const std::string suffix =
        held > 0 ? " (" + std::to_string(held) + " similar warnings held back)" : std::string();
    KA_LOG_WARNING(kCategory) << name_ << ": " << text << suffix;
  }

  template <class Task, class... Args>
  void runTask(Task& task, Args... args) {
    busy_.fetch_add(1);
    const bool wasInTask = tlsInTask;
    tlsInTask = true;
    try {
      task(args...);
    } catch (const std::exception& e) {
      KA_LOG_ERROR(kCategory) << name_ << ": task threw: " << e.what();
    } catch (...) {
      KA_LOG_ERROR(kCategory) << name_ << ": task threw an unknown exception";
    }
    tlsInTask = wasInTask;
    busy_.fetch_sub(1);
  }

  void taskDone() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (--inFlight_ == 0 && stopping_) {
      stopIoLocked();
    }
  }

  const std::string name_;
  const int size_;
  std::atomic<int> maxSpares_;
  std::atomic<std::int64_t> spareIdleMs_{kDefaultSpareIdleTimeout.count()};
  // Workers running a task or blocked outside one. Atomic: read under mutex_ when deciding to
  // start a spare, updated around every task without it (a stale read only delays a spare).
  std::atomic<int> busy_{0};

  boost::asio::io_context io_;
  mutable std::mutex mutex_;
  mutable std::condition_variable workersChanged_;  // live_ decreased
  // All guarded by mutex_:
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard_;
  bool stopping_ = false;   // new work is refused
  bool ioStopped_ = false;  // io_ stopped: workers are leaving
  int inFlight_ = 0;        // accepted tasks and delayed calls not finished yet
  int live_ = 0;            // workers inside workerMain
  int blocked_ = 0;         // workers inside a BlockingScope
  Threads threads_;         // workers not retired (and not yet taken for joining)
  Threads retired_;         // spares that left, to be joined
  std::unordered_set<std::shared_ptr<boost::asio::steady_timer>> timers_;  // pending delays

  std::mutex warnMutex_;
  // Guarded by warnMutex_: when the last warning went out, and how many were held back since.
  bool warned_ = false;
  std::chrono::steady_clock::time_point lastWarning_;
  int heldWarnings_ = 0;
};

BlockingHookScope::BlockingHookScope(Hook hook, void* context) noexcept
    : previousHook_(tlsBlockingHook), previousContext_(tlsBlockingHookContext) {
  tlsBlockingHook = hook;
  tlsBlockingHookContext = context;
}

BlockingHookScope::~BlockingHookScope() {
  tlsBlockingHook = previousHook_;
  tlsBlockingHookContext = previousContext_;
}

BlockingScope::BlockingScope()
    : pool_(tlsBlockingDepth == 0 ? tlsPool : nullptr), outermost_(tlsBlockingDepth == 0) {
  if (const auto hook = tlsBlockingHook) {
    tlsBlockingHook = nullptr;
    const std::string refusal = hook(tlsBlockingHookContext);
    if (!refusal.empty()) {
      throw std::runtime_error(refusal);
    }
  }
  if (pool_ != nullptr) {
    const std::string refusal = pool_->enterBlocking();
    if (!refusal.empty()) {
      throw std::runtime_error(refusal);
    }
  }
  if (outermost_) {
    suspended_ = suspendSerialGates();
  }
  ++tlsBlockingDepth;
}

bool BlockingScope::handsOffOnEntry() noexcept {
  return tlsBlockingHook != nullptr;
}

BlockingScope::BlockingScope(SerialGate& gate) : BlockingScope() {
  enter_ = &gate;
}

BlockingScope::~BlockingScope() {
  // Taking the gates back is part of the wait: it happens while still counted as blocked.
  if (enter_ != nullptr) {
    suspended_.emplace_back(enter_, 1);
  }
  if (!suspended_.empty()) {
    resumeSerialGates(suspended_);
  }
  --tlsBlockingDepth;
  if (pool_ != nullptr) {
    pool_->leaveBlocking();
  }
}

}  // namespace detail

EventLoop::EventLoop(const std::string& name, int threads)
    : pool_(std::make_unique<detail::WorkerPool>(name, threads)) {}

EventLoop::~EventLoop() {
  if (pool_->isWorkerThread()) {
    KA_LOG_FATAL(detail::kCategory) << name() << ": destroyed by one of its own workers";
    std::abort();
  }
}

void EventLoop::post(std::function<void()> task) {
  if (!dispatch(std::move(task))) {
    KA_LOG_ERROR(detail::kCategory) << name() << ": stopped, task dropped";
  }
}

bool EventLoop::tryPost(std::function<void()> task) {
  return dispatch(std::move(task));
}

bool EventLoop::dispatch(detail::UniqueFunction<void()> task) {
  return pool_->dispatch(std::move(task));
}

bool EventLoop::dispatchAfter(std::chrono::milliseconds delay,
                              detail::UniqueFunction<void(bool)> task) {
  return pool_->dispatchAfter(delay, std::move(task));
}

bool EventLoop::isInLoopThread() const {
  return pool_->isWorkerThread();
}

const std::string& EventLoop::name() const {
  return pool_->name();
}

int EventLoop::size() const {
  return pool_->size();
}

int EventLoop::threadCount() const {
  return pool_->threadCount();
}

boost::asio::io_context& EventLoop::ioContext() {
  return pool_->io();
}

void EventLoop::stop() {
  pool_->stop(std::nullopt);
}

bool EventLoop::stop(std::chrono::milliseconds limit) {
  return pool_->stop(limit);
}

bool EventLoop::isStopped() const {
  return pool_->isStopped();
}

void EventLoop::setSpareIdleTimeout(std::chrono::milliseconds timeout) {
  pool_->setSpareIdleTimeout(timeout);
}

void EventLoop::setMaxSpareThreads(int spares) {
  pool_->setMaxSpareThreads(spares);
}

bool EventLoop::waitForSparesToLeave(std::chrono::milliseconds limit) const {
  return pool_->waitForSparesToLeave(limit);
}

namespace {

constexpr std::chrono::milliseconds kExitDrainLimit{3000};

std::mutex gDefaultMutex;
int gDefaultSize = 0;          // guarded by gDefaultMutex; 0: not chosen
bool gDefaultStarted = false;  // guarded by gDefaultMutex
std::atomic<EventLoop*> gDefaultLoop{nullptr};

int defaultSize() {
  {
    std::lock_guard<std::mutex> lock(gDefaultMutex);
    gDefaultStarted = true;
    if (gDefaultSize > 0) {
      return gDefaultSize;
    }
  }
  if (const char* env = std::getenv("KA_EVENTLOOP_THREADS")) {
    char* end = nullptr;
    const long value = std::strtol(env, &end, 10);
    if (end != env && *end == '\0' && value > 0 && value <= 1024) {
      return static_cast<int>(value);
    }
    KA_LOG_WARNING(detail::kCategory) << "ignoring KA_EVENTLOOP_THREADS=" << env;
  }
  return std::max(2, static_cast<int>(std::thread::hardware_concurrency()));
}

void stopDefaultLoopAtExit() {
  if (EventLoop* loop = gDefaultLoop.load()) {
    if (!loop->stop(kExitDrainLimit)) {
      KA_LOG_WARNING(detail::kCategory) << "default event loop still busy at exit";
    }
  }
}

EventLoop* startDefaultLoop() {
  // Never deleted on purpose: static destructors running after the exit hook may still post,
  // and must find a stopped loop rather than a destroyed one. It also lets exit abandon workers
  // stuck in a task without joining them.
  auto* loop = new EventLoop("ka.default", defaultSize());
  gDefaultLoop.store(loop);
  std::atexit(&stopDefaultLoopAtExit);
  return loop;
}

}  // namespace

EventLoop& defaultEventLoop() {
  static EventLoop* const loop = startDefaultLoop();
  return *loop;
}

bool setDefaultEventLoopSize(int threads) {
  std::lock_guard<std::mutex> lock(gDefaultMutex);
  if (gDefaultStarted || threads < 1) {
    return false;
  }
  gDefaultSize = threads;
  return true;
}

}  // namespace ka
