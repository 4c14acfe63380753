#pragma once
// PostgreSQL servers for the tests: the one the ctest fixture started (QV_TEST_PG_DIR), or one
// this process starts on first use when run by hand; a private one a test may stop and start;
// and a fresh schema per test on either, so that tests never see each other's rows.

#include <libpq-fe.h>

#include <unistd.h>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

namespace pgtest {

inline std::string script() {
  return std::string(QV_SOURCE_DIR) + "/scripts/pg-test-server.sh";
}

// Runs the server script; its first line of output, or throws with what it printed.
inline std::string runScript(const std::string& arguments) {
  const std::string command = script() + " " + arguments + " 2>&1";
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
  std::string out;
  char buffer[512];
  while (pipe && fgets(buffer, sizeof buffer, pipe.get()) != nullptr) {
    out += buffer;
  }
  const int status = pipe ? pclose(pipe.release()) : -1;
  if (status != 0) {
    throw std::runtime_error("pg-test-server.sh " + arguments + " failed: " + out);
  }
  return out.substr(0, out.find('\n'));
}

// A server of this test's own in a temporary directory, gone with the object.
class PrivateServer {
 public:
  PrivateServer() {
    char pattern[] = "/tmp/qv-pg-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      throw std::runtime_error("cannot make a temporary directory");
    }
    dir_ = pattern;
    uri_ = runScript("start " + dir_ + " -c fsync=off");
  }
  ~PrivateServer() {
    try {
      runScript("stop " + dir_);
    } catch (...) {
    }
  }
  const std::string& uri() const { return uri_; }
  // Stops it fast (clients cut off, a clean shutdown) | as in a crash; start() brings it back
  // on the same data.
  void halt() { runScript("halt " + dir_); }
  void kill() { runScript("kill " + dir_); }
  void start() { runScript("start " + dir_ + " -c fsync=off"); }

 private:
  std::string dir_;
  std::string uri_;
};

inline std::string sharedServerUri() {
  if (const char* dir = std::getenv("QV_TEST_PG_DIR")) {
    return runScript(std::string("uri ") + dir);
  }
  static PrivateServer server;  // run by hand: a server for this process
  return server.uri();
}

// Runs `sql` on `uri`; the first column of the first row, or empty. Throws on failure.
inline std::string query(const std::string& uri, const std::string& sql) {
  std::unique_ptr<PGconn, void (*)(PGconn*)> conn(PQconnectdb(uri.c_str()), &PQfinish);
  if (PQstatus(conn.get()) != CONNECTION_OK) {
    throw std::runtime_error(PQerrorMessage(conn.get()));
  }
  PQsetNoticeProcessor(
      conn.get(), [](void*, const char*) {}, nullptr);
  std::unique_ptr<PGresult, void (*)(PGresult*)> result(PQexec(conn.get(), sql.c_str()), &PQclear);
  const auto status = PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    throw std::runtime_error(sql + ": " + PQresultErrorMessage(result.get()));
  }
  return PQntuples(result.get()) > 0 ? PQgetvalue(result.get(), 0, 0) : "";
}

// An empty schema of its own on a server, first in the search_path of uri().
class TestDatabase {
 public:
  explicit TestDatabase(std::string serverUri = sharedServerUri()) : server_(std::move(serverUri)) {
    static std::atomic<int> counter{0};
    schema_ = "t" + std::to_string(getpid()) + "_" + std::to_string(++counter);
    query(server_, "DROP SCHEMA IF EXISTS " + schema_ + " CASCADE; CREATE SCHEMA " + schema_);
    uri_ = server_ + "&options=-csearch_path%3D" + schema_;
  }
  ~TestDatabase() {
    try {
      query(server_, "DROP SCHEMA IF EXISTS " + schema_ + " CASCADE");
    } catch (...) {
    }
  }
  const std::string& uri() const { return uri_; }
  std::string exec(const std::string& sql) const { return query(uri_, sql); }

 private:
  std::string server_;
  std::string schema_;
  std::string uri_;
};

}  // namespace pgtest
