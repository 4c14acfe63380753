#pragma once
// Endpoints inside this process: "local://<name>" urls, served by LocalChannel pairs. Sessions
// of one process use them like sockets, without the kernel; tests use them to inject failures.

#include "wire/channel.hpp"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ka {
namespace wire {

// Accepts connections on one local url until closed or destroyed.
class LocalListener {
 public:
  virtual ~LocalListener() = default;
  virtual void close() = 0;
};

// Called on the connecting thread with each accepted channel, not started yet; must not block.
using LocalAcceptHandler = std::function<void(ChannelPtr channel)>;

bool isLocalUrl(const std::string& url);
// Throws std::runtime_error with the reason when the url cannot be listened on.
std::unique_ptr<LocalListener> listenLocal(const std::string& url, LocalAcceptHandler onAccept);
// A channel to `url`, not started yet; throws std::runtime_error when nobody listens there.
ChannelPtr connectLocal(const std::string& url);

}  // namespace wire
}  // namespace ka
