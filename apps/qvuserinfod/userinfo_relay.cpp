#include "userinfo_relay.hpp"

#include "relay_payload.hpp"

#include <qvuserinfo/qvuserinfo.hpp>

#include <ka/log.hpp>

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

}  // namespace

UserInfoRelay::UserInfoRelay(QV::QVUserInfo& userInfo, std::shared_ptr<QV::EventFeed> database)
    : _userInfo(userInfo), _database(database), _outbox(std::move(database)) {
  // Direct: the announcement is recorded before the write's caller has its answer.
  _editedLink = _userInfo.userInfoEdited.connect(
      [this](int userId, std::string dataName, ka::AnyValue value) {
        if (!relayingForeign) {
          _outbox.post(kEdited, editedPayload(userId, dataName, value));
        }
      },
      ka::MetaCallType::Direct);
  _removedLink = _userInfo.userInfoRemoved.connect(
      [this](int userId, std::string dataName) {
        if (!relayingForeign) {
          _outbox.post(kRemoved, removedPayload(userId, dataName));
        }
      },
      ka::MetaCallType::Direct);

  _database->follow(kEdited, [this](const QV::StoreEvent& event) {
    const RelayedChange change = readEdited(event.payload);
    const RelayingForeign relaying;
    _userInfo.userInfoEdited(change.userId, change.dataName, change.value);
  });
  _database->follow(kRemoved, [this](const QV::StoreEvent& event) {
    const RelayedChange change = readRemoved(event.payload);
    const RelayingForeign relaying;
    _userInfo.userInfoRemoved(change.userId, change.dataName);
  });
}

UserInfoRelay::~UserInfoRelay() {
  _database->follow(kEdited, nullptr);
  _database->follow(kRemoved, nullptr);
  _userInfo.userInfoEdited.disconnect(_editedLink);
  _userInfo.userInfoRemoved.disconnect(_removedLink);
}

}  // namespace qvuserinfod
