#include <qvusersession/usersession_service.hpp>

#include <ka/detail/blocking_scope.hpp>
#include <ka/objecttypebuilder.hpp>

#include <boost/make_shared.hpp>

#include <deque>
#include <mutex>

namespace QV {
namespace {

// One committed change, waiting to be announced.
struct Announcement {
  enum class Kind { Created, Deleted, Focus };
  Kind kind;
  std::vector<int> ids;                     // Created, Deleted
  int focus = UserSessionService::kNoUser;  // Focus
};

// Takes `mutex`; if another call holds it, waits as a blocking wait the event loop is told of, so
// that workers queued behind a slow commit do not starve the loop.
std::unique_lock<std::mutex> lockBlocking(std::mutex& mutex) {
  std::unique_lock<std::mutex> lock(mutex, std::try_to_lock);
  if (!lock.owns_lock()) {
    ka::detail::BlockingScope blocking;
    lock.lock();
  }
  return lock;
}

// Takes the lock back after an emission. Must not fail, or the announcing would stop for good:
// when the loop refuses one more blocked worker, waits without telling it.
void relockBlocking(std::unique_lock<std::mutex>& lock) noexcept {
  if (lock.try_lock()) {
    return;
  }
  try {
    ka::detail::BlockingScope blocking;
    lock.lock();
  } catch (...) {
    if (!lock.owns_lock()) {
      lock.lock();
    }
  }
}

void registerUserSessionType() {
  static std::once_flag once;
  std::call_once(once, [] {
    ka::ObjectTypeBuilder<UserSessionService> b;
    b.buildFor(true);
    // Calls run concurrently and meet at the service's own lock, which is never held while a
    // signal goes out; a single-threaded object would let another call in while one waits for
    // the file's lock, which buys nothing here.
    b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
    b.advertiseMethod("getFocusedUser", &UserSessionService::getFocusedUser);
    b.advertiseMethod("doesUserExist", &UserSessionService::doesUserExist);
    b.advertiseMethod("createUser", &UserSessionService::createUser);
    b.advertiseMethod("deleteUsers", &UserSessionService::deleteUsers);
    b.advertiseMethod("users", &UserSessionService::users);
    b.advertiseMethod("setFocusedUser", &UserSessionService::setFocusedUser);
    b.advertiseMethod("clearFocus", &UserSessionService::clearFocus);
    b.advertiseSignal("createdUsers", &UserSessionService::createdUsers);
    b.advertiseSignal("deletedUsers", &UserSessionService::deletedUsers);
    b.advertiseSignal("focusChanged", &UserSessionService::focusChanged);
    b.registerType();
  });
}

}  // namespace

class UserSessionService::Impl {
 public:
  explicit Impl(std::unique_ptr<UserStore> users) : store(std::move(users)) {
    if (!store) {
      throw std::invalid_argument("UserSessionService needs a store");
    }
  }

  // The store's thread may be delivering a foreign change into this object: it is told to stop,
  // and waits for that delivery, before anything here goes.
  ~Impl() { store->onForeignChange(nullptr); }

  // Queues what another service sharing the store committed, as this service's own changes are.
  void takeForeign(const ForeignUserChange& change, const UserSessionService& service) {
    auto lock = lockBlocking(mutex);
    if (!change.created.empty()) {
      pending.push_back({Announcement::Kind::Created, change.created});
    }
    if (!change.deleted.empty()) {
      if (store->dropFocusOf(change.deleted)) {
        pending.push_back({Announcement::Kind::Focus, {}, UserSessionService::kNoUser});
      }
      pending.push_back({Announcement::Kind::Deleted, change.deleted});
    }
    announce(std::move(lock), service);
  }

  // Hands `lock` (held, after a commit queued its announcements) over to the announcing: unless
  // another call is already emitting, emits everything queued, oldest first, with the lock
  // released around each emission. Changes committed meanwhile by other calls (or by subscribers
  // of this one) are emitted here too, so announcements follow the order of the commits.
  void announce(std::unique_lock<std::mutex> lock, const UserSessionService& service) {
    if (announcing) {
      return;
    }
    announcing = true;
    while (!pending.empty()) {
      const Announcement next = std::move(pending.front());
      pending.pop_front();
      lock.unlock();
      try {
        emit(next, service);
      } catch (...) {
        // What is still queued goes out with the next change.
        relockBlocking(lock);
        announcing = false;
        throw;
      }
      relockBlocking(lock);
    }
    announcing = false;
  }

  std::mutex mutex;
  // Guarded by mutex (the pointer itself never changes).
  const std::unique_ptr<UserStore> store;
  // Guarded by mutex: committed changes not yet emitted, in commit order.
  std::deque<Announcement> pending;
  // Guarded by mutex: a call is emitting `pending`.
  bool announcing = false;

 private:
  static void emit(const Announcement& announcement, const UserSessionService& service) {
    switch (announcement.kind) {
      case Announcement::Kind::Created:
        service.createdUsers(announcement.ids);
        break;
      case Announcement::Kind::Deleted:
        service.deletedUsers(announcement.ids);
        break;
      case Announcement::Kind::Focus:
        service.focusChanged(announcement.focus);
        break;
    }
  }
};

UserSessionService::UserSessionService(std::unique_ptr<UserStore> store)
    : _impl(std::make_unique<Impl>(std::move(store))) {
  _impl->store->onForeignChange([this](const ForeignUserChange& change) {
    try {
      _impl->takeForeign(change, *this);
    } catch (...) {
      // A subscriber's failure stays with the subscriber; the store's thread goes on.
    }
  });
}

UserSessionService::~UserSessionService() = default;

int UserSessionService::getFocusedUser() const {
  const auto lock = lockBlocking(_impl->mutex);
  return _impl->store->focused();
}

bool UserSessionService::doesUserExist(int userId) const {
  const auto lock = lockBlocking(_impl->mutex);
  return _impl->store->exists(userId);
}

std::vector<int> UserSessionService::users() const {
  const auto lock = lockBlocking(_impl->mutex);
  return _impl->store->all();
}

int UserSessionService::createUser() {
  auto lock = lockBlocking(_impl->mutex);
  const int id = _impl->store->create();
  _impl->pending.push_back({Announcement::Kind::Created, {id}});
  _impl->announce(std::move(lock), *this);
  return id;
}

bool UserSessionService::deleteUsers(const std::vector<int>& userIds) {
  if (userIds.empty()) {
    return true;
  }
  auto lock = lockBlocking(_impl->mutex);
  const auto deletion = _impl->store->remove(userIds);
  if (!deletion) {
    return false;
  }
  // The focus leaves before its user goes: a subscriber of "deletedUsers" that asks for the
  // focused user never hears of a deleted one.
  if (deletion->focusCleared) {
    _impl->pending.push_back({Announcement::Kind::Focus, {}, kNoUser});
  }
  _impl->pending.push_back({Announcement::Kind::Deleted, userIds});
  _impl->announce(std::move(lock), *this);
  return true;
}

bool UserSessionService::setFocusedUser(int userId) {
  auto lock = lockBlocking(_impl->mutex);
  const auto changed = _impl->store->focus(userId);
  if (!changed) {
    return false;
  }
  if (*changed) {
    _impl->pending.push_back({Announcement::Kind::Focus, {}, userId});
    _impl->announce(std::move(lock), *this);
  }
  return true;
}

void UserSessionService::clearFocus() {
  auto lock = lockBlocking(_impl->mutex);
  if (_impl->store->clearFocus()) {
    _impl->pending.push_back({Announcement::Kind::Focus, {}, kNoUser});
    _impl->announce(std::move(lock), *this);
  }
}

const std::string& UserSessionService::path() const noexcept {
  return _impl->store->path();
}

ka::AnyObject makeUserSessionObject(boost::shared_ptr<UserSessionService> service) {
  if (!service) {
    throw std::invalid_argument("makeUserSessionObject needs a service");
  }
  registerUserSessionType();
  return ka::makeObject(service);
}

ka::Future<unsigned int> registerUserSessionService(const ka::SessionPtr& session,
                                                    std::unique_ptr<UserStore> store) {
  auto service = boost::make_shared<UserSessionService>(std::move(store));
  return session->registerService(UserSessionService::kServiceName,
                                  makeUserSessionObject(std::move(service)));
}

}  // namespace QV
