#pragma once
// Managed blocking: code about to block a thread (waiting on a future) holds a BlockingScope, so
// that an EventLoop owning the thread can start a spare worker and keep its queued work moving.
// Without it, tasks that wait on other tasks of the same pool could deadlock a full pool.

#include <ka/api.hpp>

namespace ka {
namespace detail {

class WorkerPool;

// On a thread that is not an EventLoop worker this does nothing. Scopes may nest; only the
// outermost one counts. Must be destroyed on the thread that created it.
class KA_API BlockingScope {
 public:
  BlockingScope();
  ~BlockingScope();
  BlockingScope(const BlockingScope&) = delete;
  BlockingScope& operator=(const BlockingScope&) = delete;

 private:
  WorkerPool* pool_;  // the pool told about this block, or null when none was
};

}  // namespace detail
}  // namespace ka
