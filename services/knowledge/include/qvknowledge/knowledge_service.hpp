#pragma once
// The knowledge store published on the middleware: the service "QVKnowledge", whose
// methods "getObject", "contains", "update", "remove", "queryTriplet" and "add" take
// strings and answer from a TripletStore.

#include <qvstorage/triplet_store.hpp>

#include <ka/future.hpp>
#include <ka/object.hpp>
#include <ka/session.hpp>

#include <memory>
#include <string>
#include <vector>

// Marks the symbols that libqvknowledge exports; everything else stays hidden.
#define QVKNOWLEDGE_API __attribute__((visibility("default")))

namespace QV {

class QVKNOWLEDGE_API KnowledgeService {
 public:
  static constexpr const char* kServiceName = "QVKnowledge";

  explicit KnowledgeService(std::shared_ptr<TripletStore> store);

  // Every object under the key, oldest first; empty when none.
  std::vector<std::string> getObject(const std::string& domain, const std::string& subject,
                                     const std::string& predicate) const;
  // "?" in subject, predicate or object matches anything.
  bool contains(const std::string& domain, const std::string& subject, const std::string& predicate,
                const std::string& object) const;
  // Afterwards exactly `object` is stored under the key.
  void update(const std::string& domain, const std::string& subject, const std::string& predicate,
              const std::string& object);
  // "?" in subject, predicate or object matches anything; removing nothing is fine.
  void remove(const std::string& domain, const std::string& subject, const std::string& predicate,
              const std::string& object);
  // Rows {domain, subject, predicate, object}; "*" in any position matches anything.
  std::vector<std::vector<std::string>> queryTriplet(const std::string& domain,
                                                     const std::string& subject,
                                                     const std::string& predicate,
                                                     const std::string& object) const;
  // One more object under the key, without replacing.
  void add(const std::string& domain, const std::string& subject, const std::string& predicate,
           const std::string& object);

  const std::shared_ptr<TripletStore>& store() const { return _store; }

 private:
  const std::shared_ptr<TripletStore> _store;
};

// The middleware object serving `store` (multi-threaded: reads run in parallel).
QVKNOWLEDGE_API ka::AnyObject makeKnowledgeObject(std::shared_ptr<TripletStore> store);

// Serves `store` and registers it on `session` as "QVKnowledge"; answers the service id.
QVKNOWLEDGE_API ka::Future<unsigned int> registerKnowledgeService(
    const ka::SessionPtr& session, std::shared_ptr<TripletStore> store);

}  // namespace QV
