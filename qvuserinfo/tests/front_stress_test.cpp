// Calls into the front from several threads while "QVUserSession" leaves and comes back: the
// handle is replaced under the callers, who must see either an answer or a refusal, never a
// crash, a torn handle or an exception.

#include "front_fixture.hpp"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace front_test {
namespace {

class FrontStressTest : public FrontTest {};

TEST_F(FrontStressTest, CallsStayWellFormedWhileTheUserSessionComesAndGoes) {
  constexpr int kThreads = 3;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1200);
  userSession->setKnownUsers({3});
  userSession->setFocusedUser(3);
  publishUserSession();
  startFront();

  std::atomic<int> malformed{0};
  std::atomic<int> answered{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < kThreads; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; std::chrono::steady_clock::now() < deadline; ++i) {
        try {
          const int year = 1900 + (i + t) % 100;
          const bool written = t % 2 == 0 ? front->_set(3, "birthyear", ka::AnyValue(year))
                                          : front->_set("birthyear", ka::AnyValue(year));
          const ka::AnyValue read = front->get("birthyear");
          const std::string signature = read.signature(true).toString();
          if (signature == "i") {
            const int stored = read.to<int>();
            malformed += stored < 1900 || stored >= 2000;
            ++answered;
          } else if (signature != "v" && !(signature.empty() && !written)) {
            ++malformed;
          }
        } catch (const std::exception&) {
          ++malformed;
        }
      }
    });
  }
  while (std::chrono::steady_clock::now() < deadline) {
    withdrawUserSession();
    publishUserSession();
  }
  for (auto& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(malformed.load(), 0);

  // Whatever happened meanwhile, the front ends up following the service that is there.
  forget();
  EXPECT_TRUE(front->_set(3, "birthyear", ka::AnyValue(1999)));
  EXPECT_EQ(front->get("birthyear").to<int>(), 1999);
  EXPECT_TRUE(logs().empty());
  RecordProperty("answered", answered.load());
}

}  // namespace
}  // namespace front_test
