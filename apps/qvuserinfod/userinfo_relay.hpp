#pragma once
// Carries the user information service's change signals between the daemons of one shared
// database: what this daemon's service emits (userInfoEdited, userInfoRemoved) is announced to
// the others through the stores' event feed, and what they announce is emitted here, so that a
// subscriber of any daemon hears of a change made through any of them.

#include "announcement_outbox.hpp"

#include <qvstorage/event_feed.hpp>

#include <ka/signal.hpp>

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace QV {
class QVUserInfo;
}

namespace qvuserinfod {

class UserInfoRelay {
 public:
  UserInfoRelay(QV::QVUserInfo& userInfo, std::shared_ptr<QV::EventFeed> database);
  // Stops relaying both ways; waits for a delivery in progress.
  ~UserInfoRelay();
  UserInfoRelay(const UserInfoRelay&) = delete;
  UserInfoRelay& operator=(const UserInfoRelay&) = delete;

 private:
  QV::QVUserInfo& _userInfo;
  const std::shared_ptr<QV::EventFeed> _database;
  // Before the links: the subscribers post to it until the destructor has ended them.
  AnnouncementOutbox _outbox;
  ka::SignalLink _editedLink = ka::SignalLink_Invalid;
  ka::SignalLink _removedLink = ka::SignalLink_Invalid;
};

}  // namespace qvuserinfod
