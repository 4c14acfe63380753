#pragma once
// One daemon's link to a PostgreSQL database shared by several daemons: a pool of connections
// that fails fast while the server is unreachable and reconnects with backoff, the schema
// (created and migrated on open), and the feed of changes the daemons announce to each other.
// The knowledge store and the user store of postgres_stores.hpp run on it. See
// docs/postgresql-store.md.

#include <qvstorage/durability.hpp>
#include <qvstorage/event_feed.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>

// Marks the symbols that libqvpostgres exports; everything else stays hidden.
#define QVPOSTGRES_API __attribute__((visibility("default")))

namespace QV {

// A database that cannot be used (unreachable at open, a schema newer than this build's, a
// password on the command line), or a call that failed. The text names the database (without its
// password) and the reason.
class QVPOSTGRES_API PostgresError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~PostgresError() override;
};

struct PostgresOptions {
  // Full: a write is acknowledged once the server has flushed it to its disk
  // (synchronous_commit=on). Normal: once the server has it (synchronous_commit=off): a crash of
  // the server may drop the last writes, a kill of the daemon never does.
  Durability durability = Durability::Full;
  // How long a call waits for the server before it fails and its connection is dropped.
  std::chrono::milliseconds callTimeout{10000};
  // How long opening one connection may take.
  std::chrono::milliseconds connectTimeout{5000};
  // Connections kept open for calls; a call beyond that many at once waits for one.
  std::size_t connections = 8;
  // Reconnecting after a lost server waits this long first, doubling up to the maximum.
  std::chrono::milliseconds reconnectDelay{50};
  std::chrono::milliseconds reconnectDelayMax{2000};
  // How long announced changes are kept for daemons that were disconnected to catch up on.
  std::chrono::seconds eventRetention{24 * 3600};
};

// The feed of this database: events carry their announcing PostgresDatabase's origin().
class QVPOSTGRES_API PostgresDatabase final
    : public EventFeed,
      public std::enable_shared_from_this<PostgresDatabase> {
 public:
  // Connects to `uri` (a libpq connection URI or key=value string; the password comes from
  // PGPASSWORD or the password file, never from `uri`), creates or migrates the schema and
  // starts following the other daemons' changes. Throws PostgresError.
  static std::shared_ptr<PostgresDatabase> open(const std::string& uri,
                                                PostgresOptions options = {});
  ~PostgresDatabase() override;

  // The connection string with any password removed, for messages.
  const std::string& location() const noexcept;
  // This daemon's name in the events it announces; unique per open.
  const std::string& origin() const noexcept;
  // False from a lost connection until the server answers again.
  bool reachable() const noexcept;

  // Throws PostgresError.
  void announce(const std::string& kind, const std::string& payload, std::uint64_t notice) override;
  void follow(const std::string& kind, EventHandler handler) override;

  class Impl;
  // Made by open(); public only so that a shared pointer can be made of it.
  explicit PostgresDatabase(std::unique_ptr<Impl> impl);
  // For the stores of this library.
  Impl& impl() noexcept { return *_impl; }

 private:
  std::unique_ptr<Impl> _impl;
};

// Whether `text` names a PostgreSQL database (a postgresql:// or postgres:// URI).
QVPOSTGRES_API bool isPostgresUri(const std::string& text);

// `text` with every password that the connection string `uri` holds (user:password@ in a URI, a
// password parameter or key) replaced by "***", for anything that shows or logs the string.
QVPOSTGRES_API std::string withoutPassword(std::string text, const std::string& uri);

}  // namespace QV
