#pragma once
// Shared by the benches that time round trips: latency percentiles and rate of a loop run from
// several threads, and the floor of a remote call, a plain blocking socket ping-pong of a given
// number of bytes each way over a Unix or TCP socket.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

struct Result {
  double p50Us = 0;
  double p99Us = 0;
  double perSecond = 0;
  long calls = 0;
};

// How long a measured case runs: each thread stops after its share of `calls` or when `seconds`
// have passed, whichever comes first (0 for either means no such limit).
struct Budget {
  long calls = 0;
  double seconds = 0;
};

// Runs `threads` threads calling roundTrip(thread) within the budget, each after a few warm-up
// calls; every call is timed on its own.
template <typename RoundTrip>
Result measure(int threads, Budget budget, RoundTrip&& roundTrip) {
  if (budget.calls <= 0 && budget.seconds <= 0) {
    throw std::invalid_argument("a measurement needs a number of calls or a duration");
  }
  for (int t = 0; t < threads; ++t) {
    for (int i = 0; i < 100; ++i) {
      roundTrip(t);
    }
  }
  std::vector<std::vector<double>> perThread(static_cast<std::size_t>(threads));
  const long each = budget.calls > 0 ? std::max(1L, budget.calls / threads) : 0;
  const auto start = Clock::now();
  const auto deadline = budget.seconds > 0
                            ? start + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(budget.seconds))
                            : Clock::time_point::max();
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      auto& mine = perThread[static_cast<std::size_t>(t)];
      mine.reserve(each > 0 ? static_cast<std::size_t>(each) : 100000);
      for (long i = 0; each == 0 || i < each; ++i) {
        const auto before = Clock::now();
        roundTrip(t);
        const auto after = Clock::now();
        mine.push_back(std::chrono::duration<double, std::micro>(after - before).count());
        if (after >= deadline) {
          break;
        }
      }
    });
  }
  for (auto& w : workers) {
    w.join();
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<double> all;
  for (auto& v : perThread) {
    all.insert(all.end(), v.begin(), v.end());
  }
  std::sort(all.begin(), all.end());
  return Result{all[all.size() / 2], all[all.size() * 99 / 100],
                static_cast<double>(all.size()) / seconds, static_cast<long>(all.size())};
}

inline void check(bool ok, const char* what) {
  if (!ok) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
  }
}

inline void writeAll(int fd, const char* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::write(fd, data + done, size - done);
    check(n > 0, "write");
    done += static_cast<std::size_t>(n);
  }
}

// False when the peer closed (or failed) before `size` bytes arrived.
inline bool readAll(int fd, char* data, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = ::read(fd, data + done, size - done);
    if (n <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// A connected pair of stream sockets of the kind, with TCP_NODELAY for TCP (as the middleware
// sets it). `path` names the Unix socket while the pair is made; it is gone afterwards.
inline std::pair<int, int> socketPair(bool tcp, const std::string& path) {
  const int listener = ::socket(tcp ? AF_INET : AF_UNIX, SOCK_STREAM, 0);
  check(listener >= 0, "socket");
  sockaddr_storage address{};
  socklen_t length = 0;
  if (tcp) {
    auto* in = reinterpret_cast<sockaddr_in*>(&address);
    in->sin_family = AF_INET;
    in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof(sockaddr_in);
  } else {
    auto* un = reinterpret_cast<sockaddr_un*>(&address);
    un->sun_family = AF_UNIX;
    std::strncpy(un->sun_path, path.c_str(), sizeof(un->sun_path) - 1);
    ::unlink(path.c_str());
    length = sizeof(sockaddr_un);
  }
  check(::bind(listener, reinterpret_cast<sockaddr*>(&address), length) == 0, "bind");
  check(::listen(listener, 1) == 0, "listen");
  check(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0, "name");
  const int client = ::socket(tcp ? AF_INET : AF_UNIX, SOCK_STREAM, 0);
  check(client >= 0, "socket");
  check(::connect(client, reinterpret_cast<sockaddr*>(&address), length) == 0, "connect");
  const int server = ::accept(listener, nullptr, nullptr);
  check(server >= 0, "accept");
  ::close(listener);
  if (tcp) {
    const int one = 1;
    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  } else {
    ::unlink(path.c_str());
  }
  return {client, server};
}

// The floor of a remote call: `threads` socket pairs, each with an answering thread; a round
// trip writes `requestBytes` and reads `replyBytes` back.
inline Result pingPong(bool tcp, int threads, Budget budget, std::size_t requestBytes,
                       std::size_t replyBytes) {
  struct Pair {
    int client = -1;
    int server = -1;
    std::thread answer;
  };
  // Closes every pair, ending its answering thread, however the measurement ends.
  struct Pairs {
    std::vector<Pair> list;
    ~Pairs() {
      for (auto& p : list) {
        ::shutdown(p.client, SHUT_RDWR);
        if (p.answer.joinable()) {
          p.answer.join();
        }
        ::close(p.client);
        ::close(p.server);
      }
    }
  } pairs;
  for (int t = 0; t < threads; ++t) {
    const auto fds = socketPair(tcp, "/tmp/bench-ping-pong-" + std::to_string(::getpid()) + "-" +
                                         std::to_string(t) + ".sock");
    pairs.list.push_back(Pair{fds.first, fds.second, {}});
  }
  for (auto& p : pairs.list) {
    const int fd = p.server;
    p.answer = std::thread([fd, requestBytes, replyBytes] {
      std::vector<char> buffer(std::max(requestBytes, replyBytes), 'r');
      while (readAll(fd, buffer.data(), requestBytes)) {
        if (::write(fd, buffer.data(), replyBytes) != static_cast<ssize_t>(replyBytes)) {
          return;
        }
      }
    });
  }
  std::vector<std::vector<char>> buffers(static_cast<std::size_t>(threads),
                                         std::vector<char>(std::max(requestBytes, replyBytes)));
  return measure(threads, budget, [&](int t) {
    const auto i = static_cast<std::size_t>(t);
    writeAll(pairs.list[i].client, buffers[i].data(), requestBytes);
    check(readAll(pairs.list[i].client, buffers[i].data(), replyBytes), "read");
  });
}

}  // namespace bench
