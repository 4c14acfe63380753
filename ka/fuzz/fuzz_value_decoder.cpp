// Fuzzes the value decoder: the first byte picks the type to read, the rest are the bytes of a
// value from a peer. Any outcome but a value or a DecodeError is a bug (libFuzzer reports an
// escaping exception, a crash, a sanitizer finding, a large allocation or a slow input). A
// value that was accepted must write back to bytes that read as the same bytes again: the
// writer and the reader agree on the layout and its limits.
#include "wire/value_codec.hpp"

#include <ka/signaturetype.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

const char* const kSignatures[] = {
    "m", "[s]", "{sm}", "(is)", "[(i{sm})]", "i", "L", "f", "[o]", "{[i]m}", "(bcCwWiIlLfdsv)",
};

// Object handles arrive as numbers; none of them names a live object here, so every one reads
// as a null handle, which writes back as nil.
class NullObjects : public ka::wire::ObjectCodec {
 public:
  void pack(ka::wire::Packer& pk, const boost::shared_ptr<ka::GenericObject>&) override {
    pk.pack_nil();
  }
  boost::shared_ptr<ka::GenericObject> unpack(const msgpack::object& o) override {
    if (o.type != msgpack::type::POSITIVE_INTEGER) {
      throw ka::wire::DecodeError("an object handle is a number");
    }
    return nullptr;
  }
};

std::string encode(const ka::AnyReference& value, ka::wire::ObjectCodec* objects) {
  msgpack::sbuffer buffer;
  ka::wire::Packer pk(buffer);
  ka::wire::packValue(pk, value, objects);
  return std::string(buffer.data(), buffer.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  constexpr std::size_t kCount = sizeof kSignatures / sizeof kSignatures[0];
  const ka::TypeInterface& type =
      *ka::typeFromSignature(ka::Signature(kSignatures[data[0] % kCount]));
  const char* bytes = reinterpret_cast<const char*>(data + 1);
  NullObjects objects;
  ka::AnyValue value;
  try {
    value = ka::wire::decodeValue(bytes, size - 1, type, &objects);
  } catch (const ka::wire::DecodeError&) {
    return 0;
  }
  const std::string once = encode(value, &objects);
  const ka::AnyValue again = ka::wire::decodeValue(once.data(), once.size(), type, &objects);
  if (encode(again, &objects) != once) {
    std::abort();
  }
  return 0;
}
