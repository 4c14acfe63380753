#pragma once
// ObjectTypeBuilder<T>: describes which members of T are the methods and signals of
// the middleware object that serves a T.

#include <ka/anyfunction.hpp>
#include <ka/detail/memberid.hpp>
#include <ka/metacalltype.hpp>
#include <ka/objecttype.hpp>
#include <ka/signal.hpp>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace ka {

template <typename T>
class ObjectTypeBuilder {
 public:
  ObjectTypeBuilder() { buildFor(false); }

  // Starts a fresh description of T. With autoRegister the type is also registered
  // for T when it is first obtained through type().
  void buildFor(bool autoRegister) {
    _autoRegister = autoRegister;
    _methods.clear();
    _signals.clear();
    _invokers.clear();
    _accessors.clear();
    _threadingModel = ObjectThreadingModel::SingleThread;
    _built.reset();
  }

  void setThreadingModel(ObjectThreadingModel model) { _threadingModel = model; }

  // Advertises a member function (const or not) of T or of a base of T. Overloads
  // share a name. id -1 lets the builder pick the next free id; an id already taken
  // throws std::logic_error. Returns the method's id.
  template <typename M>
  unsigned int advertiseMethod(const std::string& name, M method,
                               MetaCallType callType = MetaCallType::Auto, int id = -1) {
    return addMethod(name, method, callType, id);
  }

  // Advertises a signal member (a ka::Signal<...> data member of T).
  template <typename S, typename C>
  unsigned int advertiseSignal(const std::string& name, S C::*member, int id = -1) {
    static_assert(std::is_base_of<SignalBase, S>::value,
                  "advertiseSignal needs a ka::Signal member");
    static_assert(std::is_base_of<C, T>::value, "the signal must be a member of T or of a base");
    MetaSignal meta;
    meta.uid = detail::pickMemberId(id, _signals);
    meta.name = name;
    meta.argumentTypes = S::staticArgumentTypes();
    _signals.push_back(meta);
    _accessors.push_back(
        [member](void* instance) -> SignalBase* { return &(static_cast<T*>(instance)->*member); });
    _built.reset();
    return meta.uid;
  }

  // Advertises a signal that a T reaches through `accessor(T&)`, which returns a reference to a
  // ka::Signal<...> (one owned by an object T refers to, say).
  template <typename F>
  unsigned int advertiseSignalVia(const std::string& name, F accessor, int id = -1) {
    using S = std::remove_reference_t<std::invoke_result_t<F&, T&>>;
    static_assert(std::is_base_of<SignalBase, S>::value,
                  "the accessor must return a ka::Signal reference");
    MetaSignal meta;
    meta.uid = detail::pickMemberId(id, _signals);
    meta.name = name;
    meta.argumentTypes = S::staticArgumentTypes();
    _signals.push_back(meta);
    _accessors.push_back([accessor](void* instance) -> SignalBase* {
      return &accessor(*static_cast<T*>(instance));
    });
    _built.reset();
    return meta.uid;
  }

  // The description built so far (built once until the builder changes again).
  ObjectTypePtr type() {
    if (!_built) {
      auto t = std::make_shared<ObjectType>();
      t->metaObject = MetaObject(_methods, _signals);
      t->threadingModel = _threadingModel;
      t->methods = _invokers;
      t->signals = _accessors;
      _built = std::move(t);
      if (_autoRegister) {
        ka::registerType(typeid(T), _built);
      }
    }
    return _built;
  }

  // Registers type() for T.
  void registerType() { ka::registerType(typeid(T), type()); }

 private:
  template <typename R, typename C, typename... A>
  unsigned int addMethod(const std::string& name, R (C::*method)(A...), MetaCallType callType,
                         int id) {
    static_assert(std::is_base_of<C, T>::value, "the method must be a member of T or of a base");
    return addInvoker<R, A...>(name, callType, id, [method](void* instance, void* const* args) {
      C* self = static_cast<T*>(instance);
      auto f = [self, method](A... a) -> R { return (self->*method)(std::forward<A>(a)...); };
      return detail::invokeWith<R, decltype(f), A...>(f, args, std::index_sequence_for<A...>());
    });
  }

  template <typename R, typename C, typename... A>
  unsigned int addMethod(const std::string& name, R (C::*method)(A...) const, MetaCallType callType,
                         int id) {
    static_assert(std::is_base_of<C, T>::value, "the method must be a member of T or of a base");
    return addInvoker<R, A...>(name, callType, id, [method](void* instance, void* const* args) {
      const C* self = static_cast<const T*>(instance);
      auto f = [self, method](A... a) -> R { return (self->*method)(std::forward<A>(a)...); };
      return detail::invokeWith<R, decltype(f), A...>(f, args, std::index_sequence_for<A...>());
    });
  }

  template <typename R, typename C, typename... A>
  unsigned int addMethod(const std::string& name, R (C::*method)(A...) noexcept,
                         MetaCallType callType, int id) {
    return addMethod(name, static_cast<R (C::*)(A...)>(method), callType, id);
  }

  template <typename R, typename C, typename... A>
  unsigned int addMethod(const std::string& name, R (C::*method)(A...) const noexcept,
                         MetaCallType callType, int id) {
    return addMethod(name, static_cast<R (C::*)(A...) const>(method), callType, id);
  }

  template <typename R, typename... A>
  unsigned int addInvoker(const std::string& name, MetaCallType callType, int id,
                          ObjectType::MethodInvoker invoker) {
    MetaMethod meta;
    meta.uid = detail::pickMemberId(id, _methods);
    meta.name = name;
    meta.parameterTypes = {typeOf<A>()...};
    meta.returnType = detail::visibleResultType(typeOf<R>());
    _methods.push_back(std::move(meta));
    _invokers.push_back(ObjectType::Method{std::move(invoker), callType});
    _built.reset();
    return _methods.back().uid;
  }

  bool _autoRegister = false;
  ObjectThreadingModel _threadingModel = ObjectThreadingModel::SingleThread;
  std::vector<MetaMethod> _methods;
  std::vector<MetaSignal> _signals;
  std::vector<ObjectType::Method> _invokers;
  std::vector<ObjectType::SignalAccessor> _accessors;
  ObjectTypePtr _built;
};

}  // namespace ka
