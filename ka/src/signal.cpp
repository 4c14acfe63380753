#include <ka/eventloop.hpp>
#include <ka/log.hpp>
#include <ka/signal.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <shared_mutex>
#include <stdexcept>
#include <thread>

namespace ka {
namespace detail {

// One subscription. Deliveries check `disconnected` and count themselves in
// `running` so that disconnect can wait for them to finish.
struct SubscriberEntry {
  explicit SubscriberEntry(SignalSubscriber s) : subscriber(std::move(s)) {}

  const SignalSubscriber subscriber;
  std::mutex mutex;
  // Guarded by mutex: where queued deliveries line up (made on the first one, when the
  // subscriber brought none).
  std::optional<Strand> strand;
  std::condition_variable finished;
  // Guarded by mutex: the threads currently inside the subscriber (a subscriber may
  // run on several threads at once, and may re-enter itself).
  std::vector<std::thread::id> running;
  // Guarded by mutex.
  bool disconnected = false;

  void deliver(const AnyReferenceVector& args) {
    const auto self = std::this_thread::get_id();
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (disconnected) {
        return;
      }
      running.push_back(self);
    }
    try {
      subscriber.function().call(args);
    } catch (const std::exception& e) {
      KA_LOG_ERROR("ka.signal") << "A signal subscriber threw: " << e.what();
    } catch (...) {
      KA_LOG_ERROR("ka.signal") << "A signal subscriber threw an unknown exception";
    }
    {
      std::lock_guard<std::mutex> lock(mutex);
      running.erase(std::find(running.begin(), running.end(), self));
    }
    finished.notify_all();
  }

  void queue(std::shared_ptr<const std::vector<AnyValue>> args,
             const std::shared_ptr<SubscriberEntry>& self) {
    Strand line = [&] {
      std::lock_guard<std::mutex> lock(mutex);
      if (!strand) {
        strand = subscriber.strand() ? *subscriber.strand() : Strand();
      }
      return *strand;
    }();
    line.post([self, args = std::move(args)] {
      const AnyReferenceVector refs(args->begin(), args->end());
      self->deliver(refs);
    });
  }

  // Returns once no other thread is inside the subscriber; a delivery on this very
  // thread (a subscriber disconnecting itself) is not waited for.
  void close() {
    const auto self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(mutex);
    disconnected = true;
    finished.wait(lock, [&] {
      return std::all_of(running.begin(), running.end(),
                         [&](const std::thread::id& t) { return t == self; });
    });
  }
};

}  // namespace detail

namespace {
std::atomic<SignalLink> nextLink{1};
}

// Lets scoped connections outlive the signal: they disconnect through it only while `signal`
// is set. Disconnects share the lock (one may run inside a subscriber that another waits for);
// the signal's destructor takes it alone to clear `signal`.
struct SignalBase::Lifeline {
  std::shared_mutex mutex;
  SignalBase* signal;  // guarded by mutex
};

SignalBase::SignalBase(std::vector<const TypeInterface*> argumentTypes, OnSubscribers onSubscribers)
    : _argumentTypes(std::move(argumentTypes)),
      _lifeline(std::make_shared<Lifeline>()),
      _onSubscribers(std::move(onSubscribers)) {
  _lifeline->signal = this;
}

SignalBase::~SignalBase() {
  {
    std::unique_lock<std::shared_mutex> lock(_lifeline->mutex);
    _lifeline->signal = nullptr;
  }
  disconnectAll();
}

ScopedConnection SignalBase::connectScoped(const SignalSubscriber& subscriber) {
  return scopedFor(connect(subscriber));
}

ScopedConnection SignalBase::scopedFor(SignalLink link) {
  std::weak_ptr<Lifeline> weak = _lifeline;
  return ScopedConnection(link, [weak](SignalLink l) {
    if (const auto lifeline = weak.lock()) {
      std::shared_lock<std::shared_mutex> lock(lifeline->mutex);
      if (lifeline->signal != nullptr) {
        lifeline->signal->disconnect(l);
      }
    }
  });
}

Signature SignalBase::signature() const {
  return tupleSignature(_argumentTypes);
}

SignalLink SignalBase::connect(const SignalSubscriber& subscriber) {
  if (!subscriber.isValid()) {
    throw std::invalid_argument("Cannot connect an empty subscriber");
  }
  const std::size_t takes = subscriber.function().parameterTypes().size();
  if (takes != _argumentTypes.size()) {
    throw std::invalid_argument("A subscriber taking " + std::to_string(takes) +
                                " arguments cannot connect to a signal of " +
                                signature().toString());
  }
  const SignalLink link = nextLink.fetch_add(1);
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _subscribers.emplace(link, std::make_shared<detail::SubscriberEntry>(subscriber));
  }
  notifySubscribers();
  return link;
}

bool SignalBase::disconnect(SignalLink link) {
  std::shared_ptr<detail::SubscriberEntry> entry;
  bool last;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    auto it = _subscribers.find(link);
    if (it == _subscribers.end()) {
      return false;
    }
    entry = std::move(it->second);
    _subscribers.erase(it);
    last = _subscribers.empty();
  }
  entry->close();
  if (last) {
    notifySubscribers();
  }
  return true;
}

void SignalBase::disconnectAll() {
  std::map<SignalLink, std::shared_ptr<detail::SubscriberEntry>> all;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    all.swap(_subscribers);
  }
  for (auto& entry : all) {
    entry.second->close();
  }
  if (!all.empty()) {
    notifySubscribers();
  }
}

void SignalBase::notifySubscribers() {
  if (!_onSubscribers) {
    return;
  }
  // One notifier at a time, each reporting the state as it is then, so concurrent
  // connects and disconnects can never leave the last report contradicting the state.
  std::lock_guard<std::mutex> notifying(_notifyMutex);
  const bool has = hasSubscribers();
  if (has != _reportedSubscribers) {
    _reportedSubscribers = has;
    _onSubscribers(has);
  }
}

bool SignalBase::hasSubscribers() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return !_subscribers.empty();
}

void SignalBase::trigger(const AnyReferenceVector& args, MetaCallType callType) const {
  std::vector<std::shared_ptr<detail::SubscriberEntry>> targets;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_subscribers.empty()) {
      return;
    }
    targets.reserve(_subscribers.size());
    for (const auto& s : _subscribers) {
      targets.push_back(s.second);
    }
  }
  const detail::PreparedArguments prepared(_argumentTypes, args);
  AnyReferenceVector typed;
  typed.reserve(_argumentTypes.size());
  for (std::size_t i = 0; i < _argumentTypes.size(); ++i) {
    typed.emplace_back(_argumentTypes[i], prepared.pointers()[i]);
  }
  // Queued deliveries outlive this call: they share one owned copy of the arguments.
  std::shared_ptr<const std::vector<AnyValue>> owned;
  for (const auto& target : targets) {
    MetaCallType effective = target->subscriber.callType();
    if (effective == MetaCallType::Auto) {
      effective = callType;
    }
    if (effective != MetaCallType::Queued) {
      target->deliver(typed);
      continue;
    }
    if (!owned) {
      auto copy = std::make_shared<std::vector<AnyValue>>();
      copy->reserve(typed.size());
      for (const auto& a : typed) {
        copy->emplace_back(a);
      }
      owned = std::move(copy);
    }
    target->queue(owned, target);
  }
}

}  // namespace ka
