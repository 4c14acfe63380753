// The message bodies, byte for byte: the worked examples of docs/protocol.md are these frames,
// so the document cannot drift from the code. Then what the message decoders refuse.

#include "protocol_document.hpp"
#include "wire/frame_header.hpp"
#include "wire/messages.hpp"

#include <ka/signaturetype.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using namespace ka::wire;
using ka::wire::docs::isDocumented;
using ka::wire::docs::kProtocolDocument;
using testing::HasSubstr;
using testing::ThrowsMessage;

// `frame` is the bytes `expected`, and the document shows them as a line of its own.
void expectDocumented(const Frame& frame, const std::string& expected) {
  EXPECT_EQ(ka::wire::docs::onTheWire(frame.type, frame.requestId, frame.body), expected);
  EXPECT_TRUE(isDocumented(expected)) << expected << "\nis not a line of " << kProtocolDocument;
}

TEST(MessageLayout, ACallAndItsReplyAreTheDocumentedBytes) {
  const int a = 2;
  const int b = 3;
  const Frame call =
      encodeCall(7, 2, 11, {ka::AnyReference::from(a), ka::AnyReference::from(b)}, nullptr);
  expectDocumented(
      call, "6b 01 01 00 0b 00 00 00 07 00 00 00 00 00 00 00 | 94 02 0b a4 28 69 69 29 92 02 03");
  const Frame reply = encodeReply(7, ka::AnyValue(5), nullptr);
  expectDocumented(reply, "6b 01 02 00 04 00 00 00 07 00 00 00 00 00 00 00 | 92 a1 69 05");
  const Frame error = encodeError(8, "Method id 99 not found");
  expectDocumented(
      error,
      "6b 01 03 00 18 00 00 00 08 00 00 00 00 00 00 00 | 91 b6 4d 65 74 68 6f 64 20 69 64 20 "
      "39 39 20 6e 6f 74 20 66 6f 75 6e 64");
}

TEST(MessageLayout, ASubscriptionAndOneEventAreTheDocumentedBytes) {
  const Frame connect = encodeConnect(9, ConnectMessage{2, 12, 1});
  expectDocumented(connect, "6b 01 04 00 04 00 00 00 09 00 00 00 00 00 00 00 | 93 02 0c 01");
  const Frame ack = encodeReply(9, ka::AnyValue::makeVoid(), nullptr);
  expectDocumented(ack, "6b 01 02 00 04 00 00 00 09 00 00 00 00 00 00 00 | 92 a1 76 c0");
  const std::string who = "ann";
  const int age = 41;
  const Frame event =
      encodeEvent(2, 12, 1, {ka::AnyReference::from(who), ka::AnyReference::from(age)}, nullptr);
  expectDocumented(
      event,
      "6b 01 06 00 0f 00 00 00 00 00 00 00 00 00 00 00 | 95 02 0c 01 a4 28 73 69 29 92 a3 61 "
      "6e 6e 29");
}

TEST(MessageLayout, ALookupAndTheObjectReferenceItAnswers) {
  expectDocumented(encodeLookup(1, "Calc"),
                   "6b 01 07 00 06 00 00 00 01 00 00 00 00 00 00 00 | 91 a4 43 61 6c 63");
  ObjectDescription d;
  d.methods.push_back({11, "add", ka::Signature("(ii)"), ka::Signature("i")});
  d.signals.push_back({12, "changed", ka::Signature("(si)")});
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(2);
  pk.pack(std::string("o"));
  packObjectReference(pk, 2, d);
  Frame reply;
  reply.type = static_cast<std::uint8_t>(MessageType::Reply);
  reply.requestId = 1;
  reply.body.assign(buffer.data(), buffer.data() + buffer.size());
  expectDocumented(
      reply,
      "6b 01 02 00 24 00 00 00 01 00 00 00 00 00 00 00 | 92 a1 6f 92 02 92 91 94 0b a3 61 64 "
      "64 a4 28 69 69 29 a1 69 91 93 0c a7 63 68 61 6e 67 65 64 a4 28 73 69 29");
  expectDocumented(encodeRelease(ReleaseMessage{2, 1}),
                   "6b 01 08 00 03 00 00 00 00 00 00 00 00 00 00 00 | 92 02 01");
}

// A call of method 11 of object 1: the argument signature, then `args` as raw bytes.
Frame callWithArguments(const std::string& signature, const std::string& args) {
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  pk.pack_array(4);
  pk.pack(1);
  pk.pack(11);
  pk.pack(signature);
  Frame frame;
  frame.type = static_cast<std::uint8_t>(MessageType::Call);
  frame.requestId = 1;
  frame.body.assign(buffer.data(), buffer.data() + buffer.size());
  frame.body.insert(frame.body.end(), args.begin(), args.end());
  return frame;
}

// `levels` arrays, each holding the next, the innermost holding 7.
std::string nestedArrays(std::size_t levels) {
  return std::string(levels, '\x91') + '\x07';
}

// A message wraps its values in arrays of its own (the body, the argument list): the deepest
// value a writer sends must still fit what the reader of a message accepts.
TEST(MessageBodies, CarryTheDeepestValueTheWriterAccepts) {
  const std::size_t deepest = ka::wire::DecodeLimits().maxDepth;
  const std::string list = std::string(deepest, '[') + "i" + std::string(deepest, ']');
  const Frame reply = encodeReply(3,
                                  decodeValue(nestedArrays(deepest).data(), deepest + 1,
                                              *ka::typeFromSignature(ka::Signature(list))),
                                  nullptr);
  EXPECT_EQ(decodeReply(reply, nullptr).signature().toString(), list);

  // In a call the tuple of the arguments takes one level of the signature's nesting.
  const std::string member = list.substr(1, list.size() - 2);
  const Frame call = callWithArguments("(" + member + ")", '\x91' + nestedArrays(deepest - 1));
  const CallMessage decoded = decodeCall(call, nullptr);
  ASSERT_EQ(decoded.args.size(), 1u);
  EXPECT_EQ(decoded.args[0].signature().toString(), member);

  // One level more (a dynamic value holding the deepest list) is still refused, by the value
  // reader.
  msgpack::sbuffer dynamic;
  Packer pk(dynamic);
  pk.pack_array(1);
  pk.pack_array(2);
  pk.pack(list);
  EXPECT_THAT(
      [&] {
        decodeCall(callWithArguments(
                       "(m)", std::string(dynamic.data(), dynamic.size()) + nestedArrays(deepest)),
                   nullptr);
      },
      ThrowsMessage<DecodeError>(HasSubstr("nested deeper than 64 levels")));
}

// Claimed sizes are checked against the bytes present before anything is reserved for them, in
// message bodies as in values: a few bytes must not make the receiver reserve megabytes.
TEST(MessageBodies, RefuseClaimsTheirBytesCannotHoldBeforeReservingForThem) {
  // An argument list claiming 2^20 values, then a map claiming 2^20 entries, in five bytes.
  for (const std::string& claim :
       {std::string("\xdd\x00\x10\x00\x00", 5), std::string("\xdf\x00\x10\x00\x00", 5)}) {
    EXPECT_THAT([&] { decodeCall(callWithArguments("(i)", claim), nullptr); },
                ThrowsMessage<DecodeError>(HasSubstr("more than the input of")));
  }
  Frame reply;
  reply.type = static_cast<std::uint8_t>(MessageType::Reply);
  reply.body = {'\x92', '\xa3', '[', 'i', ']', '\xdd', '\x00', '\x10', '\x00', '\x00'};
  EXPECT_THROW(decodeReply(reply, nullptr), DecodeError);
  // Trailing bytes after the body are still refused.
  Frame lookup = encodeLookup(1, "Calc");
  lookup.body.push_back('\xc0');
  EXPECT_THROW(decodeLookup(lookup), DecodeError);
}

// Signatures arrive as text: one nested a million levels deep, well within the frame limit, is
// refused like any malformed signature, without taking the receiver's stack with it.
TEST(MessageBodies, RefuseSignaturesNestedAMillionLevelsDeep) {
  const std::string deep =
      "(" + std::string(1u << 20, '[') + "i" + std::string(1u << 20, ']') + ")";
  msgpack::sbuffer none;
  Packer(none).pack_array(0);
  EXPECT_THROW(decodeCall(callWithArguments(deep, std::string(none.data(), none.size())), nullptr),
               DecodeError);

  ObjectDescription description;
  description.methods.push_back({1, "f", ka::Signature(deep), ka::Signature("v")});
  description.signals.push_back({2, "g", ka::Signature(deep)});
  msgpack::sbuffer buffer;
  Packer pk(buffer);
  packDescription(pk, description);
  const msgpack::object_handle handle = msgpack::unpack(buffer.data(), buffer.size());
  EXPECT_THROW(toMetaObject(unpackDescription(handle.get())), DecodeError);
  description.methods.clear();
  EXPECT_THROW(toMetaObject(description), DecodeError);
}

}  // namespace
