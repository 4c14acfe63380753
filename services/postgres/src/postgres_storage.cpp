#include "qvpostgres/postgres_stores.hpp"

namespace QV {
namespace {

// Both stores and the feed share the one database, and with it its connections.
class PostgresStorage final : public Storage {
 public:
  explicit PostgresStorage(std::shared_ptr<PostgresDatabase> database)
      : _database(std::move(database)) {}

  std::shared_ptr<TripletStore> openTripletStore() override {
    return makePostgresTripletStore(_database);
  }
  std::unique_ptr<UserStore> openUserStore() override { return makePostgresUserStore(_database); }
  std::shared_ptr<EventFeed> feed() override { return _database; }

 private:
  const std::shared_ptr<PostgresDatabase> _database;
};

}  // namespace

std::unique_ptr<Storage> openPostgresStorage(const std::string& uri, const StoreOptions& options) {
  PostgresOptions postgres;
  postgres.durability = options.durability;
  return std::make_unique<PostgresStorage>(PostgresDatabase::open(uri, postgres));
}

}  // namespace QV
