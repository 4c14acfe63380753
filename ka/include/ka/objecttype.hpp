#pragma once
// The run-time description of a C++ class published as a middleware object: its
// interface plus how to invoke each method and reach each signal on an instance.
// Built by ObjectTypeBuilder and kept in a process-wide registry by type identity.

#include <ka/anyfunction.hpp>
#include <ka/api.hpp>
#include <ka/metacalltype.hpp>
#include <ka/metaobject.hpp>
#include <ka/signal.hpp>

#include <functional>
#include <memory>
#include <typeinfo>
#include <vector>

namespace ka {

struct ObjectType {
  // Invokes a method on `instance` with arguments already of the parameter types.
  using MethodInvoker = std::function<AnyValue(void* instance, void* const* args)>;
  // Finds a signal member of `instance`.
  using SignalAccessor = std::function<SignalBase*(void* instance)>;

  struct Method {
    MethodInvoker invoke;
    MetaCallType callType = MetaCallType::Auto;
  };

  MetaObject metaObject;
  ObjectThreadingModel threadingModel = ObjectThreadingModel::SingleThread;
  // Indexed like metaObject.methods() / metaObject.signals().
  std::vector<Method> methods;
  std::vector<SignalAccessor> signals;
};

using ObjectTypePtr = std::shared_ptr<const ObjectType>;

// Records `type` for the C++ type `info`, replacing an earlier registration.
KA_API void registerType(const std::type_info& info, ObjectTypePtr type);
// The registered type, or nullptr.
KA_API ObjectTypePtr findType(const std::type_info& info);

}  // namespace ka
