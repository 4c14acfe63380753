// Command-line arguments to values and values to JSON, in-process: the tables a user relies on
// when typing arguments and reading results.

#include "argument_parser.hpp"
#include "interface_printer.hpp"
#include "type_code_samples.hpp"
#include "value_printer.hpp"

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/signaturetype.hpp>
#include <ka/valuekinds.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace {

using kacli::ArgumentError;
using kacli::formatResult;
using kacli::parseArgument;
using kacli::toJsonText;

struct Row {
  std::string argument;
  std::string signature;  // the value's own signature (a dynamic value shows "m")
  std::string json;       // how it prints back
};

void expectRows(const std::vector<Row>& rows) {
  for (const auto& row : rows) {
    SCOPED_TRACE(row.argument);
    ka::AnyValue value;
    ASSERT_NO_THROW(value = parseArgument(row.argument));
    ASSERT_TRUE(value.isValid());
    EXPECT_EQ(value.signature().toString(), row.signature);
    EXPECT_EQ(toJsonText(value), row.json);
  }
}

std::string failureOf(const std::string& argument) {
  try {
    parseArgument(argument);
  } catch (const ArgumentError& e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(KacliArguments, IntegersAre32BitWhenTheyFitAnd64BitOtherwise) {
  expectRows({
      {"0", "i", "0"},
      {"2147483647", "i", "2147483647"},
      {"-2147483648", "i", "-2147483648"},
      {"2147483648", "l", "2147483648"},
      {"-2147483649", "l", "-2147483649"},
      {"9223372036854775807", "l", "9223372036854775807"},
      {"-9223372036854775808", "l", "-9223372036854775808"},
      {"18446744073709551615", "L", "18446744073709551615"},
  });
}

TEST(KacliArguments, OtherJsonTextsTakeTheirNaturalSignature) {
  expectRows({
      {"1.5", "d", "1.5"},
      {"1.0", "d", "1.0"},
      {"-2e3", "d", "-2000.0"},
      {"true", "b", "true"},
      {"false", "b", "false"},
      {"\"x y\"", "s", "\"x y\""},
      {"\"\"", "s", "\"\""},
      {"\"caf\xc3\xa9\"", "s", "\"caf\xc3\xa9\""},
      {"[1,2,3]", "[i]", "[1,2,3]"},
      {"[\"a\",\"b\"]", "[s]", "[\"a\",\"b\"]"},
      {"[[1],[2,3]]", "[[i]]", "[[1],[2,3]]"},
      {"[1,\"a\"]", "[m]", "[1,\"a\"]"},
      {"[1,5000000000]", "[m]", "[1,5000000000]"},
      {"[]", "[m]", "[]"},
      {"[null,1]", "[m]", "[null,1]"},
      {"{\"a\":1,\"b\":[true]}", "{sm}", "{\"a\":1,\"b\":[true]}"},
      {"{}", "{sm}", "{}"},
  });
}

TEST(KacliArguments, APrefixForcesTheSignature) {
  expectRows({
      {"l:42", "l", "42"},
      {"L:18446744073709551615", "L", "18446744073709551615"},
      {"c:-128", "c", "-128"},
      {"C:255", "C", "255"},
      {"w:-32768", "w", "-32768"},
      {"W:65535", "W", "65535"},
      {"I:4294967295", "I", "4294967295"},
      {"d:1", "d", "1.0"},
      {"f:0.5", "f", "0.5"},
      {"b:true", "b", "true"},
      {"b:1", "b", "true"},
      {"i:true", "i", "1"},
      {"s:42", "s", "\"42\""},
      {"s:hello world", "s", "\"hello world\""},
      {"s:\"quoted\"", "s", "\"quoted\""},
      {"s:", "s", "\"\""},
      {"s:a:b", "s", "\"a:b\""},
      {"[s]:[\"a\",\"b\"]", "[s]", "[\"a\",\"b\"]"},
      {"[l]:[1,2]", "[l]", "[1,2]"},
      {"[m]:[1,2]", "[m]", "[1,2]"},
      {"(is):[1,\"a\"]", "(is)", "[1,\"a\"]"},
      {"{is}:{\"1\":\"a\",\"-2\":\"b\"}", "{is}", "[[-2,\"b\"],[1,\"a\"]]"},
      {"{is}:[[1,\"a\"]]", "{is}", "[[1,\"a\"]]"},
      {"{sl}:{\"x\":7}", "{sl}", "{\"x\":7}"},
      {"m:42", "m", "42"},
      {"m:null", "m", "null"},
      {"[(sd)]:[[\"a\",1]]", "[(sd)]", "[[\"a\",1.0]]"},
  });
  EXPECT_EQ(parseArgument("m:42").signature(true).toString(), "i");
  EXPECT_EQ(parseArgument("v:null").signature().toString(), "v");
}

TEST(KacliArguments, APrefixThatTheJsonDoesNotFitIsRefusedWithTheReason) {
  EXPECT_EQ(failureOf("i:\"x\""), "Cannot convert 's' to 'i': no conversion from string to int");
  EXPECT_EQ(failureOf("i:4294967296"), "Cannot convert 'l' to 'i': 4294967296 is out of range");
  EXPECT_EQ(failureOf("i:2147483648"), "Cannot convert 'l' to 'i': 2147483648 is out of range");
  EXPECT_NE(failureOf("i:1.5"), "(accepted)");
  EXPECT_NE(failureOf("c:128"), "(accepted)");
  EXPECT_NE(failureOf("I:-1"), "(accepted)");
  EXPECT_NE(failureOf("b:2"), "(accepted)");
  EXPECT_EQ(failureOf("d:\"1\""), "Cannot convert 's' to 'd': no conversion from string to float");
  EXPECT_EQ(failureOf("[i]:{\"a\":1}"), "'[i]' expects an array, got an object");
  EXPECT_EQ(failureOf("[i]:[1,\"a\"]"),
            "Cannot convert 's' to 'i': no conversion from string to int");
  EXPECT_EQ(failureOf("i:[1]"), "'i' expects an integer or a boolean, got an array");
  EXPECT_EQ(failureOf("(is):[1]"), "'(is)' expects an array of 2 elements, got 1");
  EXPECT_EQ(failureOf("{is}:{\"x\":\"a\"}"), "map key \"x\" is not valid JSON for 'i'");
  EXPECT_EQ(failureOf("{is}:[[1]]"), "'{is}' from an array expects [key, value] pairs");
  EXPECT_EQ(failureOf("[s]:[1]"), "'s' expects a string, got an integer");
  EXPECT_EQ(failureOf("v:1"), "'v' expects null, got an integer");
  EXPECT_EQ(failureOf("o:null"), "an object ('o') cannot be given on the command line");
}

TEST(KacliArguments, MalformedJsonAndUnknownPrefixesAreRefused) {
  for (const std::string bad : {"x", "{\"a\":", "[1,", "'single'", "", "1 2", "tru"}) {
    SCOPED_TRACE(bad);
    const std::string failure = failureOf(bad);
    EXPECT_EQ(failure.rfind(
                  "'" + bad + "' is not valid JSON (strings need quotes or the prefix s:): ", 0),
              0u)
        << failure;
  }
  EXPECT_EQ(failureOf("q:5"), "'q' is not a valid signature");
  EXPECT_EQ(failureOf("[i:5"), "'[i' is not a valid signature");
  EXPECT_EQ(failureOf("X:5"), "'X' names no type that a value can be given for");
  EXPECT_EQ(failureOf("l:").rfind("'' is not valid JSON", 0), 0u);
}

TEST(KacliArguments, JsonTextsWithColonsAreNotTakenForPrefixes) {
  expectRows({
      {"{\"k:v\":1}", "{sm}", "{\"k:v\":1}"},
      {"\"a:b\"", "s", "\"a:b\""},
      {"[\"i:1\"]", "[s]", "[\"i:1\"]"},
  });
}

// Values that only a method can produce (a call from the command line cannot build them all).
TEST(KacliResults, EverySignaturePrintsAsJson) {
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::numeric_limits<std::uint64_t>::max())),
            "18446744073709551615");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::numeric_limits<std::int64_t>::min())),
            "-9223372036854775808");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::uint8_t{200})), "200");
  EXPECT_EQ(toJsonText(parseArgument("[b]:[true,false]")), "[true,false]");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::nan(""))), "null");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::map<int, std::string>{{2, "b"}, {1, "a"}})),
            "[[1,\"a\"],[2,\"b\"]]");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::map<std::string, std::vector<int>>{{"x", {1}}})),
            "{\"x\":[1]}");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::make_tuple(1, std::string("a"), 2.5))),
            "[1,\"a\",2.5]");
  EXPECT_EQ(
      toJsonText(ka::AnyValue::make(std::vector<ka::AnyValue>{ka::AnyValue(), ka::AnyValue(3)})),
      "[null,3]");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(ka::AnyValue::make(ka::AnyValue(std::string("in"))))),
            "\"in\"");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::string("quote\" and \\ and \n"))),
            "\"quote\\\" and \\\\ and \\n\"");
}

// Every row of ka's type codes prints, and what it prints reads back as the same value when given
// with its signature; a type code without a row here fails.
TEST(KacliResults, EveryTypeCodePrintsAndReadsBackWithItsSignature) {
  const std::map<char, std::string> printed{
      {'v', "null"}, {'b', "true"},      {'c', "1"},         {'C', "1"},         {'w', "1"},
      {'W', "1"},    {'i', "1"},         {'I', "1"},         {'l', "1"},         {'L', "1"},
      {'f', "1.0"},  {'d', "1.0"},       {'s', "\"a\""},     {'m', "1"},         {'o', "null"},
      {'[', "[1]"},  {'{', "{\"a\":1}"}, {'(', "[1,\"a\"]"}, {'X', "\"<opaque"},
  };
  const auto samples = ka_test::typeCodeSamples();
  for (const ka::TypeCodeInfo& row : ka::kTypeCodes) {
    SCOPED_TRACE(std::string(1, row.code));
    ASSERT_EQ(samples.count(row.code), 1u);
    ASSERT_EQ(printed.count(row.code), 1u);
    const ka::AnyValue& sample = samples.at(row.code);
    const std::string text = toJsonText(sample);
    EXPECT_EQ(text.rfind(printed.at(row.code), 0), 0u) << text;
    if (row.kind == ka::TypeKind::Object || row.kind == ka::TypeKind::Unknown) {
      EXPECT_THROW(kacli::typedValue(kacli::toJson(sample), sample.type()), ArgumentError);
    } else {
      EXPECT_TRUE(kacli::typedValue(kacli::toJson(sample), sample.type()) == sample);
    }
  }
}

TEST(KacliResults, StringsThatAreNotUtf8PrintAsBase64) {
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::string("\xff\x00\x01", 3))), "\"base64:/wAB\"");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::string("\xc3"))), "\"base64:ww==\"");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::string("\xed\xa0\x80"))),  // a surrogate
            "\"base64:7aCA\"");
  EXPECT_EQ(toJsonText(ka::AnyValue::make(std::string("\xf0\x9f\x99\x82"))),
            "\"\xf0\x9f\x99\x82\"");
}

TEST(KacliResults, TheVoidValuePrintsNothingAndTheEmptyValueNull) {
  EXPECT_FALSE(parseArgument("null").isValid());
  EXPECT_EQ(formatResult(parseArgument("null"), true), "m null");
  EXPECT_EQ(formatResult(ka::AnyValue::makeVoid(), false), std::nullopt);
  EXPECT_EQ(formatResult(ka::AnyValue::makeVoid(), true), "v");
  EXPECT_EQ(formatResult(ka::AnyValue(), false), "null");
  EXPECT_EQ(formatResult(ka::AnyValue::make(ka::AnyValue()), false), "null");
  EXPECT_EQ(formatResult(ka::AnyValue::make(ka::AnyValue()), true), "m null");
  EXPECT_EQ(formatResult(ka::AnyValue::make(ka::AnyValue(7)), true), "i 7");
  EXPECT_EQ(formatResult(ka::AnyValue::make(std::vector<std::string>{"a"}), true), "[s] [\"a\"]");
}

TEST(KacliInterface, MethodsAndSignalsPrintSortedWithTheirSignatures) {
  ka::DynamicObjectBuilder builder;
  builder.advertiseMethod("zeta", [](int) {});
  builder.advertiseMethod("alpha", [](const std::string& s) { return s; });
  builder.advertiseMethod("alpha", [](int a, int b) { return a + b; });
  builder.advertiseSignal<int, std::string>("changed");
  builder.advertiseSignal<>("beat");
  const ka::AnyObject object = builder.object();
  EXPECT_EQ(
      kacli::describeInterface(object->metaObject()),
      (std::vector<std::string>{"method alpha(ii) -> i", "method alpha(s) -> s",
                                "method zeta(i) -> v", "signal beat()", "signal changed(is)"}));
}

}  // namespace
