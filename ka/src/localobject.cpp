#include "localobject.hpp"

#include <ka/detail/future_type.hpp>
#include <ka/eventloop.hpp>
#include <ka/object.hpp>

#include <boost/core/demangle.hpp>
#include <boost/weak_ptr.hpp>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <map>
#include <typeindex>
#include <utility>

namespace ka {
namespace detail {

LocalObject::LocalObject(ObjectTypePtr type, boost::shared_ptr<void> instance)
    : _type(std::move(type)), _instance(std::move(instance)) {}

LocalObject::~LocalObject() = default;

namespace {

// The arguments converted for `meta`; a failure names the method, which the caller may have
// reached by name among overloads.
PreparedArguments prepare(const MetaMethod& meta, const AnyReferenceVector& args) {
  try {
    return PreparedArguments(meta.parameterTypes, args);
  } catch (const ArgumentError& e) {
    throw ArgumentError("Invalid arguments for " + meta.name +
                        meta.parametersSignature().toString() + ": " + e.what());
  }
}

}  // namespace

AnyValue LocalObject::invoke(std::size_t index, const AnyReferenceVector& args) {
  const MetaMethod& meta = _type->metaObject.methods()[index];
  const PreparedArguments prepared = prepare(meta, args);
  if (_type->threadingModel == ObjectThreadingModel::SingleThread) {
    SerialGate::Scope serial(_gate);
    return _type->methods[index].invoke(_instance.get(), prepared.pointers());
  }
  return _type->methods[index].invoke(_instance.get(), prepared.pointers());
}

namespace {

// Ends `promise` the way `result` ends.
void settle(Promise<AnyValue> promise, const Future<AnyValue>& result) {
  (void)result.then([promise](const Future<AnyValue>& done) mutable {
    switch (done.wait(FutureTimeout_None)) {
      case FutureState::FinishedWithValue:
        promise.trySetValue(done.value());
        break;
      case FutureState::Canceled:
        promise.trySetCanceled(done.error(FutureTimeout_None));
        break;
      default:
        promise.trySetError(done.error(FutureTimeout_None));
        break;
    }
  });
}

}  // namespace

Future<AnyValue> LocalObject::call(std::size_t index, const AnyReferenceVector& args) noexcept {
  try {
    AnyValue result = invoke(index, args);
    // A method that answers with a future finishes when that future does.
    if (const FutureResultType* future = asFutureResult(result.type())) {
      return future->asAnyValue(result.rawValue());
    }
    return makeReadyFuture(std::move(result));
  } catch (const std::exception& e) {
    return makeFutureError<AnyValue>(e.what());
  } catch (...) {
    // The same text whether the call was direct or queued.
    return makeFutureError<AnyValue>("Unknown exception in method \"" +
                                     _type->metaObject.methods()[index].name + "\"");
  }
}

Future<AnyValue> LocalObject::metaCall(unsigned int uid, const AnyReferenceVector& args,
                                       MetaCallType callType) {
  const MetaMethod* meta = _type->metaObject.method(uid);
  if (meta == nullptr) {
    return makeFutureError<AnyValue>("Method id " + std::to_string(uid) + " not found");
  }
  const std::size_t index = static_cast<std::size_t>(meta - _type->metaObject.methods().data());
  MetaCallType effective =
      callType == MetaCallType::Auto ? _type->methods[index].callType : callType;
  if (effective != MetaCallType::Queued) {
    // A method may drop the last handle to its own object; stay alive until it returns.
    const auto self = shared_from_this();
    return call(index, args);
  }
  // The queued call outlives the caller's argument storage and maybe the handle.
  auto owned = std::make_shared<std::vector<AnyValue>>();
  owned->reserve(args.size());
  for (const auto& a : args) {
    owned->emplace_back(a);
  }
  auto self = boost::static_pointer_cast<LocalObject>(shared_from_this());
  Promise<AnyValue> promise;
  Future<AnyValue> result = promise.future();
  auto run = [self, index, owned, promise](bool due) mutable {
    if (!due) {
      promise.trySetCanceled(kEventLoopStopped);
      return;
    }
    const AnyReferenceVector refs(owned->begin(), owned->end());
    settle(promise, self->call(index, refs));
  };
  if (_type->threadingModel != ObjectThreadingModel::SingleThread) {
    auto task = std::make_shared<decltype(run)>(std::move(run));
    if (!defaultEventLoop().tryPost([task] { (*task)(true); })) {
      (*task)(false);
    }
    return result;
  }
  // Waiting for the gate on a worker would take a thread from unrelated work (and enough such
  // waits would stall the loop): the call waits in the object's own queue instead.
  _gate.schedule(std::move(run));
  return result;
}

bool LocalObject::runsOnAnyThread(unsigned int uid) const {
  const MetaMethod* meta = _type->metaObject.method(uid);
  if (meta == nullptr || _type->threadingModel == ObjectThreadingModel::SingleThread) {
    return false;
  }
  const std::size_t index = static_cast<std::size_t>(meta - _type->metaObject.methods().data());
  return _type->methods[index].callType != MetaCallType::Queued;
}

SignalBase* LocalObject::signalAt(unsigned int signalUid) {
  const MetaSignal* meta = _type->metaObject.signal(signalUid);
  if (meta == nullptr) {
    return nullptr;
  }
  const std::size_t index = static_cast<std::size_t>(meta - _type->metaObject.signals().data());
  return _type->signals[index](_instance.get());
}

Future<SignalLink> LocalObject::metaConnect(unsigned int signalUid,
                                            const SignalSubscriber& subscriber) {
  SignalBase* signal = signalAt(signalUid);
  if (signal == nullptr) {
    return makeFutureError<SignalLink>("Signal id " + std::to_string(signalUid) + " not found");
  }
  try {
    return makeReadyFuture(signal->connect(subscriber));
  } catch (const std::exception& e) {
    return makeFutureError<SignalLink>(e.what());
  }
}

Future<void> LocalObject::metaDisconnect(SignalLink link) {
  // Links are unique in the process, so the signal that knows the link is the one; this
  // works through any handle of the instance, not only the one that connected.
  for (const auto& accessor : _type->signals) {
    if (accessor(_instance.get())->disconnect(link)) {
      return makeReadyFuture();
    }
  }
  return makeFutureError<void>("Unknown signal link " + std::to_string(link));
}

void LocalObject::metaPost(unsigned int signalUid, const AnyReferenceVector& args) {
  SignalBase* signal = signalAt(signalUid);
  if (signal == nullptr) {
    throw std::runtime_error("Signal id " + std::to_string(signalUid) + " not found");
  }
  signal->trigger(args);
}

void throwNullObject() {
  throw std::runtime_error("This object is null");
}

boost::shared_ptr<GenericObject> objectForInstance(const boost::shared_ptr<void>& instance,
                                                   const std::type_info& info) {
  if (!instance) {
    throw std::runtime_error("Cannot make an object of a null " +
                             boost::core::demangle(info.name()));
  }
  ObjectTypePtr type = findType(info);
  if (!type) {
    throw std::runtime_error("Type " + boost::core::demangle(info.name()) +
                             " is not registered with the middleware");
  }
  // One object per live instance, so that every handle to it shares the same call
  // serialisation and identity.
  struct Cache {
    std::mutex mutex;
    // Guarded by mutex.
    std::map<std::pair<const void*, std::type_index>, boost::weak_ptr<GenericObject>> objects;
    // Guarded by mutex: prune expired entries when the map has grown past this.
    std::size_t pruneAt = 64;
  };
  // Immortal: objects are made and dropped until the very end of the process.
  static Cache* cachePtr = new Cache();  // intentionally never destroyed
  Cache& c = *cachePtr;
  auto& cache = c.objects;
  const auto key = std::make_pair(static_cast<const void*>(instance.get()), std::type_index(info));
  std::lock_guard<std::mutex> lock(c.mutex);
  auto it = cache.find(key);
  if (it != cache.end()) {
    if (auto existing = it->second.lock()) {
      return existing;
    }
  }
  if (cache.size() >= c.pruneAt) {
    for (auto e = cache.begin(); e != cache.end();) {
      e = e->second.expired() ? cache.erase(e) : std::next(e);
    }
    c.pruneAt = std::max<std::size_t>(64, 2 * cache.size());
  }
  boost::shared_ptr<GenericObject> object = boost::make_shared<LocalObject>(type, instance);
  cache[key] = object;
  return object;
}

}  // namespace detail
}  // namespace ka
