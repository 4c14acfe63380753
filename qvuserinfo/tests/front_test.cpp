// The front as clients use it: who the user is and when it is refused, every advertised overload
// called by name from another session, the signals it emits, and how it follows "QVUserSession"
// coming, going and deleting users.

#include "fixture.hpp"

#include <qverror/qverror.hpp>

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/objecttype.hpp>

#include <boost/weak_ptr.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <thread>

namespace userinfo_test {
namespace {

using ka::AnyValue;
using ka::LogLevel;

TEST(FrontTypeTest, TheTypeAdvertisesItsMethodsThenItsSignalsInOrder) {
  const ka::ObjectTypePtr type = ka::findType(typeid(QV::QVUserInfo));
  ASSERT_NE(type, nullptr) << "the type was not registered when the library was loaded";
  EXPECT_EQ(type->threadingModel, ka::ObjectThreadingModel::MultiThread);
  Strings members;
  for (const ka::MetaMethod& method : type->metaObject.methods()) {
    members.push_back(method.toString());
  }
  for (const ka::MetaSignal& signal : type->metaObject.signals()) {
    members.push_back(signal.name + signal.signature().toString());
  }
  EXPECT_EQ(members, (Strings{"get(s) -> m",         "get(is) -> m",        "get(ss) -> m",
                              "get(sis) -> m",       "_set(sm) -> b",       "_set(ism) -> b",
                              "set(ssm) -> b",       "set(sism) -> b",      "has(s) -> b",
                              "has(is) -> b",        "has(ss) -> b",        "has(sis) -> b",
                              "_remove(s) -> b",     "_remove(is) -> b",    "remove(ss) -> b",
                              "remove(sis) -> b",    "removeUser(s) -> b",  "removeUser(si) -> b",
                              "_removeUser() -> b",  "_removeUser(i) -> b", "getType(ss) -> s",
                              "userInfoEdited(ism)", "userInfoRemoved(is)"}));
}

// --- Refusals ---------------------------------------------------------------------------------

// Every operation on a user, with the focused user or the given one, as a refusal reads.
const struct UserOperation {
  const char* name;
  bool focused;
  std::function<bool(QV::QVUserInfo&)> refused;
} kUserOperations[] = {
    {"get(name)", true, [](auto& f) { return describe(f.get("name")) == "v:"; }},
    {"get(domain, name)", true, [](auto& f) { return describe(f.get(kOther, "name")) == "v:"; }},
    {"get(id, name)", false, [](auto& f) { return describe(f.get(3, "name")) == "v:"; }},
    {"has(name)", true, [](auto& f) { return !f.has("name"); }},
    {"has(domain, id, name)", false, [](auto& f) { return !f.has(kOther, 3, "name"); }},
    {"_set(name, value)", true, [](auto& f) { return !f._set("name", text("Ann")); }},
    {"_set(id, name, value)", false, [](auto& f) { return !f._set(3, "name", text("Ann")); }},
    {"set(domain, name, value)", true, [](auto& f) { return !f.set(kOther, "name", text("Ann")); }},
    {"_remove(name)", true, [](auto& f) { return !f._remove("name"); }},
    {"_remove(id, name)", false, [](auto& f) { return !f._remove(3, "name"); }},
    {"remove(domain, name)", true, [](auto& f) { return !f.remove(kOther, "name"); }},
    {"removeUser(domain, id)", false, [](auto& f) { return !f.removeUser(kOther, 3); }},
    {"_removeUser()", true, [](auto& f) { return !f._removeUser(); }}};

const Rows kUserData = {{kOwn, "3", "name", "Three"},   {kOther, "3", "name", "Three"},
                        {kOwn, "-1", "name", "Nobody"}, {kOther, "-1", "name", "Nobody"},
                        {kOwn, "2", "name", "Two"},     {kOther, "2", "name", "Two"}};

TEST_F(FrontTest, WithoutTheUserSessionServiceEveryUserOperationIsRefusedAndLogged) {
  startFront();
  seed(kUserData);
  for (const auto& op : kUserOperations) {
    capture.clear();
    EXPECT_TRUE(op.refused(*front)) << op.name;
    // Asking for the focused user is refused first, then the user -1 it answers.
    EXPECT_EQ(logs(), LogLines(op.focused ? 2 : 1, serviceAbsent())) << op.name;
  }
  EXPECT_EQ(rowsOf(3).size() + rowsOf(-1).size(), 4u);
  EXPECT_TRUE(edited().empty());
  EXPECT_TRUE(removed().empty());

  // What needs no user still works, silently.
  capture.clear();
  EXPECT_EQ(front->getType(kOwn, "birthyear"), "int");
  EXPECT_TRUE(front->_removeUser(3));
  EXPECT_EQ(rowsOf(3), Rows{});
  EXPECT_FALSE(front->checkDateValidity("2020-01-01"));
  EXPECT_TRUE(logs().empty());
}

TEST_F(FrontTest, UsersTheServiceDoesNotKnowAreRefusedWithTheirIdInTheLog) {
  const struct {
    const char* what;
    int focused;
    Ids known;
    LogLines logged;  // by an operation on the focused user
  } cases[] = {{"no focused user",
                -1,
                {2},
                {frontLine(LogLevel::Error, "xGetFocusedUser", "There is no focused user"),
                 frontLine(LogLevel::Error, "xCheckUser", "User -1 does not exists")}},
               {"a focused user it does not know",
                2,
                {},
                {frontLine(LogLevel::Error, "xCheckUser", "User 2 does not exists")}}};
  seed(kUserData);
  for (const auto& c : cases) {
    publishUsers(scriptedUsers(c.focused, c.known));
    QV::QVUserInfo front(session);
    for (const auto& op : kUserOperations) {
      capture.clear();
      EXPECT_TRUE(op.refused(front)) << c.what << ": " << op.name;
      EXPECT_EQ(logs(), op.focused ? c.logged
                                   : LogLines{frontLine(LogLevel::Error, "xCheckUser",
                                                        "User 3 does not exists")})
          << c.what << ": " << op.name;
    }
    EXPECT_EQ(rowsOf(3).size() + rowsOf(-1).size() + rowsOf(2).size(), 6u) << c.what;
    withdrawUsers();
  }
}

TEST_F(FrontTest, TheFocusedUserIsTakenAsTheServiceGivesItAndItsFailuresReachTheCaller) {
  publishUsers(scriptedUsers(-2, {-2}));
  {
    QV::QVUserInfo front(session);
    EXPECT_TRUE(front._set("name", text("Ann"))) << "only -1 means nobody";
  }
  EXPECT_EQ(stored(kOwn, -2, "name"), Strings{"Ann"});
  EXPECT_TRUE(logs().empty());
  withdrawUsers();

  publishUsers(scriptedUsers(3, {3}, "user sessions are down"));
  QV::QVUserInfo front(session);
  for (const auto& op : kUserOperations) {
    EXPECT_NE(errorOf([&] { op.refused(front); }).find("user sessions are down"), std::string::npos)
        << op.name << ": the failure of doesUserExist was swallowed";
  }
  EXPECT_EQ(rowsOf(3), Rows{});
}

// --- Operations by name -----------------------------------------------------------------------

class FrontUsersTest : public FrontTest {
 protected:
  void SetUp() override {
    FrontTest::SetUp();
    publishUsers();
    startFront();
    a = users->createUser();
    b = users->createUser();
    users->setFocusedUser(b);
  }
  template <typename R, typename... A>
  R call(const std::string& method, const A&... args) {
    return client->call<R>(method, args...);
  }
  int a = 0;
  int b = 0;
};

TEST_F(FrontUsersTest, EveryAdvertisedOverloadAnswersByNameForTheRightUserAndDomain) {
  const std::string d = kOther;
  EXPECT_TRUE(call<bool>("_set", "name", text("Bee")));
  EXPECT_TRUE(call<bool>("_set", a, "name", text("Ay")));
  EXPECT_TRUE(call<bool>("set", d, "name", text("dBee")));
  EXPECT_TRUE(call<bool>("set", d, a, "name", text("dAy")));
  EXPECT_EQ(describe(call<AnyValue>("get", "name")), "s:Bee");
  EXPECT_EQ(describe(call<AnyValue>("get", a, "name")), "s:Ay");
  EXPECT_EQ(describe(call<AnyValue>("get", d, "name")), "s:dBee");
  EXPECT_EQ(describe(call<AnyValue>("get", d, a, "name")), "s:dAy");
  EXPECT_EQ(describe(call<AnyValue>("get", a, "gender")), ":") << "nothing stored is no refusal";
  EXPECT_TRUE(call<bool>("has", "name"));
  EXPECT_FALSE(call<bool>("has", a, "gender"));
  EXPECT_TRUE(call<bool>("has", d, "name"));
  EXPECT_FALSE(call<bool>("has", d, a, "gender"));
  EXPECT_EQ(call<std::string>("getType", kOwn, "birthyear"), "int");
  EXPECT_EQ(call<std::string>("getType", d, "name"), "string");
  EXPECT_THROW((void)call<bool>("checkDateValidity", "2020-01-01"), ka::FutureError);

  // Edits of the service's own domain go through the underscore operations only.
  EXPECT_FALSE(call<bool>("set", kOwn, "name", text("X")));
  EXPECT_FALSE(call<bool>("remove", kOwn, a, "name"));
  EXPECT_FALSE(call<bool>("removeUser", kOwn, a));
  EXPECT_EQ(stored(kOwn, a, "name"), Strings{"Ay"});

  EXPECT_TRUE(call<bool>("remove", d, a, "name"));
  EXPECT_EQ(stored(d, a, "name"), Strings{});
  EXPECT_TRUE(call<bool>("remove", d, "name"));
  EXPECT_EQ(stored(d, b, "name"), Strings{});
  seed({{d, std::to_string(a), "x", "1"}, {d, std::to_string(b), "x", "1"}});
  EXPECT_TRUE(call<bool>("removeUser", d, a));
  EXPECT_EQ(stored(d, a, "x"), Strings{});
  EXPECT_EQ(stored(d, b, "x"), Strings{"1"}) << "removeUser(domain, id) reached another overload";
  EXPECT_TRUE(call<bool>("removeUser", d));
  EXPECT_EQ(stored(d, b, "x"), Strings{});

  EXPECT_TRUE(call<bool>("_remove", "name"));
  EXPECT_TRUE(call<bool>("_remove", a, "name"));
  EXPECT_FALSE(call<bool>("_remove", a, "name")) << "only a datum that exists is removed";
  seed({{kOwn, std::to_string(a), "x", "1"},
        {kOwn, std::to_string(b), "x", "1"},
        {kPhotos, std::to_string(b), "face", "f"}});
  EXPECT_TRUE(call<bool>("_removeUser", a));
  EXPECT_EQ(rowsOf(a), Rows{});
  EXPECT_TRUE(call<bool>("_removeUser"));
  EXPECT_EQ(rowsOf(b), (Rows{{kPhotos, std::to_string(b), "face", "f"}}));

  // Writes and removals in the service's domain are announced, with the caller's value.
  EXPECT_EQ(edited(), (Emissions{emission(b, "name", "s:Bee"), emission(a, "name", "s:Ay")}));
  EXPECT_EQ(removed(), (Emissions{emission(b, "name"), emission(a, "name")}));
}

TEST_F(FrontUsersTest, UnderscoreSetAnnouncesTheCallersValueAndRefusalsAnnounceNothing) {
  EXPECT_FALSE(front->_set(a, "birthmonth", AnyValue(13)));
  EXPECT_FALSE(front->_set(a, "birthyear", text("nineteen")));
  EXPECT_FALSE(front->_set(99, "name", text("Unknown")));
  EXPECT_TRUE(front->_set("birthyear", AnyValue(1990)));
  EXPECT_TRUE(front->_set(a, "birthyear", AnyValue(std::int64_t{1985})));
  EXPECT_TRUE(front->_set(a, "subscribed", AnyValue(true)));
  EXPECT_EQ(edited(),
            (Emissions{emission(b, "birthyear", "i:1990"), emission(a, "birthyear", "l:1985"),
                       emission(a, "subscribed", "b:true")}));
  EXPECT_EQ(stored(kOwn, a, "subscribed"), Strings{"1"});
  EXPECT_TRUE(removed().empty());
}

TEST_F(FrontUsersTest, TheUserIsAskedAfreshOnEveryCallAndARemovalByIdAsksNobody) {
  ASSERT_TRUE(front->_set("name", text("Bee")));
  users->setFocusedUser(a);
  ASSERT_TRUE(front->_set("name", text("Ay")));
  EXPECT_EQ(stored(kOwn, a, "name"), Strings{"Ay"});
  EXPECT_EQ(stored(kOwn, b, "name"), Strings{"Bee"});

  seed({{kOwn, "42", "name", "Gone"}, {kPhotos, "42", "face", "f"}});
  EXPECT_TRUE(front->_removeUser(42)) << "a user the service does not know";
  EXPECT_EQ(rowsOf(42), (Rows{{kPhotos, "42", "face", "f"}}));
  EXPECT_TRUE(logs().empty());
}

// --- Construction and following "QVUserSession" -----------------------------------------------

TEST_F(FrontTest, ConstructionSaysOnceThatTheUserSessionServiceIsNotThereYet) {
  { QV::QVUserInfo absent(session); }
  EXPECT_EQ(logs(), LogLines{frontLine(LogLevel::Verbose, "QVUserInfo",
                                       "Service \"QVUserSession\" is not registered yet")});
  publishUsers();
  capture.clear();
  QV::QVUserInfo present(session);
  EXPECT_TRUE(present._set(users->createUser(), "name", text("Bo")));
  EXPECT_TRUE(logs().empty());
}

TEST_F(FrontTest, ConstructionFailsWithTheKnowledgeLookupErrorOrTheDirectoryError) {
  EXPECT_EQ(errorOf([] { QV::QVUserInfo info(ka::makeSession()); }),
            "Cannot find service \"QVKnowledge\"")
      << "the lookup error must pass through as it is";
  // A knowledge store that closes the front's session while the types are declared, so that the
  // directory is out of reach by the time the front follows it.
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

TEST_F(FrontTest, AServiceArrivingLaterIsUsedItsLeavingNoticedAndOnlyItsExactNameFollowed) {
  startFront();
  const int user = users->createUser();
  users->setFocusedUser(user);
  for (const std::string name : {"QVUserSessionX", "QVUser", "qvusersession"}) {
    publishUsers({}, name);
  }
  EXPECT_FALSE(front->has(user, "name"));
  EXPECT_EQ(logs(), LogLines{serviceAbsent()});

  publishUsers();
  const unsigned int real = usersId;
  publishUsers({}, "QVUserSession2");
  withdrawUsers();
  usersId = real;
  capture.clear();
  EXPECT_TRUE(front->_set("name", text("Bo")));
  EXPECT_TRUE(logs().empty()) << "another service's leaving dropped the handle";

  withdrawUsers();
  EXPECT_EQ(describe(front->get("name")), "v:");
  EXPECT_EQ(logs(), LogLines(2, serviceAbsent()));
}

TEST_F(FrontTest, DeletedUsersLoseTheirDataEvenFromAnInstanceThatWasReplaced) {
  publishUsers();
  startFront();
  const int three = users->createUser();
  const int four = users->createUser();
  const int five = users->createUser();
  const std::string t = std::to_string(three);
  seed({{kOwn, t, "name", "Three"},
        {kOther, t, "nickname", "T"},
        {kPhotos, t, "face", "f3"},
        {kOwn, std::to_string(four), "name", "Four"},
        {kOwn, std::to_string(five), "name", "Five"}});
  ASSERT_TRUE(users->deleteUsers({}));
  ASSERT_TRUE(users->deleteUsers({three, five}));
  EXPECT_TRUE(
      triplets->waitUntil([&] { return rowsOf(three).size() == 1 && rowsOf(five).empty(); }));
  EXPECT_EQ(rowsOf(three), (Rows{{kPhotos, t, "face", "f3"}}));
  EXPECT_EQ(rowsOf(four).size(), 1u);
  EXPECT_TRUE(removed().empty());
  EXPECT_TRUE(logs().empty());

  // Another instance takes over; the first one, still alive, goes on announcing its deletions.
  const auto first = std::exchange(
      users, boost::make_shared<QV::UserSessionService>(QV::openSqliteUserStore(":memory:")));
  withdrawUsers();
  publishUsers();
  EXPECT_TRUE(front->_set(users->createUser(), "name", text("Di")));
  ASSERT_TRUE(first->deleteUsers({four}));
  EXPECT_TRUE(triplets->waitUntil([&] { return rowsOf(four).empty(); }));
}

TEST_F(FrontTest, AServiceGoneBeforeItsLookupOrRefusingASubscriptionIsReported) {
  // Subscribed before the front, so it runs first and withdraws the service being announced.
  const ka::AnyObject directory = services->service("ServiceDirectory").value(kWaitMs);
  auto early = directory->connectScoped("serviceAdded", [this](int id, const std::string& name) {
    if (name == "QVUserSession") {
      (void)services->unregisterService(static_cast<unsigned int>(id));
    }
  });
  startFront();
  publishUsers();
  EXPECT_EQ(logs(), LogLines{frontLine(LogLevel::Error, "xConnectUserSessionService",
                                       "Can't find service \"QVUserSession\"")});
  capture.clear();
  EXPECT_FALSE(front->has("name"));
  EXPECT_EQ(logs(), LogLines(2, serviceAbsent()));

  early.disconnect();
  capture.clear();
  publishUsers(scriptedUsers(3, {3}, "", false));
  EXPECT_EQ(logs(), LogLines{frontLine(LogLevel::Error, "xConnectUserSessionService",
                                       "Could not connect to \"QVUserSession\" signals")});
  capture.clear();
  EXPECT_TRUE(front->_set("name", text("Bo")));
  EXPECT_TRUE(logs().empty());
}

// --- Under load -------------------------------------------------------------------------------

TEST_F(FrontTest, CallsStayWellFormedWhileTheUserSessionComesAndGoes) {
  publishUsers();
  startFront();
  const int user = users->createUser();
  users->setFocusedUser(user);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1000);
  std::atomic<int> malformed{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < 3; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; std::chrono::steady_clock::now() < deadline; ++i) {
        try {
          const int year = 1900 + (i + t) % 100;
          const bool written = t % 2 == 0 ? front->_set(user, "birthyear", AnyValue(year))
                                          : front->_set("birthyear", AnyValue(year));
          const std::string read = describe(front->get("birthyear"));
          malformed += !(read.rfind("i:19", 0) == 0 || read == "v:" || (read == ":" && !written));
        } catch (const std::exception&) {
          ++malformed;
        }
      }
    });
  }
  while (std::chrono::steady_clock::now() < deadline) {
    withdrawUsers();
    publishUsers();
  }
  for (auto& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(malformed.load(), 0);
  capture.clear();
  EXPECT_TRUE(front->_set(user, "birthyear", AnyValue(1999)));
  EXPECT_EQ(describe(front->get("birthyear")), "i:1999");
  EXPECT_TRUE(logs().empty());
}

TEST_F(FrontTest, WritesRacingTheDeletionOfTheirUserLeaveNoDataBehind) {
  publishUsers();
  startFront();
  const int steady = users->createUser();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1000);
  std::mutex mutex;
  Ids live;     // guarded by mutex
  Ids deleted;  // guarded by mutex
  std::atomic<int> malformed{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < 2; ++t) {
    callers.emplace_back([&, t] {
      for (int i = t; std::chrono::steady_clock::now() < deadline; ++i) {
        int user = steady;
        {
          std::lock_guard lock(mutex);
          if (!live.empty() && i % 4 != 0) {
            user = live[static_cast<std::size_t>(i) % live.size()];
          }
        }
        const std::string name = "n" + std::to_string(user);
        const bool written = client->call<bool>("_set", user, "name", text(name));
        const std::string read = describe(client->call<AnyValue>("get", user, "name"));
        const bool refused = read == "v:" || (read == ":" && user != steady);
        malformed += !(read == "s:" + name || refused) || (user == steady && !written);
      }
    });
  }
  while (std::chrono::steady_clock::now() < deadline) {
    const int user = users->createUser();
    std::lock_guard lock(mutex);
    live.push_back(user);
    if (live.size() > 3) {
      deleted.push_back(live.front());
      live.erase(live.begin());
      EXPECT_TRUE(users->deleteUsers({deleted.back()}));
    }
  }
  for (auto& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(malformed.load(), 0);
  ASSERT_FALSE(deleted.empty());
  EXPECT_TRUE(triplets->waitUntil([&] {
    return std::all_of(deleted.begin(), deleted.end(), [&](int id) { return rowsOf(id).empty(); });
  })) << "data of a deleted user remains";
  EXPECT_EQ(describe(front->get(steady, "name")), "s:n" + std::to_string(steady));
  EXPECT_TRUE(removed().empty());
}

TEST_F(FrontTest, AFrontGoneAfterItsUserSessionLeftIsNotCalledByThatInstanceAgain) {
  publishUsers();
  startFront();
  const int user = users->createUser();
  ASSERT_TRUE(front->_set(user, "name", text("Ada")));
  // The service leaves but its instance lives on: the front cannot end that subscription.
  withdrawUsers();
  clientSession->close();
  session->close();
  client.reset();
  front.reset();
  forget();
  // A queued probe on the same signal shows that the deliveries of the emission were dispatched;
  // one to the front that is gone must not run (ASan reports the use after free otherwise).
  std::promise<void> probed;
  auto probe = users->deletedUsers.connectScoped([&](const Ids&) { probed.set_value(); },
                                                 ka::MetaCallType::Queued);
  ASSERT_TRUE(users->deleteUsers({user}));
  EXPECT_EQ(probed.get_future().wait_for(std::chrono::milliseconds(kWaitMs)),
            std::future_status::ready);
  EXPECT_EQ(triplets->calls(), StoreCalls{}) << "the front that is gone erased the user";
}

}  // namespace
}  // namespace userinfo_test
