#pragma once
// Dynamic values: AnyReference is a typed view of storage owned elsewhere, AnyValue
// owns its storage. Both answer the same questions (kind, signature, conversion).

#include <ka/api.hpp>
#include <ka/detail/typeimpl.hpp>
#include <ka/signature.hpp>
#include <ka/typeinterface.hpp>

#include <boost/container/small_vector.hpp>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace ka {

class AnyValue;

// Thrown by every failed value conversion. The text names the source and target
// signatures and the reason, e.g. "Cannot convert 'l' to 'i': 5000000000 is out of range".
class KA_API ConversionError : public std::runtime_error {
 public:
  ConversionError(const std::string& from, const std::string& to, const std::string& reason);
  const std::string& from() const { return _from; }
  const std::string& to() const { return _to; }
  // Why it failed ("5000000000 is out of range"); may be empty.
  const std::string& reason() const { return _reason; }

 private:
  std::string _from;
  std::string _to;
  std::string _reason;
};

// A non-owning, typed view: the storage must outlive the reference. Copying copies
// the view. Mutating operations write through to the referred storage.
class KA_API AnyReference {
 public:
  AnyReference() = default;
  AnyReference(const TypeInterface* type, void* storage) : _type(type), _storage(storage) {}

  // A view of `value` typed by its static C++ type (a view of an AnyValue is a
  // dynamic "m" reference to it).
  template <typename T>
  static AnyReference from(const T& value) {
    return AnyReference(typeOf<T>(), const_cast<void*>(static_cast<const void*>(&value)));
  }
  // A reference is its own view: it keeps the type of what it refers to.
  static AnyReference from(const AnyReference& reference) { return reference; }

  bool isValid() const { return _type != nullptr; }
  const TypeInterface* type() const { return _type; }
  void* rawValue() const { return _storage; }

  // Throws std::runtime_error "Can't take the kind of an invalid value" when invalid.
  TypeKind kind() const;
  // The static signature; with resolveDynamic, a dynamic value answers with the
  // signature of its content (recursively). An invalid value has the empty signature.
  Signature signature(bool resolveDynamic = false) const;

  // A copy converted to `target`; throws ConversionError when impossible or lossy.
  AnyValue convert(const TypeInterface* target) const;
  template <typename T>
  T to() const;

  // Integer content read directly when the kind is Int, otherwise through conversion.
  std::int64_t toInt64() const;
  double toDouble() const;
  // String content; throws ConversionError for non-strings.
  std::string toString() const;
  bool toBool() const;

  // Containers: elements of a list or tuple, entries of a map, content of a dynamic.
  std::size_t size() const;
  AnyReference operator[](std::size_t index) const;
  std::vector<std::pair<AnyReference, AnyReference>> mapEntries() const;
  AnyReference content() const;

  // Structural equality: same resolved signature and equal content.
  friend KA_API bool operator==(const AnyReference& a, const AnyReference& b);
  friend bool operator!=(const AnyReference& a, const AnyReference& b) { return !(a == b); }

 protected:
  const TypeInterface* _type = nullptr;
  void* _storage = nullptr;
};

// Argument lists: calls rarely pass more than a few, which then need no heap allocation.
using AnyReferenceVector = boost::container::small_vector<AnyReference, 6>;

// An owning dynamic value. Default-constructed it is empty (invalid, no type),
// which is distinct from the void value (type "v").
class KA_API AnyValue : public AnyReference {
 public:
  AnyValue() = default;
  AnyValue(const AnyValue& other);
  AnyValue(AnyValue&& other) noexcept;
  AnyValue& operator=(const AnyValue& other);
  AnyValue& operator=(AnyValue&& other) noexcept;
  ~AnyValue();

  // A deep copy of the referred value, with the same type.
  explicit AnyValue(const AnyReference& ref);
  // Takes ownership of `storage`, which must be a live object of `type`.
  AnyValue(const TypeInterface* type, void* storage, bool takeOwnership);

  explicit AnyValue(const char* text) : AnyValue(make(std::string(text))) {}
  template <typename T,
            typename = std::enable_if_t<!std::is_base_of<AnyReference, std::decay_t<T>>::value &&
                                        !std::is_pointer<std::decay_t<T>>::value>>
  explicit AnyValue(T&& value) : AnyValue(make(std::forward<T>(value))) {}

  // A value whose type is exactly typeOf<T>(); for T = AnyValue that is a dynamic
  // value ("m") holding `value`, possibly an empty one.
  template <typename T>
  static AnyValue make(T&& value) {
    using D = std::remove_cv_t<std::remove_reference_t<T>>;
    return AnyValue(typeOf<D>(), std::make_unique<D>(std::forward<T>(value)).release(), true);
  }

  // The void value: type "v" with freshly initialised storage that this value owns.
  static AnyValue makeVoid();

  const AnyReference& asReference() const { return *this; }
  void reset();
  // Gives up the storage and leaves this value empty; the caller must destroy the
  // storage with the type it had.
  void* release();

 private:
  bool _owned = false;
};

template <typename T>
T AnyReference::to() const {
  using D = std::remove_cv_t<std::remove_reference_t<T>>;
  const TypeInterface* target = typeOf<D>();
  if (_type != nullptr && sameType(_type, target)) {
    return *static_cast<const D*>(_storage);
  }
  AnyValue converted = convert(target);
  return std::move(*static_cast<D*>(converted.rawValue()));
}

}  // namespace ka
