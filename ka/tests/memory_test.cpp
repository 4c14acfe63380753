// Memory that calls and sessions cost. Opening and closing sessions must not cost memory for
// good: once the transport makes every client connection a session, anything kept per closed
// session is a leak per connection. A repeated call must not allocate more than its result:
// allocations are what made calls slow. Counts the allocations of the whole process through
// a replaced global operator new.

#include "test_util.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long> liveAllocations{0};
std::atomic<long> allAllocations{0};

void* allocate(std::size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) {
    throw std::bad_alloc();
  }
  liveAllocations.fetch_add(1, std::memory_order_relaxed);
  allAllocations.fetch_add(1, std::memory_order_relaxed);
  return p;
}

void release(void* p) noexcept {
  if (p != nullptr) {
    liveAllocations.fetch_sub(1, std::memory_order_relaxed);
    std::free(p);
  }
}
}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void operator delete(void* p) noexcept {
  release(p);
}
void operator delete[](void* p) noexcept {
  release(p);
}
void operator delete(void* p, std::size_t) noexcept {
  release(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  release(p);
}

namespace {

using ka::test::kWaitMs;

// One client's life: a session on the shared directory that looks at the directory, publishes
// a service and goes.
void clientSession(const ka::SessionPtr& host, const ka::AnyObject& service, int i) {
  auto session = ka::makeSession(host);
  (void)session->service("ServiceDirectory").value(kWaitMs);
  const unsigned id = session->registerService("S" + std::to_string(i), service).value(kWaitMs);
  if (i % 2 == 0) {
    session->unregisterService(id).value(kWaitMs);
  }
  session->close();
}

TEST(SessionMemory, ReturnsToItsBaselineAfterManySessionsOpenAndClose) {
  auto host = ka::makeSession();
  const ka::AnyObject service = ka::test::echoObject();
  for (int i = 0; i < 500; ++i) {
    clientSession(host, service, i);  // warms up caches that are bounded anyway
  }
  const long baseline = liveAllocations.load();
  constexpr int kSessions = 20000;
  for (int i = 0; i < kSessions; ++i) {
    clientSession(host, service, i);
  }
  const long grown = liveAllocations.load() - baseline;
  // A few hundred at most for bounded caches (the object cache prunes by doubling); anything
  // kept per session would show as thousands.
  EXPECT_LT(grown, 500) << grown << " allocations still live after " << kSessions << " sessions";
}

// Allocations made by `calls` calls of `call`, per call.
template <typename F>
double allocationsPerCall(int calls, F call) {
  call();  // the first call may fill caches
  const long before = allAllocations.load();
  for (int i = 0; i < calls; ++i) {
    call();
  }
  return static_cast<double>(allAllocations.load() - before) / calls;
}

TEST(CallMemory, ARepeatedCallAllocatesOnlyItsResult) {
  ka::DynamicObjectBuilder b;
  b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  b.advertiseMethod("add", [](int a, int c) { return a + c; });
  b.advertiseMethod("add", [](const std::string& a, const std::string& c) { return a + c; });
  const ka::AnyObject o = b.object();
  const std::string word = "short";
  int sum = 0;
  // The int result is held by an AnyValue (1) in a ready future (1); resolution, arguments
  // and the future's value allocate nothing.
  EXPECT_LE(allocationsPerCall(1000, [&] { sum += o->call<int>("add", 1, 2); }), 2.0);
  EXPECT_LE(allocationsPerCall(1000, [&] { (void)o->call<std::string>("add", word, word); }), 2.0);
  const unsigned uid = o->metaObject().methodsNamed("add").front()->uid;
  EXPECT_LE(allocationsPerCall(1000,
                               [&] {
                                 const int one = 1;
                                 sum += (o->metaCall(uid, {ka::AnyReference::from(one),
                                                           ka::AnyReference::from(one)}))
                                            .value()
                                            .to<int>();
                               }),
            2.0);
  EXPECT_GT(sum, 0);
}

}  // namespace
