// Writes into the service's own domain and into others, and the removals of one datum or a user.

#include "userdata_fixture.hpp"

#include <cstdint>
#include <functional>
#include <vector>

namespace userdata_test {
namespace {

const std::string kOther = "com.example.other";
const std::string kPhotos = "com.quorvelin.photostorage";
const std::string kPhotosConfig = "com.quorvelin.photostorage.config";
using Strings = std::vector<std::string>;
using Rows = std::vector<Strings>;

LogLine refusal(const std::string& function) {
  return storeLine(ka::LogLevel::Error, function, "You can't edit data in this domain");
}

LogLine absent(const std::string& name) {
  return storeLine(ka::LogLevel::Info, "remove",
                   "The information " + name + " doesn't exist int the domain " + kOwnDomain);
}

TEST_F(UserDataTest, ABuiltInValueIsCheckedThenWrittenAsTextInTheServiceDomain) {
  EXPECT_TRUE(store->update(7, "birthyear", ka::AnyValue(1990)));
  EXPECT_EQ(calls(), (StoreCalls{{"getObject", {kOwnDomain, "birthyear", "rangeType"}},
                                 {"update", {kOwnDomain, "7", "birthyear", "1990"}}}));
  EXPECT_EQ(store->get(7, "birthyear", kOwnDomain).to<int>(), 1990);
  EXPECT_TRUE(store->update(7, "gender", ka::AnyValue(std::string("f"))));
  EXPECT_EQ(store->get(7, "gender", kOwnDomain).to<std::string>(), "f");
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, RefusedWritesIntoTheServiceDomainWriteNothing) {
  struct Case {
    const char* what;
    std::string name;
    ka::AnyValue value;
  };
  const std::vector<Case> cases = {
      {"empty string", "name", ka::AnyValue(std::string())},
      {"empty string, new name", "nickname", ka::AnyValue(std::string())},
      {"double", "nickname", ka::AnyValue(2.5)},
      {"out of range", "birthmonth", ka::AnyValue(13)},
      {"wrong type", "birthyear", ka::AnyValue(std::string("1990"))},
      {"time focused, declared under another key", "timefocused", ka::AnyValue(10)},
  };
  for (const Case& c : cases) {
    forget();
    EXPECT_FALSE(store->update(7, c.name, c.value)) << c.what;
    for (const StoreCall& call : calls()) {
      EXPECT_NE(call.method, "update") << c.what << ": " << call;
    }
  }
  EXPECT_TRUE(knowledge.direct().queryTriplet("*", "7", "*", "*").empty());
}

TEST_F(UserDataTest, EditsThroughADomainArgumentRefuseTheServiceDomain) {
  knowledge.direct().update(kOwnDomain, "7", "name", "Ada");
  EXPECT_FALSE(store->set(7, "name", ka::AnyValue(std::string("Bob")), kOwnDomain));
  EXPECT_FALSE(store->remove(7, "name", kOwnDomain));
  EXPECT_FALSE(store->removeUser(7, kOwnDomain));
  EXPECT_TRUE(calls().empty());
  EXPECT_EQ(logs(), (LogLines{refusal("set"), refusal("remove"), refusal("removeUser")}));
  EXPECT_EQ(knowledge.direct().getObject(kOwnDomain, "7", "name"), Strings{"Ada"});
}

TEST_F(UserDataTest, AWriteIntoAnotherDomainRewritesTheTypeRecordBeforeTheDatumEveryTime) {
  EXPECT_TRUE(store->set(7, "score", ka::AnyValue(3), kOther));
  EXPECT_EQ(calls(), (StoreCalls{{"update", {kOther, "score", "rangeType", "int"}},
                                 {"update", {kOther, "7", "score", "3"}}}));
  EXPECT_EQ(store->get(7, "score", kOther).to<int>(), 3);
  EXPECT_TRUE(store->set(7, "score", ka::AnyValue(std::string("high")), kOther));
  EXPECT_EQ(store->getType(kOther, "score"), "string");
  EXPECT_EQ(store->get(7, "score", kOther).to<std::string>(), "high");
  EXPECT_TRUE(store->set(8, "score", ka::AnyValue(false), kOther));
  EXPECT_EQ(store->get(7, "score", kOther).signature().toString(), "v")
      << "the last write decides how every user's datum is read";
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, AWriteIntoAnotherDomainChecksNoRange) {
  EXPECT_TRUE(store->set(7, "birthyear", ka::AnyValue(-20), kOther));
  EXPECT_TRUE(store->set(7, "gender", ka::AnyValue(std::string("x")), kOther));
  EXPECT_EQ(store->get(7, "birthyear", kOther).to<int>(), -20);
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, AWriteIntoAnotherDomainRefusesWhatCannotBeStored) {
  EXPECT_FALSE(store->set(7, "score", ka::AnyValue(std::string()), kOther));
  EXPECT_FALSE(store->set(7, "score", ka::AnyValue(2.5), kOther));
  EXPECT_TRUE(calls().empty());
  EXPECT_EQ(logs(),
            (LogLines{storeLine(ka::LogLevel::Error, "xCheckTypeAndCastToString",
                                "User data can only be of type \"string\" \"int\" or \"bool\"")}));
}

TEST_F(UserDataTest, A64BitValueInAnotherDomainIsStoredWithAnEmptyTypeAndReadsAsText) {
  EXPECT_TRUE(store->set(7, "steps", ka::AnyValue(std::int64_t{5000000000}), kOther));
  EXPECT_EQ(calls(), (StoreCalls{{"update", {kOther, "steps", "rangeType", ""}},
                                 {"update", {kOther, "7", "steps", "5000000000"}}}));
  EXPECT_EQ(store->get(7, "steps", kOther).to<std::string>(), "5000000000");
}

TEST_F(UserDataTest, RemovingADatumTestsForItThenRemovesEveryObjectOfIt) {
  knowledge.direct().add(kOwnDomain, "7", "nickname", "a");
  knowledge.direct().add(kOwnDomain, "7", "nickname", "b");
  EXPECT_TRUE(store->remove(7, "nickname"));
  EXPECT_EQ(calls(), (StoreCalls{{"contains", {kOwnDomain, "7", "nickname", "?"}},
                                 {"remove", {kOwnDomain, "7", "nickname", "?"}}}));
  EXPECT_FALSE(store->contains(7, "nickname", kOwnDomain));

  knowledge.direct().update(kOther, "7", "score", "1");
  forget();
  EXPECT_TRUE(store->remove(7, "score", kOther));
  EXPECT_EQ(calls(), (StoreCalls{{"contains", {kOther, "7", "score", "?"}},
                                 {"remove", {kOther, "7", "score", "?"}}}));
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, RemovingAnAbsentDatumNamesTheServiceDomainWhicheverWasSearched) {
  EXPECT_FALSE(store->remove(7, "nickname"));
  EXPECT_FALSE(store->remove(7, "score", kOther));
  for (const StoreCall& call : calls()) {
    EXPECT_EQ(call.method, "contains");
  }
  EXPECT_EQ(logs(), (LogLines{absent("nickname"), absent("score")}));
}

TEST_F(UserDataTest, RemovingAUserSparesOnlyThePhotoStorageDomainsAndOtherUsers) {
  const Rows seeded = {
      {kOwnDomain, "7", "name", "Ada"},
      {kPhotos, "7", "photo", "p1"},
      {kOther, "7", "score", "3"},
      {kPhotosConfig, "7", "album", "a1"},
      {kPhotos + ".backup", "7", "photo", "p2"},
      {"Com.quorvelin.photostorage", "7", "photo", "p3"},
      {kOwnDomain, "8", "name", "Bob"},
      {kOwnDomain, "7", "birthyear", "1990"},
  };
  for (const auto& row : seeded) {
    knowledge.direct().update(row[0], row[1], row[2], row[3]);
  }
  store->removeUser(7);
  StoreCalls expected = {{"queryTriplet", {"*", "7", "*", "*"}}};
  for (std::size_t i : {0, 2, 4, 5, 7}) {
    expected.push_back({"remove", seeded[i]});
  }
  EXPECT_EQ(calls(), expected);
  EXPECT_EQ(knowledge.direct().queryTriplet("*", "7", "*", "*"), (Rows{seeded[1], seeded[3]}));
  EXPECT_EQ(knowledge.direct().queryTriplet("*", "8", "*", "*"), (Rows{seeded[6]}));
  EXPECT_EQ(knowledge.direct().getObject(kOwnDomain, "name", "rangeType"), Strings{"string"})
      << "type records stay";
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, RemovingAUserFromAnotherDomainSucceedsEvenWhenNothingWasThere) {
  knowledge.direct().update(kOther, "7", "score", "3");
  knowledge.direct().update(kOther, "7", "level", "9");
  knowledge.direct().update(kOwnDomain, "7", "name", "Ada");
  EXPECT_TRUE(store->removeUser(7, kOther));
  EXPECT_TRUE(store->removeUser(7, kOther));
  EXPECT_EQ(calls(),
            (StoreCalls{{"remove", {kOther, "7", "?", "?"}}, {"remove", {kOther, "7", "?", "?"}}}));
  EXPECT_EQ(knowledge.direct().queryTriplet("*", "7", "*", "*"),
            (Rows{{kOwnDomain, "7", "name", "Ada"}}));
}

TEST_F(UserDataTest, AFailedRemovalStopsAUsersRemovalWhereItHappened) {
  knowledge.direct().update(kOwnDomain, "7", "name", "Ada");
  knowledge.direct().update(kOther, "7", "score", "3");
  knowledge.failCallsOf("remove");
  EXPECT_THROW(store->removeUser(7), std::runtime_error);
  EXPECT_EQ(calls().size(), 2u) << "the query, then the first removal";
}

TEST_F(UserDataTest, EveryOperationPassesStoreFailuresOnAndNeedsAKnowledgeObject) {
  knowledge.direct().update(kOwnDomain, "7", "name", "Ada");
  knowledge.failCallsOf("getObject", "store is down");
  EXPECT_THROW(store->get(7, "name", kOther), std::runtime_error);
  EXPECT_THROW(store->getType(kOther, "name"), std::runtime_error);
  knowledge.failCallsOf("");
  handle->reset();
  const std::vector<std::function<void()>> edits = {
      [&] { (void)store->get(7, "name", kOwnDomain); },
      [&] { (void)store->getType(kOwnDomain, "name"); },
      [&] { (void)store->contains(7, "name", kOwnDomain); },
      [&] { (void)store->update(7, "name", ka::AnyValue(std::string("Bob"))); },
      [&] { (void)store->set(7, "name", ka::AnyValue(std::string("Bob")), kOther); },
      [&] { (void)store->remove(7, "name"); },
      [&] { store->removeUser(7); },
  };
  for (const auto& edit : edits) {
    try {
      edit();
      FAIL() << "the knowledge object is gone";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "This object is null");
    }
  }
}

}  // namespace
}  // namespace userdata_test
