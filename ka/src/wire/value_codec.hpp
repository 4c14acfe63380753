#pragma once
// Values on the wire: writes a typed value as msgpack and reads one back against the type the
// reader expects, so that a value keeps its signature between processes. The layout of every
// signature letter is described in docs/protocol.md ("Values and signatures").

#include <ka/anyvalue.hpp>
#include <ka/genericobject.hpp>
#include <ka/typeinterface.hpp>

#include <boost/shared_ptr.hpp>
#include <msgpack.hpp>

#include <cstddef>
#include <stdexcept>

namespace ka {
namespace wire {

using Packer = msgpack::packer<msgpack::sbuffer>;

// A value that does not match the type it was read against, or that breaks a decoding limit.
// The text says what was expected and what came ("expected i (int32), got str").
class DecodeError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

// Maps object handles found inside values to per-connection wire identities; supplied by the
// message layer.
class ObjectCodec {
 public:
  virtual ~ObjectCodec() = default;
  virtual void pack(Packer& pk, const boost::shared_ptr<GenericObject>& object) = 0;
  virtual boost::shared_ptr<GenericObject> unpack(const msgpack::object& o) = 0;
};

// Writes `value` as its own type says; a dynamic value ("m") is written with its content's
// signature. Throws std::runtime_error for values that have no wire form (an invalid
// reference, a type "X", an object when `objects` is null, nesting deeper than the readers'
// depth limit); the buffer may then hold part of the value and must be discarded.
void packValue(Packer& pk, const AnyReference& value, ObjectCodec* objects = nullptr);

// Reads a value of `type` (from typeFromSignature or typeOf<T>); throws DecodeError saying what
// did not match. Objects ("o") need `objects`; without it they are refused with DecodeError.
AnyValue unpackValue(const msgpack::object& o, const TypeInterface& type,
                     ObjectCodec* objects = nullptr);

// Limits every decoder of untrusted bytes applies.
struct DecodeLimits {
  // Nesting of containers and dynamic values inside one value.
  std::size_t maxDepth = 64;
  // Elements of one array or entries of one map.
  std::size_t maxElements = 1u << 20;
  // Bytes of one string or binary.
  std::size_t maxBytes = 16u << 20;
};

// The unpack limits for msgpack::unpack that keep a claimed size from driving an allocation:
// msgpack-cxx would otherwise reserve a claimed array size before its elements have arrived.
msgpack::unpack_limit unpackLimit(const DecodeLimits& limits = DecodeLimits());

// Parses exactly one msgpack object from `data` under `limits`, checking claimed sizes and
// nesting before msgpack-cxx allocates for them. Use it for every untrusted msgpack body.
// maxDepth counts from the outermost object: a body that wraps values in arrays of its own
// needs the values' depth plus its own.
// Throws DecodeError for truncated or malformed input, trailing bytes or a broken limit.
msgpack::object_handle parseLimited(const char* data, std::size_t size,
                                    const DecodeLimits& limits = DecodeLimits());

// Parses exactly one msgpack object from `data` under `limits` and decodes it as `type`.
// Throws DecodeError for truncated input, trailing bytes, broken limits or a type mismatch.
AnyValue decodeValue(const char* data, std::size_t size, const TypeInterface& type,
                     ObjectCodec* objects = nullptr, const DecodeLimits& limits = DecodeLimits());

}  // namespace wire
}  // namespace ka
