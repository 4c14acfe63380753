// The payloads that carry the user information service's changes between daemons: what one
// daemon writes, another reads back with the same value and type, including the form that
// daemons wrote before values were msgpack.

#include "relay_payload.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using ka::AnyValue;
using qvuserinfod::editedPayload;
using qvuserinfod::readEdited;
using qvuserinfod::readRemoved;
using qvuserinfod::removedPayload;

std::string unhex(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    out += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return out;
}

TEST(RelayPayload, EditsAndRemovalsComeBackWithTheirUserNameAndTheValueWithItsSignature) {
  const struct {
    int userId;
    std::string dataName;
    AnyValue value;
  } cases[] = {
      {7, "age", AnyValue(42)},
      {-1, "", AnyValue(std::string("nul \0 and \xff bytes", 17))},
      {std::numeric_limits<int>::max(), "big", AnyValue(std::numeric_limits<std::int64_t>::min())},
      {1, "flag", AnyValue(true)},
      {1, "flag", AnyValue(false)},
      {2, "u", AnyValue(std::numeric_limits<std::uint64_t>::max())},
      {3, "ratio", AnyValue(0.25)},
      {4, "tags", AnyValue(std::vector<std::string>{"a", "b"})},
      {5, "profile", AnyValue(std::map<std::string, AnyValue>{{"k", AnyValue(1)}})},
      {6, "nothing", AnyValue::makeVoid()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dataName + " " + c.value.signature().toString());
    const auto back = readEdited(editedPayload(c.userId, c.dataName, c.value));
    EXPECT_EQ(back.userId, c.userId);
    EXPECT_EQ(back.dataName, c.dataName);
    EXPECT_EQ(back.value.signature().toString(), c.value.signature().toString());
    EXPECT_TRUE(back.value == c.value);
    const auto removed = readRemoved(removedPayload(c.userId, c.dataName));
    EXPECT_EQ(removed.userId, c.userId);
    EXPECT_EQ(removed.dataName, c.dataName);
  }
}

TEST(RelayPayload, AnEditIsWrittenAsTheStoreDocumentShowsIt) {
  // user 7, name "age", the int32 42 as a dynamic value.
  EXPECT_EQ(editedPayload(7, "age", AnyValue(42)), unhex("0000000700000003616765"
                                                         "92a1692a"));
  EXPECT_EQ(removedPayload(7, "age"), unhex("0000000700000003616765"));
  // A dynamic value travels as what it holds.
  EXPECT_EQ(editedPayload(7, "age", AnyValue::make(AnyValue(42))),
            editedPayload(7, "age", AnyValue(42)));
}

TEST(RelayPayload, EditsInTheFormOfEarlierDaemonsAreStillRead) {
  const std::string head = unhex("0000000900000001") + "n";
  const struct {
    std::string value;
    AnyValue expected;
  } cases[] = {
      {"stext", AnyValue(std::string("text"))},
      {"s", AnyValue(std::string())},
      {"b1", AnyValue(true)},
      {"b0", AnyValue(false)},
      {"i-2147483648", AnyValue(std::numeric_limits<std::int32_t>::min())},
      {"l9223372036854775807", AnyValue(std::numeric_limits<std::int64_t>::max())},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    const auto back = readEdited(head + c.value);
    EXPECT_EQ(back.userId, 9);
    EXPECT_EQ(back.dataName, "n");
    EXPECT_EQ(back.value.signature().toString(), c.expected.signature().toString());
    EXPECT_TRUE(back.value == c.expected);
  }
}

// A C++ type with no wire form.
struct Opaque {
  int x = 0;
};

TEST(RelayPayload, BrokenPayloadsAreRefusedAndValuesWithoutAWireFormAreNotSent) {
  const std::string head = unhex("0000000900000001") + "n";
  const std::string cases[] = {
      "",                               // nothing at all
      unhex("00000009000000ff") + "n",  // a name longer than the payload
      head,                             // an edit without its value
      head + unhex("92a169"),           // a value cut short
      head + unhex("92a1692a00"),       // bytes after the value
      head + unhex("92a169a178"),       // a value not of its signature
      head + unhex("92a1712a"),         // a signature that names no type
  };
  for (const auto& payload : cases) {
    EXPECT_THROW(readEdited(payload), std::runtime_error) << payload.size();
  }
  EXPECT_THROW(readRemoved(unhex("000000")), std::runtime_error);
  EXPECT_THROW(editedPayload(1, "x", AnyValue::make(Opaque{})), std::runtime_error);
}

}  // namespace
