#include "qvsqlite/sqlite_storage.hpp"

#include "qvsqlite/sqlite_triplet_store.hpp"
#include "qvsqlite/sqlite_user_store.hpp"

namespace QV {
namespace {

constexpr char kScheme[] = "sqlite:";

class SqliteStorage final : public Storage {
 public:
  SqliteStorage(std::string path, const StoreOptions& options)
      : _path(std::move(path)), _options(options) {}

  std::shared_ptr<TripletStore> openTripletStore() override {
    TripletStoreOptions options;
    options.durability = _options.durability;
    return std::make_shared<SqliteTripletStore>(_path, options);
  }
  std::unique_ptr<UserStore> openUserStore() override {
    UserSessionOptions options;
    options.durability = _options.durability;
    return openSqliteUserStore(userSessionPathBeside(_path), options);
  }
  std::shared_ptr<EventFeed> feed() override { return nullptr; }

 private:
  const std::string _path;
  const StoreOptions _options;
};

}  // namespace

bool isSqliteLocation(const std::string&) {
  return true;
}

std::unique_ptr<Storage> openSqliteStorage(const std::string& uri, const StoreOptions& options) {
  const bool prefixed = uri.compare(0, sizeof kScheme - 1, kScheme) == 0;
  return std::make_unique<SqliteStorage>(prefixed ? uri.substr(sizeof kScheme - 1) : uri, options);
}

}  // namespace QV
