#pragma once
// A Channel over a connected stream socket (Unix or TCP): runs the handshake, then reads frames
// into a reusable buffer and writes queued frames in batches. Created by the Transport, which
// owns the I/O thread every handler of this class runs on.

#include "wire/channel.hpp"
#include "wire/frame_header.hpp"
#include "wire/transport_options.hpp"

#include <boost/asio/buffer.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ka {
namespace wire {

// A connection stays up while either side uses it or an operation is pending on it, not while a
// ChannelPtr exists: to end it, close() it (or destroy the transport).
class SocketChannel final : public Channel, public std::enable_shared_from_this<SocketChannel> {
 public:
  using Socket = boost::asio::generic::stream_protocol::socket;
  enum class Role { Client, Server };
  // Runs once on the I/O thread when the handshake ends: with an empty text when the channel is
  // ready to be started, else with why it failed (the channel is then closed).
  using HandshakeHandler = std::function<void(const std::string& error)>;

  SocketChannel(boost::asio::io_context& io, Socket socket, std::string peer,
                const TransportOptions& options);
  ~SocketChannel() override;
  SocketChannel(const SocketChannel&) = delete;
  SocketChannel& operator=(const SocketChannel&) = delete;

  // I/O thread. The client sends Hello and waits for the answer; the server waits for Hello
  // and answers. Bounded by options.handshakeTimeout.
  void beginHandshake(Role role, HandshakeHandler done);
  // I/O thread. Closes now (a handshake in progress fails with `reason`).
  void closeOnIoThread(const std::string& reason);
  // Once the I/O thread has stopped for good (or on it, as its last act): destroys the socket
  // and the timer while their I/O context still exists. From then on the channel is a closed
  // husk that never touches the context again. A channel started too late for the I/O thread to
  // take its handlers gets its close handler called here, so that every started channel hears
  // of its end once.
  void release();

  // Channel. close() still sends the frames queued before it (for up to 5 s) and then closes;
  // its close handler runs then. send() also refuses (false, logged) a frame of a
  // transport-reserved type or one larger than the frame limit, which the peer would refuse anyway;
  // the channel stays open. start() on a channel whose transport is gone runs the close handler at
  // once, on the caller.
  void start(FrameHandler onFrame, CloseHandler onClose) override;
  bool send(Frame frame) override;
  void close(const std::string& reason) override;
  bool isOpen() const override;
  std::string peerDescription() const override { return peer_; }

 private:
  enum class Phase { Handshake, Open };

  // A frame waiting in the output queue; `sent` bytes of it (header first) are already out.
  struct OutFrame {
    std::array<char, kFrameHeaderSize> header;
    std::vector<char> body;
    std::size_t sent = 0;
    std::size_t remaining() const { return header.size() + body.size() - sent; }
  };

  bool enqueue(std::uint8_t type, std::uint64_t requestId, std::vector<char>&& body);
  // mutex_ held. Stops accepting frames and has the I/O thread close with `reason`, after
  // sending what is queued when `flushFirst`.
  void requestCloseLocked(const std::string& reason, bool flushFirst);
  void closeAfterFlush(const std::string& reason);
  void beginReading();
  void readMore();
  void onRead(const boost::system::error_code& error, std::size_t bytes);
  void parseInput();
  void dispatch(Frame frame);
  void handleHandshakeFrame(Frame frame);
  void finishHandshake();
  void refuse(const std::string& reason);
  void flush();
  void onWritten(const boost::system::error_code& error);
  void closeNow(const std::string& reason, bool abnormal);
  void notifyClose();
  std::string readErrorReason(const boost::system::error_code& error) const;

  boost::asio::io_context& io_;
  const std::string peer_;
  const TransportOptions options_;

  mutable std::mutex mutex_;
  // Guarded by mutex_. open_ is also read without it where a stale value is harmless.
  std::atomic<bool> open_{true};  // false once a close is requested: send() refuses from then on
  bool attached_ = true;          // false after release(): nothing may use io_ any more
  bool writing_ = false;          // a flush is posted or a write is in flight
  bool started_ = false;
  int fd_ = -1;                  // the socket's descriptor while it is open, for direct writes
  std::vector<OutFrame> queue_;  // frames not yet handed to a write
  std::size_t queuedBytes_ = 0;  // bytes in queue_ and in the write in flight
  FrameHandler pendingOnFrame_;  // handed over by start() to the I/O thread
  CloseHandler pendingOnClose_;

  // Socket and timer: used on the I/O thread; the socket is closed under mutex_ (a sender may
  // be writing to its descriptor) and both are destroyed by release().
  std::unique_ptr<Socket> socket_;
  std::unique_ptr<boost::asio::steady_timer> timer_;

  // I/O thread only.
  Role role_ = Role::Client;
  Phase phase_ = Phase::Handshake;
  HandshakeHandler handshakeDone_;
  FrameHandler onFrame_;
  CloseHandler onClose_;
  bool handlersInstalled_ = false;
  bool closed_ = false;
  bool closeNotified_ = false;
  std::string closeReason_;
  bool paused_ = false;   // frames are not parsed: before start(), after a refusal
  bool reading_ = false;  // a read is in flight
  std::vector<char> in_;  // reusable input buffer; unparsed bytes are [inBegin_, inEnd_)
  std::size_t inBegin_ = 0;
  std::size_t inEnd_ = 0;
  bool inLarge_ = false;  // reading a body too large for in_ straight into large_
  Frame large_;
  std::size_t largeHave_ = 0;
  std::size_t largeExpected_ = 0;
  std::vector<OutFrame> inFlight_;  // frames of the write in flight
  std::vector<boost::asio::const_buffer> buffers_;
  bool closeAfterFlush_ = false;
  std::string closeAfterFlushReason_;
};

}  // namespace wire
}  // namespace ka
