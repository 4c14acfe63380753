#include "connection_pool.hpp"

#include <ka/detail/blocking_scope.hpp>

#include <optional>

namespace QV::pg {

Pool::Pool(std::string conninfo, std::size_t size, std::chrono::milliseconds connectTimeout,
           std::function<void(Connection&)> setup)
    : conninfo_(std::move(conninfo)),
      size_(std::max<std::size_t>(1, size)),
      connectTimeout_(connectTimeout),
      setup_(std::move(setup)) {}

Pool::Lease::~Lease() {
  if (connection_) {
    pool_->giveBack(std::move(connection_), generation_, reused_);
  }
}

std::unique_ptr<Connection> Pool::open() {
  auto connection = std::make_unique<Connection>(conninfo_, connectTimeout_);
  setup_(*connection);
  return connection;
}

void Pool::markUnreachable(const std::string& why) {
  // Called with mutex_ held.
  reachable_ = false;
  failure_ = why;
  ++generation_;
  open_ -= idle_.size();
  idle_.clear();
  freed_.notify_all();
}

Pool::Lease Pool::checkout(Clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (!reachable_) {
      throw Failure("the database is unreachable: " + failure_, true);
    }
    if (!idle_.empty()) {
      auto connection = std::move(idle_.back());
      idle_.pop_back();
      return Lease(*this, std::move(connection), generation_, true);
    }
    if (open_ < size_) {
      break;
    }
    std::optional<ka::detail::BlockingScope> blocking;
    try {
      blocking.emplace();
    } catch (const std::exception&) {
      // No spare worker: wait all the same.
    }
    if (freed_.wait_until(lock, deadline) == std::cv_status::timeout) {
      throw Failure("every connection to the database stayed busy", false);
    }
  }
  ++open_;
  const std::uint64_t generation = generation_;
  lock.unlock();
  try {
    return Lease(*this, open(), generation, false);
  } catch (const Failure& failure) {
    lock.lock();
    --open_;
    if (failure.lost() && generation == generation_) {
      markUnreachable(failure.what());
    }
    freed_.notify_one();
    throw Failure("the database is unreachable: " + std::string(failure.what()), true);
  }
}

void Pool::giveBack(std::unique_ptr<Connection> connection, std::uint64_t generation, bool reused) {
  const bool broken = connection->broken();
  std::unique_ptr<Connection> dropped;
  std::vector<std::unique_ptr<Connection>> stale;
  std::lock_guard lock(mutex_);
  if (generation != generation_) {
    dropped = std::move(connection);  // counted out when its generation ended
    return;
  }
  if (broken) {
    dropped = std::move(connection);
    --open_;
    if (reused) {
      // Cut while it sat idle, most likely with its siblings: the next call opens a new one,
      // which tells whether the server is there.
      open_ -= idle_.size();
      stale.swap(idle_);
    } else {
      // A new connection lost at once: the server is gone. Calls fail fast until the owner
      // reconnects, instead of each finding out by itself.
      markUnreachable(dropped->errorMessage());
    }
  } else {
    idle_.push_back(std::move(connection));
  }
  freed_.notify_one();
}

void Pool::markLost(const std::string& why) {
  std::lock_guard lock(mutex_);
  markUnreachable(why);
}

bool Pool::reachable() const {
  std::lock_guard lock(mutex_);
  return reachable_;
}

std::string Pool::lastFailure() const {
  std::lock_guard lock(mutex_);
  return reachable_ ? std::string() : failure_;
}

bool Pool::retryNow() {
  std::unique_ptr<Connection> connection;
  try {
    connection = open();
  } catch (const Failure& failure) {
    std::lock_guard lock(mutex_);
    failure_ = failure.what();
    return false;
  }
  std::lock_guard lock(mutex_);
  if (!reachable_) {
    reachable_ = true;
    failure_.clear();
  }
  if (open_ < size_) {
    ++open_;
    idle_.push_back(std::move(connection));
    freed_.notify_one();
  }
  return true;
}

}  // namespace QV::pg
