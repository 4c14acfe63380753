#pragma once
// The users, their ids and the focus kept in a SQLite file of their own: by default the knowledge
// store's path + ".users" (userSessionPathBeside), with its own application_id and schema, in WAL
// mode, waiting for another connection's lock up to the busy timeout as the knowledge store does,
// committing with the knowledge store's Durability. It is a separate file so that neither store's
// open checks, schema or write lock ever involve the other: a long write to the knowledge store
// never delays createUser, and a damaged knowledge store does not take the user ids down with it.

#include <qvsqlite/api.hpp>
#include <qvstorage/durability.hpp>
#include <qvstorage/user_store.hpp>

#include <chrono>
#include <memory>
#include <string>

namespace QV {

struct UserSessionOptions {
  // The same meaning as the knowledge store's option; pass the same value to both.
  Durability durability = Durability::Full;
  // How long a call (or the open) waits for another connection's lock on the file; the wait
  // tells the event loop that the thread blocks.
  std::chrono::milliseconds busyTimeout{5000};
};

// The file that keeps the users next to the knowledge store at `knowledgeStorePath`
// (":memory:" stays ":memory:").
QVSQLITE_API std::string userSessionPathBeside(const std::string& knowledgeStorePath);

// Opens or creates the store at `path` (":memory:" for one that lasts as long as the object).
// Throws UserSessionError for a file that is not a SQLite database, belongs to another
// application or a newer version, or is damaged.
QVSQLITE_API std::unique_ptr<UserStore> openSqliteUserStore(const std::string& path,
                                                            UserSessionOptions options = {});

}  // namespace QV
