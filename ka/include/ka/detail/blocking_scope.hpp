#pragma once
// Managed blocking: code about to block a thread (waiting on a future, on a single-threaded
// object, on a busy database) holds a BlockingScope, so that an EventLoop owning the thread can
// start a spare worker and keep its queued work moving. Without it, tasks that wait on other
// tasks of the same pool could deadlock a full pool.

#include <ka/api.hpp>

#include <string>
#include <utility>
#include <vector>

namespace ka {
namespace detail {

class WorkerPool;
class SerialGate;

// On a thread that is not an EventLoop worker the pool part does nothing. The outermost scope
// also gives up the single-threaded objects this thread is serving while it blocks, and takes
// them back, all at once and without holding any while it waits, when the scope ends. Scopes
// may nest; only the outermost one counts. Must be destroyed on the thread that created it.
class KA_API BlockingScope {
 public:
  // Throws std::runtime_error, changing nothing, when this thread is a worker of an EventLoop
  // whose every worker is already busy or blocked and that may start no more: the caller's wait
  // fails with that error instead of stalling the loop for good.
  BlockingScope();
  // Same, and the end of the scope also takes `gate` (with the gates given up).
  explicit BlockingScope(SerialGate& gate);
  ~BlockingScope();
  BlockingScope(const BlockingScope&) = delete;
  BlockingScope& operator=(const BlockingScope&) = delete;

  // Whether a scope entered now would hand something to another thread first (a hook is
  // installed, see BlockingHookScope): then even a short wait, one a caller would otherwise
  // spend without a scope, holds up others and is worth a scope.
  static bool handsOffOnEntry() noexcept;

 private:
  WorkerPool* pool_;  // the pool told about this block, or null when none was
  bool outermost_;
  SerialGate* enter_ = nullptr;                         // taken when the scope ends
  std::vector<std::pair<SerialGate*, int>> suspended_;  // gates given up for the block
};

// A thread that must not block while it holds something others need (a transport thread that
// runs a served call while it is the one reading the sockets) installs a hook for as long as it
// holds it: the first BlockingScope entered on the thread then runs the hook, once, before it
// blocks, so the hook can hand that thing to another thread. The hook returns an empty string,
// or why the wait is refused, which the scope throws as std::runtime_error. Not nestable: a
// scope replaces the thread's hook and puts the previous one back when it ends.
class KA_API BlockingHookScope {
 public:
  using Hook = std::string (*)(void* context);
  BlockingHookScope(Hook hook, void* context) noexcept;
  ~BlockingHookScope();
  BlockingHookScope(const BlockingHookScope&) = delete;
  BlockingHookScope& operator=(const BlockingHookScope&) = delete;

 private:
  Hook previousHook_;
  void* previousContext_;
};

}  // namespace detail
}  // namespace ka
