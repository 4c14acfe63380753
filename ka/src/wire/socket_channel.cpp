#include "wire/socket_channel.hpp"

#include "wire/handshake.hpp"

#include <ka/log.hpp>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <utility>

namespace ka {
namespace wire {

namespace {

constexpr const char kCategory[] = "ka.transport";
// Input buffer: holds headers and the bodies of ordinary frames, many per read.
constexpr std::size_t kInputBufferSize = 64 * 1024;
// A body that does not fit the input buffer gets its own, grown as its bytes arrive, starting
// here: what a peer makes us allocate follows what it actually sent, not what it declared.
constexpr std::size_t kFirstLargeChunk = 256 * 1024;
// close() sends what was queued before it for at most this long.
constexpr std::chrono::milliseconds kCloseLinger{5000};

std::string hexByte(std::uint8_t value) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02x", static_cast<unsigned>(value));
  return text;
}

}  // namespace

SocketChannel::SocketChannel(boost::asio::io_context& io, Socket socket, std::string peer,
                             const TransportOptions& options)
    : io_(io),
      peer_(std::move(peer)),
      options_(options),
      fd_(socket.native_handle()),
      socket_(std::make_unique<Socket>(std::move(socket))),
      timer_(std::make_unique<boost::asio::steady_timer>(io)),
      in_(kInputBufferSize) {}

SocketChannel::~SocketChannel() = default;

void SocketChannel::beginHandshake(Role role, HandshakeHandler done) {
  role_ = role;
  handshakeDone_ = std::move(done);
  timer_->expires_after(options_.handshakeTimeout);
  timer_->async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    if (!error && self->phase_ == Phase::Handshake) {
      self->closeNow("handshake not completed within " +
                         std::to_string(self->options_.handshakeTimeout.count()) + " ms",
                     true);
    }
  });
  if (role_ == Role::Client) {
    enqueue(kHelloType, 0, encodeHello(options_.token));
  }
  readMore();
}

void SocketChannel::closeOnIoThread(const std::string& reason) {
  closeNow(reason, false);
}

void SocketChannel::release() {
  CloseHandler unstarted;  // started, but the I/O thread stopped before it took the handlers
  {
    std::lock_guard<std::mutex> lock(mutex_);
    attached_ = false;
    open_ = false;
    fd_ = -1;
    queue_.clear();
    pendingOnFrame_ = nullptr;
    if (!handlersInstalled_) {
      unstarted = std::move(pendingOnClose_);
    }
    pendingOnClose_ = nullptr;
  }
  socket_.reset();
  timer_.reset();
  // Handlers may hold what holds this channel; dropping them breaks such cycles.
  handshakeDone_ = nullptr;
  onFrame_ = nullptr;
  onClose_ = nullptr;
  closed_ = true;
  if (unstarted) {
    try {
      unstarted("transport shut down");
    } catch (const std::exception& e) {
      KA_LOG_ERROR(kCategory) << peer_ << ": close handler threw: " << e.what();
    }
  }
}

void SocketChannel::start(FrameHandler onFrame, CloseHandler onClose) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (started_) {
    KA_LOG_ERROR(kCategory) << peer_ << ": start() called twice; ignored";
    return;
  }
  started_ = true;
  if (!attached_) {
    lock.unlock();
    if (onClose) {
      onClose("transport shut down");
    }
    return;
  }
  pendingOnFrame_ = std::move(onFrame);
  pendingOnClose_ = std::move(onClose);
  boost::asio::post(io_, [self = shared_from_this()] { self->beginReading(); });
}

bool SocketChannel::send(Frame frame) {
  if (frame.type >= kFirstTransportType) {
    KA_LOG_ERROR(kCategory) << peer_ << ": refusing to send a frame of reserved type "
                            << hexByte(frame.type);
    return false;
  }
  if (frame.body.size() > options_.maxFrameBody) {
    KA_LOG_ERROR(kCategory) << peer_ << ": refusing to send a frame body of " << frame.body.size()
                            << " bytes, above the limit of " << options_.maxFrameBody;
    return false;
  }
  return enqueue(frame.type, frame.requestId, std::move(frame.body));
}

void SocketChannel::close(const std::string& reason) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (open_) {
    requestCloseLocked(reason, true);
  }
}

bool SocketChannel::isOpen() const {
  return open_.load();
}

bool SocketChannel::enqueue(std::uint8_t type, std::uint64_t requestId, std::vector<char>&& body) {
  const std::size_t size = kFrameHeaderSize + body.size();
  std::lock_guard<std::mutex> lock(mutex_);
  if (!open_) {
    return false;
  }
  if (queuedBytes_ + size > options_.maxQueuedOutput) {
    const std::string reason = "output limit exceeded: " + std::to_string(queuedBytes_) +
                               " bytes queued and " + std::to_string(size) + " more, limit " +
                               std::to_string(options_.maxQueuedOutput) +
                               " (the peer does not read)";
    KA_LOG_WARNING(kCategory) << peer_ << ": closing: " << reason;
    requestCloseLocked(reason, false);
    return false;
  }
  OutFrame out;
  encodeFrameHeader(type, requestId, static_cast<std::uint32_t>(body.size()), out.header.data());
  // Nothing queued and no write in flight: a sender on another thread writes at once, sparing
  // a wake-up of the I/O thread; never blocks, what the socket does not take is queued below.
  // On the I/O thread (replies sent from a frame handler) the frame is queued instead: the
  // flush runs once the handler's whole read is processed and sends its replies in one write.
  if (!writing_ && fd_ >= 0 && !io_.get_executor().running_in_this_thread()) {
    iovec pieces[2] = {{out.header.data(), out.header.size()}, {body.data(), body.size()}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = body.empty() ? 1 : 2;
    ssize_t written;
    do {
      written = ::sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (written < 0 && errno == EINTR);
    if (written == static_cast<ssize_t>(size)) {
      return true;
    }
    if (written < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
      const std::string reason = std::string("connection lost: ") + std::strerror(errno);
      requestCloseLocked(reason, false);
      return false;
    }
    out.sent = written > 0 ? static_cast<std::size_t>(written) : 0;
  }
  out.body = std::move(body);
  queuedBytes_ += out.remaining();
  queue_.push_back(std::move(out));
  if (!writing_) {
    writing_ = true;
    boost::asio::post(io_, [self = shared_from_this()] { self->flush(); });
  }
  return true;
}

void SocketChannel::requestCloseLocked(const std::string& reason, bool flushFirst) {
  open_ = false;
  if (attached_) {
    boost::asio::post(io_, [self = shared_from_this(), reason, flushFirst] {
      if (flushFirst) {
        self->closeAfterFlush(reason);
      } else {
        self->closeNow(reason, true);
      }
    });
  }
}

void SocketChannel::closeAfterFlush(const std::string& reason) {
  if (closed_ || closeAfterFlush_) {
    return;
  }
  bool pending;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending = writing_;
  }
  if (!pending) {
    closeNow(reason, false);
    return;
  }
  // onWritten closes once the queue is empty; a peer that stops reading cannot hold the
  // connection open for longer than this.
  closeAfterFlush_ = true;
  closeAfterFlushReason_ = reason;
  timer_->expires_after(kCloseLinger);
  timer_->async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    if (!error) {
      self->closeNow(self->closeAfterFlushReason_ + " (frames still queued after " +
                         std::to_string(kCloseLinger.count()) + " ms were dropped)",
                     true);
    }
  });
}

void SocketChannel::beginReading() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    onFrame_ = std::move(pendingOnFrame_);
    onClose_ = std::move(pendingOnClose_);
  }
  handlersInstalled_ = true;
  if (closed_) {
    notifyClose();
    return;
  }
  paused_ = false;
  parseInput();
  readMore();
}

void SocketChannel::readMore() {
  if (closed_ || reading_ || paused_ || !open_) {
    return;  // (when a close was requested, it is on its way to this thread)
  }
  boost::asio::mutable_buffer target;
  if (inLarge_) {
    target = boost::asio::buffer(large_.body.data() + largeHave_, large_.body.size() - largeHave_);
  } else {
    if (inBegin_ == inEnd_) {
      inBegin_ = inEnd_ = 0;
    } else if (inBegin_ > 0 && in_.size() - inEnd_ < kInputBufferSize / 4) {
      // Little room left at the end: move the unparsed bytes to the front. (parseInput already
      // did so when a partial frame that fits the buffer would run past its end.)
      std::memmove(in_.data(), in_.data() + inBegin_, inEnd_ - inBegin_);
      inEnd_ -= inBegin_;
      inBegin_ = 0;
    }
    target = boost::asio::buffer(in_.data() + inEnd_, in_.size() - inEnd_);
  }
  reading_ = true;
  socket_->async_read_some(
      target, [self = shared_from_this()](const boost::system::error_code& error,
                                          std::size_t bytes) { self->onRead(error, bytes); });
}

void SocketChannel::onRead(const boost::system::error_code& error, std::size_t bytes) {
  reading_ = false;
  if (closed_) {
    return;
  }
  if (error) {
    // A clean end between frames is ordinary, also before Hello (a liveness probe).
    const bool clean = error == boost::asio::error::eof && !inLarge_ && inBegin_ == inEnd_;
    closeNow(readErrorReason(error), !clean);
    return;
  }
  if (inLarge_) {
    largeHave_ += bytes;
    if (largeHave_ == large_.body.size()) {
      if (largeHave_ < largeExpected_) {
        large_.body.resize(std::min(largeExpected_, large_.body.size() * 2));
      } else {
        inLarge_ = false;
        largeHave_ = 0;
        dispatch(std::move(large_));
        large_ = Frame{};
      }
    }
  } else {
    inEnd_ += bytes;
  }
  parseInput();
  readMore();
}

std::string SocketChannel::readErrorReason(const boost::system::error_code& error) const {
  if (error == boost::asio::error::eof) {
    if (phase_ == Phase::Handshake) {
      return "connection closed by peer during the handshake";
    }
    if (inLarge_) {
      return "connection closed by peer in the middle of a frame (" + std::to_string(largeHave_) +
             " of " + std::to_string(largeExpected_) + " body bytes received)";
    }
    if (inBegin_ != inEnd_) {
      return "connection closed by peer in the middle of a frame (" +
             std::to_string(inEnd_ - inBegin_) + " bytes of it received)";
    }
    return "connection closed by peer";
  }
  return "connection lost: " + error.message();
}

void SocketChannel::parseInput() {
  while (!closed_ && !paused_ && !inLarge_ && open_.load(std::memory_order_relaxed)) {
    const std::size_t available = inEnd_ - inBegin_;
    if (available < kFrameHeaderSize) {
      return;
    }
    const char* data = in_.data() + inBegin_;
    const std::size_t limit =
        phase_ == Phase::Handshake ? kMaxHandshakeBody : options_.maxFrameBody;
    FrameHeader header;
    const HeaderError error = decodeFrameHeader(data, limit, header);
    if (error != HeaderError::None) {
      const std::string reason = describeHeaderError(error, header, data, limit);
      if (phase_ == Phase::Handshake && role_ == Role::Server &&
          error == HeaderError::UnsupportedVersion) {
        refuse(reason);
      } else {
        closeNow(reason, true);
      }
      return;
    }
    const std::size_t total = kFrameHeaderSize + header.bodyLength;
    if (available >= total) {
      Frame frame;
      frame.type = header.type;
      frame.requestId = header.requestId;
      frame.body.assign(data + kFrameHeaderSize, data + total);
      inBegin_ += total;
      dispatch(std::move(frame));
      continue;
    }
    if (total <= in_.size()) {
      if (in_.size() - inBegin_ < total) {
        std::memmove(in_.data(), data, available);
        inBegin_ = 0;
        inEnd_ = available;
      }
      return;
    }
    // Too large for the input buffer (and within the limit, checked above).
    const std::size_t have = available - kFrameHeaderSize;
    large_ = Frame{};
    large_.type = header.type;
    large_.requestId = header.requestId;
    large_.body.resize(std::max(have, std::min<std::size_t>(header.bodyLength, kFirstLargeChunk)));
    std::memcpy(large_.body.data(), data + kFrameHeaderSize, have);
    largeHave_ = have;
    largeExpected_ = header.bodyLength;
    inLarge_ = true;
    inBegin_ = inEnd_ = 0;
  }
}

void SocketChannel::dispatch(Frame frame) {
  if (phase_ == Phase::Handshake) {
    handleHandshakeFrame(std::move(frame));
    return;
  }
  if (frame.type >= kFirstTransportType) {
    closeNow("unexpected frame of transport type " + hexByte(frame.type) + " after the handshake",
             true);
    return;
  }
  if (!open_ || !onFrame_) {
    return;  // a close was requested: no frame is delivered any more
  }
  try {
    onFrame_(std::move(frame));
  } catch (const std::exception& e) {
    closeNow(std::string("frame handler threw: ") + e.what(), true);
  } catch (...) {
    closeNow("frame handler threw an unknown exception", true);
  }
}

void SocketChannel::handleHandshakeFrame(Frame frame) {
  if (role_ == Role::Server) {
    if (frame.type != kHelloType) {
      closeNow("expected a hello frame, got type " + hexByte(frame.type), true);
      return;
    }
    const auto token = decodeHello(frame.body);
    if (!token) {
      refuse("malformed hello");
      return;
    }
    if (!options_.token.empty() && !constantTimeEquals(*token, options_.token)) {
      refuse(token->empty() ? "this server requires a token" : "wrong token");
      return;
    }
    enqueue(kWelcomeType, 0, encodeWelcome());
    finishHandshake();
    return;
  }
  if (frame.type == kWelcomeType && decodeWelcome(frame.body)) {
    finishHandshake();
  } else if (frame.type == kRefusedType) {
    closeNow("refused by the server: " +
                 decodeRefused(frame.body).value_or("(malformed refusal, no reason given)"),
             true);
  } else {
    closeNow("unexpected answer to hello: frame type " + hexByte(frame.type), true);
  }
}

void SocketChannel::finishHandshake() {
  phase_ = Phase::Open;
  paused_ = true;  // until start(); bytes already read stay buffered
  timer_->cancel();
  KA_LOG_VERBOSE(kCategory) << peer_ << ": connected";
  if (auto done = std::move(handshakeDone_)) {
    handshakeDone_ = nullptr;
    done(std::string());
  }
}

void SocketChannel::refuse(const std::string& reason) {
  KA_LOG_WARNING(kCategory) << peer_ << ": refusing the connection: " << reason;
  paused_ = true;
  enqueue(kRefusedType, 0, encodeRefused(reason));
  bool flushed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = false;
    flushed = !writing_;
  }
  if (flushed) {
    closeNow("refused: " + reason, false);
  } else {
    closeAfterFlush_ = true;
    closeAfterFlushReason_ = "refused: " + reason;
  }
}

void SocketChannel::flush() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || queue_.empty()) {
      writing_ = false;
      if (closed_ || !closeAfterFlush_) {
        return;
      }
    } else {
      inFlight_.swap(queue_);
    }
  }
  if (inFlight_.empty()) {
    closeNow(closeAfterFlushReason_, false);
    return;
  }
  buffers_.clear();
  for (const OutFrame& frame : inFlight_) {
    if (frame.sent < frame.header.size()) {
      buffers_.emplace_back(frame.header.data() + frame.sent, frame.header.size() - frame.sent);
      if (!frame.body.empty()) {
        buffers_.emplace_back(frame.body.data(), frame.body.size());
      }
    } else {
      const std::size_t skip = frame.sent - frame.header.size();
      buffers_.emplace_back(frame.body.data() + skip, frame.body.size() - skip);
    }
  }
  boost::asio::async_write(*socket_, buffers_,
                           [self = shared_from_this()](const boost::system::error_code& error,
                                                       std::size_t) { self->onWritten(error); });
}

void SocketChannel::onWritten(const boost::system::error_code& error) {
  std::size_t written = 0;
  for (const OutFrame& frame : inFlight_) {
    written += frame.remaining();
  }
  inFlight_.clear();
  if (closed_) {
    std::lock_guard<std::mutex> lock(mutex_);
    writing_ = false;
    return;
  }
  if (error) {
    closeNow("connection lost while writing: " + error.message(), true);
    return;
  }
  bool empty;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    queuedBytes_ -= written;
    empty = queue_.empty();
  }
  if (closeAfterFlush_ && empty) {
    closeNow(closeAfterFlushReason_, false);
    return;
  }
  flush();
}

void SocketChannel::closeNow(const std::string& reason, bool abnormal) {
  if (closed_) {
    return;
  }
  closed_ = true;
  closeReason_ = reason;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = false;
    fd_ = -1;
    queue_.clear();
    queuedBytes_ = 0;
    if (socket_) {
      boost::system::error_code ignored;
      socket_->shutdown(Socket::shutdown_both, ignored);
      socket_->close(ignored);
    }
  }
  if (timer_) {
    timer_->cancel();
  }
  if (abnormal) {
    KA_LOG_WARNING(kCategory) << peer_ << ": closed: " << reason;
  } else {
    KA_LOG_VERBOSE(kCategory) << peer_ << ": closed: " << reason;
  }
  if (phase_ == Phase::Handshake) {
    if (auto done = std::move(handshakeDone_)) {
      handshakeDone_ = nullptr;
      done(reason);
    }
    return;
  }
  notifyClose();
}

void SocketChannel::notifyClose() {
  if (!handlersInstalled_ || closeNotified_) {
    return;
  }
  closeNotified_ = true;
  onFrame_ = nullptr;
  CloseHandler handler = std::move(onClose_);
  onClose_ = nullptr;
  if (!handler) {
    return;
  }
  try {
    handler(closeReason_);
  } catch (const std::exception& e) {
    KA_LOG_ERROR(kCategory) << peer_ << ": close handler threw: " << e.what();
  } catch (...) {
    KA_LOG_ERROR(kCategory) << peer_ << ": close handler threw an unknown exception";
  }
}

}  // namespace wire
}  // namespace ka
