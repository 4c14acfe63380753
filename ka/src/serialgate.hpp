#pragma once
// Serialises the calls into one single-threaded object.
//
// Deadlock freedom rests on one rule: a thread never waits while holding a gate. Entering a
// free gate takes it at once, even with other gates held; but before a thread waits (for a busy
// gate, a future, a busy database) it gives up every gate it holds and later takes them all
// back at once, never holding one while waiting for another. So objects that call each other in
// any pattern, from any number of threads, cycles included, always make progress, and a gate
// only lets a second call in while the call inside is blocked waiting.
//
// Queued calls do not wait on a worker of the event loop: they wait in the gate's own queue,
// and run one at a time in queue order whenever no call is inside.

#include <ka/detail/unique_function.hpp>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace ka {
namespace detail {

class SerialGate {
 public:
  SerialGate() = default;
  // Tells the tasks still queued (there can be some only if they do not own the gate's owner)
  // that they will not run.
  ~SerialGate();
  SerialGate(const SerialGate&) = delete;
  SerialGate& operator=(const SerialGate&) = delete;

  // Takes the gate, waiting (as a blocking wait, see above) while another thread is inside;
  // re-entrant on the thread inside. Throws what BlockingScope throws when the wait is refused.
  void enter();
  void leave();

  // Queues `task` to run on the default event loop inside the gate, after the tasks queued
  // before it. task(true) runs it; task(false) tells it that it never will (the loop stopped).
  // The task must not throw.
  using Task = UniqueFunction<void(bool run)>;
  void schedule(Task task);

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

  // Takes the gate with `depth` if no thread is inside; never waits.
  bool tryTake(int depth);
  // Gives the gate up entirely; answers the depth this thread held.
  int giveUp();
  // Returns once no thread is inside (without taking the gate).
  void waitFree();

 private:
  // Runs the first queued task inside the gate, if the gate is free.
  void pump();
  // With _mutex held: posts a pump when tasks wait and nothing is inside. Returns the tasks to
  // cancel (to be told outside the lock) when the loop refused it.
  std::deque<Task> wakeQueueLocked();
  void releaseLocked(std::unique_lock<std::mutex>& lock);

  std::mutex _mutex;
  std::condition_variable _free;
  // Guarded by _mutex: the thread inside (default id when none) and its nesting depth.
  std::thread::id _owner;
  int _depth = 0;
  // Guarded by _mutex: queued tasks, oldest first, and whether a pump is posted. A posted pump
  // implies a non-empty queue until it runs, and the queued tasks keep the gate's owner alive.
  std::deque<Task> _queue;
  bool _pumpPending = false;
};

using SuspendedGates = std::vector<std::pair<SerialGate*, int>>;

// Gives up every gate this thread holds (each with its depth), for a blocking wait.
SuspendedGates suspendSerialGates();
// Takes all of `gates` back with their depths, all at once: whenever one is busy it lets go of
// those it took and waits for that one while holding none.
void resumeSerialGates(const SuspendedGates& gates);

}  // namespace detail
}  // namespace ka
