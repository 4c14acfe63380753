#include <ka/anyfunction.hpp>

#include <optional>

namespace ka {

Signature tupleSignature(const std::vector<const TypeInterface*>& types) {
  std::string text = "(";
  for (const TypeInterface* t : types) {
    text += t->signature().toString();
  }
  return Signature(text + ")");
}

AnyFunction::AnyFunction(std::vector<const TypeInterface*> parameters, const TypeInterface* result,
                         detail::Invoker invoker)
    : _impl(std::make_shared<const Impl>(Impl{std::move(parameters), result, std::move(invoker)})) {}

const std::vector<const TypeInterface*>& AnyFunction::parameterTypes() const {
  static const std::vector<const TypeInterface*> none;
  return _impl ? _impl->parameters : none;
}

const TypeInterface* AnyFunction::resultType() const {
  return _impl ? _impl->result : nullptr;
}

Signature AnyFunction::parametersSignature() const { return tupleSignature(parameterTypes()); }

Signature AnyFunction::resultSignature() const {
  return _impl ? _impl->result->signature() : Signature();
}

AnyValue AnyFunction::call(const AnyReferenceVector& args) const {
  if (!_impl) {
    throw std::runtime_error("Call of an empty AnyFunction");
  }
  const auto& params = _impl->parameters;
  if (args.size() != params.size()) {
    throw ArgumentError("Wrong number of arguments: expected " + std::to_string(params.size()) +
                        ", got " + std::to_string(args.size()));
  }
  constexpr std::size_t kInline = 8;
  void* inlinePtrs[kInline];
  std::vector<void*> heapPtrs;
  void** ptrs = inlinePtrs;
  if (params.size() > kInline) {
    heapPtrs.resize(params.size());
    ptrs = heapPtrs.data();
  }
  // Converted arguments live here until the call returns.
  std::vector<AnyValue> converted;
  for (std::size_t i = 0; i < params.size(); ++i) {
    if (sameType(args[i].type(), params[i])) {
      ptrs[i] = args[i].rawValue();
      continue;
    }
    try {
      if (converted.capacity() == 0) {
        converted.reserve(params.size());
      }
      converted.push_back(args[i].convert(params[i]));
    } catch (const std::exception& e) {
      throw ArgumentError("Cannot convert argument " + std::to_string(i + 1) + " from '" +
                          args[i].signature().toString() + "' to '" +
                          params[i]->signature().toString() + "': " + e.what());
    }
    ptrs[i] = converted.back().rawValue();
  }
  return _impl->invoker(ptrs);
}

}  // namespace ka
