#pragma once
// Object<T>: a shared handle to a middleware object. Object<Empty> (AnyObject) is the
// generic handle that service lookups answer with.

#include <ka/api.hpp>
#include <ka/genericobject.hpp>
#include <ka/objecttype.hpp>

#include <boost/shared_ptr.hpp>

#include <stdexcept>
#include <typeinfo>

namespace ka {

struct Empty {};

namespace detail {
// The shared GenericObject serving `instance` (one per instance while it is in use),
// made with the type registered for `info`; throws when that type is not registered.
KA_API boost::shared_ptr<GenericObject> objectForInstance(const boost::shared_ptr<void>& instance,
                                                          const std::type_info& info);
[[noreturn]] KA_API void throwNullObject();
}  // namespace detail

template <typename T>
class Object {
 public:
  Object() = default;
  explicit Object(boost::shared_ptr<GenericObject> object) : _object(std::move(object)) {}
  template <typename G, typename = std::enable_if_t<std::is_base_of<GenericObject, G>::value>,
            typename = void>
  explicit Object(const boost::shared_ptr<G>& object)
      : _object(boost::static_pointer_cast<GenericObject>(object)) {}
  // Wraps an instance of a type registered with registerType (std::runtime_error
  // naming the type otherwise).
  template <typename U, typename = std::enable_if_t<!std::is_base_of<GenericObject, U>::value>>
  explicit Object(const boost::shared_ptr<U>& instance)
      : _object(detail::objectForInstance(instance, typeid(U))) {}
  template <typename U>
  Object(const Object<U>& other) : _object(other.asGenericObject()) {}

  // Throws std::runtime_error "This object is null" when the handle holds nothing.
  GenericObject* operator->() const {
    if (!_object) {
      detail::throwNullObject();
    }
    return _object.get();
  }
  GenericObject& operator*() const { return *operator->(); }

  bool isValid() const { return static_cast<bool>(_object); }
  explicit operator bool() const { return isValid(); }
  const boost::shared_ptr<GenericObject>& asGenericObject() const { return _object; }
  void reset() { _object.reset(); }

  template <typename U>
  bool operator==(const Object<U>& other) const {
    return _object == other.asGenericObject();
  }
  template <typename U>
  bool operator!=(const Object<U>& other) const {
    return !(*this == other);
  }

 private:
  boost::shared_ptr<GenericObject> _object;
};

using AnyObject = Object<Empty>;

// Publishes a registered type's instance as an object.
template <typename T>
AnyObject makeObject(const boost::shared_ptr<T>& instance) {
  return AnyObject(detail::objectForInstance(instance, typeid(T)));
}

namespace detail {

template <typename T>
class ObjectTypeImpl : public StorageImpl<Object<T>, ObjectTypeInterface> {
 public:
  const Signature& signature() const override { return _signature; }
  const void* identity(const void* storage) const override {
    return static_cast<const Object<T>*>(storage)->asGenericObject().get();
  }
  boost::shared_ptr<GenericObject> object(const void* storage) const override {
    return static_cast<const Object<T>*>(storage)->asGenericObject();
  }
  void setObject(void* storage, boost::shared_ptr<GenericObject> object) const override {
    *static_cast<Object<T>*>(storage) = Object<T>(std::move(object));
  }

 private:
  Signature _signature{"o"};
};

template <typename T>
struct TypeOf<Object<T>> {
  static const TypeInterface* get() { return immortal<ObjectTypeImpl<T>>(); }
};

}  // namespace detail
}  // namespace ka
