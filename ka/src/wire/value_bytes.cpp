// Values as bytes outside a connection, through the wire codec.
#include <ka/valuebytes.hpp>

#include "wire/value_codec.hpp"

namespace ka {

std::string encodeValueWithSignature(const AnyReference& value) {
  msgpack::sbuffer buffer;
  wire::Packer pk(buffer);
  if (value.isValid() && value.kind() == TypeKind::Dynamic) {
    wire::packValue(pk, value);
  } else {
    wire::packValue(pk, AnyValue::make(value.isValid() ? AnyValue(value) : AnyValue()));
  }
  return std::string(buffer.data(), buffer.size());
}

AnyValue decodeValueWithSignature(const char* data, std::size_t size) {
  AnyValue dynamic = wire::decodeValue(data, size, *typeOf<AnyValue>());
  return std::move(*static_cast<AnyValue*>(dynamic.rawValue()));
}

}  // namespace ka
