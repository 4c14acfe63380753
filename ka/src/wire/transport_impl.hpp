#pragma once
// What the files of the transport share: its state (threads, listeners, channels), the socket
// helpers both accepting and connecting use, and its log category.

#include "wire/io_threads.hpp"
#include "wire/socket_channel.hpp"
#include "wire/transport.hpp"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ka {
namespace wire {

namespace asio = boost::asio;
using Tcp = asio::ip::tcp;
using Local = asio::local::stream_protocol;

inline constexpr const char kTransportCategory[] = "ka.transport";

std::string errnoText(int error);
// Throws std::invalid_argument for options no frame could honour.
void checkOptions(const TransportOptions& options);
// Small frames leave at once; and a peer that vanishes without closing (cable pulled, machine
// gone) is noticed within about a minute of silence even when nothing is being sent.
void configureTcp(Tcp::socket& socket);
// Who is on the other end, for messages: "tcp://host:port", "<listen url> (pid N)".
std::string tcpPeer(const Tcp::socket& socket);
std::string unixPeer(Local::socket& socket, const std::string& listenUrl);

class Listener {
 public:
  virtual ~Listener() = default;
  // I/O thread: starts accepting.
  virtual void start() = 0;
  // I/O thread: stops accepting and removes what listening created.
  virtual void close() = 0;
};

// Shared by the Transport and its thread, so that the thread can finish the shutdown on its own
// when the transport is destroyed by one of its handlers.
struct Transport::Impl {
  // One thread at a time runs io's handlers (the reader role): they never run concurrently.
  const std::shared_ptr<IoThreads> threads = std::make_shared<IoThreads>("ka-transport");
  asio::io_context& io = threads->io();

  std::mutex mutex;
  // Guarded by mutex.
  bool stopping = false;
  std::vector<std::weak_ptr<SocketChannel>> channels;
  std::vector<std::shared_ptr<Listener>> listeners;

  void registerChannel(const std::shared_ptr<SocketChannel>& channel) {
    std::lock_guard<std::mutex> lock(mutex);
    channels.erase(
        std::remove_if(channels.begin(), channels.end(), [](const auto& c) { return c.expired(); }),
        channels.end());
    channels.push_back(channel);
  }

  // I/O thread: closes every listener; later listen() calls are refused.
  void closeListeners() {
    std::vector<std::shared_ptr<Listener>> closing;
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
      closing.swap(listeners);
    }
    for (const auto& listener : closing) {
      listener->close();
    }
  }

  // I/O thread: the first step of shutting down.
  void closeEverything() {
    closeListeners();
    std::vector<std::weak_ptr<SocketChannel>> open;
    {
      std::lock_guard<std::mutex> lock(mutex);
      open = channels;
    }
    for (const auto& weak : open) {
      if (auto channel = weak.lock()) {
        channel->closeOnIoThread("transport shut down");
      }
    }
    threads->releaseWork();
    io.stop();
  }

  // Once the I/O thread no longer runs handlers: detaches every channel from the context
  // before the context is destroyed.
  void releaseChannels() {
    std::vector<std::weak_ptr<SocketChannel>> all;
    {
      std::lock_guard<std::mutex> lock(mutex);
      all.swap(channels);
    }
    for (const auto& weak : all) {
      if (auto channel = weak.lock()) {
        channel->release();
      }
    }
  }
};

}  // namespace wire
}  // namespace ka
