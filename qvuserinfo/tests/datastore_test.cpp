// The data store on a real knowledge store: the types declared at construction, the typing of
// values written and read, the range rules, the removals and the derived age.

#include "fixture.hpp"

#include <qverror/qverror.hpp>

#include <boost/lexical_cast.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <thread>

namespace userinfo_test {
namespace {

using ka::AnyValue;
using ka::LogLevel;

class DataStoreTest : public UserInfoTest {
 protected:
  void SetUp() override {
    UserInfoTest::SetUp();
    store = makeStore();
    forget();
  }
  void TearDown() override {
    store.reset();
    UserInfoTest::TearDown();
  }
  std::unique_ptr<QV::QVUserInfoPrivate> store;
};

StoreCall declaration(const std::string& key, const std::string& type) {
  return storeCall("update", {kOwn, key, "rangeType", type});
}

// The only order the store's calls promise: the declarations, one after another, and the store
// asked again on every typed read, never a copy kept from before.
TEST_F(DataStoreTest, TheStoreSeesTheDeclarationsInKeyOrderAndIsAskedOnEveryTypedRead) {
  seed({{kOwn, "7", "birthyear", "1990"}});
  const StoreCall yearType = storeCall("getObject", {kOwn, "birthyear", "rangeType"});
  const StoreCall year = storeCall("getObject", {kOwn, "7", "birthyear"});
  const struct {
    const char* what;
    std::function<void()> run;
    StoreCalls expected;
  } cases[] = {
      {"construction",
       [&] { makeStore(); },
       {declaration("age", "int"), declaration("birthday", "int"), declaration("birthmonth", "int"),
        declaration("birthyear", "int"), declaration("firstencounter", "int"),
        declaration("fullname", "string"), declaration("gender", "string"),
        declaration("lastseen", "int"), declaration("name", "string"),
        declaration("pronunciation", "string"), declaration("timefocuse", "int")}},
      {"two type lookups",
       [&] { store->getType(kOwn, "birthyear"), store->getType(kOwn, "birthyear"); },
       {yearType, yearType}},
      {"two reads",
       [&] { store->get(7, "birthyear", kOwn), store->get(7, "birthyear", kOwn); },
       {year, yearType, year, yearType}}};
  for (const auto& c : cases) {
    forget();
    c.run();
    EXPECT_EQ(triplets->calls(), c.expected) << c.what;
  }
  EXPECT_TRUE(logs().empty());
}

TEST_F(DataStoreTest, ConstructionFailsWithTheFirstDeclarationsErrorOrOnAnEmptyHandle) {
  triplets->failCallsOf("update", "disk full");
  EXPECT_EQ(errorOf([&] { makeStore(); }), "disk full");
  EXPECT_EQ(triplets->calls(), StoreCalls{declaration("age", "int")});
  EXPECT_EQ(errorOf([] { QV::QVUserInfoPrivate broken{QV::KnowledgeClient()}; }),
            "This object is null");
}

// --- Typing ---------------------------------------------------------------------------------

TEST(CastData, ParsesStoredTextByTheLexicalCastRulesAndRefusesOtherTypeNames) {
  const struct {
    std::string text, type, read;  // read: describe() of the value, "" when it does not parse
  } cases[] = {{"+42", "int", "i:42"},     {"007", "int", "i:7"},     {" 42", "int", ""},
               {"0x10", "int", ""},        {"1.0", "int", ""},        {"2147483648", "int", ""},
               {"0001", "bool", "b:true"}, {"-0", "bool", "b:false"}, {"true", "bool", ""},
               {"2", "bool", ""},          {"", "bool", ""},          {" x ", "string", "s: x "}};
  for (const auto& c : cases) {
    if (c.read.empty()) {
      EXPECT_THROW(QV::QVUserInfoPrivate::castData(c.text, c.type), boost::bad_lexical_cast)
          << c.type << " '" << c.text << "'";
    } else {
      EXPECT_EQ(describe(QV::QVUserInfoPrivate::castData(c.text, c.type)), c.read) << c.text;
    }
  }
  for (const std::string type : {"float", "Int", "", "l"}) {
    try {
      QV::QVUserInfoPrivate::castData("1", type);
      ADD_FAILURE() << type;
    } catch (const QV::QVError& e) {
      EXPECT_EQ(e.module(), "castData");
      EXPECT_EQ(e.method(), "QVUserInfoPrivate");
      EXPECT_EQ(e.description(), "Unsupported data type");
      EXPECT_EQ(e.file(), "");
      EXPECT_EQ(e.line(), 0u);
    }
  }
}

TEST_F(DataStoreTest, WritesIntoAnotherDomainStoreTheValueAsTextUnderTheTypeOfTheLatestValue) {
  const LogLine refused = storeLine(LogLevel::Error, "xCheckTypeAndCastToString",
                                    "User data can only be of type \"string\" \"int\" or \"bool\"");
  const struct {
    AnyValue value;
    Strings stored;  // none when refused
    std::string type;
    std::string read;
  } cases[] = {{text("Ada"), {"Ada"}, "string", "s:Ada"},
               {AnyValue(-7), {"-7"}, "int", "i:-7"},
               {AnyValue(true), {"1"}, "bool", "b:true"},
               {AnyValue(false), {"0"}, "bool", "b:false"},
               {AnyValue::make(AnyValue(12)), {"12"}, "int", "i:12"},
               // A 64-bit integer has no type name: it is read back as text.
               {AnyValue(INT64_MIN), {"-9223372036854775808"}, "", "s:-9223372036854775808"},
               {text(""), {}, "", ""},
               {AnyValue(2.5), {}, "", ""},
               {AnyValue(3u), {}, "", ""},
               {AnyValue(std::int16_t{3}), {}, "", ""},
               {AnyValue(Strings{"a"}), {}, "", ""},
               {AnyValue(), {}, "", ""}};
  for (const auto& c : cases) {
    triplets->inner().remove(kOther, "?", "?", "?");
    forget();
    const std::string what = describe(c.value);
    EXPECT_EQ(store->set(7, "score", c.value, kOther), !c.stored.empty()) << what;
    EXPECT_EQ(stored(kOther, 7, "score"), c.stored) << what;
    if (c.stored.empty()) {
      EXPECT_EQ(logs(), (what == "s:" ? LogLines{} : LogLines{refused})) << what;
      continue;
    }
    EXPECT_EQ(store->getType(kOther, "score"), c.type) << what;
    EXPECT_EQ(describe(store->get(7, "score", kOther)), c.read) << what;
  }
  EXPECT_TRUE(store->set(7, "birthyear", AnyValue(-20), kOther)) << "no range check there";
  EXPECT_TRUE(store->set(7, "score", AnyValue(3), kOther));
  EXPECT_TRUE(store->set(8, "score", AnyValue(false), kOther));
  EXPECT_EQ(describe(store->get(7, "score", kOther)), "v:") << "the latest write types them all";
}

TEST_F(DataStoreTest, ReadsConvertToTheDeclaredTypeOrAnswerEmptyVoidOrTextAsTheyMust) {
  const auto untyped = [](const std::string& name) {
    return storeLine(LogLevel::Warning, "get",
                     "No defined type for the dataName " + name + " casted as string by default");
  };
  seed({{kOwn, "7", "birthyear", "abc"},
        {kOwn, "7", "lastseen", "5000000000"},
        {kOwn, "7", "timefocused", "120"},
        {kOwn, "7", "name", "Ada"},
        {kOther, "7", "height", "1.8"},
        {kOther, "height", "rangeType", "float"},
        {kOther, "7", "nickname", "Al"},
        {kOther, "7", "motto", "42"},
        {kOther, "motto", "rangeType", ""},
        {kOwn, "-3", "birthday", "12"},
        {kOwn, "2147483647", "name", "Max"}});
  triplets->inner().add(kOther, "7", "nickname", "second");
  const struct {
    int user;
    std::string name, domain, read;
    LogLines logged;
  } cases[] = {{7, "gender", kOwn, ":", {}},
               {7, "birthyear", kOwn, "v:", {}},
               {7, "lastseen", kOwn, "v:", {}},
               {7, "height", kOther, "v:", {}},
               {7, "name", kOwn, "s:Ada", {}},
               {-3, "birthday", kOwn, "i:12", {}},
               {2147483647, "name", kOwn, "s:Max", {}},
               {7, "timefocused", kOwn, "s:120", {untyped("timefocused")}},
               {7, "nickname", kOther, "s:Al", {untyped("nickname")}},
               {7, "motto", kOther, "s:42", {untyped("motto")}}};
  for (const auto& c : cases) {
    capture.clear();
    EXPECT_EQ(describe(store->get(c.user, c.name, c.domain)), c.read) << c.name;
    EXPECT_EQ(logs(), c.logged) << c.name;
  }
  EXPECT_TRUE(store->contains(7, "nickname", kOther));
  EXPECT_FALSE(store->contains(8, "nickname", kOther));
  EXPECT_FALSE(store->contains(7, "nickname", kOwn));
  EXPECT_FALSE(store->contains(7, "height", "rangeType")) << "type records are no data";
  triplets->failCallsOf("getObject", "store is down");
  for (const auto& read : std::vector<std::function<void()>>{
           [&] { store->get(7, "name", kOther); }, [&] { store->getType(kOther, "name"); }}) {
    EXPECT_THROW(read(), ka::FutureError);
  }
}

// --- Writes into the service's domain and their range rules --------------------------------

TEST_F(DataStoreTest, BuiltInNamesAcceptTheirRangeAndRefuseJustBeyondWithTheirMessage) {
  const std::string month = "birth month should be between 1 and 12";
  const std::string day = "birth month should be between 1 and 31";
  const std::string gender = "Gender value can only be \"m\" or \"f\"";
  const auto wrongType = [](const std::string& name, const std::string& type) {
    return "Can't set the value of \"" + name + "\": a value of type " + type + " is needed";
  };
  const struct {
    std::string name;
    AnyValue value;
    // "" when written, "-" when refused without a word, "!" when refused as a value of no
    // storable kind, otherwise the warning
    std::string rejection;
    std::string warner = "xCheckDataRange";
  } cases[] = {{"age", AnyValue(0), ""},
               {"age", AnyValue(-1), "age can't be a negative"},
               {"birthyear", AnyValue(0), ""},
               {"birthyear", AnyValue(-1), "birth year can't be a negative"},
               {"birthyear", AnyValue(std::int64_t{5000000000}), ""},
               {"age", AnyValue(std::int64_t{3}), ""},
               {"firstencounter", AnyValue(-1), "first encounter value can't be a negative"},
               {"lastseen", AnyValue(std::int64_t{-1}), "last seen value can't be a negative"},
               {"birthmonth", AnyValue(1), ""},
               {"birthmonth", AnyValue(12), ""},
               {"birthmonth", AnyValue(0), month},
               {"birthmonth", AnyValue(13), month},
               {"birthmonth", AnyValue(std::int64_t{4294967297}), ""},  // judged on the low 32 bits
               {"birthday", AnyValue(31), ""},
               {"birthday", AnyValue(0), day},
               {"birthday", AnyValue(32), day},
               {"gender", text("m"), ""},
               {"gender", text("f"), ""},
               {"gender", text("M"), gender},
               {"gender", text("male"), gender},
               {"name", text("x"), ""},
               {"name", text(""), "-"},
               {"name", AnyValue(2.5), "!"},
               {"birthyear", text("1990"), wrongType("birthyear", "int"), "xCheckTypeConsistency"},
               {"name", AnyValue(true), wrongType("name", "string"), "xCheckTypeConsistency"},
               // Declared under "timefocuse": refused without a word.
               {"timefocused", AnyValue(10), "-"}};
  for (const auto& c : cases) {
    triplets->inner().remove(kOwn, "7", "?", "?");
    capture.clear();
    const std::string what = c.name + " = " + describe(c.value);
    EXPECT_EQ(store->update(7, c.name, c.value), c.rejection.empty()) << what;
    EXPECT_EQ(rowsOf(7).size(), c.rejection.empty() ? 1u : 0u) << what;
    LogLines expected;
    if (c.rejection == "!") {
      expected.push_back(storeLine(LogLevel::Error, "xCheckTypeAndCastToString",
                                   "User data can only be of type \"string\" \"int\" or \"bool\""));
    } else if (c.rejection != "-" && !c.rejection.empty()) {
      expected.push_back(storeLine(LogLevel::Warning, c.warner, c.rejection));
    }
    EXPECT_EQ(logs(), expected) << what;
  }
  EXPECT_EQ(store->getType(kOwn, "birthyear"), "int") << "a built-in type was rewritten";
  EXPECT_EQ(store->getType(kOwn, "name"), "string") << "a built-in type was rewritten";
}

TEST_F(DataStoreTest, ANameOutsideTheSchemaTakesTheTypeOfItsLatestValueOrThrowsWithoutOne) {
  const struct {
    AnyValue value;
    std::string type;  // "-" when it throws
  } cases[] = {{text("Ada"), "string"},  {AnyValue(-4), "int"},
               {AnyValue(true), "bool"}, {AnyValue(std::int64_t{3}), "-"},
               {AnyValue(1.5), "-"},     {AnyValue(Ids{1}), "-"},
               {AnyValue(), "-"}};
  for (const auto& c : cases) {
    if (c.type == "-") {
      EXPECT_THROW(store->xCheckDataRange("nickname", c.value), std::out_of_range)
          << describe(c.value);
      EXPECT_EQ(store->getType(kOwn, "nickname"), "bool") << describe(c.value);
    } else {
      EXPECT_TRUE(store->xCheckDataRange("nickname", c.value)) << describe(c.value);
      EXPECT_EQ(store->getType(kOwn, "nickname"), c.type) << describe(c.value);
    }
  }
  // Once a write into another domain has entered it, a 64-bit integer has the empty type name.
  ASSERT_TRUE(store->set(7, "score", AnyValue(std::int64_t{3}), "com.example.games"));
  EXPECT_TRUE(store->xCheckDataRange("nickname", AnyValue(std::int64_t{3})));
  EXPECT_EQ(store->getType(kOwn, "nickname"), "");
  EXPECT_TRUE(logs().empty());
}

// --- Removals ---------------------------------------------------------------------------------

TEST_F(DataStoreTest, EditsThroughADomainArgumentRefuseTheServiceDomainAndChangeNothing) {
  seed({{kOwn, "7", "name", "Ada"}});
  EXPECT_FALSE(store->set(7, "name", text("Bob"), kOwn));
  EXPECT_FALSE(store->remove(7, "name", kOwn));
  EXPECT_FALSE(store->removeUser(7, kOwn));
  const auto refusal = [](const char* function) {
    return storeLine(LogLevel::Error, function, "You can't edit data in this domain");
  };
  EXPECT_EQ(logs(), (LogLines{refusal("set"), refusal("remove"), refusal("removeUser")}));
  EXPECT_EQ(rowsOf(7), (Rows{{kOwn, "7", "name", "Ada"}}));
}

TEST_F(DataStoreTest, RemovingADatumRemovesEveryObjectOfItAndNamesTheServiceDomainWhenAbsent) {
  triplets->inner().add(kOwn, "7", "nickname", "a");
  triplets->inner().add(kOwn, "7", "nickname", "b");
  seed({{kOther, "7", "score", "1"}, {kOwn, "8", "nickname", "c"}});
  EXPECT_TRUE(store->remove(7, "nickname"));
  EXPECT_TRUE(store->remove(7, "score", kOther));
  EXPECT_EQ(rowsOf(7), Rows{});
  EXPECT_EQ(stored(kOwn, 8, "nickname"), Strings{"c"});
  EXPECT_TRUE(logs().empty());

  EXPECT_FALSE(store->remove(7, "nickname"));
  EXPECT_FALSE(store->remove(7, "score", kOther));
  const auto absent = [](const std::string& name) {
    return storeLine(LogLevel::Info, "remove",
                     "The information " + name + " doesn't exist int the domain " + kOwn);
  };
  EXPECT_EQ(logs(), (LogLines{absent("nickname"), absent("score")}));
}

TEST_F(DataStoreTest, RemovingAUserSparesThePhotoStorageDomainsOtherUsersAndTypeRecords) {
  const Rows seeded = {{kOwn, "7", "name", "Ada"},
                       {kPhotos, "7", "photo", "p1"},
                       {kOther, "7", "score", "3"},
                       {kPhotos + ".config", "7", "album", "a1"},
                       {kPhotos + ".backup", "7", "photo", "p2"},
                       {"Com.quorvelin.photostorage", "7", "photo", "p3"},
                       {kOwn, "8", "name", "Bob"}};
  seed(seeded);
  store->removeUser(7);
  EXPECT_EQ(rowsOf(7), (Rows{seeded[1], seeded[3]}));
  EXPECT_EQ(rowsOf(8), (Rows{seeded[6]}));
  EXPECT_EQ(store->getType(kOwn, "name"), "string");

  seed({{kOther, "7", "level", "9"}, {kOther, "8", "level", "1"}});
  EXPECT_TRUE(store->removeUser(7, kOther));
  EXPECT_TRUE(store->removeUser(7, kOther)) << "nothing left to remove is fine";
  EXPECT_EQ(rowsOf(7), (Rows{seeded[1], seeded[3]}));
  EXPECT_EQ(stored(kOther, 8, "level"), Strings{"1"});
  EXPECT_TRUE(logs().empty());
}

TEST_F(DataStoreTest, AFailedRemovalStopsAUsersRemovalWhereItHappened) {
  seed({{kOwn, "7", "name", "Ada"}, {kOther, "7", "score", "3"}});
  triplets->failCallsOf("remove", "disk full");
  EXPECT_THROW(store->removeUser(7), ka::FutureError);
  triplets->failCallsOf("");
  EXPECT_EQ(rowsOf(7).size(), 2u);
  const StoreCalls made = triplets->calls();
  EXPECT_EQ(made.size(), 2u) << "the query, then the first removal only";
}

// --- Age --------------------------------------------------------------------------------------

class AgeTest : public DataStoreTest {
 protected:
  void storeBirth(int year, int month, int day) {
    seed({{kOwn, "7", "birthyear", std::to_string(year)},
          {kOwn, "7", "birthmonth", std::to_string(month)},
          {kOwn, "7", "birthday", std::to_string(day)}});
  }
  LogLine warning(const std::string& message) {
    return storeLine(LogLevel::Warning, "xComputeAgeInfo", message);
  }
};

TEST_F(AgeTest, CountsWholeYearsWithTheBirthdayCountingAndStoresTheAgeItComputed) {
  const struct {
    int year, month, day;
    QDate today;
    int age;
  } cases[] = {{1990, 6, 15, QDate(2026, 6, 14), 35}, {1990, 6, 15, QDate(2026, 6, 15), 36},
               {1990, 12, 31, QDate(2027, 1, 1), 36}, {1992, 2, 29, QDate(2025, 12, 31), 33},
               {1992, 2, 29, QDate(2026, 1, 1), 34},  {1992, 2, 29, QDate(2028, 2, 28), 35},
               {1992, 2, 29, QDate(2028, 2, 29), 36}, {2026, 6, 15, QDate(2026, 6, 15), 0}};
  for (const auto& c : cases) {
    storeBirth(c.year, c.month, c.day);
    seed({{kOwn, "7", "age", "99"}});
    *today = c.today;
    const std::string what = std::to_string(c.year) + "-" + std::to_string(c.month) + "-" +
                             std::to_string(c.day) + " on " + c.today.toString().toStdString();
    EXPECT_EQ(describe(store->get(7, "age", kOwn)), "i:" + std::to_string(c.age)) << what;
    EXPECT_EQ(stored(kOwn, 7, "age"), Strings{std::to_string(c.age)}) << what;
  }
  EXPECT_TRUE(logs().empty());
}

TEST_F(AgeTest, WithoutAValidBirthDateTheReasonIsLoggedAndTheStoredAgeOrNothingIsRead) {
  const std::string year = "User's birth year not valid, can't determine age";
  const std::string date = "User's birth date is not valid, can't determine age";
  const struct {
    Rows birth;
    std::string reason;
  } cases[] = {
      {{}, year},
      {{{kOwn, "7", "birthmonth", "2"}, {kOwn, "7", "birthday", "2"}}, year},
      {{{kOwn, "7", "birthyear", "1990"}}, "User's birth month not valid, can't determine age"},
      {{{kOwn, "7", "birthyear", "1990"}, {kOwn, "7", "birthmonth", "2"}},
       "User's birth day not valid, can't determine age"},
      {{{kOwn, "7", "birthyear", "1990"},
        {kOwn, "7", "birthmonth", "2"},
        {kOwn, "7", "birthday", "30"}},
       date},
      {{{kOwn, "7", "birthyear", "1991"},
        {kOwn, "7", "birthmonth", "2"},
        {kOwn, "7", "birthday", "29"}},
       date},
      {{{kOwn, "7", "birthyear", "0"},
        {kOwn, "7", "birthmonth", "1"},
        {kOwn, "7", "birthday", "1"}},
       date}};
  for (const auto& c : cases) {
    for (const bool ageStored : {false, true}) {
      triplets->inner().remove(kOwn, "7", "?", "?");
      seed(c.birth);
      if (ageStored) {
        seed({{kOwn, "7", "age", "41"}});
      }
      capture.clear();
      EXPECT_EQ(describe(store->get(7, "age", kOwn)), ageStored ? "i:41" : ":") << c.reason;
      EXPECT_EQ(logs(), LogLines{warning(c.reason)});
      EXPECT_EQ(stored(kOwn, 7, "age"), ageStored ? Strings{"41"} : Strings{});
    }
  }
}

TEST_F(AgeTest, AFutureBirthDateGivesANegativeAgeThatIsRefusedByTheWriteAndOnlyReturned) {
  storeBirth(2030, 1, 1);
  EXPECT_EQ(store->xComputeAgeInfo(7), -4);
  EXPECT_EQ(logs(),
            LogLines{storeLine(LogLevel::Warning, "xCheckDataRange", "age can't be a negative")});
  EXPECT_EQ(stored(kOwn, 7, "age"), Strings{});
  EXPECT_EQ(describe(store->get(7, "age", kOwn)), "i:-4");
  // Later this year: the computed -1 means "no age", so the stored one is read.
  storeBirth(2026, 12, 31);
  seed({{kOwn, "7", "age", "41"}});
  EXPECT_EQ(describe(store->get(7, "age", kOwn)), "i:41");
}

TEST_F(AgeTest, ABirthDatumStoredButNotAnIntegerFailsTheAgeWithTheConversionError) {
  const struct {
    const char* what;
    Rows spoil;
    std::string untypedName;
  } cases[] = {{"a month that does not parse", {{kOwn, "7", "birthmonth", "June"}}, ""},
               {"a year without a type record", {}, "birthyear"}};
  for (const auto& c : cases) {
    store = makeStore();  // declares the types again
    storeBirth(1990, 6, 15);
    seed({{kOwn, "7", "age", "41"}});
    seed(c.spoil);
    if (!c.untypedName.empty()) {
      triplets->inner().remove(kOwn, c.untypedName, "rangeType", "?");
    }
    capture.clear();
    EXPECT_THROW(store->get(7, "age", kOwn), ka::ConversionError) << c.what;
    EXPECT_EQ(stored(kOwn, 7, "age"), Strings{"41"}) << c.what;
    EXPECT_EQ(logs().size(), c.untypedName.empty() ? 0u : 1u) << c.what;
  }
}

TEST_F(AgeTest, OnlyTheExactNameInTheServiceDomainIsComputed) {
  storeBirth(1990, 6, 15);
  seed({{kOther, "7", "age", "12"}, {kOther, "age", "rangeType", "int"}});
  EXPECT_EQ(describe(store->get(7, "age", kOther)), "i:12");
  EXPECT_EQ(describe(store->get(7, "Age", kOwn)), ":");
  EXPECT_EQ(describe(store->get(7, "age ", kOwn)), ":");
}

// --- Several threads at once --------------------------------------------------------------------

TEST_F(DataStoreTest, ConcurrentWritesReadsAndTypeLookupsStayConsistent) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 100;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string domain = "com.example.d" + std::to_string(t);
      for (int i = 0; i < kRounds; ++i) {
        // A 64-bit write into another domain may enter a new type name while others look up.
        failures += !store->set(t, "steps", AnyValue(std::int64_t{i}), domain);
        failures += !store->update(t, "birthyear", AnyValue(1900 + i));
        failures += describe(store->get(t, "birthyear", kOwn)) != "i:" + std::to_string(1900 + i);
        try {
          (void)store->xCheckDataRange("steps", AnyValue(std::int64_t{i}));
        } catch (const std::out_of_range&) {
          // Before the first 64-bit write has entered its type name.
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures.load(), 0);
  EXPECT_TRUE(store->xCheckDataRange("steps", AnyValue(std::int64_t{1})));
}

}  // namespace
}  // namespace userinfo_test
