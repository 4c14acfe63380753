#pragma once
// The frame stream between two participants of a directory, independent of what carries it (a
// Unix or TCP socket, or an in-process pair in tests). The message layer sees only this.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ka {
namespace wire {

// One message: its type, the request it answers or starts (0 when none), and its msgpack body.
// The fixed header that carries these on a socket is the transport's business.
struct Frame {
  std::uint8_t type = 0;
  std::uint64_t requestId = 0;
  std::vector<char> body;
};

// A connected, ordered, reliable stream of frames. Thread-safe.
class Channel {
 public:
  using FrameHandler = std::function<void(Frame frame)>;
  // Called once, with the reason, when the stream ends for any cause (either side closed, the
  // peer vanished, a limit was exceeded, a malformed frame arrived).
  using CloseHandler = std::function<void(const std::string& reason)>;

  virtual ~Channel() = default;

  // Starts delivery. Handlers run one at a time, in arrival order, on a thread of the
  // transport: they must not block (hand real work to the event loop). No frame is delivered
  // after the close handler has run.
  virtual void start(FrameHandler onFrame, CloseHandler onClose) = 0;
  // Queues a frame and returns at once; never blocks on the peer. False when the channel is
  // closed (the frame is dropped). Frames go out in the order they were queued.
  virtual bool send(Frame frame) = 0;
  // Closes the stream; the close handler runs with `reason` unless it already ran.
  virtual void close(const std::string& reason) = 0;
  virtual bool isOpen() const = 0;
  // Who is on the other end, for logs ("unix:///run/x.sock", "tcp://127.0.0.1:5123").
  virtual std::string peerDescription() const = 0;
};

using ChannelPtr = std::shared_ptr<Channel>;

}  // namespace wire
}  // namespace ka
