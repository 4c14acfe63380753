#pragma once
// Builds an object out of callables and freshly made signals, without a C++ class:
// small services, adapters and tests use it.

#include <ka/anyfunction.hpp>
#include <ka/api.hpp>
#include <ka/metacalltype.hpp>
#include <ka/object.hpp>
#include <ka/signal.hpp>

#include <memory>
#include <string>
#include <vector>

namespace ka {

class KA_API DynamicObjectBuilder {
 public:
  DynamicObjectBuilder();
  ~DynamicObjectBuilder();
  DynamicObjectBuilder(const DynamicObjectBuilder&) = delete;
  DynamicObjectBuilder& operator=(const DynamicObjectBuilder&) = delete;

  // Overloads share a name; id -1 picks the next free id. Returns the method's id.
  unsigned int advertiseMethod(const std::string& name, AnyFunction function,
                               MetaCallType callType = MetaCallType::Auto, int id = -1);
  template <typename F,
            typename = std::enable_if_t<!std::is_same<std::decay_t<F>, AnyFunction>::value>>
  unsigned int advertiseMethod(const std::string& name, F&& f,
                               MetaCallType callType = MetaCallType::Auto, int id = -1) {
    return advertiseMethod(name, AnyFunction::from(std::forward<F>(f)), callType, id);
  }

  // A signal of the given argument types, owned by the object.
  template <typename... T>
  unsigned int advertiseSignal(const std::string& name, int id = -1) {
    return advertiseSignal(name, Signal<T...>::staticArgumentTypes(), id);
  }
  unsigned int advertiseSignal(const std::string& name,
                               std::vector<const TypeInterface*> argumentTypes, int id = -1);

  void setThreadingModel(ObjectThreadingModel model);

  // A new object with everything advertised so far; each call makes another object.
  AnyObject object();

 private:
  struct Description;
  std::unique_ptr<Description> _d;
};

}  // namespace ka
