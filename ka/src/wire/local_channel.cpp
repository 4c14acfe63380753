#include "wire/local_channel.hpp"

#include <ka/detail/typeimpl.hpp>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <vector>

namespace ka {
namespace wire {

// What both ends share. The delivery threads hold it too, so it outlives the ends.
struct LocalChannel::Link {
  explicit Link(std::string d) : description(std::move(d)) {}

  struct Side {
    // Frames sent to this side, not delivered yet.
    std::deque<Frame> inbox;
    std::chrono::milliseconds delay{0};
    // Sends from this side left before the link is cut (0: never).
    std::size_t cutCountdown = 0;
    std::string cutReason;
    std::function<void(const Frame&)> observer;
  };

  // With mutex held.
  void closeLocked(const std::string& why, bool lose) {
    if (!open) {
      return;
    }
    open = false;
    lossy = lose;
    reason = why;
    if (lose) {
      sides[0].inbox.clear();
      sides[1].inbox.clear();
    }
    changed.notify_all();
  }

  const std::string description;
  std::mutex mutex;
  std::condition_variable changed;  // frames queued, or the link closed
  // All guarded by mutex:
  bool open = true;
  bool lossy = false;  // closed by a cut: what was in flight is gone
  std::string reason;
  Side sides[2];
};

namespace {

// Delivery threads whose channel went away on that very thread, so nobody could join them there.
// They are joined at exit rather than detached: a detached thread still finishing its last
// handler at exit would race with the destruction of the statics it touches (the loop, the
// logger). The join is registered with atexit on first use, after those statics were made, so
// it runs before they are destroyed. The registry itself is never destroyed: a delivery thread
// may still come to it while the process exits, and then detaches, there being no one left to
// join it.
class OrphanThreads {
 public:
  static OrphanThreads& instance() {
    static detail::Immortal<OrphanThreads> orphans;
    static const bool joinedAtExit = std::atexit([] { instance().joinAll(); }) == 0;
    (void)joinedAtExit;
    return orphans.value;
  }

  void adopt(std::thread thread, std::shared_ptr<std::atomic<bool>> finished) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_exiting) {
      thread.detach();
      return;
    }
    // Join those that have finished, so the list stays as short as the threads still running.
    for (auto it = _threads.begin(); it != _threads.end();) {
      if (it->finished->load()) {
        it->thread.join();
        it = _threads.erase(it);
      } else {
        ++it;
      }
    }
    _threads.push_back({std::move(thread), std::move(finished)});
  }

 private:
  void joinAll() {
    std::vector<Orphan> threads;
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _exiting = true;
      threads.swap(_threads);
    }
    for (auto& orphan : threads) {
      orphan.thread.join();
    }
  }

  struct Orphan {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> finished;
  };
  std::mutex _mutex;
  bool _exiting = false;         // guarded by _mutex
  std::vector<Orphan> _threads;  // guarded by _mutex
};

// Delivers what `side` receives until the link closes, then tells the close handler once.
void deliver(std::shared_ptr<LocalChannel::Link> link, int side, Channel::FrameHandler onFrame,
             Channel::CloseHandler onClose, std::shared_ptr<std::atomic<bool>> finished) {
  struct MarkFinished {
    std::atomic<bool>& flag;
    ~MarkFinished() { flag.store(true); }
  } markFinished{*finished};
  std::unique_lock<std::mutex> lock(link->mutex);
  auto& me = link->sides[side];
  for (;;) {
    link->changed.wait(lock, [&] { return !me.inbox.empty() || !link->open; });
    if (me.inbox.empty()) {
      break;  // closed, everything delivered (or lost)
    }
    if (me.delay.count() > 0) {
      // A slow link: the frame is still on its way; a cut meanwhile loses it.
      link->changed.wait_for(lock, me.delay, [&] { return !link->open && link->lossy; });
      if (me.inbox.empty()) {
        break;
      }
    }
    Frame frame = std::move(me.inbox.front());
    me.inbox.pop_front();
    lock.unlock();
    onFrame(std::move(frame));
    lock.lock();
  }
  const std::string reason = link->reason;
  lock.unlock();
  onClose(reason);
}

}  // namespace

std::pair<std::shared_ptr<LocalChannel>, std::shared_ptr<LocalChannel>> LocalChannel::makePair(
    const std::string& description) {
  auto link = std::make_shared<Link>(description);
  return {std::make_shared<LocalChannel>(Key{}, link, 0),
          std::make_shared<LocalChannel>(Key{}, link, 1)};
}

LocalChannel::LocalChannel(Key, std::shared_ptr<Link> link, int side)
    : _link(std::move(link)), _side(side) {}

LocalChannel::~LocalChannel() {
  close("The channel was destroyed");
  if (_thread.joinable()) {
    if (_thread.get_id() == std::this_thread::get_id()) {
      // The last handle went inside a handler: the thread ends on its own once that returns.
      OrphanThreads::instance().adopt(std::move(_thread), _finished);
    } else {
      _thread.join();
    }
  }
}

void LocalChannel::start(FrameHandler onFrame, CloseHandler onClose) {
  if (_thread.joinable()) {
    throw std::logic_error("LocalChannel::start called twice");
  }
  // Made before any delivery thread exists, so its join at exit is registered before the exit
  // begins rather than by a thread that adopts itself while it runs.
  (void)OrphanThreads::instance();
  _thread = std::thread(deliver, _link, _side, std::move(onFrame), std::move(onClose), _finished);
}

bool LocalChannel::send(Frame frame) {
  std::function<void(const Frame&)> observer;
  {
    std::lock_guard<std::mutex> lock(_link->mutex);
    auto& me = _link->sides[_side];
    if (!_link->open) {
      return false;
    }
    if (me.cutCountdown > 0 && --me.cutCountdown == 0) {
      _link->closeLocked(me.cutReason, true);
      return false;
    }
    observer = me.observer;
  }
  if (observer) {
    observer(frame);
  }
  std::lock_guard<std::mutex> lock(_link->mutex);
  if (!_link->open) {
    return false;
  }
  _link->sides[1 - _side].inbox.push_back(std::move(frame));
  _link->changed.notify_all();
  return true;
}

void LocalChannel::close(const std::string& reason) {
  std::lock_guard<std::mutex> lock(_link->mutex);
  _link->closeLocked(reason, false);
}

bool LocalChannel::isOpen() const {
  std::lock_guard<std::mutex> lock(_link->mutex);
  return _link->open;
}

std::string LocalChannel::peerDescription() const {
  return _link->description;
}

void LocalChannel::setDeliveryDelay(std::chrono::milliseconds delay) {
  std::lock_guard<std::mutex> lock(_link->mutex);
  _link->sides[_side].delay = delay;
}

void LocalChannel::cut(const std::string& reason) {
  std::lock_guard<std::mutex> lock(_link->mutex);
  _link->closeLocked(reason, true);
}

void LocalChannel::cutOnSend(std::size_t n, const std::string& reason) {
  std::lock_guard<std::mutex> lock(_link->mutex);
  _link->sides[_side].cutCountdown = n;
  _link->sides[_side].cutReason = reason;
}

void LocalChannel::observeSends(std::function<void(const Frame&)> observer) {
  std::lock_guard<std::mutex> lock(_link->mutex);
  _link->sides[_side].observer = std::move(observer);
}

}  // namespace wire
}  // namespace ka
