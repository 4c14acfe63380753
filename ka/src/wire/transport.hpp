#pragma once
// Listens on and connects to Unix and TCP sockets and hands out the resulting Channels once
// their handshake succeeded. Owns the I/O thread that runs every socket operation and every
// channel handler, so socket I/O never waits for user code elsewhere.

#include "wire/channel.hpp"
#include "wire/transport_options.hpp"

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace ka {
namespace wire {

// Listening or connecting failed; the text says which url and why.
class TransportError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Transport {
 public:
  // Runs on the I/O thread with each accepted channel (not started yet); must not block.
  using AcceptHandler = std::function<void(ChannelPtr channel)>;

  Transport();
  // Stops listening (removing the Unix socket files it created), closes every channel (their
  // close handlers run with "transport shut down") and stops the I/O thread. Safe from any
  // thread, a handler of this transport included (the I/O thread then ends on its own right
  // after that handler returns). Must not race with listen() or connect().
  ~Transport();
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // Starts accepting connections at `url` and returns the urls actually listened on (a tcp
  // port 0 replaced by the port chosen; one url per address a host name resolves to).
  // Throws std::invalid_argument for a malformed url, TransportError when it cannot listen:
  // the address is in use or already served, a non-loopback TCP address without
  // options.allowNonLoopback or without a token, a path that is not a socket.
  std::vector<std::string> listen(const std::string& url, const TransportOptions& options,
                                  AcceptHandler onAccept);

  // Connects and completes the handshake within options.handshakeTimeout. Throws
  // std::invalid_argument for a malformed url, TransportError when nothing answers, the server
  // refuses (its reason included), or time runs out; std::logic_error on the I/O thread,
  // which must not wait for itself.
  ChannelPtr connect(const std::string& url, const TransportOptions& options);

  // Stops accepting connections on every url listened on (removing the Unix socket files it
  // created) and returns once no new connection can be handed out; connections already made
  // stay. Later listen() calls are refused. Not on the I/O thread, which must not wait for itself.
  void stopListening();

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace wire
}  // namespace ka
