#pragma once
// What the files of Connection share: their log category, and handing work to the event loop.

#include <ka/eventloop.hpp>

#include <functional>
#include <memory>
#include <utility>

namespace ka {
namespace wire {

inline constexpr const char kConnectionCategory[] = "ka.remote";

// Runs `task` on the event loop, or here when the loop has stopped, so that promises still end.
inline void onLoop(std::function<void()> task) {
  auto shared = std::make_shared<std::function<void()>>(std::move(task));
  if (!defaultEventLoop().tryPost([shared] { (*shared)(); })) {
    (*shared)();
  }
}

}  // namespace wire
}  // namespace ka
