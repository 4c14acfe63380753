#include <ka/anyvalue.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace {

template <typename T>
std::string sigOf() {
  return ka::typeOf<T>()->signature().toString();
}

// The letter of each basic type is checked with every value kind (value_kinds_test.cpp).
TEST(TypeSignature, NamesIntegersByWidthAndComposesNestedContainers) {
  EXPECT_EQ(sigOf<long long>() + sigOf<unsigned long long>() + sigOf<unsigned int>(), "lLI");
  EXPECT_EQ((sigOf<std::map<std::string, ka::AnyValue>>()), "{sm}");
  EXPECT_EQ((sigOf<std::vector<std::vector<std::string>>>()), "[[s]]");
  EXPECT_EQ((sigOf<std::map<int, std::vector<std::tuple<double, std::int64_t>>>>()), "{i[(dl)]}");
  EXPECT_EQ((sigOf<std::pair<std::string, unsigned>>()), "(sI)");
  EXPECT_EQ(sigOf<std::tuple<>>(), "()");
}

TEST(TypeSignature, ValidatesAndSplitsText) {
  EXPECT_TRUE(ka::Signature("{s[(il)]}").isValid());
  EXPECT_TRUE(ka::Signature("()").isValid());
  for (const std::string text :
       {"", "[i", "{s}", "ii", "q", "[]", "[ii]", "{sis}", "(i]", "[i]]"}) {
    EXPECT_FALSE(ka::Signature(text).isValid()) << text;
  }
  EXPECT_FALSE(ka::Signature(std::string("(i\0)", 4)).isValid());
  EXPECT_TRUE(ka::Signature("(()[(i)]{[s]{im}})").isValid());
  // Texts come from peers: their nesting must not be limited by the parser's stack.
  const std::size_t deep = 1u << 20;
  EXPECT_TRUE(ka::Signature(std::string(deep, '[') + "i" + std::string(deep, ']')).isValid());
  EXPECT_FALSE(ka::Signature("(" + std::string(deep, '[') + ")").isValid());
  const auto children = ka::Signature("(i[s]{sm})").children();
  ASSERT_EQ(children.size(), 3u);
  EXPECT_EQ(children[1].toString(), "[s]");
  EXPECT_EQ(children[2].toString(), "{sm}");
}

TEST(ValueKinds, InvalidValueRefusesToAnswerItsKind) {
  const ka::AnyValue empty;
  EXPECT_FALSE(empty.isValid());
  EXPECT_EQ(empty.signature().toString(), "");
  EXPECT_THAT([&] { (void)empty.kind(); },
              testing::ThrowsMessage<std::runtime_error>(
                  testing::StrEq("Can't take the kind of an invalid value")));
}

TEST(VoidValue, IsValidTypedAndDistinctFromTheEmptyValue) {
  const ka::AnyValue v = ka::AnyValue::makeVoid();
  EXPECT_TRUE(v.isValid());
  EXPECT_EQ(v.kind(), ka::TypeKind::Void);
  EXPECT_EQ(v.signature().toString(), "v");
  EXPECT_NE(v.rawValue(), nullptr);
  EXPECT_NE(v, ka::AnyValue());
  const ka::AnyValue copy = v;
  EXPECT_EQ(copy, v);
  EXPECT_NE(copy.rawValue(), v.rawValue()) << "a copy owns storage of its own";
}

TEST(ValueEquality, ComparesStructurallyAndDynamicValuesByWhatTheyHold) {
  EXPECT_EQ(ka::AnyValue(std::vector<int>{1, 2}), ka::AnyValue(std::vector<int>{1, 2}));
  EXPECT_NE(ka::AnyValue(std::vector<int>{1, 2}), ka::AnyValue(std::vector<int>{2, 1}));
  EXPECT_NE(ka::AnyValue(1), ka::AnyValue(std::int64_t{1})) << "different types are not equal";
  EXPECT_EQ(ka::AnyValue::make(ka::AnyValue("a")), ka::AnyValue("a"));
  const ka::AnyValue nothing = ka::AnyValue::make(ka::AnyValue());
  EXPECT_EQ(nothing, ka::AnyValue::make(ka::AnyValue()));
  EXPECT_NE(nothing, ka::AnyValue::make(ka::AnyValue::makeVoid()));
  EXPECT_EQ(ka::AnyValue::make(ka::AnyValue(7)), ka::AnyValue(7));
  EXPECT_NE(ka::AnyValue::make(ka::AnyValue(7)), ka::AnyValue(std::int64_t{7}));
}

TEST(ValueCopy, IsDeepAndIndependent) {
  ka::AnyValue a(std::vector<std::string>{"x", "y"});
  ka::AnyValue b = a;
  static_cast<std::vector<std::string>*>(b.rawValue())->push_back("z");
  EXPECT_EQ(a.size(), 2u);
  EXPECT_EQ(b.size(), 3u);
  ka::AnyValue moved = std::move(b);
  EXPECT_FALSE(b.isValid());  // NOLINT(bugprone-use-after-move): moved-from is empty by contract
  EXPECT_EQ(moved.size(), 3u);
}

TEST(IntConversion, SucceedsWithinRangeAndFailsOutsideNamingBothSignatures) {
  EXPECT_EQ(ka::AnyValue(std::int64_t{2147483647}).to<int>(), 2147483647);
  EXPECT_EQ(ka::AnyValue(std::int64_t{-2147483648LL}).to<int>(), -2147483647 - 1);
  EXPECT_EQ(ka::AnyValue(255).to<std::uint8_t>(), 255);
  EXPECT_EQ(ka::AnyValue(std::numeric_limits<std::uint64_t>::max()).to<std::uint64_t>(),
            std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(ka::AnyValue(-5).to<std::int64_t>(), -5);
  try {
    ka::AnyValue(std::int64_t{5000000000}).to<int>();
    FAIL() << "5000000000 does not fit in 32 bits";
  } catch (const ka::ConversionError& e) {
    EXPECT_EQ(e.from(), "l");
    EXPECT_EQ(e.to(), "i");
    EXPECT_NE(std::string(e.what()).find("5000000000"), std::string::npos) << e.what();
  }
  EXPECT_THROW(ka::AnyValue(-1).to<unsigned>(), ka::ConversionError);
  EXPECT_THROW(ka::AnyValue(256).to<std::uint8_t>(), ka::ConversionError);
  EXPECT_THROW(ka::AnyValue(std::numeric_limits<std::uint64_t>::max()).to<std::int64_t>(),
               ka::ConversionError);
  EXPECT_THROW(ka::AnyValue(-129).to<std::int8_t>(), ka::ConversionError);
  EXPECT_EQ(ka::AnyValue(4.0).toInt64(), 4);
  EXPECT_THROW(ka::AnyValue(std::numeric_limits<std::uint64_t>::max()).toInt64(),
               ka::ConversionError);
  EXPECT_THROW(ka::AnyValue("1").toInt64(), ka::ConversionError);
}

TEST(ScalarConversion, BoolGoesToIntegersZeroAndOneAndStringsOnlyToStrings) {
  EXPECT_EQ(ka::AnyValue(true).to<int>(), 1);
  EXPECT_EQ(ka::AnyValue(false).to<std::int64_t>(), 0);
  EXPECT_TRUE(ka::AnyValue(1).to<bool>());
  EXPECT_FALSE(ka::AnyValue(0).to<bool>());
  EXPECT_THROW(ka::AnyValue(2).to<bool>(), ka::ConversionError);
  EXPECT_THROW(ka::AnyValue(-1).to<bool>(), ka::ConversionError);
  EXPECT_EQ(ka::AnyValue("abc").to<std::string>(), "abc");
  const std::string withNul("a\0b", 3);
  EXPECT_EQ(ka::AnyValue(withNul).to<std::string>(), withNul);
}

TEST(FloatConversion, ConvertsExactValuesOnlyAndRefusesLoss) {
  EXPECT_EQ(ka::AnyValue(3.0).to<int>(), 3);
  EXPECT_DOUBLE_EQ(ka::AnyValue(7).to<double>(), 7.0);
  EXPECT_FLOAT_EQ(ka::AnyValue(2.5).to<float>(), 2.5f);
  EXPECT_THROW(ka::AnyValue(3.5).to<int>(), ka::ConversionError);
  EXPECT_THROW(ka::AnyValue(1e10).to<int>(), ka::ConversionError);
  EXPECT_THROW(ka::AnyValue(9.3e18).to<std::int64_t>(), ka::ConversionError);
  EXPECT_THROW(ka::AnyValue(std::numeric_limits<double>::quiet_NaN()).to<int>(),
               ka::ConversionError);
  EXPECT_THROW(ka::AnyValue(1e300).to<float>(), ka::ConversionError);
  EXPECT_DOUBLE_EQ(ka::AnyValue(std::int64_t{1} << 53).to<double>(), 9007199254740992.0);
  EXPECT_THROW(ka::AnyValue((std::int64_t{1} << 53) + 1).to<double>(), ka::ConversionError);
  EXPECT_THROW(ka::AnyValue(16777217).to<float>(), ka::ConversionError);
  EXPECT_FLOAT_EQ(ka::AnyValue(16777216).to<float>(), 16777216.0f);
  EXPECT_THROW(ka::AnyValue(std::numeric_limits<std::uint64_t>::max()).to<double>(),
               ka::ConversionError);
  EXPECT_DOUBLE_EQ(ka::AnyValue(std::numeric_limits<std::int64_t>::min()).to<double>(),
                   -9223372036854775808.0);
}

TEST(ContainerConversion, ConvertsElementWiseAndFailsWhenOneElementFails) {
  const ka::AnyValue longs(std::vector<std::int64_t>{1, 2, 3});
  EXPECT_EQ(longs.to<std::vector<int>>(), (std::vector<int>{1, 2, 3}));
  const ka::AnyValue m(std::map<std::string, int>{{"a", 1}, {"b", 2}});
  const auto asDouble = m.to<std::map<std::string, double>>();
  EXPECT_DOUBLE_EQ(asDouble.at("b"), 2.0);
  const ka::AnyValue t(std::make_tuple(std::int64_t{7}, std::string("x")));
  EXPECT_EQ((t.to<std::tuple<int, std::string>>()), std::make_tuple(7, std::string("x")));
  EXPECT_THROW(ka::AnyValue(std::vector<std::int64_t>{1, 5000000000}).to<std::vector<int>>(),
               ka::ConversionError);
  EXPECT_THROW((ka::AnyValue(std::make_tuple(1, 2)).to<std::tuple<int, int, int>>()),
               ka::ConversionError);
}

TEST(DynamicConversion, WrapsAndUnwrapsButNothingConvertsToNoInt) {
  const ka::AnyValue wrapped = ka::AnyValue(5).to<ka::AnyValue>();
  EXPECT_EQ(wrapped.signature().toString(), "i");
  const ka::AnyValue dyn = ka::AnyValue::make(ka::AnyValue(std::int64_t{9}));
  EXPECT_EQ(dyn.to<int>(), 9);
  EXPECT_EQ(dyn.to<ka::AnyValue>().signature().toString(), "l");
  const ka::AnyValue holdsNothing = ka::AnyValue::make(ka::AnyValue());
  EXPECT_FALSE(holdsNothing.to<ka::AnyValue>().isValid());
  EXPECT_THROW(holdsNothing.to<int>(), ka::ConversionError);
  const ka::AnyValue list(std::vector<ka::AnyValue>{ka::AnyValue(1), ka::AnyValue(2)});
  EXPECT_EQ(list.to<std::vector<int>>(), (std::vector<int>{1, 2}));
  EXPECT_THROW(ka::AnyValue().to<int>(), ka::ConversionError);
}

TEST(ValueAccess, IndexesListsTuplesAndMaps) {
  const ka::AnyValue t(std::make_tuple(1, std::string("two")));
  EXPECT_EQ(t[1].toString(), "two");
  EXPECT_THROW(t[2], std::out_of_range);
  const ka::AnyValue m(std::map<std::string, int>{{"k", 3}});
  const auto entries = m.mapEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].first.toString(), "k");
  EXPECT_EQ(entries[0].second.toInt64(), 3);
  EXPECT_THROW(ka::AnyValue(1).size(), std::runtime_error);
}

}  // namespace
