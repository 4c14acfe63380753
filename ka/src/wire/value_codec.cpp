#include "wire/value_codec.hpp"

namespace ka {
namespace wire {

void packValue(Packer&, const AnyReference&, ObjectCodec*) {
  throw std::runtime_error("packValue: not implemented yet");
}

AnyValue unpackValue(const msgpack::object&, const TypeInterface&, ObjectCodec*) {
  throw DecodeError("unpackValue: not implemented yet");
}

msgpack::unpack_limit unpackLimit(const DecodeLimits& l) {
  return msgpack::unpack_limit(l.maxElements, l.maxElements, l.maxBytes, l.maxBytes, l.maxBytes,
                               l.maxDepth);
}

AnyValue decodeValue(const char*, std::size_t, const TypeInterface&, ObjectCodec*,
                     const DecodeLimits&) {
  throw DecodeError("decodeValue: not implemented yet");
}

}  // namespace wire
}  // namespace ka
