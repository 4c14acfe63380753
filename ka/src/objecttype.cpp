#include <ka/genericobject.hpp>
#include <ka/objecttype.hpp>

#include <map>
#include <mutex>
#include <typeindex>

namespace ka {
namespace {

struct TypeRegistry {
  std::mutex mutex;
  // Guarded by mutex.
  std::map<std::type_index, ObjectTypePtr> types;
};

// Immortal: types are registered from static initialisers of loaded libraries and
// looked up until the very end of the process.
TypeRegistry& registry() {
  static TypeRegistry* r = new TypeRegistry();  // intentionally never destroyed
  return *r;
}

}  // namespace

void registerType(const std::type_info& info, ObjectTypePtr type) {
  TypeRegistry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.types[std::type_index(info)] = std::move(type);
}

ObjectTypePtr findType(const std::type_info& info) {
  TypeRegistry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.types.find(std::type_index(info));
  return it == r.types.end() ? nullptr : it->second;
}

GenericObject::~GenericObject() = default;

bool GenericObject::runsOnAnyThread(unsigned int) const {
  return false;
}

Future<AnyValue> GenericObject::metaCall(const std::string& name, const AnyReferenceVector& args,
                                         MetaCallType callType) {
  try {
    const MetaMethod& method = metaObject().resolve(name, args);
    return metaCall(method.uid, args, callType);
  } catch (const std::exception& e) {
    return makeFutureError<AnyValue>(e.what());
  }
}

Future<SignalLink> GenericObject::connect(const std::string& signalName,
                                          const SignalSubscriber& subscriber) {
  const MetaSignal* signal = metaObject().signal(signalName);
  if (signal == nullptr) {
    return makeFutureError<SignalLink>("Signal \"" + signalName + "\" not found");
  }
  return metaConnect(signal->uid, subscriber);
}

ScopedConnection GenericObject::connectScoped(const std::string& signalName,
                                              const SignalSubscriber& subscriber) {
  const SignalLink link = connect(signalName, subscriber).value(FutureTimeout_Infinite);
  // The handle keeps the object alive: the subscription lives in it, so it must be there to end.
  boost::shared_ptr<GenericObject> self = shared_from_this();
  return ScopedConnection(
      link, [self](SignalLink l) { (void)self->metaDisconnect(l).wait(FutureTimeout_Infinite); });
}

Future<void> GenericObject::disconnect(SignalLink link) {
  return metaDisconnect(link);
}

void GenericObject::postByName(const std::string& signalName, const AnyReferenceVector& args) {
  const MetaSignal* signal = metaObject().signal(signalName);
  if (signal == nullptr) {
    throw std::runtime_error("Signal \"" + signalName + "\" not found");
  }
  metaPost(signal->uid, args);
}

}  // namespace ka
