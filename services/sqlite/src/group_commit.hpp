#pragma once
// Group commit: writes that arrive together from any number of threads are handed to one thread
// that commits them in one transaction, and each caller returns once that transaction is over.

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace QV::detail {

class GroupCommit {
 public:
  // One caller's write, living on its stack until submit() returns.
  struct Write {
    Write(const char* operation, std::function<void()> body)
        : operation(operation), body(std::move(body)) {}

    const char* operation;       // the call's name, for its error
    std::function<void()> body;  // the write's statements, run inside the group's transaction
    std::exception_ptr failure;  // set by the group's commit when this write did not commit

    // Guarded by the queue's mutex.
    enum class State { Queued, Leads, Done } state = State::Queued;
    std::condition_variable changed;  // signalled when state changes
  };
  using Group = std::vector<Write*>;
  // Runs the writes of a group in order in one transaction and sets the failure of each one that
  // is not stored. Must not throw.
  using CommitGroup = std::function<void(const Group&)>;

  // `afterGroup`, if any, runs on the leader once the callers of its group are woken and before
  // the next group starts, e.g. for upkeep they need not wait for.
  // `commitBlocks`: a commit waits for the disk (it writes the WAL, and fsyncs it under full
  // durability), so the leader tells the event loop and the transport that it blocks: the
  // writes that arrive meanwhile are still read, and queue for the next group instead of each
  // committing alone after it.
  explicit GroupCommit(CommitGroup commitGroup, std::function<void()> afterGroup = {},
                       bool commitBlocks = false)
      : commitGroup_(std::move(commitGroup)),
        afterGroup_(std::move(afterGroup)),
        commitBlocks_(commitBlocks) {}

  // Returns when the group holding `write` is committed (or failed): the caller then reads its
  // failure. The first caller to find no leader leads: it commits every write queued so far, its
  // own included; the others wait (telling the event loop they block), and the first of them
  // still queued when that commit ends leads the next group.
  void submit(Write& write);

 private:
  // Waits until `write` is done or must lead; returns true for the latter.
  bool follow(Write& write);
  void lead();

  const CommitGroup commitGroup_;
  const std::function<void()> afterGroup_;
  const bool commitBlocks_;
  std::mutex mutex_;      // guards pending_, leading_ and the state of every queued Write
  Group pending_;         // arrived since the committing group was taken, in arrival order
  bool leading_ = false;  // a thread leads: commits a group, or is woken to
};

}  // namespace QV::detail
