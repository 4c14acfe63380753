// The range rules of the built-in names, and the type record written for names outside the schema.

#include "userdata_fixture.hpp"

#include <cstdint>
#include <stdexcept>
#include <vector>

namespace userdata_test {
namespace {

struct RangeCase {
  std::string name;
  ka::AnyValue value;
  std::string rejection;  // "" when the value is accepted
};

std::string describe(const RangeCase& c) {
  return c.name + " = " +
         (c.value.signature().toString() == "s" ? c.value.to<std::string>()
                                                : std::to_string(c.value.toInt64()));
}

TEST_F(UserDataTest, RangeRulesAcceptTheirBoundsAndRejectJustBeyondWithTheirMessage) {
  const std::string month = "birth month should be between 1 and 12";
  const std::string day = "birth month should be between 1 and 31";
  const std::string gender = "Gender value can only be \"m\" or \"f\"";
  const std::vector<RangeCase> cases = {
      {"age", ka::AnyValue(0), ""},
      {"age", ka::AnyValue(-1), "age can't be a negative"},
      {"birthyear", ka::AnyValue(0), ""},
      {"birthyear", ka::AnyValue(-1), "birth year can't be a negative"},
      {"birthyear", ka::AnyValue(std::int64_t{5000000000}), ""},
      {"firstencounter", ka::AnyValue(-1), "first encounter value can't be a negative"},
      {"lastseen", ka::AnyValue(std::int64_t{-1}), "last seen value can't be a negative"},
      {"birthmonth", ka::AnyValue(1), ""},
      {"birthmonth", ka::AnyValue(12), ""},
      {"birthmonth", ka::AnyValue(0), month},
      {"birthmonth", ka::AnyValue(13), month},
      // Months and days are judged on their low 32 bits.
      {"birthmonth", ka::AnyValue(std::int64_t{4294967297}), ""},
      {"birthday", ka::AnyValue(31), ""},
      {"birthday", ka::AnyValue(0), day},
      {"birthday", ka::AnyValue(32), day},
      {"gender", ka::AnyValue(std::string("m")), ""},
      {"gender", ka::AnyValue(std::string("f")), ""},
      {"gender", ka::AnyValue(std::string("M")), gender},
      {"gender", ka::AnyValue(std::string("male")), gender},
      {"gender", ka::AnyValue(std::string("")), gender},
      {"name", ka::AnyValue(std::string("")), ""},
  };
  for (const RangeCase& c : cases) {
    forget();
    EXPECT_EQ(store->xCheckDataRange(c.name, c.value), c.rejection.empty()) << describe(c);
    const LogLines expected =
        c.rejection.empty()
            ? LogLines{}
            : LogLines{storeLine(ka::LogLevel::Warning, "xCheckDataRange", c.rejection)};
    EXPECT_EQ(logs(), expected) << describe(c);
    // Only the declared type is read; nothing is written.
    EXPECT_EQ(calls(), (StoreCalls{{"getObject", {kOwnDomain, c.name, "rangeType"}}}))
        << describe(c);
  }
}

TEST_F(UserDataTest, RangeCheckOfABuiltInNameStopsAtAWrongTypeWithItsOwnWarningOnly) {
  EXPECT_FALSE(store->xCheckDataRange("birthmonth", ka::AnyValue(std::string("13"))));
  EXPECT_FALSE(store->xCheckDataRange("timefocused", ka::AnyValue(-5)));
  EXPECT_EQ(logs(), (LogLines{storeLine(ka::LogLevel::Warning, "xCheckTypeConsistency",
                                        "Can't set the value of \"birthmonth\": a value of type "
                                        "int is needed")}))
      << "timefocused has no declared type under its own name: refused without a word";
}

TEST_F(UserDataTest, ANameOutsideTheSchemaTakesTheTypeOfItsLatestValue) {
  EXPECT_TRUE(store->xCheckDataRange("nickname", ka::AnyValue(std::string("Ada"))));
  EXPECT_EQ(store->getType(kOwnDomain, "nickname"), "string");
  EXPECT_TRUE(store->xCheckDataRange("nickname", ka::AnyValue(-4)));
  EXPECT_EQ(store->getType(kOwnDomain, "nickname"), "int");
  EXPECT_TRUE(store->xCheckDataRange("timefocuse", ka::AnyValue(true)));
  EXPECT_EQ(store->getType(kOwnDomain, "timefocuse"), "bool");
  EXPECT_EQ(calls()[0], (StoreCall{"update", {kOwnDomain, "nickname", "rangeType", "string"}}));
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, ANameOutsideTheSchemaThrowsForAValueWithoutATypeName) {
  const std::vector<std::pair<const char*, ka::AnyValue>> cases = {
      {"64-bit int", ka::AnyValue(std::int64_t{3})},
      {"double", ka::AnyValue(1.5)},
      {"list", ka::AnyValue(std::vector<int>{1})},
      {"no type", ka::AnyValue()},
  };
  for (const auto& [what, value] : cases) {
    EXPECT_THROW(store->xCheckDataRange("nickname", value), std::out_of_range) << what;
  }
  EXPECT_TRUE(calls().empty());
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, A64BitValueGetsAnEmptyTypeNameOnceAWriteToAnotherDomainHasEnteredOne) {
  ASSERT_TRUE(store->set(7, "score", ka::AnyValue(std::int64_t{3}), "com.example.games"));
  forget();
  EXPECT_TRUE(store->xCheckDataRange("nickname", ka::AnyValue(std::int64_t{3})));
  EXPECT_EQ(calls(), (StoreCalls{{"update", {kOwnDomain, "nickname", "rangeType", ""}}}));
}

}  // namespace
}  // namespace userdata_test
