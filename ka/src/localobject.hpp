#pragma once
// The GenericObject that serves an in-process instance through its ObjectType.

#include <ka/genericobject.hpp>
#include <ka/objecttype.hpp>

#include "serialgate.hpp"

#include <boost/shared_ptr.hpp>

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
  bool runsOnAnyThread(unsigned int uid) const override;

 private:
  AnyValue invoke(std::size_t index, const AnyReferenceVector& args);
  // invoke() with every outcome in the future: its value (or that of the future it answered
  // with) or the text of what it threw.
  Future<AnyValue> call(std::size_t index, const AnyReferenceVector& args) noexcept;
  SignalBase* signalAt(unsigned int signalUid);

  const ObjectTypePtr _type;
  const boost::shared_ptr<void> _instance;
  // Serialises the calls of a single-threaded object (re-entrant, and open to other
  // calls while a call blocks).
  SerialGate _gate;
};

}  // namespace detail
}  // namespace ka
