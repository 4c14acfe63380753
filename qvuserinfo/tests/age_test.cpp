// The age derived from the stored birth date against a fixed today.

#include "userdata_fixture.hpp"

#include <functional>
#include <tuple>
#include <vector>

namespace userdata_test {
namespace {

class AgeTest : public UserDataTest {
 protected:
  void storeBirth(int year, int month, int day) {
    auto& kb = knowledge.direct();
    kb.update(kOwnDomain, "7", "birthyear", std::to_string(year));
    kb.update(kOwnDomain, "7", "birthmonth", std::to_string(month));
    kb.update(kOwnDomain, "7", "birthday", std::to_string(day));
  }
  std::vector<std::string> storedAge() {
    return knowledge.direct().getObject(kOwnDomain, "7", "age");
  }
  LogLine warning(const std::string& message) {
    return storeLine(ka::LogLevel::Warning, "xComputeAgeInfo", message);
  }
};

TEST_F(AgeTest, CountsWholeYearsWithTheBirthdayItselfAlreadyCounting) {
  struct Case {
    int year, month, day;
    QDate today;
    int age;
  };
  const std::vector<Case> cases = {
      {1990, 6, 15, QDate(2026, 6, 14), 35},  {1990, 6, 15, QDate(2026, 6, 15), 36},
      {1990, 6, 15, QDate(2026, 12, 31), 36}, {1990, 12, 31, QDate(2027, 1, 1), 36},
      {1992, 2, 29, QDate(2025, 12, 31), 33}, {1992, 2, 29, QDate(2026, 1, 1), 34},
      {1992, 2, 29, QDate(2028, 2, 28), 35},  {1992, 2, 29, QDate(2028, 2, 29), 36},
      {2026, 6, 15, QDate(2026, 6, 15), 0},
  };
  for (const Case& c : cases) {
    storeBirth(c.year, c.month, c.day);
    *today = c.today;
    const std::string what = std::to_string(c.year) + "-" + std::to_string(c.month) + "-" +
                             std::to_string(c.day) + " on " + c.today.toString().toStdString();
    EXPECT_EQ(store->xComputeAgeInfo(7), c.age) << what;
    EXPECT_EQ(storedAge(), std::vector<std::string>{std::to_string(c.age)}) << what;
  }
  EXPECT_TRUE(logs().empty());
}

TEST_F(AgeTest, ReadingTheAgeComputesItFromTheBirthDateAndIgnoresTheStoredOne) {
  storeBirth(1990, 6, 15);
  knowledge.direct().update(kOwnDomain, "7", "age", "99");
  *today = QDate(2026, 6, 14);
  const ka::AnyValue age = store->get(7, "age", kOwnDomain);
  EXPECT_EQ(age.signature().toString(), "i");
  EXPECT_EQ(age.to<int>(), 35);
  EXPECT_EQ(storedAge(), std::vector<std::string>{"35"});
  const StoreCalls made = calls();
  ASSERT_FALSE(made.empty());
  EXPECT_EQ(made.front(), (StoreCall{"getObject", {kOwnDomain, "7", "birthyear"}}));
  EXPECT_EQ(made.back(), (StoreCall{"update", {kOwnDomain, "7", "age", "35"}}));
  for (const StoreCall& call : made) {
    EXPECT_NE(call, (StoreCall{"getObject", {kOwnDomain, "7", "age"}})) << "the age is not read";
  }
}

TEST_F(AgeTest, AMissingBirthDatumIsReportedFirstInYearMonthDayOrder) {
  struct Case {
    std::vector<std::string> stored;
    std::string message;
  };
  const std::vector<Case> cases = {
      {{}, "User's birth year not valid, can't determine age"},
      {{"birthmonth", "birthday"}, "User's birth year not valid, can't determine age"},
      {{"birthyear"}, "User's birth month not valid, can't determine age"},
      {{"birthyear", "birthmonth"}, "User's birth day not valid, can't determine age"},
  };
  for (const Case& c : cases) {
    knowledge.direct().remove(kOwnDomain, "7", "?", "?");
    for (const std::string& name : c.stored) {
      knowledge.direct().update(kOwnDomain, "7", name, "2");
    }
    forget();
    EXPECT_EQ(store->xComputeAgeInfo(7), -1) << c.message;
    EXPECT_EQ(logs(), (LogLines{warning(c.message)}));
    EXPECT_TRUE(storedAge().empty());
  }
}

TEST_F(AgeTest, ABirthDatumThatIsStoredButNotAnIntegerMakesTheAgeFailWithTheConversionError) {
  struct Case {
    const char* what;
    std::function<void()> spoil;
    LogLines logged;  // by the two reads of the age
  };
  const std::vector<Case> cases = {
      {"a month that does not parse reads as the void value",
       [&] { knowledge.direct().update(kOwnDomain, "7", "birthmonth", "June"); },
       {}},
      {"a year without a type record reads as text",
       [&] { knowledge.direct().remove(kOwnDomain, "birthyear", "rangeType", "?"); },
       LogLines(2, storeLine(ka::LogLevel::Warning, "get",
                             "No defined type for the dataName birthyear casted as string by "
                             "default"))},
  };
  for (const Case& c : cases) {
    store = makeStore();  // declares the types again
    storeBirth(1990, 6, 15);
    knowledge.direct().update(kOwnDomain, "7", "age", "41");
    c.spoil();
    forget();
    EXPECT_THROW(store->xComputeAgeInfo(7), ka::ConversionError) << c.what;
    EXPECT_THROW(store->get(7, "age", kOwnDomain), ka::ConversionError)
        << c.what << ": the stored age is not read instead";
    EXPECT_EQ(logs(), c.logged) << c.what;
    for (const StoreCall& call : calls()) {
      EXPECT_NE(call.method, "update") << c.what << ": " << call;
      EXPECT_NE(call, (StoreCall{"getObject", {kOwnDomain, "7", "birthday"}})) << c.what;
    }
    EXPECT_EQ(storedAge(), std::vector<std::string>{"41"}) << c.what;
  }
}

TEST_F(AgeTest, ADateMissingFromTheCalendarIsNotValidAndWritesNoAge) {
  for (const auto& [year, month, day] : std::vector<std::tuple<int, int, int>>{
           {1990, 2, 30}, {1991, 2, 29}, {1990, 4, 31}, {0, 1, 1}}) {
    storeBirth(year, month, day);
    forget();
    EXPECT_EQ(store->xComputeAgeInfo(7), -1);
    EXPECT_EQ(logs(), (LogLines{warning("User's birth date is not valid, can't determine age")}));
    EXPECT_TRUE(storedAge().empty());
  }
}

TEST_F(AgeTest, ABirthDateInTheFutureGivesANegativeAgeThatIsNotStored) {
  storeBirth(2030, 1, 1);
  EXPECT_EQ(store->xComputeAgeInfo(7), -4);
  EXPECT_EQ(
      logs(),
      (LogLines{storeLine(ka::LogLevel::Warning, "xCheckDataRange", "age can't be a negative")}));
  EXPECT_TRUE(storedAge().empty());
  EXPECT_EQ(store->get(7, "age", kOwnDomain).to<int>(), -4);
}

TEST_F(AgeTest, WhenNoAgeCanBeComputedTheStoredOneOrNothingIsRead) {
  *today = QDate(2026, 6, 1);
  EXPECT_FALSE(store->get(7, "age", kOwnDomain).isValid());
  knowledge.direct().update(kOwnDomain, "7", "age", "41");
  EXPECT_EQ(store->get(7, "age", kOwnDomain).to<int>(), 41);
  // Later this year: the computed age is -1, which reads as a failure too.
  storeBirth(2026, 12, 31);
  EXPECT_EQ(store->get(7, "age", kOwnDomain).to<int>(), 41);
}

TEST_F(AgeTest, OnlyTheExactNameInTheServiceDomainIsComputed) {
  storeBirth(1990, 6, 15);
  knowledge.direct().update("com.example.other", "7", "age", "12");
  knowledge.direct().update("com.example.other", "age", "rangeType", "int");
  EXPECT_EQ(store->get(7, "age", "com.example.other").to<int>(), 12);
  EXPECT_FALSE(store->get(7, "Age", kOwnDomain).isValid());
  EXPECT_FALSE(store->get(7, "age ", kOwnDomain).isValid());
  for (const StoreCall& call : calls()) {
    EXPECT_NE(call.args.at(2), "birthyear") << call;
  }
}

}  // namespace
}  // namespace userdata_test
