#pragma once
// How a call or a signal delivery reaches its target, and how an object accepts
// concurrent calls.

#include <cstdint>

namespace ka {

// Auto: the target runs on the caller's thread unless the target asks otherwise.
// Direct: always on the caller's thread, before the call returns.
// Queued: on the event loop, never inside the caller's call.
enum class MetaCallType { Auto = 0, Direct = 1, Queued = 2 };

// SingleThread: calls into one instance are serialised (re-entrant on the same thread).
// MultiThread: calls may run at once on several threads.
enum class ObjectThreadingModel { SingleThread = 0, MultiThread = 1 };

// Identifies one subscription; unique in the process, never 0.
using SignalLink = std::uint64_t;
constexpr SignalLink SignalLink_Invalid = 0;

}  // namespace ka
