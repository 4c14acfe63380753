#include "serialgate.hpp"

#include <ka/detail/blocking_scope.hpp>

#include <algorithm>

namespace ka {
namespace detail {
namespace {
// The gates this thread is inside, innermost last (a gate appears once per nesting).
thread_local std::vector<SerialGate*> tlsHeld;
}  // namespace

void SerialGate::enter() {
  const auto self = std::this_thread::get_id();
  {
    std::unique_lock<std::mutex> lock(_mutex);
    if (_owner == self || _depth == 0) {
      _owner = self;
      ++_depth;
      tlsHeld.push_back(this);
      return;
    }
  }
  // Waiting for the gate is blocking like any other wait: the gates this thread holds
  // are released meanwhile and the event loop may add a worker.
  {
    BlockingScope blocking;
    take(1);
  }
  tlsHeld.push_back(this);
}

void SerialGate::leave() {
  auto it = std::find(tlsHeld.rbegin(), tlsHeld.rend(), this);
  if (it != tlsHeld.rend()) {
    tlsHeld.erase(std::next(it).base());
  }
  std::lock_guard<std::mutex> lock(_mutex);
  if (--_depth == 0) {
    _owner = std::thread::id();
    _free.notify_one();
  }
}

void SerialGate::take(int depth) {
  std::unique_lock<std::mutex> lock(_mutex);
  _free.wait(lock, [&] { return _depth == 0; });
  _owner = std::this_thread::get_id();
  _depth = depth;
}

int SerialGate::giveUp() {
  std::lock_guard<std::mutex> lock(_mutex);
  const int depth = _depth;
  _depth = 0;
  _owner = std::thread::id();
  _free.notify_one();
  return depth;
}

std::vector<std::pair<SerialGate*, int>> suspendSerialGates() {
  std::vector<std::pair<SerialGate*, int>> suspended;
  for (SerialGate* gate : tlsHeld) {
    const bool seen = std::any_of(suspended.begin(), suspended.end(),
                                  [&](const auto& s) { return s.first == gate; });
    if (!seen) {
      suspended.emplace_back(gate, gate->giveUp());
    }
  }
  return suspended;
}

void resumeSerialGates(const std::vector<std::pair<SerialGate*, int>>& suspended) {
  for (const auto& s : suspended) {
    s.first->take(s.second);
  }
}

}  // namespace detail
}  // namespace ka
