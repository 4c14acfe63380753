// The connection's life (start, graceful stop, shutdown) and the dispatch of every frame the peer
// sends to the job that handles its type.

#include "wire/connection.hpp"
#include "wire/connection_support.hpp"

#include <ka/log.hpp>

namespace ka {
namespace wire {

std::shared_ptr<Connection> Connection::create(ChannelPtr channel,
                                               std::optional<ServedDirectory> served) {
  auto connection = std::make_shared<Connection>(Key{}, std::move(channel), std::move(served));
  connection->_objects.setOwner(connection);
  return connection;
}

Connection::Connection(Key, ChannelPtr channel, std::optional<ServedDirectory> served)
    : _channel(std::move(channel)),
      _served(std::move(served)),
      _peer(_channel->peerDescription()),
      _objects(_served ? _served->object : AnyObject()) {}

Connection::~Connection() {
  std::map<std::uint64_t, Pending> pending;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_closed) {
      return;
    }
    _closed = true;
    pending.swap(_pending);
  }
  _channel->close("The connection was dropped");
  for (auto& p : pending) {
    p.second.promise.trySetError(lost("the connection was dropped"));
  }
}

void Connection::start(ClosedHandler onClosed) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _onClosed = std::move(onClosed);
  }
  const std::weak_ptr<Connection> weak = weak_from_this();
  _channel->start(
      [weak](Frame frame) {
        if (const auto self = weak.lock()) {
          self->onFrame(std::move(frame));
        }
      },
      [weak, ended = _ended](const std::string& reason) mutable {
        if (const auto self = weak.lock()) {
          self->shutdown(reason);
        }
        ended.trySetValue();
      });
}

void Connection::close(const std::string& reason) {
  shutdown(reason);
}

bool Connection::isOpen() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return !_closed;
}

void Connection::stopServing(const std::string& reason) {
  std::lock_guard<std::mutex> lock(_mutex);
  _refusal = reason.empty() ? std::string("The service is shutting down") : reason;
}

bool Connection::waitIdle(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(_mutex);
  return _idle.wait_until(lock, deadline, [this] { return _running == 0; });
}

std::string Connection::refusal() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _refusal;
}

void Connection::callDone() {
  std::lock_guard<std::mutex> lock(_mutex);
  if (--_running == 0) {
    _idle.notify_all();
  }
}

std::string Connection::lost(const std::string& reason) const {
  return "Connection lost to " + _peer + ": " + reason;
}

void Connection::shutdown(const std::string& reason) {
  struct Leftovers {
    std::map<std::uint64_t, Pending> pending;
    std::map<std::uint64_t, Served> served;
    ObjectTable::Exports exports;
    ClosedHandler onClosed;
  };
  auto left = std::make_shared<Leftovers>();
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_closed) {
      return;
    }
    _closed = true;
    _closeReason = reason;
    left->pending.swap(_pending);
    left->served.swap(_servedSubscriptions);
    _subscriptions.clear();
    left->onClosed = std::move(_onClosed);
  }
  left->exports = _objects.takeExports();
  _channel->close(reason);
  KA_LOG_VERBOSE(kConnectionCategory) << "Connection to " << _peer << " closed: " << reason;
  // Waiting calls fail first, at once (what is chained to them goes to the event loop); then
  // the peer's subscriptions and handles go (running whatever the objects do when they lose
  // them), then the owner hears of it.
  const std::string text = lost(reason);
  for (auto& p : left->pending) {
    p.second.promise.trySetError(text);
  }
  left->pending.clear();
  onLoop([left, reason] {
    for (auto& s : left->served) {
      if (s.second.link != SignalLink_Invalid) {
        (void)s.second.object->metaDisconnect(s.second.link);
      }
    }
    left->served.clear();
    left->exports.clear();
    if (left->onClosed) {
      left->onClosed(reason);
    }
  });
}

bool Connection::send(Frame frame) {
  // A channel refuses a frame when it is closed (its close handler follows with the reason and
  // ends this connection) or, while staying open, a frame it will never carry (one larger than
  // the frame limit): the callers below answer the second case.
  return _channel->send(std::move(frame));
}

void Connection::onFrame(Frame frame) {
  if (!isOpen()) {
    return;  // frames still in flight when this end closed
  }
  const auto type = static_cast<MessageType>(frame.type);
  if (frame.requestId == 0 && (type == MessageType::Call || type == MessageType::Connect ||
                               type == MessageType::Disconnect || type == MessageType::Lookup)) {
    // No answer could name this request, so its caller could never learn what became of it:
    // running it would be a change nobody asked to see.
    KA_LOG_WARNING(kConnectionCategory) << "Request of type " << static_cast<int>(frame.type)
                                        << " without a request id from " << _peer << ": not run";
    return;
  }
  try {
    // Whatever the frame's values make the process intern is on this connection's account.
    const detail::SignatureBudgetScope budget(_signatures);
    switch (type) {
      case MessageType::Call:
        onCall(frame);
        return;
      case MessageType::Reply:
      case MessageType::Error:
        onAnswer(frame);
        return;
      case MessageType::Connect:
        onConnect(frame);
        return;
      case MessageType::Disconnect:
        onDisconnect(frame);
        return;
      case MessageType::Event:
        onEvent(frame);
        return;
      case MessageType::Lookup:
        onLookup(frame);
        return;
      case MessageType::Release:
        onRelease(frame);
        return;
    }
    KA_LOG_WARNING(kConnectionCategory)
        << "Unknown message type " << static_cast<int>(frame.type) << " from " << _peer;
    replyError(frame.requestId, "Unknown message type " + std::to_string(frame.type));
  } catch (const std::exception& e) {
    // Nothing a peer sends may take the transport down.
    KA_LOG_WARNING(kConnectionCategory) << "Bad message of type " << static_cast<int>(frame.type)
                                        << " from " << _peer << ": " << e.what();
    replyError(frame.requestId, e.what());
  }
}

std::size_t Connection::exportCount() const {
  return _objects.exportCount();
}

std::size_t Connection::importCount() const {
  return _objects.importCount();
}

}  // namespace wire
}  // namespace ka
