// Value conversion: exact, or refused. Integers are range-checked, integers convert
// to floats only when the float holds them exactly, floats convert to integers only
// when they hold an integral value in range, strings convert only to strings. Between
// floats only the range is checked: rounding a double to the nearest float is what
// asking for a float means.
#include <ka/anyvalue.hpp>
#include <ka/valuekinds.hpp>

#include <cfloat>
#include <cmath>
#include <limits>
#include <memory>

namespace ka {
namespace {

const std::string& sig(const TypeInterface* t) {
  return t->signature().toString();
}

[[noreturn]] void fail(const TypeInterface* from, const TypeInterface* to,
                       const std::string& reason) {
  throw ConversionError(sig(from), sig(to), reason);
}

[[noreturn]] void noConversion(const TypeInterface* from, const TypeInterface* to) {
  fail(from, to,
       std::string("no conversion from ") + toString(from->kind()) + " to " + toString(to->kind()));
}

// A default value of `type`, owned from the start so that an exception in the middle of
// a container conversion leaks nothing.
AnyValue fresh(const TypeInterface* type) {
  return AnyValue(type, type->initializeStorage(), true);
}

struct IntRange {
  bool isSigned;
  std::int64_t min;
  std::uint64_t max;
};

IntRange rangeOf(const IntTypeInterface* t) {
  const std::size_t size = t->size();
  if (size == 0) {
    return {false, 0, 1};
  }
  const unsigned bits = static_cast<unsigned>(size * 8);
  if (t->isSigned()) {
    const std::uint64_t max = (std::uint64_t{1} << (bits - 1)) - 1;
    return {true, -static_cast<std::int64_t>(max) - 1, max};
  }
  const std::uint64_t max =
      bits == 64 ? std::numeric_limits<std::uint64_t>::max() : (std::uint64_t{1} << bits) - 1;
  return {false, 0, max};
}

AnyValue intFromInt(const IntTypeInterface* from, const void* storage, const IntTypeInterface* to) {
  const std::int64_t raw = from->get(storage);
  const IntRange r = rangeOf(to);
  bool ok;
  std::string text;
  if (from->isSigned()) {
    ok = raw >= r.min && (raw < 0 || static_cast<std::uint64_t>(raw) <= r.max);
    text = std::to_string(raw);
  } else {
    const auto u = static_cast<std::uint64_t>(raw);
    ok = u <= r.max;
    text = std::to_string(u);
  }
  if (!ok) {
    fail(from, to, text + " is out of range");
  }
  AnyValue out = fresh(to);
  to->set(out.rawValue(), raw);
  return out;
}

AnyValue intFromFloat(const FloatTypeInterface* from, const void* storage,
                      const IntTypeInterface* to) {
  const double d = from->get(storage);
  if (!std::isfinite(d)) {
    fail(from, to, "the value is not finite");
  }
  if (std::trunc(d) != d) {
    fail(from, to, std::to_string(d) + " is not an integer");
  }
  const IntRange r = rangeOf(to);
  // Bounds as doubles: 2^63 and 2^64 are exact, so compare with >= against them.
  const double upperExclusive = static_cast<double>(r.max) + 1.0;
  if (d < static_cast<double>(r.min) || d >= upperExclusive) {
    fail(from, to, std::to_string(d) + " is out of range");
  }
  AnyValue out = fresh(to);
  if (d < 0) {
    to->set(out.rawValue(), static_cast<std::int64_t>(d));
  } else {
    to->set(out.rawValue(), static_cast<std::int64_t>(static_cast<std::uint64_t>(d)));
  }
  return out;
}

AnyValue floatFromNumber(const TypeInterface* from, const void* storage,
                         const FloatTypeInterface* to) {
  double d;
  if (from->kind() == TypeKind::Int) {
    const auto* it = static_cast<const IntTypeInterface*>(from);
    const std::int64_t raw = it->get(storage);
    bool exact;
    std::string text;
    if (it->isSigned()) {
      d = static_cast<double>(raw);
      // 2^63 is exactly representable but outside int64: check before casting back.
      exact = d < 9223372036854775808.0 && static_cast<std::int64_t>(d) == raw;
      text = std::to_string(raw);
    } else {
      const auto u = static_cast<std::uint64_t>(raw);
      d = static_cast<double>(u);
      exact = d < 18446744073709551616.0 && static_cast<std::uint64_t>(d) == u;
      text = std::to_string(u);
    }
    if (to->size() == 4) {
      const float f = static_cast<float>(d);
      exact = exact && static_cast<double>(f) == d;
    }
    if (!exact) {
      fail(from, to, text + " has no exact representation");
    }
  } else {
    d = static_cast<const FloatTypeInterface*>(from)->get(storage);
  }
  if (to->size() == 4 && std::isfinite(d) && std::fabs(d) > FLT_MAX) {
    fail(from, to, std::to_string(d) + " is out of range");
  }
  AnyValue out = fresh(to);
  to->set(out.rawValue(), d);
  return out;
}

AnyValue convertImpl(const AnyReference& src, const TypeInterface* to);

AnyValue listFromList(const ListTypeInterface* from, void* storage, const ListTypeInterface* to) {
  AnyValue out = fresh(to);
  const std::size_t n = from->size(storage);
  to->reserve(out.rawValue(), n);
  for (std::size_t i = 0; i < n; ++i) {
    AnyValue e = convertImpl(AnyReference(from->elementType(), from->element(storage, i)),
                             to->elementType());
    to->pushBack(out.rawValue(), e.rawValue());
  }
  return out;
}

AnyValue mapFromMap(const MapTypeInterface* from, void* storage, const MapTypeInterface* to) {
  AnyValue out = fresh(to);
  from->forEach(storage, [&](const void* k, void* v) {
    AnyValue key = convertImpl(AnyReference(from->keyType(), const_cast<void*>(k)), to->keyType());
    AnyValue value = convertImpl(AnyReference(from->elementType(), v), to->elementType());
    to->insert(out.rawValue(), key.rawValue(), value.rawValue());
  });
  return out;
}

AnyValue tupleFromTuple(const TupleTypeInterface* from, void* storage,
                        const TupleTypeInterface* to) {
  const auto& fm = from->memberTypes();
  const auto& tm = to->memberTypes();
  if (fm.size() != tm.size()) {
    fail(from, to, "tuples differ in size");
  }
  AnyValue out = fresh(to);
  for (std::size_t i = 0; i < fm.size(); ++i) {
    AnyValue m = convertImpl(AnyReference(fm[i], from->member(storage, i)), tm[i]);
    tm[i]->assign(to->member(out.rawValue(), i), m.rawValue());
  }
  return out;
}

AnyValue convertImpl(const AnyReference& src, const TypeInterface* to) {
  const TypeInterface* from = src.type();
  if (from == nullptr) {
    throw ConversionError("", sig(to), "the value is invalid");
  }
  if (sameType(from, to)) {
    return AnyValue(src);
  }
  if (to->kind() == TypeKind::Dynamic) {
    AnyValue out = fresh(to);
    static_cast<const DynamicTypeInterface*>(to)->setContent(out.rawValue(), src);
    return out;
  }
  if (from->kind() == TypeKind::Dynamic) {
    const AnyReference inner = src.content();
    if (!inner.isValid()) {
      throw ConversionError("m", sig(to), "the dynamic value is empty");
    }
    return convertImpl(inner, to);
  }
  const TypeKind fromKind = from->kind();
  const TypeKind toKind = to->kind();
  const bool convertible = fromKind == toKind
                               ? fromKind != TypeKind::Unknown
                               : kindInfo(fromKind).number && kindInfo(toKind).number;
  if (!convertible) {
    noConversion(from, to);
  }
  // From here `from` is of the same kind as `to`, or both are numbers.
  void* storage = src.rawValue();
  switch (toKind) {
    case TypeKind::Int:
      if (fromKind == TypeKind::Float) {
        return intFromFloat(static_cast<const FloatTypeInterface*>(from), storage,
                            static_cast<const IntTypeInterface*>(to));
      }
      return intFromInt(static_cast<const IntTypeInterface*>(from), storage,
                        static_cast<const IntTypeInterface*>(to));
    case TypeKind::Float:
      return floatFromNumber(from, storage, static_cast<const FloatTypeInterface*>(to));
    case TypeKind::String: {
      AnyValue out = fresh(to);
      static_cast<const StringTypeInterface*>(to)->set(
          out.rawValue(), static_cast<const StringTypeInterface*>(from)->get(storage));
      return out;
    }
    case TypeKind::List:
      return listFromList(static_cast<const ListTypeInterface*>(from), storage,
                          static_cast<const ListTypeInterface*>(to));
    case TypeKind::Map:
      return mapFromMap(static_cast<const MapTypeInterface*>(from), storage,
                        static_cast<const MapTypeInterface*>(to));
    case TypeKind::Tuple:
      return tupleFromTuple(static_cast<const TupleTypeInterface*>(from), storage,
                            static_cast<const TupleTypeInterface*>(to));
    case TypeKind::Void:
      return AnyValue::makeVoid();
    case TypeKind::Object: {
      AnyValue out = fresh(to);
      static_cast<const ObjectTypeInterface*>(to)->setObject(
          out.rawValue(), static_cast<const ObjectTypeInterface*>(from)->object(storage));
      return out;
    }
    case TypeKind::Dynamic:  // handled above
    case TypeKind::Unknown:  // never convertible
      break;
  }
  noConversion(from, to);
}

}  // namespace

AnyValue AnyReference::convert(const TypeInterface* target) const {
  return convertImpl(*this, target);
}

}  // namespace ka
