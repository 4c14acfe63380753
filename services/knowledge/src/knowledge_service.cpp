#include <qvknowledge/knowledge_service.hpp>

#include <ka/objecttypebuilder.hpp>

#include <boost/make_shared.hpp>

#include <mutex>

namespace QV {
namespace {

void registerKnowledgeType() {
  static std::once_flag once;
  std::call_once(once, [] {
    ka::ObjectTypeBuilder<KnowledgeService> b;
    b.buildFor(true);
    b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
    b.advertiseMethod("getObject", &KnowledgeService::getObject);
    b.advertiseMethod("contains", &KnowledgeService::contains);
    b.advertiseMethod("update", &KnowledgeService::update);
    b.advertiseMethod("remove", &KnowledgeService::remove);
    b.advertiseMethod("queryTriplet", &KnowledgeService::queryTriplet);
    b.advertiseMethod("add", &KnowledgeService::add);
    b.registerType();
  });
}

}  // namespace

KnowledgeService::KnowledgeService(std::shared_ptr<TripletStore> store) : _store(std::move(store)) {
  if (!_store) {
    throw std::invalid_argument("KnowledgeService needs a store");
  }
}

std::vector<std::string> KnowledgeService::getObject(const std::string& domain,
                                                     const std::string& subject,
                                                     const std::string& predicate) const {
  return _store->getObject(domain, subject, predicate);
}

bool KnowledgeService::contains(const std::string& domain, const std::string& subject,
                                const std::string& predicate, const std::string& object) const {
  return _store->contains(domain, subject, predicate, object);
}

void KnowledgeService::update(const std::string& domain, const std::string& subject,
                              const std::string& predicate, const std::string& object) {
  _store->update(domain, subject, predicate, object);
}

void KnowledgeService::remove(const std::string& domain, const std::string& subject,
                              const std::string& predicate, const std::string& object) {
  _store->remove(domain, subject, predicate, object);
}

std::vector<std::vector<std::string>> KnowledgeService::queryTriplet(
    const std::string& domain, const std::string& subject, const std::string& predicate,
    const std::string& object) const {
  return _store->queryTriplet(domain, subject, predicate, object);
}

void KnowledgeService::add(const std::string& domain, const std::string& subject,
                           const std::string& predicate, const std::string& object) {
  _store->add(domain, subject, predicate, object);
}

ka::AnyObject makeKnowledgeObject(std::shared_ptr<TripletStore> store) {
  registerKnowledgeType();
  return ka::makeObject(boost::make_shared<KnowledgeService>(std::move(store)));
}

ka::Future<unsigned int> registerKnowledgeService(const ka::SessionPtr& session,
                                                  std::shared_ptr<TripletStore> store) {
  return session->registerService(KnowledgeService::kServiceName,
                                  makeKnowledgeObject(std::move(store)));
}

}  // namespace QV
