#pragma once
// Template implementations of TypeInterface for the C++ types the middleware knows.
// Included by <ka/typeof.hpp>; not meant to be used directly.

#include <ka/typeinterface.hpp>
#include <ka/valuekinds.hpp>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace ka {

class AnyValue;

template <typename T>
const TypeInterface* typeOf();

namespace detail {

// Holds a type description that is never destroyed. Values are destroyed by threads of the event
// loop until it stops at exit, which comes after the destructors of every static constructed
// later than the loop's start: a description among those would be gone while a value still
// needs it.
template <typename T>
union Immortal {
  Immortal() : value() {}
  ~Immortal() {}
  T value;
};

KA_API std::runtime_error notDefaultConstructible(const std::type_info& info);
KA_API std::runtime_error notCopyable(const std::type_info& info);

// Storage management shared by every implementation: storage is a heap T owned by
// whoever asked for it (AnyValue in practice).
template <typename T, typename Base>
class StorageImpl : public Base {
 public:
  const std::type_info& info() const override { return typeid(T); }
  void* initializeStorage() const override {
    if constexpr (std::is_default_constructible<T>::value) {
      return std::make_unique<T>().release();
    } else {
      throw notDefaultConstructible(typeid(T));
    }
  }
  void* clone(const void* storage) const override {
    if constexpr (std::is_copy_constructible<T>::value) {
      return std::make_unique<T>(*static_cast<const T*>(storage)).release();
    } else {
      throw notCopyable(typeid(T));
    }
  }
  void destroy(void* storage) const override { std::unique_ptr<T>(static_cast<T*>(storage)); }
  void assign(void* dst, const void* src) const override {
    if constexpr (std::is_copy_assignable<T>::value) {
      *static_cast<T*>(dst) = *static_cast<const T*>(src);
    } else {
      throw notCopyable(typeid(T));
    }
  }
};

template <typename T>
class IntTypeImpl : public StorageImpl<T, IntTypeInterface> {
 public:
  IntTypeImpl() : _signature(letter()) {}
  const Signature& signature() const override { return _signature; }
  std::size_t size() const override { return std::is_same<T, bool>::value ? 0 : sizeof(T); }
  bool isSigned() const override { return std::is_signed<T>::value; }
  std::int64_t get(const void* storage) const override {
    const T v = *static_cast<const T*>(storage);
    if constexpr (std::is_signed<T>::value) {
      return static_cast<std::int64_t>(v);
    } else {
      return static_cast<std::int64_t>(static_cast<std::uint64_t>(v));
    }
  }
  void set(void* storage, std::int64_t value) const override {
    if constexpr (std::is_same<T, bool>::value) {
      *static_cast<T*>(storage) = value != 0;
    } else {
      *static_cast<T*>(storage) = static_cast<T>(value);
    }
  }

 private:
  static std::string letter() {
    return std::string(1, numberLetter(TypeKind::Int, std::is_same<T, bool>::value ? 0 : sizeof(T),
                                       std::is_signed<T>::value));
  }
  Signature _signature;
};

template <typename T>
class FloatTypeImpl : public StorageImpl<T, FloatTypeInterface> {
 public:
  FloatTypeImpl() : _signature(std::string(1, numberLetter(TypeKind::Float, sizeof(T), true))) {}
  const Signature& signature() const override { return _signature; }
  std::size_t size() const override { return sizeof(T); }
  double get(const void* storage) const override {
    return static_cast<double>(*static_cast<const T*>(storage));
  }
  void set(void* storage, double value) const override {
    *static_cast<T*>(storage) = static_cast<T>(value);
  }

 private:
  Signature _signature;
};

template <typename V>
class ListTypeImpl : public StorageImpl<V, ListTypeInterface> {
  using E = typename V::value_type;
  static_assert(!std::is_same<E, bool>::value,
                "std::vector<bool> has no addressable elements: use std::vector<char>");

 public:
  ListTypeImpl()
      : _element(typeOf<E>()), _signature("[" + _element->signature().toString() + "]") {}
  const Signature& signature() const override { return _signature; }
  const TypeInterface* elementType() const override { return _element; }
  std::size_t size(const void* storage) const override {
    return static_cast<const V*>(storage)->size();
  }
  void* element(void* storage, std::size_t index) const override {
    return &(*static_cast<V*>(storage))[index];
  }
  void pushBack(void* storage, const void* elementStorage) const override {
    static_cast<V*>(storage)->push_back(*static_cast<const E*>(elementStorage));
  }
  void reserve(void* storage, std::size_t n) const override {
    static_cast<V*>(storage)->reserve(n);
  }

 private:
  const TypeInterface* _element;
  Signature _signature;
};

template <typename M>
class MapTypeImpl : public StorageImpl<M, MapTypeInterface> {
  using K = typename M::key_type;
  using V = typename M::mapped_type;

 public:
  MapTypeImpl()
      : _key(typeOf<K>()),
        _element(typeOf<V>()),
        _signature("{" + _key->signature().toString() + _element->signature().toString() + "}") {}
  const Signature& signature() const override { return _signature; }
  const TypeInterface* keyType() const override { return _key; }
  const TypeInterface* elementType() const override { return _element; }
  std::size_t size(const void* storage) const override {
    return static_cast<const M*>(storage)->size();
  }
  void forEach(void* storage, const MapTypeInterface::Visitor& visit) const override {
    for (auto& entry : *static_cast<M*>(storage)) {
      visit(&entry.first, &entry.second);
    }
  }
  void insert(void* storage, const void* key, const void* value) const override {
    (*static_cast<M*>(storage))[*static_cast<const K*>(key)] = *static_cast<const V*>(value);
  }

 private:
  const TypeInterface* _key;
  const TypeInterface* _element;
  Signature _signature;
};

// std::tuple and std::pair.
template <typename T>
class TupleTypeImpl : public StorageImpl<T, TupleTypeInterface> {
  static constexpr std::size_t N = std::tuple_size<T>::value;

 public:
  TupleTypeImpl() : _members(memberTypesOf(std::make_index_sequence<N>())) {
    std::string text = "(";
    for (const TypeInterface* m : _members) {
      text += m->signature().toString();
    }
    _signature = Signature(text + ")");
  }
  const Signature& signature() const override { return _signature; }
  const std::vector<const TypeInterface*>& memberTypes() const override { return _members; }
  void* member(void* storage, std::size_t index) const override {
    return memberAt(*static_cast<T*>(storage), index, std::make_index_sequence<N>());
  }

 private:
  template <std::size_t... I>
  static std::vector<const TypeInterface*> memberTypesOf(std::index_sequence<I...>) {
    return {typeOf<std::tuple_element_t<I, T>>()...};
  }
  template <std::size_t... I>
  static void* memberAt(T& t, std::size_t index, std::index_sequence<I...>) {
    void* ptrs[] = {static_cast<void*>(&std::get<I>(t))..., nullptr};
    return ptrs[index];
  }
  std::vector<const TypeInterface*> _members;
  Signature _signature;
};

// Any other C++ type: can be held and copied, but has no middleware meaning ("X").
template <typename T>
class UnknownTypeImpl : public StorageImpl<T, TypeInterface> {
 public:
  UnknownTypeImpl() : _signature("X") {}
  TypeKind kind() const override { return TypeKind::Unknown; }
  const Signature& signature() const override { return _signature; }

 private:
  Signature _signature;
};

// Non-template types have one exported description shared by every library.
KA_API const TypeInterface* voidType();
KA_API const TypeInterface* stringType();
KA_API const TypeInterface* dynamicType();

template <typename T, typename Enable = void>
struct TypeOf {
  static const TypeInterface* get() {
    static const Immortal<UnknownTypeImpl<T>> impl;
    return &impl.value;
  }
};

template <>
struct TypeOf<void> {
  static const TypeInterface* get() { return voidType(); }
};

template <>
struct TypeOf<std::string> {
  static const TypeInterface* get() { return stringType(); }
};

template <>
struct TypeOf<AnyValue> {
  static const TypeInterface* get() { return dynamicType(); }
};

template <typename T>
struct TypeOf<T, std::enable_if_t<std::is_integral<T>::value>> {
  static const TypeInterface* get() {
    static const Immortal<IntTypeImpl<T>> impl;
    return &impl.value;
  }
};

template <typename T>
struct TypeOf<T, std::enable_if_t<std::is_floating_point<T>::value>> {
  static const TypeInterface* get() {
    static const Immortal<FloatTypeImpl<T>> impl;
    return &impl.value;
  }
};

template <typename E, typename A>
struct TypeOf<std::vector<E, A>> {
  static const TypeInterface* get() {
    static const Immortal<ListTypeImpl<std::vector<E, A>>> impl;
    return &impl.value;
  }
};

template <typename K, typename V, typename C, typename A>
struct TypeOf<std::map<K, V, C, A>> {
  static const TypeInterface* get() {
    static const Immortal<MapTypeImpl<std::map<K, V, C, A>>> impl;
    return &impl.value;
  }
};

template <typename... T>
struct TypeOf<std::tuple<T...>> {
  static const TypeInterface* get() {
    static const Immortal<TupleTypeImpl<std::tuple<T...>>> impl;
    return &impl.value;
  }
};

template <typename A, typename B>
struct TypeOf<std::pair<A, B>> {
  static const TypeInterface* get() {
    static const Immortal<TupleTypeImpl<std::pair<A, B>>> impl;
    return &impl.value;
  }
};

}  // namespace detail

// The description of T, ignoring references and cv-qualifiers.
template <typename T>
const TypeInterface* typeOf() {
  return detail::TypeOf<std::remove_cv_t<std::remove_reference_t<T>>>::get();
}

}  // namespace ka
