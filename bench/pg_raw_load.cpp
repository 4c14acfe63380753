// The floor of the daemon on PostgreSQL, measured in the same run: the statements its store runs,
// prepared once on a libpq connection of each client thread's own, binary in and out, with no
// middleware and no daemon in between.
//
//   pg_raw_load populate --uri URI --users N
//     Users 1..N with a "birthyear" each, straight into the tables the daemon created.
//   pg_raw_load run --uri URI --users N [--seconds S] [--prefix P]
//     For 1 and 8 threads: the get lookup (P.get.T.*), the three statements a get through the
//     service runs (the user check, the declared type, the value: P.get3.T.*), the update
//     function (P.set.T.*), and for 8 threads one update in ten gets (P.mix.8.*).

#include <libpq-fe.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_store.hpp"
#include "bench_timing.hpp"

namespace {

const std::string kDomain = "com.quorvelin.userinfo";
const std::string kDataName = "birthyear";

void report(const std::string& key, const bench::Result& r) {
  std::printf("result %s.p50 %.3f\nresult %s.p99 %.3f\nresult %s.ops %.0f\n", key.c_str(), r.p50Us,
              key.c_str(), r.p99Us, key.c_str(), r.perSecond);
  std::fflush(stdout);
}

class Connection {
 public:
  explicit Connection(const std::string& uri) : conn_(PQconnectdb(uri.c_str()), &PQfinish) {
    if (PQstatus(conn_.get()) != CONNECTION_OK) {
      throw std::runtime_error(PQerrorMessage(conn_.get()));
    }
    PQsetNoticeProcessor(
        conn_.get(), [](void*, const char*) {}, nullptr);
  }
  void exec(const std::string& sql) { check(PQexec(conn_.get(), sql.c_str()), sql.c_str()); }
  void prepare(const char* name, const char* sql, int params) {
    check(PQprepare(conn_.get(), name, sql, params, nullptr), name);
  }
  // Runs a prepared statement with binary parameters and results; the number of rows.
  int run(const char* name, const std::vector<std::string>& params) {
    const char* values[4];
    int lengths[4];
    int formats[4];
    for (std::size_t i = 0; i < params.size(); ++i) {
      values[i] = params[i].data();
      lengths[i] = static_cast<int>(params[i].size());
      formats[i] = 1;
    }
    PGresult* result = PQexecPrepared(conn_.get(), name, static_cast<int>(params.size()), values,
                                      lengths, formats, 1);
    const int rows = PQntuples(result);
    check(result, name);
    return rows;
  }

 private:
  void check(PGresult* result, const char* what) {
    const auto status = PQresultStatus(result);
    const std::string message = PQresultErrorMessage(result);
    PQclear(result);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
      throw std::runtime_error(std::string(what) + ": " + message);
    }
  }
  std::unique_ptr<PGconn, void (*)(PGconn*)> conn_;
};

struct Client {
  explicit Client(const std::string& uri) : connection(uri) {
    connection.exec("SET synchronous_commit TO off");  // as the daemon with --durability normal
    connection.prepare("get",
                       "SELECT object FROM qv_triplets WHERE domain = $1::bytea AND "
                       "subject = $2::bytea AND predicate = $3::bytea ORDER BY id",
                       3);
    connection.prepare("set", "SELECT qv_update($1::bytea, $2::bytea, $3::bytea, $4::bytea)", 4);
    connection.prepare("exists", "SELECT 1 FROM qv_users WHERE id = $1::integer", 1);
  }
  void get(int user) {
    if (connection.run("get", {kDomain, std::to_string(user), kDataName}) != 1) {
      throw std::runtime_error("no birthyear for user " + std::to_string(user));
    }
  }
  // What a get through the service asks the database: the user, the name's type, the value.
  void get3(int user) {
    const std::string id{static_cast<char>(user >> 24), static_cast<char>(user >> 16),
                         static_cast<char>(user >> 8), static_cast<char>(user)};
    if (connection.run("exists", {id}) != 1 ||
        connection.run("get", {kDomain, kDataName, "rangeType"}) != 1) {
      throw std::runtime_error("no user " + std::to_string(user) + " or no type of " + kDataName);
    }
    get(user);
  }
  void set(int user, int year) {
    connection.run("set", {kDomain, std::to_string(user), kDataName, std::to_string(year)});
  }
  Connection connection;
};

int populate(const std::string& uri, int users) {
  Connection connection(uri);
  const std::string n = std::to_string(users);
  connection.exec("BEGIN; INSERT INTO qv_users (id) SELECT generate_series(1, " + n +
                  "); SELECT setval('qv_user_ids', " + n +
                  "); INSERT INTO qv_triplets (domain, subject, predicate, object) SELECT '" +
                  kDomain + "'::bytea, convert_to(i::text, 'UTF8'), '" + kDataName +
                  "'::bytea, convert_to((1940 + i % 70)::text, 'UTF8') FROM generate_series(1, " +
                  n + ") i; COMMIT; ANALYZE");
  return 0;
}

int run(const std::string& uri, int users, double seconds, const std::string& prefix) {
  const bench::Budget budget{0, seconds};
  for (const int threads : {1, 8}) {
    const std::string suffix = "." + std::to_string(threads);
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<bench::UserPicker> pickers;
    for (int t = 0; t < threads; ++t) {
      clients.push_back(std::make_unique<Client>(uri));
      pickers.emplace_back(users, 1, 42 + static_cast<std::uint64_t>(t));
    }
    report(prefix + ".get" + suffix, bench::measure(threads, budget, [&](int t) {
             const auto i = static_cast<std::size_t>(t);
             clients[i]->get(pickers[i].next());
           }));
    report(prefix + ".get3" + suffix, bench::measure(threads, budget, [&](int t) {
             const auto i = static_cast<std::size_t>(t);
             clients[i]->get3(pickers[i].next());
           }));
    std::vector<int> counts(static_cast<std::size_t>(threads), 0);
    report(prefix + ".set" + suffix, bench::measure(threads, budget, [&](int t) {
             const auto i = static_cast<std::size_t>(t);
             clients[i]->set(pickers[i].next(), 1940 + counts[i]++ % 70);
           }));
    if (threads == 8) {
      report(prefix + ".mix" + suffix, bench::measure(threads, budget, [&](int t) {
               const auto i = static_cast<std::size_t>(t);
               if (counts[i]++ % 10 == 0) {
                 clients[i]->set(pickers[i].next(), 1940 + counts[i] % 70);
               } else {
                 clients[i]->get(pickers[i].next());
               }
             }));
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr,
                 "usage: pg_raw_load populate|run --uri URI --users N [--seconds S] "
                 "[--prefix P]\n");
    return 2;
  }
  const std::string command = argv[1];
  std::map<std::string, std::string> options;
  for (int i = 2; i + 1 < argc; i += 2) {
    options[argv[i]] = argv[i + 1];
  }
  try {
    const std::string uri = options["--uri"];
    const int users = std::atoi(options["--users"].c_str());
    if (command == "populate") {
      return populate(uri, users);
    }
    if (command == "run") {
      const double seconds =
          options.count("--seconds") ? std::atof(options["--seconds"].c_str()) : 1;
      return run(uri, users, seconds, options.count("--prefix") ? options["--prefix"] : "rawpg");
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "pg_raw_load: %s\n", e.what());
    return 1;
  }
  return 2;
}
