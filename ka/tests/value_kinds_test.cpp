// Every value kind through every layer: each row of the kind tables has a signature, travels
// through the codec, converts as its kind says and is named in refusals. A row added without
// its sample here, or a layer that does not handle it, fails these tests.

#include "type_code_samples.hpp"

#include <ka/signaturetype.hpp>
#include <ka/valuebytes.hpp>
#include <ka/valuekinds.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>

namespace {

using ka::AnyValue;
using ka::TypeCodeInfo;

class EveryTypeCode : public testing::TestWithParam<TypeCodeInfo> {
 protected:
  const AnyValue& sample() const {
    static const std::map<char, AnyValue> samples = ka_test::typeCodeSamples();
    const auto it = samples.find(GetParam().code);
    if (it == samples.end()) {
      throw std::logic_error(std::string("type_code_samples.hpp has no sample for '") +
                             GetParam().code + "'");
    }
    return it->second;
  }
  std::string signature() const { return sample().signature().toString(); }
};

std::string codeName(const testing::TestParamInfo<TypeCodeInfo>& info) {
  static const std::map<char, std::string> brackets{{'[', "list"}, {'{', "map"}, {'(', "tuple"}};
  const char c = info.param.code;
  const auto bracket = brackets.find(c);
  return bracket != brackets.end() ? bracket->second
                                   : std::string(1, c) + (c >= 'a' ? "_lower" : "_upper");
}

TEST_P(EveryTypeCode, HasASignatureThatGivesBackATypeOfItsKind) {
  const TypeCodeInfo& row = GetParam();
  EXPECT_EQ(sample().kind(), row.kind);
  EXPECT_EQ(signature()[0], row.code);
  if (row.kind == ka::TypeKind::Unknown) {
    EXPECT_THROW(ka::typeFromSignature(sample().signature()), std::invalid_argument);
    return;
  }
  const ka::TypeInterface* type = ka::typeFromSignature(sample().signature());
  ASSERT_NE(type, nullptr) << "no type for " << signature();
  EXPECT_EQ(type->kind(), row.kind);
  EXPECT_EQ(type->signature(), sample().signature());
}

TEST_P(EveryTypeCode, TravelsThroughTheCodecKeepingValueAndSignature) {
  if (GetParam().wireForms == 0) {
    EXPECT_THROW(ka::encodeValueWithSignature(sample()), std::runtime_error);
    return;
  }
  const std::string bytes = ka::encodeValueWithSignature(sample());
  const AnyValue back = ka::decodeValueWithSignature(bytes.data(), bytes.size());
  // A dynamic value travels as what it holds.
  const ka::AnyReference expected =
      sample().kind() == ka::TypeKind::Dynamic ? sample().content() : sample().asReference();
  EXPECT_EQ(back.signature(), expected.signature());
  EXPECT_TRUE(back == expected);
}

// The msgpack bytes of one object of each form.
const std::map<std::uint16_t, std::string> kFormBytes{
    {ka::kWireNil, "\xc0"},
    {ka::kWireBool, "\xc3"},
    {ka::kWireInteger, "\x01"},
    {ka::kWireFloat, std::string("\xca\x3f\x80\x00\x00", 5)},
    {ka::kWireStr, "\xa1x"},
    {ka::kWireBin, std::string("\xc4\x01x", 3)},
    {ka::kWireArray, "\x90"},
    {ka::kWireMap, "\x80"},
    {ka::kWireExt, std::string("\xd4\x01\x00", 3)},
};

TEST_P(EveryTypeCode, IsRefusedInEveryFormItDoesNotAcceptSayingWhatWasExpected) {
  const TypeCodeInfo& row = GetParam();
  if (row.wireForms == 0 || row.wireForms == ka::kWireAny) {
    return;  // never read, or read as anything
  }
  // Inside a list, so that a dynamic value can be the expected type too.
  const std::string list = "[" + signature() + "]";
  for (const auto& [form, bytes] : kFormBytes) {
    if ((row.wireForms & form) != 0) {
      continue;
    }
    // [list signature, [bytes]]
    const std::string value =
        "\x92" + std::string(1, static_cast<char>(0xa0 | list.size())) + list + "\x91" + bytes;
    EXPECT_THAT([&] { ka::decodeValueWithSignature(value.data(), value.size()); },
                testing::ThrowsMessage<std::runtime_error>(testing::AllOf(
                    testing::HasSubstr("expected " + signature() + " (" + row.name + "), got"),
                    testing::HasSubstr(row.layout))))
        << "form " << form;
  }
}

TEST_P(EveryTypeCode, ConvertsToItsOwnKindAndNumbersToEachOtherOnly) {
  const TypeCodeInfo& from = GetParam();
  // Values of a type with no middleware meaning are equal only to themselves, so for them the
  // conversions are only required to succeed.
  const bool comparable = from.kind != ka::TypeKind::Unknown;
  const AnyValue throughDynamic = sample().convert(ka::typeOf<AnyValue>()).convert(sample().type());
  EXPECT_TRUE(!comparable || throughDynamic == sample());
  if (from.kind == ka::TypeKind::Dynamic) {
    return;  // converts as what it holds
  }
  for (const auto& [code, target] : ka_test::typeCodeSamples()) {
    const TypeCodeInfo& to = *ka::typeCodeInfo(code);
    if (to.kind == ka::TypeKind::Dynamic) {
      continue;
    }
    SCOPED_TRACE(signature() + " to " + target.signature().toString());
    const bool convertible =
        from.kind == to.kind || (ka::kindInfo(from.kind).number && ka::kindInfo(to.kind).number);
    if (convertible) {
      AnyValue converted;
      ASSERT_NO_THROW(converted = sample().convert(target.type()));
      EXPECT_TRUE(!comparable || converted == target);
    } else {
      EXPECT_THAT([&] { sample().convert(target.type()); },
                  testing::ThrowsMessage<ka::ConversionError>(testing::HasSubstr(
                      std::string("no conversion from ") + ka::kindInfo(from.kind).name + " to " +
                      ka::kindInfo(to.kind).name)));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(ValueKinds, EveryTypeCode, testing::ValuesIn(ka::kTypeCodes), codeName);

TEST(ValueKinds, TheKindTableFollowsTheEnumAndNamesEachKind) {
  for (std::size_t i = 0; i < ka::kTypeKindCount; ++i) {
    const auto kind = static_cast<ka::TypeKind>(i);
    EXPECT_EQ(ka::kKinds[i].kind, kind);
    EXPECT_STREQ(ka::toString(kind), ka::kKinds[i].name);
  }
  EXPECT_STREQ(ka::toString(static_cast<ka::TypeKind>(ka::kTypeKindCount)), "unknown");
}

}  // namespace
