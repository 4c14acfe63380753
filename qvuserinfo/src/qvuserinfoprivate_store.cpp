// Reads, writes and removals of user data in the knowledge store. A datum is the triplet
// (domain, user id as text, data name, value as text); its type is the record
// (domain, data name, "rangeType", type name).

#include "qvuserinfoprivate.hpp"

#include "storecontext.hpp"

#include <QString>

#include <vector>

namespace QV {

using userdata::defaultDomain;
using userdata::kAnyInContainsOrRemove;
using userdata::kAnyInQuery;
using userdata::logCategory;
using userdata::subjectOf;

namespace {

// Other services keep their users' photos here; removing a user's data leaves them alone.
bool isPhotoStorage(const std::string& domain) {
  static const QString kPhotoStorage = QStringLiteral("com.quorvelin.photostorage");
  static const QString kPhotoStorageConfig = QStringLiteral("com.quorvelin.photostorage.config");
  const QString name = QString::fromStdString(domain);
  return name == kPhotoStorage || name == kPhotoStorageConfig;
}

// Logs the refusal of a domain-taking edit of the service's own domain.
bool refusesOwnDomain(const std::string& domain, const char* function) {
  if (domain != defaultDomain) {
    return false;
  }
  KA_LOG_AT(ka::LogLevel::Error, logCategory, function) << "You can't edit data in this domain";
  return true;
}

void logAbsent(const std::string& dataName) {
  // Names the service's own domain whichever domain was searched.
  KA_LOG_AT(ka::LogLevel::Info, logCategory, "remove")
      << "The information " << dataName << " doesn't exist int the domain " << defaultDomain;
}

}  // namespace

ka::AnyValue QVUserInfoPrivate::get(int userId, const std::string& dataName,
                                    const std::string& domain) {
  if (dataName == "age" && domain == defaultDomain) {
    const int age = xComputeAgeInfo(userId);
    if (age != -1) {
      return ka::AnyValue(age);
    }
  }
  const auto objects = knowledge.getObject(domain, subjectOf(userId), dataName);
  if (objects.empty()) {
    return ka::AnyValue();
  }
  const std::string type = getType(domain, dataName);
  if (type.empty()) {
    KA_LOG_AT(ka::LogLevel::Warning, logCategory, "get")
        << "No defined type for the dataName " << dataName << " casted as string by default";
    return ka::AnyValue(objects.front());
  }
  try {
    return castData(objects.front(), type);
  } catch (...) {
    // A text that is not of its declared type reads as the void value, told apart from the
    // empty value of a datum that is not stored.
    return ka::AnyValue::makeVoid();
  }
}

bool QVUserInfoPrivate::contains(int userId, const std::string& dataName,
                                 const std::string& domain) const {
  return knowledge.contains(domain, subjectOf(userId), dataName, kAnyInContainsOrRemove);
}

bool QVUserInfoPrivate::update(int userId, const std::string& dataName, const ka::AnyValue& value) {
  const std::string text = xCheckTypeAndCastToString(value);
  if (text.empty() || !xCheckDataRange(dataName, value)) {
    return false;
  }
  knowledge.update(defaultDomain, subjectOf(userId), dataName, text);
  return true;
}

bool QVUserInfoPrivate::set(int userId, const std::string& dataName, const ka::AnyValue& value,
                            const std::string& domain) {
  if (refusesOwnDomain(domain, "set")) {
    return false;
  }
  const std::string text = xCheckTypeAndCastToString(value);
  if (text.empty()) {
    return false;
  }
  // Typed by the raw signature: a 64-bit integer gets an empty type name here.
  const std::string typeName = xTypeNameInserting(userdata::signatureOf(value));
  knowledge.update(domain, dataName, userdata::kRangeType, typeName);
  knowledge.update(domain, subjectOf(userId), dataName, text);
  return true;
}

bool QVUserInfoPrivate::remove(int userId, const std::string& dataName) {
  if (!contains(userId, dataName, defaultDomain)) {
    logAbsent(dataName);
    return false;
  }
  knowledge.remove(defaultDomain, subjectOf(userId), dataName, kAnyInContainsOrRemove);
  return true;
}

bool QVUserInfoPrivate::remove(int userId, const std::string& dataName, const std::string& domain) {
  if (refusesOwnDomain(domain, "remove")) {
    return false;
  }
  if (!contains(userId, dataName, domain)) {
    logAbsent(dataName);
    return false;
  }
  knowledge.remove(domain, subjectOf(userId), dataName, kAnyInContainsOrRemove);
  return true;
}

void QVUserInfoPrivate::removeUser(int userId) {
  const auto rows =
      knowledge.queryTriplet(kAnyInQuery, subjectOf(userId), kAnyInQuery, kAnyInQuery);
  for (const auto& row : rows) {
    if (!isPhotoStorage(row.at(0))) {
      knowledge.remove(row.at(0), row.at(1), row.at(2), row.at(3));
    }
  }
}

bool QVUserInfoPrivate::removeUser(int userId, const std::string& domain) {
  if (refusesOwnDomain(domain, "removeUser")) {
    return false;
  }
  knowledge.remove(domain, subjectOf(userId), kAnyInContainsOrRemove, kAnyInContainsOrRemove);
  return true;
}

}  // namespace QV
