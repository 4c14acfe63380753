// What a remote call costs: a session calls "echo" on a service of another session over a Unix
// and a TCP socket, from 1 and from 8 threads, next to the floor measured in the same run, a
// plain blocking socket ping-pong of the same number of bytes (one socket pair per thread).
// Prints p50, p99 and calls per second for each, and the ratios to the floor.
//
// Usage: remote_call_bench [calls per case, default 20000]. Run it as is and under
// `taskset -c 0` to compare one vCPU with the whole machine.

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/session.hpp>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using Clock = std::chrono::steady_clock;

namespace {

// The text echoed: with the call's header, object, method and signature fields it makes a
// request frame of kFrameBytes bytes on the wire.
const std::string kPayload(64, 'p');
// 16-byte header + msgpack [2, uid, "(s)", ["<64 bytes>"]] (74 bytes); the reply is a
// few bytes shorter. The floor exchanges this many bytes each way.
constexpr std::size_t kFrameBytes = 90;

struct Result {
  double p50Us = 0;
  double p99Us = 0;
  double perSecond = 0;
};

// Runs `threads` threads doing `count` round trips in all; roundTrip(thread) does one.
template <typename RoundTrip>
Result measure(int count, int threads, RoundTrip&& roundTrip) {
  for (int t = 0; t < threads; ++t) {
    for (int i = 0; i < 200; ++i) {
      roundTrip(t);  // warm up
    }
  }
  std::vector<std::vector<double>> perThread(static_cast<std::size_t>(threads));
  const int each = count / threads;
  const auto start = Clock::now();
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      auto& mine = perThread[static_cast<std::size_t>(t)];
      mine.reserve(static_cast<std::size_t>(each));
      for (int i = 0; i < each; ++i) {
        const auto before = Clock::now();
        roundTrip(t);
        mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - before).count());
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
                static_cast<double>(all.size()) / seconds};
}

void check(bool ok, const char* what) {
  if (!ok) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
  }
}

void exchange(int fd, char* buffer, bool writeFirst) {
  auto writeAll = [&] {
    std::size_t done = 0;
    while (done < kFrameBytes) {
      const ssize_t n = ::write(fd, buffer + done, kFrameBytes - done);
      check(n > 0, "write");
      done += static_cast<std::size_t>(n);
    }
  };
  auto readAll = [&] {
    std::size_t done = 0;
    while (done < kFrameBytes) {
      const ssize_t n = ::read(fd, buffer + done, kFrameBytes - done);
      check(n > 0, "read");
      done += static_cast<std::size_t>(n);
    }
  };
  if (writeFirst) {
    writeAll();
    readAll();
  } else {
    readAll();
    writeAll();
  }
}

// A connected pair of sockets of the kind, with TCP_NODELAY for TCP.
std::pair<int, int> socketPair(bool tcp, const std::string& path) {
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
  check(::connect(client, reinterpret_cast<sockaddr*>(&address), length) == 0, "connect");
  const int server = ::accept(listener, nullptr, nullptr);
  check(server >= 0, "accept");
  ::close(listener);
  if (!tcp) {
    ::unlink(path.c_str());
  }
  if (tcp) {
    const int one = 1;
    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  return {client, server};
}

// The floor: `threads` socket pairs, each with an echoing thread.
Result floorPingPong(bool tcp, int threads, int count) {
  struct Pair {
    int client;
    int server;
    std::thread echo;
  };
  std::vector<Pair> pairs;
  for (int t = 0; t < threads; ++t) {
    auto fds = socketPair(tcp, "/tmp/ka-remote-bench-floor-" + std::to_string(::getpid()) + "-" +
                                   std::to_string(t) + ".sock");
    pairs.push_back(Pair{fds.first, fds.second, {}});
  }
  for (auto& p : pairs) {
    const int fd = p.server;
    p.echo = std::thread([fd] {
      char buffer[kFrameBytes];
      for (;;) {
        std::size_t done = 0;
        while (done < kFrameBytes) {
          const ssize_t n = ::read(fd, buffer + done, kFrameBytes - done);
          if (n <= 0) {
            return;
          }
          done += static_cast<std::size_t>(n);
        }
        if (::write(fd, buffer, kFrameBytes) != static_cast<ssize_t>(kFrameBytes)) {
          return;
        }
      }
    });
  }
  std::vector<std::vector<char>> buffers(static_cast<std::size_t>(threads),
                                         std::vector<char>(kFrameBytes, 'x'));
  const Result r = measure(count, threads, [&](int t) {
    exchange(pairs[static_cast<std::size_t>(t)].client, buffers[static_cast<std::size_t>(t)].data(),
             true);
  });
  for (auto& p : pairs) {
    ::shutdown(p.client, SHUT_RDWR);
    p.echo.join();
    ::close(p.client);
    ::close(p.server);
  }
  return r;
}

Result remoteCalls(const std::string& url, int threads, int count) {
  auto server = ka::makeSession();
  server->listen(url).value();
  ka::DynamicObjectBuilder b;
  b.setThreadingModel(ka::ObjectThreadingModel::MultiThread);
  b.advertiseMethod("echo", [](const std::string& s) { return s; });
  server->registerService("Echo", b.object()).value();
  auto client = ka::makeSession();
  client->connect(server->endpoints().front()).value();
  ka::AnyObject echo = client->service("Echo").value();
  const Result r = measure(count, threads, [&](int) {
    if (echo->call<std::string>("echo", kPayload).size() != kPayload.size()) {
      throw std::runtime_error("echo answered something else");
    }
  });
  client->close();
  server->close();
  return r;
}

void print(const char* name, const Result& r, const Result* floor) {
  std::printf("  %-28s p50 %7.1f us  p99 %7.1f us  %9.0f calls/s", name, r.p50Us, r.p99Us,
              r.perSecond);
  if (floor != nullptr) {
    std::printf("   p50 x%.2f of the floor, calls/s x%.2f", r.p50Us / floor->p50Us,
                r.perSecond / floor->perSecond);
  }
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 20000;
  std::printf("remote call bench: %d calls per case, %u hardware threads, %zu-byte frames\n", count,
              std::thread::hardware_concurrency(), kFrameBytes);
  try {
    for (const bool tcp : {false, true}) {
      const std::string url =
          tcp ? "tcp://127.0.0.1:0"
              : "unix:///tmp/ka-remote-bench-" + std::to_string(::getpid()) + ".sock";
      std::printf("%s\n", tcp ? "TCP (loopback)" : "Unix socket");
      for (const int threads : {1, 8}) {
        const Result floor = floorPingPong(tcp, threads, count);
        const Result call = remoteCalls(url, threads, count);
        const std::string suffix = threads == 1 ? ", 1 thread" : ", 8 threads";
        print(("socket ping-pong" + suffix).c_str(), floor, nullptr);
        print(("remote call" + suffix).c_str(), call, &floor);
      }
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "remote_call_bench: %s\n", e.what());
    return 1;
  }
  std::printf("redis-server: %s\n", std::system("command -v redis-server > /dev/null 2>&1") == 0
                                        ? "installed, but its comparison is not part of this bench"
                                        : "not installed, comparison skipped");
  return 0;
}
