// What a call through the middleware costs on top of the function it reaches: the
// same trivial method called as a plain C++ call (the reference), through an
// AnyFunction, and by name through an in-process object, from one and two threads.

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/session.hpp>

#include <benchmark/benchmark.h>

#include <string>

namespace {

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
  for (auto _ : state) {
    const int base = acc & 0xff;
    acc = o->metaCall(uid, {ka::AnyReference::from(base), ka::AnyReference::from(kArg)})
              .value()
              .to<int>();
    benchmark::DoNotOptimize(acc);
  }
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_PlainCall)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_AnyFunctionCall)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_ObjectCallById)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_ObjectCallByName)->ThreadRange(1, 2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
