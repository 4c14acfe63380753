#pragma once
// What both stores set up the same way: the process-wide SQLite settings, applied once before the
// first connection of either opens, and the switch of an accepted file to WAL.

#include <chrono>
#include <string>

#include <SQLiteCpp/Database.h>

namespace QV::detail {

// Turns off SQLite's allocation statistics, which take a process-wide mutex on every allocation of
// every connection. SQLite accepts this only before it is initialised: in a host that already used
// SQLite the setting is refused and the host's choice stays, which is harmless.
void configureSqliteOnce();

// Applies configureSqliteOnce() when constructed: a connection declares it before its database so
// that the settings precede the open.
struct SqliteConfigured {
  SqliteConfigured() { configureSqliteOnce(); }
};

// Switches `db` to the WAL journal, waiting for the file's exclusive lock with the busy handler's
// backoff for up to `timeout` (the switch does not call the busy handler itself). Answers "" once
// the file is in WAL mode, or why it is not, for the store's own error; throws the
// SQLite::Exception of any other failure. Only an accepted file may be switched: the journal
// mode is recorded in its header.
std::string enableWal(SQLite::Database& db, std::chrono::milliseconds timeout);

}  // namespace QV::detail
