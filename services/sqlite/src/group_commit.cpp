#include "group_commit.hpp"

#include <optional>
#include <stdexcept>

#include <ka/detail/blocking_scope.hpp>

namespace QV::detail {

void GroupCommit::submit(Write& write) {
  bool leads = false;
  {
    std::lock_guard lock(mutex_);
    pending_.push_back(&write);
    leads = !leading_;
    leading_ = true;
  }
  if (leads || follow(write)) {
    lead();
  }
}

namespace {

// The wait ends with a commit, which needs no worker of the event loop: when the loop refuses to
// count one more blocked worker the write waits all the same, as it would for a mutex, rather
// than fail.
void announceBlocking(std::optional<ka::detail::BlockingScope>& blocking) {
  try {
    blocking.emplace();
  } catch (const std::runtime_error&) {
  }
}

}  // namespace

bool GroupCommit::follow(Write& write) {
  // The scope starts and ends outside mutex_: taking back the objects it gave up may wait for
  // other threads.
  std::optional<ka::detail::BlockingScope> blocking;
  announceBlocking(blocking);
  std::unique_lock lock(mutex_);
  write.changed.wait(lock, [&] { return write.state != Write::State::Queued; });
  return write.state == Write::State::Leads;
}

void GroupCommit::lead() {
  Group group;
  {
    std::lock_guard lock(mutex_);
    group.swap(pending_);
  }
  {
    std::optional<ka::detail::BlockingScope> blocking;
    if (commitBlocks_) {
      announceBlocking(blocking);
    }
    commitGroup_(group);
  }
  std::unique_lock lock(mutex_);
  // Signalled under the mutex: a follower that sees its write done returns and destroys it as
  // soon as the mutex is free.
  for (Write* write : group) {
    write->state = Write::State::Done;
    write->changed.notify_one();
  }
  if (afterGroup_) {
    lock.unlock();
    afterGroup_();  // still leading: no other group runs meanwhile
    lock.lock();
  }
  if (pending_.empty()) {
    leading_ = false;
  } else {
    pending_.front()->state = Write::State::Leads;
    pending_.front()->changed.notify_one();
  }
}

}  // namespace QV::detail
