#pragma once
// A type-erased callable with run-time parameter and result types, callable with
// dynamic arguments that are converted to the parameter types.

#include <ka/anyvalue.hpp>
#include <ka/api.hpp>
#include <ka/detail/future_type.hpp>

#include <boost/function.hpp>

#include <functional>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace ka {

// An argument list that does not fit the parameters: wrong count, or an argument
// that does not convert ("Cannot convert argument 2 from 's' to 'i': ...").
class KA_API ArgumentError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

namespace detail {

template <typename F>
struct FunctionTraits : FunctionTraits<decltype(&F::operator())> {};

template <typename R, typename... A>
struct FunctionTraits<R(A...)> {
  using Result = R;
  using Args = std::tuple<A...>;
  using Signature = R(A...);
};
template <typename R, typename... A>
struct FunctionTraits<R (*)(A...)> : FunctionTraits<R(A...)> {};
template <typename R, typename C, typename... A>
struct FunctionTraits<R (C::*)(A...)> : FunctionTraits<R(A...)> {};
template <typename R, typename C, typename... A>
struct FunctionTraits<R (C::*)(A...) const> : FunctionTraits<R(A...)> {};
template <typename R, typename... A>
struct FunctionTraits<R (*)(A...) noexcept> : FunctionTraits<R(A...)> {};
template <typename R, typename C, typename... A>
struct FunctionTraits<R (C::*)(A...) noexcept> : FunctionTraits<R(A...)> {};
template <typename R, typename C, typename... A>
struct FunctionTraits<R (C::*)(A...) const noexcept> : FunctionTraits<R(A...)> {};
template <typename R, typename... A>
struct FunctionTraits<boost::function<R(A...)>> : FunctionTraits<R(A...)> {};
template <typename R, typename... A>
struct FunctionTraits<std::function<R(A...)>> : FunctionTraits<R(A...)> {};

// Calls `f` with arguments whose storage has already the exact parameter types.
using Invoker = std::function<AnyValue(void* const* args)>;

// Argument storage ready for an invoker: pointers to arguments of exactly the
// parameter types, borrowing the caller's storage where the types already match and
// owning converted copies otherwise.
class KA_API PreparedArguments {
 public:
  // Throws ArgumentError for a wrong count or an argument that does not convert.
  PreparedArguments(const std::vector<const TypeInterface*>& parameters,
                    const AnyReferenceVector& args);
  void* const* pointers() const { return _pointers.data(); }

 private:
  // Inline for the usual few arguments: a call that converts nothing allocates nothing here.
  boost::container::small_vector<void*, 7> _pointers;
  boost::container::small_vector<AnyValue, 2> _converted;
};

// Parameters receive the middleware's storage as lvalues, which the caller may have
// lent read-only: only values and const references are accepted.
template <typename A>
constexpr bool isAcceptedParameter() {
  return !std::is_rvalue_reference<A>::value &&
         !(std::is_lvalue_reference<A>::value && !std::is_const<std::remove_reference_t<A>>::value);
}

template <typename R, typename F, typename... A, std::size_t... I>
AnyValue invokeWith(F& f, void* const* args, std::index_sequence<I...>) {
  static_assert((isAcceptedParameter<A>() && ...),
                "parameters must be taken by value or by const reference");
  if constexpr (std::is_void<R>::value) {
    f(*static_cast<std::remove_cv_t<std::remove_reference_t<A>>*>(args[I])...);
    return AnyValue::makeVoid();
  } else {
    return AnyValue::make(
        f(*static_cast<std::remove_cv_t<std::remove_reference_t<A>>*>(args[I])...));
  }
}

template <typename R, typename... A, typename F>
Invoker makeInvoker(F&& f, R (*)(A...)) {
  return [fn = std::forward<F>(f)](void* const* args) mutable {
    return invokeWith<R, std::decay_t<F>, A...>(fn, args, std::index_sequence_for<A...>());
  };
}

template <typename R, typename... A>
std::vector<const TypeInterface*> parameterTypes(R (*)(A...)) {
  return {typeOf<A>()...};
}

template <typename R, typename... A>
const TypeInterface* resultType(R (*)(A...)) {
  return typeOf<R>();
}

}  // namespace detail

class KA_API AnyFunction {
 public:
  AnyFunction() = default;

  // From a free function, a lambda, a functor with one operator(), std::function or
  // boost::function: the signature is deduced.
  template <typename F>
  static AnyFunction from(F&& f) {
    using Sig = typename detail::FunctionTraits<std::decay_t<F>>::Signature;
    return from<Sig>(std::forward<F>(f));
  }

  // With an explicit signature, for callables whose call operator cannot be deduced
  // (boost::bind results, generic lambdas): AnyFunction::from<void(int)>(f).
  template <typename Sig, typename F>
  static AnyFunction from(F&& f) {
    Sig* tag = nullptr;
    return AnyFunction(detail::parameterTypes(tag), detail::resultType(tag),
                       detail::makeInvoker(std::forward<F>(f), tag));
  }

  // A member function bound to an object kept alive by the function.
  template <typename R, typename C, typename P, typename... A>
  static AnyFunction fromMember(R (C::*method)(A...), P object) {
    return from<R(A...)>(
        [method, object](A... a) -> R { return ((*object).*method)(std::forward<A>(a)...); });
  }
  template <typename R, typename C, typename P, typename... A>
  static AnyFunction fromMember(R (C::*method)(A...) const, P object) {
    return from<R(A...)>(
        [method, object](A... a) -> R { return ((*object).*method)(std::forward<A>(a)...); });
  }

  // A callable whose parameter types are known only at run time (say from a remote object's
  // description): `f` receives the arguments already converted to `parameters`, and answers a
  // value of `result` (the void value for "v").
  static AnyFunction fromDynamic(std::vector<const TypeInterface*> parameters,
                                 const TypeInterface* result,
                                 std::function<AnyValue(const AnyReferenceVector&)> f);

  bool isValid() const { return _impl != nullptr; }

  const std::vector<const TypeInterface*>& parameterTypes() const;
  const TypeInterface* resultType() const;
  // The parameters as a tuple signature, e.g. "(is)".
  Signature parametersSignature() const;
  Signature resultSignature() const;

  // Converts each argument to its parameter type (no copy when the types already
  // match) and calls. Throws ArgumentError for a wrong count or a failed conversion;
  // exceptions of the callable pass through. A void callable answers the void value.
  AnyValue call(const AnyReferenceVector& args) const;

  // Calls with arguments already of the exact parameter types.
  AnyValue callPrepared(void* const* args) const;

  template <typename... A>
  AnyValue operator()(const A&... args) const {
    return call(AnyReferenceVector{AnyReference::from(args)...});
  }

 private:
  struct Impl {
    std::vector<const TypeInterface*> parameters;
    const TypeInterface* result;
    detail::Invoker invoker;
  };
  AnyFunction(std::vector<const TypeInterface*> parameters, const TypeInterface* result,
              detail::Invoker invoker);

  std::shared_ptr<const Impl> _impl;
};

// The signature of a parameter list as a tuple signature.
KA_API Signature tupleSignature(const std::vector<const TypeInterface*>& types);

}  // namespace ka
