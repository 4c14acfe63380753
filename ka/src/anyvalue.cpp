#include <ka/anyvalue.hpp>

namespace ka {

ConversionError::ConversionError(const std::string& from, const std::string& to,
                                 const std::string& reason)
    : std::runtime_error("Cannot convert '" + from + "' to '" + to + "'" +
                         (reason.empty() ? std::string() : ": " + reason)),
      _from(from),
      _to(to),
      _reason(reason) {}

// ---- AnyValue ownership ----

AnyValue::AnyValue(const AnyValue& other) : AnyValue(other.asReference()) {}

AnyValue::AnyValue(AnyValue&& other) noexcept {
  _type = other._type;
  _storage = other._storage;
  _owned = other._owned;
  other._type = nullptr;
  other._storage = nullptr;
  other._owned = false;
}

AnyValue& AnyValue::operator=(const AnyValue& other) {
  if (this != &other) {
    AnyValue copy(other);
    *this = std::move(copy);
  }
  return *this;
}

AnyValue& AnyValue::operator=(AnyValue&& other) noexcept {
  if (this != &other) {
    reset();
    std::swap(_type, other._type);
    std::swap(_storage, other._storage);
    std::swap(_owned, other._owned);
  }
  return *this;
}

AnyValue::~AnyValue() {
  reset();
}

AnyValue::AnyValue(const AnyReference& ref) {
  if (ref.isValid()) {
    _type = ref.type();
    _storage = _type->clone(ref.rawValue());
    _owned = true;
  }
}

AnyValue::AnyValue(const TypeInterface* type, void* storage, bool takeOwnership) {
  _type = type;
  _storage = storage;
  _owned = takeOwnership;
}

AnyValue AnyValue::makeVoid() {
  const TypeInterface* t = typeOf<void>();
  return AnyValue(t, t->initializeStorage(), true);
}

void AnyValue::reset() {
  if (_owned && _type != nullptr && _storage != nullptr) {
    _type->destroy(_storage);
  }
  _type = nullptr;
  _storage = nullptr;
  _owned = false;
}

void* AnyValue::release() {
  void* s = _storage;
  _owned = false;
  _type = nullptr;
  _storage = nullptr;
  return s;
}

// ---- queries ----

TypeKind AnyReference::kind() const {
  if (_type == nullptr) {
    throw std::runtime_error("Can't take the kind of an invalid value");
  }
  return _type->kind();
}

Signature AnyReference::signature(bool resolveDynamic) const {
  if (_type == nullptr) {
    return Signature();
  }
  if (resolveDynamic && _type->kind() == TypeKind::Dynamic) {
    return content().signature(true);
  }
  return _type->signature();
}

AnyReference AnyReference::content() const {
  if (_type == nullptr || _type->kind() != TypeKind::Dynamic) {
    throw std::runtime_error("Value of signature '" + signature().toString() +
                             "' is not a dynamic value");
  }
  return static_cast<const DynamicTypeInterface*>(_type)->content(_storage);
}

std::int64_t AnyReference::toInt64() const {
  if (_type != nullptr && _type->kind() == TypeKind::Int) {
    const auto* t = static_cast<const IntTypeInterface*>(_type);
    const std::int64_t v = t->get(_storage);
    if (!t->isSigned() && t->size() == 8 && v < 0) {
      throw ConversionError(signature().toString(), "l",
                            std::to_string(static_cast<std::uint64_t>(v)) + " is out of range");
    }
    return v;
  }
  return to<std::int64_t>();
}

double AnyReference::toDouble() const {
  return to<double>();
}

std::string AnyReference::toString() const {
  if (_type != nullptr && _type->kind() == TypeKind::String) {
    return static_cast<const StringTypeInterface*>(_type)->get(_storage);
  }
  return to<std::string>();
}

bool AnyReference::toBool() const {
  return to<bool>();
}

std::size_t AnyReference::size() const {
  switch (kind()) {
    case TypeKind::List:
      return static_cast<const ListTypeInterface*>(_type)->size(_storage);
    case TypeKind::Map:
      return static_cast<const MapTypeInterface*>(_type)->size(_storage);
    case TypeKind::Tuple:
      return static_cast<const TupleTypeInterface*>(_type)->memberTypes().size();
    default:
      throw std::runtime_error("Value of signature '" + signature().toString() + "' has no size");
  }
}

AnyReference AnyReference::operator[](std::size_t index) const {
  const std::size_t n = size();
  if (index >= n) {
    throw std::out_of_range("Index " + std::to_string(index) + " out of range for a value of " +
                            std::to_string(n) + " elements");
  }
  if (_type->kind() == TypeKind::List) {
    const auto* t = static_cast<const ListTypeInterface*>(_type);
    return AnyReference(t->elementType(), t->element(_storage, index));
  }
  if (_type->kind() == TypeKind::Tuple) {
    const auto* t = static_cast<const TupleTypeInterface*>(_type);
    return AnyReference(t->memberTypes()[index], t->member(_storage, index));
  }
  throw std::runtime_error("Value of signature '" + signature().toString() + "' cannot be indexed");
}

std::vector<std::pair<AnyReference, AnyReference>> AnyReference::mapEntries() const {
  if (kind() != TypeKind::Map) {
    throw std::runtime_error("Value of signature '" + signature().toString() + "' is not a map");
  }
  const auto* t = static_cast<const MapTypeInterface*>(_type);
  std::vector<std::pair<AnyReference, AnyReference>> out;
  out.reserve(t->size(_storage));
  t->forEach(_storage, [&](const void* k, void* v) {
    out.emplace_back(AnyReference(t->keyType(), const_cast<void*>(k)),
                     AnyReference(t->elementType(), v));
  });
  return out;
}

// ---- equality ----

bool operator==(const AnyReference& left, const AnyReference& right) {
  // Compared by what they hold: two dynamic values that hold nothing are equal, like two
  // invalid references.
  AnyReference a = left;
  AnyReference b = right;
  while (a.isValid() && a.kind() == TypeKind::Dynamic) {
    a = a.content();
  }
  while (b.isValid() && b.kind() == TypeKind::Dynamic) {
    b = b.content();
  }
  if (!a.isValid() || !b.isValid()) {
    return a.isValid() == b.isValid();
  }
  if (a.signature() != b.signature()) {
    return false;
  }
  switch (a.kind()) {
    case TypeKind::Void:
      return true;
    case TypeKind::Int:
      return static_cast<const IntTypeInterface*>(a.type())->get(a.rawValue()) ==
             static_cast<const IntTypeInterface*>(b.type())->get(b.rawValue());
    case TypeKind::Float:
      return static_cast<const FloatTypeInterface*>(a.type())->get(a.rawValue()) ==
             static_cast<const FloatTypeInterface*>(b.type())->get(b.rawValue());
    case TypeKind::String:
      return a.toString() == b.toString();
    case TypeKind::List:
    case TypeKind::Tuple: {
      const std::size_t n = a.size();
      if (n != b.size()) {
        return false;
      }
      for (std::size_t i = 0; i < n; ++i) {
        if (a[i] != b[i]) {
          return false;
        }
      }
      return true;
    }
    case TypeKind::Map: {
      const auto ea = a.mapEntries();
      const auto eb = b.mapEntries();
      if (ea.size() != eb.size()) {
        return false;
      }
      for (std::size_t i = 0; i < ea.size(); ++i) {
        if (ea[i].first != eb[i].first || ea[i].second != eb[i].second) {
          return false;
        }
      }
      return true;
    }
    case TypeKind::Object:
      return static_cast<const ObjectTypeInterface*>(a.type())->identity(a.rawValue()) ==
             static_cast<const ObjectTypeInterface*>(b.type())->identity(b.rawValue());
    case TypeKind::Dynamic:
    case TypeKind::Unknown:
      break;
  }
  return a.rawValue() == b.rawValue();
}

}  // namespace ka
