#include <ka/detail/memberid.hpp>
#include <ka/dynamicobjectbuilder.hpp>

#include "localobject.hpp"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <stdexcept>

namespace ka {

namespace {

// The instance behind a dynamic object: its callables and its own signals.
struct DynamicInstance {
  std::vector<AnyFunction> functions;
  std::vector<std::unique_ptr<SignalBase>> signals;
};

}  // namespace

struct DynamicObjectBuilder::Description {
  std::vector<MetaMethod> methods;
  std::vector<AnyFunction> functions;
  std::vector<MetaCallType> callTypes;
  std::vector<MetaSignal> signals;
  ObjectThreadingModel threadingModel = ObjectThreadingModel::SingleThread;
};

DynamicObjectBuilder::DynamicObjectBuilder() : _d(std::make_unique<Description>()) {}
DynamicObjectBuilder::~DynamicObjectBuilder() = default;

unsigned int DynamicObjectBuilder::advertiseMethod(const std::string& name, AnyFunction function,
                                                   MetaCallType callType, int id) {
  if (!function.isValid()) {
    throw std::invalid_argument("Cannot advertise \"" + name + "\" with an empty function");
  }
  MetaMethod meta;
  meta.uid = detail::pickMemberId(id, _d->methods);
  meta.name = name;
  meta.parameterTypes = function.parameterTypes();
  meta.returnType = detail::visibleResultType(function.resultType());
  _d->methods.push_back(std::move(meta));
  _d->functions.push_back(std::move(function));
  _d->callTypes.push_back(callType);
  return _d->methods.back().uid;
}

unsigned int DynamicObjectBuilder::advertiseSignal(const std::string& name,
                                                   std::vector<const TypeInterface*> argumentTypes,
                                                   int id) {
  MetaSignal meta;
  meta.uid = detail::pickMemberId(id, _d->signals);
  meta.name = name;
  meta.argumentTypes = std::move(argumentTypes);
  _d->signals.push_back(std::move(meta));
  return _d->signals.back().uid;
}

void DynamicObjectBuilder::setThreadingModel(ObjectThreadingModel model) {
  _d->threadingModel = model;
}

AnyObject DynamicObjectBuilder::object() {
  auto instance = boost::make_shared<DynamicInstance>();
  instance->functions = _d->functions;
  for (const auto& s : _d->signals) {
    instance->signals.push_back(std::make_unique<SignalBase>(s.argumentTypes));
  }
  auto type = std::make_shared<ObjectType>();
  type->metaObject = MetaObject(_d->methods, _d->signals);
  type->threadingModel = _d->threadingModel;
  for (std::size_t i = 0; i < _d->functions.size(); ++i) {
    type->methods.push_back(ObjectType::Method{
        [i](void* self, void* const* args) {
          return static_cast<DynamicInstance*>(self)->functions[i].callPrepared(args);
        },
        _d->callTypes[i]});
  }
  for (std::size_t i = 0; i < _d->signals.size(); ++i) {
    type->signals.push_back([i](void* self) -> SignalBase* {
      return static_cast<DynamicInstance*>(self)->signals[i].get();
    });
  }
  return AnyObject(boost::make_shared<detail::LocalObject>(std::move(type), std::move(instance)));
}

}  // namespace ka
