#pragma once
// The knowledge store and the user store on a PostgreSQL database shared by several daemons.
// They answer exactly as the SQLite stores do; what differs is what "shared" brings:
// - user ids come from the database, unique across the daemons and never reused;
// - the focused user is this daemon's own (each device focuses on the person in front of it),
//   kept in memory: after a restart nobody is focused;
// - users created or deleted through another daemon are announced here too (UserStore's foreign
//   changes), with the delivery of the event feed (docs/postgresql-store.md).

#include <qvpostgres/postgres_database.hpp>

#include <qvknowledge/triplet_store.hpp>
#include <qvusersession/usersession_service.hpp>

#include <memory>

namespace QV {

// Throws KnowledgeStoreError from its calls, naming the database.
QVPOSTGRES_API std::shared_ptr<TripletStore> makePostgresTripletStore(
    std::shared_ptr<PostgresDatabase> database);

// Throws UserSessionError from its calls, naming the database.
QVPOSTGRES_API std::unique_ptr<UserStore> makePostgresUserStore(
    std::shared_ptr<PostgresDatabase> database);

}  // namespace QV
