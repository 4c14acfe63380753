#pragma once
// One participant's end of a connection between two participants of a directory. Both ends are
// alike: each calls the objects the other exports (through RemoteObject handles), serves the
// objects it exports itself, and forwards the signals the other subscribed to. The end that
// serves a directory also answers lookups by name.
//
// A frame goes one way: the channel reads it, onFrame decodes it by type and hands it to the job
// that serves it (one file each: connection.cpp the life and the dispatch, connection_requests.cpp
// what this end asks, connection_serving.cpp what the peer asks, connection_subscriptions.cpp
// signals), whose answer goes back through send(). Object handles inside values are the
// ObjectTable's business.
//
// Threads (docs/middleware.md, "Threads"): frames arrive on the transport's reading thread. A call
// of a method that may run on any thread runs there right after the read; other user code
// (queued methods, subscribers, continuations of call futures) runs on the ka event loop. An
// answer completes its call's future on the reading thread, which wakes a waiting caller
// directly; what is chained to that future is handed to the event loop.

#include <ka/eventloop.hpp>
#include <ka/future.hpp>
#include <ka/object.hpp>
#include <ka/strand.hpp>

#include "signature_budget.hpp"
#include "wire/channel.hpp"
#include "wire/messages.hpp"
#include "wire/object_table.hpp"
#include "wire/value_codec.hpp"

#include <boost/weak_ptr.hpp>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace ka {
namespace wire {

class RemoteObject;

// What the serving side of a directory offers one connected participant.
struct ServedDirectory {
  // The directory as that participant sees it; exported as kDirectoryObjectId.
  AnyObject object;
  // The object registered under a name, or a null object. Must not block or run user code: it
  // is called on the transport thread.
  std::function<AnyObject(const std::string& name)> lookup;
};

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using ClosedHandler = std::function<void(const std::string& reason)>;

  // `served`: the directory this end serves, if any.
  static std::shared_ptr<Connection> create(ChannelPtr channel,
                                            std::optional<ServedDirectory> served = {});
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Starts receiving. `onClosed` runs once on the event loop when the connection ends, for any
  // reason, after every call waiting on it has failed.
  void start(ClosedHandler onClosed = {});
  // Ends the connection now: pending calls fail at once, the peer's subscriptions are dropped
  // and its handles on exported objects released. Idempotent.
  void close(const std::string& reason);
  bool isOpen() const;
  // For a graceful shutdown: from now on the peer's calls, lookups and subscriptions are refused
  // with `reason` as their error, while the calls already running here go on and send their
  // replies. This end's own requests to the peer are not affected.
  void stopServing(const std::string& reason);
  // Waits until none of the peer's calls runs here any more (their replies are queued for
  // sending) or `deadline` passes; true when none runs.
  bool waitIdle(std::chrono::steady_clock::time_point deadline);
  // Completes when the channel has ended; after close(), that is once what was queued before
  // it has gone out. Only for a started connection.
  Future<void> ended() const { return _ended.future(); }
  // Who is on the other end ("unix:///run/x.sock"), for messages.
  const std::string& peer() const { return _peer; }

  // The object the peer serves under `name` ("ServiceDirectory" gives its directory). Fails
  // with the peer's text ("Cannot find service ...") or when the connection is lost.
  Future<AnyObject> lookup(const std::string& name);

  // For RemoteObject. Calls `method` of the peer's object `object`; the result is converted to
  // the method's advertised type ("Return argument conversion error: " when it does not fit).
  Future<AnyValue> call(std::uint32_t object, const MetaMethod& method,
                        const AnyReferenceVector& args);
  // Asks the peer to forward signal `signal` of `object` as subscription `subscription`
  // (from newSubscriptionId); events of it reach `target` until unsubscribe.
  Future<void> subscribe(std::uint32_t object, std::uint32_t signal, std::uint64_t subscription,
                         const boost::weak_ptr<RemoteObject>& target);
  Future<void> unsubscribe(std::uint64_t subscription);
  std::uint64_t newSubscriptionId();
  // `object` (a handle this end received `received` times) is no longer used here. Only
  // forgets it when `self` is still the import of record for that id.
  void release(std::uint32_t object, std::uint64_t received, const RemoteObject* self);

  // How many objects this end exports / imports now (tests check that handles are released).
  std::size_t exportCount() const;
  std::size_t importCount() const;

 private:
  struct Key {};

 public:
  Connection(Key, ChannelPtr channel, std::optional<ServedDirectory> served);

 private:
  struct Pending {
    Promise<AnyValue> promise;
    // The type the answer must convert to; null to take it as it comes.
    const TypeInterface* expected = nullptr;
  };
  // A subscription the peer made to an exported object.
  struct Served {
    AnyObject object;
    SignalLink link = SignalLink_Invalid;  // invalid while the connection is being made
  };
  // A subscription made through this end to the peer's object.
  struct Subscribed {
    boost::weak_ptr<RemoteObject> target;
    std::uint32_t object = 0;
    std::uint32_t signal = 0;
  };

  void onFrame(Frame frame);
  void onCall(const Frame& frame);
  // Calls the method as `callType` says and sends the reply once it ends (at once when it ends
  // on this thread), counting the call done.
  void serveCall(std::uint64_t requestId, const AnyObject& target, const CallMessage& call,
                 MetaCallType callType);
  void onAnswer(const Frame& frame);
  void onConnect(const Frame& frame);
  void onDisconnect(const Frame& frame);
  void onEvent(const Frame& frame);
  void onLookup(const Frame& frame);
  void onRelease(const Frame& frame);
  // The refusal text once stopServing was called, else empty.
  std::string refusal() const;
  void callDone();

  // Run on _control, in arrival order.
  void serveConnect(std::uint64_t requestId, const ConnectMessage& message);
  void serveDisconnect(std::uint64_t requestId, std::uint64_t subscription);
  // Sends one emission of a signal the peer subscribed to.
  void forward(const ConnectMessage& subscription, const AnyReferenceVector& args);

  // Sends a request and gives the future of its answer.
  Future<AnyValue> request(std::uint64_t requestId, Frame frame, const TypeInterface* expected);
  std::uint64_t newRequestId();
  void reply(std::uint64_t requestId, const Future<AnyValue>& result);
  void replyError(std::uint64_t requestId, const std::string& text);
  void replyVoid(std::uint64_t requestId);
  // The failure text of calls cut short by the end of the connection.
  std::string lost(const std::string& reason) const;
  // False when the channel refused the frame; see the definition.
  bool send(Frame frame);
  void shutdown(const std::string& reason);

  const ChannelPtr _channel;
  const std::optional<ServedDirectory> _served;
  const std::string _peer;
  // The objects exported to the peer and imported from it; its own lock.
  ObjectTable _objects;
  // Serialises subscription changes the peer asks for, and event deliveries to this end's
  // subscribers, each in arrival order, on the event loop.
  const Strand _control;
  const Strand _events;
  // Set when the channel's close handler has run.
  Promise<void> _ended;
  // The new run-time types the peer's frames may add to the process's table: far more than any
  // client's own types, a sixteenth of the table.
  static constexpr std::size_t kSignaturesPerConnection = 1024;
  detail::SignatureBudget _signatures{kSignaturesPerConnection};

  mutable std::mutex _mutex;
  // All guarded by _mutex:
  bool _closed = false;
  std::string _closeReason;
  ClosedHandler _onClosed;
  std::uint64_t _nextRequestId = 1;
  std::uint64_t _nextSubscriptionId = 1;
  std::map<std::uint64_t, Pending> _pending;
  std::map<std::uint64_t, Served> _servedSubscriptions;
  std::map<std::uint64_t, Subscribed> _subscriptions;
  // Set by stopServing: the error new requests of the peer get.
  std::string _refusal;
  // Calls of the peer running here; _idle is notified when it falls to 0.
  std::size_t _running = 0;
  std::condition_variable _idle;
};

}  // namespace wire
}  // namespace ka
