#pragma once
// The description of an object's interface: its methods and signals, in the order
// they were advertised, and the resolution of a call by name and arguments.

#include <ka/anyvalue.hpp>
#include <ka/api.hpp>
#include <ka/signature.hpp>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace ka {

struct KA_API MetaMethod {
  unsigned int uid = 0;
  std::string name;
  std::vector<const TypeInterface*> parameterTypes;
  const TypeInterface* returnType = nullptr;

  // "(is)" for (int, string).
  Signature parametersSignature() const;
  Signature returnSignature() const;
  // "name(is) -> b", for messages.
  std::string toString() const;
};

struct KA_API MetaSignal {
  unsigned int uid = 0;
  std::string name;
  std::vector<const TypeInterface*> argumentTypes;

  Signature signature() const;
};

// A call that names no method, or an ambiguous one. The text names the method and
// the candidates' signatures.
class KA_API MethodResolutionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class KA_API MetaObject {
 public:
  MetaObject() = default;
  MetaObject(std::vector<MetaMethod> methods, std::vector<MetaSignal> signals);

  const std::vector<MetaMethod>& methods() const { return _methods; }
  const std::vector<MetaSignal>& signals() const { return _signals; }

  const MetaMethod* method(unsigned int uid) const;
  const MetaSignal* signal(unsigned int uid) const;
  // The first signal of that name, or nullptr.
  const MetaSignal* signal(const std::string& name) const;
  std::vector<const MetaMethod*> methodsNamed(const std::string& name) const;

  // Picks the overload of `name` for these arguments (dynamic arguments count as their
  // content): an exact signature match wins, then a match where only parameters of
  // dynamic type ("m") differ, then the one overload to which every argument converts.
  // Throws MethodResolutionError when nothing fits or a tier has several candidates.
  // Outcomes that depend only on the argument types are remembered per name and types, so
  // a repeated call resolves without allocating.
  const MetaMethod& resolve(const std::string& name, const AnyReferenceVector& args) const;

 private:
  struct ResolutionCache;
  // The resolution itself; `typeOnly` tells whether the outcome depends on the types alone.
  const MetaMethod& resolveUncached(const std::string& name, const AnyReferenceVector& args,
                                    bool& typeOnly) const;

  std::vector<MetaMethod> _methods;
  std::vector<MetaSignal> _signals;
  std::map<unsigned int, std::size_t> _methodIndex;
  std::map<unsigned int, std::size_t> _signalIndex;
  // Shared by copies, which have the same methods; it holds indices into _methods.
  std::shared_ptr<ResolutionCache> _cache;
};

}  // namespace ka
