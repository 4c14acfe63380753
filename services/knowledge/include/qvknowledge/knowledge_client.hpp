#pragma once
// KnowledgeClient: the knowledge store service "QVKnowledge" called through the middleware with
// its own types, on a handle from a session, whether the service runs in this process or another.

#include <ka/object.hpp>

#include <string>
#include <vector>

// Marks the symbols that libqvknowledge exports (the same definition as the store's header).
#define QVKNOWLEDGE_API __attribute__((visibility("default")))

namespace QV {

// Each method is a blocking call of the service's method of the same name, arguments in the same
// order; see KnowledgeService for what they do. A failed call throws ka::FutureError with the
// service's error text; a client on an empty handle throws std::runtime_error "This object is
// null" from every method. Copyable, and safe to use from several threads at once.
class QVKNOWLEDGE_API KnowledgeClient {
 public:
  static constexpr const char* kServiceName = "QVKnowledge";

  KnowledgeClient() = default;
  explicit KnowledgeClient(ka::AnyObject service) : _service(std::move(service)) {}

  bool isValid() const { return _service.isValid(); }
  const ka::AnyObject& object() const { return _service; }

  std::vector<std::string> getObject(const std::string& domain, const std::string& subject,
                                     const std::string& predicate) const;
  bool contains(const std::string& domain, const std::string& subject, const std::string& predicate,
                const std::string& object) const;
  void update(const std::string& domain, const std::string& subject, const std::string& predicate,
              const std::string& object) const;
  void remove(const std::string& domain, const std::string& subject, const std::string& predicate,
              const std::string& object) const;
  std::vector<std::vector<std::string>> queryTriplet(const std::string& domain,
                                                     const std::string& subject,
                                                     const std::string& predicate,
                                                     const std::string& object) const;
  void add(const std::string& domain, const std::string& subject, const std::string& predicate,
           const std::string& object) const;

 private:
  ka::AnyObject _service;
};

}  // namespace QV
