#pragma once
// The storage interface behind the knowledge store service and its error. The backends
// (services/sqlite, services/postgres) implement it; store_factory.hpp opens one by URI. See
// docs/knowledge-store.md.

#include <qvstorage/api.hpp>
#include <qvstorage/durability.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace QV {

// Every failure of the store: a file or database that cannot be opened as a store, or a failed
// call. The text names the store and the reason; the store stays usable after a failed call.
class QVSTORAGE_API KnowledgeStoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~KnowledgeStoreError() override;
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
class QVSTORAGE_API TripletStore {
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
