// The pieces of the socket format that need no socket: urls, the frame header, the handshake
// bodies and the token comparison.

#include "protocol_document.hpp"
#include "wire/frame_header.hpp"
#include "wire/handshake.hpp"
#include "wire/url.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

using namespace ka::wire;
using testing::HasSubstr;

namespace {

TEST(SocketUrls, ParseUnixPathsAndTcpHostsWithPortsIncludingBracketedIpv6) {
  const Url unixUrl = parseUrl("unix:///run/ka/a.sock");
  EXPECT_EQ(unixUrl.kind, Url::Kind::Unix);
  EXPECT_EQ(unixUrl.path, "/run/ka/a.sock");
  EXPECT_EQ(unixUrl.text(), "unix:///run/ka/a.sock");

  const Url tcpUrl = parseUrl("tcp://localhost:0");
  EXPECT_EQ(tcpUrl.kind, Url::Kind::Tcp);
  EXPECT_EQ(tcpUrl.host, "localhost");
  EXPECT_EQ(tcpUrl.port, 0);

  const Url v6 = parseUrl("tcp://[::1]:65535");
  EXPECT_EQ(v6.host, "::1");
  EXPECT_EQ(v6.port, 65535);
  EXPECT_EQ(v6.text(), "tcp://[::1]:65535");
}

TEST(SocketUrls, RefuseEverythingElseSayingWhichFormsAreAccepted) {
  const std::vector<std::string> bad = {
      "",
      "unix:relative.sock",
      "unix://relative.sock",
      "unix:///",
      "unix:///run/dir/",
      "unix:///" + std::string(200, 'x'),
      "http://host:80",
      "tcp://host",
      "tcp://:80",
      "tcp://host:",
      "tcp://host:65536",
      "tcp://host:-1",
      "tcp://host:8o",
      "tcp://host:000080000",
      "tcp://::1:80",
      "tcp://[::1]80",
      "tcp://[::1:80",
      "tcp://user@host:80",
  };
  for (const std::string& text : bad) {
    EXPECT_THAT(
        [&] { parseUrl(text); },
        testing::ThrowsMessage<std::invalid_argument>(testing::AllOf(
            HasSubstr("'" + text + "'"), HasSubstr("unix:///absolute/path or tcp://host:port"))));
  }
}

TEST(FrameHeaders, AreSixteenLittleEndianBytesWithMagicAndVersionFirst) {
  char bytes[kFrameHeaderSize];
  encodeFrameHeader(0x42, 0x0102030405060708ull, 0x0A0B0C0Du, bytes);
  const std::vector<unsigned char> expected = {0x6B, 0x01, 0x42, 0x00, 0x0D, 0x0C, 0x0B, 0x0A,
                                               0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
  EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + kFrameHeaderSize), expected);

  FrameHeader header;
  ASSERT_EQ(decodeFrameHeader(bytes, 0x0A0B0C0Du, header), HeaderError::None);
  EXPECT_EQ(header.type, 0x42);
  EXPECT_EQ(header.requestId, 0x0102030405060708ull);
  EXPECT_EQ(header.bodyLength, 0x0A0B0C0Du);

  encodeFrameHeader(0xFF, ~0ull, ~0u, bytes);
  ASSERT_EQ(decodeFrameHeader(bytes, ~0u, header), HeaderError::None);
  EXPECT_EQ(header.requestId, ~0ull);
  EXPECT_EQ(header.bodyLength, ~0u);
}

TEST(FrameHeaders, AreRefusedForBadMagicVersionFlagsOrALengthAboveTheLimit) {
  char good[kFrameHeaderSize];
  encodeFrameHeader(1, 7, 100, good);
  FrameHeader header;
  EXPECT_EQ(decodeFrameHeader(good, 100, header), HeaderError::None);
  EXPECT_EQ(decodeFrameHeader(good, 99, header), HeaderError::BodyTooLarge);
  EXPECT_THAT(describeHeaderError(HeaderError::BodyTooLarge, header, good, 99),
              HasSubstr("100 bytes exceeds the limit of 99"));

  char bytes[kFrameHeaderSize];
  std::copy(good, good + kFrameHeaderSize, bytes);
  bytes[0] = 'G';
  EXPECT_EQ(decodeFrameHeader(bytes, 100, header), HeaderError::BadMagic);
  EXPECT_THAT(describeHeaderError(HeaderError::BadMagic, header, bytes, 100), HasSubstr("47"));

  std::copy(good, good + kFrameHeaderSize, bytes);
  bytes[1] = 2;
  EXPECT_EQ(decodeFrameHeader(bytes, 100, header), HeaderError::UnsupportedVersion);

  std::copy(good, good + kFrameHeaderSize, bytes);
  bytes[3] = 0x01;
  EXPECT_EQ(decodeFrameHeader(bytes, 100, header), HeaderError::UnknownFlags);
}

TEST(HandshakeBodies, RoundTripAndRefuseWhatTheirGrammarDoesNotAllow) {
  EXPECT_EQ(decodeHello(encodeHello("s3cret")), "s3cret");
  EXPECT_EQ(decodeHello(encodeHello("")), "");
  EXPECT_TRUE(decodeWelcome(encodeWelcome()));
  EXPECT_EQ(decodeRefused(encodeRefused("wrong token")), "wrong token");

  EXPECT_FALSE(decodeHello(encodeWelcome()));  // a number where the token goes
  EXPECT_FALSE(decodeWelcome(encodeHello("x")));
  EXPECT_FALSE(decodeHello({}));
  EXPECT_FALSE(decodeHello({'\x91'}));                    // an array missing its element
  EXPECT_FALSE(decodeHello({'\x91', '\xa1', 'x', 'y'}));  // trailing bytes
  // An array claiming 2^32 - 1 elements in five bytes must not size an allocation.
  EXPECT_FALSE(decodeHello({'\xdd', '\xff', '\xff', '\xff', '\xff'}));
  EXPECT_FALSE(decodeHello(std::vector<char>(kMaxHandshakeBody + 1, '\xa1')));
}

// The worked examples of docs/protocol.md, byte for byte.
TEST(HandshakeBodies, AreTheBytesTheProtocolDocumentShows) {
  const auto hex = [](const std::vector<char>& b) {
    return ka::wire::docs::hexBytes(b.data(), b.size());
  };
  EXPECT_EQ(hex(encodeHello("")), "91 a0");
  EXPECT_EQ(hex(encodeWelcome()), "91 01");
  EXPECT_EQ(hex(encodeRefused("this server requires a token")),
            "91 bc 74 68 69 73 20 73 65 72 76 65 72 20 72 65 "
            "71 75 69 72 65 73 20 61 20 74 6f 6b 65 6e");
  std::vector<char> header(kFrameHeaderSize);
  encodeFrameHeader(kRefusedType, 0, 30, header.data());
  EXPECT_EQ(hex(header), "6b 01 f2 00 1e 00 00 00 00 00 00 00 00 00 00 00");

  // The document shows each frame as a line of its own.
  using ka::wire::docs::onTheWire;
  for (const std::string& frame :
       {onTheWire(kHelloType, 0, encodeHello("")), onTheWire(kWelcomeType, 0, encodeWelcome()),
        onTheWire(kRefusedType, 0, encodeRefused("this server requires a token"))}) {
    EXPECT_TRUE(ka::wire::docs::isDocumented(frame))
        << frame << "\nis not a line of " << ka::wire::docs::kProtocolDocument;
  }
}

TEST(TokenComparison, NeedsEveryByteAndTheLengthToMatch) {
  EXPECT_TRUE(constantTimeEquals("", ""));
  EXPECT_TRUE(constantTimeEquals("s3cret", "s3cret"));
  for (const std::string& other :
       {std::string("s3creT"), std::string("S3cret"), std::string("s3cre"), std::string("s3crets"),
        std::string(), std::string("s3cret\0", 7)}) {
    EXPECT_FALSE(constantTimeEquals(other, "s3cret")) << other;
  }
  EXPECT_FALSE(constantTimeEquals("s3cret", ""));
}

}  // namespace
