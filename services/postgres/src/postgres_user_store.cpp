#include "qvpostgres/postgres_stores.hpp"

#include "database_impl.hpp"

#include <algorithm>
#include <mutex>

namespace QV {
namespace {

constexpr const char kCreated[] = "users.created";
constexpr const char kDeleted[] = "users.deleted";

const pg::Statement kExists{"qv_user_exists", "SELECT 1 FROM qv_users WHERE id = $1::integer"};
const pg::Statement kAll{"qv_users_all", "SELECT id FROM qv_users ORDER BY id"};
const pg::Statement kCreate{"qv_create_user", "SELECT qv_create_user($1::text)"};
const pg::Statement kDelete{"qv_delete_users", "SELECT qv_delete_users($1::text, $2::integer[])"};

// An event's payload: the ids as binary int4, one after another.
std::vector<int> idsIn(const std::string& payload) {
  std::vector<int> ids;
  for (std::size_t at = 0; at + 4 <= payload.size(); at += 4) {
    std::uint32_t v = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      v = (v << 8) | static_cast<unsigned char>(payload[at + i]);
    }
    ids.push_back(static_cast<int>(v));
  }
  return ids;
}

// "{1,2,3}": the text form of an integer[] parameter.
std::string arrayText(const std::vector<int>& ids) {
  std::string text = "{";
  for (std::size_t i = 0; i < ids.size(); ++i) {
    text += (i == 0 ? "" : ",") + std::to_string(ids[i]);
  }
  return text + "}";
}

class PostgresUserStore final : public UserStore {
  template <class Body>
  auto call(const char* operation, Body&& body, bool retryable = false) {
    try {
      return database_->impl().withConnection(std::forward<Body>(body), retryable);
    } catch (const pg::Failure& failure) {
      const bool noIdLeft = failure.sqlState() == "2200H";  // sequence_generator_limit_exceeded
      throw UserSessionError("user session store '" + location_ + "': " + operation + " failed: " +
                             (noIdLeft ? std::string("no user id is left") : failure.what()));
    }
  }

 public:
  explicit PostgresUserStore(std::shared_ptr<PostgresDatabase> database)
      : database_(std::move(database)), location_(database_->location()) {}

  ~PostgresUserStore() override { onForeignChange(nullptr); }

  int focused() override { return focused_; }

  bool exists(int userId) override {
    const std::string id = pg::int4(userId);
    return call(
        "doesUserExist",
        [&](pg::Connection& c, pg::Clock::time_point deadline) {
          return c.run(kExists, {{id}}, deadline).rows() > 0;
        },
        true);
  }

  std::vector<int> all() override {
    return call(
        "users",
        [&](pg::Connection& c, pg::Clock::time_point deadline) {
          const pg::Result result = c.run(kAll, {}, deadline);
          std::vector<int> ids;
          ids.reserve(static_cast<std::size_t>(result.rows()));
          for (int row = 0; row < result.rows(); ++row) {
            ids.push_back(result.int4At(row, 0));
          }
          return ids;
        },
        true);
  }

  int create() override {
    return call("createUser", [&](pg::Connection& c, pg::Clock::time_point deadline) {
      return c.run(kCreate, {{database_->origin(), false}}, deadline).int4At(0, 0);
    });
  }

  std::optional<UserDeletion> remove(const std::vector<int>& userIds) override {
    const std::string ids = arrayText(userIds);
    const bool deleted = call("deleteUsers", [&](pg::Connection& c,
                                                 pg::Clock::time_point deadline) {
      return c.run(kDelete, {{database_->origin(), false}, {ids, false}}, deadline).boolAt(0, 0);
    });
    if (!deleted) {
      return std::nullopt;
    }
    return UserDeletion{dropFocusOf(userIds)};
  }

  std::optional<bool> focus(int userId) override {
    if (!exists(userId)) {
      return std::nullopt;
    }
    const bool changed = focused_ != userId;
    focused_ = userId;
    return changed;
  }

  bool clearFocus() override {
    const bool had = focused_ != kNoUser;
    focused_ = kNoUser;
    return had;
  }

  bool dropFocusOf(const std::vector<int>& userIds) override {
    if (focused_ == kNoUser ||
        std::find(userIds.begin(), userIds.end(), focused_) == userIds.end()) {
      return false;
    }
    focused_ = kNoUser;
    return true;
  }

  void onForeignChange(ForeignChangeHandler handler) override {
    if (!handler) {
      database_->follow(kCreated, nullptr);
      database_->follow(kDeleted, nullptr);
      return;
    }
    auto shared = std::make_shared<ForeignChangeHandler>(std::move(handler));
    database_->follow(kCreated, [shared](const StoreEvent& event) {
      (*shared)(ForeignUserChange{idsIn(event.payload), {}});
    });
    database_->follow(kDeleted, [shared](const StoreEvent& event) {
      (*shared)(ForeignUserChange{{}, idsIn(event.payload)});
    });
  }

  const std::string& path() const noexcept override { return location_; }

 private:
  const std::shared_ptr<PostgresDatabase> database_;
  const std::string location_;
  // This daemon's focus. The service serialises every call into the store, including the
  // foreign changes it is told of, so no lock of its own.
  int focused_ = kNoUser;
};

}  // namespace

std::unique_ptr<UserStore> makePostgresUserStore(std::shared_ptr<PostgresDatabase> database) {
  if (!database) {
    throw std::invalid_argument("makePostgresUserStore needs a database");
  }
  return std::make_unique<PostgresUserStore>(std::move(database));
}

}  // namespace QV
