#pragma once
// Serialises the calls into one single-threaded object without holding a lock while
// a method blocks: a call that waits (on a future, or to enter another gate) lets
// other calls in until it resumes, so objects that call each other cannot deadlock.

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace ka {
namespace detail {

class SerialGate {
 public:
  // Waits until no other thread is inside; re-entrant on the same thread.
  void enter();
  void leave();

  // RAII for enter/leave.
  class Scope {
   public:
    explicit Scope(SerialGate& gate) : _gate(gate) { _gate.enter(); }
    ~Scope() { _gate.leave(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    SerialGate& _gate;
  };

 private:
  friend std::vector<std::pair<SerialGate*, int>> suspendSerialGates();
  friend void resumeSerialGates(const std::vector<std::pair<SerialGate*, int>>& suspended);

  // Takes the gate for this thread with the given depth, waiting for it to be free.
  void take(int depth);
  // Gives the gate up entirely; answers the depth this thread held.
  int giveUp();

  std::mutex _mutex;
  std::condition_variable _free;
  // Guarded by _mutex: the thread inside (default id when none) and its nesting depth.
  std::thread::id _owner;
  int _depth = 0;
};

// Called when this thread is about to block: gives up every gate it holds, and
// takes them back afterwards. Used by BlockingScope.
std::vector<std::pair<SerialGate*, int>> suspendSerialGates();
void resumeSerialGates(const std::vector<std::pair<SerialGate*, int>>& suspended);

}  // namespace detail
}  // namespace ka
