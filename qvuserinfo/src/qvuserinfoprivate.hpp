#pragma once
// QV::QVUserInfoPrivate: the user data store. It keeps typed facts about users (name, birth date,
// time in focus...) as text triplets in the knowledge store "QVKnowledge", checks their type and
// range before writing, converts them back when reading, and derives the age from the birth date.
// Internal to libqvuserinfo: the service front owns one and forwards to it.

#include <qvknowledge/knowledge_client.hpp>

#include <ka/anyvalue.hpp>

#include <QDate>

#include <cstdint>
#include <functional>
#include <map>
#include <shared_mutex>
#include <string>

namespace QV {

// The id of a built-in data name; the range rules are chosen by it.
enum DataId : std::int32_t {
  kName = 0,
  kAge = 1,
  kGender = 2,
  kFullName = 3,
  kPronunciation = 4,
  kBirthYear = 5,
  kBirthMonth = 6,
  kBirthDay = 7,
  kFirstEncounter = 8,
  kTimeFocused = 9,
  kLastSeen = 10,
};

class QVUserInfoPrivate {
 public:
  // Today's date as the age computation sees it: the local calendar date in production.
  using DateSource = std::function<QDate()>;

  // Declares the built-in types in the store (eleven blocking calls). Throws std::runtime_error
  // "This object is null" when `knowledge` holds no object; remote errors pass through.
  explicit QVUserInfoPrivate(KnowledgeClient knowledge, DateSource today = &QDate::currentDate);
  virtual ~QVUserInfoPrivate();
  QVUserInfoPrivate(const QVUserInfoPrivate&) = delete;
  QVUserInfoPrivate& operator=(const QVUserInfoPrivate&) = delete;

  // --- Typing -----------------------------------------------------------------------------
  // The type name declared for `dataName` in `domain`, "" when none; asks the store every time.
  std::string getType(const std::string& domain, const std::string& dataName) const;
  // The text under which `value` is stored, or "" when its type is not string, int or bool
  // (logged) or when it is the empty string.
  std::string xCheckTypeAndCastToString(const ka::AnyValue& value) const;
  // Whether `value`'s type is the one declared for `dataName` in `domain` (a mismatch is logged).
  bool xCheckTypeConsistency(const std::string& dataName, const ka::AnyValue& value,
                             const std::string& domain) const;
  // The stored text `data` as a value of type `type`. Throws boost::bad_lexical_cast when the
  // text does not parse, QVError "Unsupported data type" for a type name other than the three.
  static ka::AnyValue castData(const std::string& data, const std::string& type);
  // Whether `value` may be written under `dataName` in the service's own domain. For a name
  // outside the schema it records the value's type as that name's type instead (and throws
  // std::out_of_range for a value that is not a string, a 32-bit int or a bool).
  bool xCheckDataRange(const std::string& dataName, const ka::AnyValue& value) const;

  // --- Reads ------------------------------------------------------------------------------
  // The datum converted to its declared type; the empty value when nothing is stored, the void
  // value when the stored text does not convert. "age" in the service's own domain is computed.
  ka::AnyValue get(int userId, const std::string& dataName, const std::string& domain);
  bool contains(int userId, const std::string& dataName, const std::string& domain) const;

  // --- Writes and removals ----------------------------------------------------------------
  // Typed, range-checked write into the service's own domain.
  bool update(int userId, const std::string& dataName, const ka::AnyValue& value);
  // Write into another domain, retyping the datum after `value`; refuses the service's domain.
  bool set(int userId, const std::string& dataName, const ka::AnyValue& value,
           const std::string& domain);
  // Removes one datum from the service's own domain; false (logged) when it is absent.
  bool remove(int userId, const std::string& dataName);
  // Removes one datum from another domain; refuses the service's domain.
  bool remove(int userId, const std::string& dataName, const std::string& domain);
  // Removes every triplet of the user in every domain except the photo-storage ones.
  void removeUser(int userId);
  // Removes every triplet of the user in `domain`; refuses the service's domain.
  bool removeUser(int userId, const std::string& domain);

  // --- Age --------------------------------------------------------------------------------
  // The age in whole years from the stored birth date, also stored as "age" when the write
  // accepts it; -1 when the birth date is missing or invalid.
  int xComputeAgeInfo(int userId);

 private:
  void xInitDataTypes();
  void xInitTypeNames();
  // The type name of a signature, if the table has it.
  bool xLookupTypeName(const std::string& signature, std::string& typeName) const;
  // The type name of a signature, entering the signature with an empty name when it is missing.
  std::string xTypeNameInserting(const std::string& signature);

  // Every call throws std::runtime_error "This object is null" when it holds no object.
  const KnowledgeClient knowledge;
  // Guards typeNames, the one table that may change after construction. Never held across a
  // remote call.
  mutable std::shared_mutex typeNamesMutex;
  std::map<std::string, std::string> typeNames;  // guarded by typeNamesMutex
  std::map<std::string, std::int32_t> dataIds;   // read-only after construction
  const DateSource today;
};

}  // namespace QV
