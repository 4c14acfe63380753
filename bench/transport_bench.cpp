// What the socket transport adds to a round trip: a small frame sent over a Channel and echoed
// back by the peer's frame handler, next to the floor, a plain blocking socket ping-pong of the
// same bytes between two threads, over the same kind of socket, in the same run. Prints p50, p99
// and round trips per second for each, the ratios, and the rate of a burst of queued frames. A
// third row per socket kind hands each reply from a reader thread to the caller: the floor for
// any transport that, like this one, reads on a thread of its own.
//
// Usage: transport_bench [round trips per case, default 20000]. Run it as is and under
// `taskset -c 0` to compare one vCPU with the whole machine.

#include "wire/frame_header.hpp"
#include "wire/transport.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace ka::wire;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t kBodySize = 64;
constexpr std::size_t kMessageSize = kFrameHeaderSize + kBodySize;  // what the floor exchanges

struct Result {
  double p50Us = 0;
  double p99Us = 0;
  double perSecond = 0;
};

Result summarize(std::vector<double>& microseconds, double totalSeconds) {
  std::sort(microseconds.begin(), microseconds.end());
  Result r;
  r.p50Us = microseconds[microseconds.size() / 2];
  r.p99Us = microseconds[microseconds.size() * 99 / 100];
  r.perSecond = static_cast<double>(microseconds.size()) / totalSeconds;
  return r;
}

template <typename RoundTrip>
Result measure(int count, RoundTrip&& roundTrip) {
  for (int i = 0; i < count / 10; ++i) {
    roundTrip();  // warm up caches, allocators and the scheduler
  }
  std::vector<double> samples;
  samples.reserve(count);
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    const auto t0 = Clock::now();
    roundTrip();
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  const double total = std::chrono::duration<double>(Clock::now() - start).count();
  return summarize(samples, total);
}

// --- The transport ---------------------------------------------------------------------------

Result channelPingPong(const std::string& listenUrl, int count) {
  std::mutex mutex;
  std::condition_variable answered;
  bool got = false;  // guarded by mutex

  Transport server;
  const auto endpoints = server.listen(listenUrl, {}, [](ChannelPtr channel) {
    std::weak_ptr<Channel> weak = channel;
    channel->start(
        [weak](Frame frame) {
          if (auto c = weak.lock()) {
            c->send(std::move(frame));
          }
        },
        [](const std::string&) {});
  });
  Transport client;
  ChannelPtr channel = client.connect(endpoints.at(0), {});
  channel->start(
      [&](Frame) {
        std::lock_guard<std::mutex> lock(mutex);
        got = true;
        answered.notify_one();
      },
      [](const std::string&) {});
  const std::vector<char> body(kBodySize, 'x');
  std::uint64_t id = 0;
  Result result = measure(count, [&] {
    Frame frame;
    frame.type = 1;
    frame.requestId = ++id;
    frame.body = body;
    std::unique_lock<std::mutex> lock(mutex);
    got = false;
    lock.unlock();
    if (!channel->send(std::move(frame))) {
      throw std::runtime_error("channel closed");
    }
    lock.lock();
    if (!answered.wait_for(lock, std::chrono::seconds(10), [&] { return got; })) {
      throw std::runtime_error("no answer within 10 s");
    }
  });
  channel->close("done");
  return result;
}

// Frames per second when many are queued at once and echoed: what batched writes buy.
double channelBurst(const std::string& listenUrl, int frames) {
  std::mutex mutex;
  std::condition_variable answered;
  int got = 0;  // guarded by mutex

  Transport server;
  const auto endpoints = server.listen(listenUrl, {}, [](ChannelPtr channel) {
    std::weak_ptr<Channel> weak = channel;
    channel->start(
        [weak](Frame frame) {
          if (auto c = weak.lock()) {
            c->send(std::move(frame));
          }
        },
        [](const std::string&) {});
  });
  Transport client;
  ChannelPtr channel = client.connect(endpoints.at(0), {});
  channel->start(
      [&](Frame) {
        std::lock_guard<std::mutex> lock(mutex);
        if (++got == frames) {
          answered.notify_one();
        }
      },
      [](const std::string&) {});
  const std::vector<char> body(kBodySize, 'x');
  const auto start = Clock::now();
  for (int i = 0; i < frames; ++i) {
    Frame frame;
    frame.type = 1;
    frame.requestId = static_cast<std::uint64_t>(i);
    frame.body = body;
    channel->send(std::move(frame));
  }
  std::unique_lock<std::mutex> lock(mutex);
  if (!answered.wait_for(lock, std::chrono::seconds(30), [&] { return got == frames; })) {
    throw std::runtime_error("burst not echoed within 30 s");
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  lock.unlock();
  channel->close("done");
  return frames / seconds;
}

// --- The floor: blocking sockets -------------------------------------------------------------

void readAll(int fd, char* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::read(fd, data + done, size - done);
    if (n <= 0) {
      throw std::runtime_error("plain socket closed");
    }
    done += static_cast<std::size_t>(n);
  }
}

void writeAll(int fd, const char* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::send(fd, data + done, size - done, MSG_NOSIGNAL);
    if (n <= 0) {
      throw std::runtime_error("plain socket closed");
    }
    done += static_cast<std::size_t>(n);
  }
}

// A connected pair of sockets of the given kind, through a listening socket as a real
// connection would be.
std::pair<int, int> plainPair(bool unixKind, const std::string& path) {
  int listener, client;
  if (unixKind) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ::unlink(path.c_str());
    listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 1) != 0) {
      throw std::runtime_error("cannot listen on " + path);
    }
    client = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect to " + path);
    }
  } else {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    listener = ::socket(AF_INET, SOCK_STREAM, 0);
    socklen_t length = sizeof address;
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener, 1) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("cannot listen on loopback");
    }
    client = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect to loopback");
    }
  }
  const int server = ::accept(listener, nullptr, nullptr);
  ::close(listener);
  if (unixKind) {
    ::unlink(path.c_str());
  } else {
    const int one = 1;
    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  return {client, server};
}

Result plainPingPong(bool unixKind, const std::string& path, int count) {
  const auto [client, server] = plainPair(unixKind, path);
  std::thread echo([server = server] {
    char message[kMessageSize];
    try {
      for (;;) {
        readAll(server, message, sizeof message);
        writeAll(server, message, sizeof message);
      }
    } catch (const std::exception&) {
      // the client closed: done
    }
  });
  char message[kMessageSize] = {};
  Result result = measure(count, [&, client = client] {
    writeAll(client, message, sizeof message);
    readAll(client, message, sizeof message);
  });
  ::shutdown(client, SHUT_RDWR);
  echo.join();
  ::close(client);
  ::close(server);
  return result;
}

// The floor of any design that reads on a thread of its own: the same blocking ping-pong, but
// the reply is read by a reader thread and handed to the waiting caller through a condition
// variable, one thread wake-up more per round trip than the plain ping-pong.
Result handOffPingPong(bool unixKind, const std::string& path, int count) {
  const auto [client, server] = plainPair(unixKind, path);
  std::thread echo([server = server] {
    char message[kMessageSize];
    try {
      for (;;) {
        readAll(server, message, sizeof message);
        writeAll(server, message, sizeof message);
      }
    } catch (const std::exception&) {
    }
  });
  std::mutex mutex;
  std::condition_variable answered;
  bool got = false;  // guarded by mutex
  std::thread reader([&, client = client] {
    char message[kMessageSize];
    try {
      for (;;) {
        readAll(client, message, sizeof message);
        std::lock_guard<std::mutex> lock(mutex);
        got = true;
        answered.notify_one();
      }
    } catch (const std::exception&) {
    }
  });
  char message[kMessageSize] = {};
  Result result = measure(count, [&, client = client] {
    {
      std::lock_guard<std::mutex> lock(mutex);
      got = false;
    }
    writeAll(client, message, sizeof message);
    std::unique_lock<std::mutex> lock(mutex);
    answered.wait(lock, [&] { return got; });
  });
  ::shutdown(client, SHUT_RDWR);
  echo.join();
  reader.join();
  ::close(client);
  ::close(server);
  return result;
}

void printRow(const char* name, const Result& r) {
  std::printf("%-34s %9.1f %9.1f %12.0f\n", name, r.p50Us, r.p99Us, r.perSecond);
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::max(100, std::atoi(argv[1])) : 20000;
  char directory[] = "/tmp/katransport-bench-XXXXXX";
  if (::mkdtemp(directory) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string channelPath = std::string(directory) + "/channel.sock";
  const std::string plainPath = std::string(directory) + "/plain.sock";

  std::printf("round trip of a %zu-byte body (%zu bytes with the header), %d round trips each\n",
              kBodySize, kMessageSize, count);
  std::printf("%-34s %9s %9s %12s\n", "", "p50 us", "p99 us", "calls/s");
  const Result unixPlain = plainPingPong(true, plainPath, count);
  const Result unixHandOff = handOffPingPong(true, plainPath, count);
  const Result unixChannel = channelPingPong("unix://" + channelPath, count);
  const Result tcpPlain = plainPingPong(false, "", count);
  const Result tcpHandOff = handOffPingPong(false, "", count);
  const Result tcpChannel = channelPingPong("tcp://127.0.0.1:0", count);
  printRow("unix: plain blocking ping-pong", unixPlain);
  printRow("unix: same, reply via reader thread", unixHandOff);
  printRow("unix: Channel ping-pong", unixChannel);
  printRow("tcp:  plain blocking ping-pong", tcpPlain);
  printRow("tcp:  same, reply via reader thread", tcpHandOff);
  printRow("tcp:  Channel ping-pong", tcpChannel);
  std::printf("ratio Channel / plain, p50: unix %.2fx, tcp %.2fx; calls/s: unix %.2fx, tcp %.2fx\n",
              unixChannel.p50Us / unixPlain.p50Us, tcpChannel.p50Us / tcpPlain.p50Us,
              unixChannel.perSecond / unixPlain.perSecond,
              tcpChannel.perSecond / tcpPlain.perSecond);
  std::printf("ratio Channel / reader-thread floor, p50: unix %.2fx, tcp %.2fx\n",
              unixChannel.p50Us / unixHandOff.p50Us, tcpChannel.p50Us / tcpHandOff.p50Us);
  std::printf(
      "burst of %d frames queued at once and echoed: unix %.0f frames/s, tcp %.0f "
      "frames/s\n",
      count, channelBurst("unix://" + channelPath, count),
      channelBurst("tcp://127.0.0.1:0", count));
  ::rmdir(directory);
  return 0;
}
