// The front as the middleware publishes it: what the registered type advertises, and every
// advertised overload called by name from another session.

#include "front_fixture.hpp"

#include <ka/future.hpp>
#include <ka/objecttype.hpp>

#include <string>
#include <typeinfo>
#include <vector>

namespace front_test {
namespace {

using Strings = std::vector<std::string>;

TEST(FrontTypeTest, TheTypeAdvertisesTwentyOneMethodsThenTwoSignalsInOrder) {
  const ka::ObjectTypePtr type = ka::findType(typeid(QV::QVUserInfo));
  ASSERT_NE(type, nullptr) << "the type was not registered when the library was loaded";
  EXPECT_EQ(type->threadingModel, ka::ObjectThreadingModel::MultiThread);

  Strings methods;
  for (const ka::MetaMethod& method : type->metaObject.methods()) {
    methods.push_back(method.toString());
  }
  EXPECT_EQ(methods, (Strings{
                         "get(s) -> m",        "get(is) -> m",        "get(ss) -> m",
                         "get(sis) -> m",      "_set(sm) -> b",       "_set(ism) -> b",
                         "set(ssm) -> b",      "set(sism) -> b",      "has(s) -> b",
                         "has(is) -> b",       "has(ss) -> b",        "has(sis) -> b",
                         "_remove(s) -> b",    "_remove(is) -> b",    "remove(ss) -> b",
                         "remove(sis) -> b",   "removeUser(s) -> b",  "removeUser(si) -> b",
                         "_removeUser() -> b", "_removeUser(i) -> b", "getType(ss) -> s",
                     }));

  Strings signals;
  for (const ka::MetaSignal& signal : type->metaObject.signals()) {
    signals.push_back(signal.name + signal.signature().toString());
  }
  EXPECT_EQ(signals, (Strings{"userInfoEdited(ism)", "userInfoRemoved(is)"}));
}

class FrontPublishedTest : public FrontTest {
 protected:
  void SetUp() override {
    FrontTest::SetUp();
    publishUserSession();
    userSession->setKnownUsers({3, 5});
    userSession->setFocusedUser(5);
    startFront();
  }

  template <typename R, typename... A>
  R call(const std::string& method, const A&... args) {
    return client->call<R>(method, args...);
  }
  std::string read(const ka::AnyValue& value) { return value.toString(); }
};

TEST_F(FrontPublishedTest, EveryAdvertisedOverloadAnswersByNameFromAnotherSession) {
  const std::string d = kOtherDomain;
  const ka::AnyValue ann(std::string("Ann"));
  const ka::AnyValue bo(std::string("Bo"));

  EXPECT_TRUE(call<bool>("_set", "name", ann));
  EXPECT_TRUE(call<bool>("_set", 3, "name", bo));
  EXPECT_TRUE(call<bool>("set", d, "name", bo));
  EXPECT_TRUE(call<bool>("set", d, 3, "name", ann));
  EXPECT_EQ(read(call<ka::AnyValue>("get", "name")), "Ann");
  EXPECT_EQ(read(call<ka::AnyValue>("get", 3, "name")), "Bo");
  EXPECT_EQ(read(call<ka::AnyValue>("get", d, "name")), "Bo");
  EXPECT_EQ(read(call<ka::AnyValue>("get", d, 3, "name")), "Ann");
  EXPECT_TRUE(call<bool>("has", "name"));
  EXPECT_FALSE(call<bool>("has", 3, "gender"));
  EXPECT_TRUE(call<bool>("has", d, "name"));
  EXPECT_TRUE(call<bool>("has", d, 3, "name"));
  EXPECT_EQ(call<std::string>("getType", kOwnDomain, "birthyear"), "int");
  EXPECT_EQ(call<std::string>("getType", d, "name"), "string");

  EXPECT_TRUE(call<bool>("_remove", "name"));
  EXPECT_TRUE(call<bool>("_remove", 3, "name"));
  EXPECT_TRUE(call<bool>("remove", d, 3, "name"));
  EXPECT_FALSE(call<bool>("has", d, 3, "name"));
  EXPECT_TRUE(call<bool>("remove", d, "name"));
  EXPECT_FALSE(call<bool>("has", d, "name"));

  knowledge.clearCalls();
  EXPECT_TRUE(call<bool>("removeUser", d, 3));
  EXPECT_TRUE(call<bool>("removeUser", d));
  EXPECT_EQ(calls(), (StoreCalls{{"remove", {d, "3", "?", "?"}}, {"remove", {d, "5", "?", "?"}}}))
      << "removeUser(domain, id) reached another overload";

  knowledge.direct().update(kOwnDomain, "3", "name", "Bo");
  knowledge.direct().update(kOwnDomain, "5", "name", "Ann");
  EXPECT_TRUE(call<bool>("_removeUser", 3));
  EXPECT_TRUE(knowledge.direct().getObject(kOwnDomain, "3", "name").empty());
  EXPECT_TRUE(call<bool>("_removeUser"));
  EXPECT_TRUE(knowledge.direct().getObject(kOwnDomain, "5", "name").empty());

  EXPECT_EQ(edited(), (Emissions{{5, "name", "s", "Ann"}, {3, "name", "s", "Bo"}}));
  EXPECT_EQ(removed(), (Emissions{{5, "name", "", ""}, {3, "name", "", ""}}));
}

TEST_F(FrontPublishedTest, DateCheckingIsNotCallableByName) {
  EXPECT_THROW((void)call<bool>("checkDateValidity", "2020-01-01"), ka::FutureError);
  EXPECT_TRUE(client->metaObject().methodsNamed("checkDateValidity").empty());
}

TEST_F(FrontPublishedTest, ARefusedReadReachesTheClientAsTheVoidValue) {
  userSession->setFocusedUser(-1);
  const ka::AnyValue answer = call<ka::AnyValue>("get", "name");
  EXPECT_EQ(answer.signature(true).toString(), "v");
  EXPECT_FALSE(call<ka::AnyValue>("get", 3, "gender").isValid())
      << "nothing stored must stay distinct from a refusal";
}

}  // namespace
}  // namespace front_test
