#include "database_impl.hpp"

#include "schema.hpp"

#include <libpq-fe.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

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
    std::string reason = error == nullptr ? "out of memory" : error;
    PQfreemem(error);
    while (!reason.empty() && (reason.back() == '\n' || reason.back() == ' ')) {
      reason.pop_back();
    }
    // Neither the string nor libpq's reason (which may quote the string or the password) is
    // parsed, so the password is hidden wherever it was written.
    throw PostgresError(
        withoutPassword("database '" + uri + "': not a valid connection string: " + reason, uri));
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

std::string withoutPassword(std::string text, const std::string& uri) {
  std::vector<std::string> passwords;
  // user:password@ in a URI's authority, which ends at the first '/' or '?' after the scheme.
  const auto scheme = uri.find("://");
  if (scheme != std::string::npos) {
    const auto start = scheme + 3;
    const auto end = uri.find_first_of("/?", start);
    const std::string authority =
        uri.substr(start, end == std::string::npos ? std::string::npos : end - start);
    const auto at = authority.rfind('@');
    const auto colon = authority.find(':');
    if (at != std::string::npos && colon < at && colon + 1 < at) {
      passwords.push_back(authority.substr(colon + 1, at - colon - 1));
    }
  }
  // password=... as a URI query parameter or a key=value pair (possibly quoted).
  for (auto key = uri.find("password"); key != std::string::npos;
       key = uri.find("password", key + 1)) {
    auto value = key + 8;
    while (value < uri.size() && uri[value] == ' ') {
      ++value;
    }
    if (value >= uri.size() || uri[value] != '=') {
      continue;
    }
    ++value;
    while (value < uri.size() && uri[value] == ' ') {
      ++value;
    }
    std::size_t end = value;
    if (end < uri.size() && uri[end] == '\'') {
      for (++end; end < uri.size() && uri[end] != '\''; ++end) {
        end += uri[end] == '\\' ? 1 : 0;
      }
      end = std::min(end + 1, uri.size());
    } else {
      end = uri.find_first_of("& ", value);
      end = end == std::string::npos ? uri.size() : end;
    }
    if (end > value) {
      passwords.push_back(uri.substr(value, end - value));
    }
  }
  for (const auto& password : passwords) {
    for (auto at = text.find(password); at != std::string::npos; at = text.find(password, at + 3)) {
      text.replace(at, password.size(), "***");
    }
  }
  return text;
}

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

void PostgresDatabase::announce(const std::string& kind, const std::string& payload,
                                std::uint64_t notice) {
  static const pg::Statement announce{
      "qv_announce_once", "SELECT qv_announce_once($1::text, $2::bigint, $3::text, $4::bytea)"};
  try {
    // Recorded once whatever happens, so a connection found cut may simply try again.
    _impl->withConnection(
        [&](pg::Connection& connection, pg::Clock::time_point deadline) {
          connection.run(
              announce,
              {{_impl->origin, false}, {std::to_string(notice), false}, {kind, false}, {payload}},
              deadline);
        },
        true);
  } catch (const pg::Failure& e) {
    throw PostgresError("database '" + _impl->conninfo + "': announcing " + kind +
                        " failed: " + e.what());
  }
}

void PostgresDatabase::follow(const std::string& kind, EventHandler handler) {
  _impl->feed->follow(kind, std::move(handler));
}

}  // namespace QV
