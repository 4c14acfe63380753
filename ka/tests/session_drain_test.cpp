// A serving session that stops gracefully: the calls running when it starts to drain are
// answered over the socket, while new calls and new connections are refused.

#include "test_util.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>

namespace {

using namespace std::chrono_literals;
using namespace ka::test;

std::string freshSocketPath() {
  static std::atomic<int> next{0};
  return (std::filesystem::temp_directory_path() /
          ("ka-drain-test-" + std::to_string(::getpid()) + "-" + std::to_string(next++) + ".sock"))
      .string();
}

// An object whose "slow" call stays in flight until the test answers it, and a "fast" one.
struct Gate {
  std::promise<void> started;
  ka::Promise<int> answer;

  ka::AnyObject object() {
    ka::DynamicObjectBuilder builder;
    builder.advertiseMethod("slow", [this]() -> ka::Future<int> {
      started.set_value();
      return answer.future();
    });
    builder.advertiseMethod("fast", []() { return 1; });
    return builder.object();
  }
};

struct Served {
  Served() {
    server->listen(url).value(kWaitMs);
    server->registerService("Gate", gate.object()).value(kWaitMs);
    client->connect(url).value(kWaitMs);
    remote = client->service("Gate").value(kWaitMs);
  }
  ~Served() {
    client->close();
    server->close();
  }

  std::string path = freshSocketPath();
  std::string url = "unix://" + path;
  Gate gate;
  ka::SessionPtr server = ka::makeSession();
  ka::SessionPtr client = ka::makeSession();
  ka::AnyObject remote;
};

TEST(SessionDrain, AnswersTheCallInFlightAndRefusesLaterCallsAndConnections) {
  Served s;
  ka::Future<int> slow = s.remote->async<int>("slow");
  ASSERT_EQ(s.gate.started.get_future().wait_for(std::chrono::milliseconds(kWaitMs)),
            std::future_status::ready);

  auto draining = std::async(std::launch::async, [&] { return s.server->drain(10s); });
  ASSERT_TRUE(becomes([&] { return !std::filesystem::exists(s.path); }))
      << "the socket file stays while draining";

  ka::Future<int> later = s.remote->async<int>("fast");
  ASSERT_EQ(later.wait(kWaitMs), ka::FutureState::FinishedWithError);
  EXPECT_NE(later.error().find("The session is shutting down"), std::string::npos) << later.error();
  auto newcomer = ka::makeSession();
  EXPECT_EQ(newcomer->connect(s.url).wait(kWaitMs), ka::FutureState::FinishedWithError);

  EXPECT_EQ(draining.wait_for(50ms), std::future_status::timeout)
      << "drain returned while a call was still running";
  s.gate.answer.setValue(42);
  EXPECT_EQ(slow.value(kWaitMs), 42);
  ASSERT_EQ(draining.wait_for(std::chrono::milliseconds(kWaitMs)), std::future_status::ready);
  EXPECT_TRUE(draining.get());
  EXPECT_TRUE(s.server->endpoints().empty());
}

TEST(SessionDrain, GivesUpAfterItsLimitAndCloseThenCutsTheCallStillRunning) {
  Served s;
  ka::Future<int> slow = s.remote->async<int>("slow");
  ASSERT_EQ(s.gate.started.get_future().wait_for(std::chrono::milliseconds(kWaitMs)),
            std::future_status::ready);

  EXPECT_FALSE(s.server->drain(100ms));
  s.server->close();
  ASSERT_EQ(slow.wait(kWaitMs), ka::FutureState::FinishedWithError);
  s.gate.answer.setValue(0);  // too late: nobody hears of it
}

TEST(SessionDrain, OfAnIdleSessionReturnsAtOnceAndLeavesNoSocketFile) {
  Served s;
  EXPECT_EQ(s.remote->call<int>("fast"), 1);
  EXPECT_TRUE(s.server->drain(10s));
  EXPECT_FALSE(std::filesystem::exists(s.path));
  EXPECT_EQ(s.server->listen("unix://" + freshSocketPath()).wait(kWaitMs),
            ka::FutureState::FinishedWithError);
}

}  // namespace
