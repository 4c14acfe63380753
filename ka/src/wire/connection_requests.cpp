// What this end asks of the peer: lookups and calls, their answers, and the release of the
// handles it no longer uses.

#include "wire/connection.hpp"
#include "wire/connection_support.hpp"
#include "wire/remote_object.hpp"

#include <ka/log.hpp>

namespace ka {
namespace wire {

namespace {

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

std::uint64_t Connection::newRequestId() {
  std::lock_guard<std::mutex> lock(_mutex);
  return _nextRequestId++;
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
    frame = encodeCall(id, object, method.uid, args, &_objects);
  } catch (const std::exception& e) {
    return makeFutureError<AnyValue>("Cannot send the arguments of " + method.name + ": " +
                                     e.what());
  }
  return request(id, std::move(frame), method.returnType);
}

void Connection::onAnswer(const Frame& frame) {
  std::map<std::uint64_t, Pending>::node_type node;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    const auto it = _pending.find(frame.requestId);
    if (it == _pending.end()) {
      KA_LOG_DEBUG(kConnectionCategory)
          << "Answer to no request (" << frame.requestId << ") from " << _peer;
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
      AnyValue value = decodeReply(frame, &_objects);
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

void Connection::release(std::uint32_t object, std::uint64_t received, const RemoteObject* self) {
  _objects.forgetImport(object, self);
  if (!isOpen()) {
    return;
  }
  (void)send(encodeRelease(ReleaseMessage{object, received}));
}

}  // namespace wire
}  // namespace ka
