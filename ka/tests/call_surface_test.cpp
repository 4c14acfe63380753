// What callers of objects see at the surface: how C++ arguments are typed, the texts of the
// middleware's failures, methods that answer with futures and subscriptions that end with
// their handle.

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/object.hpp>
#include <ka/objecttypebuilder.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <atomic>
#include <string>
#include <string_view>

namespace {

constexpr int kWaitMs = 10000;

// "which" tells the caller which overload ran: the C++ argument decides it.
ka::AnyObject overloadedObject() {
  ka::DynamicObjectBuilder b;
  b.advertiseMethod("which", [](int v) { return "int " + std::to_string(v); });
  b.advertiseMethod("which", [](const std::string& s) { return "string " + s; });
  b.advertiseMethod("id", [](int v) { return v; });
  b.advertiseSignal<std::string>("said");
  return b.object();
}

TEST(CallArguments, TextOfEveryCppSpellingIsAString) {
  ka::AnyObject o = overloadedObject();
  const char* pointer = "ptr";
  char buffer[16] = "buf";
  const std::string_view view = std::string_view("viewed text").substr(0, 6);
  EXPECT_EQ(o->call<std::string>("which", "literal"), "string literal");
  EXPECT_EQ(o->call<std::string>("which", pointer), "string ptr");
  EXPECT_EQ(o->call<std::string>("which", buffer), "string buf");
  EXPECT_EQ(o->call<std::string>("which", view), "string viewed");
  EXPECT_EQ(o->async<std::string>("which", "queued").value(kWaitMs), "string queued");
  const char* null = nullptr;
  EXPECT_THROW(o->call<std::string>("which", null), std::invalid_argument);

  std::string heard;
  ka::ScopedConnection c = o->connectScoped("said", [&](const std::string& s) { heard = s; });
  o->post("said", "posted");
  EXPECT_EQ(heard, "posted");
}

TEST(FailureTexts, AreTheSameWhereverTheSameFailureHappens) {
  ka::DynamicObjectBuilder b;
  b.advertiseMethod("odd", []() -> int { throw 42; });
  b.advertiseMethod("noFuture", [] { return ka::Future<int>(); });
  ka::AnyObject o = b.object();
  const std::string unknown = "Unknown exception in method \"odd\"";
  EXPECT_EQ(o->metaCall("odd", {}, ka::MetaCallType::Direct).error(kWaitMs), unknown);
  EXPECT_EQ(o->metaCall("odd", {}, ka::MetaCallType::Queued).error(kWaitMs), unknown);
  EXPECT_EQ(o->metaCall("noFuture", {}).error(kWaitMs), "function returned an invalid future");
  EXPECT_THAT([&] { o->call<std::string>("noFuture"); },
              testing::ThrowsMessage<ka::FutureError>(
                  testing::StrEq("function returned an invalid future")));
}

TEST(FutureMethods, AnswerWhenTheirFutureEndsAndAdvertiseItsValueType) {
  ka::Promise<int> later;
  ka::Promise<void> done;
  ka::DynamicObjectBuilder b;
  b.advertiseMethod("later", [&] { return later.future(); });
  b.advertiseMethod("done", [&] { return done.future(); });
  b.advertiseMethod("failing", [] { return ka::makeFutureError<std::string>("no luck"); });
  ka::AnyObject o = b.object();
  EXPECT_EQ(o->metaObject().methodsNamed("later").front()->returnSignature().toString(), "i");

  ka::Future<int> answer = o->async<int>("later");
  ka::Future<void> finished = o->async<void>("done");
  EXPECT_EQ(answer.wait(50), ka::FutureState::Running);
  later.setValue(41);
  done.setCanceled("stopped early");
  EXPECT_EQ(answer.value(kWaitMs), 41);
  EXPECT_EQ(finished.wait(kWaitMs), ka::FutureState::Canceled);
  EXPECT_EQ(finished.error(kWaitMs), "stopped early");
  EXPECT_THROW(o->call<std::string>("failing"), ka::FutureError);
}

// A published class whose method answers with a future, and whose signal is watched.
class Slow {
 public:
  ka::Future<std::string> fetch(const std::string& key) {
    return ka::makeReadyFuture("value of " + key);
  }
  ka::Signal<int> ticked;
};

TEST(FutureMethods, WorkThroughTheTypeBuilderToo) {
  ka::ObjectTypeBuilder<Slow> b;
  b.advertiseMethod("fetch", &Slow::fetch);
  b.advertiseSignal("ticked", &Slow::ticked);
  b.registerType();
  ka::AnyObject o = ka::makeObject(boost::make_shared<Slow>());
  EXPECT_EQ(o->call<std::string>("fetch", "k"), "value of k");
}

TEST(ScopedConnections, EndTheSubscriptionWithTheHandleAndMoveWithIt) {
  ka::Signal<int> signal;
  std::atomic<int> calls{0};
  {
    ka::ScopedConnection first = signal.connectScoped([&](int) { ++calls; });
    ka::ScopedConnection moved = std::move(first);
    EXPECT_FALSE(first.isConnected());
    EXPECT_TRUE(moved.isConnected());
    signal(1);
    EXPECT_EQ(calls, 1);
    // Assigning over a live handle ends its old subscription.
    moved = signal.connectScoped([&](int) { calls += 10; });
    signal(1);
    EXPECT_EQ(calls, 11);
  }
  EXPECT_FALSE(signal.hasSubscribers());

  ka::ScopedConnection kept = signal.connectScoped([&](int) { ++calls; });
  const ka::SignalLink link = kept.release();
  EXPECT_FALSE(kept.isConnected());
  signal(1);
  EXPECT_EQ(calls, 12);
  EXPECT_TRUE(signal.disconnect(link));
}

TEST(ScopedConnections, MayOutliveTheirSignal) {
  ka::ScopedConnection survivor;
  {
    ka::Signal<int> shortLived;
    survivor = shortLived.connectScoped([](int) {});
  }
  survivor.disconnect();  // nothing left to end, nothing touched (checked under ASan)
  EXPECT_FALSE(survivor.isConnected());
}

TEST(ScopedConnections, ToAnObjectEndWithTheHandleEvenWhenItsOtherHandlesAreGone) {
  auto instance = boost::make_shared<Slow>();
  ka::ObjectTypeBuilder<Slow> b;
  b.advertiseSignal("ticked", &Slow::ticked);
  b.registerType();
  std::atomic<int> calls{0};
  {
    ka::ScopedConnection c = ka::makeObject(instance)->connectScoped(
        "ticked", [&](int) { ++calls; }, ka::MetaCallType::Direct);
    instance->ticked(1);
    EXPECT_EQ(calls, 1);
  }
  instance->ticked(1);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(instance->ticked.hasSubscribers());
  ka::AnyObject o = ka::makeObject(instance);
  EXPECT_THROW((void)o->connectScoped("missing", [](int) {}), ka::FutureError);
}

}  // namespace
