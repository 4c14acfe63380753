#pragma once
// The users and the focus as kept in the service's SQLite file: one connection, every change in
// one transaction. Not thread-safe: the service serialises every call.

#include <optional>
#include <string>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "qvusersession/usersession_service.hpp"

namespace QV::detail {

// Written to the header as application_id ("QVUS") and user_version.
inline constexpr int kUserSessionApplicationId = 0x51565553;
inline constexpr int kUserSessionSchemaVersion = 1;
// The knowledge store's application_id ("QVKS"), named in the refusal of its file.
inline constexpr int kKnowledgeApplicationId = 0x51564B53;

// What deleting a list of users did.
struct Deletion {
  bool focusCleared = false;
};

class UserStore {
 public:
  UserStore(const std::string& path, const UserSessionOptions& options);

  int focused();
  bool exists(int userId);
  std::vector<int> all();

  // The new id, committed.
  int create();
  // Empty, changing nothing, when an id is unknown or listed twice.
  std::optional<Deletion> remove(const std::vector<int>& userIds);
  // Empty, changing nothing, for an unknown id; otherwise whether the focus changed.
  std::optional<bool> focus(int userId);
  // Whether a user was focused.
  bool clearFocus();

  const std::string& path() const noexcept { return _path; }

 private:
  // Without the translation of SQLite's errors, for use inside the writes.
  int focusedHere();
  bool existsHere(int userId);

  const std::string _path;
  SQLite::Database _db;
  // Prepared once: the front asks these on every one of its operations.
  SQLite::Statement _exists;
  SQLite::Statement _focused;
};

}  // namespace QV::detail
