#pragma once
// Limits and security settings of a transport's listeners and connections.

#include <chrono>
#include <cstddef>
#include <string>

namespace ka {
namespace wire {

struct TransportOptions {
  // Largest frame body accepted from, or sent to, a peer. A header declaring more closes the
  // connection before anything is allocated for the body. At most 4 GiB - 1 (a uint32 length).
  std::size_t maxFrameBody = std::size_t{16} << 20;
  // Bytes (headers included) that may wait in a connection's output queue. A peer that does not
  // read makes the queue grow; past this the connection is closed, so it cannot exhaust memory.
  std::size_t maxQueuedOutput = std::size_t{64} << 20;
  // Shared secret. Listening: when not empty, a client must present it. Connecting: presented
  // to the server (empty presents none).
  std::string token;
  // Listening on TCP: whether a non-loopback address is allowed; it then requires a token.
  bool allowNonLoopback = false;
  // Connecting: the time allowed for resolving, connecting and the handshake together.
  // Listening: the time a new connection has to complete its handshake.
  std::chrono::milliseconds handshakeTimeout{5000};
};

}  // namespace wire
}  // namespace ka
