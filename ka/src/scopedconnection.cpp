#include <ka/log.hpp>
#include <ka/scopedconnection.hpp>

#include <exception>
#include <utility>

namespace ka {

ScopedConnection::ScopedConnection(SignalLink link, Disconnect disconnect) noexcept
    : _link(link), _disconnect(std::move(disconnect)) {}

ScopedConnection::ScopedConnection(ScopedConnection&& other) noexcept
    : _link(std::exchange(other._link, SignalLink_Invalid)),
      _disconnect(std::move(other._disconnect)) {}

ScopedConnection& ScopedConnection::operator=(ScopedConnection&& other) noexcept {
  if (this != &other) {
    disconnect();
    _link = std::exchange(other._link, SignalLink_Invalid);
    _disconnect = std::move(other._disconnect);
  }
  return *this;
}

ScopedConnection::~ScopedConnection() {
  disconnect();
}

void ScopedConnection::disconnect() noexcept {
  const SignalLink link = std::exchange(_link, SignalLink_Invalid);
  Disconnect disconnect = std::move(_disconnect);
  _disconnect = nullptr;
  if (link == SignalLink_Invalid || !disconnect) {
    return;
  }
  // Runs from destructors: a failure is reported, never thrown.
  try {
    disconnect(link);
  } catch (const std::exception& e) {
    KA_LOG_WARNING("ka.signal") << "Disconnecting link " << link << " failed: " << e.what();
  } catch (...) {
    KA_LOG_WARNING("ka.signal") << "Disconnecting link " << link << " failed";
  }
}

SignalLink ScopedConnection::release() noexcept {
  _disconnect = nullptr;
  return std::exchange(_link, SignalLink_Invalid);
}

}  // namespace ka
