#pragma once
// The GenericObject that serves an in-process instance through its ObjectType.

#include <ka/genericobject.hpp>
#include <ka/objecttype.hpp>

#include <boost/shared_ptr.hpp>

#include <map>
#include <mutex>

namespace ka {
namespace detail {

class LocalObject : public GenericObject {
 public:
  LocalObject(ObjectTypePtr type, boost::shared_ptr<void> instance);
  ~LocalObject() override;

  const MetaObject& metaObject() const override { return _type->metaObject; }
  Future<AnyValue> metaCall(unsigned int uid, const AnyReferenceVector& args,
                            MetaCallType callType) override;
  Future<SignalLink> metaConnect(unsigned int signalUid,
                                 const SignalSubscriber& subscriber) override;
  Future<void> metaDisconnect(SignalLink link) override;
  void metaPost(unsigned int signalUid, const AnyReferenceVector& args) override;

 private:
  AnyValue invoke(std::size_t index, const AnyReferenceVector& args);
  SignalBase* signalAt(unsigned int signalUid);

  const ObjectTypePtr _type;
  const boost::shared_ptr<void> _instance;
  // Serialises calls of a single-threaded object; recursive so that a method may call
  // its own object.
  std::recursive_mutex _callMutex;
  std::mutex _linksMutex;
  // Guarded by _linksMutex: the signal each link made through this object belongs to.
  std::map<SignalLink, SignalBase*> _links;
};

}  // namespace detail
}  // namespace ka
