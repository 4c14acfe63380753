#pragma once
// Managed blocking: code about to block a thread (waiting on a future) holds a BlockingScope, so
// that an EventLoop owning the thread can start a spare worker and keep its queued work moving.
// Without it, tasks that wait on other tasks of the same pool could deadlock a full pool.

#include <ka/api.hpp>

#include <utility>
#include <vector>

namespace ka {
namespace detail {

class WorkerPool;
class SerialGate;

// On a thread that is not an EventLoop worker the pool part does nothing. The outermost
// scope also lets other calls into the single-threaded objects this thread is serving
// while it blocks, and waits for its turn again when the block ends. Scopes may nest; only
// the outermost one counts. Must be destroyed on the thread that created it.
class KA_API BlockingScope {
 public:
  BlockingScope();
  ~BlockingScope();
  BlockingScope(const BlockingScope&) = delete;
  BlockingScope& operator=(const BlockingScope&) = delete;

 private:
  WorkerPool* pool_;  // the pool told about this block, or null when none was
  bool outermost_;
  std::vector<std::pair<SerialGate*, int>> suspended_;  // gates given up for the block
};

}  // namespace detail
}  // namespace ka
