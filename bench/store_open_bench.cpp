// Cost of opening an existing store of 1M triplets, which reads the whole file to check it:
// OpenCheck::Quick (the default) and OpenCheck::Full. The store is built once, in
// $QV_BENCH_DIR or the temporary directory, and kept for later runs; the page cache is warm.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "qvsqlite/sqlite_triplet_store.hpp"

namespace {

namespace fs = std::filesystem;
using QV::OpenCheck;
using QV::SqliteTripletStore;
using QV::Triplet;
using QV::TripletStore;
using QV::TripletStoreOptions;

constexpr int kTriplets = 1000000;
constexpr int kPerSubject = 30;  // three domains x ten predicates
constexpr int kBatch = 50000;

std::string storePath() {
  const char* dir = std::getenv("QV_BENCH_DIR");
  return ((dir != nullptr ? fs::path(dir) : fs::temp_directory_path()) /
          "qvknowledge-open-bench-1m.db")
      .string();
}

// Shaped like user data: many subjects, ten predicates, three domains, distinct objects.
void build(const std::string& path) {
  const char* domains[] = {"profile", "auth", "prefs"};
  TripletStoreOptions options;
  options.durability = QV::Durability::Normal;
  SqliteTripletStore store(path, options);
  std::vector<Triplet> batch;
  for (int i = 0; i < kTriplets; ++i) {
    const int user = i / kPerSubject;
    const int slot = i % kPerSubject;
    batch.push_back({domains[slot / 10], "user-" + std::to_string(user),
                     "predicate-" + std::to_string(slot % 10),
                     "value-" + std::to_string(user) + "-" + std::to_string(slot)});
    if (batch.size() == kBatch) {
      store.addMany(batch);
      batch.clear();
    }
  }
  store.addMany(batch);
}

const std::string& preparedStore() {
  static const std::string path = [] {
    const std::string p = storePath();
    if (!fs::exists(p)) {
      build(p);
    }
    return p;
  }();
  return path;
}

void BM_OpenStore(benchmark::State& state) {
  const std::string& path = preparedStore();
  TripletStoreOptions options;
  options.openCheck = state.range(0) == 0 ? OpenCheck::Quick : OpenCheck::Full;
  options.readConnections = 1;
  for (auto _ : state) {
    SqliteTripletStore store(path, options);
    benchmark::DoNotOptimize(&store);
  }
  state.SetLabel(options.openCheck == OpenCheck::Quick ? "quick_check" : "integrity_check");
  state.counters["file_MB"] = static_cast<double>(fs::file_size(path)) / 1e6;
}
BENCHMARK(BM_OpenStore)->Arg(0)->Arg(1)->Iterations(3)->Unit(benchmark::kMillisecond);

// The same without reading the file: a store that is empty, for the fixed cost of an open.
void BM_OpenEmptyStore(benchmark::State& state) {
  const std::string path = storePath() + "-empty.db";
  SqliteTripletStore(path).add("d", "s", "p", "o");
  TripletStoreOptions options;
  options.readConnections = 1;
  for (auto _ : state) {
    SqliteTripletStore store(path, options);
    benchmark::DoNotOptimize(&store);
  }
  fs::remove(path);
}
BENCHMARK(BM_OpenEmptyStore)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
