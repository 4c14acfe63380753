#include <ka/anyfunction.hpp>

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
    : _impl(std::make_shared<const Impl>(Impl{std::move(parameters), result, std::move(invoker)})) {
}

AnyFunction AnyFunction::fromDynamic(std::vector<const TypeInterface*> parameters,
                                     const TypeInterface* result,
                                     std::function<AnyValue(const AnyReferenceVector&)> f) {
  auto types = parameters;
  detail::Invoker invoker = [types = std::move(types), f = std::move(f)](void* const* args) {
    AnyReferenceVector refs;
    refs.reserve(types.size());
    for (std::size_t i = 0; i < types.size(); ++i) {
      refs.emplace_back(types[i], args[i]);
    }
    return f(refs);
  };
  return AnyFunction(std::move(parameters), result, std::move(invoker));
}

const std::vector<const TypeInterface*>& AnyFunction::parameterTypes() const {
  static const std::vector<const TypeInterface*> none;
  return _impl ? _impl->parameters : none;
}

const TypeInterface* AnyFunction::resultType() const {
  return _impl ? _impl->result : nullptr;
}

Signature AnyFunction::parametersSignature() const {
  return tupleSignature(parameterTypes());
}

Signature AnyFunction::resultSignature() const {
  return _impl ? _impl->result->signature() : Signature();
}

namespace detail {

PreparedArguments::PreparedArguments(const std::vector<const TypeInterface*>& parameters,
                                     const AnyReferenceVector& args) {
  if (args.size() != parameters.size()) {
    throw ArgumentError("Wrong number of arguments: expected " + std::to_string(parameters.size()) +
                        ", got " + std::to_string(args.size()));
  }
  _pointers.resize(parameters.size() + 1, nullptr);
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    if (sameType(args[i].type(), parameters[i])) {
      _pointers[i] = args[i].rawValue();
      continue;
    }
    try {
      if (_converted.capacity() == 0) {
        _converted.reserve(parameters.size());
      }
      _converted.push_back(args[i].convert(parameters[i]));
    } catch (const ConversionError& e) {
      // The conversion names the same two types; add only its reason.
      throw ArgumentError("Cannot convert argument " + std::to_string(i + 1) + " from '" +
                          args[i].signature(true).toString() + "' to '" +
                          parameters[i]->signature().toString() + "'" +
                          (e.reason().empty() ? "" : ": " + e.reason()));
    } catch (const std::exception& e) {
      throw ArgumentError("Cannot convert argument " + std::to_string(i + 1) + " from '" +
                          args[i].signature(true).toString() + "' to '" +
                          parameters[i]->signature().toString() + "': " + e.what());
    }
    _pointers[i] = _converted.back().rawValue();
  }
}

}  // namespace detail

AnyValue AnyFunction::call(const AnyReferenceVector& args) const {
  if (!_impl) {
    throw std::runtime_error("Call of an empty AnyFunction");
  }
  const detail::PreparedArguments prepared(_impl->parameters, args);
  return _impl->invoker(prepared.pointers());
}

AnyValue AnyFunction::callPrepared(void* const* args) const {
  if (!_impl) {
    throw std::runtime_error("Call of an empty AnyFunction");
  }
  return _impl->invoker(args);
}

}  // namespace ka
