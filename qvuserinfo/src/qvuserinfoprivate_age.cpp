// The age, derived afresh from the stored birth date whenever it is read in the service's domain.

#include "qvuserinfoprivate.hpp"

#include "storecontext.hpp"

namespace QV {

using userdata::logCategory;

namespace {

int notValid(const char* message) {
  KA_LOG_AT(ka::LogLevel::Warning, logCategory, "xComputeAgeInfo") << message;
  return -1;
}

// Only a birth datum that is not stored counts as not valid. One that is stored but does not
// read as an integer (the void value of a text that does not parse, or an untyped text) fails
// the integer read with the middleware's conversion error, which the caller receives.
bool readPart(const ka::AnyValue& value, int& part) {
  if (!value.isValid()) {
    return false;
  }
  part = static_cast<int>(userdata::readInt64(value));
  return true;
}

}  // namespace

int QVUserInfoPrivate::xComputeAgeInfo(int userId) {
  const std::string& domain = userdata::defaultDomain;
  int year = 0;
  int month = 0;
  int day = 0;
  if (!readPart(get(userId, "birthyear", domain), year)) {
    return notValid("User's birth year not valid, can't determine age");
  }
  if (!readPart(get(userId, "birthmonth", domain), month)) {
    return notValid("User's birth month not valid, can't determine age");
  }
  if (!readPart(get(userId, "birthday", domain), day)) {
    return notValid("User's birth day not valid, can't determine age");
  }
  if (!QDate(year, month, day).isValid()) {
    return notValid("User's birth date is not valid, can't determine age");
  }
  const QDate now = today();
  // When this year has no such day (29 February), the null date compares before every date,
  // so the birthday counts as passed from 1 January.
  const QDate birthdayThisYear(now.year(), month, day);
  const int age = now.year() - year - (birthdayThisYear > now ? 1 : 0);
  // A negative age is refused by the write's range check and only returned.
  update(userId, "age", ka::AnyValue(age));
  return age;
}

}  // namespace QV
