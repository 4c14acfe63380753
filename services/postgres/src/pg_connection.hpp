#pragma once
// One libpq connection: statements prepared once per connection, parameters and results in
// binary form (bytea goes through byte for byte, with no escaping), and every wait bounded by a
// deadline so that a server that stops answering fails the call instead of hanging it.

#include <libpq-fe.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace QV::pg {

using Clock = std::chrono::steady_clock;

// A failed statement or connection. `lost` says the connection is gone (or no longer to be
// trusted) and must not be used again; otherwise the server refused the statement.
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& what, bool lost, std::string sqlState = {})
      : std::runtime_error(what), lost_(lost), sqlState_(std::move(sqlState)) {}
  bool lost() const noexcept { return lost_; }
  // The server's SQLSTATE, e.g. "40P01"; empty when the connection failed.
  const std::string& sqlState() const noexcept { return sqlState_; }

 private:
  bool lost_;
  std::string sqlState_;
};

// A statement's parameter: bytes sent in binary (bytea, int4, int8) or text form.
struct Param {
  std::string_view bytes;
  bool binary = true;
};

// Binary integers as the server sends and takes them (network byte order).
std::string int4(std::int32_t value);
std::string int8(std::int64_t value);

class Result {
 public:
  explicit Result(PGresult* result) : result_(result, &PQclear) {}
  int rows() const { return PQntuples(result_.get()); }
  std::string bytes(int row, int column) const;
  std::int32_t int4At(int row, int column) const;
  std::int64_t int8At(int row, int column) const;
  bool boolAt(int row, int column) const;

 private:
  std::unique_ptr<PGresult, void (*)(PGresult*)> result_;
};

// A prepared statement's text and name; the name is prepared on a connection at its first use.
struct Statement {
  std::string name;
  std::string sql;
};

class Connection {
 public:
  // Connects with `conninfo` (expanded as a URI or key=value string). Throws Failure (lost).
  Connection(const std::string& conninfo, std::chrono::milliseconds connectTimeout);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Runs `statement` with `params`, preparing it first on this connection if needed; results in
  // binary. Throws Failure; after a lost one the connection is broken().
  Result run(const Statement& statement, const std::vector<Param>& params,
             Clock::time_point deadline);
  // Runs SQL text without parameters (several statements allowed); results in text.
  Result exec(const std::string& sql, Clock::time_point deadline);

  // libpq's last error on this connection, on one line.
  std::string errorMessage() const;

  bool broken() const noexcept { return broken_ || PQstatus(conn_) != CONNECTION_OK; }
  PGconn* raw() noexcept { return conn_; }

  // Reads whatever the server sent without blocking; false when the connection is lost.
  bool consumeInput();
  // Whether the server ended this connection while it sat unused (its backend killed, the
  // server restarted): an unused connection normally receives nothing, so anything waiting is
  // read, without blocking, and tells. Costs one poll().
  bool endedWhileIdle();
  // The next notification received, or empty.
  std::unique_ptr<PGnotify, void (*)(void*)> nextNotification();

 private:
  Result finish(Clock::time_point deadline);
  void waitFor(short events, Clock::time_point deadline);
  [[noreturn]] void lose(const std::string& what);

  PGconn* conn_;
  bool broken_ = false;
  std::set<std::string> prepared_;
};

}  // namespace QV::pg
