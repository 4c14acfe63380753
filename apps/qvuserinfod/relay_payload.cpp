#include "relay_payload.hpp"

#include <ka/valuebytes.hpp>

#include <cstdint>
#include <stdexcept>

namespace qvuserinfod {
namespace {

void putU32(std::string& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<char>(value >> shift));
  }
}

std::string head(int userId, const std::string& dataName) {
  std::string out;
  putU32(out, static_cast<std::uint32_t>(userId));
  putU32(out, static_cast<std::uint32_t>(dataName.size()));
  return out + dataName;
}

class Reader {
 public:
  explicit Reader(const std::string& bytes) : _bytes(bytes) {}
  std::uint32_t u32() {
    need(4);
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      value = (value << 8) | static_cast<unsigned char>(_bytes[_at++]);
    }
    return value;
  }
  std::string take(std::size_t size) {
    need(size);
    std::string out = _bytes.substr(_at, size);
    _at += size;
    return out;
  }
  std::string rest() { return take(_bytes.size() - _at); }

 private:
  void need(std::size_t size) const {
    if (_bytes.size() - _at < size) {
      throw std::runtime_error("truncated event");
    }
  }
  const std::string& _bytes;
  std::size_t _at = 0;
};

RelayedChange readHead(Reader& reader) {
  RelayedChange change;
  change.userId = static_cast<int>(reader.u32());
  change.dataName = reader.take(reader.u32());
  return change;
}

// The value as daemons wrote it before it was msgpack: one signature letter, then s the string,
// i/l the integer in decimal, b '0' or '1'. No msgpack value starts with one of these bytes
// (they are positive fixints), so the two forms never meet.
bool isOldForm(const std::string& value) {
  return !value.empty() &&
         (value[0] == 's' || value[0] == 'b' || value[0] == 'i' || value[0] == 'l');
}

ka::AnyValue readOldForm(const std::string& text) {
  const std::string body = text.substr(1);
  switch (text[0]) {
    case 's':
      return ka::AnyValue::make(body);
    case 'b':
      return ka::AnyValue::make(body == "1");
    case 'i':
      return ka::AnyValue::make(static_cast<std::int32_t>(std::stol(body)));
    default:
      return ka::AnyValue::make(static_cast<std::int64_t>(std::stoll(body)));
  }
}

}  // namespace

std::string editedPayload(int userId, const std::string& dataName, const ka::AnyReference& value) {
  return head(userId, dataName) + ka::encodeValueWithSignature(value);
}

std::string removedPayload(int userId, const std::string& dataName) {
  return head(userId, dataName);
}

RelayedChange readEdited(const std::string& payload) {
  Reader reader(payload);
  RelayedChange change = readHead(reader);
  const std::string value = reader.rest();
  if (value.empty()) {
    throw std::runtime_error("an empty value");
  }
  change.value = isOldForm(value) ? readOldForm(value)
                                  : ka::decodeValueWithSignature(value.data(), value.size());
  return change;
}

RelayedChange readRemoved(const std::string& payload) {
  Reader reader(payload);
  return readHead(reader);
}

}  // namespace qvuserinfod
