#pragma once
// Durable store of (domain, subject, predicate, object) triplets kept in one SQLite file: the
// storage engine behind the knowledge store service. Thread-safe; see docs/knowledge-store.md.

#include <chrono>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// Marks the symbols that libqvknowledge exports; everything else stays hidden.
#define QVKNOWLEDGE_API __attribute__((visibility("default")))

namespace QV {

// Every failure of the store: a file that cannot be opened as a store, or a SQLite error during a
// call. The text names the file and the reason; the store stays usable after a failed call.
class QVKNOWLEDGE_API KnowledgeStoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~KnowledgeStoreError() override;
};

// How far an acknowledged write is guaranteed to survive.
enum class Durability {
  // synchronous=FULL: the journal is fsynced at every commit; a write that returned survives a
  // kill of the process and a crash or power loss of the machine.
  Full,
  // synchronous=NORMAL: a write that returned survives a kill of the process; a power loss may
  // drop the last commits (never corrupts the file).
  Normal,
};

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

struct Triplet {
  std::string domain;
  std::string subject;
  std::string predicate;
  std::string object;
};

// The query plan SQLite chose for one statement shape, for diagnostics and tests.
struct QueryPlan {
  std::string statement;  // e.g. "queryTriplet(*,s,*,*)": letters are fixed positions
  std::string sql;
  std::string plan;  // EXPLAIN QUERY PLAN details, one line per step
};

// All values are byte strings compared exactly. Wildcards: "?" in contains()/remove() (subject,
// predicate, object), "*" in queryTriplet() (any position); everywhere else both are literal.
class QVKNOWLEDGE_API TripletStore {
 public:
  // Opens or creates the store in `path` (":memory:" for a private in-memory store). Throws
  // KnowledgeStoreError, leaving the file untouched, if it is not a store this build can write.
  explicit TripletStore(const std::string& path, TripletStoreOptions options = {});
  ~TripletStore();
  TripletStore(const TripletStore&) = delete;
  TripletStore& operator=(const TripletStore&) = delete;

  // Objects stored under the key, oldest first.
  std::vector<std::string> getObject(const std::string& domain, const std::string& subject,
                                     const std::string& predicate) const;
  bool contains(const std::string& domain, const std::string& subject, const std::string& predicate,
                const std::string& object) const;
  // Rows of {domain, subject, predicate, object} in storage order.
  std::vector<std::vector<std::string>> queryTriplet(const std::string& domain,
                                                     const std::string& subject,
                                                     const std::string& predicate,
                                                     const std::string& object) const;

  // Leaves `object` as the only object under the key, atomically.
  void update(const std::string& domain, const std::string& subject, const std::string& predicate,
              const std::string& object);
  // Adds one more object under the key; adding a triplet that is already stored changes nothing.
  void add(const std::string& domain, const std::string& subject, const std::string& predicate,
           const std::string& object);
  void remove(const std::string& domain, const std::string& subject, const std::string& predicate,
              const std::string& object);
  // add() for every triplet, in one transaction: all of them are stored or none.
  void addMany(const std::vector<Triplet>& triplets);

  // The plan of every statement shape the store runs.
  std::vector<QueryPlan> explainQueryPlans() const;

  const std::string& path() const noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace QV
