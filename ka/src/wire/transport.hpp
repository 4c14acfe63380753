#pragma once
// Where channels come from: listening on and connecting to urls. "local://<name>" endpoints
// live in this process only (LocalChannel pairs); socket urls go to the socket transport.

#include <ka/future.hpp>

#include "wire/channel.hpp"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ka {
namespace wire {

// Accepts connections until closed or destroyed.
class Listener {
 public:
  virtual ~Listener() = default;
  // The urls it actually listens on (a chosen port filled in).
  virtual std::vector<std::string> endpoints() const = 0;
  virtual void close() = 0;
};

// Called on a transport thread with each accepted channel, not started yet; must not block.
using AcceptHandler = std::function<void(ChannelPtr channel)>;

// Throws std::runtime_error with the reason when the url cannot be listened on.
std::unique_ptr<Listener> listen(const std::string& url, AcceptHandler onAccept);
// A channel to `url`, not started yet; fails with the reason.
Future<ChannelPtr> connect(const std::string& url);

}  // namespace wire
}  // namespace ka
