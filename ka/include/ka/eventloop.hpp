#pragma once
// EventLoop: a pool of worker threads that runs posted tasks, delayed calls and the asynchronous
// I/O of the middleware (one boost::asio::io_context). Workers that block on a future are
// compensated with spare threads, so tasks may wait on other tasks of the same loop.

#include <ka/api.hpp>
#include <ka/detail/unique_function.hpp>
#include <ka/future.hpp>

#include <boost/asio/io_context.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace ka {

namespace detail {
class WorkerPool;

template <class F>
using CallResult = std::decay_t<std::invoke_result_t<std::decay_t<F>&>>;
}  // namespace detail

// Text of the Canceled futures of work the loop refused or dropped because it was stopping.
inline constexpr const char kEventLoopStopped[] = "EventLoop stopped";

// Tasks run in the order they were queued, on any worker, concurrently with each other.
//
// Managed blocking: when a worker blocks (on a future, a single-threaded object, a busy database)
// while no other worker is idle, the loop starts a spare worker, so a wait inside the pool never
// starves unrelated work. Spares leave after being idle for a while. Past the spare limit (1024
// by default) the wait is refused instead: it throws std::runtime_error naming the loop, so the
// waiting call fails with a clear error rather than stalling every queued task. Growth past 64
// spares and refusals are logged as warnings, at most one per 10 s.
//
// Stopping: from stop() on, new work is refused (post() drops it with an error log, async()
// and asyncDelay() give a future canceled with kEventLoopStopped). Work already queued still
// runs; delayed calls not yet due are canceled the same way.
class KA_API EventLoop {
 public:
  // Starts `threads` workers (at least one). `name` names the worker threads and log lines.
  EventLoop(const std::string& name, int threads);
  // Stops the loop and waits for its workers. Must not run on one of this loop's workers.
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // Queues `task`. An exception escaping it is logged (category "ka.eventloop"); the worker
  // carries on.
  void post(std::function<void()> task);
  // Like post(), but returns false (dropping the task, logging nothing) when the loop stopped.
  [[nodiscard]] bool tryPost(std::function<void()> task);

  // Queues `f` (which may be move-only) and gives a future of its result; if f throws, the
  // future fails with the exception's what().
  template <class F>
  Future<detail::CallResult<F>> async(F&& f);

  // Like async(), but `f` runs no sooner than `delay` from now.
  template <class F>
  Future<detail::CallResult<F>> asyncDelay(F&& f, std::chrono::milliseconds delay);

  bool isInLoopThread() const;
  const std::string& name() const;
  // The number of permanent workers.
  int size() const;
  // The number of workers alive now, spares included.
  int threadCount() const;
  // For the sockets and timers of the transport: their handlers run on this loop's workers.
  boost::asio::io_context& ioContext();

  // Refuses new work, lets queued work finish and waits for the workers to exit. Called from one
  // of this loop's own workers it only starts stopping and returns at once. Idempotent.
  void stop();
  // Same, but waits at most `limit`; returns whether every worker has exited by then (those still
  // running a task are left running; the destructor waits for them).
  bool stop(std::chrono::milliseconds limit);
  bool isStopped() const;

  // How long a spare worker stays idle before it leaves (5 s by default).
  void setSpareIdleTimeout(std::chrono::milliseconds timeout);
  // How many spare workers blocked waits may start beyond size() (1024 by default).
  void setMaxSpareThreads(int spares);
  // Waits at most `limit` for the spare workers to leave; returns whether they all have.
  bool waitForSparesToLeave(std::chrono::milliseconds limit) const;

 private:
  // Both return false, dropping the task, when the loop is stopping. A delayed task gets `true`
  // when it is due, `false` when it is canceled by stop().
  bool dispatch(detail::UniqueFunction<void()> task);
  bool dispatchAfter(std::chrono::milliseconds delay, detail::UniqueFunction<void(bool)> task);

  std::unique_ptr<detail::WorkerPool> pool_;
};

// The process-wide loop, started on first use with setDefaultEventLoopSize()'s size, else the
// KA_EVENTLOOP_THREADS environment variable, else max(2, hardware threads). At process exit it
// is stopped: queued work gets a few seconds to finish and then is abandoned, so exit never
// hangs. It stays usable (refusing work) by static destructors that run later.
KA_API EventLoop& defaultEventLoop();
// Returns false, changing nothing, once the default loop has started (or when threads < 1).
KA_API bool setDefaultEventLoopSize(int threads);

template <class F>
Future<detail::CallResult<F>> EventLoop::async(F&& f) {
  using R = detail::CallResult<F>;
  Promise<R> promise;
  Future<R> result = promise.future();
  if (!dispatch([promise, fn = std::decay_t<F>(std::forward<F>(f))]() mutable {
        detail::fulfil(promise, fn);
      })) {
    promise.trySetCanceled(kEventLoopStopped);
  }
  return result;
}

template <class F>
Future<detail::CallResult<F>> EventLoop::asyncDelay(F&& f, std::chrono::milliseconds delay) {
  using R = detail::CallResult<F>;
  Promise<R> promise;
  Future<R> result = promise.future();
  if (!dispatchAfter(delay, [promise, fn = std::decay_t<F>(std::forward<F>(f))](bool due) mutable {
        if (due) {
          detail::fulfil(promise, fn);
        } else {
          promise.trySetCanceled(kEventLoopStopped);
        }
      })) {
    promise.trySetCanceled(kEventLoopStopped);
  }
  return result;
}

}  // namespace ka
