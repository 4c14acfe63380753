// The exported descriptions of the non-template types: void, std::string and
// AnyValue used as a dynamic value.
#include <ka/anyvalue.hpp>
#include <ka/valuekinds.hpp>

#include <memory>

namespace ka {

TypeInterface::~TypeInterface() = default;

bool sameType(const TypeInterface* a, const TypeInterface* b) {
  if (a == b) {
    return true;
  }
  // Run-time types built from signature texts share one storage type per kind ("[s]" and
  // "[i]" both hold a list of values): for them the signature tells them apart. For C++ types
  // equal type_info implies equal signatures, so the second test never separates those.
  return a != nullptr && b != nullptr && a->info() == b->info() && a->signature() == b->signature();
}

const char* toString(TypeKind kind) {
  const auto index = static_cast<std::size_t>(kind);
  return index < kTypeKindCount ? kKinds[index].name : "unknown";
}

namespace detail {

std::runtime_error notDefaultConstructible(const std::type_info& info) {
  return std::runtime_error(std::string("Type '") + info.name() +
                            "' cannot be default-constructed");
}

std::runtime_error notCopyable(const std::type_info& info) {
  return std::runtime_error(std::string("Type '") + info.name() + "' cannot be copied");
}

namespace {

// Void storage is one byte so that the void value really owns fresh storage.
struct VoidStorage {
  char unused = 0;
};

class VoidTypeImpl : public StorageImpl<VoidStorage, VoidTypeInterface> {
 public:
  const std::type_info& info() const override { return typeid(void); }
  const Signature& signature() const override { return _signature; }

 private:
  Signature _signature{"v"};
};

class StringTypeImpl : public StorageImpl<std::string, StringTypeInterface> {
 public:
  const Signature& signature() const override { return _signature; }
  const std::string& get(const void* storage) const override {
    return *static_cast<const std::string*>(storage);
  }
  void set(void* storage, std::string value) const override {
    *static_cast<std::string*>(storage) = std::move(value);
  }

 private:
  Signature _signature{"s"};
};

class DynamicTypeImpl : public StorageImpl<AnyValue, DynamicTypeInterface> {
 public:
  const Signature& signature() const override { return _signature; }
  AnyReference content(const void* storage) const override {
    return static_cast<const AnyValue*>(storage)->asReference();
  }
  void setContent(void* storage, const AnyReference& value) const override {
    *static_cast<AnyValue*>(storage) = value.isValid() ? AnyValue(value) : AnyValue();
  }

 private:
  Signature _signature{"m"};
};

}  // namespace

const TypeInterface* voidType() {
  static const Immortal<VoidTypeImpl> impl;
  return &impl.value;
}

const TypeInterface* stringType() {
  static const Immortal<StringTypeImpl> impl;
  return &impl.value;
}

const TypeInterface* dynamicType() {
  static const Immortal<DynamicTypeImpl> impl;
  return &impl.value;
}

}  // namespace detail
}  // namespace ka
