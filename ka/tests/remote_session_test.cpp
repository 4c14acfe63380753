// Sessions that share a directory over connections: two or three sessions of this process,
// joined through "local://" endpoints, exercise the same message layer as sockets do.

#include "test_util.hpp"

#include <ka/eventloop.hpp>
#include <ka/objecttypebuilder.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/make_shared.hpp>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <map>

namespace {

using namespace ka::test;

std::string uniqueUrl() {
  static std::atomic<int> next{0};
  const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
  return std::string("local://") + test->test_suite_name() + "." + test->name() + "." +
         std::to_string(next++);
}

// A served object with overloads, typed values and a signal whose subscribers the test sees.
class Calculator {
 public:
  int add(int a, int b) const { return a + b; }
  std::string addText(const std::string& a, const std::string& b) const { return a + b; }
  std::int64_t addLong(std::int64_t a) const { return a + 1; }
  ka::AnyValue echo(const ka::AnyValue& v) const { return v; }
  ka::AnyValue nothing() const { return ka::AnyValue(); }
  void touch() const {}
  std::map<std::string, std::vector<int>> table() const { return {{"a", {1, 2}}, {"b", {}}}; }
  int fail() const { throw std::runtime_error("the calculator failed"); }

  // Declared first: the signal's hook may run while the signal is destroyed.
  Recorder<bool> subscribed;
  ka::Signal<int> ticked{[this](bool has) { subscribed.add(has); }};
};

void registerCalculator() {
  static std::once_flag once;
  std::call_once(once, [] {
    ka::ObjectTypeBuilder<Calculator> b;
    b.buildFor(true);
    b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
    b.advertiseMethod("add", &Calculator::add);
    b.advertiseMethod("add", &Calculator::addText);
    b.advertiseMethod("add", &Calculator::addLong);
    b.advertiseMethod("echo", &Calculator::echo);
    b.advertiseMethod("nothing", &Calculator::nothing);
    b.advertiseMethod("touch", &Calculator::touch);
    b.advertiseMethod("table", &Calculator::table);
    b.advertiseMethod("fail", &Calculator::fail);
    b.advertiseSignal("ticked", &Calculator::ticked);
    b.registerType();
  });
}

// A server session listening on a fresh url and a client session joined to it.
struct Pair {
  Pair() {
    registerCalculator();
    server->listen(url).value(kWaitMs);
    client->connect(url).value(kWaitMs);
  }
  ~Pair() {
    client->close();
    server->close();
  }

  std::string url = uniqueUrl();
  ka::SessionPtr server = ka::makeSession();
  ka::SessionPtr client = ka::makeSession();
};

// Registers a Calculator on the server and looks it up from the client.
struct CalculatorPair : Pair {
  CalculatorPair() {
    server->registerService("Calculator", ka::AnyObject(calculator)).value(kWaitMs);
    remote = client->service("Calculator").value(kWaitMs);
  }
  boost::shared_ptr<Calculator> calculator = boost::make_shared<Calculator>();
  ka::AnyObject remote;
};

TEST(RemoteCall, ResolvesOverloadsByNameAsALocalCallWould) {
  CalculatorPair p;
  EXPECT_EQ(p.remote->call<int>("add", 2, 3), 5);
  EXPECT_EQ(p.remote->call<std::string>("add", "a", "b"), "ab");
  EXPECT_EQ(p.remote->call<std::int64_t>("add", std::int64_t(5000000000)), 5000000001);
  EXPECT_EQ(p.remote->async<int>("add", 20, 22).value(kWaitMs), 42);
}

TEST(RemoteCall, SeesTheFullDescriptionOfTheRemoteObject) {
  CalculatorPair p;
  const ka::MetaObject& local = ka::AnyObject(p.calculator)->metaObject();
  const ka::MetaObject& remote = p.remote->metaObject();
  ASSERT_EQ(remote.methods().size(), local.methods().size());
  for (const auto& m : local.methods()) {
    const ka::MetaMethod* r = remote.method(m.uid);
    ASSERT_NE(r, nullptr) << m.toString();
    EXPECT_EQ(r->toString(), m.toString());
  }
  const ka::MetaSignal* ticked = remote.signal("ticked");
  ASSERT_NE(ticked, nullptr);
  EXPECT_EQ(ticked->signature().toString(), "(i)");
}

TEST(RemoteCall, KeepsTheVoidValueAndTheEmptyValueApart) {
  CalculatorPair p;
  const ka::AnyValue voidResult = p.remote->metaCall("touch", {}).value(kWaitMs);
  ASSERT_TRUE(voidResult.isValid());
  EXPECT_EQ(voidResult.kind(), ka::TypeKind::Void);

  const ka::AnyValue empty = p.remote->metaCall("nothing", {}).value(kWaitMs);
  ASSERT_TRUE(empty.isValid());             // a dynamic value...
  EXPECT_FALSE(empty.content().isValid());  // ...holding nothing

  const ka::AnyValue voidInside = p.remote->call<ka::AnyValue>("echo", ka::AnyValue::makeVoid());
  ASSERT_TRUE(voidInside.isValid());
  EXPECT_EQ(voidInside.kind(), ka::TypeKind::Void);
}

TEST(RemoteCallErrors, ComeBackAsErrorsWhileTheServerKeepsServing) {
  CalculatorPair p;
  EXPECT_THAT([&] { p.remote->call<int>("fail"); },
              testing::ThrowsMessage<ka::FutureError>(testing::StrEq("the calculator failed")));
  // One candidate of the right arity: the server converts, and says why it cannot.
  const auto wrong = p.remote->metaCall("echo", {});
  EXPECT_TRUE(wrong.hasError(kWaitMs));
  EXPECT_TRUE(contains(p.remote->async<int>("add", 1.5, 2).error(kWaitMs), "add"));
  EXPECT_TRUE(contains(p.remote->async<int>("nope").error(kWaitMs), "\"nope\" not found"));
  // A result that does not fit what the caller asks for.
  EXPECT_TRUE(contains(p.remote->async<std::string>("add", 1, 2).error(kWaitMs),
                       "Unable to convert call result to target type"));
  EXPECT_EQ(p.client->service("Nope").error(kWaitMs), "Cannot find service \"Nope\"");

  EXPECT_EQ(p.remote->call<int>("add", 1, 2), 3);
}

TEST(RemoteSignal, EventsTravelOnlyWhileSubscribed) {
  CalculatorPair p;
  Recorder<int> events;
  const ka::SignalLink link =
      p.remote->connect("ticked", [&](int v) { events.add(v); }).value(kWaitMs);
  EXPECT_EQ(p.calculator->subscribed.waitFor(1), std::vector<bool>{true});
  for (int i = 0; i < 5; ++i) {
    p.calculator->ticked(i);
  }
  EXPECT_EQ(events.waitFor(5), (std::vector<int>{0, 1, 2, 3, 4}));

  p.remote->disconnect(link).value(kWaitMs);
  // The server stopped forwarding: its signal lost its only subscriber.
  EXPECT_EQ(p.calculator->subscribed.now(), (std::vector<bool>{true, false}));
  p.calculator->ticked(99);
  // A later subscription sees later events only, never the one emitted in between.
  Recorder<int> again;
  const ka::SignalLink second =
      p.remote->connect("ticked", [&](int v) { again.add(v); }).value(kWaitMs);
  p.calculator->ticked(100);
  EXPECT_EQ(again.waitFor(1), std::vector<int>{100});
  EXPECT_EQ(events.now().size(), 5u);
  p.remote->disconnect(second).value(kWaitMs);
}

TEST(RemoteSignal, SeveralLocalSubscribersShareOneSubscriptionAtThePeer) {
  CalculatorPair p;
  Recorder<int> a;
  Recorder<int> b;
  const auto la = p.remote->connect("ticked", [&](int v) { a.add(v); }).value(kWaitMs);
  const auto lb = p.remote->connect("ticked", [&](int v) { b.add(v); }).value(kWaitMs);
  p.calculator->ticked(1);
  EXPECT_EQ(a.waitFor(1), std::vector<int>{1});
  EXPECT_EQ(b.waitFor(1), std::vector<int>{1});
  p.remote->disconnect(la).value(kWaitMs);
  EXPECT_EQ(p.calculator->subscribed.now(), std::vector<bool>{true});  // b still listens
  p.calculator->ticked(2);
  EXPECT_EQ(b.waitFor(2), (std::vector<int>{1, 2}));
  p.remote->disconnect(lb).value(kWaitMs);
  EXPECT_EQ(p.calculator->subscribed.now(), (std::vector<bool>{true, false}));
  EXPECT_EQ(a.now(), std::vector<int>{1});
}

TEST(RemoteSignal, APeerCannotEmitTheSignalsOfAnObjectItDoesNotOwn) {
  CalculatorPair p;
  Recorder<int> local;
  [[maybe_unused]] auto link = p.calculator->ticked.connect([&](int v) { local.add(v); });
  EXPECT_THROW(p.remote->post("ticked", 5), std::runtime_error);
  p.calculator->ticked(1);
  EXPECT_EQ(local.waitFor(1), std::vector<int>{1});
}

TEST(RemoteSignal, SubscriptionsAreDroppedWithTheConnection) {
  CalculatorPair p;
  const auto link = p.remote->connect("ticked", [](int) {}).value(kWaitMs);
  (void)link;
  EXPECT_EQ(p.calculator->subscribed.waitFor(1), std::vector<bool>{true});
  p.client->close();
  EXPECT_EQ(p.calculator->subscribed.waitFor(2), (std::vector<bool>{true, false}));
}

TEST(RemoteDirectory, ServicesRegisteredByAnyParticipantAreSeenByAll) {
  Pair p;
  auto third = ka::makeSession();
  third->connect(p.url).value(kWaitMs);
  Recorder<std::string> atServer, atClient, atThird;
  watchDirectory(p.server, atServer);
  watchDirectory(p.client, atClient);
  watchDirectory(third, atThird);

  const unsigned id = p.client->registerService("Echo", echoObject("client:")).value(kWaitMs);
  for (auto* events : {&atServer, &atClient, &atThird}) {
    EXPECT_EQ(events->waitFor(1), std::vector<std::string>{"+Echo"});
  }
  // The third participant calls the client's object, through the server.
  ka::AnyObject echo = third->service("Echo").value(kWaitMs);
  EXPECT_EQ(echo->call<std::string>("echo", "hi"), "client:hi");
  EXPECT_EQ(p.server->service("Echo").value(kWaitMs)->call<std::string>("echo", "x"), "client:x");

  bool listed = false;
  for (const auto& info : third->services().value(kWaitMs)) {
    listed = listed || (info.name == "Echo" && info.serviceId == id);
  }
  EXPECT_TRUE(listed);
  EXPECT_FALSE(third->registerService("Echo", echoObject("again")).hasValue(kWaitMs));
  // Only the owner unregisters.
  EXPECT_TRUE(third->unregisterService(id).hasError(kWaitMs));
  p.client->unregisterService(id).value(kWaitMs);
  for (auto* events : {&atServer, &atClient, &atThird}) {
    EXPECT_EQ(events->waitFor(2), (std::vector<std::string>{"+Echo", "-Echo"}));
  }
  third->close();
}

TEST(RemoteDirectory, AParticipantThatGoesTakesItsServicesAndFailsCallsWaitingOnIt) {
  Pair p;
  auto third = ka::makeSession();
  third->connect(p.url).value(kWaitMs);
  Recorder<std::string> atThird;
  watchDirectory(third, atThird);

  // A method that answers only when the test says so.
  auto answer = std::make_shared<ka::Promise<int>>();
  ka::DynamicObjectBuilder b;
  b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  auto entered = std::make_shared<Recorder<int>>();
  b.advertiseMethod("wait", [answer, entered] {
    entered->add(1);
    return answer->future();
  });
  p.client->registerService("Waiter", b.object()).value(kWaitMs);
  ka::AnyObject relayed = third->service("Waiter").value(kWaitMs);
  ka::AnyObject direct = p.server->service("Waiter").value(kWaitMs);
  const auto viaServer = relayed->async<int>("wait");
  const auto fromServer = direct->async<int>("wait");
  ASSERT_EQ(entered->waitFor(2).size(), 2u);  // both calls wait in the client

  p.client->close();
  EXPECT_TRUE(contains(fromServer.error(kWaitMs), "Connection lost to"));
  EXPECT_TRUE(contains(viaServer.error(kWaitMs), "Connection lost to"));
  EXPECT_EQ(atThird.waitFor(2), (std::vector<std::string>{"+Waiter", "-Waiter"}));
  EXPECT_EQ(third->service("Waiter").error(kWaitMs), "Cannot find service \"Waiter\"");
  // Handles on the object that went fail at once.
  EXPECT_EQ(direct->async<int>("wait").error(kWaitMs), "Invalid GenericObject");
  EXPECT_EQ(relayed->async<int>("wait").error(kWaitMs), "Invalid GenericObject");
  answer->setValue(1);
  third->close();
}

TEST(RemoteDirectory, AClientReconnectsAndLooksServicesUpAgain) {
  const std::string url = uniqueUrl();
  auto client = ka::makeSession();
  auto never = std::make_shared<ka::Promise<int>>();
  ka::Future<int> cut;
  {
    auto server = ka::makeSession();
    server->listen(url).value(kWaitMs);
    ka::DynamicObjectBuilder b;
    b.advertiseMethod("never", [never] { return never->future(); });
    server->registerService("Never", b.object()).value(kWaitMs);
    server->registerService("Echo", echoObject("1:")).value(kWaitMs);
    client->connect(url).value(kWaitMs);
    EXPECT_EQ(client->service("Echo").value(kWaitMs)->call<std::string>("echo", "a"), "1:a");
    EXPECT_TRUE(client->connect(url).hasError(kWaitMs));  // already connected
    cut = client->service("Never").value(kWaitMs)->async<int>("never");
    server->close();
  }
  // The call that was waiting ends with the connection.
  EXPECT_TRUE(contains(cut.error(kWaitMs), "Connection lost to"));
  EXPECT_FALSE(client->isConnected());
  EXPECT_TRUE(client->service("Echo").hasError(kWaitMs));

  auto server = ka::makeSession();
  server->listen(url).value(kWaitMs);
  server->registerService("Echo", echoObject("2:")).value(kWaitMs);
  client->connect(url).value(kWaitMs);
  EXPECT_TRUE(client->isConnected());
  EXPECT_EQ(client->service("Echo").value(kWaitMs)->call<std::string>("echo", "b"), "2:b");
  client->close();
  server->close();
  never->setValue(0);
}

TEST(RemoteDirectory, ListenAndConnectRefuseWhatTheyCannotDo) {
  Pair p;
  EXPECT_TRUE(p.server->connect(p.url).hasError(kWaitMs));       // it serves its own directory
  EXPECT_TRUE(p.client->listen(uniqueUrl()).hasError(kWaitMs));  // it joined another
  auto other = ka::makeSession();
  EXPECT_TRUE(other->listen(p.url).hasError(kWaitMs));         // taken
  EXPECT_TRUE(other->connect(uniqueUrl()).hasError(kWaitMs));  // nobody there
  EXPECT_TRUE(other->listen("bogus://x").hasError(kWaitMs));
  EXPECT_EQ(p.server->endpoints(), std::vector<std::string>{p.url});
}

// Ping on the server calls Pong on the client, which calls Ping back before answering: each
// call blocks a thread of the event loop on a remote reply, and none may stall the transport.
TEST(RemoteReentrancy, AMethodBlockedOnARemoteReplyDoesNotStallTheTransport) {
  Pair p;
  ka::SessionPtr server = p.server;
  ka::SessionPtr client = p.client;
  ka::DynamicObjectBuilder ping;
  ping.setThreadingModel(ka::ObjectThreadingModel::SingleThread);
  ping.advertiseMethod("value", [] { return 40; });
  ping.advertiseMethod(
      "ping", [server] { return server->service("Pong").value(kWaitMs)->call<int>("pong") + 1; });
  ka::DynamicObjectBuilder pong;
  pong.advertiseMethod(
      "pong", [client] { return client->service("Ping").value(kWaitMs)->call<int>("value") + 1; });
  p.server->registerService("Ping", ping.object()).value(kWaitMs);
  p.client->registerService("Pong", pong.object()).value(kWaitMs);
  ka::AnyObject remotePing = p.client->service("Ping").value(kWaitMs);
  EXPECT_EQ(remotePing->async<int>("ping").value(kWaitMs), 42);
}

std::string socketUrl() {
  static std::atomic<int> next{0};
  return "unix:///tmp/ka-remote-test-" + std::to_string(::getpid()) + "-" + std::to_string(next++) +
         ".sock";
}

TEST(SocketSessionSecurity, AMessageOverTheFrameLimitFailsItsCallButNotTheConnection) {
  ka::EndpointOptions small;
  small.maxFrameBody = 1024;
  auto server = ka::makeSession();
  server->listen("tcp://127.0.0.1:0", small).value(kWaitMs);
  ka::DynamicObjectBuilder b;
  b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  b.advertiseMethod("echo", [](const std::string& s) { return s; });
  b.advertiseMethod("grow", [](int n) { return std::string(static_cast<std::size_t>(n), 'y'); });
  server->registerService("Echo", b.object()).value(kWaitMs);
  auto client = ka::makeSession();
  client->connect(server->endpoints().front(), small).value(kWaitMs);
  ka::AnyObject echo = client->service("Echo").value(kWaitMs);

  EXPECT_TRUE(contains(echo->async<std::string>("echo", std::string(4096, 'x')).error(kWaitMs),
                       "frame limit"));
  EXPECT_TRUE(
      contains(echo->async<std::string>("grow", 4096).error(kWaitMs), "Cannot send the result"));
  EXPECT_EQ(echo->call<std::string>("echo", "small"), "small");
  EXPECT_TRUE(client->isConnected());
  client->close();
  server->close();
}

// The name of the calling thread; the transport names its I/O thread "ka-transport".
std::string threadName() {
  char name[32] = {};
  ::pthread_getname_np(::pthread_self(), name, sizeof name);
  return name;
}

// A server with methods that answer when the test says, and a client joined over a Unix
// socket: answers come in on the client's transport thread.
struct SocketCalls {
  SocketCalls() {
    ka::DynamicObjectBuilder b;
    b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
    auto a = answer;
    auto e = entered;
    b.advertiseMethod("wait", [a, e] {
      e->add(1);
      return a->future();
    });
    b.advertiseMethod("echo", [](const std::string& s) { return s; });
    server->listen(socketUrl()).value(kWaitMs);
    server->registerService("Calls", b.object()).value(kWaitMs);
    client->connect(server->endpoints().front()).value(kWaitMs);
    remote = client->service("Calls").value(kWaitMs);
  }
  ~SocketCalls() {
    client->close();
    server->close();
    answer->trySetValue(0);
  }
  ka::Future<ka::AnyValue> rawCall(const std::string& text) {
    return remote->metaCall("echo", ka::AnyReferenceVector{ka::AnyReference::from(text)},
                            ka::MetaCallType::Queued);
  }

  std::shared_ptr<ka::Promise<int>> answer = std::make_shared<ka::Promise<int>>();
  std::shared_ptr<Recorder<int>> entered = std::make_shared<Recorder<int>>();
  ka::SessionPtr server = ka::makeSession();
  ka::SessionPtr client = ka::makeSession();
  ka::AnyObject remote;
};

TEST(RemoteCallThreads, WhatIsChainedToACallRunsOffTheTransportThreadWhileAWaiterIsWokenDirectly) {
  SocketCalls s;
  Recorder<std::string> ranOn;
  const auto record = [&ranOn](auto) { ranOn.add(threadName()); };
  // Chained before the answers come: to the raw future, and to the converted one of async().
  const auto raw = s.remote->metaCall("wait", {}, ka::MetaCallType::Queued).then(record);
  const auto converted = s.remote->async<int>("wait").then(record);
  const auto twice = s.remote->async<int>("wait").andThen([](int) {}).then(record);
  ASSERT_EQ(s.entered->waitFor(3).size(), 3u);
  auto blocked = std::async(std::launch::async, [&s] { return s.remote->call<int>("wait"); });
  ASSERT_EQ(s.entered->waitFor(4).size(), 4u);

  s.answer->setValue(7);
  EXPECT_EQ(blocked.get(), 7);
  EXPECT_TRUE(raw.hasValue(kWaitMs));
  EXPECT_TRUE(converted.hasValue(kWaitMs));
  EXPECT_TRUE(twice.hasValue(kWaitMs));
  const auto names = ranOn.waitFor(3);
  ASSERT_EQ(names.size(), 3u);
  for (const auto& name : names) {
    EXPECT_NE(name, "ka-transport");
  }
}

TEST(RemoteCallThreads, AThenRacingTheAnswerRunsExactlyOnceAndNeverOnTheTransportThread) {
  SocketCalls s;
  std::atomic<int> runs{0};
  std::atomic<int> onTransport{0};
  int rounds = 0;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  while (rounds < 2000 && std::chrono::steady_clock::now() < until) {
    const std::string text = std::to_string(rounds);
    const ka::Future<ka::AnyValue> call = s.rawCall(text);
    // Some rounds chain at once, others a little later: either side of the answer.
    for (int i = 0; i < rounds % 64; ++i) {
      (void)call.isFinished();
    }
    const ka::Future<std::string> next = call.then([&](ka::Future<ka::AnyValue> done) {
      ++runs;
      onTransport += threadName() == "ka-transport";
      return done.value(ka::FutureTimeout_None).to<std::string>();
    });
    ASSERT_EQ(next.value(kWaitMs), text);
    ++rounds;
  }
  // One more round trip gives a stray second run of some continuation time to show in the count.
  EXPECT_EQ(s.rawCall("last").value(kWaitMs).to<std::string>(), "last");
  EXPECT_EQ(runs.load(), rounds);
  EXPECT_EQ(onTransport.load(), 0);
}

TEST(RemoteCallThreads,
     CallsWaitingOnAConnectionThatGoesFailAtOnceAndTheirChainsRunOffTheTransport) {
  SocketCalls s;
  Recorder<std::string> ranOn;
  const auto chained = s.remote->async<int>("wait").then([&ranOn](ka::Future<int> done) {
    ranOn.add(threadName());
    return done.error(ka::FutureTimeout_None);
  });
  auto blocked = std::async(std::launch::async, [&s]() -> std::string {
    try {
      return std::to_string(s.remote->call<int>("wait"));
    } catch (const ka::FutureError& e) {
      return e.what();
    }
  });
  ASSERT_EQ(s.entered->waitFor(2).size(), 2u);

  s.server->close();  // the client's transport sees the socket close
  ASSERT_EQ(blocked.wait_for(std::chrono::milliseconds(kWaitMs)), std::future_status::ready);
  EXPECT_TRUE(contains(blocked.get(), "Connection lost to"));
  EXPECT_TRUE(contains(chained.value(kWaitMs), "Connection lost to"));
  ASSERT_EQ(ranOn.waitFor(1).size(), 1u);
  EXPECT_NE(ranOn.now().front(), "ka-transport");
}

// Served calls run on the thread that read them; one that blocks hands the reading over, so the
// calls behind it on the same connection, on another connection, and calls back into the caller
// are all served meanwhile.
TEST(SocketServedCalls, ACallThatBlocksLetsEveryOtherCallThrough) {
  ka::SessionPtr server = ka::makeSession();
  ka::SessionPtr client = ka::makeSession();
  ka::SessionPtr other = ka::makeSession();
  auto release = std::make_shared<ka::Promise<int>>();
  auto entered = std::make_shared<Recorder<int>>();
  ka::DynamicObjectBuilder b;
  b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  b.advertiseMethod("block", [release, entered] {
    entered->add(1);
    return release->future().value(kWaitMs);  // a blocking wait, not an answer by future
  });
  b.advertiseMethod("echo", [](int n) { return n; });
  b.advertiseMethod(
      "onLoop", [] { return ka::defaultEventLoop().isInLoopThread(); }, ka::MetaCallType::Queued);
  // Ping-pong between the two processes' objects, `n` levels deep, each level a blocking call.
  b.advertiseMethod("bounce", [server](int n) {
    return n == 0 ? 0 : server->service("Back").value(kWaitMs)->call<int>("bounce", n - 1) + 1;
  });
  server->listen(socketUrl()).value(kWaitMs);
  server->registerService("Calls", b.object()).value(kWaitMs);
  client->connect(server->endpoints().front()).value(kWaitMs);
  other->connect(server->endpoints().front()).value(kWaitMs);
  ka::DynamicObjectBuilder back;
  back.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  back.advertiseMethod("bounce", [client](int n) {
    return n == 0 ? 0 : client->service("Calls").value(kWaitMs)->call<int>("bounce", n - 1) + 1;
  });
  client->registerService("Back", back.object()).value(kWaitMs);
  const ka::AnyObject calls = client->service("Calls").value(kWaitMs);

  const ka::Future<int> blocked = calls->async<int>("block");
  ASSERT_EQ(entered->waitFor(1).size(), 1u);
  EXPECT_EQ(calls->async<int>("echo", 5).value(kWaitMs), 5);
  EXPECT_EQ(other->service("Calls").value(kWaitMs)->async<int>("echo", 6).value(kWaitMs), 6);
  EXPECT_EQ(calls->async<int>("bounce", 6).value(kWaitMs), 6);
  EXPECT_TRUE(calls->async<bool>("onLoop").value(kWaitMs));
  EXPECT_FALSE(blocked.isFinished());
  release->setValue(7);
  EXPECT_EQ(blocked.value(kWaitMs), 7);

  other->close();
  client->close();
  server->close();
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// A participant in another process: this program started again, running only the child test.

namespace {

constexpr const char kChildUrlVariable[] = "KA_REMOTE_TEST_CHILD_URL";

TEST(RemoteProcessChild, ServesUntilKilled) {
  const char* url = std::getenv(kChildUrlVariable);
  if (url == nullptr) {
    GTEST_SKIP() << "runs only as the other process of RemoteProcess tests";
  }
  auto session = ka::makeSession();
  session->connect(url).value(kWaitMs);
  auto never = std::make_shared<ka::Promise<int>>();
  ka::DynamicObjectBuilder b;
  b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  b.advertiseMethod("pid", [] { return static_cast<int>(::getpid()); });
  b.advertiseMethod("wait", [never] { return never->future(); });
  session->registerService("Child", b.object()).value(kWaitMs);
  // The parent kills this process; the limit only keeps an orphan from lingering.
  (void)never->future().wait(60000);
}

TEST(RemoteProcess, ItsServicesGoAndItsWaitingCallsFailWhenItIsKilled) {
  auto server = ka::makeSession();
  server->listen(socketUrl()).value(kWaitMs);
  Recorder<std::string> events;
  watchDirectory(server, events);

  ChildProcess child("RemoteProcessChild.ServesUntilKilled", kChildUrlVariable,
                     server->endpoints().at(0));
  ASSERT_NE(child.pid(), 0);

  ASSERT_EQ(events.waitFor(1), std::vector<std::string>{"+Child"});
  ka::AnyObject remote = server->service("Child").value(kWaitMs);
  EXPECT_EQ(remote->call<int>("pid"), child.pid());
  const auto waiting = remote->async<int>("wait");

  child.killAndWait();
  EXPECT_TRUE(contains(waiting.error(kWaitMs), "Connection lost to"));
  EXPECT_EQ(events.waitFor(2), (std::vector<std::string>{"+Child", "-Child"}));
  EXPECT_EQ(remote->async<int>("pid").error(kWaitMs), "Invalid GenericObject");
  EXPECT_TRUE(server->service("Child").hasError(kWaitMs));
  server->close();
}

}  // namespace
