// What the peer asks of this end: its calls of exported objects, its lookups by name, and its
// releases of the handles it was sent.

#include "wire/connection.hpp"
#include "wire/connection_support.hpp"
#include "wire/io_threads.hpp"
#include "wire/remote_object.hpp"

#include <ka/log.hpp>
#include <ka/session.hpp>

namespace ka {
namespace wire {

void Connection::onCall(const Frame& frame) {
  CallMessage call;
  try {
    call = decodeCall(frame, &_objects);
  } catch (const std::exception& e) {
    replyError(frame.requestId, e.what());
    return;
  }
  const AnyObject target = _objects.exported(call.object);
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

void Connection::reply(std::uint64_t requestId, const Future<AnyValue>& result) {
  Frame frame;
  if (result.wait(FutureTimeout_None) == FutureState::FinishedWithValue) {
    try {
      frame = encodeReply(requestId, result.value(FutureTimeout_None), &_objects);
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

void Connection::replyError(std::uint64_t requestId, const std::string& text) {
  if (requestId != 0) {
    (void)send(encodeError(requestId, text));
  }
}

void Connection::replyVoid(std::uint64_t requestId) {
  (void)send(encodeReply(requestId, AnyValue::makeVoid(), nullptr));
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
  (void)send(encodeReply(frame.requestId, AnyReference::from(object), &_objects));
}

void Connection::onRelease(const Frame& frame) {
  const ReleaseMessage message = decodeRelease(frame);
  AnyObject dropped = _objects.release(message);
  if (!dropped) {
    return;
  }
  // The last handle may run the object's destructor: on the event loop, like its methods.
  onLoop([dropped = std::move(dropped)]() mutable { dropped.reset(); });
}

}  // namespace wire
}  // namespace ka
