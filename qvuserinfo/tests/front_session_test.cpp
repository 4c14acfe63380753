// The front following "QVUserSession" through the directory: present at construction or not,
// arriving later, leaving, arriving twice, vanishing before it is looked up, refusing a
// subscription, and the deleted users whose data it erases. Also what construction throws.

#include "front_fixture.hpp"

#include <qverror/qverror.hpp>

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/future.hpp>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include <algorithm>
#include <string>
#include <vector>

namespace front_test {
namespace {

using Strings = std::vector<std::string>;

std::size_t countOf(const StoreCalls& calls, const StoreCall& call) {
  return static_cast<std::size_t>(std::count(calls.begin(), calls.end(), call));
}

StoreCall userQuery(int userId) {
  return {"queryTriplet", {"*", std::to_string(userId), "*", "*"}};
}

// --- Construction ----------------------------------------------------------------------------

class FrontConstructionTest : public FrontTest {};

TEST_F(FrontConstructionTest, WithoutUserSessionTheFrontSaysSoOnceAtVerboseLevel) {
  QV::QVUserInfo info(session);
  EXPECT_EQ(logs(), (LogLines{frontLine(ka::LogLevel::Verbose, "QVUserInfo",
                                        "Service \"QVUserSession\" is not registered yet")}));
}

TEST_F(FrontConstructionTest, WithUserSessionPresentTheFrontConnectsAtOnceWithoutALogLine) {
  publishUserSession();
  userSession->setKnownUsers({3});
  QV::QVUserInfo info(session);
  EXPECT_TRUE(logs().empty());
  EXPECT_TRUE(info._set(3, "name", ka::AnyValue(std::string("Bo"))));
}

TEST_F(FrontConstructionTest, AMissingKnowledgeStoreFailsWithTheLookupErrorItself) {
  const ka::SessionPtr bare = ka::makeSession();
  try {
    QV::QVUserInfo info(bare);
    ADD_FAILURE() << "constructed without a knowledge store";
  } catch (const QV::QVError& e) {
    ADD_FAILURE() << "the lookup error became a QVError: " << e.what();
  } catch (const std::exception& e) {
    EXPECT_EQ(std::string(e.what()), "Cannot find service \"QVKnowledge\"");
  }
}

TEST_F(FrontConstructionTest, AnUnreachableDirectoryIsTheLine43Error) {
  // A knowledge store that closes the front's session while the data store declares its types,
  // so that the directory is out of reach by the time the front looks it up.
  const ka::SessionPtr owner = ka::makeSession();
  const ka::SessionPtr doomed = ka::makeSession(owner);
  ka::DynamicObjectBuilder builder;
  builder.advertiseMethod("update", [weak = boost::weak_ptr<ka::Session>(doomed)](
                                        const std::string&, const std::string&, const std::string&,
                                        const std::string&) {
    if (const auto s = weak.lock()) {
      s->close();
    }
  });
  owner->registerService("QVKnowledge", builder.object()).value(kWaitMs);
  try {
    QV::QVUserInfo info(doomed);
    ADD_FAILURE() << "constructed without a directory";
  } catch (const QV::QVError& e) {
    EXPECT_EQ(e.module(), "QVUserInfo");
    EXPECT_EQ(e.method(), "QVUserInfo()");
    EXPECT_EQ(e.description(), "Can't find service \"ServiceDirectory\"");
    EXPECT_EQ(e.file(), "src/qvuserinfo");
    EXPECT_EQ(e.line(), 43u);
  }
  owner->close();
}

// --- Following the service -------------------------------------------------------------------

class FrontTrackingTest : public FrontTest {};

TEST_F(FrontTrackingTest, AServiceArrivingLaterIsUsedAndItsLeavingIsNoticed) {
  startFront();
  userSession->setKnownUsers({3});
  userSession->setFocusedUser(3);
  publishUserSession();
  EXPECT_TRUE(front->_set("name", ka::AnyValue(std::string("Bo"))));
  EXPECT_TRUE(logs().empty());

  withdrawUserSession();
  forget();
  EXPECT_EQ(front->get("name").signature().toString(), "v");
  EXPECT_EQ(logs(), serviceAbsentLines());
  EXPECT_TRUE(userSession->calls().empty()) << "a handle was kept after the service left";
  EXPECT_TRUE(calls().empty());
}

TEST_F(FrontTrackingTest, OnlyTheExactNameIsFollowed) {
  startFront();
  userSession->setKnownUsers({3});
  for (const std::string name : {"QVUserSessionX", "QVUser", "qvusersession"}) {
    services->registerService(name, userSession->object()).value(kWaitMs);
  }
  EXPECT_FALSE(front->has(3, "name"));
  EXPECT_EQ(logs(), LogLines{serviceAbsentLines().front()});

  publishUserSession();
  const unsigned int lookalike =
      services->registerService("QVUserSession2", userSession->object()).value(kWaitMs);
  services->unregisterService(lookalike).value(kWaitMs);
  forget();
  EXPECT_FALSE(front->has(3, "name"));
  EXPECT_TRUE(logs().empty()) << "another service's leaving dropped the handle";
  EXPECT_EQ(userSession->calls(), Strings{"doesUserExist(3)"});
}

TEST_F(FrontTrackingTest, EachArrivalSubscribesAgainAndEarlierSubscriptionsStay) {
  publishUserSession();
  userSession->setKnownUsers({3});
  startFront();
  // A second announcement of the same service: the front subscribes once more.
  const ka::AnyObject directory = services->service("ServiceDirectory").value(kWaitMs);
  directory->post("serviceAdded", static_cast<int>(userSessionId), std::string("QVUserSession"));
  userSession->emitDeletedUsers({3});
  ASSERT_TRUE(knowledge.waitFor(
      [](const StoreCalls& calls) { return countOf(calls, userQuery(3)) == 2; }, kWaitMs))
      << "each subscription removes the deleted user's data";

  // A new instance replaces the handle; the first one's signals still reach the front.
  const auto first = std::move(userSession);
  withdrawUserSession();
  userSession = makeUserSession();
  userSession->setKnownUsers({4});
  publishUserSession();
  first->clearCalls();
  EXPECT_TRUE(front->_set(4, "name", ka::AnyValue(std::string("Di"))));
  EXPECT_EQ(userSession->calls(), Strings{"doesUserExist(4)"});
  EXPECT_TRUE(first->calls().empty());
  first->emitDeletedUsers({8});
  EXPECT_TRUE(knowledge.waitFor(
      [](const StoreCalls& calls) { return countOf(calls, userQuery(8)) == 2; }, kWaitMs));
}

TEST_F(FrontTrackingTest, AServiceGoneBeforeItsLookupIsReportedAndLeavesTheFrontUnconnected) {
  // Subscribed before the front, so it runs first and withdraws the service that is being
  // announced; the front then looks up a name that is gone.
  const ka::AnyObject directory = services->service("ServiceDirectory").value(kWaitMs);
  const ka::ScopedConnection early =
      directory->connectScoped("serviceAdded", [this](int id, const std::string& name) {
        if (name == "QVUserSession") {
          (void)services->unregisterService(static_cast<unsigned int>(id));
        }
      });
  startFront();
  publishUserSession();
  EXPECT_EQ(logs(), (LogLines{frontLine(ka::LogLevel::Error, "xConnectUserSessionService",
                                        "Can't find service \"QVUserSession\"")}));
  forget();
  EXPECT_FALSE(front->has("name"));
  EXPECT_EQ(logs(), serviceAbsentLines());
}

TEST_F(FrontTrackingTest, AFailedSubscriptionIsReportedAndTheServiceStillAnswers) {
  UserSessionOptions options;
  options.deletedUsersSignal = false;
  userSession = makeUserSession(options);
  userSession->setKnownUsers({3});
  startFront();
  publishUserSession();
  EXPECT_EQ(logs(), (LogLines{frontLine(ka::LogLevel::Error, "xConnectUserSessionService",
                                        "Could not connect to \"QVUserSession\" signals")}));
  forget();
  EXPECT_TRUE(front->_set(3, "name", ka::AnyValue(std::string("Bo"))));
  EXPECT_TRUE(logs().empty());
}

// --- Deleted users ---------------------------------------------------------------------------

TEST_F(FrontTrackingTest, DeletedUsersLoseTheirDataInListOrderWithoutChecksOrSignals) {
  publishUserSession();
  startFront();
  auto& store = knowledge.direct();
  store.update(kOwnDomain, "3", "name", "Three");
  store.update(kOtherDomain, "3", "nickname", "T");
  store.update(kPhotoDomain, "3", "face", "f3");
  store.update(kOwnDomain, "5", "name", "Five");
  store.update(kOwnDomain, "4", "name", "Four");

  userSession->emitDeletedUsers({});
  userSession->emitDeletedUsers({3, 5});
  ASSERT_TRUE(knowledge.waitFor(
      [](const StoreCalls& calls) {
        return countOf(calls, userQuery(5)) == 1 && calls.back().method == "remove";
      },
      kWaitMs));

  const StoreCalls made = calls();
  ASSERT_EQ(made.size(), 5u) << "an empty list or the photo storage caused calls";
  EXPECT_EQ(made[0], userQuery(3)) << "the empty list, delivered first, did nothing";
  for (const std::size_t i : {1u, 2u}) {
    EXPECT_EQ(made[i].method, "remove");
    EXPECT_EQ(made[i].args.at(1), "3");
  }
  EXPECT_EQ(made[3], userQuery(5));
  EXPECT_EQ(made[4], (StoreCall{"remove", {kOwnDomain, "5", "name", "Five"}}));
  EXPECT_EQ(store.getObject(kPhotoDomain, "3", "face"), Strings{"f3"});
  EXPECT_EQ(store.getObject(kOwnDomain, "4", "name"), Strings{"Four"});
  EXPECT_TRUE(store.getObject(kOtherDomain, "3", "nickname").empty());
  EXPECT_TRUE(userSession->calls().empty()) << "deleted users are not checked";
  EXPECT_TRUE(removed().empty());
  EXPECT_TRUE(logs().empty());
}

}  // namespace
}  // namespace front_test
