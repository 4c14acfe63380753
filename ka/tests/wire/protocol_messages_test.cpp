// The message bodies, byte for byte: the worked examples of docs/protocol-messages.md are these
// frames, so the document cannot drift from the code.

#include "wire/frame_header.hpp"
#include "wire/messages.hpp"

#include <ka/signaturetype.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

using namespace ka::wire;

std::string hex(const char* data, std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i) {
    char byte[4];
    std::snprintf(byte, sizeof byte, "%02x", static_cast<unsigned char>(data[i]));
    out += (i == 0 ? "" : " ") + std::string(byte);
  }
  return out;
}

// A frame as it goes on a socket, in hex: the 16-byte header, " | ", then the body.
std::string onTheWire(const Frame& frame) {
  char header[kFrameHeaderSize];
  encodeFrameHeader(frame.type, frame.requestId, static_cast<std::uint32_t>(frame.body.size()),
                    header);
  return hex(header, kFrameHeaderSize) + " | " + hex(frame.body.data(), frame.body.size());
}

TEST(MessageLayout, ACallAndItsReplyAreTheDocumentedBytes) {
  const int a = 2;
  const int b = 3;
  const Frame call =
      encodeCall(7, 2, 11, {ka::AnyReference::from(a), ka::AnyReference::from(b)}, nullptr);
  EXPECT_EQ(onTheWire(call),
            "6b 01 01 00 0b 00 00 00 07 00 00 00 00 00 00 00 | 94 02 0b a4 28 69 69 29 92 02 03");
  const Frame reply = encodeReply(7, ka::AnyValue(5), nullptr);
  EXPECT_EQ(onTheWire(reply), "6b 01 02 00 04 00 00 00 07 00 00 00 00 00 00 00 | 92 a1 69 05");
  const Frame error = encodeError(8, "Method id 99 not found");
  EXPECT_EQ(onTheWire(error),
            "6b 01 03 00 18 00 00 00 08 00 00 00 00 00 00 00 | 91 b6 4d 65 74 68 6f 64 20 69 64 20 "
            "39 39 20 6e 6f 74 20 66 6f 75 6e 64");
}

TEST(MessageLayout, ASubscriptionAndOneEventAreTheDocumentedBytes) {
  const Frame connect = encodeConnect(9, ConnectMessage{2, 12, 1});
  EXPECT_EQ(onTheWire(connect), "6b 01 04 00 04 00 00 00 09 00 00 00 00 00 00 00 | 93 02 0c 01");
  const Frame ack = encodeReply(9, ka::AnyValue::makeVoid(), nullptr);
  EXPECT_EQ(onTheWire(ack), "6b 01 02 00 04 00 00 00 09 00 00 00 00 00 00 00 | 92 a1 76 c0");
  const std::string who = "ann";
  const int age = 41;
  const Frame event =
      encodeEvent(2, 12, 1, {ka::AnyReference::from(who), ka::AnyReference::from(age)}, nullptr);
  EXPECT_EQ(onTheWire(event),
            "6b 01 06 00 0f 00 00 00 00 00 00 00 00 00 00 00 | 95 02 0c 01 a4 28 73 69 29 92 a3 61 "
            "6e 6e 29");
}

TEST(MessageLayout, ALookupAndTheObjectReferenceItAnswers) {
  EXPECT_EQ(onTheWire(encodeLookup(1, "Calc")),
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
  EXPECT_EQ(onTheWire(reply),
            "6b 01 02 00 24 00 00 00 01 00 00 00 00 00 00 00 | 92 a1 6f 92 02 92 91 94 0b a3 61 64 "
            "64 a4 28 69 69 29 a1 69 91 93 0c a7 63 68 61 6e 67 65 64 a4 28 73 69 29");
  EXPECT_EQ(onTheWire(encodeRelease(ReleaseMessage{2, 1})),
            "6b 01 08 00 03 00 00 00 00 00 00 00 00 00 00 00 | 92 02 01");
}

}  // namespace
