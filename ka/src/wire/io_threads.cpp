#include "wire/io_threads.hpp"

#include <ka/detail/blocking_scope.hpp>
#include <ka/log.hpp>

#include <pthread.h>

#include <exception>
#include <system_error>
#include <thread>
#include <utility>

namespace ka {
namespace wire {

namespace {

constexpr const char kCategory[] = "ka.transport";
// A thread that has waited this long for the role leaves, unless it is the last one.
constexpr std::chrono::seconds kIdleTimeout{5};
// Each thread past the first is a served call blocked while others were read; far past this,
// something is wrong, and refusing the wait with an error beats exhausting the process.
constexpr int kMaxThreads = 1024;

}  // namespace

// The role as one thread holds it: what its handlers handed over, and whether a call it ran
// gave the role away.
struct IoThreads::Holder {
  IoThreads* owner;
  std::deque<Task> pending;
  bool gaveUp = false;
};

namespace {
thread_local IoThreads::Holder* tlsHandlerHolder = nullptr;  // set while running a handler
thread_local const IoThreads* tlsOwner = nullptr;            // the IoThreads of this thread
}  // namespace

IoThreads::IoThreads(std::string name)
    : name_(std::move(name)), work_(boost::asio::make_work_guard(io_)) {}

IoThreads::~IoThreads() = default;

void IoThreads::start(std::function<void()> afterStop) {
  std::lock_guard<std::mutex> lock(mutex_);
  afterStop_ = std::move(afterStop);
  const std::string failure = spawnLocked();
  if (!failure.empty()) {
    throw std::runtime_error("transport: " + failure);
  }
}

void IoThreads::releaseWork() {
  work_.reset();
}

void IoThreads::join() {
  if (isOwnThread()) {
    return;  // the holder finishes the shutdown once its handler or call returns
  }
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return stopped_ && live_ == inTask_; });
}

bool IoThreads::isOwnThread() const {
  return tlsOwner == this;
}

bool IoThreads::runAfterHandler(Task& task) {
  Holder* holder = tlsHandlerHolder;
  if (holder == nullptr) {
    return false;
  }
  holder->pending.push_back(std::move(task));
  return true;
}

bool IoThreads::inHandler() {
  return tlsHandlerHolder != nullptr;
}

std::string IoThreads::spawnLocked() {
  if (live_ >= kMaxThreads) {
    return "all " + std::to_string(live_) + " threads are blocked in served calls";
  }
  try {
    std::thread([self = shared_from_this()] { self->threadMain(); }).detach();
  } catch (const std::system_error& e) {
    return std::string("cannot start a thread: ") + e.what();
  }
  ++live_;
  return {};
}

void IoThreads::threadMain() {
  tlsOwner = this;
  ::pthread_setname_np(::pthread_self(), name_.substr(0, 15).c_str());
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    ++idle_;
    const bool woken =
        changed_.wait_for(lock, kIdleTimeout, [this] { return roleFree_ || stopped_; });
    --idle_;
    if (stopped_) {
      break;
    }
    if (!woken) {
      if (live_ > 1) {
        break;  // the role is held by another thread, and more are left
      }
      continue;
    }
    roleFree_ = false;
    Holder holder{this, std::move(handedOver_)};
    handedOver_.clear();
    lock.unlock();
    const bool ioStopped = holdRole(holder);
    lock.lock();
    if (ioStopped) {
      std::function<void()> afterStop = std::move(afterStop_);
      afterStop_ = nullptr;
      lock.unlock();
      if (afterStop) {
        afterStop();
      }
      lock.lock();
      stopped_ = true;
      break;
    }
    --inTask_;  // it gave the role away in a call, which has now returned
  }
  --live_;
  changed_.notify_all();
  tlsOwner = nullptr;
}

bool IoThreads::holdRole(Holder& holder) {
  for (;;) {
    while (!holder.pending.empty()) {
      Task task = std::move(holder.pending.front());
      holder.pending.pop_front();
      {
        detail::BlockingHookScope hook(&IoThreads::giveUpRole, &holder);
        try {
          task();
        } catch (const std::exception& e) {
          KA_LOG_ERROR(kCategory) << name_ << ": a served call threw: " << e.what();
        } catch (...) {
          KA_LOG_ERROR(kCategory) << name_ << ": a served call threw an unknown exception";
        }
      }
      if (holder.gaveUp) {
        return false;
      }
    }
    tlsHandlerHolder = &holder;
    try {
      io_.run_one();
    } catch (const std::exception& e) {
      KA_LOG_ERROR(kCategory) << "I/O handler threw: " << e.what();
    } catch (...) {
      KA_LOG_ERROR(kCategory) << "I/O handler threw an unknown exception";
    }
    tlsHandlerHolder = nullptr;
    if (io_.stopped()) {
      return true;
    }
  }
}

std::string IoThreads::giveUpRole(void* context) {
  Holder& holder = *static_cast<Holder*>(context);
  IoThreads& self = *holder.owner;
  std::lock_guard<std::mutex> lock(self.mutex_);
  if (self.idle_ == 0) {
    const std::string failure = self.spawnLocked();
    if (!failure.empty()) {
      return "transport " + self.name_ + ": " + failure + "; refusing to block another";
    }
  }
  holder.gaveUp = true;
  ++self.inTask_;
  self.handedOver_ = std::move(holder.pending);
  holder.pending.clear();
  self.roleFree_ = true;
  self.changed_.notify_all();
  return {};
}

}  // namespace wire
}  // namespace ka
