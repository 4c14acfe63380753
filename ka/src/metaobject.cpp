#include <ka/anyfunction.hpp>
#include <ka/metaobject.hpp>

#include <algorithm>
#include <shared_mutex>

namespace ka {

Signature MetaMethod::parametersSignature() const {
  return tupleSignature(parameterTypes);
}

Signature MetaMethod::returnSignature() const {
  return returnType != nullptr ? returnType->signature() : Signature();
}

std::string MetaMethod::toString() const {
  return name + parametersSignature().toString() + " -> " + returnSignature().toString();
}

Signature MetaSignal::signature() const {
  return tupleSignature(argumentTypes);
}

// Resolutions already made, by method name and then by the exact argument types.
struct MetaObject::ResolutionCache {
  struct Entry {
    std::vector<const TypeInterface*> types;
    std::size_t method;
  };
  // Per name, enough for the argument types a program really uses; past it, calls resolve
  // the slow way rather than let a stream of odd calls grow memory.
  static constexpr std::size_t kMaxPerName = 32;

  std::shared_mutex mutex;
  std::map<std::string, std::vector<Entry>, std::less<>> byName;  // guarded by mutex
};

MetaObject::MetaObject(std::vector<MetaMethod> methods, std::vector<MetaSignal> signals)
    : _methods(std::move(methods)),
      _signals(std::move(signals)),
      _cache(std::make_shared<ResolutionCache>()) {
  for (std::size_t i = 0; i < _methods.size(); ++i) {
    _methodIndex[_methods[i].uid] = i;
  }
  for (std::size_t i = 0; i < _signals.size(); ++i) {
    _signalIndex[_signals[i].uid] = i;
  }
}

const MetaMethod* MetaObject::method(unsigned int uid) const {
  auto it = _methodIndex.find(uid);
  return it == _methodIndex.end() ? nullptr : &_methods[it->second];
}

const MetaSignal* MetaObject::signal(unsigned int uid) const {
  auto it = _signalIndex.find(uid);
  return it == _signalIndex.end() ? nullptr : &_signals[it->second];
}

const MetaSignal* MetaObject::signal(const std::string& name) const {
  for (const auto& s : _signals) {
    if (s.name == name) {
      return &s;
    }
  }
  return nullptr;
}

std::vector<const MetaMethod*> MetaObject::methodsNamed(const std::string& name) const {
  std::vector<const MetaMethod*> out;
  for (const auto& m : _methods) {
    if (m.name == name) {
      out.push_back(&m);
    }
  }
  return out;
}

namespace {

// How well the arguments fit a parameter list: 0 exact, 1 exact but for dynamic
// parameters, 2 by conversion, 3 not at all.
int fitness(const MetaMethod& m, const AnyReferenceVector& args) {
  if (m.parameterTypes.size() != args.size()) {
    return 3;
  }
  int tier = 0;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const TypeInterface* p = m.parameterTypes[i];
    AnyReference arg = args[i];
    while (arg.isValid() && arg.type()->kind() == TypeKind::Dynamic) {
      arg = arg.content();
    }
    // Types without a middleware meaning all share the signature "X": only their C++
    // identity tells them apart.
    if (sameType(arg.type(), p) || (arg.isValid() && arg.type()->kind() != TypeKind::Unknown &&
                                    arg.type()->signature() == p->signature())) {
      continue;
    }
    if (p->kind() == TypeKind::Dynamic) {
      tier = std::max(tier, 1);
      continue;
    }
    try {
      (void)args[i].convert(p);
    } catch (const std::exception&) {
      return 3;
    }
    tier = 2;
  }
  return tier;
}

std::string describeArguments(const AnyReferenceVector& args) {
  std::string text = "(";
  for (const auto& a : args) {
    const std::string s = a.signature(true).toString();
    text += s.empty() ? "<invalid>" : s;
  }
  return text + ")";
}

std::string listCandidates(const std::vector<const MetaMethod*>& candidates) {
  std::string text;
  for (const MetaMethod* m : candidates) {
    text += (text.empty() ? "" : ", ") + m->name + m->parametersSignature().toString();
  }
  return text;
}

}  // namespace

namespace {

bool sameTypes(const std::vector<const TypeInterface*>& types, const AnyReferenceVector& args) {
  if (types.size() != args.size()) {
    return false;
  }
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (types[i] != args[i].type()) {
      return false;
    }
  }
  return true;
}

// Dynamic arguments resolve by their content and unknown ones by C++ identity, which the
// pointer of their type does not pin down across libraries: those are not remembered.
bool cacheableTypes(const AnyReferenceVector& args) {
  return std::all_of(args.begin(), args.end(), [](const AnyReference& a) {
    return a.isValid() && a.type()->kind() != TypeKind::Dynamic &&
           a.type()->kind() != TypeKind::Unknown;
  });
}

}  // namespace

const MetaMethod& MetaObject::resolve(const std::string& name,
                                      const AnyReferenceVector& args) const {
  if (!_cache) {
    bool typeOnly = false;
    return resolveUncached(name, args, typeOnly);
  }
  {
    std::shared_lock<std::shared_mutex> lock(_cache->mutex);
    const auto it = _cache->byName.find(name);
    if (it != _cache->byName.end()) {
      for (const auto& entry : it->second) {
        if (sameTypes(entry.types, args)) {
          return _methods[entry.method];
        }
      }
    }
  }
  bool typeOnly = false;
  const MetaMethod& found = resolveUncached(name, args, typeOnly);
  if (typeOnly && cacheableTypes(args)) {
    std::vector<const TypeInterface*> types;
    types.reserve(args.size());
    for (const auto& a : args) {
      types.push_back(a.type());
    }
    std::unique_lock<std::shared_mutex> lock(_cache->mutex);
    auto& entries = _cache->byName[name];
    if (entries.size() < ResolutionCache::kMaxPerName &&
        std::none_of(entries.begin(), entries.end(),
                     [&](const ResolutionCache::Entry& e) { return e.types == types; })) {
      entries.push_back({std::move(types), static_cast<std::size_t>(&found - _methods.data())});
    }
  }
  return found;
}

const MetaMethod& MetaObject::resolveUncached(const std::string& name,
                                              const AnyReferenceVector& args,
                                              bool& typeOnly) const {
  const auto candidates = methodsNamed(name);
  if (candidates.empty()) {
    throw MethodResolutionError("Method \"" + name + "\" not found");
  }
  // A single candidate of the right arity is the call: its argument conversion then fails with
  // the reason ("7.5 is not integral"), which says more than "no overload accepts".
  if (candidates.size() == 1 && candidates.front()->parameterTypes.size() == args.size()) {
    typeOnly = true;
    return *candidates.front();
  }
  std::vector<const MetaMethod*> tiers[3];
  for (const MetaMethod* m : candidates) {
    const int f = fitness(*m, args);
    if (f < 3) {
      tiers[f].push_back(m);
    }
  }
  for (std::size_t t = 0; t < 3; ++t) {
    const auto& tier = tiers[t];
    if (tier.size() == 1) {
      // Membership of the first two tiers depends on types alone; the third tries conversions
      // whose success depends on the values (5 fits an int, 5000000000 does not).
      typeOnly = t < 2;
      return *tier.front();
    }
    if (tier.size() > 1) {
      throw MethodResolutionError("Ambiguous call of \"" + name + "\" with arguments " +
                                  describeArguments(args) +
                                  "; candidates: " + listCandidates(tier));
    }
  }
  throw MethodResolutionError("No overload of \"" + name + "\" accepts arguments " +
                              describeArguments(args) +
                              "; candidates: " + listCandidates(candidates));
}

}  // namespace ka
