// The transport's life: its threads start with it, and it ends by closing every listener and
// channel on the thread that holds the reader role. Listening is in listeners.cpp, connecting in
// connect_attempt.cpp.

#include "wire/transport_impl.hpp"
#include "wire/url.hpp"

#include <boost/asio/post.hpp>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstring>
#include <limits>
#include <stdexcept>

namespace ka {
namespace wire {

std::string errnoText(int error) {
  return std::strerror(error);
}

void checkOptions(const TransportOptions& options) {
  if (options.maxFrameBody > std::numeric_limits<std::uint32_t>::max()) {
    throw std::invalid_argument("maxFrameBody above 4 GiB - 1: a frame length is 32 bits");
  }
}

void configureTcp(Tcp::socket& socket) {
  boost::system::error_code ignored;
  socket.set_option(Tcp::no_delay(true), ignored);
  socket.set_option(asio::socket_base::keep_alive(true), ignored);
  const int idleSeconds = 30, intervalSeconds = 10, probes = 3;
  ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof idleSeconds);
  ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_KEEPINTVL, &intervalSeconds,
               sizeof intervalSeconds);
  ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
}

std::string tcpPeer(const Tcp::socket& socket) {
  boost::system::error_code error;
  const Tcp::endpoint remote = socket.remote_endpoint(error);
  if (error) {
    return "tcp://(unknown peer)";
  }
  Url url;
  url.kind = Url::Kind::Tcp;
  url.host = remote.address().to_string();
  url.port = remote.port();
  return url.text();
}

std::string unixPeer(Local::socket& socket, const std::string& listenUrl) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0) {
    return listenUrl + " (pid " + std::to_string(credentials.pid) + ")";
  }
  return listenUrl + " (client)";
}

Transport::Transport() : impl_(std::make_shared<Impl>()) {
  // The last holder of the reader role detaches the channels once no handler runs any more; its
  // reference keeps the state alive when the transport is destroyed by one of its own threads.
  impl_->threads->start([impl = impl_] { impl->releaseChannels(); });
}

Transport::~Transport() {
  asio::post(impl_->io, [impl = impl_.get()] { impl->closeEverything(); });
  // From one of the transport's threads this returns at once: the holder of the role finishes
  // the shutdown once its handler or call returns.
  impl_->threads->join();
}

}  // namespace wire
}  // namespace ka
