#include "wire/object_table.hpp"

#include "wire/remote_object.hpp"

#include <boost/make_shared.hpp>

namespace ka {
namespace wire {

ObjectTable::ObjectTable(const AnyObject& directory) {
  if (directory) {
    _exports[kDirectoryObjectId] = Export{directory, 0};
    _exportIds[directory.asGenericObject().get()] = kDirectoryObjectId;
  }
}

AnyObject ObjectTable::exported(std::uint32_t id) const {
  std::lock_guard<std::mutex> lock(_mutex);
  const auto it = _exports.find(id);
  return it == _exports.end() ? AnyObject() : it->second.object;
}

AnyObject ObjectTable::release(const ReleaseMessage& message) {
  std::lock_guard<std::mutex> lock(_mutex);
  const auto it = _exports.find(message.object);
  if (it == _exports.end() || message.object == kDirectoryObjectId) {
    return AnyObject();
  }
  Export& e = it->second;
  e.sent = message.count >= e.sent ? 0 : e.sent - message.count;
  if (e.sent != 0) {
    return AnyObject();
  }
  AnyObject dropped = std::move(e.object);
  _exportIds.erase(dropped.asGenericObject().get());
  _exports.erase(it);
  return dropped;
}

void ObjectTable::forgetImport(std::uint32_t id, const RemoteObject* self) {
  std::lock_guard<std::mutex> lock(_mutex);
  const auto it = _imports.find(id);
  if (it != _imports.end() && it->second.raw == self) {
    _imports.erase(it);
  }
}

ObjectTable::Exports ObjectTable::takeExports() {
  Exports taken;
  std::lock_guard<std::mutex> lock(_mutex);
  taken.swap(_exports);
  _exportIds.clear();
  return taken;
}

std::size_t ObjectTable::exportCount() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _exports.size();
}

std::size_t ObjectTable::importCount() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _imports.size();
}

std::uint32_t ObjectTable::exportObject(const boost::shared_ptr<GenericObject>& object) {
  std::lock_guard<std::mutex> lock(_mutex);
  const auto known = _exportIds.find(object.get());
  if (known != _exportIds.end()) {
    ++_exports[known->second].sent;
    return known->second;
  }
  const std::uint32_t id = _nextExportId++;
  _exports[id] = Export{AnyObject(object), 1};
  _exportIds[object.get()] = id;
  return id;
}

void ObjectTable::pack(Packer& pk, const boost::shared_ptr<GenericObject>& object) {
  if (!object) {
    pk.pack_nil();
    return;
  }
  packObjectReference(pk, exportObject(object), describe(object->metaObject()));
}

boost::shared_ptr<GenericObject> ObjectTable::unpack(const msgpack::object& o) {
  if (o.type == msgpack::type::NIL) {
    return nullptr;
  }
  const ObjectReference ref = unpackObjectReference(o);
  // Declared before the lock: the last reference to a stale import must not go with it held.
  boost::shared_ptr<RemoteObject> object;
  std::lock_guard<std::mutex> lock(_mutex);
  const auto it = _imports.find(ref.id);
  if (it != _imports.end()) {
    object = it->second.object.lock();
  }
  if (object) {
    object->received();
    return object;
  }
  object = boost::make_shared<RemoteObject>(_owner, ref.id, toMetaObject(ref.description));
  _imports[ref.id] = Import{object, object.get()};
  return object;
}

}  // namespace wire
}  // namespace ka
