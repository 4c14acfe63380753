#pragma once
// The threads of a transport and its reader role: exactly one of them at a time runs the
// handlers of the transport's io_context (reads, writes, accepts, timers), so the state of a
// socket channel needs no lock of its own. A handler may hand a served call to the thread it
// runs on, to run right after the handler; if that call blocks, the thread first passes the
// role to another (an idle one, or a new one), so the sockets are always being read.
// docs/middleware.md ("Threads") gives the whole contract.

#include <ka/detail/unique_function.hpp>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace ka {
namespace wire {

class IoThreads : public std::enable_shared_from_this<IoThreads> {
 public:
  using Task = detail::UniqueFunction<void()>;

  // `name` names the threads (for debuggers and top).
  explicit IoThreads(std::string name);
  ~IoThreads();
  IoThreads(const IoThreads&) = delete;
  IoThreads& operator=(const IoThreads&) = delete;

  boost::asio::io_context& io() { return io_; }

  // Starts the first thread. `afterStop` runs once, on the last holder of the role, when the
  // io_context has stopped (no handler runs any more, nor will).
  void start(std::function<void()> afterStop);
  // Lets the io_context run out of work and stop once what is posted has run (see stop()).
  void releaseWork();
  // Waits until the role's last holder has run afterStop and every thread that is not inside a
  // handed-over call has ended; threads still in such a call finish it and end on their own.
  // From one of these threads, returns at once.
  void join();
  // True on one of these threads.
  bool isOwnThread() const;

  // From a handler of any transport's io_context: runs `task` on this thread once the handler
  // has returned, after the tasks handed over before it. False (task untouched) when the calling
  // thread is not running a handler as a reader (the caller then runs it elsewhere).
  static bool runAfterHandler(Task& task);
  // Whether runAfterHandler would take a task now.
  static bool inHandler();

  // The role as one thread holds it (internal).
  struct Holder;

 private:
  void threadMain();
  // Holds the role until the io_context stops (true) or the role passes to another thread.
  bool holdRole(Holder& holder);
  static std::string giveUpRole(void* holder);
  // mutex_ held. Empty, or why no thread could be started.
  std::string spawnLocked();

  const std::string name_;
  boost::asio::io_context io_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_:
  std::function<void()> afterStop_;
  bool roleFree_ = true;         // no thread holds the role: the next idle thread takes it
  bool stopped_ = false;         // the io_context stopped and afterStop ran: threads leave
  int live_ = 0;                 // threads started and not ended
  int idle_ = 0;                 // threads waiting for the role
  int inTask_ = 0;               // threads running a call after giving up the role
  std::deque<Task> handedOver_;  // calls a blocked holder left for the next one
};

}  // namespace wire
}  // namespace ka
