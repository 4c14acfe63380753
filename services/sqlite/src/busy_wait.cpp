#include "busy_wait.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <thread>

#include <sqlite3.h>
#include <ka/detail/blocking_scope.hpp>

namespace QV::detail {

namespace {

// Short first steps catch the common case of a lock held for one short transaction; later ones
// stop a long wait from spinning.
constexpr std::chrono::milliseconds kSteps[] = {
    std::chrono::milliseconds(1),  std::chrono::milliseconds(2),  std::chrono::milliseconds(5),
    std::chrono::milliseconds(10), std::chrono::milliseconds(15), std::chrono::milliseconds(20),
    std::chrono::milliseconds(25), std::chrono::milliseconds(25), std::chrono::milliseconds(25),
    std::chrono::milliseconds(50), std::chrono::milliseconds(50), std::chrono::milliseconds(100)};
constexpr auto kStepCount = static_cast<int>(std::size(kSteps));

// The time slept before the `attempt`th step.
std::chrono::milliseconds sleptBefore(int attempt) {
  std::chrono::milliseconds total{0};
  for (int i = 0; i < std::min(attempt, kStepCount); ++i) {
    total += kSteps[i];
  }
  if (attempt > kStepCount) {
    total += (attempt - kStepCount) * kSteps[kStepCount - 1];
  }
  return total;
}

// SQLite's busy handler: the timeout travels in the context pointer, so there is no state whose
// lifetime must match the connection's. Called from SQLite's C frames: must not throw.
int onBusy(void* context, int attempt) noexcept {
  const auto timeout = std::chrono::milliseconds(
      static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(context)));
  return sleepBeforeRetry(attempt, timeout) ? 1 : 0;
}

}  // namespace

bool sleepBeforeRetry(int attempt, std::chrono::milliseconds timeout) noexcept {
  const auto slept = sleptBefore(attempt);
  if (attempt < 0 || slept >= timeout) {
    return false;
  }
  const auto step = std::min(kSteps[std::min(attempt, kStepCount - 1)], timeout - slept);
  try {
    ka::detail::BlockingScope blocking;
    std::this_thread::sleep_for(step);
  } catch (...) {
    // The loop may not block another worker: give up rather than stall it.
    return false;
  }
  return true;
}

void installBusyHandler(sqlite3* db, std::chrono::milliseconds timeout) {
  const auto ms = std::clamp<std::int64_t>(timeout.count(), 0, INT32_MAX);
  sqlite3_busy_handler(db, &onBusy, reinterpret_cast<void*>(static_cast<std::intptr_t>(ms)));
}

}  // namespace QV::detail
