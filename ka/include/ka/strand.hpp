#pragma once
// Strand: an ordering domain for queued work. Tasks posted to one strand run one at a time, in
// the order they were posted, on the workers of an event loop; different strands run in
// parallel. Queued signal subscribers deliver through one: give several subscriptions the same
// strand to receive the emissions of different signals in the order they happened.

#include <ka/api.hpp>

#include <functional>
#include <memory>

namespace ka {

class EventLoop;

namespace detail {
class StrandQueue;
}

// A copyable handle: copies share one order. Tasks hold the strand alive until they ran.
class KA_API Strand {
 public:
  // On the default event loop.
  Strand();
  explicit Strand(EventLoop& loop);

  // Queues `task` after every task posted to this strand before it. An exception escaping the
  // task is logged (category "ka.strand"). When the loop has stopped the task is dropped with an
  // error log, like EventLoop::post.
  void post(std::function<void()> task) const;

  friend bool operator==(const Strand& a, const Strand& b) { return a._queue == b._queue; }
  friend bool operator!=(const Strand& a, const Strand& b) { return !(a == b); }

 private:
  std::shared_ptr<detail::StrandQueue> _queue;
};

}  // namespace ka
