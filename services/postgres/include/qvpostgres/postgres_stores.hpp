#pragma once
// The knowledge store and the user store on a PostgreSQL database shared by several daemons.
// They answer exactly as the SQLite stores do; what differs is what "shared" brings:
// - user ids come from the database, unique across the daemons and never reused;
// - the focused user is this daemon's own (each device focuses on the person in front of it),
//   kept in memory: after a restart nobody is focused;
// - users created or deleted through another daemon are announced here too (UserStore's foreign
//   changes), with the delivery of the event feed (docs/postgresql-store.md).

#include <qvpostgres/postgres_database.hpp>

#include <qvstorage/storage.hpp>
#include <qvstorage/triplet_store.hpp>
#include <qvstorage/user_store.hpp>

#include <memory>
#include <string>

namespace QV {

// Throws KnowledgeStoreError from its calls, naming the database.
QVPOSTGRES_API std::shared_ptr<TripletStore> makePostgresTripletStore(
    std::shared_ptr<PostgresDatabase> database);

// Throws UserSessionError from its calls, naming the database.
QVPOSTGRES_API std::unique_ptr<UserStore> makePostgresUserStore(
    std::shared_ptr<PostgresDatabase> database);

// The stores of the database `uri` names, for the store factory: connects at once (throwing
// PostgresError), opens both stores on that one connection pool, and its feed is the database.
QVPOSTGRES_API std::unique_ptr<Storage> openPostgresStorage(const std::string& uri,
                                                            const StoreOptions& options);

}  // namespace QV
