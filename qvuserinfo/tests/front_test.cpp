// The front's operations as a client calls them: who the user is, when it is refused and what is
// logged, which store call each overload makes, and what the signals carry.

#include "front_fixture.hpp"

#include <ka/future.hpp>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace front_test {
namespace {

using Strings = std::vector<std::string>;
using ka::AnyValue;

AnyValue text(const std::string& s) {
  return AnyValue(s);
}

// --- Refusals ------------------------------------------------------------------------------

class FrontRefusalTest : public FrontTest {};

TEST_F(FrontRefusalTest, WithoutUserSessionEveryUserOperationRefusesAndLogsTwiceWithoutCalls) {
  startFront();
  struct Case {
    const char* name;
    std::function<bool()> refused;
  };
  const std::vector<Case> cases = {
      {"get(name)", [&] { return front->get("name").signature().toString() == "v"; }},
      {"get(domain, name)",
       [&] { return front->get(kOtherDomain, "name").signature().toString() == "v"; }},
      {"has(name)", [&] { return !front->has("name"); }},
      {"has(domain, name)", [&] { return !front->has(kOtherDomain, "name"); }},
      {"_set(name, value)", [&] { return !front->_set("name", text("Ann")); }},
      {"set(domain, name, value)", [&] { return !front->set(kOtherDomain, "name", text("Ann")); }},
      {"_remove(name)", [&] { return !front->_remove("name"); }},
      {"remove(domain, name)", [&] { return !front->remove(kOtherDomain, "name"); }},
      {"removeUser(domain)", [&] { return !front->removeUser(kOtherDomain); }},
      {"_removeUser()", [&] { return !front->_removeUser(); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    forget();
    EXPECT_TRUE(c.refused());
    EXPECT_EQ(logs(), serviceAbsentLines());
    EXPECT_TRUE(calls().empty());
  }
  forget();
  EXPECT_EQ(front->get(3, "name").signature().toString(), "v");
  EXPECT_FALSE(front->_set(3, "name", text("Ann")));
  EXPECT_EQ(logs(), LogLines(2, serviceAbsentLines().front()));
  EXPECT_TRUE(calls().empty());
  EXPECT_TRUE(edited().empty());
  EXPECT_TRUE(removed().empty());
}

TEST_F(FrontRefusalTest, WithoutUserSessionTypesDatesAndRemovalByIdStillWork) {
  startFront();
  knowledge.direct().update(kOwnDomain, "42", "name", "Gone");
  EXPECT_EQ(front->getType(kOwnDomain, "birthyear"), "int");
  EXPECT_EQ(front->getType(kOwnDomain, "nosuchname"), "");
  EXPECT_TRUE(front->_removeUser(42));
  EXPECT_TRUE(knowledge.direct().getObject(kOwnDomain, "42", "name").empty());
  for (const std::string date : {"2020-01-01", "2020-13-45", ""}) {
    EXPECT_FALSE(front->checkDateValidity(date)) << date;
  }
  EXPECT_TRUE(logs().empty());
}

TEST_F(FrontRefusalTest, NoFocusedUserIsLoggedAndThenUserMinusOneIsAskedFor) {
  publishUserSession();
  userSession->setFocusedUser(-1);
  startFront();
  EXPECT_EQ(front->get("name").signature().toString(), "v");
  EXPECT_EQ(logs(),
            (LogLines{frontLine(ka::LogLevel::Error, "xGetFocusedUser", "There is no focused user"),
                      frontLine(ka::LogLevel::Error, "xCheckUser", "User -1 does not exists")}));
  EXPECT_EQ(userSession->calls(), (Strings{"getFocusedUser", "doesUserExist(-1)"}));
  EXPECT_TRUE(calls().empty());
}

TEST_F(FrontRefusalTest, AnotherNegativeFocusedUserIsTakenAsGivenWithoutALogLine) {
  publishUserSession();
  userSession->setFocusedUser(-2);
  userSession->setKnownUsers({-2});
  startFront();
  EXPECT_TRUE(front->_set("name", text("Ann")));
  EXPECT_EQ(knowledge.direct().getObject(kOwnDomain, "-2", "name"), Strings{"Ann"});
  EXPECT_TRUE(logs().empty());
}

TEST_F(FrontRefusalTest, UnknownUserIsRefusedWithItsIdInTheLogAndNothingStoredOrEmitted) {
  publishUserSession();
  userSession->setKnownUsers({3});
  startFront();
  EXPECT_FALSE(front->_set(7, "name", text("Ann")));
  EXPECT_FALSE(front->_remove(7, "name"));
  EXPECT_FALSE(front->removeUser(kOtherDomain, 7));
  EXPECT_EQ(logs(),
            LogLines(3, frontLine(ka::LogLevel::Error, "xCheckUser", "User 7 does not exists")));
  EXPECT_EQ(userSession->calls(), Strings(3, "doesUserExist(7)"));
  EXPECT_TRUE(calls().empty());
  EXPECT_TRUE(edited().empty());
  EXPECT_TRUE(removed().empty());
}

TEST_F(FrontRefusalTest, AFailingUserCheckReachesTheCallerAndTouchesNothing) {
  publishUserSession();
  userSession->setFocusedUser(3);
  userSession->setKnownUsers({3});
  startFront();
  userSession->failUserChecks("user sessions are down");
  try {
    (void)front->_set("name", text("Ann"));
    ADD_FAILURE() << "the failure of doesUserExist was swallowed";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find("user sessions are down"), std::string::npos) << e.what();
  }
  EXPECT_THROW((void)front->get(3, "name"), std::exception);
  EXPECT_TRUE(calls().empty());
  EXPECT_TRUE(edited().empty());
}

TEST_F(FrontRefusalTest, TheUserIsAskedAfreshOnEveryCall) {
  publishUserSession();
  userSession->setKnownUsers({3, 5});
  userSession->setFocusedUser(3);
  startFront();
  ASSERT_TRUE(front->_set("name", text("Ann")));
  userSession->setFocusedUser(5);
  ASSERT_TRUE(front->_set("name", text("Bo")));
  EXPECT_EQ(userSession->calls(),
            (Strings{"getFocusedUser", "doesUserExist(3)", "getFocusedUser", "doesUserExist(5)"}));
  EXPECT_EQ(knowledge.direct().getObject(kOwnDomain, "3", "name"), Strings{"Ann"});
  EXPECT_EQ(knowledge.direct().getObject(kOwnDomain, "5", "name"), Strings{"Bo"});
}

// --- Delegation and argument orders --------------------------------------------------------

class FrontDelegationTest : public FrontTest {
 protected:
  void SetUp() override {
    FrontTest::SetUp();
    publishUserSession();
    userSession->setKnownUsers({3, 5});
    userSession->setFocusedUser(5);
    startFront();
  }
};

// The overloads of get, by name: front_published_test.
TEST_F(FrontDelegationTest, PresenceTakesTheDomainFirstAndTheOwnDomainWhenNoneIsGiven) {
  auto& store = knowledge.direct();
  store.update(kOwnDomain, "5", "name", "Own5");
  store.update(kOtherDomain, "3", "name", "Other3");
  EXPECT_TRUE(front->has("name"));
  EXPECT_FALSE(front->has(3, "name"));
  EXPECT_FALSE(front->has(kOtherDomain, "name"));
  EXPECT_TRUE(front->has(kOtherDomain, 3, "name"));
}

TEST_F(FrontDelegationTest, TheOwnDomainIsEditedOnlyThroughTheUnderscoreOperations) {
  EXPECT_FALSE(front->set(kOwnDomain, "name", text("Ann")));
  EXPECT_FALSE(front->remove(kOwnDomain, 3, "name"));
  EXPECT_FALSE(front->removeUser(kOwnDomain, 3));
  EXPECT_TRUE(knowledge.direct().getObject(kOwnDomain, "5", "name").empty());
  EXPECT_TRUE(front->set(kOtherDomain, 3, "nickname", text("Bo")));
  EXPECT_EQ(knowledge.direct().getObject(kOtherDomain, "3", "nickname"), Strings{"Bo"});
  EXPECT_TRUE(edited().empty()) << "writes into a caller's domain are not announced";
}

TEST_F(FrontDelegationTest, RemovingAWholeUserByIdAsksNobodyAndSparesPhotoStorage) {
  userSession->setKnownUsers({});
  auto& store = knowledge.direct();
  store.update(kOwnDomain, "42", "name", "Gone");
  store.update(kOtherDomain, "42", "nickname", "G");
  store.update(kPhotoDomain, "42", "face", "f1");
  EXPECT_TRUE(front->_removeUser(42));
  EXPECT_TRUE(store.getObject(kOwnDomain, "42", "name").empty());
  EXPECT_TRUE(store.getObject(kOtherDomain, "42", "nickname").empty());
  EXPECT_EQ(store.getObject(kPhotoDomain, "42", "face"), Strings{"f1"});
  EXPECT_TRUE(userSession->calls().empty());

  store.update(kOwnDomain, "5", "name", "Kept");
  EXPECT_FALSE(front->_removeUser()) << "the focused user is unknown now";
  EXPECT_EQ(store.getObject(kOwnDomain, "5", "name"), Strings{"Kept"});
}

// --- Signals -------------------------------------------------------------------------------

class FrontSignalTest : public FrontDelegationTest {};

TEST_F(FrontSignalTest, UnderscoreSetAnnouncesTheCallersValueOnceAfterWriting) {
  ASSERT_TRUE(front->_set("birthyear", AnyValue(1990)));
  ASSERT_TRUE(front->_set(3, "name", text("Bo")));
  // Announced as the caller gave them, not as the text stored nor as a read would answer.
  ASSERT_TRUE(front->_set(3, "birthyear", AnyValue(std::int64_t{1985})));
  ASSERT_TRUE(front->_set(3, "subscribed", AnyValue(true)));
  EXPECT_EQ(edited(), (Emissions{{5, "birthyear", "i", "1990"},
                                 {3, "name", "s", "Bo"},
                                 {3, "birthyear", "l", "1985"},
                                 {3, "subscribed", "b", "true"}}));
  EXPECT_EQ(knowledge.direct().getObject(kOwnDomain, "5", "birthyear"), Strings{"1990"});
  EXPECT_EQ(knowledge.direct().getObject(kOwnDomain, "3", "subscribed"), Strings{"1"});
  EXPECT_TRUE(removed().empty());
}

TEST_F(FrontSignalTest, RejectedWritesAnnounceNothing) {
  EXPECT_FALSE(front->_set(3, "birthmonth", AnyValue(13)));
  EXPECT_FALSE(front->_set(3, "birthyear", text("nineteen")));
  EXPECT_FALSE(front->_set(7, "name", text("Unknown")));
  EXPECT_TRUE(edited().empty());
}

TEST_F(FrontSignalTest, UnderscoreRemoveAnnouncesOnlyADatumThatExisted) {
  EXPECT_FALSE(front->_remove(3, "name"));
  EXPECT_TRUE(removed().empty());
  knowledge.direct().update(kOwnDomain, "3", "name", "Bo");
  knowledge.direct().update(kOwnDomain, "5", "name", "Ann");
  EXPECT_TRUE(front->_remove(3, "name"));
  EXPECT_TRUE(front->_remove("name"));
  EXPECT_EQ(removed(), (Emissions{{3, "name", "", ""}, {5, "name", "", ""}}));
  EXPECT_TRUE(knowledge.direct().getObject(kOwnDomain, "3", "name").empty());
  EXPECT_TRUE(edited().empty());
}

}  // namespace
}  // namespace front_test
