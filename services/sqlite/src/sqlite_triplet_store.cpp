#include "qvsqlite/sqlite_triplet_store.hpp"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <numeric>
#include <utility>

#include <sqlite3.h>

#include "connections.hpp"
#include "group_commit.hpp"
#include "prepared_statements.hpp"
#include "reader_pool.hpp"
#include "statement_sql.hpp"
#include "store_error.hpp"

namespace QV {

using detail::CallValues;
using detail::fixedBit;
using detail::Shape;
using detail::StatementUse;

namespace {

constexpr char kMemoryPath[] = ":memory:";

bool isWildcard(const std::string& value, char wildcard) {
  return value.size() == 1 && value[0] == wildcard;
}

// Leaves out the positions holding `wildcard`; the domain only if `domainMayBeWildcard`.
CallValues pattern(const std::string& domain, const std::string& subject,
                   const std::string& predicate, const std::string& object, char wildcard,
                   bool domainMayBeWildcard) {
  CallValues values{&domain, &subject, &predicate, &object};
  for (unsigned column = 0; column < detail::kColumnCount; ++column) {
    if ((column != detail::kDomain || domainMayBeWildcard) &&
        isWildcard(*values[column], wildcard)) {
      values[column] = nullptr;
    }
  }
  return values;
}

Shape shapeOf(const CallValues& values) {
  Shape shape = 0;
  for (unsigned column = 0; column < detail::kColumnCount; ++column) {
    if (values[column] != nullptr) {
      shape |= 1u << column;
    }
  }
  return shape;
}

// A key's objects as the key index returns them (by object bytes), handed back by id: oldest first.
class ObjectsById {
 public:
  void add(std::int64_t id, std::string object) {
    // A single object, the common case, needs no list of ids.
    if (objects_.empty()) {
      firstId_ = id;
    } else {
      if (ids_.empty()) {
        ids_.push_back(firstId_);
      }
      ids_.push_back(id);
    }
    objects_.push_back(std::move(object));
  }

  std::vector<std::string> oldestFirst() && {
    // Objects added in byte order already arrive oldest first; they are returned as they are.
    if (std::is_sorted(ids_.begin(), ids_.end())) {
      return std::move(objects_);
    }
    std::vector<std::size_t> order(ids_.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::sort(order.begin(), order.end(),
              [this](std::size_t a, std::size_t b) { return ids_[a] < ids_[b]; });
    std::vector<std::string> sorted;
    sorted.reserve(order.size());
    for (std::size_t index : order) {
      sorted.push_back(std::move(objects_[index]));
    }
    return sorted;
  }

 private:
  std::vector<std::string> objects_;
  std::int64_t firstId_ = 0;
  std::vector<std::int64_t> ids_;  // of every object, once there are two or more
};

// Runs a statement that returns no rows, e.g. an insert or a delete.
void execute(SQLite::Statement& statement, const CallValues& values) {
  StatementUse use(statement);
  detail::bindValues(*use, values);
  use->exec();
}

}  // namespace

class SqliteTripletStore::Impl {
 public:
  Impl(std::string storePath, const TripletStoreOptions& options)
      : path(std::move(storePath)), inMemory(path == kMemoryPath), commitBlocks(!inMemory) {
    if (path.empty()) {
      throw detail::storeError(path, "the path is empty");
    }
    try {
      writer = std::make_unique<detail::WriterConnection>(path, options, inMemory);
      if (!inMemory) {
        checkpointer = std::make_unique<detail::Checkpointer>(path, options);
        readers = std::make_unique<detail::ReaderPool>(path, options, options.readConnections);
      }
    } catch (const SQLite::Exception& error) {
      throw detail::storeError(path, std::string("cannot open: ") + error.what());
    }
  }

  // Runs `body` with the read statements of a connection this thread alone uses meanwhile.
  template <class Body>
  auto read(const char* operation, Body&& body) const {
    try {
      if (inMemory) {
        std::lock_guard lock(writerMutex);
        return body(*writer->reads);
      }
      detail::ReaderPool::Lease lease = readers->checkout();
      return body(lease.reads());
    } catch (const SQLite::Exception& error) {
      throw detail::callFailed(path, operation, error);
    }
  }

  // Runs `body` on the writer in a transaction that it may share with writes arriving at the same
  // time from other threads; returns once that transaction committed, or throws if `body` failed
  // (its changes undone, the others' kept) or the transaction did.
  template <class Body>
  void write(const char* operation, Body&& body) {
    detail::GroupCommit::Write write{operation, [&] { body(writer->writes); }};
    commits.submit(write);
    if (write.failure) {
      std::rethrow_exception(write.failure);
    }
  }

  // Commits a group in one immediate transaction: one fsync for all under Durability::Full. In a
  // group of several, each write runs in a savepoint of its own so that it fails alone.
  void commitGroup(const detail::GroupCommit::Group& group) noexcept {
    std::lock_guard lock(writerMutex);
    try {
      writer->db.exec("BEGIN IMMEDIATE");
      for (detail::GroupCommit::Write* write : group) {
        if (group.size() == 1) {
          write->body();
        } else {
          runAlone(*write);
        }
      }
      writer->db.exec("COMMIT");
    } catch (...) {
      // A failed ROLLBACK would leave the connection inside a transaction and every later write
      // failing; make sure it is out of it.
      if (sqlite3_get_autocommit(writer->db.getHandle()) == 0) {
        writer->db.tryExec("ROLLBACK");
      }
      // Nothing of the group is stored: every write not already failed alone fails with this.
      for (detail::GroupCommit::Write* write : group) {
        if (!write->failure) {
          write->failure = groupFailure(write->operation);
        }
      }
    }
  }

  // Runs one write of a group between SAVEPOINT and RELEASE; when it fails, rolls back to the
  // savepoint and records its error. Throws when the transaction itself is lost.
  void runAlone(detail::GroupCommit::Write& write) {
    writer->db.exec("SAVEPOINT write");
    try {
      write.body();
    } catch (const SQLite::Exception& error) {
      // Some errors (a full disk, an I/O error) make SQLite roll back the whole transaction, and
      // the savepoint with it: the group fails.
      if (sqlite3_get_autocommit(writer->db.getHandle()) != 0) {
        throw;
      }
      writer->db.exec("ROLLBACK TO write");
      write.failure = std::make_exception_ptr(detail::callFailed(path, write.operation, error));
    }
    writer->db.exec("RELEASE write");
  }

  // The error of a write whose group failed, from the exception being handled.
  std::exception_ptr groupFailure(const char* operation) const {
    try {
      throw;
    } catch (const SQLite::Exception& error) {
      return std::make_exception_ptr(detail::callFailed(path, operation, error));
    } catch (...) {
      return std::current_exception();
    }
  }

  std::vector<QueryPlan> explain() const {
    std::lock_guard lock(writerMutex);
    try {
      std::vector<QueryPlan> plans;
      for (const auto& statement : detail::allStatements()) {
        SQLite::Statement explain(writer->db, "EXPLAIN QUERY PLAN " + statement.sql);
        std::string plan;
        while (explain.executeStep()) {
          plan += (plan.empty() ? "" : "\n") + explain.getColumn(3).getString();
        }
        plans.push_back({statement.name, statement.sql, plan});
      }
      return plans;
    } catch (const SQLite::Exception& error) {
      throw detail::callFailed(path, "explainQueryPlans", error);
    }
  }

  const std::string path;
  const bool inMemory;
  // Held by the leader committing a group (and, in memory, by every call); guards writer and its
  // statements.
  mutable std::mutex writerMutex;
  std::unique_ptr<detail::WriterConnection> writer;
  // A commit writes to the file (and fsyncs it under Durability::Full); in memory it does not.
  const bool commitBlocks;
  detail::GroupCommit commits{
      [this](const detail::GroupCommit::Group& group) { commitGroup(group); },
      [this] {
        std::lock_guard lock(writerMutex);
        writer->checkpointIfDue(checkpointer.get());
      },
      commitBlocks};
  // Copies the WAL into the file in the background (none in memory). Closes before the writer.
  std::unique_ptr<detail::Checkpointer> checkpointer;
  // Declared after the writer so that the read connections close first and the writer, closing
  // last, checkpoints the WAL into the database file.
  std::unique_ptr<detail::ReaderPool> readers;
};

SqliteTripletStore::SqliteTripletStore(const std::string& path, TripletStoreOptions options)
    : impl_(std::make_unique<Impl>(path, options)) {}

SqliteTripletStore::~SqliteTripletStore() = default;

const std::string& SqliteTripletStore::path() const noexcept {
  return impl_->path;
}

std::vector<std::string> SqliteTripletStore::getObject(const std::string& domain,
                                                       const std::string& subject,
                                                       const std::string& predicate) const {
  return impl_->read("getObject", [&](detail::ReadStatements& reads) {
    StatementUse use(reads.getObject);
    detail::bindValues(*use, {&domain, &subject, &predicate, nullptr});
    ObjectsById objects;
    while (use->executeStep()) {
      objects.add(use->getColumn(0).getInt64(), detail::columnBytes(*use, 1));
    }
    return std::move(objects).oldestFirst();
  });
}

bool SqliteTripletStore::contains(const std::string& domain, const std::string& subject,
                                  const std::string& predicate, const std::string& object) const {
  const CallValues values = pattern(domain, subject, predicate, object, '?', false);
  return impl_->read("contains", [&](detail::ReadStatements& reads) {
    StatementUse use(reads.contains[detail::domainFixedSlot(shapeOf(values))]);
    detail::bindValues(*use, values);
    return use->executeStep();
  });
}

std::vector<std::vector<std::string>> SqliteTripletStore::queryTriplet(
    const std::string& domain, const std::string& subject, const std::string& predicate,
    const std::string& object) const {
  const CallValues values = pattern(domain, subject, predicate, object, '*', true);
  return impl_->read("queryTriplet", [&](detail::ReadStatements& reads) {
    StatementUse use(reads.query[shapeOf(values)]);
    detail::bindValues(*use, values);
    std::vector<std::vector<std::string>> rows;
    while (use->executeStep()) {
      std::vector<std::string> row;
      row.reserve(detail::kColumnCount);
      for (int column = 0; column < static_cast<int>(detail::kColumnCount); ++column) {
        row.push_back(detail::columnBytes(*use, column));
      }
      rows.push_back(std::move(row));
    }
    return rows;
  });
}

void SqliteTripletStore::update(const std::string& domain, const std::string& subject,
                                const std::string& predicate, const std::string& object) {
  constexpr Shape kKey =
      fixedBit(detail::kDomain) | fixedBit(detail::kSubject) | fixedBit(detail::kPredicate);
  impl_->write("update", [&](detail::WriteStatements& writes) {
    execute(writes.remove[detail::domainFixedSlot(kKey)], {&domain, &subject, &predicate, nullptr});
    execute(writes.insert, {&domain, &subject, &predicate, &object});
  });
}

void SqliteTripletStore::add(const std::string& domain, const std::string& subject,
                             const std::string& predicate, const std::string& object) {
  impl_->write("add", [&](detail::WriteStatements& writes) {
    execute(writes.insert, {&domain, &subject, &predicate, &object});
  });
}

void SqliteTripletStore::remove(const std::string& domain, const std::string& subject,
                                const std::string& predicate, const std::string& object) {
  const CallValues values = pattern(domain, subject, predicate, object, '?', false);
  impl_->write("remove", [&](detail::WriteStatements& writes) {
    execute(writes.remove[detail::domainFixedSlot(shapeOf(values))], values);
  });
}

void SqliteTripletStore::addMany(const std::vector<Triplet>& triplets) {
  impl_->write("addMany", [&](detail::WriteStatements& writes) {
    for (const Triplet& t : triplets) {
      execute(writes.insert, {&t.domain, &t.subject, &t.predicate, &t.object});
    }
  });
}

std::vector<QueryPlan> SqliteTripletStore::explainQueryPlans() const {
  return impl_->explain();
}

}  // namespace QV
