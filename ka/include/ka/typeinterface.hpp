#pragma once
// Run-time descriptions of C++ types: what kind of value a storage holds and how to
// create, copy, read and write it without knowing its C++ type.

#include <ka/api.hpp>
#include <ka/signature.hpp>

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

namespace ka {

class AnyReference;
class GenericObject;

enum class TypeKind { Void, Int, Float, String, List, Map, Tuple, Dynamic, Object, Unknown };

KA_API const char* toString(TypeKind kind);

// Storage is always a pointer to a live object of the described C++ type. The
// interface owns nothing: whoever called initializeStorage/clone calls destroy.
class KA_API TypeInterface {
 public:
  virtual ~TypeInterface();

  virtual TypeKind kind() const = 0;
  // The static signature of the type (a dynamic value is "m" whatever it holds).
  virtual const Signature& signature() const = 0;
  virtual const std::type_info& info() const = 0;

  // A freshly default-constructed object; throws std::runtime_error for types that
  // cannot be default-constructed.
  virtual void* initializeStorage() const = 0;
  virtual void* clone(const void* storage) const = 0;
  virtual void destroy(void* storage) const = 0;
  // Copy-assigns *src to *dst (both of this type).
  virtual void assign(void* dst, const void* src) const = 0;
};

// Two descriptions denote the same C++ type. Descriptions of template types may be
// duplicated across shared libraries, so this compares type identity, not pointers; types
// built from signature texts at run time are the same only when their signatures are.
KA_API bool sameType(const TypeInterface* a, const TypeInterface* b);

class KA_API VoidTypeInterface : public TypeInterface {
 public:
  TypeKind kind() const override { return TypeKind::Void; }
};

// Integers and bool. size() is the byte width, 0 for bool.
class KA_API IntTypeInterface : public TypeInterface {
 public:
  TypeKind kind() const override { return TypeKind::Int; }
  virtual std::size_t size() const = 0;
  virtual bool isSigned() const = 0;
  // The value's bits widened to 64: read as int64_t when isSigned(), else as uint64_t.
  virtual std::int64_t get(const void* storage) const = 0;
  // Stores `value` (already range-checked by the caller), truncating to the width.
  virtual void set(void* storage, std::int64_t value) const = 0;
};

class KA_API FloatTypeInterface : public TypeInterface {
 public:
  TypeKind kind() const override { return TypeKind::Float; }
  virtual std::size_t size() const = 0;
  virtual double get(const void* storage) const = 0;
  virtual void set(void* storage, double value) const = 0;
};

class KA_API StringTypeInterface : public TypeInterface {
 public:
  TypeKind kind() const override { return TypeKind::String; }
  virtual const std::string& get(const void* storage) const = 0;
  virtual void set(void* storage, std::string value) const = 0;
};

class KA_API ListTypeInterface : public TypeInterface {
 public:
  TypeKind kind() const override { return TypeKind::List; }
  virtual const TypeInterface* elementType() const = 0;
  virtual std::size_t size(const void* storage) const = 0;
  virtual void* element(void* storage, std::size_t index) const = 0;
  // Appends a copy of *elementStorage (of elementType()).
  virtual void pushBack(void* storage, const void* elementStorage) const = 0;
  virtual void reserve(void* storage, std::size_t n) const = 0;
};

class KA_API MapTypeInterface : public TypeInterface {
 public:
  using Visitor = std::function<void(const void* key, void* value)>;
  TypeKind kind() const override { return TypeKind::Map; }
  virtual const TypeInterface* keyType() const = 0;
  virtual const TypeInterface* elementType() const = 0;
  virtual std::size_t size(const void* storage) const = 0;
  // Visits the entries in key order.
  virtual void forEach(void* storage, const Visitor& visit) const = 0;
  // Inserts copies of *key and *value, replacing an existing entry with an equal key.
  virtual void insert(void* storage, const void* key, const void* value) const = 0;
};

class KA_API TupleTypeInterface : public TypeInterface {
 public:
  TypeKind kind() const override { return TypeKind::Tuple; }
  virtual const std::vector<const TypeInterface*>& memberTypes() const = 0;
  virtual void* member(void* storage, std::size_t index) const = 0;
};

// The type of ka::AnyValue used as a value ("m"): it holds any other value.
class KA_API DynamicTypeInterface : public TypeInterface {
 public:
  TypeKind kind() const override { return TypeKind::Dynamic; }
  // The held value (invalid when the dynamic value holds nothing).
  virtual AnyReference content(const void* storage) const = 0;
  virtual void setContent(void* storage, const AnyReference& value) const = 0;
};

// Handles to middleware objects ("o"). Equality of two handles is identity of the
// object they refer to.
class KA_API ObjectTypeInterface : public TypeInterface {
 public:
  TypeKind kind() const override { return TypeKind::Object; }
  // An opaque identity of the referred object (nullptr for a null handle).
  virtual const void* identity(const void* storage) const = 0;
  virtual boost::shared_ptr<GenericObject> object(const void* storage) const = 0;
  virtual void setObject(void* storage, boost::shared_ptr<GenericObject> object) const = 0;
};

}  // namespace ka
