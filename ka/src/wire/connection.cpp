#include "wire/connection.hpp"

#include <ka/log.hpp>
#include <ka/session.hpp>

#include "wire/io_threads.hpp"
#include "wire/remote_object.hpp"

#include <boost/make_shared.hpp>

namespace ka {
namespace wire {
namespace {

const char* const kCategory = "ka.remote";

// Runs `task` on the event loop, or here when the loop has stopped, so that promises still end.
void onLoop(std::function<void()> task) {
  auto shared = std::make_shared<std::function<void()>>(std::move(task));
  if (!defaultEventLoop().tryPost([shared] { (*shared)(); })) {
    (*shared)();
  }
}

// Where the futures of requests run what was chained to them: the event loop, since their
// answers complete them on the transport thread.
void continueOnLoop(detail::SharedStateBase::Continuation task) {
  auto shared = std::make_shared<detail::SharedStateBase::Continuation>(std::move(task));
  onLoop([shared] { (*shared)(); });
}

// `value` as a value of `expected`, the advertised result type of a method.
AnyValue conform(AnyValue value, const TypeInterface* expected) {
  if (expected == nullptr || expected->kind() == TypeKind::Dynamic) {
    return value;
  }
  if (!value.isValid()) {
    throw std::runtime_error("the reply holds no value where \"" +
                             expected->signature().toString() + "\" was advertised");
  }
  if (sameType(value.type(), expected) || value.type()->signature() == expected->signature()) {
    return value;
  }
  return value.convert(expected);
}

}  // namespace

std::shared_ptr<Connection> Connection::create(ChannelPtr channel,
                                               std::optional<ServedDirectory> served) {
  return std::make_shared<Connection>(Key{}, std::move(channel), std::move(served));
}

Connection::Connection(Key, ChannelPtr channel, std::optional<ServedDirectory> served)
    : _channel(std::move(channel)), _served(std::move(served)), _peer(_channel->peerDescription()) {
  if (_served && _served->object) {
    _exports[kDirectoryObjectId] = Export{_served->object, 0};
    _exportIds[_served->object.asGenericObject().get()] = kDirectoryObjectId;
  }
}

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
    std::map<std::uint32_t, Export> exports;
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
    left->exports.swap(_exports);
    _exportIds.clear();
    _subscriptions.clear();
    left->onClosed = std::move(_onClosed);
  }
  _channel->close(reason);
  KA_LOG_VERBOSE(kCategory) << "Connection to " << _peer << " closed: " << reason;
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

std::uint64_t Connection::newRequestId() {
  std::lock_guard<std::mutex> lock(_mutex);
  return _nextRequestId++;
}

std::uint64_t Connection::newSubscriptionId() {
  std::lock_guard<std::mutex> lock(_mutex);
  return _nextSubscriptionId++;
}

Future<AnyValue> Connection::request(std::uint64_t requestId, Frame frame,
                                     const TypeInterface* expected) {
  Promise<AnyValue> promise;
  // The answer completes it on the transport thread: a caller that only waits is woken from
  // there directly, what is chained to it runs on the event loop.
  detail::PromiseAccess::state(promise).handContinuationsTo(&continueOnLoop);
  Future<AnyValue> result = promise.future();
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_closed) {
      return makeFutureError<AnyValue>(lost(_closeReason));
    }
    _pending.emplace(requestId, Pending{promise, expected});
  }
  if (!send(std::move(frame)) && _channel->isOpen()) {
    std::lock_guard<std::mutex> lock(_mutex);
    _pending.erase(requestId);
    return makeFutureError<AnyValue>("Cannot send the request to " + _peer +
                                     ": the channel refused it (larger than the frame limit?)");
  }
  return result;
}

void Connection::replyError(std::uint64_t requestId, const std::string& text) {
  if (requestId != 0) {
    (void)send(encodeError(requestId, text));
  }
}

void Connection::replyVoid(std::uint64_t requestId) {
  (void)send(encodeReply(requestId, AnyValue::makeVoid(), nullptr));
}

void Connection::reply(std::uint64_t requestId, const Future<AnyValue>& result) {
  Frame frame;
  if (result.wait(FutureTimeout_None) == FutureState::FinishedWithValue) {
    try {
      frame = encodeReply(requestId, result.value(FutureTimeout_None), this);
    } catch (const std::exception& e) {
      frame = encodeError(requestId, std::string("Cannot send the result: ") + e.what());
    }
  } else {
    frame = encodeError(requestId, result.error(FutureTimeout_None));
  }
  if (!send(std::move(frame)) && _channel->isOpen()) {
    // The caller must hear something: a short error always fits.
    (void)send(encodeError(requestId,
                           "Cannot send the result: the channel refused it (larger "
                           "than the frame limit?)"));
  }
}

AnyObject Connection::exported(std::uint32_t id) const {
  std::lock_guard<std::mutex> lock(_mutex);
  const auto it = _exports.find(id);
  return it == _exports.end() ? AnyObject() : it->second.object;
}

std::uint32_t Connection::exportObject(const boost::shared_ptr<GenericObject>& object) {
  std::lock_guard<std::mutex> lock(_mutex);
  const auto known = _exportIds.find(object.get());
  if (known != _exportIds.end()) {
    ++_exports[known->second].sent;
    return known->second;
  }
  const std::uint32_t id = _nextExportId++;
  _exports[id] = Export{AnyObject(object), 1};
  _exportIds[object.get()] = id;
  return id;
}

std::size_t Connection::exportCount() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _exports.size();
}

std::size_t Connection::importCount() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _imports.size();
}

void Connection::pack(Packer& pk, const boost::shared_ptr<GenericObject>& object) {
  if (!object) {
    pk.pack_nil();
    return;
  }
  packObjectReference(pk, exportObject(object), describe(object->metaObject()));
}

boost::shared_ptr<GenericObject> Connection::unpack(const msgpack::object& o) {
  if (o.type == msgpack::type::NIL) {
    return nullptr;
  }
  const ObjectReference ref = unpackObjectReference(o);
  // Declared before the lock: the last reference to a stale import must not go with it held.
  boost::shared_ptr<RemoteObject> object;
  std::lock_guard<std::mutex> lock(_mutex);
  const auto it = _imports.find(ref.id);
  if (it != _imports.end()) {
    object = it->second.object.lock();
  }
  if (object) {
    object->received();
    return object;
  }
  object =
      boost::make_shared<RemoteObject>(weak_from_this(), ref.id, toMetaObject(ref.description));
  _imports[ref.id] = Import{object, object.get()};
  return object;
}

void Connection::release(std::uint32_t object, std::uint64_t received, const RemoteObject* self) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    const auto it = _imports.find(object);
    if (it != _imports.end() && it->second.raw == self) {
      _imports.erase(it);
    }
    if (_closed) {
      return;
    }
  }
  (void)send(encodeRelease(ReleaseMessage{object, received}));
}

Future<AnyObject> Connection::lookup(const std::string& name) {
  const std::uint64_t id = newRequestId();
  return request(id, encodeLookup(id, name), nullptr).andThen([](const AnyValue& value) {
    return value.to<AnyObject>();
  });
}

Future<AnyValue> Connection::call(std::uint32_t object, const MetaMethod& method,
                                  const AnyReferenceVector& args) {
  const std::uint64_t id = newRequestId();
  Frame frame;
  try {
    frame = encodeCall(id, object, method.uid, args, this);
  } catch (const std::exception& e) {
    return makeFutureError<AnyValue>("Cannot send the arguments of " + method.name + ": " +
                                     e.what());
  }
  return request(id, std::move(frame), method.returnType);
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

void Connection::onFrame(Frame frame) {
  if (!isOpen()) {
    return;  // frames still in flight when this end closed
  }
  const auto type = static_cast<MessageType>(frame.type);
  if (frame.requestId == 0 && (type == MessageType::Call || type == MessageType::Connect ||
                               type == MessageType::Disconnect || type == MessageType::Lookup)) {
    // No answer could name this request, so its caller could never learn what became of it:
    // running it would be a change nobody asked to see.
    KA_LOG_WARNING(kCategory) << "Request of type " << static_cast<int>(frame.type)
                              << " without a request id from " << _peer << ": not run";
    return;
  }
  try {
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
    KA_LOG_WARNING(kCategory) << "Unknown message type " << static_cast<int>(frame.type) << " from "
                              << _peer;
    replyError(frame.requestId, "Unknown message type " + std::to_string(frame.type));
  } catch (const std::exception& e) {
    // Nothing a peer sends may take the transport down.
    KA_LOG_WARNING(kCategory) << "Bad message of type " << static_cast<int>(frame.type) << " from "
                              << _peer << ": " << e.what();
    replyError(frame.requestId, e.what());
  }
}

void Connection::onCall(const Frame& frame) {
  CallMessage call;
  try {
    call = decodeCall(frame, this);
  } catch (const std::exception& e) {
    replyError(frame.requestId, e.what());
    return;
  }
  const AnyObject target = exported(call.object);
  if (!target) {
    replyError(frame.requestId, RemoteObject::kGone);
    return;
  }
  {
    // Checked and counted together, so that once stopServing returns no new call starts.
    std::unique_lock<std::mutex> lock(_mutex);
    if (!_refusal.empty()) {
      const std::string refused = _refusal;
      lock.unlock();
      replyError(frame.requestId, refused);
      return;
    }
    ++_running;
  }
  const std::uint64_t requestId = frame.requestId;
  // A method that may run on any thread runs on this one, right after the frames of this read:
  // no other thread is woken, and should it block, the thread hands the reading on first (see
  // IoThreads). Anything else is queued as a local caller's queued call would be.
  // (An in-process channel delivers on the event loop, whose order the queued call keeps.)
  if (IoThreads::inHandler() && target->runsOnAnyThread(call.method)) {
    IoThreads::Task task = [weak = weak_from_this(), requestId, target, call = std::move(call)] {
      if (const auto self = weak.lock()) {
        self->serveCall(requestId, target, call, MetaCallType::Direct);
      }
    };
    (void)IoThreads::runAfterHandler(task);
    return;
  }
  serveCall(requestId, target, call, MetaCallType::Queued);
}

void Connection::serveCall(std::uint64_t requestId, const AnyObject& target,
                           const CallMessage& call, MetaCallType callType) {
  // A queued call copies its arguments before returning.
  const AnyReferenceVector args(call.args.begin(), call.args.end());
  Future<AnyValue> result;
  try {
    result = target->metaCall(call.method, args, callType);
  } catch (const std::exception& e) {
    result = makeFutureError<AnyValue>(e.what());
  }
  if (result.isFinished()) {
    reply(requestId, result);
    callDone();
    return;
  }
  const std::weak_ptr<Connection> weak = weak_from_this();
  (void)result.then([weak, requestId](Future<AnyValue> done) {
    if (const auto self = weak.lock()) {
      self->reply(requestId, done);
      self->callDone();
    }
  });
}

void Connection::onAnswer(const Frame& frame) {
  std::map<std::uint64_t, Pending>::node_type node;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    const auto it = _pending.find(frame.requestId);
    if (it == _pending.end()) {
      KA_LOG_DEBUG(kCategory) << "Answer to no request (" << frame.requestId << ") from " << _peer;
      return;
    }
    node = _pending.extract(it);
  }
  Pending& pending = node.mapped();
  std::string error;
  if (static_cast<MessageType>(frame.type) == MessageType::Error) {
    try {
      error = decodeError(frame);
    } catch (const std::exception& e) {
      error = e.what();
    }
  } else {
    try {
      AnyValue value = decodeReply(frame, this);
      try {
        // Completed here, on the transport thread: the promise hands whatever is chained to
        // it to the event loop (see request), and a waiting caller only needs the wake-up.
        pending.promise.trySetValue(conform(std::move(value), pending.expected));
        return;
      } catch (const std::exception& e) {
        error = std::string("Return argument conversion error: ") + e.what();
      }
    } catch (const std::exception& e) {
      error = e.what();
    }
  }
  pending.promise.trySetError(error);
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
  const AnyObject target = exported(message.object);
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
                        this);
  } catch (const std::exception& e) {
    KA_LOG_WARNING(kCategory) << "Cannot forward an event to " << _peer << ": " << e.what();
    return;
  }
  if (!send(std::move(frame)) && _channel->isOpen()) {
    KA_LOG_WARNING(kCategory) << "The channel to " << _peer << " refused an event";
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
    event = decodeEvent(frame, this);
  } catch (const std::exception& e) {
    KA_LOG_WARNING(kCategory) << "Dropped a malformed event from " << _peer << ": " << e.what();
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
      KA_LOG_DEBUG(kCategory) << "Dropped an event of no subscription from " << _peer;
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

void Connection::onLookup(const Frame& frame) {
  std::string name;
  try {
    name = decodeLookup(frame);
  } catch (const std::exception& e) {
    replyError(frame.requestId, e.what());
    return;
  }
  if (!_served) {
    replyError(frame.requestId, "This participant serves no directory");
    return;
  }
  if (const std::string refused = refusal(); !refused.empty()) {
    replyError(frame.requestId, refused);
    return;
  }
  const AnyObject object =
      name == Session::kDirectoryName ? _served->object : _served->lookup(name);
  if (!object) {
    replyError(frame.requestId, "Cannot find service \"" + name + "\"");
    return;
  }
  (void)send(encodeReply(frame.requestId, AnyReference::from(object), this));
}

void Connection::onRelease(const Frame& frame) {
  const ReleaseMessage message = decodeRelease(frame);
  AnyObject dropped;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    const auto it = _exports.find(message.object);
    if (it == _exports.end() || message.object == kDirectoryObjectId) {
      return;
    }
    Export& e = it->second;
    e.sent = message.count >= e.sent ? 0 : e.sent - message.count;
    if (e.sent != 0) {
      return;
    }
    dropped = std::move(e.object);
    _exportIds.erase(dropped.asGenericObject().get());
    _exports.erase(it);
  }
  // The last handle may run the object's destructor: on the event loop, like its methods.
  onLoop([dropped = std::move(dropped)]() mutable { dropped.reset(); });
}

}  // namespace wire
}  // namespace ka
