#pragma once
// Command-line arguments to dynamic values: a JSON text, optionally preceded by a signature and a
// colon ("l:42", "[s]:[\"a\"]") that forces the value's type.

#include <ka/anyvalue.hpp>

#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>

namespace kacli {

// An argument that is not valid JSON, names no valid signature, or does not fit its signature.
// The text says why, without naming the argument's position (the caller adds it).
class ArgumentError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The value a JSON text stands for without a prefix:
//   integer  "i" when it fits in 32 bits, else "l" ("L" above the signed 64-bit range)
//   other numbers "d", true/false "b", strings "s", null the empty value
//   array    "[x]" when every element has the same signature x, else "[m]" (also when empty)
//   object   "{sm}"
ka::AnyValue naturalValue(const nlohmann::json& json);

// The JSON text read as a value of `target` (a type from ka::typeFromSignature): scalars follow
// ka's conversions (range checks, no silent loss), lists and tuples come from arrays, maps from
// objects (keys read as JSON when the key type is not a string) or from arrays of [key, value]
// pairs, "m" holds the natural value, "v" accepts only null. Throws ArgumentError.
ka::AnyValue typedValue(const nlohmann::json& json, const ka::TypeInterface* target);

// One command-line argument: "SIG:JSON" or "JSON". A top-level "s:" takes the rest as the text
// itself unless the rest is a quoted JSON string, whose content it takes. Throws ArgumentError.
ka::AnyValue parseArgument(const std::string& text);

}  // namespace kacli
