#pragma once
// Process-wide SQLite settings, applied once before the store's first connection opens.

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

}  // namespace QV::detail
