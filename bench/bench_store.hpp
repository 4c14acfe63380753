#pragma once
// Shared by the benches of the user data: the data set (users x ten data names in the service's
// domain, with the declared types the service itself records), a scattered user order, and
// helpers to run the knowledge store's own SQL as raw prepared statements on the same file.

#include <SQLiteCpp/SQLiteCpp.h>

#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

namespace bench {

constexpr const char* kDomain = "com.quorvelin.userinfo";
constexpr const char* kRangeType = "rangeType";
constexpr const char* kNames[] = {"name",      "fullname",   "gender",   "pronunciation",
                                  "birthyear", "birthmonth", "birthday", "firstencounter",
                                  "lastseen",  "nickname"};
constexpr int kNamesPerUser = static_cast<int>(std::size(kNames));

// A value of the datum's range, text as the service stores it.
inline std::string valueOf(const std::string& name, int user) {
  if (name == "gender") {
    return user % 2 ? "m" : "f";
  }
  if (name == "birthmonth") {
    return std::to_string(1 + user % 12);
  }
  if (name == "birthday") {
    return std::to_string(1 + user % 28);
  }
  if (name == "birthyear") {
    return std::to_string(1940 + user % 70);
  }
  if (name == "firstencounter" || name == "lastseen") {
    return std::to_string(1700000000 + user);
  }
  return name + " of user " + std::to_string(user);
}

// The type the service declares for each name of the data set.
inline const char* typeOf(const std::string& name) {
  static const std::string ints[] = {"birthyear", "birthmonth", "birthday", "firstencounter",
                                     "lastseen"};
  for (const auto& i : ints) {
    if (name == i) {
      return "int";
    }
  }
  return "string";
}

// Users 0 .. users-1 (or first .. first+users-1) visited in a scattered order that repeats.
class UserPicker {
 public:
  explicit UserPicker(int users, int first = 0, std::uint64_t seed = 42)
      : users_(users), first_(first), state_(seed) {}
  int next() {
    state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
    return first_ + static_cast<int>((state_ >> 33) % static_cast<std::uint64_t>(users_));
  }

 private:
  int users_;
  int first_;
  std::uint64_t state_;
};

// Binds text values as BLOBs, as the knowledge store binds them.
inline void bindAll(SQLite::Statement& statement, const std::vector<const std::string*>& values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    statement.bindNoCopy(static_cast<int>(i + 1), static_cast<const void*>(values[i]->data()),
                         static_cast<int>(values[i]->size()));
  }
}

// Runs the store's getObject(d,s,p) statement, which answers (id, object) rows.
inline std::vector<std::string> selectObjects(SQLite::Statement& statement, const std::string& d,
                                              const std::string& s, const std::string& p) {
  bindAll(statement, {&d, &s, &p});
  std::vector<std::string> objects;
  while (statement.executeStep()) {
    objects.push_back(statement.getColumn(1).getString());
  }
  statement.reset();
  return objects;
}

// Whether the statement yields a row for the values.
inline bool yieldsRow(SQLite::Statement& statement, const std::vector<const std::string*>& values) {
  bindAll(statement, values);
  const bool found = statement.executeStep();
  statement.reset();
  return found;
}

inline void execute(SQLite::Statement& statement, const std::vector<const std::string*>& values) {
  bindAll(statement, values);
  statement.exec();
  statement.reset();
}

}  // namespace bench
