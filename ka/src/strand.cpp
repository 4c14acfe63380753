#include <ka/eventloop.hpp>
#include <ka/log.hpp>
#include <ka/strand.hpp>

#include <deque>
#include <mutex>

namespace ka {
namespace detail {

// The queue behind a Strand. One task per post of the loop, so a busy strand shares the workers
// fairly with other work; at most one post is in flight, which is what keeps the order.
class StrandQueue : public std::enable_shared_from_this<StrandQueue> {
 public:
  explicit StrandQueue(EventLoop& loop) : _loop(loop) {}

  void post(std::function<void()> task) {
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _tasks.push_back(std::move(task));
      if (_scheduled) {
        return;
      }
      _scheduled = true;
    }
    schedule();
  }

 private:
  void schedule() {
    if (_loop.tryPost([self = shared_from_this()] { self->runOne(); })) {
      return;
    }
    std::deque<std::function<void()>> dropped;
    {
      std::lock_guard<std::mutex> lock(_mutex);
      dropped.swap(_tasks);
      _scheduled = false;
    }
    KA_LOG_ERROR("ka.strand") << _loop.name() << ": stopped, " << dropped.size()
                              << " strand task(s) dropped";
  }

  void runOne() {
    std::function<void()> task;
    {
      std::lock_guard<std::mutex> lock(_mutex);
      task = std::move(_tasks.front());
      _tasks.pop_front();
    }
    try {
      task();
    } catch (const std::exception& e) {
      KA_LOG_ERROR("ka.strand") << "A strand task threw: " << e.what();
    } catch (...) {
      KA_LOG_ERROR("ka.strand") << "A strand task threw an unknown exception";
    }
    task = nullptr;  // what it captured goes before the next task may start
    {
      std::lock_guard<std::mutex> lock(_mutex);
      if (_tasks.empty()) {
        _scheduled = false;
        return;
      }
    }
    schedule();
  }

  EventLoop& _loop;
  std::mutex _mutex;
  // Guarded by _mutex: tasks not started yet, oldest first, and whether a run is posted or
  // running (tasks then only queue up behind it).
  std::deque<std::function<void()>> _tasks;
  bool _scheduled = false;
};

}  // namespace detail

Strand::Strand() : Strand(defaultEventLoop()) {}

Strand::Strand(EventLoop& loop) : _queue(std::make_shared<detail::StrandQueue>(loop)) {}

void Strand::post(std::function<void()> task) const {
  _queue->post(std::move(task));
}

}  // namespace ka
