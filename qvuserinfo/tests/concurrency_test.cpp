// Several threads using one data store at once, as the middleware does with a multi-threaded
// object: the table of type names that a write may extend is read by every other write.

#include "userdata_fixture.hpp"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <thread>
#include <vector>

namespace userdata_test {
namespace {

TEST_F(UserDataTest, ConcurrentWritesReadsAndTypeLookupsStayConsistent) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 150;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string domain = "com.example.d" + std::to_string(t);
      for (int i = 0; i < kRounds && std::chrono::steady_clock::now() < deadline; ++i) {
        // A 64-bit write into another domain may enter a new type name...
        if (!store->set(t, "steps", ka::AnyValue(std::int64_t{i}), domain)) {
          ++failures;
        }
        // ...while others look type names up.
        if (!store->update(t, "birthyear", ka::AnyValue(1900 + i))) {
          ++failures;
        }
        if (store->get(t, "birthyear", kOwnDomain).to<int>() != 1900 + i) {
          ++failures;
        }
        try {
          (void)store->xCheckDataRange("steps", ka::AnyValue(std::int64_t{i}));
        } catch (const std::out_of_range&) {
          // Before the first 64-bit write has entered its type name.
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(store->getType(kOwnDomain, "steps"), "");
  EXPECT_TRUE(store->xCheckDataRange("steps", ka::AnyValue(std::int64_t{1})));
}

}  // namespace
}  // namespace userdata_test
