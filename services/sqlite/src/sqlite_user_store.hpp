#pragma once
// The users and the focus as kept in their own SQLite file: one connection, every change
// in one transaction. Not thread-safe: the service serialises every call.

#include <optional>
#include <string>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "qvsqlite/sqlite_user_store.hpp"

namespace QV::detail {

// Written to the header as application_id ("QVUS") and user_version.
inline constexpr int kUserSessionApplicationId = 0x51565553;
inline constexpr int kUserSessionSchemaVersion = 1;
// The knowledge store's application_id ("QVKS"), named in the refusal of its file.
inline constexpr int kKnowledgeApplicationId = 0x51564B53;

class SqliteUserStore final : public UserStore {
 public:
  SqliteUserStore(const std::string& path, const UserSessionOptions& options);

  int focused() override;
  bool exists(int userId) override;
  std::vector<int> all() override;
  int create() override;
  std::optional<UserDeletion> remove(const std::vector<int>& userIds) override;
  std::optional<bool> focus(int userId) override;
  bool clearFocus() override;
  // Nobody else writes the file, so no user is ever deleted behind this store's back.
  bool dropFocusOf(const std::vector<int>&) override { return false; }

  const std::string& path() const noexcept override { return _path; }

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
