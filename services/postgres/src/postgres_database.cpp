#include "database_impl.hpp"

#include "schema.hpp"

#include <libpq-fe.h>

#include <fstream>
#include <random>
#include <sstream>

namespace QV {
namespace {

// A fresh name for this daemon's events: the others skip nothing of it, it skips its own.
std::string newOrigin() {
  std::random_device random;
  std::ostringstream out;
  out << std::hex;
  for (int i = 0; i < 4; ++i) {
    out << random();
  }
  return out.str();
}

// Refuses a password in the connection string: command lines are visible to every user of the
// machine (ps, /proc). libpq finds it in PGPASSWORD or the password file instead.
void refusePassword(const std::string& uri) {
  char* error = nullptr;
  PQconninfoOption* options = PQconninfoParse(uri.c_str(), &error);
  if (options == nullptr) {
    const std::string reason = error == nullptr ? "out of memory" : error;
    PQfreemem(error);
    throw PostgresError("database '" + uri + "': not a valid connection string: " + reason);
  }
  bool hasPassword = false;
  for (PQconninfoOption* option = options; option->keyword != nullptr; ++option) {
    if (std::string(option->keyword) == "password" && option->val != nullptr &&
        option->val[0] != '\0') {
      hasPassword = true;
    }
  }
  PQconninfoFree(options);
  if (hasPassword) {
    throw PostgresError(
        "the connection string holds a password; give it in PGPASSWORD or the password file "
        "(~/.pgpass) instead");
  }
}

void setUpSession(pg::Connection& connection, const PostgresOptions& options) {
  const auto deadline = pg::Clock::now() + options.callTimeout;
  connection.exec(options.durability == Durability::Full ? "SET synchronous_commit TO on"
                                                         : "SET synchronous_commit TO off",
                  deadline);
}

}  // namespace

PostgresError::~PostgresError() = default;

bool isPostgresUri(const std::string& text) {
  return text.rfind("postgresql://", 0) == 0 || text.rfind("postgres://", 0) == 0;
}

PostgresDatabase::Impl::Impl(std::string conninfoText, const PostgresOptions& storeOptions)
    : conninfo(std::move(conninfoText)),
      options(storeOptions),
      origin(newOrigin()),
      pool(conninfo, options.connections, options.connectTimeout,
           [this](pg::Connection& connection) { setUpSession(connection, options); }) {}

PostgresDatabase::PostgresDatabase(std::unique_ptr<Impl> impl) : _impl(std::move(impl)) {}

PostgresDatabase::~PostgresDatabase() {
  // The feed's thread uses the pool; it stops first.
  _impl->feed.reset();
}

std::shared_ptr<PostgresDatabase> PostgresDatabase::open(const std::string& uri,
                                                         PostgresOptions options) {
  refusePassword(uri);
  auto impl = std::make_unique<Impl>(uri, options);
  std::int64_t lastEvent = 0;
  try {
    impl->withConnection([&](pg::Connection& connection, pg::Clock::time_point deadline) {
      pg::migrate(connection, deadline);
      lastEvent = std::stoll(
          connection.exec("SELECT coalesce(max(id), 0) FROM qv_events", deadline).bytes(0, 0));
    });
  } catch (const std::exception& e) {
    throw PostgresError("database '" + uri + "': " + e.what());
  }
  impl->feed =
      std::make_unique<pg::EventFeed>(uri, impl->options, impl->origin, impl->pool, uri, lastEvent);
  return std::make_shared<PostgresDatabase>(std::move(impl));
}

const std::string& PostgresDatabase::location() const noexcept {
  return _impl->conninfo;
}

const std::string& PostgresDatabase::origin() const noexcept {
  return _impl->origin;
}

bool PostgresDatabase::reachable() const noexcept {
  return _impl->pool.reachable();
}

void PostgresDatabase::announce(const std::string& kind, const std::string& payload) {
  static const pg::Statement announce{"qv_announce",
                                      "SELECT qv_announce($1::text, $2::text, $3::bytea)"};
  try {
    _impl->withConnection([&](pg::Connection& connection, pg::Clock::time_point deadline) {
      connection.run(announce, {{_impl->origin, false}, {kind, false}, {payload}}, deadline);
    });
  } catch (const pg::Failure& e) {
    throw PostgresError("database '" + _impl->conninfo + "': announcing " + kind +
                        " failed: " + e.what());
  }
}

void PostgresDatabase::follow(const std::string& kind, EventHandler handler) {
  _impl->feed->follow(kind, std::move(handler));
}

}  // namespace QV
