// The range rules of the built-in data names, and the type record of names outside the schema.

#include "qvuserinfoprivate.hpp"

#include "storecontext.hpp"

#include <QString>

#include <stdexcept>

namespace QV {

using userdata::logCategory;
using userdata::readInt64;

namespace {

// Logs a rejected value and answers false.
bool reject(const char* message) {
  KA_LOG_AT(ka::LogLevel::Warning, logCategory, "xCheckDataRange") << message;
  return false;
}

bool notNegative(const ka::AnyValue& value, const char* message) {
  return readInt64(value) >= 0 || reject(message);
}

// Months and days are judged on the low 32 bits of the value.
bool within(const ka::AnyValue& value, int low, int high, const char* message) {
  const auto v = static_cast<std::int32_t>(readInt64(value));
  return (v >= low && v <= high) || reject(message);
}

bool isGender(const ka::AnyValue& value) {
  const QString text = QString::fromStdString(value.to<std::string>());
  return text == QStringLiteral("m") || text == QStringLiteral("f");
}

}  // namespace

bool QVUserInfoPrivate::xCheckDataRange(const std::string& dataName,
                                        const ka::AnyValue& value) const {
  const auto id = dataIds.find(dataName);
  if (id == dataIds.end()) {
    // A name of the caller's own: its type is that of the latest value written. 64-bit
    // integers are not typed "int" here; they have no type name until a write into another
    // domain has entered one.
    std::string typeName;
    if (!xLookupTypeName(userdata::signatureOf(value), typeName)) {
      throw std::out_of_range("map::at:  key not found");
    }
    knowledge.update(userdata::defaultDomain, dataName, userdata::kRangeType, typeName);
    return true;
  }
  if (!xCheckTypeConsistency(dataName, value, userdata::defaultDomain)) {
    return false;
  }
  switch (id->second) {
    case kAge:
      return notNegative(value, "age can't be a negative");
    case kGender:
      return isGender(value) || reject("Gender value can only be \"m\" or \"f\"");
    case kBirthYear:
      return notNegative(value, "birth year can't be a negative");
    case kBirthMonth:
      return within(value, 1, 12, "birth month should be between 1 and 12");
    case kBirthDay:
      // The wording speaks of the month; clients match on it as it stands.
      return within(value, 1, 31, "birth month should be between 1 and 31");
    case kFirstEncounter:
      return notNegative(value, "first encounter value can't be a negative");
    case kTimeFocused:
      return notNegative(value, "time focuses can't be a negative");
    case kLastSeen:
      return notNegative(value, "last seen value can't be a negative");
    default:
      return true;  // name, fullname, pronunciation: any text
  }
}

}  // namespace QV
