#include "argument_parser.hpp"

#include <ka/signature.hpp>
#include <ka/signaturetype.hpp>
#include <ka/typeinterface.hpp>
#include <ka/valuekinds.hpp>

#include <cstdint>
#include <limits>
#include <vector>

namespace kacli {
namespace {

using nlohmann::json;

const char* jsonKind(const json& j) {
  switch (j.type()) {
    case json::value_t::null:
      return "null";
    case json::value_t::boolean:
      return "a boolean";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
      return "an integer";
    case json::value_t::number_float:
      return "a number";
    case json::value_t::string:
      return "a string";
    case json::value_t::array:
      return "an array";
    case json::value_t::object:
      return "an object";
    default:
      return "an unsupported JSON value";
  }
}

// The JSON a value of each kind is given as, in the order of ka::TypeKind; nullptr where the kind
// takes any JSON (a dynamic value) or none.
constexpr const char* kExpectedJson[] = {
    "null",                                         // void
    "an integer or a boolean",                      // int (and bool)
    "a number",                                     // float
    "a string",                                     // string
    "an array",                                     // list
    "an object or an array of [key, value] pairs",  // map
    "an array",                                     // tuple
    nullptr,                                        // dynamic
    nullptr,                                        // object
    nullptr,                                        // unknown
};
static_assert(sizeof(kExpectedJson) / sizeof(kExpectedJson[0]) == ka::kTypeKindCount,
              "every kind says which JSON gives it");

// Refuses `j` as a value of `target`, saying what its kind is given as.
[[noreturn]] void mismatch(const json& j, const ka::TypeInterface* target) {
  const char* expected = kExpectedJson[static_cast<std::size_t>(target->kind())];
  throw ArgumentError("'" + target->signature().toString() + "' expects " +
                      (expected != nullptr ? expected : "no JSON") + ", got " + jsonKind(j));
}

// `value` with exactly the type `target`, converted when it has another.
ka::AnyValue ofType(ka::AnyValue value, const ka::TypeInterface* target) {
  if (value.isValid() && ka::sameType(value.type(), target)) {
    return value;
  }
  try {
    return value.convert(target);
  } catch (const ka::ConversionError& e) {
    throw ArgumentError(e.what());
  }
}

ka::AnyValue emptyOf(const ka::TypeInterface* type) {
  return ka::AnyValue(type, type->initializeStorage(), true);
}

// A list of `listType` holding `elements`, each converted to the element type when needed.
ka::AnyValue makeList(const ka::TypeInterface* listType, std::vector<ka::AnyValue> elements) {
  const auto* list = static_cast<const ka::ListTypeInterface*>(listType);
  const ka::TypeInterface* elementType = list->elementType();
  ka::AnyValue result = emptyOf(listType);
  list->reserve(result.rawValue(), elements.size());
  for (auto& element : elements) {
    if (elementType->kind() == ka::TypeKind::Dynamic) {
      // The storage of a dynamic element is the AnyValue itself, possibly an empty one.
      list->pushBack(result.rawValue(), &element);
    } else {
      const ka::AnyValue typed = ofType(std::move(element), elementType);
      list->pushBack(result.rawValue(), typed.rawValue());
    }
  }
  return result;
}

ka::AnyValue scalarValue(const json& j, const ka::TypeInterface* target) {
  if (j.is_null() || j.is_array() || j.is_object() ||
      (target->kind() == ka::TypeKind::String && !j.is_string())) {
    mismatch(j, target);
  }
  return ofType(naturalValue(j), target);
}

ka::AnyValue mapValue(const json& j, const ka::TypeInterface* target) {
  const auto* map = static_cast<const ka::MapTypeInterface*>(target);
  ka::AnyValue result = emptyOf(target);
  auto insert = [&](const ka::AnyValue& key, const ka::AnyValue& value) {
    // Dynamic keys and values are stored as the AnyValue itself.
    const void* k = map->keyType()->kind() == ka::TypeKind::Dynamic ? &key : key.rawValue();
    const void* v = map->elementType()->kind() == ka::TypeKind::Dynamic ? &value : value.rawValue();
    map->insert(result.rawValue(), k, v);
  };
  if (j.is_object()) {
    for (const auto& [keyText, value] : j.items()) {
      ka::AnyValue key;
      if (map->keyType()->kind() == ka::TypeKind::String) {
        key = ka::AnyValue::make(std::string(keyText));
      } else {
        const json keyJson = json::parse(keyText, nullptr, false);
        if (keyJson.is_discarded()) {
          throw ArgumentError("map key \"" + keyText + "\" is not valid JSON for '" +
                              map->keyType()->signature().toString() + "'");
        }
        key = typedValue(keyJson, map->keyType());
      }
      insert(key, typedValue(value, map->elementType()));
    }
    return result;
  }
  if (j.is_array()) {
    for (const auto& pair : j) {
      if (!pair.is_array() || pair.size() != 2) {
        throw ArgumentError("'" + target->signature().toString() +
                            "' from an array expects [key, value] pairs");
      }
      insert(typedValue(pair[0], map->keyType()), typedValue(pair[1], map->elementType()));
    }
    return result;
  }
  mismatch(j, target);
}

ka::AnyValue tupleValue(const json& j, const ka::TypeInterface* target) {
  const auto* tuple = static_cast<const ka::TupleTypeInterface*>(target);
  const auto& members = tuple->memberTypes();
  if (!j.is_array()) {
    mismatch(j, target);
  }
  if (j.size() != members.size()) {
    throw ArgumentError("'" + target->signature().toString() + "' expects an array of " +
                        std::to_string(members.size()) + " elements, got " +
                        std::to_string(j.size()));
  }
  ka::AnyValue result = emptyOf(target);
  for (std::size_t i = 0; i < members.size(); ++i) {
    ka::AnyValue member = typedValue(j[i], members[i]);
    void* slot = tuple->member(result.rawValue(), i);
    members[i]->assign(slot, members[i]->kind() == ka::TypeKind::Dynamic
                                 ? static_cast<const void*>(&member)
                                 : member.rawValue());
  }
  return result;
}

}  // namespace

ka::AnyValue naturalValue(const json& j) {
  switch (j.type()) {
    case json::value_t::null:
      return ka::AnyValue();
    case json::value_t::boolean:
      return ka::AnyValue::make(j.get<bool>());
    case json::value_t::number_integer: {
      const auto v = j.get<std::int64_t>();
      if (v >= std::numeric_limits<std::int32_t>::min() &&
          v <= std::numeric_limits<std::int32_t>::max()) {
        return ka::AnyValue::make(static_cast<std::int32_t>(v));
      }
      return ka::AnyValue::make(v);
    }
    case json::value_t::number_unsigned: {
      const auto v = j.get<std::uint64_t>();
      if (v <= static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) {
        return ka::AnyValue::make(static_cast<std::int32_t>(v));
      }
      if (v <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return ka::AnyValue::make(static_cast<std::int64_t>(v));
      }
      return ka::AnyValue::make(v);
    }
    case json::value_t::number_float:
      return ka::AnyValue::make(j.get<double>());
    case json::value_t::string:
      return ka::AnyValue::make(j.get<std::string>());
    case json::value_t::array: {
      std::vector<ka::AnyValue> elements;
      elements.reserve(j.size());
      for (const auto& element : j) {
        elements.push_back(naturalValue(element));
      }
      // One element signature for all gives a typed list; anything mixed, empty or holding
      // null needs the dynamic element type.
      std::string elementSignature;
      bool uniform = !elements.empty();
      for (const auto& element : elements) {
        const std::string s = element.isValid() ? element.signature().toString() : "";
        if (s.empty() || (!elementSignature.empty() && s != elementSignature)) {
          uniform = false;
          break;
        }
        elementSignature = s;
      }
      const ka::Signature listSignature("[" + (uniform ? elementSignature : "m") + "]");
      return makeList(ka::typeFromSignature(listSignature), std::move(elements));
    }
    case json::value_t::object: {
      const ka::TypeInterface* type = ka::typeFromSignature(ka::Signature("{sm}"));
      return typedValue(j, type);
    }
    default:
      throw ArgumentError(std::string("unsupported JSON value: ") + jsonKind(j));
  }
}

ka::AnyValue typedValue(const json& j, const ka::TypeInterface* target) {
  switch (target->kind()) {
    case ka::TypeKind::Void:
      if (!j.is_null()) {
        mismatch(j, target);
      }
      return ka::AnyValue::makeVoid();
    case ka::TypeKind::Int:
    case ka::TypeKind::Float:
    case ka::TypeKind::String:
      return scalarValue(j, target);
    case ka::TypeKind::List: {
      if (!j.is_array()) {
        mismatch(j, target);
      }
      const auto* list = static_cast<const ka::ListTypeInterface*>(target);
      std::vector<ka::AnyValue> elements;
      elements.reserve(j.size());
      for (const auto& element : j) {
        elements.push_back(typedValue(element, list->elementType()));
      }
      return makeList(target, std::move(elements));
    }
    case ka::TypeKind::Map:
      return mapValue(j, target);
    case ka::TypeKind::Tuple:
      return tupleValue(j, target);
    case ka::TypeKind::Dynamic:
      return ka::AnyValue::make(naturalValue(j));
    case ka::TypeKind::Object:
      throw ArgumentError("an object ('o') cannot be given on the command line");
    case ka::TypeKind::Unknown:
      break;
  }
  throw ArgumentError("'" + target->signature().toString() +
                      "' cannot be given on the command line");
}

ka::AnyValue parseArgument(const std::string& text) {
  // A prefix is a signature followed by ':'. No JSON text has one: before its first colon a JSON
  // text holds a quote or a character that no signature uses.
  const auto colon = text.find(':');
  std::string prefix;
  if (colon != std::string::npos && colon > 0 &&
      text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ[]{}()") >=
          colon) {
    prefix = text.substr(0, colon);
  }
  const std::string body = prefix.empty() ? text : text.substr(colon + 1);
  const ka::TypeInterface* target = nullptr;
  if (!prefix.empty()) {
    const ka::Signature signature(prefix);
    if (!signature.isValid()) {
      throw ArgumentError("'" + prefix + "' is not a valid signature");
    }
    try {
      target = ka::typeFromSignature(signature);
    } catch (const std::exception&) {
      throw ArgumentError("'" + prefix + "' names no type that a value can be given for");
    }
  }
  json parsed;
  std::string reason;
  try {
    parsed = json::parse(body);
  } catch (const json::parse_error& e) {
    // "[json.exception.parse_error.101] parse error at line 1, column 2: ..." keeps the part
    // after the exception's own name.
    reason = e.what();
    const auto start = reason.find("] ");
    reason = start == std::string::npos ? reason : reason.substr(start + 2);
  }
  const bool valid = reason.empty();
  if (target != nullptr && target->kind() == ka::TypeKind::String &&
      (!valid || !parsed.is_string())) {
    return ka::AnyValue::make(body);
  }
  if (!valid) {
    throw ArgumentError("'" + body +
                        "' is not valid JSON (strings need quotes or the prefix s:): " + reason);
  }
  return target == nullptr ? naturalValue(parsed) : typedValue(parsed, target);
}

}  // namespace kacli
