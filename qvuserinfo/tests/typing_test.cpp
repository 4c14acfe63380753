// The schema declared at construction, and the typing of values on the way into and out of the
// store: rendering as text, consistency with the declared type, parsing stored text back.

#include "userdata_fixture.hpp"

#include <qverror/qverror.hpp>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>

#include <cstdint>
#include <vector>

namespace userdata_test {
namespace {

using QV::QVUserInfoPrivate;

StoreCall declaration(const std::string& key, const std::string& type) {
  return {"update", {kOwnDomain, key, "rangeType", type}};
}

TEST_F(UserDataTest, ConstructionDeclaresTheElevenBuiltInTypesOneByOneInKeyOrder) {
  const auto second = makeStore();
  EXPECT_EQ(calls(), (StoreCalls{
                         declaration("age", "int"),
                         declaration("birthday", "int"),
                         declaration("birthmonth", "int"),
                         declaration("birthyear", "int"),
                         declaration("firstencounter", "int"),
                         declaration("fullname", "string"),
                         declaration("gender", "string"),
                         declaration("lastseen", "int"),
                         declaration("name", "string"),
                         declaration("pronunciation", "string"),
                         declaration("timefocuse", "int"),
                     }));
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, ConstructionWithoutAKnowledgeObjectThrowsBeforeAnyCall) {
  for (const auto& empty :
       {QVUserInfoPrivate::KnowledgeHandle(), boost::make_shared<ka::AnyObject>()}) {
    try {
      QVUserInfoPrivate broken(empty);
      FAIL() << "a data store needs a knowledge object";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "This object is null");
    }
  }
  EXPECT_TRUE(calls().empty());
}

TEST_F(UserDataTest, ConstructionPassesAFailedDeclarationOnAndStopsThere) {
  knowledge.failCallsOf("update", "disk full");
  try {
    makeStore();
    FAIL() << "the declaration failed";
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "disk full");
  }
  EXPECT_EQ(calls(), (StoreCalls{declaration("age", "int")}));
}

TEST_F(UserDataTest, GetTypeAsksTheStoreEveryTimeAndKeepsTheTenLetterTimeFocusedKey) {
  struct Case {
    std::string domain, name, type;
  };
  const std::vector<Case> cases = {
      {kOwnDomain, "timefocuse", "int"},
      {kOwnDomain, "timefocused", ""},
      {kOwnDomain, "nickname", ""},
      {"com.example.other", "birthyear", ""},
  };
  for (const Case& c : cases) {
    forget();
    EXPECT_EQ(store->getType(c.domain, c.name), c.type) << c.domain << " " << c.name;
    EXPECT_EQ(calls(), (StoreCalls{{"getObject", {c.domain, c.name, "rangeType"}}}));
  }
  EXPECT_TRUE(logs().empty());
}

TEST_F(UserDataTest, ValuesOfTheThreeKindsAreRenderedAsTheirStoredText) {
  struct Case {
    const char* what;
    ka::AnyValue value;
    std::string text;
  };
  const std::vector<Case> cases = {
      {"string", ka::AnyValue(std::string("Ada")), "Ada"},
      {"negative int", ka::AnyValue(-7), "-7"},
      {"64-bit int beyond 32 bits", ka::AnyValue(std::int64_t{5000000000}), "5000000000"},
      {"smallest 64-bit int", ka::AnyValue(INT64_MIN), "-9223372036854775808"},
      {"true", ka::AnyValue(true), "1"},
      {"false", ka::AnyValue(false), "0"},
      {"dynamic value holding an int", ka::AnyValue::make(ka::AnyValue(12)), "12"},
      {"empty string", ka::AnyValue(std::string()), ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(store->xCheckTypeAndCastToString(c.value), c.text) << c.what;
  }
  EXPECT_TRUE(logs().empty());
  EXPECT_TRUE(calls().empty());
}

TEST_F(UserDataTest, ValuesOfAnyOtherKindAreRefusedWithAnError) {
  const std::vector<std::pair<const char*, ka::AnyValue>> cases = {
      {"double", ka::AnyValue(1.5)},
      {"unsigned", ka::AnyValue(3u)},
      {"16-bit", ka::AnyValue(std::int16_t{3})},
      {"list", ka::AnyValue(std::vector<std::string>{"a"})},
      {"no type at all", ka::AnyValue()},
      {"object", ka::AnyValue(knowledge.object())},
  };
  for (const auto& [what, value] : cases) {
    forget();
    EXPECT_EQ(store->xCheckTypeAndCastToString(value), "") << what;
    EXPECT_EQ(logs(),
              (LogLines{storeLine(ka::LogLevel::Error, "xCheckTypeAndCastToString",
                                  "User data can only be of type \"string\" \"int\" or \"bool\"")}))
        << what;
  }
}

TEST_F(UserDataTest, ConsistencyAcceptsTheDeclaredTypeAndWarnsOnAnyOther) {
  EXPECT_TRUE(store->xCheckTypeConsistency("birthyear", ka::AnyValue(1990), kOwnDomain));
  EXPECT_TRUE(
      store->xCheckTypeConsistency("birthyear", ka::AnyValue(std::int64_t{1990}), kOwnDomain));
  EXPECT_TRUE(store->xCheckTypeConsistency("name", ka::AnyValue(std::string("Ada")), kOwnDomain));
  EXPECT_TRUE(logs().empty());

  EXPECT_FALSE(
      store->xCheckTypeConsistency("birthyear", ka::AnyValue(std::string("1990")), kOwnDomain));
  EXPECT_FALSE(store->xCheckTypeConsistency("name", ka::AnyValue(true), kOwnDomain));
  EXPECT_FALSE(store->xCheckTypeConsistency("age", ka::AnyValue(1.5), kOwnDomain));
  EXPECT_EQ(logs(),
            (LogLines{storeLine(ka::LogLevel::Warning, "xCheckTypeConsistency",
                                "Can't set the value of \"birthyear\": a value of type int is "
                                "needed"),
                      storeLine(ka::LogLevel::Warning, "xCheckTypeConsistency",
                                "Can't set the value of \"name\": a value of type string is "
                                "needed"),
                      storeLine(ka::LogLevel::Warning, "xCheckTypeConsistency",
                                "Can't set the value of \"age\": a value of type int is needed")}));
}

TEST_F(UserDataTest, ConsistencyFailsSilentlyWhereNoTypeIsDeclared) {
  EXPECT_FALSE(store->xCheckTypeConsistency("timefocused", ka::AnyValue(5), kOwnDomain));
  EXPECT_FALSE(store->xCheckTypeConsistency("birthyear", ka::AnyValue(5), "com.example.other"));
  EXPECT_TRUE(logs().empty());
}

TEST(CastData, ReadsIntTextsByTheLexicalCastRules) {
  const std::vector<std::pair<std::string, int>> good = {{"42", 42},
                                                         {"+42", 42},
                                                         {"-0", 0},
                                                         {"007", 7},
                                                         {"-2147483648", INT32_MIN},
                                                         {"2147483647", INT32_MAX},
                                                         {"0", 0}};
  for (const auto& [text, number] : good) {
    const ka::AnyValue v = QV::QVUserInfoPrivate::castData(text, "int");
    EXPECT_EQ(v.signature().toString(), "i") << text;
    EXPECT_EQ(v.to<int>(), number) << text;
  }
  for (const std::string text : {" 42", "42 ", "4 2", "0x10", "-", "+", "", "2147483648",
                                 "-2147483649", "5000000000", "1.0", "++1", "abc"}) {
    EXPECT_THROW(QV::QVUserInfoPrivate::castData(text, "int"), boost::bad_lexical_cast) << text;
  }
}

TEST(CastData, ReadsBoolTextsByTheLexicalCastRules) {
  const std::vector<std::pair<std::string, bool>> good = {
      {"1", true},  {"01", true},  {"+1", true},   {"0001", true},
      {"0", false}, {"-0", false}, {"000", false}, {"+0", false}};
  for (const auto& [text, truth] : good) {
    const ka::AnyValue v = QV::QVUserInfoPrivate::castData(text, "bool");
    EXPECT_EQ(v.signature().toString(), "b") << text;
    EXPECT_EQ(v.to<bool>(), truth) << text;
  }
  for (const std::string text : {"true", "false", "2", "10", "-1", "", " 1", "1 ", "+", "-"}) {
    EXPECT_THROW(QV::QVUserInfoPrivate::castData(text, "bool"), boost::bad_lexical_cast) << text;
  }
}

TEST(CastData, RefusesUnknownTypeNamesWithModuleAndMethodSwapped) {
  for (const std::string type : {"float", "Int", "", "string ", "l"}) {
    try {
      QV::QVUserInfoPrivate::castData("1", type);
      FAIL() << type;
    } catch (const QV::QVError& e) {
      EXPECT_EQ(e.module(), "castData");
      EXPECT_EQ(e.method(), "QVUserInfoPrivate");
      EXPECT_EQ(e.description(), "Unsupported data type");
      EXPECT_EQ(e.file(), "");
      EXPECT_EQ(e.line(), 0u);
    }
  }
}

}  // namespace
}  // namespace userdata_test
