#pragma once
// An object of the middleware seen through its interface only: methods called by
// name with dynamic arguments, signals subscribed by name. Local objects, objects
// built from lambdas and (later) remote objects all look like this.

#include <ka/anyvalue.hpp>
#include <ka/api.hpp>
#include <ka/future.hpp>
#include <ka/metacalltype.hpp>
#include <ka/metaobject.hpp>
#include <ka/scopedconnection.hpp>
#include <ka/signal.hpp>

#include <boost/core/demangle.hpp>
#include <boost/enable_shared_from_this.hpp>

#include <algorithm>
#include <string>
#include <string_view>
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
  // Whether method `uid` may run directly on any thread, concurrently with other calls: true for
  // a multi-threaded object's method not advertised Queued. A transport then runs a call that
  // arrives on a socket on the thread that read it.
  virtual bool runsOnAnyThread(unsigned int uid) const;

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

  // Blocking connect whose handle disconnects when destroyed; throws FutureError with the
  // connection's error text. The handle keeps this object alive until it disconnects.
  [[nodiscard]] ScopedConnection connectScoped(const std::string& signalName,
                                               const SignalSubscriber& subscriber);
  template <typename F,
            typename = std::enable_if_t<!std::is_base_of<SignalSubscriber, std::decay_t<F>>::value>>
  [[nodiscard]] ScopedConnection connectScoped(const std::string& signalName, F&& f,
                                               MetaCallType callType = MetaCallType::Auto) {
    return connectScoped(signalName,
                         SignalSubscriber(AnyFunction::from(std::forward<F>(f)), callType));
  }

  template <typename... A>
  void post(const std::string& signalName, const A&... args);

 private:
  void postByName(const std::string& signalName, const AnyReferenceVector& args);
  template <typename R, typename... H>
  R callHeld(const std::string& name, const H&... held);
  template <typename R, typename... H>
  Future<R> asyncHeld(const std::string& name, const H&... held);
};

namespace detail {

// How call(), async() and post() pass their arguments: text of any C++ spelling (literal,
// const char*, std::string_view) as a string "s", a dynamic value as what it holds, anything
// else as itself. held() gives what the call keeps for the argument; referenceTo() views it.
template <typename A>
constexpr bool isText() {
  using D = std::decay_t<A>;
  return std::is_same<D, const char*>::value || std::is_same<D, char*>::value ||
         std::is_same<D, std::string_view>::value;
}

template <typename A>
decltype(auto) held(const A& arg) {
  if constexpr (std::is_array<A>::value && isText<A>()) {
    // A literal, or a buffer whose text ends at its first NUL or at its end.
    return std::string(arg, std::find(arg, arg + std::extent<A>::value, '\0'));
  } else if constexpr (std::is_same<std::decay_t<A>, std::string_view>::value) {
    return std::string(arg);
  } else if constexpr (isText<A>()) {
    if (arg == nullptr) {
      throw std::invalid_argument("A null C string cannot be passed as a text argument");
    }
    return std::string(arg);
  } else {
    return static_cast<const A&>(arg);
  }
}

inline AnyReference referenceTo(const AnyReference& reference) {
  return reference;
}
// An empty AnyValue stays a dynamic value holding nothing, which no typed parameter accepts.
inline AnyReference referenceTo(const AnyValue& value) {
  return value.isValid() ? value.asReference() : AnyReference::from(value);
}
template <typename T>
AnyReference referenceTo(const T& value) {
  return AnyReference::from(value);
}

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
  return callHeld<R>(name, detail::held(args)...);
}

template <typename R, typename... H>
R GenericObject::callHeld(const std::string& name, const H&... held) {
  return detail::convertCallResult<R>(
      metaCall(name, AnyReferenceVector{detail::referenceTo(held)...}, MetaCallType::Auto)
          .value(FutureTimeout_Infinite));
}

template <typename R, typename... A>
Future<R> GenericObject::async(const std::string& name, const A&... args) {
  return asyncHeld<R>(name, detail::held(args)...);
}

template <typename R, typename... H>
Future<R> GenericObject::asyncHeld(const std::string& name, const H&... held) {
  return metaCall(name, AnyReferenceVector{detail::referenceTo(held)...}, MetaCallType::Queued)
      .andThen([](const AnyValue& result) { return detail::convertCallResult<R>(result); });
}

template <typename... A>
void GenericObject::post(const std::string& signalName, const A&... args) {
  [](GenericObject& self, const std::string& signal, const auto&... held) {
    self.postByName(signal, AnyReferenceVector{detail::referenceTo(held)...});
  }(*this, signalName, detail::held(args)...);
}

}  // namespace ka
