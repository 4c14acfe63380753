#include "event_feed.hpp"

#include <ka/log.hpp>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace QV::pg {
namespace {

constexpr const char kCategory[] = "QVPostgres";
// Without a notification the feed still looks this often, in case one was lost with a
// connection that has not noticed yet.
constexpr std::chrono::seconds kQuietLook{5};
constexpr std::chrono::minutes kPruneEvery{10};
constexpr int kBatch = 500;

const Statement kEventsAfter{
    "qv_events_after",
    "SELECT id, origin, kind, payload FROM qv_events WHERE id > $1 ORDER BY id LIMIT 500"};
const Statement kHorizon{"qv_event_horizon", "SELECT pruned_through FROM qv_event_horizon"};
const Statement kPrune{"qv_prune_events", "SELECT qv_prune_events(make_interval(secs => $1))"};

}  // namespace

EventFeed::EventFeed(std::string conninfo, const PostgresOptions& options, std::string origin,
                     Pool& pool, std::string location, std::int64_t startAfter)
    : conninfo_(std::move(conninfo)),
      options_(options),
      origin_(std::move(origin)),
      location_(std::move(location)),
      pool_(pool),
      lastSeen_(startAfter),
      nextPrune_(Clock::now()),
      wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wakeFd_ < 0) {
    throw std::runtime_error("cannot create the feed's wake-up descriptor");
  }
  thread_ = std::thread([this] { run(); });
}

EventFeed::~EventFeed() {
  {
    std::lock_guard lock(stopMutex_);
    stopping_ = true;
  }
  stopped_.notify_all();
  const std::uint64_t one = 1;
  (void)!::write(wakeFd_, &one, sizeof one);
  thread_.join();
  ::close(wakeFd_);
}

void EventFeed::follow(const std::string& kind, PostgresDatabase::EventHandler handler) {
  std::lock_guard lock(handlersMutex_);
  if (handler) {
    handlers_[kind] = std::move(handler);
  } else {
    handlers_.erase(kind);
  }
}

bool EventFeed::pause(Clock::time_point until) {
  std::unique_lock lock(stopMutex_);
  return !stopped_.wait_until(lock, until, [this] { return stopping_; });
}

bool EventFeed::connect() {
  try {
    listener_ = std::make_unique<Connection>(conninfo_, options_.connectTimeout);
    const auto deadline = Clock::now() + options_.callTimeout;
    listener_->exec("LISTEN qv_events", deadline);
    return true;
  } catch (const Failure& failure) {
    listener_.reset();
    KA_LOG_VERBOSE(kCategory) << location_ << ": cannot follow events yet: " << failure.what();
    return false;
  }
}

void EventFeed::deliver(const StoreEvent& event) {
  std::lock_guard lock(handlersMutex_);
  const auto handler = handlers_.find(event.kind);
  if (handler == handlers_.end()) {
    return;
  }
  try {
    handler->second(event);
  } catch (const std::exception& e) {
    KA_LOG_WARNING(kCategory) << "handling event " << event.id << " (" << event.kind
                              << ") failed: " << e.what();
  } catch (...) {
    KA_LOG_WARNING(kCategory) << "handling event " << event.id << " (" << event.kind << ") failed";
  }
}

void EventFeed::catchUp() {
  const auto deadline = Clock::now() + options_.callTimeout;
  if (reconnected_) {
    reconnected_ = false;
    const Result horizon = listener_->run(kHorizon, {}, deadline);
    const std::int64_t prunedThrough = horizon.rows() > 0 ? horizon.int8At(0, 0) : 0;
    if (prunedThrough > lastSeen_) {
      KA_LOG_WARNING(kCategory) << location_ << ": events " << lastSeen_ + 1 << " to "
                                << prunedThrough
                                << " were pruned while this daemon was disconnected; the changes"
                                   " they announced are not announced here";
      lastSeen_ = prunedThrough;
    }
  }
  for (;;) {
    const std::string after = int8(lastSeen_);
    const Result events = listener_->run(kEventsAfter, {{after}}, deadline);
    for (int row = 0; row < events.rows(); ++row) {
      StoreEvent event{events.int8At(row, 0), events.bytes(row, 1), events.bytes(row, 2),
                       events.bytes(row, 3)};
      lastSeen_ = event.id;
      if (event.origin != origin_) {
        deliver(event);
      }
    }
    if (events.rows() < kBatch) {
      return;
    }
  }
}

void EventFeed::waitForNotification(Clock::time_point until) {
  // A notification that came in while catchUp's query ran was read with its answer: it waits in
  // libpq's queue, not on the socket, and its event may have committed after that query looked.
  bool pending = false;
  while (listener_->nextNotification()) {
    pending = true;
  }
  if (pending) {
    return;
  }
  pollfd fds[2] = {{PQsocket(listener_->raw()), POLLIN, 0}, {wakeFd_, POLLIN, 0}};
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
  const int ready = ::poll(fds, 2, static_cast<int>(std::max<long long>(0, left.count())));
  if (ready > 0 && (fds[0].revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
    listener_->consumeInput();
    while (listener_->nextNotification()) {
    }
  }
}

void EventFeed::run() {
  auto delay = options_.reconnectDelay;
  for (;;) {
    {
      std::lock_guard lock(stopMutex_);
      if (stopping_) {
        return;
      }
    }
    if (!listener_ || listener_->broken()) {
      if (listener_) {
        KA_LOG_WARNING(kCategory) << location_ << ": lost the connection; reconnecting";
        reconnected_ = true;
        // Usually the server went (a restart ends every session): the idle connections of the
        // pool are gone too, and calls had better open new ones than fail on a dead one.
        pool_.markLost();
      }
      if (!connect()) {
        if (!pause(Clock::now() + delay)) {
          return;
        }
        delay = std::min(delay * 2, options_.reconnectDelayMax);
        continue;
      }
      delay = options_.reconnectDelay;
      if (reconnected_) {
        KA_LOG_WARNING(kCategory) << location_ << ": connected again";
      }
    }
    // The server answers the feed; calls may use it again too.
    if (!pool_.reachable()) {
      pool_.retryNow();
    }
    try {
      // LISTEN came first, so an event committed from here on also wakes the wait below.
      catchUp();
      if (Clock::now() >= nextPrune_) {
        nextPrune_ = Clock::now() + kPruneEvery;
        // make_interval takes seconds as a double; sent as text, which the server parses.
        const std::string seconds = std::to_string(options_.eventRetention.count());
        listener_->run(kPrune, {{seconds, false}}, Clock::now() + options_.callTimeout);
      }
    } catch (const Failure& failure) {
      if (!failure.lost()) {
        KA_LOG_WARNING(kCategory) << location_ << ": reading events failed: " << failure.what();
        if (!pause(Clock::now() + delay)) {
          return;
        }
      }
      continue;
    }
    waitForNotification(Clock::now() + (pool_.reachable() ? kQuietLook : delay));
  }
}

}  // namespace QV::pg
