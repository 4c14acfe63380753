// The msgpack layout of values (docs/protocol.md gives it as a grammar):
//   v nil · b bool · c C w W i I l L integer, smallest msgpack form · f float32 · d float64
//   s str (bytes, no UTF-8 requirement) · [T] array · {KV} map · (T...) array of the members
//   m nil when it holds nothing, else [content signature, content]
//   o nil for a null handle, else whatever the connection's ObjectCodec writes
// Reading is strict about kinds and ranges, lenient only where a writer in another language
// has no choice: str and bin both read as "s", an integer reads as "f"/"d" when it is exact,
// and a float64 reads as "f" when in range. The msgpack forms each letter accepts are a column
// of kTypeCodes (<ka/valuekinds.hpp>); what is read from them is per kind below.
#include "wire/value_codec.hpp"

#include <ka/object.hpp>
#include <ka/signaturetype.hpp>
#include <ka/valuekinds.hpp>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

namespace ka {
namespace wire {
namespace {

// msgpack's pack_float and pack_double write a float that holds an integer as that integer, and
// convert 2^64 to uint64_t on the way, which is undefined. `f` is always float32 and `d` always
// float64 on the wire, so the bytes are written here: the format byte, then the bits big-endian.
template <typename Bits>
void packFloatBits(Packer& pk, char format, Bits bits) {
  char bytes[1 + sizeof(Bits)];
  bytes[0] = format;
  for (std::size_t i = 0; i < sizeof(Bits); ++i) {
    bytes[1 + i] = static_cast<char>(bits >> (8 * (sizeof(Bits) - 1 - i)));
  }
  pk.pack_bin_body(bytes, sizeof(bytes));  // appends the bytes as they are
}

void packFloat32(Packer& pk, float value) {
  std::uint32_t bits;
  std::memcpy(&bits, &value, sizeof(bits));
  packFloatBits(pk, static_cast<char>(0xca), bits);
}

void packFloat64(Packer& pk, double value) {
  std::uint64_t bits;
  std::memcpy(&bits, &value, sizeof(bits));
  packFloatBits(pk, static_cast<char>(0xcb), bits);
}

// Writers stop at the depth readers accept, so a value that cannot be read is not sent.
constexpr std::size_t kMaxDepth = DecodeLimits().maxDepth;

bool hasUnknown(const Signature& s) {
  return s.toString().find('X') != std::string::npos;
}

// ---- descriptions for error texts ----

std::string describeExpected(const TypeInterface& t) {
  const std::string& text = t.signature().toString();
  const TypeCodeInfo* row = text.empty() ? nullptr : typeCodeInfo(text[0]);
  return text + " (" + (row != nullptr ? row->name : "unknown type") + ")";
}

std::string describeGot(const msgpack::object& o) {
  switch (o.type) {
    case msgpack::type::NIL:
      return "nil";
    case msgpack::type::BOOLEAN:
      return "bool";
    case msgpack::type::POSITIVE_INTEGER:
      return "uint";
    case msgpack::type::NEGATIVE_INTEGER:
      return "negative int";
    case msgpack::type::FLOAT32:
      return "float32";
    case msgpack::type::FLOAT64:
      return "float64";
    case msgpack::type::STR:
      return "str";
    case msgpack::type::BIN:
      return "bin";
    case msgpack::type::ARRAY:
      return "array of " + std::to_string(o.via.array.size);
    case msgpack::type::MAP:
      return "map of " + std::to_string(o.via.map.size);
    case msgpack::type::EXT:
      return "ext";
  }
  return "an unknown msgpack type";
}

std::uint16_t formOf(const msgpack::object& o) {
  switch (o.type) {
    case msgpack::type::NIL:
      return kWireNil;
    case msgpack::type::BOOLEAN:
      return kWireBool;
    case msgpack::type::POSITIVE_INTEGER:
    case msgpack::type::NEGATIVE_INTEGER:
      return kWireInteger;
    case msgpack::type::FLOAT32:
    case msgpack::type::FLOAT64:
      return kWireFloat;
    case msgpack::type::STR:
      return kWireStr;
    case msgpack::type::BIN:
      return kWireBin;
    case msgpack::type::ARRAY:
      return kWireArray;
    case msgpack::type::MAP:
      return kWireMap;
    case msgpack::type::EXT:
      return kWireExt;
  }
  return 0;
}

[[noreturn]] void mismatch(const TypeInterface& t, const msgpack::object& o,
                           const std::string& detail = std::string()) {
  throw DecodeError("expected " + describeExpected(t) + ", got " + describeGot(o) +
                    (detail.empty() ? std::string() : " " + detail));
}

// ---- writing ----

class Writer {
 public:
  Writer(Packer& pk, ObjectCodec* objects) : _pk(pk), _objects(objects) {}

  void write(const AnyReference& value, std::size_t depth) {
    if (!value.isValid()) {
      throw std::runtime_error("An invalid value has no wire form");
    }
    const TypeInterface* t = value.type();
    void* storage = value.rawValue();
    switch (t->kind()) {
      case TypeKind::Void:
        _pk.pack_nil();
        return;
      case TypeKind::Int: {
        const auto* it = static_cast<const IntTypeInterface*>(t);
        const std::int64_t v = it->get(storage);
        if (it->size() == 0) {
          v != 0 ? _pk.pack_true() : _pk.pack_false();
        } else if (it->isSigned()) {
          _pk.pack_int64(v);
        } else {
          _pk.pack_uint64(static_cast<std::uint64_t>(v));
        }
        return;
      }
      case TypeKind::Float: {
        const auto* ft = static_cast<const FloatTypeInterface*>(t);
        if (ft->size() == 4) {
          packFloat32(_pk, static_cast<float>(ft->get(storage)));
        } else {
          packFloat64(_pk, ft->get(storage));
        }
        return;
      }
      case TypeKind::String: {
        const std::string& s = static_cast<const StringTypeInterface*>(t)->get(storage);
        _pk.pack_str(checkedSize(s.size(), "string"));
        _pk.pack_str_body(s.data(), static_cast<std::uint32_t>(s.size()));
        return;
      }
      case TypeKind::List: {
        const auto* lt = static_cast<const ListTypeInterface*>(t);
        const std::size_t n = lt->size(storage);
        enter(depth);
        _pk.pack_array(checkedSize(n, "list"));
        for (std::size_t i = 0; i < n; ++i) {
          write(AnyReference(lt->elementType(), lt->element(storage, i)), depth + 1);
        }
        return;
      }
      case TypeKind::Map: {
        const auto* mt = static_cast<const MapTypeInterface*>(t);
        enter(depth);
        _pk.pack_map(checkedSize(mt->size(storage), "map"));
        mt->forEach(storage, [&](const void* k, void* v) {
          write(AnyReference(mt->keyType(), const_cast<void*>(k)), depth + 1);
          write(AnyReference(mt->elementType(), v), depth + 1);
        });
        return;
      }
      case TypeKind::Tuple: {
        const auto* tt = static_cast<const TupleTypeInterface*>(t);
        const auto& members = tt->memberTypes();
        enter(depth);
        _pk.pack_array(checkedSize(members.size(), "tuple"));
        for (std::size_t i = 0; i < members.size(); ++i) {
          write(AnyReference(members[i], tt->member(storage, i)), depth + 1);
        }
        return;
      }
      case TypeKind::Dynamic: {
        // A dynamic value holding another one is written as what it finally holds: the
        // reader needs a concrete signature, and there is only one way to write a value.
        AnyReference content = static_cast<const DynamicTypeInterface*>(t)->content(storage);
        while (content.isValid() && content.type()->kind() == TypeKind::Dynamic) {
          content = content.content();
        }
        if (!content.isValid()) {
          _pk.pack_nil();
          return;
        }
        const Signature& signature = content.type()->signature();
        if (hasUnknown(signature)) {
          throw std::runtime_error("A value of signature '" + signature.toString() +
                                   "' has no wire form");
        }
        enter(depth);
        _pk.pack_array(2);
        _pk.pack_str(static_cast<std::uint32_t>(signature.toString().size()));
        _pk.pack_str_body(signature.toString().data(),
                          static_cast<std::uint32_t>(signature.toString().size()));
        write(content, depth + 1);
        return;
      }
      case TypeKind::Object: {
        const boost::shared_ptr<GenericObject> object =
            static_cast<const ObjectTypeInterface*>(t)->object(storage);
        if (!object) {
          _pk.pack_nil();
          return;
        }
        if (_objects == nullptr) {
          throw std::runtime_error("An object handle cannot be sent without an object codec");
        }
        _objects->pack(_pk, object);
        return;
      }
      case TypeKind::Unknown:
        break;
    }
    throw std::runtime_error("A value of signature '" + t->signature().toString() +
                             "' has no wire form");
  }

 private:
  static void enter(std::size_t depth) {
    if (depth + 1 > kMaxDepth) {
      throw std::runtime_error("The value nests deeper than " + std::to_string(kMaxDepth) +
                               " levels");
    }
  }
  static std::uint32_t checkedSize(std::size_t n, const char* what) {
    if (n > std::numeric_limits<std::uint32_t>::max()) {
      throw std::runtime_error(std::string("A ") + what + " of " + std::to_string(n) +
                               " elements is too large to send");
    }
    return static_cast<std::uint32_t>(n);
  }

  Packer& _pk;
  ObjectCodec* _objects;
};

// ---- reading ----

AnyValue fresh(const TypeInterface& t) {
  return AnyValue(&t, t.initializeStorage(), true);
}

class Reader {
 public:
  Reader(ObjectCodec* objects, std::size_t maxDepth) : _objects(objects), _maxDepth(maxDepth) {}

  AnyValue read(const msgpack::object& o, const TypeInterface& t, std::size_t depth) {
    // Whether the msgpack form can be one of the type is the same question for every kind. The
    // readers below rely on it, so a type whose signature does not start with a code of its kind
    // (or with one that never travels) is not read at all.
    const std::string& text = t.signature().toString();
    const TypeCodeInfo* code = text.empty() ? nullptr : typeCodeInfo(text[0]);
    if (code == nullptr || code->kind != t.kind() || code->wireForms == 0) {
      throw DecodeError("A value of signature '" + text + "' cannot be read from the wire");
    }
    if ((code->wireForms & formOf(o)) == 0) {
      mismatch(t, o, code->layout);
    }
    switch (t.kind()) {
      case TypeKind::Void:
        return AnyValue::makeVoid();
      case TypeKind::Int:
        return readInt(o, static_cast<const IntTypeInterface&>(t));
      case TypeKind::Float:
        return readFloat(o, static_cast<const FloatTypeInterface&>(t));
      case TypeKind::String: {
        AnyValue out = fresh(t);
        // str and bin share the layout of their size and pointer.
        static_cast<const StringTypeInterface&>(t).set(out.rawValue(),
                                                       std::string(o.via.str.ptr, o.via.str.size));
        return out;
      }
      case TypeKind::List:
        return readList(o, static_cast<const ListTypeInterface&>(t), depth);
      case TypeKind::Map:
        return readMap(o, static_cast<const MapTypeInterface&>(t), depth);
      case TypeKind::Tuple:
        return readTuple(o, static_cast<const TupleTypeInterface&>(t), depth);
      case TypeKind::Dynamic:
        return readDynamic(o, static_cast<const DynamicTypeInterface&>(t), depth);
      case TypeKind::Object:
        return readObject(o, static_cast<const ObjectTypeInterface&>(t));
      case TypeKind::Unknown:  // no row of this kind travels
        break;
    }
    throw DecodeError("A value of signature '" + text + "' cannot be read from the wire");
  }

 private:
  void enter(const TypeInterface& t, const msgpack::object& o, std::size_t depth) const {
    if (depth + 1 > _maxDepth) {
      mismatch(t, o, "nested deeper than " + std::to_string(_maxDepth) + " levels");
    }
  }

  static AnyValue readInt(const msgpack::object& o, const IntTypeInterface& t) {
    AnyValue out = fresh(t);
    if (t.size() == 0) {
      t.set(out.rawValue(), o.via.boolean ? 1 : 0);
      return out;
    }
    const unsigned bits = static_cast<unsigned>(t.size() * 8);
    if (o.type == msgpack::type::POSITIVE_INTEGER) {
      const std::uint64_t max = t.isSigned()
                                    ? (std::uint64_t{1} << (bits - 1)) - 1
                                    : (bits == 64 ? std::numeric_limits<std::uint64_t>::max()
                                                  : (std::uint64_t{1} << bits) - 1);
      if (o.via.u64 > max) {
        mismatch(t, o, std::to_string(o.via.u64) + " (out of range)");
      }
      t.set(out.rawValue(), static_cast<std::int64_t>(o.via.u64));
      return out;
    }
    if (o.type == msgpack::type::NEGATIVE_INTEGER) {
      const std::int64_t min =
          t.isSigned() ? -static_cast<std::int64_t>((std::uint64_t{1} << (bits - 1)) - 1) - 1 : 0;
      if (o.via.i64 < min) {
        mismatch(t, o, std::to_string(o.via.i64) + " (out of range)");
      }
      t.set(out.rawValue(), o.via.i64);
      return out;
    }
    mismatch(t, o);
  }

  static AnyValue readFloat(const msgpack::object& o, const FloatTypeInterface& t) {
    double d;
    switch (o.type) {
      case msgpack::type::FLOAT32:
      case msgpack::type::FLOAT64:
        d = o.via.f64;
        break;
      case msgpack::type::POSITIVE_INTEGER:
        d = static_cast<double>(o.via.u64);
        if (!(d < 18446744073709551616.0) || static_cast<std::uint64_t>(d) != o.via.u64) {
          mismatch(t, o, std::to_string(o.via.u64) + " (no exact representation)");
        }
        break;
      case msgpack::type::NEGATIVE_INTEGER:
        d = static_cast<double>(o.via.i64);
        if (static_cast<std::int64_t>(d) != o.via.i64) {
          mismatch(t, o, std::to_string(o.via.i64) + " (no exact representation)");
        }
        break;
      default:
        mismatch(t, o);
    }
    if (t.size() == 4) {
      if (std::isfinite(d) && std::fabs(d) > FLT_MAX) {
        mismatch(t, o, std::to_string(d) + " (out of range)");
      }
      if (o.type != msgpack::type::FLOAT32 && o.type != msgpack::type::FLOAT64 &&
          static_cast<double>(static_cast<float>(d)) != d) {
        mismatch(t, o, "(no exact representation)");
      }
    }
    AnyValue out = fresh(t);
    t.set(out.rawValue(), d);
    return out;
  }

  AnyValue readList(const msgpack::object& o, const ListTypeInterface& t, std::size_t depth) {
    enter(t, o, depth);
    AnyValue out = fresh(t);
    const auto& array = o.via.array;
    // The elements are all there already, so their count is no longer a claim.
    t.reserve(out.rawValue(), array.size);
    for (std::uint32_t i = 0; i < array.size; ++i) {
      AnyValue e = read(array.ptr[i], *t.elementType(), depth + 1);
      t.pushBack(out.rawValue(), e.rawValue());
    }
    return out;
  }

  AnyValue readMap(const msgpack::object& o, const MapTypeInterface& t, std::size_t depth) {
    enter(t, o, depth);
    AnyValue out = fresh(t);
    const auto& map = o.via.map;
    for (std::uint32_t i = 0; i < map.size; ++i) {
      AnyValue key = read(map.ptr[i].key, *t.keyType(), depth + 1);
      AnyValue value = read(map.ptr[i].val, *t.elementType(), depth + 1);
      const std::size_t before = t.size(out.rawValue());
      t.insert(out.rawValue(), key.rawValue(), value.rawValue());
      // One text must mean one value: a repeated key would make the result depend on which
      // entry a reader keeps.
      if (t.size(out.rawValue()) == before) {
        mismatch(t, o, "with a repeated key (entry " + std::to_string(i) + ")");
      }
    }
    return out;
  }

  AnyValue readTuple(const msgpack::object& o, const TupleTypeInterface& t, std::size_t depth) {
    const auto& members = t.memberTypes();
    if (o.via.array.size != members.size()) {
      mismatch(t, o, "(a tuple of " + std::to_string(members.size()) + " members)");
    }
    enter(t, o, depth);
    AnyValue out = fresh(t);
    for (std::size_t i = 0; i < members.size(); ++i) {
      AnyValue m = read(o.via.array.ptr[i], *members[i], depth + 1);
      members[i]->assign(t.member(out.rawValue(), i), m.rawValue());
    }
    return out;
  }

  AnyValue readDynamic(const msgpack::object& o, const DynamicTypeInterface& t, std::size_t depth) {
    AnyValue out = fresh(t);
    if (o.type == msgpack::type::NIL) {
      return out;  // holds nothing
    }
    if (o.via.array.size != 2 || o.via.array.ptr[0].type != msgpack::type::STR) {
      mismatch(t, o, "(expected nil or [signature, value])");
    }
    enter(t, o, depth);
    const msgpack::object& text = o.via.array.ptr[0];
    const Signature signature(std::string(text.via.str.ptr, text.via.str.size));
    if (signature.toString() == "m") {
      throw DecodeError("A dynamic value must name its content's type, not 'm'");
    }
    const TypeInterface* inner;
    try {
      inner = typeFromSignature(signature);
    } catch (const std::invalid_argument& e) {
      throw DecodeError(std::string("A dynamic value names no valid type: ") + e.what());
    }
    AnyValue content = read(o.via.array.ptr[1], *inner, depth + 1);
    if (t.info() == typeid(AnyValue)) {
      *static_cast<AnyValue*>(out.rawValue()) = std::move(content);
    } else {
      t.setContent(out.rawValue(), content);
    }
    return out;
  }

  AnyValue readObject(const msgpack::object& o, const ObjectTypeInterface& t) {
    AnyValue out = fresh(t);
    if (o.type == msgpack::type::NIL) {
      return out;  // a null handle
    }
    if (_objects == nullptr) {
      throw DecodeError("expected " + describeExpected(t) + ", got " + describeGot(o) +
                        ", but this connection carries no object handles");
    }
    boost::shared_ptr<GenericObject> object;
    try {
      object = _objects->unpack(o);
    } catch (const DecodeError&) {
      throw;
    } catch (const std::exception& e) {
      throw DecodeError(std::string("Invalid object handle: ") + e.what());
    }
    t.setObject(out.rawValue(), std::move(object));
    return out;
  }

  ObjectCodec* _objects;
  std::size_t _maxDepth;
};

// First pass over untrusted bytes: checks the claimed sizes and the nesting before
// msgpack::unpack sees them, because unpack allocates room for an array's elements as soon as
// it reads the array's header. Every element takes at least one byte, so a well-formed input
// never claims more elements in total than it has bytes.
class Guard : public msgpack::null_visitor {
 public:
  Guard(std::size_t size, const DecodeLimits& limits) : _size(size), _limits(limits) {}

  bool start_array(std::uint32_t n) { return open(n, n, "array"); }
  bool end_array() { return close(); }
  bool start_map(std::uint32_t n) { return open(n, 2 * std::uint64_t{n}, "map"); }
  bool end_map() { return close(); }
  bool visit_str(const char*, std::uint32_t n) { return bytes(n, "str"); }
  bool visit_bin(const char*, std::uint32_t n) { return bytes(n, "bin"); }
  bool visit_ext(const char*, std::uint32_t n) { return bytes(n, "ext"); }
  void parse_error(std::size_t, std::size_t at) {
    _error = "malformed msgpack at byte " + std::to_string(at);
  }
  void insufficient_bytes(std::size_t, std::size_t) {
    _error = "truncated msgpack (" + std::to_string(_size) + " bytes)";
  }

  const std::string& error() const { return _error; }

 private:
  bool open(std::uint32_t n, std::uint64_t elements, const char* what) {
    if (++_depth > _limits.maxDepth) {
      return fail("nested deeper than " + std::to_string(_limits.maxDepth) + " levels");
    }
    if (n > _limits.maxElements) {
      return fail(std::string(what) + " of " + std::to_string(n) + " entries is above the limit " +
                  std::to_string(_limits.maxElements));
    }
    _claimed += elements;
    if (_claimed > _size) {
      return fail(std::string(what) + " claims " + std::to_string(n) +
                  " entries, more than the input of " + std::to_string(_size) + " bytes can hold");
    }
    return true;
  }
  bool close() {
    --_depth;
    return true;
  }
  bool bytes(std::uint32_t n, const char* what) {
    if (n > _limits.maxBytes) {
      return fail(std::string(what) + " of " + std::to_string(n) + " bytes is above the limit " +
                  std::to_string(_limits.maxBytes));
    }
    return true;
  }
  bool fail(std::string error) {
    _error = std::move(error);
    return false;
  }

  std::size_t _size;
  DecodeLimits _limits;
  std::size_t _depth = 0;
  std::uint64_t _claimed = 0;
  std::string _error;
};

}  // namespace

void packValue(Packer& pk, const AnyReference& value, ObjectCodec* objects) {
  if (value.isValid() && hasUnknown(value.type()->signature())) {
    throw std::runtime_error("A value of signature '" + value.type()->signature().toString() +
                             "' has no wire form");
  }
  Writer(pk, objects).write(value, 0);
}

AnyValue unpackValue(const msgpack::object& o, const TypeInterface& type, ObjectCodec* objects) {
  return Reader(objects, DecodeLimits().maxDepth).read(o, type, 0);
}

msgpack::unpack_limit unpackLimit(const DecodeLimits& l) {
  return msgpack::unpack_limit(l.maxElements, l.maxElements, l.maxBytes, l.maxBytes, l.maxBytes,
                               l.maxDepth);
}

msgpack::object_handle parseLimited(const char* data, std::size_t size,
                                    const DecodeLimits& limits) {
  Guard guard(size, limits);
  std::size_t off = 0;
  const bool parsed = msgpack::parse(data, size, off, guard);
  if (!parsed) {
    throw DecodeError("Cannot decode: " +
                      (guard.error().empty() ? std::string("malformed msgpack") : guard.error()));
  }
  if (off != size) {
    throw DecodeError("Cannot decode: " + std::to_string(size - off) + " bytes follow the value");
  }
  try {
    std::size_t unpacked = 0;
    return msgpack::unpack(data, size, unpacked, nullptr, nullptr, unpackLimit(limits));
  } catch (const std::exception& e) {
    throw DecodeError(std::string("Cannot decode: ") + e.what());
  }
}

AnyValue decodeValue(const char* data, std::size_t size, const TypeInterface& type,
                     ObjectCodec* objects, const DecodeLimits& limits) {
  const msgpack::object_handle handle = parseLimited(data, size, limits);
  return Reader(objects, limits.maxDepth).read(handle.get(), type, 0);
}

}  // namespace wire
}  // namespace ka
