#pragma once
// Methods may answer with a Future<T>: the call's own future then ends as that one does (its
// value, its error text, or canceled) instead of carrying the future as an opaque value, so a
// method can finish its work later without holding a thread. Included by anyfunction.hpp, so
// that every callable returning a future is seen this way.

#include <ka/anyvalue.hpp>
#include <ka/api.hpp>
#include <ka/future.hpp>

namespace ka {
namespace detail {

// The failure of a call whose method answered with a future that has no state.
inline constexpr const char kInvalidReturnedFuture[] = "function returned an invalid future";

// Implemented by the type of every Future<T>; found with dynamic_cast on a result's type.
class KA_API FutureResultType {
 public:
  virtual ~FutureResultType();
  // The type of the value the future carries (void for Future<void>).
  virtual const TypeInterface* valueType() const = 0;
  // A future of the value as an AnyValue, ending the same way as the one in `storage`.
  virtual Future<AnyValue> asAnyValue(const void* storage) const = 0;
};

template <typename T>
class FutureTypeImpl : public UnknownTypeImpl<Future<T>>, public FutureResultType {
 public:
  const TypeInterface* valueType() const override { return typeOf<T>(); }
  Future<AnyValue> asAnyValue(const void* storage) const override {
    const auto& future = *static_cast<const Future<T>*>(storage);
    if (!future.isValid()) {
      return makeFutureError<AnyValue>(kInvalidReturnedFuture);
    }
    if constexpr (std::is_void_v<T>) {
      return future.andThen([] { return AnyValue::makeVoid(); });
    } else {
      return future.andThen([](const T& value) { return AnyValue::make(value); });
    }
  }
};

template <typename T>
struct TypeOf<Future<T>> {
  static const TypeInterface* get() { return immortal<FutureTypeImpl<T>>(); }
};

// The future behind a result, or null when the result is an ordinary value.
inline const FutureResultType* asFutureResult(const TypeInterface* type) {
  return type != nullptr && type->kind() == TypeKind::Unknown
             ? dynamic_cast<const FutureResultType*>(type)
             : nullptr;
}

// The type a caller sees as the result of a callable returning `type`.
inline const TypeInterface* visibleResultType(const TypeInterface* type) {
  const FutureResultType* future = asFutureResult(type);
  return future != nullptr ? future->valueType() : type;
}

}  // namespace detail
}  // namespace ka
