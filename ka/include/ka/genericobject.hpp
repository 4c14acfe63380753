#pragma once
// An object of the middleware seen through its interface only: methods called by
// name with dynamic arguments, signals subscribed by name. Local objects, objects
// built from lambdas and (later) remote objects all look like this.

#include <ka/anyvalue.hpp>
#include <ka/api.hpp>
#include <ka/future.hpp>
#include <ka/metacalltype.hpp>
#include <ka/metaobject.hpp>
#include <ka/signal.hpp>

#include <boost/core/demangle.hpp>
#include <boost/enable_shared_from_this.hpp>

#include <string>
#include <type_traits>
#include <utility>

namespace ka {

class KA_API GenericObject : public boost::enable_shared_from_this<GenericObject> {
 public:
  GenericObject() = default;
  GenericObject(const GenericObject&) = delete;
  GenericObject& operator=(const GenericObject&) = delete;
  virtual ~GenericObject();

  virtual const MetaObject& metaObject() const = 0;

  // Calls method `uid`. Errors (unknown method, arguments that do not convert, an
  // exception thrown by the method) fail the returned future with their text.
  virtual Future<AnyValue> metaCall(unsigned int uid, const AnyReferenceVector& args,
                                    MetaCallType callType = MetaCallType::Auto) = 0;
  virtual Future<SignalLink> metaConnect(unsigned int signalUid,
                                         const SignalSubscriber& subscriber) = 0;
  virtual Future<void> metaDisconnect(SignalLink link) = 0;
  // Triggers signal `uid` as if the object had emitted it.
  virtual void metaPost(unsigned int signalUid, const AnyReferenceVector& args) = 0;

  // Resolves the overload of `name` for `args` (see MetaObject::resolve), then calls it.
  Future<AnyValue> metaCall(const std::string& name, const AnyReferenceVector& args,
                            MetaCallType callType = MetaCallType::Auto);

  // Blocking call: waits without limit and converts the result to R. Throws the
  // call's error text as FutureError, and std::runtime_error "Unable to convert call
  // result to target type: from <source> to <target>" when the result does not fit.
  template <typename R, typename... A>
  R call(const std::string& name, const A&... args);

  // Asynchronous call: the method runs on the event loop.
  template <typename R, typename... A>
  Future<R> async(const std::string& name, const A&... args);

  Future<SignalLink> connect(const std::string& signalName, const SignalSubscriber& subscriber);
  template <typename F,
            typename = std::enable_if_t<!std::is_base_of<SignalSubscriber, std::decay_t<F>>::value>>
  Future<SignalLink> connect(const std::string& signalName, F&& f,
                             MetaCallType callType = MetaCallType::Auto) {
    return connect(signalName, SignalSubscriber(AnyFunction::from(std::forward<F>(f)), callType));
  }
  Future<void> disconnect(SignalLink link);

  template <typename... A>
  void post(const std::string& signalName, const A&... args) {
    postByName(signalName, AnyReferenceVector{AnyReference::from(args)...});
  }

 private:
  void postByName(const std::string& signalName, const AnyReferenceVector& args);
};

namespace detail {

// Converts a call result to R with the documented error text; a result that already
// has the type R is moved out rather than copied.
template <typename R>
R convertCallResult(AnyValue result) {
  if constexpr (std::is_void<R>::value) {
    (void)result;
  } else {
    using D = std::remove_cv_t<std::remove_reference_t<R>>;
    if (result.isValid() && sameType(result.type(), typeOf<D>())) {
      return std::move(*static_cast<D*>(result.rawValue()));
    }
    try {
      return result.to<R>();
    } catch (const std::exception&) {
      throw std::runtime_error("Unable to convert call result to target type: from " +
                               result.signature(true).toString() + " to " +
                               typeOf<R>()->signature().toString());
    }
  }
}

}  // namespace detail

template <typename R, typename... A>
R GenericObject::call(const std::string& name, const A&... args) {
  return detail::convertCallResult<R>(
      metaCall(name, AnyReferenceVector{AnyReference::from(args)...}, MetaCallType::Auto)
          .value(FutureTimeout_Infinite));
}

template <typename R, typename... A>
Future<R> GenericObject::async(const std::string& name, const A&... args) {
  return metaCall(name, AnyReferenceVector{AnyReference::from(args)...}, MetaCallType::Queued)
      .andThen([](const AnyValue& result) { return detail::convertCallResult<R>(result); });
}

}  // namespace ka
