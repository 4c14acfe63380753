#pragma once
// The storage interface behind the knowledge store service, its error and the durability
// levels its implementations offer: SqliteTripletStore (one file, sqlite_triplet_store.hpp) and
// the PostgreSQL store of libqvpostgres. See docs/knowledge-store.md.

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

struct Triplet {
  std::string domain;
  std::string subject;
  std::string predicate;
  std::string object;
};

// The storage engine behind the knowledge store service: (domain, subject, predicate, object)
// triplets of byte strings compared exactly. Wildcards: "?" in contains()/remove() (subject,
// predicate, object), "*" in queryTriplet() (any position); everywhere else both are literal.
// Implementations are thread-safe and answer alike; a failed call throws KnowledgeStoreError and
// changes nothing.
class QVKNOWLEDGE_API TripletStore {
 public:
  virtual ~TripletStore();

  // Objects stored under the key, oldest first.
  virtual std::vector<std::string> getObject(const std::string& domain, const std::string& subject,
                                             const std::string& predicate) const = 0;
  virtual bool contains(const std::string& domain, const std::string& subject,
                        const std::string& predicate, const std::string& object) const = 0;
  // Rows of {domain, subject, predicate, object}, oldest first.
  virtual std::vector<std::vector<std::string>> queryTriplet(const std::string& domain,
                                                             const std::string& subject,
                                                             const std::string& predicate,
                                                             const std::string& object) const = 0;

  // Leaves `object` as the only object under the key, atomically: concurrent updates of one key
  // leave exactly one of their objects.
  virtual void update(const std::string& domain, const std::string& subject,
                      const std::string& predicate, const std::string& object) = 0;
  // Adds one more object under the key; adding a triplet that is already stored changes nothing.
  virtual void add(const std::string& domain, const std::string& subject,
                   const std::string& predicate, const std::string& object) = 0;
  // Removing nothing is not an error.
  virtual void remove(const std::string& domain, const std::string& subject,
                      const std::string& predicate, const std::string& object) = 0;
  // add() for every triplet, in one transaction: all of them are stored or none.
  virtual void addMany(const std::vector<Triplet>& triplets) = 0;

  // Where the triplets live, for messages: a file path, or a database URI without its password.
  virtual const std::string& path() const noexcept = 0;

 protected:
  TripletStore() = default;
  TripletStore(const TripletStore&) = delete;
  TripletStore& operator=(const TripletStore&) = delete;
};

}  // namespace QV
