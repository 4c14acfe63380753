// The data store's construction, its schema and the typing of values: how a value is checked
// and written as text, and how a stored text is turned back into a typed value.

#include "qvuserinfoprivate.hpp"

#include "storecontext.hpp"

#include <qverror/qverror.hpp>

#include <boost/lexical_cast.hpp>

#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace QV {

using userdata::defaultDomain;
using userdata::logCategory;
using userdata::signatureOf;

namespace {

struct SchemaEntry {
  const char* dataName;
  DataId id;
  const char* typeName;
  // The key the type is declared under in the store. "timefocused" is declared as "timefocuse"
  // on purpose: its writes into the service's domain find no declared type and are refused, and
  // its reads there come back as text. That is the service's established behaviour; keep it.
  const char* declarationKey;
};

constexpr SchemaEntry kSchema[] = {
    {"name", kName, "string", "name"},
    {"fullname", kFullName, "string", "fullname"},
    {"age", kAge, "int", "age"},
    {"gender", kGender, "string", "gender"},
    {"pronunciation", kPronunciation, "string", "pronunciation"},
    {"birthyear", kBirthYear, "int", "birthyear"},
    {"birthmonth", kBirthMonth, "int", "birthmonth"},
    {"birthday", kBirthDay, "int", "birthday"},
    {"firstencounter", kFirstEncounter, "int", "firstencounter"},
    {"timefocused", kTimeFocused, "int", "timefocuse"},
    {"lastseen", kLastSeen, "int", "lastseen"},
};

// 64-bit integers are typed as "int" wherever a value's type is checked (but not where a name
// outside the schema records its type, see xCheckDataRange).
std::string withLongAsInt(std::string signature) {
  return signature == "l" ? "i" : signature;
}

}  // namespace

QVUserInfoPrivate::QVUserInfoPrivate(KnowledgeClient knowledgeClient, DateSource todaySource)
    : knowledge(std::move(knowledgeClient)), today(std::move(todaySource)) {
  xInitDataTypes();
  xInitTypeNames();
}

QVUserInfoPrivate::~QVUserInfoPrivate() = default;

void QVUserInfoPrivate::xInitDataTypes() {
  std::map<std::string, std::string> declarations;  // walked in byte order of the keys
  for (const SchemaEntry& entry : kSchema) {
    dataIds.emplace(entry.dataName, entry.id);
    declarations.emplace(entry.declarationKey, entry.typeName);
  }
  for (const auto& [key, typeName] : declarations) {
    knowledge.update(defaultDomain, key, userdata::kRangeType, typeName);
  }
}

void QVUserInfoPrivate::xInitTypeNames() {
  std::unique_lock lock(typeNamesMutex);
  typeNames.emplace("s", "string");
  typeNames.emplace("i", "int");
  typeNames.emplace("b", "bool");
}

bool QVUserInfoPrivate::xLookupTypeName(const std::string& signature, std::string& typeName) const {
  std::shared_lock lock(typeNamesMutex);
  const auto found = typeNames.find(signature);
  if (found == typeNames.end()) {
    return false;
  }
  typeName = found->second;
  return true;
}

std::string QVUserInfoPrivate::xTypeNameInserting(const std::string& signature) {
  std::string typeName;
  if (xLookupTypeName(signature, typeName)) {
    return typeName;
  }
  std::unique_lock lock(typeNamesMutex);
  return typeNames[signature];
}

std::string QVUserInfoPrivate::getType(const std::string& domain,
                                       const std::string& dataName) const {
  const auto objects = knowledge.getObject(domain, dataName, userdata::kRangeType);
  return objects.empty() ? std::string() : objects.front();
}

std::string QVUserInfoPrivate::xCheckTypeAndCastToString(const ka::AnyValue& value) const {
  const std::string signature = withLongAsInt(signatureOf(value));
  std::string typeName;
  if (!xLookupTypeName(signature, typeName)) {
    KA_LOG_AT(ka::LogLevel::Error, logCategory, "xCheckTypeAndCastToString")
        << "User data can only be of type \"string\" \"int\" or \"bool\"";
    return std::string();
  }
  if (signature == "s") {
    return value.to<std::string>();
  }
  if (signature == "i") {
    return std::to_string(userdata::readInt64(value));
  }
  if (signature == "b") {
    return value.to<bool>() ? "1" : "0";
  }
  return std::string();
}

bool QVUserInfoPrivate::xCheckTypeConsistency(const std::string& dataName,
                                              const ka::AnyValue& value,
                                              const std::string& domain) const {
  const std::string declared = getType(domain, dataName);
  if (declared.empty()) {
    return false;
  }
  std::string typeName;
  if (xLookupTypeName(withLongAsInt(signatureOf(value)), typeName) && typeName == declared) {
    return true;
  }
  KA_LOG_AT(ka::LogLevel::Warning, logCategory, "xCheckTypeConsistency")
      << "Can't set the value of \"" << dataName << "\": a value of type " << declared
      << " is needed";
  return false;
}

ka::AnyValue QVUserInfoPrivate::castData(const std::string& data, const std::string& type) {
  if (type == "string") {
    return ka::AnyValue(data);
  }
  if (type == "int") {
    return ka::AnyValue(boost::lexical_cast<int>(data));
  }
  if (type == "bool") {
    return ka::AnyValue(boost::lexical_cast<bool>(data));
  }
  // Module and method are the other way round from every other error of the system; callers
  // that match on them rely on it.
  throw QVError("castData", "QVUserInfoPrivate", "Unsupported data type", "", 0);
}

}  // namespace QV
