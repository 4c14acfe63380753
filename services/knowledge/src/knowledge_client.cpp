#include <qvknowledge/knowledge_client.hpp>

namespace QV {

using Strings = std::vector<std::string>;
using Rows = std::vector<Strings>;

Strings KnowledgeClient::getObject(const std::string& domain, const std::string& subject,
                                   const std::string& predicate) const {
  return _service->call<Strings>("getObject", domain, subject, predicate);
}

bool KnowledgeClient::contains(const std::string& domain, const std::string& subject,
                               const std::string& predicate, const std::string& object) const {
  return _service->call<bool>("contains", domain, subject, predicate, object);
}

void KnowledgeClient::update(const std::string& domain, const std::string& subject,
                             const std::string& predicate, const std::string& object) const {
  _service->call<void>("update", domain, subject, predicate, object);
}

void KnowledgeClient::remove(const std::string& domain, const std::string& subject,
                             const std::string& predicate, const std::string& object) const {
  _service->call<void>("remove", domain, subject, predicate, object);
}

Rows KnowledgeClient::queryTriplet(const std::string& domain, const std::string& subject,
                                   const std::string& predicate, const std::string& object) const {
  return _service->call<Rows>("queryTriplet", domain, subject, predicate, object);
}

void KnowledgeClient::add(const std::string& domain, const std::string& subject,
                          const std::string& predicate, const std::string& object) const {
  _service->call<void>("add", domain, subject, predicate, object);
}

}  // namespace QV
