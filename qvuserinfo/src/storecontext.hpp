#pragma once
// What every part of the user data store shares: its own domain, its log category and the
// value queries the typing and range rules are written in.

#include <ka/anyvalue.hpp>
#include <ka/log.hpp>

#include <cstdint>
#include <string>

namespace QV::userdata {

// The service's own domain, "com.quorvelin.userinfo" (the data store's copy).
extern const std::string defaultDomain;
// "QVUserInfoPrivate", registered when the library is loaded.
extern const ka::log::CategoryPtr logCategory;

// The knowledge store's one-letter wildcards differ per method on purpose.
inline constexpr const char* kAnyInContainsOrRemove = "?";
inline constexpr const char* kAnyInQuery = "*";
inline constexpr const char* kRangeType = "rangeType";

// The type signature of `value` with dynamic values resolved to their content; "" without type.
std::string signatureOf(const ka::AnyReference& value);
// The value as a signed 64-bit integer: directly for the integer kind, by conversion otherwise.
// Throws std::runtime_error "Can't take the kind of an invalid value" for a value without type.
std::int64_t readInt64(const ka::AnyReference& value);
// The subject text of a user id in the store ("7", "-1").
std::string subjectOf(int userId);

}  // namespace QV::userdata
