#include "userinfo_relay.hpp"

#include "relay_payload.hpp"

#include <qvuserinfo/qvuserinfo.hpp>

#include <ka/log.hpp>

namespace qvuserinfod {
namespace {

constexpr const char kCategory[] = "qvuserinfod";
constexpr const char kEdited[] = "userinfo.edited";
constexpr const char kRemoved[] = "userinfo.removed";
// Announcements kept while the database is unreachable, at most; the oldest go first.
constexpr std::size_t kOutboxLimit = 10000;

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

UserInfoRelay::UserInfoRelay(QV::QVUserInfo& userInfo,
                             std::shared_ptr<QV::PostgresDatabase> database)
    : _userInfo(userInfo), _database(std::move(database)) {
  // Direct: the announcement is recorded before the write's caller has its answer.
  _editedLink = _userInfo.userInfoEdited.connect(
      [this](int userId, std::string dataName, ka::AnyValue value) {
        if (!relayingForeign) {
          announce(kEdited, editedPayload(userId, dataName, value));
        }
      },
      ka::MetaCallType::Direct);
  _removedLink = _userInfo.userInfoRemoved.connect(
      [this](int userId, std::string dataName) {
        if (!relayingForeign) {
          announce(kRemoved, removedPayload(userId, dataName));
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

void UserInfoRelay::announce(std::string kind, std::string payload) {
  std::lock_guard lock(_outboxMutex);
  _outbox.emplace_back(std::move(kind), std::move(payload));
  while (!_outbox.empty()) {
    try {
      _database->announce(_outbox.front().first, _outbox.front().second);
    } catch (const std::exception& e) {
      if (_outbox.size() > kOutboxLimit) {
        _outbox.pop_front();
      }
      KA_LOG_WARNING(kCategory) << "the other daemons will hear of " << _outbox.size()
                                << " change(s) later: " << e.what();
      return;
    }
    _outbox.pop_front();
  }
}

}  // namespace qvuserinfod
