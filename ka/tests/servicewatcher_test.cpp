// ServiceWatcher on a session sharing the directory in this process and on one joined to it over
// a connection: the service appearing, going and coming back, names that only look alike, a
// service gone before it could be looked up, and the handle let go with the watcher.

#include "test_util.hpp"

#include <gtest/gtest.h>

#include <ka/servicewatcher.hpp>

#include <atomic>

namespace {

using namespace ka::test;
using Events = std::vector<std::string>;

// The watcher's session: a peer of the one that registers, or a client joined over a connection.
class ServiceWatcherTest : public ::testing::TestWithParam<bool> {
 protected:
  ServiceWatcherTest() {
    if (GetParam()) {
      static std::atomic<int> next{0};
      const std::string url = "local://servicewatcher." + std::to_string(next++);
      owner->listen(url).value(kWaitMs);
      watching = ka::makeSession();
      watching->connect(url).value(kWaitMs);
    } else {
      watching = ka::makeSession(owner);
    }
  }
  ~ServiceWatcherTest() override {
    watcher.reset();
    watching->close();
    owner->close();
  }

  void watch() {
    ka::ServiceWatcher::Callbacks callbacks;
    callbacks.arrived = [this](const ka::AnyObject& service) {
      events.add("arrived " + service->call<std::string>("echo", ""));
    };
    callbacks.departed = [this] { events.add("departed"); };
    callbacks.lookupFailed = [this] { events.add("lookup failed"); };
    watcher = std::make_unique<ka::ServiceWatcher>(watching, "Echo", callbacks);
  }
  unsigned int publish(const std::string& prefix, const std::string& name = "Echo") {
    return owner->registerService(name, echoObject(prefix)).value(kWaitMs);
  }
  // The events once there are `n`, and what the current handle answers ("" for none).
  std::pair<Events, std::string> after(std::size_t n) {
    const Events seen = events.waitFor(n);
    const ka::AnyObject current = watcher->current();
    return {seen, current ? current->call<std::string>("echo", "") : ""};
  }

  Recorder<std::string> events;
  Recorder<std::string> directory;  // subscribed until the sessions close
  ka::SessionPtr owner = ka::makeSession();
  ka::SessionPtr watching;
  std::unique_ptr<ka::ServiceWatcher> watcher;
};

TEST_P(ServiceWatcherTest, FollowsTheServiceAsItAppearsGoesAndComesBackByItsExactNameOnly) {
  watch();
  EXPECT_EQ(after(0), (std::pair<Events, std::string>{{}, ""}));
  for (const std::string lookalike : {"Echo2", "echo", "Ech"}) {
    publish("x", lookalike);
  }
  const unsigned int first = publish("1");
  EXPECT_EQ(after(1), (std::pair<Events, std::string>{{"arrived 1"}, "1"}));
  owner->unregisterService(publish("y", "EchoToo")).value(kWaitMs);
  owner->unregisterService(first).value(kWaitMs);
  EXPECT_EQ(after(2), (std::pair<Events, std::string>{{"arrived 1", "departed"}, ""}));
  publish("2");
  EXPECT_EQ(after(3),
            (std::pair<Events, std::string>{{"arrived 1", "departed", "arrived 2"}, "2"}));
}

TEST_P(ServiceWatcherTest, AServiceThereAlreadyIsCurrentAtOnceAndLetGoWithTheWatcher) {
  const unsigned int id = publish("1");
  watch();
  EXPECT_EQ(after(1), (std::pair<Events, std::string>{{"arrived 1"}, "1"}));
  const boost::weak_ptr<ka::GenericObject> seen = watcher->current().asGenericObject();
  const long held = seen.use_count();
  watcher.reset();
  // Less, not one less: a connection may still hold the handle of a call that just ended.
  EXPECT_LT(seen.use_count(), held) << "the handle outlived the watcher";

  // Once the directory has announced the departure here, a watcher still subscribed had heard.
  watchDirectory(watching, directory);
  owner->unregisterService(id).value(kWaitMs);
  EXPECT_EQ(directory.waitFor(1), Events{"-Echo"});
  EXPECT_EQ(events.now(), Events{"arrived 1"}) << "a watcher that is gone was called";
}

TEST_P(ServiceWatcherTest, AServiceGoneBeforeItsLookupIsReportedAndNotCurrent) {
  if (GetParam()) {
    GTEST_SKIP() << "only in-process is the first subscriber known to run first";
  }
  // Subscribed before the watcher, so it withdraws the service before the watcher looks it up.
  const ka::AnyObject directory = watching->service("ServiceDirectory").value(kWaitMs);
  const auto early = directory->connectScoped("serviceAdded", [this](int id, const std::string&) {
    (void)owner->unregisterService(static_cast<unsigned int>(id));
  });
  watch();
  publish("1");
  EXPECT_EQ(events.waitFor(2), (Events{"lookup failed", "departed"}));
  EXPECT_FALSE(watcher->current());
}

INSTANTIATE_TEST_SUITE_P(Sessions, ServiceWatcherTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Joined" : "Peer"; });

}  // namespace
