#include <ka/dynamicobjectbuilder.hpp>
#include <ka/object.hpp>
#include <ka/objecttypebuilder.hpp>
#include <ka/session.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StrEq;
using testing::ThrowsMessage;

constexpr int kWaitMs = 10000;

// A class published through the type builder, with overloads that differ only in
// parameter order.
class Calculator {
 public:
  std::string describe(const std::string& s, int i) const { return "si:" + s + std::to_string(i); }
  std::string describe(int i, const std::string& s) const { return "is:" + std::to_string(i) + s; }
  int twice(int v) const { return 2 * v; }
  std::string twice(const std::string& s) const { return s + s; }
  void fail() { throw std::runtime_error("calculator broke"); }
  ka::AnyValue nothing() const { return ka::AnyValue(); }

  ka::Signal<int, std::string> changed;
};

void registerCalculator() {
  static std::once_flag once;
  std::call_once(once, [] {
    ka::ObjectTypeBuilder<Calculator> b;
    b.buildFor(true);
    b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
    b.advertiseMethod("describe",
                      static_cast<std::string (Calculator::*)(const std::string&, int) const>(
                          &Calculator::describe));
    b.advertiseMethod("describe",
                      static_cast<std::string (Calculator::*)(int, const std::string&) const>(
                          &Calculator::describe));
    b.advertiseMethod("twice", static_cast<int (Calculator::*)(int) const>(&Calculator::twice));
    b.advertiseMethod("twice", static_cast<std::string (Calculator::*)(const std::string&) const>(
                                   &Calculator::twice));
    b.advertiseMethod("fail", &Calculator::fail);
    b.advertiseMethod("nothing", &Calculator::nothing);
    b.advertiseSignal("changed", &Calculator::changed);
    b.registerType();
  });
}

class PublishedObject : public ::testing::Test {
 protected:
  void SetUp() override {
    registerCalculator();
    instance = boost::make_shared<Calculator>();
    session = ka::makeSession();
    session->registerService("Calculator", ka::makeObject(instance)).value(kWaitMs);
    calc = session->service("Calculator").value(kWaitMs);
  }
  boost::shared_ptr<Calculator> instance;
  ka::SessionPtr session;
  ka::AnyObject calc;
};

TEST_F(PublishedObject, ChoosesTheOverloadWhoseParameterOrderMatches) {
  EXPECT_EQ(calc->call<std::string>("describe", std::string("a"), 1), "si:a1");
  EXPECT_EQ(calc->call<std::string>("describe", 2, std::string("b")), "is:2b");
  EXPECT_EQ(calc->call<int>("twice", 21), 42);
  EXPECT_EQ(calc->call<std::string>("twice", std::string("ab")), "abab");
  // A 64-bit argument that fits goes to the one overload it converts to.
  EXPECT_EQ(calc->call<int>("twice", std::int64_t{5}), 10);
  EXPECT_EQ(calc->call<std::string>("describe", std::int64_t{3}, std::string("x")), "is:3x");
}

TEST_F(PublishedObject, RefusesUnknownMethodsAndArgumentsThatFitNoOverload) {
  // 1.5 fits neither twice(int) nor twice(string).
  EXPECT_THAT(
      [&] { calc->call<int>("twice", 1.5); },
      ThrowsMessage<std::exception>(AllOf(HasSubstr("twice"), HasSubstr("(i)"), HasSubstr("(s)"))));
  EXPECT_THROW(calc->call<int>("missing"), std::runtime_error);
  EXPECT_THROW(calc->call<int>("twice", 1, 2), std::runtime_error);
}

TEST_F(PublishedObject, PassesTheMethodsExceptionTextToTheCaller) {
  EXPECT_THAT([&] { calc->call<void>("fail"); },
              ThrowsMessage<std::runtime_error>(StrEq("calculator broke")));
  EXPECT_EQ(calc->call<int>("twice", 1), 2) << "the object stays usable";
  EXPECT_FALSE(calc->call<ka::AnyValue>("nothing").isValid()) << "an empty result stays empty";
}

TEST_F(PublishedObject, DeliversItsSignalToSubscribersConnectedByNameWithTheRightParameters) {
  std::vector<std::string> got;
  const ka::SignalLink link =
      calc->connect("changed",
                    [&](int i, const std::string& s) { got.push_back(std::to_string(i) + s); })
          .value(kWaitMs);
  instance->changed(1, "a");
  calc->post("changed", 2, std::string("b"));
  EXPECT_EQ(got, (std::vector<std::string>{"1a", "2b"}));
  calc->disconnect(link).value(kWaitMs);
  instance->changed(3, "c");
  EXPECT_EQ(got.size(), 2u);
  EXPECT_TRUE(calc->disconnect(link).hasError(kWaitMs)) << "a link goes only once";
  EXPECT_TRUE(calc->connect("nope", [](int) {}).hasError(kWaitMs));
  EXPECT_TRUE(calc->connect("changed", [](int) {}).hasError(kWaitMs)) << "one parameter short";
  EXPECT_EQ(ka::makeObject(instance), calc) << "one object per instance";
}

struct NeverRegistered {};

TEST(ObjectHandle, MadeFromAnUnregisteredTypeFailsClearly) {
  EXPECT_THAT([] { ka::makeObject(boost::make_shared<NeverRegistered>()); },
              ThrowsMessage<std::runtime_error>(
                  AllOf(HasSubstr("NeverRegistered"), HasSubstr("not registered"))));
}

TEST(ObjectHandle, ThatHoldsNothingThrowsOnEveryUse) {
  ka::AnyObject null;
  for (auto use : std::vector<std::function<void()>>{
           [&] { null->call<int>("x"); },
           [&] { (void)null->connect("s", ka::SignalSubscriber(ka::AnyFunction::from([] {}))); },
           [&] { null->metaObject(); }}) {
    EXPECT_THAT(use, ThrowsMessage<std::runtime_error>(StrEq("This object is null")));
  }
}

TEST(ThreadingModel, MultiThreadedObjectRunsCallsAtOnce) {
  // Each call waits inside until all three are in: only calls that run at once can meet.
  std::mutex m;
  std::condition_variable cv;
  int inside = 0;  // guarded by m
  ka::DynamicObjectBuilder b;
  b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  b.advertiseMethod("enter", [&] {
    std::unique_lock<std::mutex> lock(m);
    ++inside;
    cv.notify_all();
    return cv.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return inside >= 3; });
  });
  const ka::AnyObject o = b.object();
  std::vector<std::future<bool>> calls;
  for (int i = 0; i < 3; ++i) {
    calls.push_back(std::async(std::launch::async, [o] { return o->call<bool>("enter"); }));
  }
  for (auto& call : calls) {
    EXPECT_TRUE(call.get());
  }
}

struct OpaqueA {};
struct OpaqueB {};

TEST(OverloadResolution, TellsTypesWithoutMiddlewareMeaningApartByIdentity) {
  ka::DynamicObjectBuilder b;
  b.advertiseMethod("f", [](const OpaqueA&) { return std::string("A"); });
  b.advertiseMethod("f", [](const OpaqueB&) { return std::string("B"); });
  ka::AnyObject o = b.object();
  EXPECT_EQ(o->call<std::string>("f", OpaqueB{}), "B");
  EXPECT_EQ(o->call<std::string>("f", OpaqueA{}), "A");
}

// Resolutions are remembered by argument types; these outcomes must not be.
TEST(OverloadResolution, ValueDependentChoicesAreMadeAgainForEveryCall) {
  ka::DynamicObjectBuilder b;
  b.advertiseMethod("g", [](std::int8_t) { return std::string("int8"); });
  b.advertiseMethod("g", [](std::uint32_t) { return std::string("uint32"); });
  b.advertiseMethod("g", [](const std::string&) { return std::string("string"); });
  ka::AnyObject o = b.object();
  for (int round = 0; round < 2; ++round) {
    // Only the value tells which overload an int converts to.
    EXPECT_EQ(o->call<std::string>("g", -5), "int8");
    EXPECT_EQ(o->call<std::string>("g", 300), "uint32");
    EXPECT_THROW(o->call<std::string>("g", -300), ka::FutureError);
    // A dynamic value resolves by what it holds, which changes from call to call.
    const ka::AnyValue number(std::int8_t{4});
    const ka::AnyValue text(std::string("t"));
    EXPECT_EQ(o->call<std::string>("g", ka::AnyReference::from(number)), "int8");
    EXPECT_EQ(o->call<std::string>("g", ka::AnyReference::from(text)), "string");
  }
}

TEST(OverloadResolution, HoldsUnderConcurrentCallsAndLongArgumentLists) {
  ka::DynamicObjectBuilder b;
  b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  b.advertiseMethod("f", [](int v) { return v; });
  b.advertiseMethod("f", [](const std::string& s) { return static_cast<int>(s.size()); });
  b.advertiseMethod("f", [](int a, int c, int d, int e, int g, int h, int i, int j) {
    return a + c + d + e + g + h + i + j;
  });
  ka::AnyObject o = b.object();
  EXPECT_EQ(o->call<int>("f", 1, 2, 3, 4, 5, 6, 7, 8), 36);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        const bool ok = (i + t) % 2 == 0 ? o->call<int>("f", i) == i
                                         : o->call<int>("f", std::string(i % 7, 'x')) == i % 7;
        wrong += ok ? 0 : 1;
      }
    });
  }
  for (auto& t : threads) {
    t.join();
  }
  EXPECT_EQ(wrong, 0);
}

TEST(DynamicObject, KeepsAnExplicitMethodIdAndRefusesItTwice) {
  ka::DynamicObjectBuilder b;
  b.advertiseMethod(
      "g", [](const ka::AnyValue& v) { return v.signature(true).toString(); },
      ka::MetaCallType::Auto, 10);
  EXPECT_THROW(b.advertiseMethod(
                   "h", []() {}, ka::MetaCallType::Auto, 10),
               std::logic_error);
  ka::AnyObject o = b.object();
  EXPECT_EQ(o->call<std::string>("g", std::vector<int>{1}), "[i]");
  EXPECT_EQ(o->metaObject().methodsNamed("g").front()->uid, 10u);
}

}  // namespace
