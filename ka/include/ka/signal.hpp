#pragma once
// Signals: typed emitters with any number of subscribers, each delivered directly or
// queued on the event loop.

#include <ka/anyfunction.hpp>
#include <ka/anyvalue.hpp>
#include <ka/api.hpp>
#include <ka/metacalltype.hpp>
#include <ka/scopedconnection.hpp>
#include <ka/strand.hpp>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace ka {

// What to call when a signal fires, and how.
//
// Queued deliveries to one subscriber run one at a time, in emission order. They go through
// the subscriber's strand: its own unless one is given, so that subscriptions sharing a strand
// (say to "serviceAdded" and "serviceRemoved") also see each other's emissions in order.
class KA_API SignalSubscriber {
 public:
  SignalSubscriber() = default;
  explicit SignalSubscriber(AnyFunction function, MetaCallType callType = MetaCallType::Auto)
      : _function(std::move(function)), _callType(callType) {}
  SignalSubscriber(AnyFunction function, MetaCallType callType, Strand strand)
      : _function(std::move(function)), _callType(callType), _strand(std::move(strand)) {}

  const AnyFunction& function() const { return _function; }
  MetaCallType callType() const { return _callType; }
  bool isValid() const { return _function.isValid(); }
  // The strand given at construction, if any.
  const std::optional<Strand>& strand() const { return _strand; }

 private:
  AnyFunction _function;
  MetaCallType _callType = MetaCallType::Auto;
  std::optional<Strand> _strand;
};

namespace detail {
struct SubscriberEntry;
}

// The type-independent part of a signal. Thread-safe: connect, disconnect and trigger
// may run concurrently; no lock is held while a subscriber runs.
class KA_API SignalBase {
 public:
  // Told true when the first subscriber connects and false when the last leaves; never
  // twice the same in a row. Runs on the connecting or disconnecting thread.
  using OnSubscribers = std::function<void(bool hasSubscribers)>;

  SignalBase(std::vector<const TypeInterface*> argumentTypes, OnSubscribers onSubscribers = {});
  SignalBase(const SignalBase&) = delete;
  SignalBase& operator=(const SignalBase&) = delete;
  // Disconnects everything (see disconnect for the guarantee).
  virtual ~SignalBase();

  // The argument list as a tuple signature, e.g. "(is)".
  Signature signature() const;
  const std::vector<const TypeInterface*>& argumentTypes() const { return _argumentTypes; }

  // Throws std::invalid_argument for an invalid subscriber or one whose parameter
  // count differs from the signal's.
  [[nodiscard]] SignalLink connect(const SignalSubscriber& subscriber);
  // connect(), ended by the handle's destruction. The handle may outlive the signal; it then
  // has nothing left to do.
  [[nodiscard]] ScopedConnection connectScoped(const SignalSubscriber& subscriber);
  // After it returns the subscriber is never called again, and no call of it is still
  // running on another thread (a subscriber may disconnect itself). False for an
  // unknown link.
  bool disconnect(SignalLink link);
  void disconnectAll();
  bool hasSubscribers() const;

  // Converts the arguments to the signal's types (ArgumentError to the emitter when they
  // do not fit), then delivers. A subscriber's call type wins over `callType`; Auto
  // everywhere means direct delivery. A subscriber that throws is logged; the others
  // still run and the emitter sees nothing.
  void trigger(const AnyReferenceVector& args, MetaCallType callType = MetaCallType::Auto) const;

 private:
  void notifySubscribers();

 protected:
  // A handle that disconnects `link` from this signal.
  ScopedConnection scopedFor(SignalLink link);

 private:
  struct Lifeline;

  const std::vector<const TypeInterface*> _argumentTypes;
  // Shared with the scoped connections, which reach the signal through it while it lives.
  const std::shared_ptr<Lifeline> _lifeline;
  const OnSubscribers _onSubscribers;
  // Serialises the calls of _onSubscribers (held while it runs; it is the signal owner's
  // own hook, not a subscriber).
  std::mutex _notifyMutex;
  // Guarded by _notifyMutex.
  bool _reportedSubscribers = false;
  mutable std::mutex _mutex;
  // Guarded by _mutex.
  std::map<SignalLink, std::shared_ptr<detail::SubscriberEntry>> _subscribers;
};

template <typename... T>
class Signal : public SignalBase {
 public:
  explicit Signal(OnSubscribers onSubscribers = {})
      : SignalBase(staticArgumentTypes(), std::move(onSubscribers)) {}

  static std::vector<const TypeInterface*> staticArgumentTypes() { return {typeOf<T>()...}; }

  using SignalBase::connect;
  using SignalBase::connectScoped;
  // Connects any callable taking the signal's arguments.
  template <typename F,
            typename = std::enable_if_t<!std::is_base_of<SignalSubscriber, std::decay_t<F>>::value>>
  [[nodiscard]] SignalLink connect(F&& f, MetaCallType callType = MetaCallType::Auto) {
    return connect(
        SignalSubscriber(AnyFunction::from<void(T...)>(
                             [fn = std::forward<F>(f)](const T&... a) mutable { fn(a...); }),
                         callType));
  }

  // connect(f, callType), ended by the handle's destruction.
  template <typename F,
            typename = std::enable_if_t<!std::is_base_of<SignalSubscriber, std::decay_t<F>>::value>>
  [[nodiscard]] ScopedConnection connectScoped(F&& f, MetaCallType callType = MetaCallType::Auto) {
    const SignalLink link = connect(std::forward<F>(f), callType);
    return scopedFor(link);
  }

  void operator()(const T&... args) const {
    trigger(AnyReferenceVector{AnyReference::from(args)...});
  }
};

}  // namespace ka
