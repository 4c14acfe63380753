#include "qvpostgres/postgres_stores.hpp"

#include "database_impl.hpp"

#include <array>

namespace QV {
namespace {

enum Column : unsigned { kDomain = 0, kSubject = 1, kPredicate = 2, kObject = 3 };
constexpr unsigned kColumns = 4;
constexpr const char* kNames[kColumns] = {"domain", "subject", "predicate", "object"};
using Shape = unsigned;  // bit c set: column c is given, not a wildcard
constexpr Shape kKey = 1u << kDomain | 1u << kSubject | 1u << kPredicate;
constexpr Shape kAll = kKey | 1u << kObject;

// An index entry holds at most about a third of a page; the key columns are indexed as they are.
constexpr std::size_t kMaxKeyBytes = 2048;

// The given positions of a call, in column order; the statement numbers its parameters so.
struct Pattern {
  Shape shape = 0;
  std::vector<pg::Param> params;
};

Pattern patternOf(const std::string& domain, const std::string& subject,
                  const std::string& predicate, const std::string& object, char wildcard,
                  bool domainMayBeWildcard) {
  const std::string* values[kColumns] = {&domain, &subject, &predicate, &object};
  Pattern pattern;
  for (unsigned column = 0; column < kColumns; ++column) {
    const bool isWildcard = values[column]->size() == 1 && (*values[column])[0] == wildcard;
    if (isWildcard && (column != kDomain || domainMayBeWildcard)) {
      continue;
    }
    pattern.shape |= 1u << column;
    pattern.params.push_back({*values[column]});
  }
  return pattern;
}

// An object is found through its digest (what the index holds), then compared itself.
std::string where(Shape shape) {
  std::string clause;
  int parameter = 0;
  for (unsigned column = 0; column < kColumns; ++column) {
    if ((shape & (1u << column)) == 0) {
      continue;
    }
    const std::string p = "$" + std::to_string(++parameter) + "::bytea";
    clause += clause.empty() ? " WHERE " : " AND ";
    clause += column == kObject ? "object_digest = sha256(" + p + ") AND object = " + p
                                : std::string(kNames[column]) + " = " + p;
  }
  return clause;
}

// One prepared statement per shape and kind, named after both.
struct Statements {
  Statements() {
    for (Shape shape = 0; shape <= kAll; ++shape) {
      const std::string suffix = "_" + std::to_string(shape);
      query[shape] = {"qv_query" + suffix,
                      "SELECT domain, subject, predicate, object FROM "
                      "qv_triplets" +
                          where(shape) + " ORDER BY id"};
      contains[shape] = {"qv_contains" + suffix,
                         "SELECT 1 FROM qv_triplets" + where(shape) + " LIMIT 1"};
      remove[shape] = {"qv_remove" + suffix, "DELETE FROM qv_triplets" + where(shape)};
    }
  }
  std::array<pg::Statement, kAll + 1> query, contains, remove;
  const pg::Statement get{"qv_get",
                          "SELECT object FROM qv_triplets" + where(kKey) + " ORDER BY id"};
  const pg::Statement add{"qv_add",
                          "INSERT INTO qv_triplets (domain, subject, predicate, object) "
                          "VALUES ($1::bytea, $2::bytea, $3::bytea, $4::bytea) "
                          "ON CONFLICT (domain, subject, predicate, object_digest) DO NOTHING"};
  const pg::Statement update{"qv_update",
                             "SELECT qv_update($1::bytea, $2::bytea, $3::bytea, $4::bytea)"};
};

const Statements& statements() {
  static const Statements all;
  return all;
}

class PostgresTripletStore final : public TripletStore {
  // Every call may run twice: reads, and writes that leave the same state when repeated.
  template <class Body>
  auto call(const char* operation, Body&& body) const {
    try {
      return database_->impl().withConnection(std::forward<Body>(body), true);
    } catch (const pg::Failure& failure) {
      throw KnowledgeStoreError("knowledge store '" + location_ + "': " + operation +
                                " failed: " + failure.what());
    }
  }

 public:
  explicit PostgresTripletStore(std::shared_ptr<PostgresDatabase> database)
      : database_(std::move(database)), location_(database_->location()) {
    statements();
  }

  std::vector<std::string> getObject(const std::string& domain, const std::string& subject,
                                     const std::string& predicate) const override {
    return call("getObject", [&](pg::Connection& c, pg::Clock::time_point deadline) {
      const pg::Result result =
          c.run(statements().get, {{domain}, {subject}, {predicate}}, deadline);
      std::vector<std::string> objects;
      objects.reserve(static_cast<std::size_t>(result.rows()));
      for (int row = 0; row < result.rows(); ++row) {
        objects.push_back(result.bytes(row, 0));
      }
      return objects;
    });
  }

  bool contains(const std::string& domain, const std::string& subject, const std::string& predicate,
                const std::string& object) const override {
    const Pattern pattern = patternOf(domain, subject, predicate, object, '?', false);
    return call("contains", [&](pg::Connection& c, pg::Clock::time_point deadline) {
      return c.run(statements().contains[pattern.shape], pattern.params, deadline).rows() > 0;
    });
  }

  std::vector<std::vector<std::string>> queryTriplet(const std::string& domain,
                                                     const std::string& subject,
                                                     const std::string& predicate,
                                                     const std::string& object) const override {
    const Pattern pattern = patternOf(domain, subject, predicate, object, '*', true);
    return call("queryTriplet", [&](pg::Connection& c, pg::Clock::time_point deadline) {
      const pg::Result result = c.run(statements().query[pattern.shape], pattern.params, deadline);
      std::vector<std::vector<std::string>> rows;
      rows.reserve(static_cast<std::size_t>(result.rows()));
      for (int row = 0; row < result.rows(); ++row) {
        rows.push_back({result.bytes(row, 0), result.bytes(row, 1), result.bytes(row, 2),
                        result.bytes(row, 3)});
      }
      return rows;
    });
  }

  void update(const std::string& domain, const std::string& subject, const std::string& predicate,
              const std::string& object) override {
    checkKey("update", domain, subject, predicate);
    call("update", [&](pg::Connection& c, pg::Clock::time_point deadline) {
      c.run(statements().update, {{domain}, {subject}, {predicate}, {object}}, deadline);
    });
  }

  void add(const std::string& domain, const std::string& subject, const std::string& predicate,
           const std::string& object) override {
    checkKey("add", domain, subject, predicate);
    call("add", [&](pg::Connection& c, pg::Clock::time_point deadline) {
      c.run(statements().add, {{domain}, {subject}, {predicate}, {object}}, deadline);
    });
  }

  void remove(const std::string& domain, const std::string& subject, const std::string& predicate,
              const std::string& object) override {
    const Pattern pattern = patternOf(domain, subject, predicate, object, '?', false);
    call("remove", [&](pg::Connection& c, pg::Clock::time_point deadline) {
      c.run(statements().remove[pattern.shape], pattern.params, deadline);
    });
  }

  void addMany(const std::vector<Triplet>& triplets) override {
    for (const Triplet& t : triplets) {
      checkKey("addMany", t.domain, t.subject, t.predicate);
    }
    call("addMany", [&](pg::Connection& c, pg::Clock::time_point deadline) {
      c.exec("BEGIN", deadline);
      try {
        for (const Triplet& t : triplets) {
          c.run(statements().add, {{t.domain}, {t.subject}, {t.predicate}, {t.object}}, deadline);
        }
        c.exec("COMMIT", deadline);
      } catch (...) {
        if (!c.broken()) {
          try {
            c.exec("ROLLBACK", deadline);
          } catch (...) {
            // A connection that cannot roll back is lost and dropped with its transaction.
          }
        }
        throw;
      }
    });
  }

  const std::string& path() const noexcept override { return location_; }

 private:
  void checkKey(const char* operation, const std::string& domain, const std::string& subject,
                const std::string& predicate) const {
    const std::size_t size = domain.size() + subject.size() + predicate.size();
    if (size > kMaxKeyBytes) {
      throw KnowledgeStoreError("knowledge store '" + location_ + "': " + operation +
                                " failed: the key (domain, subject and predicate) is " +
                                std::to_string(size) + " bytes long; this store takes at most " +
                                std::to_string(kMaxKeyBytes));
    }
  }

  const std::shared_ptr<PostgresDatabase> database_;
  const std::string location_;
};

}  // namespace

std::shared_ptr<TripletStore> makePostgresTripletStore(std::shared_ptr<PostgresDatabase> database) {
  if (!database) {
    throw std::invalid_argument("makePostgresTripletStore needs a database");
  }
  return std::make_shared<PostgresTripletStore>(std::move(database));
}

}  // namespace QV
