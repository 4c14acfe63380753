#include "serialgate.hpp"

#include <ka/detail/blocking_scope.hpp>
#include <ka/eventloop.hpp>

#include <algorithm>
#include <functional>

namespace ka {
namespace detail {
namespace {
// The gates this thread is inside, innermost last (a gate appears once per nesting).
thread_local std::vector<SerialGate*> tlsHeld;

void cancel(std::deque<SerialGate::Task>& tasks) {
  for (auto& task : tasks) {
    task(false);
  }
}
}  // namespace

SerialGate::~SerialGate() {
  std::deque<Task> left;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    left.swap(_queue);
  }
  cancel(left);
}

void SerialGate::enter() {
  const auto self = std::this_thread::get_id();
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_depth == 0 || _owner == self) {
      _owner = self;
      ++_depth;
      tlsHeld.push_back(this);
      return;
    }
  }
  {
    // Gives up what this thread holds, and takes it back together with this gate.
    BlockingScope blocking(*this);
  }
  tlsHeld.push_back(this);
}

void SerialGate::leave() {
  auto it = std::find(tlsHeld.rbegin(), tlsHeld.rend(), this);
  if (it != tlsHeld.rend()) {
    tlsHeld.erase(std::next(it).base());
  }
  std::unique_lock<std::mutex> lock(_mutex);
  if (--_depth == 0) {
    releaseLocked(lock);
  }
}

bool SerialGate::tryTake(int depth) {
  std::lock_guard<std::mutex> lock(_mutex);
  if (_depth != 0) {
    return false;
  }
  _owner = std::this_thread::get_id();
  _depth = depth;
  return true;
}

int SerialGate::giveUp() {
  std::unique_lock<std::mutex> lock(_mutex);
  const int depth = _depth;
  _depth = 0;
  releaseLocked(lock);
  return depth;
}

void SerialGate::waitFree() {
  std::unique_lock<std::mutex> lock(_mutex);
  _free.wait(lock, [this] { return _depth == 0; });
}

void SerialGate::releaseLocked(std::unique_lock<std::mutex>& lock) {
  _owner = std::thread::id();
  // Every waiter retries: one that cannot take all its gates at once goes back to waiting, and
  // must not have swallowed the only wake-up.
  _free.notify_all();
  std::deque<Task> refused = wakeQueueLocked();
  lock.unlock();
  cancel(refused);
}

void SerialGate::schedule(Task task) {
  std::unique_lock<std::mutex> lock(_mutex);
  _queue.push_back(std::move(task));
  std::deque<Task> refused = wakeQueueLocked();
  lock.unlock();
  cancel(refused);
}

std::deque<SerialGate::Task> SerialGate::wakeQueueLocked() {
  std::deque<Task> refused;
  if (_queue.empty() || _depth != 0 || _pumpPending) {
    return refused;
  }
  // Raw `this` is safe: until the pump runs the queue is not empty, and queued tasks keep the
  // gate's owner alive.
  if (defaultEventLoop().tryPost([this] { pump(); })) {
    _pumpPending = true;
  } else {
    refused.swap(_queue);
  }
  return refused;
}

void SerialGate::pump() {
  Task task;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _pumpPending = false;
    if (_depth != 0 || _queue.empty()) {
      return;  // whoever is inside wakes the queue again when it leaves or blocks
    }
    _owner = std::this_thread::get_id();
    _depth = 1;
    task = std::move(_queue.front());
    _queue.pop_front();
  }
  tlsHeld.push_back(this);
  task(true);
  leave();
  // `task` may hold the last reference to the gate's owner: it dies here, and nothing touches
  // the gate after it.
}

SuspendedGates suspendSerialGates() {
  SuspendedGates suspended;
  for (SerialGate* gate : tlsHeld) {
    const bool seen = std::any_of(suspended.begin(), suspended.end(),
                                  [&](const auto& s) { return s.first == gate; });
    if (!seen) {
      suspended.emplace_back(gate, gate->giveUp());
    }
  }
  return suspended;
}

void resumeSerialGates(const SuspendedGates& wanted) {
  // One global order: two threads after the same gates contend on the first, not in a circle.
  SuspendedGates gates = wanted;
  std::sort(gates.begin(), gates.end(), std::less<>());
  for (;;) {
    std::size_t taken = 0;
    while (taken < gates.size() && gates[taken].first->tryTake(gates[taken].second)) {
      ++taken;
    }
    if (taken == gates.size()) {
      return;
    }
    for (std::size_t i = 0; i < taken; ++i) {
      gates[i].first->giveUp();
    }
    gates[taken].first->waitFree();
  }
}

}  // namespace detail
}  // namespace ka
