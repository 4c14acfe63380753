#include "wire/remote_object.hpp"

#include <ka/log.hpp>

#include "wire/connection.hpp"

namespace ka {
namespace wire {

RemoteObject::RemoteObject(std::weak_ptr<Connection> connection, std::uint32_t id, MetaObject meta)
    : _connection(std::move(connection)), _id(id), _meta(std::move(meta)) {
  for (const MetaSignal& s : _meta.signals()) {
    _signals[s.uid].signal = std::make_unique<SignalBase>(s.argumentTypes);
  }
}

RemoteObject::~RemoteObject() {
  const auto connection = _connection.lock();
  if (!connection) {
    return;
  }
  std::vector<std::uint64_t> subscriptions;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    for (const auto& s : _signals) {
      if (s.second.subscription != 0) {
        subscriptions.push_back(s.second.subscription);
      }
    }
  }
  for (const std::uint64_t s : subscriptions) {
    (void)connection->unsubscribe(s);
  }
  connection->release(_id, _received.load(), this);
}

Future<AnyValue> RemoteObject::metaCall(unsigned int uid, const AnyReferenceVector& args,
                                        MetaCallType) {
  const MetaMethod* method = _meta.method(uid);
  if (method == nullptr) {
    return makeFutureError<AnyValue>("Method id " + std::to_string(uid) + " not found");
  }
  const auto connection = _connection.lock();
  if (!connection || !connection->isOpen()) {
    return makeFutureError<AnyValue>(kGone);
  }
  return connection->call(_id, *method, args);
}

Future<SignalLink> RemoteObject::metaConnect(unsigned int signalUid,
                                             const SignalSubscriber& subscriber) {
  const auto it = _signals.find(signalUid);
  if (it == _signals.end()) {
    return makeFutureError<SignalLink>("Signal id " + std::to_string(signalUid) + " not found");
  }
  const auto connection = _connection.lock();
  if (!connection || !connection->isOpen()) {
    return makeFutureError<SignalLink>(kGone);
  }
  SignalLink link;
  try {
    link = it->second.signal->connect(subscriber);
  } catch (const std::exception& e) {
    return makeFutureError<SignalLink>(e.what());
  }
  const boost::weak_ptr<RemoteObject> weak =
      boost::static_pointer_cast<RemoteObject>(shared_from_this());
  Future<void> ready;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    SignalState& state = it->second;
    if (state.subscribers++ == 0) {
      // Sent under the lock, so that the peer sees this subscription before the Disconnect of
      // a last subscriber leaving right after.
      state.subscription = connection->newSubscriptionId();
      state.ready = connection->subscribe(_id, signalUid, state.subscription, weak);
    }
    ready = state.ready;
  }
  return ready.then([weak, link](Future<void> done) -> SignalLink {
    if (done.wait(FutureTimeout_None) == FutureState::FinishedWithValue) {
      return link;
    }
    const std::string error = done.error(FutureTimeout_None);
    if (const auto self = weak.lock()) {
      (void)self->metaDisconnect(link);
    }
    throw std::runtime_error(error);
  });
}

Future<void> RemoteObject::metaDisconnect(SignalLink link) {
  for (auto& s : _signals) {
    if (!s.second.signal->disconnect(link)) {
      continue;
    }
    std::uint64_t subscription = 0;
    {
      std::lock_guard<std::mutex> lock(_mutex);
      SignalState& state = s.second;
      if (state.subscribers > 0 && --state.subscribers == 0) {
        subscription = state.subscription;
        state.subscription = 0;
        state.ready = Future<void>();
      }
    }
    const auto connection = _connection.lock();
    if (subscription == 0 || !connection) {
      return makeReadyFuture();
    }
    return connection->unsubscribe(subscription);
  }
  return makeFutureError<void>("Unknown signal link " + std::to_string(link));
}

void RemoteObject::metaPost(unsigned int signalUid, const AnyReferenceVector&) {
  const MetaSignal* signal = _meta.signal(signalUid);
  throw std::runtime_error(
      "Only the process that owns an object emits its signals: cannot post " +
      (signal != nullptr ? "\"" + signal->name + "\"" : "signal id " + std::to_string(signalUid)) +
      " on a remote object");
}

void RemoteObject::deliver(unsigned int signalUid, std::uint64_t subscription,
                           const std::vector<AnyValue>& args) {
  const auto it = _signals.find(signalUid);
  if (it == _signals.end()) {
    return;
  }
  {
    // A subscription replaced by a newer one may still have events on their way.
    std::lock_guard<std::mutex> lock(_mutex);
    if (it->second.subscription != subscription) {
      return;
    }
  }
  const AnyReferenceVector refs(args.begin(), args.end());
  try {
    it->second.signal->trigger(refs);
  } catch (const std::exception& e) {
    const MetaSignal* meta = _meta.signal(signalUid);
    KA_LOG_WARNING("ka.remote") << "Dropped an event of \"" << (meta ? meta->name : "?")
                                << "\" whose arguments do not fit: " << e.what();
  }
}

}  // namespace wire
}  // namespace ka
