#include "announcement_outbox.hpp"

#include <ka/log.hpp>

#include <exception>

namespace qvuserinfod {
namespace {

constexpr const char kCategory[] = "qvuserinfod";

}  // namespace

AnnouncementOutbox::AnnouncementOutbox(std::shared_ptr<QV::EventFeed> feed,
                                       std::chrono::milliseconds retryEvery, std::size_t limit)
    : _feed(std::move(feed)),
      _retryEvery(retryEvery),
      _limit(limit),
      _retrier([this] { retryLoop(); }) {}

AnnouncementOutbox::~AnnouncementOutbox() {
  std::size_t dropped = 0;
  {
    std::lock_guard lock(_mutex);
    _stopping = true;
    dropped = _waiting.size();
  }
  _wake.notify_all();
  _retrier.join();
  if (dropped > 0) {
    KA_LOG_WARNING(kCategory) << dropped
                              << " change(s) will not be announced to the other daemons: the "
                                 "database did not take them before the stop";
  }
}

void AnnouncementOutbox::post(std::string kind, std::string payload) {
  std::unique_lock lock(_mutex);
  _waiting.push_back({++_lastNotice, std::move(kind), std::move(payload)});
  if (_waiting.size() > _limit) {
    _waiting.pop_front();
    KA_LOG_WARNING(kCategory) << "more than " << _limit
                              << " changes wait for the database: the oldest is dropped";
  }
  const bool wasWaiting = _waiting.size() > 1;
  flush(lock);
  if (!wasWaiting && !_waiting.empty()) {
    _wake.notify_all();  // the retry timer starts with the first announcement left behind
  }
}

std::size_t AnnouncementOutbox::waiting() const {
  std::lock_guard lock(_mutex);
  return _waiting.size();
}

void AnnouncementOutbox::flush(std::unique_lock<std::mutex>&) {
  while (!_waiting.empty()) {
    const Announcement& next = _waiting.front();
    try {
      _feed->announce(next.kind, next.payload, next.notice);
    } catch (const std::exception& e) {
      KA_LOG_WARNING(kCategory) << "the other daemons will hear of " << _waiting.size()
                                << " change(s) later: " << e.what();
      return;
    }
    _waiting.pop_front();
  }
}

void AnnouncementOutbox::retryLoop() {
  std::unique_lock lock(_mutex);
  for (;;) {
    _wake.wait(lock, [this] { return _stopping || !_waiting.empty(); });
    if (_stopping) {
      return;
    }
    // Waits a period first: the post that left them behind has just tried.
    if (_wake.wait_for(lock, _retryEvery, [this] { return _stopping; })) {
      return;
    }
    flush(lock);
  }
}

}  // namespace qvuserinfod
