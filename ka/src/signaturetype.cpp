// Run-time list, map and tuple types for signature texts, and the registry that interns them.
// Their storage is a container of AnyValue, each holding one element of the element type, so
// the conversions in convert.cpp move values between them and the C++ containers.
#include <ka/anyvalue.hpp>
#include <ka/object.hpp>
#include <ka/signaturetype.hpp>

#include "signature_budget.hpp"

#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ka {
namespace {

// Texts come from peers: these bound the stack used to parse one and the memory the registry,
// which never frees, can be made to hold.
constexpr std::size_t kMaxNesting = 64;
constexpr std::size_t kMaxTextLength = 4096;
constexpr std::size_t kMaxInternedTypes = 16384;

// A total order on values of one type, used for the keys of run-time maps. It agrees with
// operator< of the C++ types where those have one (numbers, std::string, containers compared
// lexicographically), so a map keeps the same entry order whichever side of a conversion it is.
int compareValues(const AnyReference& a, const AnyReference& b);

template <typename T>
int threeWay(const T& x, const T& y) {
  return x < y ? -1 : (y < x ? 1 : 0);
}

int compareValues(const AnyReference& a, const AnyReference& b) {
  if (!a.isValid() || !b.isValid()) {
    return threeWay(a.isValid(), b.isValid());
  }
  const TypeKind ka = a.type()->kind();
  const TypeKind kb = b.type()->kind();
  if (ka == TypeKind::Dynamic || kb == TypeKind::Dynamic) {
    // Dynamic keys may hold values of different types: order by type first.
    const AnyReference ca = ka == TypeKind::Dynamic ? a.content() : a;
    const AnyReference cb = kb == TypeKind::Dynamic ? b.content() : b;
    if (ca.isValid() && cb.isValid()) {
      const int bySignature = ca.signature(true).toString().compare(cb.signature(true).toString());
      if (bySignature != 0) {
        return bySignature < 0 ? -1 : 1;
      }
    }
    return compareValues(ca, cb);
  }
  if (ka != kb) {
    return threeWay(static_cast<int>(ka), static_cast<int>(kb));
  }
  switch (ka) {
    case TypeKind::Void:
      return 0;
    case TypeKind::Int: {
      const auto* ta = static_cast<const IntTypeInterface*>(a.type());
      const auto* tb = static_cast<const IntTypeInterface*>(b.type());
      const std::int64_t va = ta->get(a.rawValue());
      const std::int64_t vb = tb->get(b.rawValue());
      if (ta->isSigned() == tb->isSigned()) {
        return ta->isSigned()
                   ? threeWay(va, vb)
                   : threeWay(static_cast<std::uint64_t>(va), static_cast<std::uint64_t>(vb));
      }
      // Mixed signedness: a negative signed value is below every unsigned one.
      const std::int64_t signedValue = ta->isSigned() ? va : vb;
      if (signedValue < 0) {
        return ta->isSigned() ? -1 : 1;
      }
      return threeWay(static_cast<std::uint64_t>(va), static_cast<std::uint64_t>(vb));
    }
    case TypeKind::Float: {
      const double x = static_cast<const FloatTypeInterface*>(a.type())->get(a.rawValue());
      const double y = static_cast<const FloatTypeInterface*>(b.type())->get(b.rawValue());
      // NaN, which compares with nothing, goes last so that the order stays strict and weak.
      const bool nx = std::isnan(x);
      const bool ny = std::isnan(y);
      return nx || ny ? threeWay(nx, ny) : threeWay(x, y);
    }
    case TypeKind::String: {
      const int c =
          static_cast<const StringTypeInterface*>(a.type())
              ->get(a.rawValue())
              .compare(static_cast<const StringTypeInterface*>(b.type())->get(b.rawValue()));
      return c < 0 ? -1 : (c > 0 ? 1 : 0);
    }
    case TypeKind::List:
    case TypeKind::Tuple: {
      const std::size_t na = a.size();
      const std::size_t nb = b.size();
      for (std::size_t i = 0; i < na && i < nb; ++i) {
        const int c = compareValues(a[i], b[i]);
        if (c != 0) {
          return c;
        }
      }
      return threeWay(na, nb);
    }
    case TypeKind::Map: {
      const auto ea = a.mapEntries();
      const auto eb = b.mapEntries();
      for (std::size_t i = 0; i < ea.size() && i < eb.size(); ++i) {
        int c = compareValues(ea[i].first, eb[i].first);
        if (c == 0) {
          c = compareValues(ea[i].second, eb[i].second);
        }
        if (c != 0) {
          return c;
        }
      }
      return threeWay(ea.size(), eb.size());
    }
    case TypeKind::Object: {
      const void* ia = static_cast<const ObjectTypeInterface*>(a.type())->identity(a.rawValue());
      const void* ib = static_cast<const ObjectTypeInterface*>(b.type())->identity(b.rawValue());
      const std::less<const void*> less;
      return less(ia, ib) ? -1 : (less(ib, ia) ? 1 : 0);
    }
    case TypeKind::Dynamic:
    case TypeKind::Unknown:
      break;
  }
  // "X" has no order; typeFromSignature never builds a map keyed by it.
  return 0;
}

struct KeyLess {
  bool operator()(const AnyValue& a, const AnyValue& b) const { return compareValues(a, b) < 0; }
};

// Storages. Every AnyValue inside holds a value of exactly the element (or member) type.
struct ListStorage {
  std::vector<AnyValue> items;
};
struct MapStorage {
  std::map<AnyValue, AnyValue, KeyLess> entries;
};
struct TupleStorage {
  std::vector<AnyValue> members;
};

AnyValue copyOf(const TypeInterface* type, const void* storage) {
  return AnyValue(AnyReference(type, const_cast<void*>(storage)));
}

class RuntimeListType : public detail::StorageImpl<ListStorage, ListTypeInterface> {
 public:
  RuntimeListType(Signature signature, const TypeInterface* element)
      : _signature(std::move(signature)), _element(element) {}
  const Signature& signature() const override { return _signature; }
  const TypeInterface* elementType() const override { return _element; }
  std::size_t size(const void* storage) const override {
    return static_cast<const ListStorage*>(storage)->items.size();
  }
  void* element(void* storage, std::size_t index) const override {
    return static_cast<ListStorage*>(storage)->items[index].rawValue();
  }
  void pushBack(void* storage, const void* elementStorage) const override {
    static_cast<ListStorage*>(storage)->items.push_back(copyOf(_element, elementStorage));
  }
  void reserve(void* storage, std::size_t n) const override {
    static_cast<ListStorage*>(storage)->items.reserve(n);
  }

 private:
  Signature _signature;
  const TypeInterface* _element;
};

class RuntimeMapType : public detail::StorageImpl<MapStorage, MapTypeInterface> {
 public:
  RuntimeMapType(Signature signature, const TypeInterface* key, const TypeInterface* element)
      : _signature(std::move(signature)), _key(key), _element(element) {}
  const Signature& signature() const override { return _signature; }
  const TypeInterface* keyType() const override { return _key; }
  const TypeInterface* elementType() const override { return _element; }
  std::size_t size(const void* storage) const override {
    return static_cast<const MapStorage*>(storage)->entries.size();
  }
  void forEach(void* storage, const Visitor& visit) const override {
    for (auto& entry : static_cast<MapStorage*>(storage)->entries) {
      visit(entry.first.rawValue(), entry.second.rawValue());
    }
  }
  void insert(void* storage, const void* key, const void* value) const override {
    static_cast<MapStorage*>(storage)->entries.insert_or_assign(copyOf(_key, key),
                                                                copyOf(_element, value));
  }

 private:
  Signature _signature;
  const TypeInterface* _key;
  const TypeInterface* _element;
};

class RuntimeTupleType : public detail::StorageImpl<TupleStorage, TupleTypeInterface> {
 public:
  RuntimeTupleType(Signature signature, std::vector<const TypeInterface*> members)
      : _signature(std::move(signature)), _members(std::move(members)) {}
  const Signature& signature() const override { return _signature; }
  const std::vector<const TypeInterface*>& memberTypes() const override { return _members; }
  void* member(void* storage, std::size_t index) const override {
    return static_cast<TupleStorage*>(storage)->members[index].rawValue();
  }
  // A tuple always holds one value of each member type, default-constructed here.
  void* initializeStorage() const override {
    auto storage = std::make_unique<TupleStorage>();
    storage->members.reserve(_members.size());
    for (const TypeInterface* m : _members) {
      storage->members.emplace_back(m, m->initializeStorage(), true);
    }
    return storage.release();
  }

 private:
  Signature _signature;
  std::vector<const TypeInterface*> _members;
};

// The C++ type of each basic letter of kTypeCodes; a letter without a case gives no type, which
// the test of every value kind reports.
const TypeInterface* basicType(char letter) {
  switch (letter) {
    case 'v':
      return typeOf<void>();
    case 'b':
      return typeOf<bool>();
    case 'c':
      return typeOf<std::int8_t>();
    case 'C':
      return typeOf<std::uint8_t>();
    case 'w':
      return typeOf<std::int16_t>();
    case 'W':
      return typeOf<std::uint16_t>();
    case 'i':
      return typeOf<std::int32_t>();
    case 'I':
      return typeOf<std::uint32_t>();
    case 'l':
      return typeOf<std::int64_t>();
    case 'L':
      return typeOf<std::uint64_t>();
    case 'f':
      return typeOf<float>();
    case 'd':
      return typeOf<double>();
    case 's':
      return typeOf<std::string>();
    case 'm':
      return typeOf<AnyValue>();
    case 'o':
      return typeOf<AnyObject>();
    default:
      return nullptr;
  }
}

// Interned run-time types by signature text. Never destroyed: values held in static objects
// may outlive every other static and still need their type.
struct Registry {
  std::mutex mutex;
  std::unordered_map<std::string, std::unique_ptr<TypeInterface>> types;  // guarded by mutex
};

thread_local detail::SignatureBudget* currentBudget = nullptr;

Registry& registry() {
  static Registry* const instance = std::make_unique<Registry>().release();
  return *instance;
}

[[noreturn]] void invalid(const std::string& text, const std::string& why) {
  throw std::invalid_argument("Invalid signature '" + text + "': " + why);
}

// Checks what Signature::isValid does not: the bounds above (its parser recurses once per
// level) and "X" anywhere, which names no type a peer could share.
void checkText(const std::string& text) {
  if (text.size() > kMaxTextLength) {
    invalid(text.substr(0, 32) + "...",
            "longer than " + std::to_string(kMaxTextLength) + " characters");
  }
  std::size_t depth = 0;
  for (const char c : text) {
    if (c == '[' || c == '{' || c == '(') {
      if (++depth > kMaxNesting) {
        invalid(text, "nests deeper than " + std::to_string(kMaxNesting) + " levels");
      }
    } else if (c == ']' || c == '}' || c == ')') {
      depth = depth == 0 ? 0 : depth - 1;
    } else if (c == 'X') {
      invalid(text, "'X' is a C++ type with no meaning outside its program");
    }
  }
}

std::unique_ptr<TypeInterface> buildContainer(const Signature& signature) {
  std::vector<const TypeInterface*> children;
  for (const Signature& child : signature.children()) {
    children.push_back(typeFromSignature(child));
  }
  switch (signature.toString().front()) {
    case '[':
      return std::make_unique<RuntimeListType>(signature, children.at(0));
    case '{':
      return std::make_unique<RuntimeMapType>(signature, children.at(0), children.at(1));
    default:
      return std::make_unique<RuntimeTupleType>(signature, std::move(children));
  }
}

}  // namespace

const TypeInterface* typeFromSignature(const Signature& signature) {
  const std::string& text = signature.toString();
  checkText(text);
  if (!signature.isValid()) {
    invalid(text, "not exactly one well-formed type");
  }
  if (text.size() == 1) {
    return basicType(text[0]);
  }
  Registry& r = registry();
  {
    std::lock_guard<std::mutex> lock(r.mutex);
    const auto it = r.types.find(text);
    if (it != r.types.end()) {
      return it->second.get();
    }
  }
  // Built outside the lock: the member types intern themselves first. Two threads may build
  // the same text; the first to publish wins and the other copy is dropped unseen.
  std::unique_ptr<TypeInterface> built = buildContainer(signature);
  std::lock_guard<std::mutex> lock(r.mutex);
  const auto it = r.types.find(text);
  if (it != r.types.end()) {
    return it->second.get();
  }
  if (currentBudget != nullptr && currentBudget->used.load() >= currentBudget->limit) {
    invalid(text, "this connection has introduced " + std::to_string(currentBudget->limit) +
                      " new signatures, as many as one connection may");
  }
  if (r.types.size() >= kMaxInternedTypes) {
    invalid(text, "too many distinct signatures in this process (" +
                      std::to_string(kMaxInternedTypes) + ")");
  }
  if (currentBudget != nullptr) {
    ++currentBudget->used;
  }
  return r.types.emplace(text, std::move(built)).first->second.get();
}

namespace detail {

SignatureBudgetScope::SignatureBudgetScope(SignatureBudget& budget) : previous_(currentBudget) {
  currentBudget = &budget;
}

SignatureBudgetScope::~SignatureBudgetScope() {
  currentBudget = previous_;
}

}  // namespace detail

}  // namespace ka
