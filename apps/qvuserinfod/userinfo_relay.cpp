#include "userinfo_relay.hpp"

#include <qvuserinfo/qvuserinfo.hpp>

#include <ka/log.hpp>

#include <cstdint>
#include <stdexcept>

namespace qvuserinfod {
namespace {

constexpr const char kCategory[] = "qvuserinfod";
constexpr const char kEdited[] = "userinfo.edited";
constexpr const char kRemoved[] = "userinfo.removed";

// Set while this thread emits what another daemon announced, so that it is not announced back.
thread_local bool relayingForeign = false;

class RelayingForeign {
 public:
  RelayingForeign() { relayingForeign = true; }
  ~RelayingForeign() { relayingForeign = false; }
  RelayingForeign(const RelayingForeign&) = delete;
  RelayingForeign& operator=(const RelayingForeign&) = delete;
};

// Payloads: the user id (4 bytes, big-endian), the data name (4-byte length, bytes), then for an
// edit the value: one signature letter and its bytes (s: the string, i/l: the integer in
// decimal, b: '0' or '1'). Those are the only types the service accepts in a write.
void putInt(std::string& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<char>(value >> shift));
  }
}

class Reader {
 public:
  explicit Reader(const std::string& bytes) : bytes_(bytes) {}
  std::uint32_t u32() {
    need(4);
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      value = (value << 8) | static_cast<unsigned char>(bytes_[at_++]);
    }
    return value;
  }
  std::string take(std::size_t size) {
    need(size);
    std::string out = bytes_.substr(at_, size);
    at_ += size;
    return out;
  }
  std::string rest() { return take(bytes_.size() - at_); }

 private:
  void need(std::size_t size) const {
    if (bytes_.size() - at_ < size) {
      throw std::runtime_error("truncated event");
    }
  }
  const std::string& bytes_;
  std::size_t at_ = 0;
};

std::string head(int userId, const std::string& dataName) {
  std::string out;
  putInt(out, static_cast<std::uint32_t>(userId));
  putInt(out, static_cast<std::uint32_t>(dataName.size()));
  return out + dataName;
}

std::string encodeValue(const ka::AnyValue& value) {
  ka::AnyReference content = value;
  while (content.isValid() && content.kind() == ka::TypeKind::Dynamic) {
    content = content.content();
  }
  const std::string signature = content.signature().toString();
  if (signature == "s") {
    return "s" + content.toString();
  }
  if (signature == "b") {
    return content.toBool() ? "b1" : "b0";
  }
  if (signature == "i" || signature == "l") {
    return signature + std::to_string(content.toInt64());
  }
  throw std::runtime_error("a value of signature '" + signature + "' cannot be relayed");
}

ka::AnyValue decodeValue(const std::string& text) {
  if (text.empty()) {
    throw std::runtime_error("an empty value");
  }
  const std::string body = text.substr(1);
  switch (text[0]) {
    case 's':
      return ka::AnyValue::make(body);
    case 'b':
      return ka::AnyValue::make(body == "1");
    case 'i':
      return ka::AnyValue::make(static_cast<std::int32_t>(std::stol(body)));
    case 'l':
      return ka::AnyValue::make(static_cast<std::int64_t>(std::stoll(body)));
    default:
      throw std::runtime_error("an unknown value type");
  }
}

}  // namespace

UserInfoRelay::UserInfoRelay(QV::QVUserInfo& userInfo, std::shared_ptr<QV::EventFeed> database)
    : _userInfo(userInfo), _database(database), _outbox(std::move(database)) {
  // Direct: the announcement is recorded before the write's caller has its answer.
  _editedLink = _userInfo.userInfoEdited.connect(
      [this](int userId, std::string dataName, ka::AnyValue value) {
        if (!relayingForeign) {
          _outbox.post(kEdited, head(userId, dataName) + encodeValue(value));
        }
      },
      ka::MetaCallType::Direct);
  _removedLink = _userInfo.userInfoRemoved.connect(
      [this](int userId, std::string dataName) {
        if (!relayingForeign) {
          _outbox.post(kRemoved, head(userId, dataName));
        }
      },
      ka::MetaCallType::Direct);

  _database->follow(kEdited, [this](const QV::StoreEvent& event) {
    Reader reader(event.payload);
    const int userId = static_cast<int>(reader.u32());
    const std::string dataName = reader.take(reader.u32());
    const ka::AnyValue value = decodeValue(reader.rest());
    const RelayingForeign relaying;
    _userInfo.userInfoEdited(userId, dataName, value);
  });
  _database->follow(kRemoved, [this](const QV::StoreEvent& event) {
    Reader reader(event.payload);
    const int userId = static_cast<int>(reader.u32());
    const std::string dataName = reader.take(reader.u32());
    const RelayingForeign relaying;
    _userInfo.userInfoRemoved(userId, dataName);
  });
}

UserInfoRelay::~UserInfoRelay() {
  _database->follow(kEdited, nullptr);
  _database->follow(kRemoved, nullptr);
  _userInfo.userInfoEdited.disconnect(_editedLink);
  _userInfo.userInfoRemoved.disconnect(_removedLink);
}

}  // namespace qvuserinfod
