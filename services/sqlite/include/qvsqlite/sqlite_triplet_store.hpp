#pragma once
// Durable store of (domain, subject, predicate, object) triplets kept in one SQLite file, the
// default storage engine of the knowledge store service. Thread-safe; see
// docs/knowledge-store.md.

#include <qvsqlite/api.hpp>
#include <qvstorage/triplet_store.hpp>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace QV {

// How thoroughly an existing store is checked before it is accepted. Both read the whole file;
// a damaged file is refused with the first problems found.
enum class OpenCheck {
  // PRAGMA quick_check: the structure of every page of the table and its indexes.
  Quick,
  // PRAGMA integrity_check: the same, and that every index holds exactly the rows of the table;
  // several times slower.
  Full,
};

struct TripletStoreOptions {
  Durability durability = Durability::Full;
  OpenCheck openCheck = OpenCheck::Quick;
  // How long a call (or the open) waits for another process holding a lock on the file before
  // failing. The wait tells the event loop that the thread blocks.
  std::chrono::milliseconds busyTimeout{5000};
  // Connections that serve reads in parallel (at least one). Ignored for ":memory:", where one
  // connection serves everything.
  std::size_t readConnections = 4;
  // How much of the file each connection may map into memory (PRAGMA mmap_size), so that a lookup
  // in a store larger than SQLite's page cache reads the OS cache without a system call per page.
  // 0 turns mapping off. A million short triplets take about 210 MB, so the default covers about
  // ten million; SQLite caps the value at its build's limit (2 GiB - 64 KiB on Debian).
  std::size_t mappedBytes = std::size_t{2} << 30;
};

// The query plan SQLite chose for one statement shape, for diagnostics and tests.
struct QueryPlan {
  std::string statement;  // e.g. "queryTriplet(*,s,*,*)": letters are fixed positions
  std::string sql;
  std::string plan;  // EXPLAIN QUERY PLAN details, one line per step
};

// The SQLite implementation of TripletStore: one file (or ":memory:"), one writer connection and
// a pool of readers, so reads run in parallel with each other and with the write.
class QVSQLITE_API SqliteTripletStore final : public TripletStore {
 public:
  // Opens or creates the store in `path` (":memory:" for a private in-memory store). Throws
  // KnowledgeStoreError, leaving the file untouched, if it is not a store this build can write.
  explicit SqliteTripletStore(const std::string& path, TripletStoreOptions options = {});
  ~SqliteTripletStore() override;

  std::vector<std::string> getObject(const std::string& domain, const std::string& subject,
                                     const std::string& predicate) const override;
  bool contains(const std::string& domain, const std::string& subject, const std::string& predicate,
                const std::string& object) const override;
  std::vector<std::vector<std::string>> queryTriplet(const std::string& domain,
                                                     const std::string& subject,
                                                     const std::string& predicate,
                                                     const std::string& object) const override;
  void update(const std::string& domain, const std::string& subject, const std::string& predicate,
              const std::string& object) override;
  void add(const std::string& domain, const std::string& subject, const std::string& predicate,
           const std::string& object) override;
  void remove(const std::string& domain, const std::string& subject, const std::string& predicate,
              const std::string& object) override;
  void addMany(const std::vector<Triplet>& triplets) override;

  // The plan of every statement shape the store runs.
  std::vector<QueryPlan> explainQueryPlans() const;

  const std::string& path() const noexcept override;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace QV
