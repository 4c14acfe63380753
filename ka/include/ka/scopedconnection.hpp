#pragma once
// ScopedConnection: a subscription that ends when its handle does, so that a subscriber which
// captures its owner can never be called after the owner is gone. Offered beside the plain
// connect() of signals and objects, which hands out a bare link to disconnect by hand.

#include <ka/api.hpp>
#include <ka/metacalltype.hpp>

#include <functional>

namespace ka {

class KA_API ScopedConnection {
 public:
  using Disconnect = std::function<void(SignalLink)>;

  ScopedConnection() = default;
  // Takes charge of `link`; `disconnect(link)` ends it, and must not throw.
  ScopedConnection(SignalLink link, Disconnect disconnect) noexcept;
  ScopedConnection(ScopedConnection&& other) noexcept;
  // Ends the subscription held so far, then takes over `other`'s.
  ScopedConnection& operator=(ScopedConnection&& other) noexcept;
  ScopedConnection(const ScopedConnection&) = delete;
  ScopedConnection& operator=(const ScopedConnection&) = delete;
  ~ScopedConnection();

  bool isConnected() const noexcept { return _link != SignalLink_Invalid; }
  SignalLink link() const noexcept { return _link; }

  // Ends the subscription now. Once it returns the subscriber is not called again and no call
  // of it is still running elsewhere (unless it is the caller: a subscriber may end itself).
  void disconnect() noexcept;
  // Keeps the subscription going without this handle; gives the link, to disconnect by hand.
  [[nodiscard]] SignalLink release() noexcept;

 private:
  SignalLink _link = SignalLink_Invalid;
  Disconnect _disconnect;
};

}  // namespace ka
