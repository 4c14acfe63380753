#pragma once
// Dynamic values to JSON, the way kacli prints results and signal arguments.

#include <ka/anyvalue.hpp>

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace kacli {

// The JSON form of any value:
//   bool true/false, integers and floats numbers (a non-finite float is null), strings text;
//   a string that is not valid UTF-8 holds bytes, and prints as "base64:<its bytes in base64>"
//   lists and tuples arrays; maps with string keys objects, other maps arrays of [key, value]
//   a dynamic value its content; the empty value (nothing at all, or a dynamic holding nothing)
//   and a nested void value null; an object handle "<object>" (null when it holds none)
nlohmann::json toJson(const ka::AnyReference& value);

// One compact JSON text.
std::string toJsonText(const ka::AnyReference& value);

// The signature shown beside a value: a dynamic value shows its content's, "m" when it holds
// nothing, as does the empty value.
std::string shownSignature(const ka::AnyReference& value);

// How a call result prints: nothing (nullopt) for the void value, "null" for the empty value,
// otherwise the JSON text; with `withSignature` "<signature> <json>", and "v" for the void value.
std::optional<std::string> formatResult(const ka::AnyReference& result, bool withSignature);

}  // namespace kacli
