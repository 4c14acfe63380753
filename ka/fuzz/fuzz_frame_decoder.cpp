// Fuzzes what a server does with the bytes of a client before any user code runs. The input is
// the byte stream a client would write on the socket: frames, the first one a Hello. Each header
// goes through the transport's check (with the handshake's body limit for the first frame),
// the Hello body through its decoder, and every later frame through a real Connection serving a
// small object, so that message decoding, object descriptions, argument values and the dispatch
// of calls, subscriptions, lookups, releases and answers are all exercised.
//
// The connection runs over a channel that hands frames over on this thread and counts what the
// connection sends back; the event loop has one worker and is drained after each input, so an
// input's work is done before the next one starts. A crash, a sanitizer finding, an exception
// escaping the connection or an event loop that does not drain is a finding.
//
// The connection starts with a few lookups of its own waiting (request ids 1 to kWaiting), so
// that Reply and Error frames carrying those ids are decoded as answers, handles included.
#include <ka/eventloop.hpp>
#include <ka/future.hpp>
#include <ka/log.hpp>

#include "frame_fuzz_peer.hpp"
#include "wire/connection.hpp"
#include "wire/frame_header.hpp"
#include "wire/handshake.hpp"
#include "wire/transport_options.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace {

using namespace ka::wire;

constexpr int kWaiting = 4;
// An empty task queued behind an input's work; far above what a drained loop takes.
constexpr int kDrainLimitMs = 5000;
// Rounds without a frame sent in a row that count as quiet: a call's answer is at most a few
// hops (strand, method, continuation) away from the frame that asked for it.
constexpr int kQuietRounds = 3;
constexpr int kMaxDrainRounds = 64;

// A channel whose frames the fuzzer delivers by hand, on its own thread.
class HandChannel : public Channel {
 public:
  void start(FrameHandler onFrame, CloseHandler onClose) override {
    std::lock_guard<std::mutex> lock(_mutex);
    _onFrame = std::move(onFrame);
    _onClose = std::move(onClose);
  }
  bool send(Frame) override {
    std::lock_guard<std::mutex> lock(_mutex);
    if (!_open) {
      return false;
    }
    ++_sent;
    return true;
  }
  void close(const std::string& reason) override {
    CloseHandler onClose;
    {
      std::lock_guard<std::mutex> lock(_mutex);
      if (!_open) {
        return;
      }
      _open = false;
      onClose = std::move(_onClose);
      _onFrame = nullptr;
    }
    if (onClose) {
      onClose(reason);
    }
  }
  bool isOpen() const override {
    std::lock_guard<std::mutex> lock(_mutex);
    return _open;
  }
  std::string peerDescription() const override { return "fuzz://client"; }

  void deliver(Frame frame) {
    FrameHandler onFrame;
    {
      std::lock_guard<std::mutex> lock(_mutex);
      onFrame = _onFrame;
    }
    if (onFrame) {
      onFrame(std::move(frame));
    }
  }
  std::size_t sent() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _sent;
  }

 private:
  mutable std::mutex _mutex;
  // All guarded by _mutex:
  bool _open = true;
  std::size_t _sent = 0;
  FrameHandler _onFrame;
  CloseHandler _onClose;
};

// Waits until the event loop has run everything an input queued: until several empty tasks in
// a row ran with no frame sent meanwhile.
void drain(const HandChannel& channel) {
  std::size_t before = channel.sent();
  int quiet = 0;
  for (int round = 0; round < kMaxDrainRounds && quiet < kQuietRounds; ++round) {
    const ka::Future<void> marker = ka::defaultEventLoop().async([] {});
    if (marker.wait(kDrainLimitMs) != ka::FutureState::FinishedWithValue) {
      std::fprintf(stderr, "the event loop did not drain within %d ms\n", kDrainLimitMs);
      std::abort();
    }
    const std::size_t now = channel.sent();
    quiet = now == before ? quiet + 1 : 0;
    before = now;
  }
}

const ka::AnyObject& servedObject() {
  static const ka::AnyObject object = ka::fuzz::makeServedObject();
  return object;
}

// Splits `data` into frames as a server's socket reader does. Returns the body of the frame at
// `offset` and moves past it, or nothing when the header is refused or the frame is incomplete
// (the connection would be closed, or still waiting for bytes).
bool nextFrame(const std::uint8_t* data, std::size_t size, std::size_t& offset, std::size_t maxBody,
               Frame& frame) {
  if (size - offset < kFrameHeaderSize) {
    return false;
  }
  const char* at = reinterpret_cast<const char*>(data + offset);
  FrameHeader header;
  const HeaderError error = decodeFrameHeader(at, maxBody, header);
  if (error != HeaderError::None) {
    (void)describeHeaderError(error, header, at, maxBody);
    return false;
  }
  if (size - offset - kFrameHeaderSize < header.bodyLength) {
    return false;
  }
  frame.type = header.type;
  frame.requestId = header.requestId;
  frame.body.assign(at + kFrameHeaderSize, at + kFrameHeaderSize + header.bodyLength);
  offset += kFrameHeaderSize + header.bodyLength;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // One worker runs queued tasks in order, which is what makes draining it meaningful.
  (void)ka::setDefaultEventLoopSize(1);
  // Every malformed message is logged as a warning: at libFuzzer's rate that is all it would do.
  ka::log::setVerbosity(ka::LogLevel::Silent);
  (void)servedObject();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::size_t offset = 0;
  Frame hello;
  if (!nextFrame(data, size, offset, kMaxHandshakeBody, hello) || hello.type != kHelloType) {
    return 0;  // the server closes the connection
  }
  const auto token = decodeHello(hello.body);
  // The client-side decoders share the grammar; they must refuse a Hello without harm.
  (void)decodeWelcome(hello.body);
  (void)decodeRefused(hello.body);
  if (!token) {
    return 0;  // refused: "malformed hello"
  }
  (void)constantTimeEquals(*token, "fuzz-token");

  const auto channel = std::make_shared<HandChannel>();
  const auto connection = Connection::create(
      channel, ServedDirectory{servedObject(), [](const std::string& name) {
                                 return name == ka::fuzz::kServiceName ? servedObject()
                                                                       : ka::AnyObject();
                               }});
  connection->start();
  for (int i = 0; i < kWaiting; ++i) {
    (void)connection->lookup("Peer");
  }
  const std::size_t maxBody = TransportOptions().maxFrameBody;
  Frame frame;
  while (nextFrame(data, size, offset, maxBody, frame)) {
    if (frame.type >= kFirstTransportType) {
      break;  // "unexpected frame of transport type": the server closes the connection
    }
    channel->deliver(std::move(frame));
    frame = Frame{};
  }
  drain(*channel);
  connection->close("end of input");
  drain(*channel);
  return 0;
}
