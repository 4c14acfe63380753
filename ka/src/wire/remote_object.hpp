#pragma once
// A handle on an object that another participant exports: its interface comes from the
// description the peer sent, so that calls by name, overloads, call<R>, async and signal
// subscriptions work on it as on a local object. Its identity is the object id on its
// connection; every handle this process holds on that id is the same RemoteObject.

#include <ka/genericobject.hpp>

#include "wire/messages.hpp"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace ka {
namespace wire {

class Connection;

class RemoteObject : public GenericObject {
 public:
  // Text of every call on an object whose connection is gone.
  static constexpr const char* kGone = "Invalid GenericObject";

  RemoteObject(std::weak_ptr<Connection> connection, std::uint32_t id, MetaObject meta);
  // Drops this process's subscriptions on the object and tells the peer it may release it.
  ~RemoteObject() override;

  const MetaObject& metaObject() const override { return _meta; }
  // Always asynchronous: the call travels to the peer whatever `callType` says.
  Future<AnyValue> metaCall(unsigned int uid, const AnyReferenceVector& args,
                            MetaCallType callType = MetaCallType::Auto) override;
  // Subscribes locally and, for a signal's first subscriber, at the peer; the future ends
  // when the peer forwards the signal. Events travel only while a subscriber is connected.
  Future<SignalLink> metaConnect(unsigned int signalUid,
                                 const SignalSubscriber& subscriber) override;
  // For a signal's last subscriber, the future ends when the peer stopped forwarding it.
  Future<void> metaDisconnect(SignalLink link) override;
  // Refused: only the process that owns an object emits its signals.
  void metaPost(unsigned int signalUid, const AnyReferenceVector& args) override;

  std::uint32_t id() const { return _id; }
  // The connection received this object's id once more (see Connection::release).
  void received() { _received.fetch_add(1); }
  // One emission forwarded by the peer for subscription `subscription` of signal `signalUid`.
  void deliver(unsigned int signalUid, std::uint64_t subscription,
               const std::vector<AnyValue>& args);

 private:
  struct SignalState {
    std::unique_ptr<SignalBase> signal;
    // Guarded by RemoteObject::_mutex: local subscribers, the subscription at the peer that
    // serves them (0 when none) and when the peer confirmed it.
    std::size_t subscribers = 0;
    std::uint64_t subscription = 0;
    Future<void> ready;
  };

  const std::weak_ptr<Connection> _connection;
  const std::uint32_t _id;
  const MetaObject _meta;
  std::atomic<std::uint64_t> _received{1};
  mutable std::mutex _mutex;
  // The map itself is fixed at construction; the SignalState fields say what guards them.
  std::map<unsigned int, SignalState> _signals;
};

}  // namespace wire
}  // namespace ka
