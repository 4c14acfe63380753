// Values through the wire codec and types built from signature texts: what one process writes,
// another reads back with the same signature, and bytes from a peer never crash, hang or
// allocate beyond what they carry.

#include "wire/value_codec.hpp"

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/object.hpp>
#include <ka/signaturetype.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using ka::AnyReference;
using ka::AnyValue;
using ka::Signature;
using ka::typeFromSignature;
using ka::wire::DecodeError;

constexpr int kWaitMs = 5000;
// Strings are bytes: a NUL and invalid UTF-8 travel unchanged.
constexpr char kNotUtf8[] = "bytes \0\xff\xfe not utf-8";

const ka::TypeInterface& typeOfText(const std::string& text) {
  return *typeFromSignature(Signature(text));
}

std::string encode(const AnyReference& value, ka::wire::ObjectCodec* objects = nullptr) {
  msgpack::sbuffer buffer;
  ka::wire::Packer pk(buffer);
  ka::wire::packValue(pk, value, objects);
  return std::string(buffer.data(), buffer.size());
}

AnyValue decode(const std::string& bytes, const std::string& signature,
                ka::wire::ObjectCodec* objects = nullptr) {
  return ka::wire::decodeValue(bytes.data(), bytes.size(), typeOfText(signature), objects);
}

std::string hex(const std::string& bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (const unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

std::string unhex(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    out += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return out;
}

// Expects decoding to fail with a text containing `part`.
void expectRefused(const std::string& bytes, const std::string& signature,
                   const std::string& part) {
  EXPECT_THAT([&] { decode(bytes, signature); },
              testing::ThrowsMessage<DecodeError>(testing::HasSubstr(part)))
      << hex(bytes) << " as " << signature;
}

AnyValue dynamic(AnyValue content) {
  return AnyValue::make(std::move(content));
}

// ---- types from signature texts ----

TEST(SignatureType, SameTextGivesTheSamePointerAndMembersAreShared) {
  const auto* list = typeFromSignature(Signature("[(i{sm})]"));
  EXPECT_EQ(list, typeFromSignature(Signature("[(i{sm})]")));
  EXPECT_EQ(list->signature().toString(), "[(i{sm})]");
  const auto* element = static_cast<const ka::ListTypeInterface*>(list)->elementType();
  EXPECT_EQ(element, typeFromSignature(Signature("(i{sm})")));
}

TEST(SignatureType, ThreadsInterningTheSameTextsAgreeOnOnePointer) {
  std::vector<std::string> texts;
  for (int i = 0; i < 50; ++i) {
    const auto n = static_cast<std::size_t>(i + 1);
    texts.push_back("[(" + std::string(n, 'i') + "{s[l]})]");
    texts.push_back("{i(" + std::string(n, 's') + "[m])}");
  }
  std::vector<std::vector<const ka::TypeInterface*>> seen(4);
  std::vector<std::thread> threads;
  for (auto& out : seen) {
    threads.emplace_back([&texts, &out] {
      for (const auto& t : texts) {
        out.push_back(typeFromSignature(Signature(t)));
      }
    });
  }
  for (auto& t : threads) {
    t.join();
  }
  for (const auto& out : seen) {
    EXPECT_EQ(out, seen[0]);
  }
}

TEST(SignatureType, InvalidTextsAndTheUnknownLetterAreRefused) {
  for (const char* text :
       {"", "[", "[i", "i]", "{i}", "{iii}", "(i", "ii", "q", "X", "[X]", "{sX}", "(iX)"}) {
    EXPECT_THROW(typeFromSignature(Signature(text)), std::invalid_argument) << text;
  }
  // A peer's text may nest without end: refused by counting, not by recursing.
  const std::string deep = std::string(100000, '[') + "i" + std::string(100000, ']');
  EXPECT_THROW(typeFromSignature(Signature(deep)), std::invalid_argument);
  const std::string ok = std::string(64, '[') + "i" + std::string(64, ']');
  EXPECT_NO_THROW(typeFromSignature(Signature(ok)));
}

TEST(SignatureType, RunTimeTypesAreNeitherEachOtherNorTheCxxContainer) {
  EXPECT_FALSE(ka::sameType(&typeOfText("[s]"), &typeOfText("[i]")));
  EXPECT_FALSE(ka::sameType(&typeOfText("[m]"), ka::typeOf<std::vector<AnyValue>>()));
  EXPECT_FALSE(ka::sameType(&typeOfText("(is)"), &typeOfText("(si)")));
}

// ---- run-time values and the C++ types ----

TEST(RunTimeValue, MapKeepsTheEntryOrderOfTheCxxMap) {
  // std::string orders bytes as unsigned: "\xff" after "a" after "B".
  const std::map<std::string, int> words{{"a", 1}, {"\xff", 2}, {"B", 3}, {"", 4}};
  const std::map<std::int64_t, bool> numbers{{-5, true}, {3, false}, {-1, true}, {1LL << 40, true}};
  const std::map<std::vector<int>, int> lists{{{1, 2}, 1}, {{1}, 2}, {{0, 9}, 3}};
  const AnyValue w = AnyReference::from(words).convert(&typeOfText("{si}"));
  const AnyValue n = AnyReference::from(numbers).convert(&typeOfText("{lb}"));
  const AnyValue l = AnyReference::from(lists).convert(&typeOfText("{[i]i}"));
  EXPECT_TRUE(w == AnyReference::from(words));
  EXPECT_TRUE(n == AnyReference::from(numbers));
  EXPECT_TRUE(l == AnyReference::from(lists));
  EXPECT_EQ((w.to<std::map<std::string, int>>()), words);
}

TEST(RunTimeValue, MapKeysOfAnyTypeHaveAStrictOrder) {
  // Dynamic keys order by their content's signature first: int32 1 and int64 1 are two keys.
  const AnyValue mixed =
      decode(unhex("83") + unhex("92a16901a161") + unhex("92a173a178a162") + unhex("92a16c01a163"),
             "{ms}");
  ASSERT_EQ(mixed.size(), 3u);
  EXPECT_EQ(mixed.mapEntries()[0].first.content().signature().toString(), "i");
  // NaN keys sort last and equal each other, so two of them are one key repeated.
  const std::string nan = unhex("cb7ff8000000000000");
  const AnyValue floats = decode(
      unhex("82") + nan + unhex("a161") + unhex("cb3ff0000000000000") + unhex("a162"), "{ds}");
  EXPECT_EQ(floats.mapEntries()[0].second.toString(), "b");
  expectRefused(unhex("82") + nan + unhex("a161") + nan + unhex("a162"), "{ds}", "repeated key");
}

TEST(RunTimeValue, FreshTupleHoldsADefaultOfEachMember) {
  const ka::TypeInterface& t = typeOfText("(is[d]m)");
  const AnyValue v(&t, t.initializeStorage(), true);
  ASSERT_EQ(v.size(), 4u);
  EXPECT_EQ(v[0].toInt64(), 0);
  EXPECT_EQ(v[1].toString(), "");
  EXPECT_EQ(v[2].size(), 0u);
  EXPECT_FALSE(v[3].content().isValid());
}

// ---- round trips ----

TEST(ValueRoundTrip, EveryValueComesBackWithItsSignatureAndTheDocumentedBytes) {
  const struct {
    AnyValue value;
    std::string bytes;    // hex, where the protocol document shows them
    std::string content;  // the signature a dynamic value's content keeps, where there is one
  } cases[] = {
      {AnyValue::makeVoid(), "", ""},
      {AnyValue(true), "", ""},
      {AnyValue(false), "", ""},
      {AnyValue(std::numeric_limits<std::int8_t>::min()), "", ""},
      {AnyValue(std::numeric_limits<std::uint8_t>::max()), "", ""},
      {AnyValue(std::numeric_limits<std::int16_t>::min()), "", ""},
      {AnyValue(std::numeric_limits<std::uint16_t>::max()), "", ""},
      {AnyValue(std::numeric_limits<std::int32_t>::min()), "", ""},
      {AnyValue(std::numeric_limits<std::uint32_t>::max()), "", ""},
      {AnyValue(std::numeric_limits<std::int64_t>::min()), "", ""},
      {AnyValue(std::numeric_limits<std::uint64_t>::max()), "", ""},
      {AnyValue(1.5f), "", ""},
      {AnyValue(-0.1), "", ""},
      // Floats stay floats on the wire even when they hold an integer, up to 2^64 and beyond.
      {AnyValue(1.0f), "ca3f800000", ""},
      {AnyValue(3.0), "cb4008000000000000", ""},
      {AnyValue(-2.0), "cbc000000000000000", ""},
      {AnyValue(18446744073709551616.0), "cb43f0000000000000", ""},
      {AnyValue(18446744073709551616.0f), "ca5f800000", ""},
      {AnyValue(-std::numeric_limits<double>::infinity()), "cbfff0000000000000", ""},
      {AnyValue(std::string(kNotUtf8, sizeof kNotUtf8 - 1)), "", ""},
      {AnyValue(7), "07", ""},
      {AnyValue(-1), "ff", ""},
      {AnyValue(std::int64_t{1} << 32), "cf0000000100000000", ""},
      {AnyValue(std::vector<std::string>{"a"}), "91a161", ""},
      {AnyValue(std::tuple<int, std::string>{-1, ""}), "92ffa0", ""},
      {AnyValue(std::map<std::string, AnyValue>{{"k", AnyValue("v")}}), "81a16b92a173a176", ""},
      // A dynamic value keeps its integer width, and void and the empty value stay distinct.
      {dynamic(AnyValue(42)), "92a1692a", "i"},
      {dynamic(AnyValue(std::int64_t{42})), "92a16c2a", "l"},
      {dynamic(AnyValue()), "c0", ""},
      {dynamic(AnyValue::makeVoid()), "92a176c0", "v"},
      {dynamic(AnyValue(std::vector<std::string>{"x"})), "92a35b735d91a178", "[s]"},
      {dynamic(dynamic(AnyValue(std::vector<std::string>{"x"}))), "", "[s]"},
  };
  for (const auto& c : cases) {
    const std::string signature = c.value.signature().toString();
    SCOPED_TRACE(signature + " " + c.bytes);
    const std::string bytes = encode(c.value);
    if (!c.bytes.empty()) {
      EXPECT_EQ(hex(bytes), c.bytes);
    }
    const AnyValue back = decode(bytes, signature);
    EXPECT_EQ(back.signature().toString(), signature);
    EXPECT_TRUE(back == c.value);
    if (signature == "m" && c.content.empty()) {
      EXPECT_FALSE(back.content().isValid());
    } else if (signature == "m") {
      EXPECT_EQ(back.signature(true).toString(), c.content);
    }
  }
}

TEST(ValueRoundTrip, NestedContainersComeBackEqualAndReencodeToTheSameBytes) {
  using Row = std::tuple<int, std::map<std::string, AnyValue>>;
  const std::vector<Row> rows{
      Row{1, {{"name", AnyValue("x")}, {"tags", AnyValue(std::vector<std::string>{"a", "b"})}}},
      Row{-2, {}}, Row{3, {{"nothing", AnyValue()}, {"void", AnyValue::makeVoid()}}}};
  const std::string bytes = encode(AnyReference::from(rows));
  const AnyValue back = decode(bytes, "[(i{sm})]");
  EXPECT_TRUE(back == AnyReference::from(rows));
  EXPECT_EQ(encode(back), bytes);
  EXPECT_EQ(back[0][1].mapEntries()[1].second.content().signature().toString(), "[s]");
}

// ---- decoded values meet C++ code ----

TEST(DecodedValue, IsAcceptedByMethodsTakingCxxTypesAndPicksTheRightOverload) {
  ka::DynamicObjectBuilder b;
  b.advertiseMethod("take", [](const std::vector<std::string>& v) { return "strings " + v[0]; });
  b.advertiseMethod("take",
                    [](const std::vector<int>& v) { return "ints " + std::to_string(v[0]); });
  b.advertiseMethod("fields", [](const std::map<std::string, AnyValue>& m) {
    return m.at("k").to<std::string>();
  });
  b.advertiseMethod("pair", [](const std::tuple<int, std::string>& t) {
    return std::to_string(std::get<0>(t)) + std::get<1>(t);
  });
  const ka::AnyObject object = b.object();
  const auto call = [&](const std::string& name, const AnyValue& arg) {
    return object->metaCall(name, ka::AnyReferenceVector{arg}).value(kWaitMs).toString();
  };
  EXPECT_EQ(call("take", decode(unhex("91a17a"), "[s]")), "strings z");
  EXPECT_EQ(call("take", decode(unhex("9105"), "[i]")), "ints 5");
  EXPECT_EQ(call("fields", decode(unhex("81a16ba176"), "{ss}")), "v");
  EXPECT_EQ(call("fields", decode(unhex("81a16b92a173a176"), "{sm}")), "v");
  EXPECT_EQ(call("pair", decode(unhex("9209a178"), "(is)")), "9x");
}

// ---- refusals ----
// A msgpack form that a letter never accepts is refused for every letter in value_kinds_test.cpp.

TEST(DecodeRefusal, IntegersOutOfTheTargetRangeAreRefusedAtTheExactBounds) {
  EXPECT_EQ(decode(unhex("7f"), "c").toInt64(), 127);
  EXPECT_EQ(decode(unhex("d080"), "c").toInt64(), -128);
  expectRefused(unhex("cc80"), "c", "expected c (int8), got uint 128 (out of range)");
  expectRefused(unhex("d1ff7f"), "c", "out of range");
  expectRefused(unhex("ff"), "I", "expected I (uint32), got negative int -1");
  expectRefused(unhex("ce80000000"), "i", "2147483648 (out of range)");
  EXPECT_EQ(decode(unhex("ceffffffff"), "I").toInt64(), 4294967295);
  expectRefused(unhex("cf8000000000000000"), "l", "out of range");
  EXPECT_EQ(decode(unhex("cfffffffffffffffff"), "L").to<std::uint64_t>(),
            std::numeric_limits<std::uint64_t>::max());
}

TEST(DecodeRefusal, ContainersOfTheRightFormButTheWrongShapeSayWhatWasExpectedAndWhatCame) {
  expectRefused(unhex("9107"), "(is)", "expected (is) (tuple), got array of 1");
  expectRefused(unhex("9107"), "[s]", "expected s (string), got uint");
  expectRefused(unhex("82a16101a16102"), "{si}", "repeated key");
  expectRefused(unhex("93a16907c0"), "m", "expected m (dynamic value), got array of 3");
}

TEST(DecodeRefusal, FloatsAcceptExactIntegersAndRefuseLosses) {
  EXPECT_EQ(decode(unhex("07"), "d").toDouble(), 7.0);
  EXPECT_EQ(decode(unhex("ca3fc00000"), "d").toDouble(), 1.5);
  expectRefused(unhex("ce01000001"), "f", "no exact representation");
  expectRefused(unhex("cb7fefffffffffffff"), "f", "out of range");
}

TEST(DecodeRefusal, DynamicValuesMustNameAConcreteValidType) {
  expectRefused(unhex("92a158c0"), "m", "'X'");
  expectRefused(unhex("92a15b01"), "m", "no valid type");
  expectRefused(unhex("92a16dc0"), "m", "not 'm'");
  expectRefused(unhex("920102"), "m", "[signature, value]");
  expectRefused(unhex("92a169a161"), "m", "expected i (int32), got str");
}

TEST(DecodeRefusal, TruncatedAndPaddedInputsAreRefused) {
  const std::string bytes = encode(
      AnyValue(std::map<std::string, std::vector<std::int64_t>>{{"key", {1, -70000, 1LL << 40}}}));
  for (std::size_t n = 0; n < bytes.size(); ++n) {
    EXPECT_THROW(decode(bytes.substr(0, n), "{s[l]}"), DecodeError) << n;
  }
  EXPECT_NO_THROW(decode(bytes, "{s[l]}"));
  expectRefused(bytes + '\x00', "{s[l]}", "1 bytes follow the value");
  expectRefused(unhex("c1"), "i", "malformed");
}

TEST(DecodeRefusal, ClaimedSizesBeyondTheInputAreRefusedBeforeAllocating) {
  // Each of these would have msgpack-cxx reserve gigabytes for a few bytes of input.
  expectRefused(unhex("dd7fffffff"), "[i]", "above the limit");
  expectRefused(unhex("dd000fffff"), "[i]", "more than the input of 5 bytes can hold");
  expectRefused(unhex("df000fffff"), "{ii}", "more than the input");
  // Strings are never copied before their bytes are there.
  expectRefused(unhex("dbffffffff"), "s", "truncated");
  expectRefused(unhex("db00100000") + "abc", "s", "truncated");
  // Claims add up: 60 nested arrays that each claim 10 elements cannot fit in 60 bytes.
  expectRefused(std::string(60, '\x9a'), "m", "more than the input");
}

TEST(DecodeRefusal, NestingBeyondTheDepthLimitIsRefusedWithoutRecursingIntoIt) {
  const std::string sig64 = std::string(64, '[') + "i" + std::string(64, ']');
  EXPECT_NO_THROW(decode(std::string(64, '\x91') + '\x07', sig64));
  expectRefused(std::string(65, '\x91') + '\x07', "m", "nested deeper than 64 levels");
  expectRefused(std::string(1000000, '\x91') + '\x07', "m", "nested deeper");
  // A dynamic value's wrapper counts as a level too: 40 dynamic values in a row nest 80 deep.
  std::string dynamics;
  for (int i = 0; i < 40; ++i) {
    dynamics += unhex("92a3") + "[m]" + unhex("91");
  }
  dynamics += unhex("c0");
  expectRefused(dynamics, "m", "deeper than 64");
}

TEST(EncodeRefusal, ValuesWithoutAWireFormAreRefused) {
  struct Opaque {};
  EXPECT_THROW(encode(AnyValue(Opaque{})), std::runtime_error);
  EXPECT_THROW(encode(dynamic(AnyValue(std::vector<Opaque>{}))), std::runtime_error);
  EXPECT_THROW(encode(AnyReference()), std::runtime_error);
  // Deeper than a reader accepts: lists of dynamic values, 70 levels.
  AnyValue deep(7);
  for (int i = 0; i < 70; ++i) {
    deep = AnyValue(std::vector<AnyValue>{std::move(deep)});
  }
  EXPECT_THROW(encode(deep), std::runtime_error);
}

// ---- object handles ----

// Numbers objects in the order they are first sent, as a connection would.
class NumberingCodec : public ka::wire::ObjectCodec {
 public:
  void pack(ka::wire::Packer& pk, const boost::shared_ptr<ka::GenericObject>& object) override {
    objects.push_back(object);
    pk.pack_uint64(objects.size() - 1);
  }
  boost::shared_ptr<ka::GenericObject> unpack(const msgpack::object& o) override {
    if (o.type != msgpack::type::POSITIVE_INTEGER || o.via.u64 >= objects.size()) {
      throw DecodeError("unknown object");
    }
    return objects[o.via.u64];
  }
  std::vector<boost::shared_ptr<ka::GenericObject>> objects;
};

TEST(ObjectHandle, TravelsThroughTheConnectionsCodecAndNullNeedsNone) {
  ka::DynamicObjectBuilder b;
  b.advertiseMethod("ping", [] { return 1; });
  const ka::AnyObject object = b.object();
  NumberingCodec codec;
  const AnyValue back =
      decode(encode(AnyValue(std::vector<ka::AnyObject>{object, {}}), &codec), "[o]", &codec);
  EXPECT_EQ(back[0].to<ka::AnyObject>(), object);
  EXPECT_FALSE(back[1].to<ka::AnyObject>().isValid());
  EXPECT_FALSE(decode(unhex("c0"), "o").to<ka::AnyObject>().isValid());
}

TEST(ObjectHandle, IsRefusedWithoutACodecAndWhenTheCodecRejectsIt) {
  ka::DynamicObjectBuilder b;
  const ka::AnyObject object = b.object();
  EXPECT_THROW(encode(AnyValue(object)), std::runtime_error);
  expectRefused(unhex("01"), "o", "carries no object handles");
  NumberingCodec codec;
  EXPECT_THROW(decode(unhex("05"), "o", &codec), DecodeError);
}

}  // namespace
