// Reads: the value before its type, the empty value and the void value, untyped data, presence.

#include "userdata_fixture.hpp"

#include <vector>

namespace userdata_test {
namespace {

const std::string kOther = "com.example.other";

TEST_F(UserDataTest, ReadingSomethingNeverStoredAsksForTheValueOnlyAndAnswersEmpty) {
  for (const std::string name : {"birthyear", "nickname"}) {
    forget();
    const ka::AnyValue v = store->get(7, name, kOwnDomain);
    EXPECT_FALSE(v.isValid()) << name;
    EXPECT_EQ(calls(), (StoreCalls{{"getObject", {kOwnDomain, "7", name}}})) << name;
  }
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, UserIdsAreWrittenAsPlainDecimalSubjects) {
  for (const auto& [id, subject] :
       std::vector<std::pair<int, std::string>>{{-3, "-3"}, {2147483647, "2147483647"}}) {
    forget();
    (void)store->get(id, "name", kOther);
    (void)store->contains(id, "name", kOther);
    EXPECT_EQ(calls(), (StoreCalls{{"getObject", {kOther, subject, "name"}},
                                   {"contains", {kOther, subject, "name", "?"}}}));
  }
}

TEST_F(UserDataTest, AValueWithoutAUsableTypeRecordReadsAsTextWithAWarningEachTime) {
  knowledge.direct().update(kOther, "7", "nickname", "Ada");
  knowledge.direct().update(kOther, "7", "motto", "42");
  knowledge.direct().update(kOther, "motto", "rangeType", "");  // an empty type is no type
  for (const std::string name : {"nickname", "nickname", "motto"}) {
    const ka::AnyValue v = store->get(7, name, kOther);
    EXPECT_EQ(v.signature().toString(), "s");
  }
  EXPECT_EQ(store->get(7, "motto", kOther).to<std::string>(), "42");
  const auto warning = [](const std::string& name) {
    return storeLine(ka::LogLevel::Warning, "get",
                     "No defined type for the dataName " + name + " casted as string by default");
  };
  EXPECT_EQ(logs(), (LogLines{warning("nickname"), warning("nickname"), warning("motto"),
                              warning("motto")}));
}

TEST_F(UserDataTest, TimeFocusedReadsAsTextInTheServiceDomainSinceItsTypeIsDeclaredElsewhere) {
  knowledge.direct().update(kOwnDomain, "7", "timefocused", "120");
  const ka::AnyValue v = store->get(7, "timefocused", kOwnDomain);
  EXPECT_EQ(v.signature().toString(), "s");
  EXPECT_EQ(v.to<std::string>(), "120");
  EXPECT_EQ(logs().size(), 1u);
}

TEST_F(UserDataTest, ATextThatDoesNotFitItsTypeReadsAsTheVoidValueWithoutALogLine) {
  knowledge.direct().update(kOwnDomain, "7", "birthyear", "abc");
  knowledge.direct().update(kOwnDomain, "7", "lastseen", "5000000000");
  knowledge.direct().update(kOther, "7", "height", "1.8");
  knowledge.direct().update(kOther, "height", "rangeType", "float");
  knowledge.direct().update(kOther, "7", "member", "yes");
  knowledge.direct().update(kOther, "member", "rangeType", "bool");
  for (const auto& [name, domain] :
       std::vector<std::pair<std::string, std::string>>{{"birthyear", kOwnDomain},
                                                        {"lastseen", kOwnDomain},
                                                        {"height", kOther},
                                                        {"member", kOther}}) {
    EXPECT_EQ(store->get(7, name, domain).signature().toString(), "v") << name;
  }
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, SeveralObjectsUnderOneKeyReadAsTheFirstStored) {
  knowledge.direct().add(kOther, "7", "nickname", "first");
  knowledge.direct().add(kOther, "7", "nickname", "second");
  knowledge.direct().add(kOther, "nickname", "rangeType", "string");
  knowledge.direct().add(kOther, "nickname", "rangeType", "int");
  EXPECT_EQ(store->getType(kOther, "nickname"), "string");
  EXPECT_EQ(store->get(7, "nickname", kOther).to<std::string>(), "first");
}

TEST_F(UserDataTest, ContainsIsTrueForAnyStoredObjectAndIgnoresTypeRecords) {
  knowledge.direct().update(kOther, "7", "nickname", "");
  knowledge.direct().update(kOther, "score", "rangeType", "int");
  EXPECT_TRUE(store->contains(7, "nickname", kOther));
  EXPECT_FALSE(store->contains(8, "nickname", kOther));
  EXPECT_FALSE(store->contains(7, "nickname", kOwnDomain));
  EXPECT_FALSE(store->contains(7, "score", kOther));
  EXPECT_EQ(calls()[0], (StoreCall{"contains", {kOther, "7", "nickname", "?"}}));
  EXPECT_TRUE(logs().empty());
}

}  // namespace
}  // namespace userdata_test
