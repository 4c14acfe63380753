#include "connection_pool.hpp"

#include <ka/detail/blocking_scope.hpp>

#include <optional>

namespace QV::pg {

namespace {

// While the server is unreachable, how often a call may try a fresh connection itself.
constexpr std::chrono::milliseconds kProbeEvery{250};

}  // namespace

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
  std::vector<std::unique_ptr<Connection>> ended;  // closed after the lock is let go
  std::unique_lock lock(mutex_);
  for (;;) {
    if (!reachable_) {
      if (probing_ || Clock::now() - lastAttempt_ < kProbeEvery) {
        throw Failure("the database is unreachable: " + failure_, true);
      }
      probing_ = true;
      break;
    }
    while (!idle_.empty()) {
      auto connection = std::move(idle_.back());
      idle_.pop_back();
      if (connection->endedWhileIdle()) {
        --open_;
        ended.push_back(std::move(connection));
        continue;
      }
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
  const bool probe = probing_;
  lastAttempt_ = Clock::now();
  ++open_;
  const std::uint64_t generation = generation_;
  lock.unlock();
  try {
    auto connection = open();
    lock.lock();
    if (probe) {
      probing_ = false;
      reachable_ = true;
      failure_.clear();
    }
    return Lease(*this, std::move(connection), generation_, false);
  } catch (const Failure& failure) {
    lock.lock();
    --open_;
    if (probe) {
      probing_ = false;
    }
    if (failure.lost() && (probe || generation == generation_)) {
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
    // Leased before the server was found gone: dropped, never reused after a restart.
    dropped = std::move(connection);
    --open_;
    freed_.notify_one();
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

void Pool::markLost() {
  std::vector<std::unique_ptr<Connection>> dropped;
  std::lock_guard lock(mutex_);
  ++generation_;
  open_ -= idle_.size();
  dropped.swap(idle_);
  freed_.notify_all();
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
