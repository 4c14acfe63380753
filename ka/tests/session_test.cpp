#include "test_util.hpp"

#include <gtest/gtest.h>

#include <ka/strand.hpp>

#include <atomic>
#include <set>

namespace {

using namespace ka::test;

TEST(ServiceRegistry, RefusesDuplicateEmptyAndNullRegistrations) {
  auto session = ka::makeSession();
  session->registerService("Echo", echoObject()).value(kWaitMs);
  EXPECT_TRUE(session->registerService("Echo", echoObject()).hasError(kWaitMs));
  EXPECT_TRUE(session->registerService("ServiceDirectory", echoObject()).hasError(kWaitMs));
  EXPECT_TRUE(session->registerService("", echoObject()).hasError(kWaitMs));
  EXPECT_TRUE(session->registerService("Null", ka::AnyObject()).hasError(kWaitMs));
  EXPECT_TRUE(session->unregisterService(999).hasError(kWaitMs));
}

TEST(ServiceDirectorySignals, ClosingASessionRemovesOnlyItsOwnServices) {
  Recorder<std::string> events;
  auto first = ka::makeSession();
  auto second = ka::makeSession(first);
  watchDirectory(first, events, true);
  first->registerService("Kept", echoObject()).value(kWaitMs);
  const unsigned gone = second->registerService("Gone", echoObject()).value(kWaitMs);
  EXPECT_TRUE(first->service("Gone").hasValue(kWaitMs)) << "sessions share their directory";
  second->close();
  EXPECT_FALSE(second->isConnected());
  EXPECT_TRUE(second->service("Kept").hasError(kWaitMs));
  const auto got = events.waitFor(3);
  EXPECT_EQ(got.back(), "-" + std::to_string(gone) + "Gone");
  EXPECT_TRUE(first->service("Kept").hasValue(kWaitMs));
}

TEST(ServiceDirectorySignals, StayInOrderWhileThreadsRegisterLookUpCallAndUnregister) {
  Recorder<std::string> events;
  auto session = ka::makeSession();
  watchDirectory(session, events, true);
  const int threads = 4;
  const int perThread = 100;
  std::atomic<int> wrongAnswers{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      for (int i = 0; i < perThread; ++i) {
        const std::string name = "C" + std::to_string(t) + "_" + std::to_string(i);
        const unsigned id = session->registerService(name, echoObject()).value(kWaitMs);
        ka::AnyObject o = session->service(name).value(kWaitMs);
        if (o->call<std::string>("echo", name) != name) {
          ++wrongAnswers;
        }
        session->unregisterService(id).value(kWaitMs);
      }
    });
  }
  for (auto& w : workers) {
    w.join();
  }
  EXPECT_EQ(wrongAnswers.load(), 0);
  EXPECT_EQ(session->services().value(kWaitMs).size(), 1u);
  const auto got = events.waitFor(2u * threads * perThread);
  ASSERT_EQ(got.size(), 2u * threads * perThread);
  std::set<std::string> added;
  for (const auto& e : got) {
    const std::string key = e.substr(1);
    if (e[0] == '+') {
      added.insert(key);
    } else {
      EXPECT_EQ(added.count(key), 1u) << "removal announced before addition: " << e;
    }
  }
}

TEST(ServiceDirectoryObject, ListsAndLooksUpServicesThroughItsMethods) {
  auto session = ka::makeSession();
  const unsigned id = session->registerService("Echo", echoObject()).value(kWaitMs);
  ka::AnyObject dir = session->service("ServiceDirectory").value(kWaitMs);
  const auto info = dir->call<std::tuple<std::string, unsigned>>("service", std::string("Echo"));
  EXPECT_EQ(std::get<1>(info), id);
  const auto all = dir->call<std::vector<std::tuple<std::string, unsigned>>>("services");
  EXPECT_EQ(all.size(), 2u);
  using Info = std::tuple<std::string, unsigned>;
  EXPECT_THROW(dir->call<Info>("service", std::string("No")), std::runtime_error);
}

// The user information service looks services up from inside directory callbacks;
// that must work whether the callback runs directly or queued on a busy loop.
TEST(ServiceDirectoryCallbacks, MayLookUpAndCallServicesWithoutDeadlock) {
  auto session = ka::makeSession();
  ka::AnyObject dir = session->service("ServiceDirectory").value(kWaitMs);
  std::mutex m;
  std::condition_variable cv;
  std::vector<std::string> answers;
  auto lookUpAndCall = [&](int, const std::string& name) {
    ka::AnyObject o = session->service(name).value(ka::FutureTimeout_Infinite);
    const std::string a = o->async<std::string>("echo", name).value(ka::FutureTimeout_Infinite);
    std::lock_guard<std::mutex> lock(m);
    answers.push_back(a);
    cv.notify_all();
  };
  dir->connect("serviceAdded",
               ka::SignalSubscriber(ka::AnyFunction::from(lookUpAndCall), ka::MetaCallType::Direct))
      .value(kWaitMs);
  dir->connect("serviceAdded",
               ka::SignalSubscriber(ka::AnyFunction::from(lookUpAndCall), ka::MetaCallType::Queued))
      .value(kWaitMs);
  // Register from several threads at once while the callbacks block on the loop.
  std::vector<std::thread> threads;
  const int n = 8;
  for (int i = 0; i < n; ++i) {
    threads.emplace_back(
        [&, i] { session->registerService("S" + std::to_string(i), echoObject()).value(kWaitMs); });
  }
  for (auto& t : threads) {
    t.join();
  }
  std::unique_lock<std::mutex> lock(m);
  EXPECT_TRUE(cv.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] {
    return answers.size() == 2u * n;
  })) << answers.size();
}

TEST(ServiceDirectorySignals, AChangeReturnsOnlyOnceDirectSubscribersHaveSeenIt) {
  // A registration made while another thread is still announcing an earlier one must not
  // return before its own announcement has reached the direct subscribers.
  auto session = ka::makeSession();
  ka::AnyObject dir = session->service("ServiceDirectory").value(kWaitMs);
  std::mutex m;
  std::set<std::string> seen;
  dir->connect("serviceAdded",
               [&](int, const std::string& name) {
                 if (name == "First") {
                   // Hold the announcing thread until the second registration is in, and a
                   // little longer, so that it would return first if it did not wait.
                   const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
                   while (!session->service("Second").hasValue(0) &&
                          std::chrono::steady_clock::now() < limit) {
                     std::this_thread::yield();
                   }
                   const auto linger =
                       std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
                   while (std::chrono::steady_clock::now() < linger) {
                     std::this_thread::yield();
                   }
                 }
                 std::lock_guard<std::mutex> lock(m);
                 seen.insert(name);
               })
      .value(kWaitMs);
  std::thread first([&] { session->registerService("First", echoObject()).value(kWaitMs); });
  while (!session->service("First").hasValue(0)) {
    std::this_thread::yield();
  }
  session->registerService("Second", echoObject()).value(kWaitMs);
  {
    std::lock_guard<std::mutex> lock(m);
    EXPECT_EQ(seen.count("Second"), 1u) << "registerService returned before its announcement";
  }
  first.join();
}

TEST(ServiceDirectorySignals, AQueuedSubscriberSharingOneStrandSeesEveryAdditionBeforeItsRemoval) {
  auto session = ka::makeSession();
  ka::AnyObject dir = session->service("ServiceDirectory").value(kWaitMs);
  std::mutex m;
  std::condition_variable cv;
  std::vector<std::string> events;
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  // Everything after the last event's push happens under the lock, so the test
  // body may leave, destroying these locals, as soon as it has seen that event.
  auto record = [&](const std::string& e) {
    if (++inside > 1) {
      ++overlaps;
    }
    std::lock_guard<std::mutex> lock(m);
    --inside;
    events.push_back(e);
    cv.notify_all();
  };
  const ka::Strand strand;
  dir->connect("serviceAdded",
               ka::SignalSubscriber(
                   ka::AnyFunction::from([&](int, const std::string& n) { record("+" + n); }),
                   ka::MetaCallType::Queued, strand))
      .value(kWaitMs);
  dir->connect("serviceRemoved",
               ka::SignalSubscriber(
                   ka::AnyFunction::from([&](int, const std::string& n) { record("-" + n); }),
                   ka::MetaCallType::Queued, strand))
      .value(kWaitMs);
  constexpr int kCycles = 300;
  for (int i = 0; i < kCycles; ++i) {
    const std::string name = "Q" + std::to_string(i);
    session->unregisterService(session->registerService(name, echoObject()).value(kWaitMs))
        .value(kWaitMs);
  }
  std::unique_lock<std::mutex> lock(m);
  ASSERT_TRUE(cv.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                          [&] { return events.size() == 2u * kCycles; }));
  for (int i = 0; i < kCycles; ++i) {
    const std::string name = "Q" + std::to_string(i);
    EXPECT_EQ(events[2 * i], "+" + name);
    EXPECT_EQ(events[2 * i + 1], "-" + name);
  }
  EXPECT_EQ(overlaps.load(), 0);
}

TEST(ServiceOwnership, OnlyTheRegisteringSessionMayUnregisterAService) {
  auto owner = ka::makeSession();
  auto other = ka::makeSession(owner);
  const unsigned id = owner->registerService("Mine", echoObject()).value(kWaitMs);
  const auto refused = other->unregisterService(id);
  ASSERT_TRUE(refused.hasError(kWaitMs));
  EXPECT_NE(refused.error().find("belongs to another session"), std::string::npos)
      << refused.error();
  ka::AnyObject otherDirectory = other->service("ServiceDirectory").value(kWaitMs);
  EXPECT_THROW(otherDirectory->call<void>("unregisterService", id), std::runtime_error);
  EXPECT_TRUE(other->service("Mine").hasValue(kWaitMs)) << "still registered";
  EXPECT_TRUE(owner->unregisterService(id).hasValue(kWaitMs));
}

TEST(ServiceOwnership, ARegistrationThroughTheDirectoryObjectGoesWithTheCallersSession) {
  auto keeper = ka::makeSession();
  auto caller = ka::makeSession(keeper);
  Recorder<std::string> events;
  watchDirectory(keeper, events, true);
  ka::AnyObject directory = caller->service("ServiceDirectory").value(kWaitMs);
  const auto id =
      directory->call<unsigned>("registerService", std::string("ViaObject"), echoObject());
  EXPECT_TRUE(keeper->service("ViaObject").hasValue(kWaitMs));
  EXPECT_TRUE(keeper->unregisterService(id).hasError(kWaitMs)) << "belongs to the caller";
  caller->close();
  EXPECT_TRUE(keeper->service("ViaObject").hasError(kWaitMs)) << "gone with its session";
  const auto got = events.waitFor(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[1], "-" + std::to_string(id) + "ViaObject");
}

}  // namespace
