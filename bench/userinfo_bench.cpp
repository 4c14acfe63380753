// Cost of the user data store's get and of its writes on a knowledge store of 100k triplets
// (10,000 users x 10 data names in the service's domain), called in-process through the
// middleware, next to the raw cost of the SQL statements the same operations make, run as
// prepared statements on the same file. The knowledge store's own calls without the middleware
// are measured too, so that the share of SQLite, of the store and of the middleware can be told
// apart. Both sides write with synchronous=NORMAL, so writes measure work rather than fsync.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <SQLiteCpp/SQLiteCpp.h>

#include <boost/make_shared.hpp>

#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "bench_store.hpp"
#include "qvknowledge/knowledge_client.hpp"
#include "qvknowledge/knowledge_service.hpp"
#include "qvsqlite/sqlite_triplet_store.hpp"
#include "qvuserinfoprivate.hpp"

namespace {

namespace fs = std::filesystem;

using bench::execute;
using bench::kNames;
using bench::selectObjects;

constexpr int kUsers = 10000;
constexpr const char* kDomain = bench::kDomain;
constexpr const char* kOtherDomain = "com.example.games";

// Users visited in a scattered order that repeats.
struct UserPicker : bench::UserPicker {
  UserPicker() : bench::UserPicker(kUsers) {}
};

// One file store, served as "QVKnowledge" on an in-process session with a data store on it, and
// two raw connections to the same file with the store's own SQL.
class World {
 public:
  static World& instance() {
    static World world;
    return world;
  }

  std::shared_ptr<QV::SqliteTripletStore> tripletStore;
  ka::SessionPtr session;
  std::unique_ptr<QV::QVUserInfoPrivate> dataStore;
  std::unique_ptr<SQLite::Database> reader;
  std::unique_ptr<SQLite::Database> writer;
  std::unique_ptr<SQLite::Statement> getObject;
  std::unique_ptr<SQLite::Statement> removeKey;
  std::unique_ptr<SQLite::Statement> insert;

 private:
  World() {
    char pattern[] = "/tmp/userinfo-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      throw std::runtime_error("cannot create a temporary directory");
    }
    dir_ = pattern;
    const std::string path = dir_ + "/knowledge.db";
    QV::TripletStoreOptions options;
    options.durability = QV::Durability::Normal;
    tripletStore = std::make_shared<QV::SqliteTripletStore>(path, options);
    std::vector<QV::Triplet> triplets;
    triplets.reserve(kUsers * std::size(kNames));
    for (int user = 0; user < kUsers; ++user) {
      for (const char* name : kNames) {
        triplets.push_back({kDomain, std::to_string(user), name, bench::valueOf(name, user)});
      }
    }
    tripletStore->addMany(triplets);

    session = ka::makeSession();
    session
        ->registerService(QV::KnowledgeClient::kServiceName, QV::makeKnowledgeObject(tripletStore))
        .value(10000);
    dataStore = std::make_unique<QV::QVUserInfoPrivate>(
        QV::KnowledgeClient(session->service(QV::KnowledgeClient::kServiceName).value(10000)));

    std::map<std::string, std::string> sql;
    for (const auto& plan : tripletStore->explainQueryPlans()) {
      sql[plan.statement] = plan.sql;
    }
    reader = std::make_unique<SQLite::Database>(path, SQLite::OPEN_READONLY | SQLite::OPEN_NOMUTEX);
    writer = std::make_unique<SQLite::Database>(path, SQLite::OPEN_READWRITE | SQLite::OPEN_NOMUTEX,
                                                5000);
    for (auto* db : {reader.get(), writer.get()}) {
      db->exec("PRAGMA temp_store = MEMORY");
      db->exec("PRAGMA mmap_size = " + std::to_string(std::size_t{1} << 30));
    }
    writer->exec("PRAGMA synchronous = NORMAL");
    getObject = std::make_unique<SQLite::Statement>(*reader, sql.at("getObject(d,s,p)"));
    removeKey = std::make_unique<SQLite::Statement>(*writer, sql.at("remove(d,s,p,?)"));
    insert = std::make_unique<SQLite::Statement>(*writer, sql.at("insert(d,s,p,o)"));
  }

  ~World() {
    getObject.reset();
    removeKey.reset();
    insert.reset();
    reader.reset();
    writer.reset();
    dataStore.reset();
    session->close();
    session.reset();
    tripletStore.reset();
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  std::string dir_;
};

// --- get ------------------------------------------------------------------------------------

void BM_Get_DataStoreThroughMiddleware(benchmark::State& state) {
  World& w = World::instance();
  UserPicker users;
  const std::string domain = kDomain;
  const std::string name = "birthyear";
  for (auto _ : state) {
    ka::AnyValue v = w.dataStore->get(users.next(), name, domain);
    benchmark::DoNotOptimize(v);
  }
}
BENCHMARK(BM_Get_DataStoreThroughMiddleware);

// The two lookups of get (the value, then its type record) on the store, without the middleware.
void BM_Get_TripletStoreDirect(benchmark::State& state) {
  World& w = World::instance();
  UserPicker users;
  const std::string domain = kDomain;
  const std::string name = "birthyear";
  const std::string rangeType = "rangeType";
  for (auto _ : state) {
    auto value = w.tripletStore->getObject(domain, std::to_string(users.next()), name);
    auto type = w.tripletStore->getObject(domain, name, rangeType);
    benchmark::DoNotOptimize(value);
    benchmark::DoNotOptimize(type);
  }
}
BENCHMARK(BM_Get_TripletStoreDirect);

// The same two lookups as raw prepared statements on the same file.
void BM_Get_RawSqlite(benchmark::State& state) {
  World& w = World::instance();
  UserPicker users;
  const std::string domain = kDomain;
  const std::string name = "birthyear";
  const std::string rangeType = "rangeType";
  for (auto _ : state) {
    auto value = selectObjects(*w.getObject, domain, std::to_string(users.next()), name);
    auto type = selectObjects(*w.getObject, domain, name, rangeType);
    benchmark::DoNotOptimize(value);
    benchmark::DoNotOptimize(type);
  }
}
BENCHMARK(BM_Get_RawSqlite);

// --- writes ---------------------------------------------------------------------------------

// The typed write into the service's domain: the declared type is read, then the datum replaced.
void BM_Update_DataStoreThroughMiddleware(benchmark::State& state) {
  World& w = World::instance();
  UserPicker users;
  const std::string name = "birthyear";
  int year = 1950;
  for (auto _ : state) {
    bool ok = w.dataStore->update(users.next(), name, ka::AnyValue(year++ % 70 + 1940));
    benchmark::DoNotOptimize(ok);
  }
}
BENCHMARK(BM_Update_DataStoreThroughMiddleware);

void BM_Update_RawSqlite(benchmark::State& state) {
  World& w = World::instance();
  UserPicker users;
  const std::string domain = kDomain;
  const std::string name = "birthyear";
  const std::string rangeType = "rangeType";
  int year = 1950;
  for (auto _ : state) {
    auto type = selectObjects(*w.getObject, domain, name, rangeType);
    benchmark::DoNotOptimize(type);
    const std::string subject = std::to_string(users.next());
    const std::string text = std::to_string(year++ % 70 + 1940);
    SQLite::Transaction transaction(*w.writer, SQLite::TransactionBehavior::IMMEDIATE);
    execute(*w.removeKey, {&domain, &subject, &name});
    execute(*w.insert, {&domain, &subject, &name, &text});
    transaction.commit();
  }
}
BENCHMARK(BM_Update_RawSqlite);

// The write into another domain: the type record, then the datum, each replaced.
void BM_Set_DataStoreThroughMiddleware(benchmark::State& state) {
  World& w = World::instance();
  UserPicker users;
  const std::string domain = kOtherDomain;
  const std::string name = "score";
  int score = 0;
  for (auto _ : state) {
    bool ok = w.dataStore->set(users.next(), name, ka::AnyValue(score++), domain);
    benchmark::DoNotOptimize(ok);
  }
}
BENCHMARK(BM_Set_DataStoreThroughMiddleware);

void BM_Set_RawSqlite(benchmark::State& state) {
  World& w = World::instance();
  UserPicker users;
  const std::string domain = kOtherDomain;
  const std::string name = "score";
  const std::string rangeType = "rangeType";
  const std::string typeName = "int";
  int score = 0;
  for (auto _ : state) {
    const std::string subject = std::to_string(users.next());
    const std::string text = std::to_string(score++);
    for (const auto& [s, p, o] :
         {std::tuple{&name, &rangeType, &typeName}, std::tuple{&subject, &name, &text}}) {
      SQLite::Transaction transaction(*w.writer, SQLite::TransactionBehavior::IMMEDIATE);
      execute(*w.removeKey, {&domain, s, p});
      execute(*w.insert, {&domain, s, p, o});
      transaction.commit();
    }
  }
}
BENCHMARK(BM_Set_RawSqlite);

}  // namespace

BENCHMARK_MAIN();
