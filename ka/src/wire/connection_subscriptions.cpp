// Signals across the connection: the subscriptions this end makes at the peer and the events
// they bring, and those the peer makes here, forwarded as they are emitted.

#include "wire/connection.hpp"
#include "wire/connection_support.hpp"
#include "wire/remote_object.hpp"

#include <ka/log.hpp>

namespace ka {
namespace wire {

std::uint64_t Connection::newSubscriptionId() {
  std::lock_guard<std::mutex> lock(_mutex);
  return _nextSubscriptionId++;
}

Future<void> Connection::subscribe(std::uint32_t object, std::uint32_t signal,
                                   std::uint64_t subscription,
                                   const boost::weak_ptr<RemoteObject>& target) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _subscriptions[subscription] = Subscribed{target, object, signal};
  }
  const std::uint64_t id = newRequestId();
  return request(id, encodeConnect(id, ConnectMessage{object, signal, subscription}), nullptr)
      .andThen([](const AnyValue&) {});
}

Future<void> Connection::unsubscribe(std::uint64_t subscription) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _subscriptions.erase(subscription);
    if (_closed) {
      return makeReadyFuture();
    }
  }
  const std::uint64_t id = newRequestId();
  // Gone either way once answered: a lost connection drops the subscription as well.
  return request(id, encodeDisconnect(id, subscription), nullptr).then([](Future<AnyValue>) {});
}

void Connection::onConnect(const Frame& frame) {
  if (const std::string refused = refusal(); !refused.empty()) {
    replyError(frame.requestId, refused);
    return;
  }
  ConnectMessage message;
  try {
    message = decodeConnect(frame);
  } catch (const std::exception& e) {
    replyError(frame.requestId, e.what());
    return;
  }
  const std::weak_ptr<Connection> weak = weak_from_this();
  const std::uint64_t requestId = frame.requestId;
  _control.post([weak, requestId, message] {
    if (const auto self = weak.lock()) {
      self->serveConnect(requestId, message);
    }
  });
}

void Connection::serveConnect(std::uint64_t requestId, const ConnectMessage& message) {
  const AnyObject target = _objects.exported(message.object);
  if (!target) {
    replyError(requestId, RemoteObject::kGone);
    return;
  }
  const MetaSignal* meta = target->metaObject().signal(message.signal);
  if (meta == nullptr) {
    replyError(requestId, "Signal id " + std::to_string(message.signal) + " not found");
    return;
  }
  bool taken = false;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_closed) {
      return;
    }
    taken = !_servedSubscriptions.emplace(message.subscription, Served{target, SignalLink_Invalid})
                 .second;
  }
  if (taken) {
    replyError(requestId,
               "Subscription " + std::to_string(message.subscription) + " is already in use");
    return;
  }
  const std::weak_ptr<Connection> weak = weak_from_this();
  // Direct: the emission is encoded and queued for sending on the emitting thread, which keeps
  // the order of emissions and never waits on the peer.
  const AnyFunction forwarder = AnyFunction::fromDynamic(
      meta->argumentTypes, typeOf<void>(), [weak, message](const AnyReferenceVector& args) {
        if (const auto self = weak.lock()) {
          self->forward(message, args);
        }
        return AnyValue::makeVoid();
      });
  Future<SignalLink> link;
  try {
    link = target->metaConnect(message.signal, SignalSubscriber(forwarder, MetaCallType::Direct));
  } catch (const std::exception& e) {
    link = makeFutureError<SignalLink>(e.what());
  }
  (void)link.then([weak, requestId, message, target](Future<SignalLink> done) {
    const auto self = weak.lock();
    if (done.wait(FutureTimeout_None) != FutureState::FinishedWithValue) {
      if (self) {
        {
          std::lock_guard<std::mutex> lock(self->_mutex);
          self->_servedSubscriptions.erase(message.subscription);
        }
        self->replyError(requestId, done.error(FutureTimeout_None));
      }
      return;
    }
    const SignalLink made = done.value(FutureTimeout_None);
    bool kept = false;
    if (self) {
      std::lock_guard<std::mutex> lock(self->_mutex);
      const auto it = self->_servedSubscriptions.find(message.subscription);
      if (it != self->_servedSubscriptions.end() && !self->_closed) {
        it->second.link = made;
        kept = true;
      }
    }
    if (!kept) {
      // Disconnected (or the connection ended) while it was being made.
      (void)target->metaDisconnect(made);
    }
    if (self) {
      self->replyVoid(requestId);
    }
  });
}

void Connection::forward(const ConnectMessage& subscription, const AnyReferenceVector& args) {
  Frame frame;
  try {
    frame = encodeEvent(subscription.object, subscription.signal, subscription.subscription, args,
                        &_objects);
  } catch (const std::exception& e) {
    KA_LOG_WARNING(kConnectionCategory)
        << "Cannot forward an event to " << _peer << ": " << e.what();
    return;
  }
  if (!send(std::move(frame)) && _channel->isOpen()) {
    KA_LOG_WARNING(kConnectionCategory) << "The channel to " << _peer << " refused an event";
  }
}

void Connection::onDisconnect(const Frame& frame) {
  std::uint64_t subscription = 0;
  try {
    subscription = decodeDisconnect(frame);
  } catch (const std::exception& e) {
    replyError(frame.requestId, e.what());
    return;
  }
  const std::weak_ptr<Connection> weak = weak_from_this();
  const std::uint64_t requestId = frame.requestId;
  _control.post([weak, requestId, subscription] {
    if (const auto self = weak.lock()) {
      self->serveDisconnect(requestId, subscription);
    }
  });
}

void Connection::serveDisconnect(std::uint64_t requestId, std::uint64_t subscription) {
  Served served;
  bool found = false;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    const auto it = _servedSubscriptions.find(subscription);
    if (it != _servedSubscriptions.end()) {
      served = std::move(it->second);
      _servedSubscriptions.erase(it);
      found = true;
    }
  }
  if (!found) {
    replyError(requestId, "Unknown subscription " + std::to_string(subscription));
    return;
  }
  if (served.link == SignalLink_Invalid) {
    replyVoid(requestId);  // still being made: serveConnect undoes it when it is
    return;
  }
  Future<void> done;
  try {
    done = served.object->metaDisconnect(served.link);
  } catch (const std::exception& e) {
    done = makeFutureError<void>(e.what());
  }
  const std::weak_ptr<Connection> weak = weak_from_this();
  (void)done.then([weak, requestId](Future<void>) {
    if (const auto self = weak.lock()) {
      self->replyVoid(requestId);
    }
  });
}

void Connection::onEvent(const Frame& frame) {
  EventMessage event;
  try {
    event = decodeEvent(frame, &_objects);
  } catch (const std::exception& e) {
    KA_LOG_WARNING(kConnectionCategory)
        << "Dropped a malformed event from " << _peer << ": " << e.what();
    return;
  }
  boost::weak_ptr<RemoteObject> target;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    const auto it = _subscriptions.find(event.subscription);
    // Only what this end subscribed to, on the object and signal it subscribed to: a peer
    // cannot emit anything else here.
    if (it == _subscriptions.end() || it->second.object != event.object ||
        it->second.signal != event.signal) {
      KA_LOG_DEBUG(kConnectionCategory) << "Dropped an event of no subscription from " << _peer;
      return;
    }
    target = it->second.target;
  }
  auto args = std::make_shared<std::vector<AnyValue>>(std::move(event.args));
  _events.post([target, event = std::move(event), args] {
    if (const auto object = target.lock()) {
      object->deliver(event.signal, event.subscription, *args);
    }
  });
}

}  // namespace wire
}  // namespace ka
