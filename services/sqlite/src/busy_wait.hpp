#pragma once
// Waiting for another connection's lock: SQLite's busy handler and the retry of steps SQLite does
// not retry itself, both sleeping with backoff and telling the event loop that the thread blocks.

#include <chrono>

struct sqlite3;

namespace QV::detail {

// Sleeps for the `attempt`th step (0 first) of the backoff unless the steps so far already add up
// to `timeout`. Each sleep holds a ka::detail::BlockingScope, so an EventLoop worker waiting here
// lets the loop start a spare worker. Returns false, without sleeping, when the time is up or the
// loop refuses to block one more worker: the caller then gives up with SQLITE_BUSY.
bool sleepBeforeRetry(int attempt, std::chrono::milliseconds timeout) noexcept;

// Makes `db` wait for locks through sleepBeforeRetry() for up to `timeout` (replacing
// sqlite3_busy_timeout, whose sleeps the event loop cannot see).
void installBusyHandler(sqlite3* db, std::chrono::milliseconds timeout);

}  // namespace QV::detail
