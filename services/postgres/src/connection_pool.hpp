#pragma once
// The connections calls run on. While the server is unreachable every call fails at once, instead
// of each waiting out a connect timeout; yet one call at a time, at most every quarter second,
// tries a fresh connection itself, so that the reason calls give is what is true now and calls
// succeed again from the first success on. The pool's owner also tries again in the background
// (retryNow). A connection the server ended while it sat idle is never handed out.

#include "pg_connection.hpp"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace QV::pg {

class Pool {
 public:
  // `setup` runs on every new connection before its first call (session settings).
  Pool(std::string conninfo, std::size_t size, std::chrono::milliseconds connectTimeout,
       std::function<void(Connection&)> setup);

  // A connection for one call, handed back when the lease goes. A connection that was lost in
  // the call is dropped instead, with the idle ones (a restart of the server ends them all); a
  // new connection lost at once marks the server unreachable.
  class Lease {
   public:
    Lease(Pool& pool, std::unique_ptr<Connection> connection, std::uint64_t generation, bool reused)
        : pool_(&pool),
          connection_(std::move(connection)),
          generation_(generation),
          reused_(reused) {}
    Lease(Lease&& other) noexcept = default;
    ~Lease();
    Connection& operator*() const { return *connection_; }
    Connection* operator->() const { return connection_.get(); }
    // The connection served calls before: it may have been cut since without anyone noticing.
    bool reused() const { return reused_; }

   private:
    Pool* pool_;
    std::unique_ptr<Connection> connection_;
    std::uint64_t generation_;
    bool reused_;
  };

  // Throws Failure (lost) at once while the server is unreachable, or when no connection can be
  // opened or becomes free before `deadline`.
  Lease checkout(Clock::time_point deadline);

  bool reachable() const;
  // Why the server is unreachable (empty while it is reachable).
  std::string lastFailure() const;
  // Tries to open a connection now; on success the server is reachable again. False otherwise.
  bool retryNow();
  // The owner's own connection to the server broke: the idle connections most likely went with
  // it (a restart ends them all), so they are dropped; the next call opens a new one, which
  // tells whether the server is there.
  void markLost();

 private:
  void giveBack(std::unique_ptr<Connection> connection, std::uint64_t generation, bool reused);
  std::unique_ptr<Connection> open();
  void markUnreachable(const std::string& why);

  const std::string conninfo_;
  const std::size_t size_;
  const std::chrono::milliseconds connectTimeout_;
  const std::function<void(Connection&)> setup_;

  mutable std::mutex mutex_;
  std::condition_variable freed_;
  // Guarded by mutex_: open connections not leased, how many exist in all, the server's state.
  std::vector<std::unique_ptr<Connection>> idle_;
  std::size_t open_ = 0;
  bool reachable_ = true;
  std::string failure_;
  // Guarded by mutex_, while unreachable: whether a call is trying a fresh connection, and when
  // the last attempt began.
  bool probing_ = false;
  Clock::time_point lastAttempt_{};
  // Guarded by mutex_: bumped when the server is found unreachable, so that connections leased
  // before are dropped on return instead of being reused after a restart of the server.
  std::uint64_t generation_ = 0;
};

}  // namespace QV::pg
