// Cost of the triplet store's calls on stores of 10k and 1M triplets shaped like user data: many
// subjects (users) x ten predicates x three domains. A lookup should cost about the same at both
// sizes; update is measured with both durability settings. getObject is also measured on keys that
// hold several objects each, stored against their byte order, so that they must be reordered. Each
// call is measured twice: on the store directly (the reference) and as the service "QVKnowledge"
// called by name through an in-process middleware session, so the middleware's share is the ratio
// of the two.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "qvknowledge/knowledge_service.hpp"
#include "qvsqlite/sqlite_triplet_store.hpp"

namespace {

namespace fs = std::filesystem;
using QV::Durability;
using QV::SqliteTripletStore;
using QV::Triplet;
using QV::TripletStore;

constexpr const char* kDomains[] = {"profile", "auth", "prefs"};
constexpr const char* kPredicates[] = {"email", "name",    "phone", "locale", "timezone",
                                       "group", "manager", "title", "status", "avatar"};
constexpr std::int64_t kDomainCount = 3;
constexpr std::int64_t kPredicateCount = 10;
constexpr std::int64_t kPerSubject = kDomainCount * kPredicateCount;

std::string subjectName(std::int64_t user) {
  char name[32];
  std::snprintf(name, sizeof name, "user-%08lld", static_cast<long long>(user));
  return name;
}

// The triplet number `row` of a store: row -> (user, domain, predicate), one object each.
Triplet tripletAt(std::int64_t row) {
  const std::int64_t user = row / kPerSubject;
  const char* domain = kDomains[(row / kPredicateCount) % kDomainCount];
  const char* predicate = kPredicates[row % kPredicateCount];
  std::string subject = subjectName(user);
  std::string object = std::string(predicate) + "-of-" + subject + "@example.org";
  return {domain, std::move(subject), predicate, std::move(object)};
}

// Keys holding kListLength objects each, added in descending byte order: the key index returns them
// newest first, the reverse of the order getObject() gives.
constexpr std::int64_t kListLength = 8;

Triplet listTripletAt(std::int64_t row) {
  char object[32];
  std::snprintf(object, sizeof object, "member-%02lld",
                static_cast<long long>(kListLength - 1 - row % kListLength));
  return {"groups", subjectName(row / kListLength), "members", object};
}

// What a store holds: one object per key, or lists of kListLength objects per key.
enum class Layout { Users, Lists };

// Rows visited in a scattered order that repeats, so lookups do not walk the file sequentially.
class RowPicker {
 public:
  explicit RowPicker(std::int64_t rows) : rows_(rows) {}
  std::int64_t next() {
    state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<std::int64_t>((state_ >> 33) % static_cast<std::uint64_t>(rows_));
  }

 private:
  std::int64_t rows_;
  std::uint64_t state_ = 42;
};

// The stores under test, loaded once per size in a temporary directory removed at exit. Both
// durability settings open the same file.
class Stores {
 public:
  static Stores& instance() {
    static Stores stores;
    return stores;
  }

  std::shared_ptr<TripletStore> get(std::int64_t rows, Durability durability,
                                    Layout layout = Layout::Users) {
    std::lock_guard lock(mutex_);
    auto& store = stores_[{rows, durability, layout}];
    if (!store) {
      const std::string path =
          (dir_ / ((layout == Layout::Users ? "store-" : "lists-") + std::to_string(rows) + ".db"))
              .string();
      if (!fs::exists(path)) {
        load(path, rows, layout == Layout::Users ? tripletAt : listTripletAt);
      }
      QV::TripletStoreOptions options;
      options.durability = durability;
      store = std::make_shared<SqliteTripletStore>(path, options);
    }
    return store;
  }

  // The same store published as "QVKnowledge" on a session of its own.
  ka::AnyObject service(std::int64_t rows, Durability durability, Layout layout) {
    auto store = get(rows, durability, layout);
    std::lock_guard lock(mutex_);
    auto& entry = services_[{rows, durability, layout}];
    if (!entry.second.isValid()) {
      entry.first = ka::makeSession();
      entry.first->registerService("QVKnowledge", QV::makeKnowledgeObject(store)).value();
      entry.second = entry.first->service("QVKnowledge").value();
    }
    return entry.second;
  }

 private:
  Stores() {
    std::string pattern = (fs::temp_directory_path() / "qvknowledge-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("cannot create a temporary directory");
    }
    dir_ = pattern;
  }
  ~Stores() {
    services_.clear();
    stores_.clear();
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  static void load(const std::string& path, std::int64_t rows, Triplet (*rowAt)(std::int64_t)) {
    constexpr std::int64_t kBatch = 100000;
    SqliteTripletStore store(path);
    std::vector<Triplet> batch;
    for (std::int64_t row = 0; row < rows;) {
      batch.clear();
      for (std::int64_t end = std::min(rows, row + kBatch); row < end; ++row) {
        batch.push_back(rowAt(row));
      }
      store.addMany(batch);
    }
  }

  using Key = std::tuple<std::int64_t, Durability, Layout>;
  std::mutex mutex_;  // guards stores_ and services_
  fs::path dir_;
  std::map<Key, std::shared_ptr<TripletStore>> stores_;
  std::map<Key, std::pair<ka::SessionPtr, ka::AnyObject>> services_;
};

// One side of the comparison: the store called directly, or the service called by name.
class Target {
 public:
  Target(const benchmark::State& state, Durability durability = Durability::Full,
         Layout layout = Layout::Users)
      : _viaSession(state.range(1) != 0) {
    if (_viaSession) {
      _service = Stores::instance().service(state.range(0), durability, layout);
    } else {
      _store = Stores::instance().get(state.range(0), durability, layout);
    }
  }
  const char* label() const { return _viaSession ? "session" : "direct"; }

  std::vector<std::string> getObject(const Triplet& t) {
    return _viaSession ? _service->call<std::vector<std::string>>("getObject", t.domain, t.subject,
                                                                  t.predicate)
                       : _store->getObject(t.domain, t.subject, t.predicate);
  }
  bool contains(const Triplet& t) {
    return _viaSession
               ? _service->call<bool>("contains", t.domain, t.subject, t.predicate, t.object)
               : _store->contains(t.domain, t.subject, t.predicate, t.object);
  }
  std::vector<std::vector<std::string>> queryBySubject(const std::string& subject) {
    static const std::string any = "*";
    return _viaSession ? _service->call<std::vector<std::vector<std::string>>>("queryTriplet", any,
                                                                               subject, any, any)
                       : _store->queryTriplet(any, subject, any, any);
  }
  void update(const Triplet& t, const std::string& object) {
    if (_viaSession) {
      _service->call<void>("update", t.domain, t.subject, t.predicate, object);
    } else {
      _store->update(t.domain, t.subject, t.predicate, object);
    }
  }

 private:
  bool _viaSession;
  std::shared_ptr<TripletStore> _store;
  ka::AnyObject _service;
};

TripletStore& storeFor(const benchmark::State& state, Durability durability = Durability::Full) {
  return *Stores::instance().get(state.range(0), durability);
}

void BM_GetObject(benchmark::State& state) {
  Target target(state);
  RowPicker picker(state.range(0));
  for (auto _ : state) {
    auto objects = target.getObject(tripletAt(picker.next()));
    benchmark::DoNotOptimize(objects);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(target.label());
}

// A key of kListLength objects per call: they arrive from the index in the reverse of the order
// returned.
void BM_GetObjectOfList(benchmark::State& state) {
  Target target(state, Durability::Full, Layout::Lists);
  RowPicker picker(state.range(0));
  for (auto _ : state) {
    auto objects = target.getObject(listTripletAt(picker.next()));
    benchmark::DoNotOptimize(objects);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(target.label());
}

void BM_Contains(benchmark::State& state) {
  Target target(state);
  RowPicker picker(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(target.contains(tripletAt(picker.next())));
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(target.label());
}

void BM_QueryTripletBySubject(benchmark::State& state) {
  Target target(state);
  RowPicker picker(state.range(0));
  for (auto _ : state) {
    auto rows = target.queryBySubject(tripletAt(picker.next()).subject);
    benchmark::DoNotOptimize(rows);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(target.label());
}

void BM_Update(benchmark::State& state) {
  const auto durability = state.range(2) == 0 ? Durability::Full : Durability::Normal;
  Target target(state, durability);
  RowPicker picker(state.range(0));
  std::int64_t version = 0;
  for (auto _ : state) {
    const Triplet t = tripletAt(picker.next());
    target.update(t, t.object + "#" + std::to_string(++version));
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(std::string(target.label()) +
                 (durability == Durability::Full ? "/Full" : "/Normal"));
}

// Updates from several threads at once, each on keys of its own (rows of its residue class), on
// the store directly: how much concurrent writers gain from sharing commits.
void BM_ConcurrentUpdate(benchmark::State& state) {
  const auto durability = state.range(1) == 0 ? Durability::Full : Durability::Normal;
  TripletStore& store = storeFor(state, durability);
  const std::int64_t threads = state.threads();
  const std::int64_t rows = state.range(0) / threads * threads;
  RowPicker picker(rows / threads);
  std::int64_t version = 0;
  for (auto _ : state) {
    const Triplet t = tripletAt(picker.next() * threads + state.thread_index());
    store.update(t.domain, t.subject, t.predicate, t.object + "#" + std::to_string(++version));
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(durability == Durability::Full ? "Full" : "Normal");
}

// Write cost of the table and its indexes: 1000 new triplets per transaction.
void BM_AddManyThousand(benchmark::State& state) {
  // Rows past the loaded ones, never the same twice across runs: a duplicate would cost nothing.
  static std::int64_t added = 0;
  TripletStore& store = storeFor(state);
  std::vector<Triplet> batch;
  for (auto _ : state) {
    state.PauseTiming();
    batch.clear();
    for (int i = 0; i < 1000; ++i) {
      batch.push_back(tripletAt(state.range(0) + added++));
    }
    state.ResumeTiming();
    store.addMany(batch);
  }
  state.SetItemsProcessed(state.iterations() * 1000);
}

void sizes(benchmark::internal::Benchmark* b) {
  b->Arg(10000)->Arg(1000000)->UseRealTime();
}

// rows x (0 direct, 1 through the session)
void sizesAndPaths(benchmark::internal::Benchmark* b) {
  b->ArgsProduct({{10000, 1000000}, {0, 1}})->ArgNames({"rows", "session"})->UseRealTime();
}

BENCHMARK(BM_GetObject)->Apply(sizesAndPaths)->ThreadRange(1, 2);
BENCHMARK(BM_GetObjectOfList)
    ->ArgsProduct({{10000}, {0, 1}})
    ->ArgNames({"rows", "session"})
    ->UseRealTime();
BENCHMARK(BM_Contains)->Apply(sizesAndPaths);
BENCHMARK(BM_QueryTripletBySubject)->Apply(sizesAndPaths);
BENCHMARK(BM_Update)
    ->ArgsProduct({{10000, 1000000}, {0, 1}, {0, 1}})
    ->ArgNames({"rows", "session", "normal"})
    ->UseRealTime();
BENCHMARK(BM_ConcurrentUpdate)
    ->ArgsProduct({{10000}, {0, 1}})
    ->ArgNames({"rows", "normal"})
    ->Threads(1)
    ->Threads(8)
    ->UseRealTime();
BENCHMARK(BM_AddManyThousand)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
