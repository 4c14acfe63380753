#pragma once
// The database's schema, in versions: each migration runs once, in its own transaction, recorded
// in qv_schema_migrations. Several daemons may open one database at once; they take turns.

#include "pg_connection.hpp"

#include <string>

namespace QV::pg {

// The newest schema version this build knows.
int latestSchemaVersion();

// Brings the schema of the connection's search_path up to latestSchemaVersion(). Throws Failure,
// or std::runtime_error naming both versions when the database holds a newer one.
void migrate(Connection& connection, Clock::time_point deadline);

}  // namespace QV::pg
