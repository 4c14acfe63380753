#pragma once
// The objects one connection exports to its peer and imports from it, by wire id, and the codec
// that turns object handles inside values into those ids and back. Thread-safe.

#include <ka/object.hpp>

#include "wire/messages.hpp"
#include "wire/value_codec.hpp"

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace ka {
namespace wire {

class Connection;
class RemoteObject;

class ObjectTable final : public ObjectCodec {
 public:
  struct Export {
    AnyObject object;
    // How many times its id was sent and not released yet.
    std::uint64_t sent = 0;
  };
  using Exports = std::map<std::uint32_t, Export>;

  // `directory`, when not null, is exported as kDirectoryObjectId for the connection's life.
  explicit ObjectTable(const AnyObject& directory);

  // The connection whose peer the imported objects live at; set once, before any unpack().
  void setOwner(std::weak_ptr<Connection> owner) { _owner = std::move(owner); }

  // The exported object with this id, or a null object.
  AnyObject exported(std::uint32_t id) const;
  // The peer released `message.count` of the ids it received; returns the object when that was
  // the last one (the caller decides where its last handle goes), else a null object.
  AnyObject release(const ReleaseMessage& message);
  // Forgets the import of `id`, if `self` is still the object of record for it.
  void forgetImport(std::uint32_t id, const RemoteObject* self);
  // Empties the exports (the connection ended) and gives them to the caller.
  Exports takeExports();

  std::size_t exportCount() const;
  std::size_t importCount() const;

  // ObjectCodec.
  void pack(Packer& pk, const boost::shared_ptr<GenericObject>& object) override;
  boost::shared_ptr<GenericObject> unpack(const msgpack::object& o) override;

 private:
  struct Import {
    boost::weak_ptr<RemoteObject> object;
    const RemoteObject* raw = nullptr;  // tells a replaced import from the live one
  };

  std::uint32_t exportObject(const boost::shared_ptr<GenericObject>& object);

  std::weak_ptr<Connection> _owner;
  mutable std::mutex _mutex;
  // All guarded by _mutex:
  std::uint32_t _nextExportId = kDirectoryObjectId + 1;
  Exports _exports;
  std::map<const GenericObject*, std::uint32_t> _exportIds;
  std::map<std::uint32_t, Import> _imports;
};

}  // namespace wire
}  // namespace ka
