// What a call through the middleware costs on top of the function it reaches: the
// same trivial method called as a plain C++ call (the reference), through an
// AnyFunction, and by name through an in-process object, from one and two threads; and a
// knowledge store read called directly and through a session. "allocs" is the number of
// heap allocations per call (all threads of the process).

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/session.hpp>
#include <qvknowledge/knowledge_service.hpp>
#include <qvsqlite/sqlite_triplet_store.hpp>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace {
std::atomic<long long> gAllocations{0};
}  // namespace

// Replaces the global allocator for this program only, to count; GCC cannot see that the
// matching operator delete below frees with free().
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) {
    return p;
  }
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace {

// Counts the allocations of the timed loop and reports them per iteration.
class AllocationCounter {
 public:
  explicit AllocationCounter(benchmark::State& state)
      : _state(state), _start(gAllocations.load()) {}
  ~AllocationCounter() {
    if (_state.thread_index() == 0 && _state.iterations() > 0) {
      _state.counters["allocs"] = static_cast<double>(gAllocations.load() - _start) /
                                  static_cast<double>(_state.iterations() * _state.threads());
    }
  }

 private:
  benchmark::State& _state;
  long long _start;
};

__attribute__((noinline)) int addLength(int base, const std::string& s) {
  return base + static_cast<int>(s.size());
}

const std::string kArg = "a user name";

void BM_PlainCall(benchmark::State& state) {
  int acc = 0;
  for (auto _ : state) {
    acc = addLength(acc & 0xff, kArg);
    benchmark::DoNotOptimize(acc);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_AnyFunctionCall(benchmark::State& state) {
  const ka::AnyFunction f = ka::AnyFunction::from(&addLength);
  int acc = 0;
  for (auto _ : state) {
    acc = f(acc & 0xff, kArg).to<int>();
    benchmark::DoNotOptimize(acc);
  }
  state.SetItemsProcessed(state.iterations());
}

ka::AnyObject sharedObject() {
  static ka::AnyObject object = [] {
    ka::DynamicObjectBuilder b;
    b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
    b.advertiseMethod("addLength", &addLength);
    b.advertiseMethod("addLength", [](const std::string& s) { return static_cast<int>(s.size()); });
    return b.object();
  }();
  return object;
}

void BM_ObjectCallByName(benchmark::State& state) {
  ka::AnyObject o = sharedObject();
  int acc = 0;
  AllocationCounter count(state);
  for (auto _ : state) {
    acc = o->call<int>("addLength", acc & 0xff, kArg);
    benchmark::DoNotOptimize(acc);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_ObjectCallById(benchmark::State& state) {
  ka::AnyObject o = sharedObject();
  const unsigned uid = o->metaObject().methodsNamed("addLength").front()->uid;
  int acc = 0;
  AllocationCounter count(state);
  for (auto _ : state) {
    const int base = acc & 0xff;
    acc = o->metaCall(uid, {ka::AnyReference::from(base), ka::AnyReference::from(kArg)})
              .value()
              .to<int>();
    benchmark::DoNotOptimize(acc);
  }
  state.SetItemsProcessed(state.iterations());
}

// A small in-memory store, read directly and through a session: the ratio of the two is
// what the middleware adds to a real read.
struct Knowledge {
  std::shared_ptr<QV::TripletStore> store = std::make_shared<QV::SqliteTripletStore>(":memory:");
  ka::SessionPtr session = ka::makeSession();
  ka::AnyObject service;
  Knowledge() {
    std::vector<QV::Triplet> rows;
    for (int user = 0; user < 1000; ++user) {
      rows.push_back(
          {"com.example.users", std::to_string(user), "name", "user " + std::to_string(user)});
    }
    store->addMany(rows);
    session->registerService("QVKnowledge", QV::makeKnowledgeObject(store)).value();
    service = session->service("QVKnowledge").value();
  }
  static Knowledge& instance() {
    static Knowledge k;
    return k;
  }
};

void BM_GetObjectDirect(benchmark::State& state) {
  Knowledge& k = Knowledge::instance();
  const std::string domain = "com.example.users", subject = "417", predicate = "name";
  AllocationCounter count(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(k.store->getObject(domain, subject, predicate));
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_GetObjectThroughSession(benchmark::State& state) {
  Knowledge& k = Knowledge::instance();
  const std::string domain = "com.example.users", subject = "417", predicate = "name";
  AllocationCounter count(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        k.service->call<std::vector<std::string>>("getObject", domain, subject, predicate));
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_GetObjectDirect);
BENCHMARK(BM_GetObjectThroughSession);
BENCHMARK(BM_PlainCall)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_AnyFunctionCall)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_ObjectCallById)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_ObjectCallByName)->ThreadRange(1, 2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
