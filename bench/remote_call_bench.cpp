// What a remote call costs: a session calls "echo" on a service of another session over a Unix
// and a TCP socket, from 1 and from 8 threads, next to the floor measured in the same run, a
// plain blocking socket ping-pong of the same number of bytes (one socket pair per thread).
// Prints p50, p99 and calls per second for each, and the ratios to the floor.
//
// Usage: remote_call_bench [calls per case, default 20000]. Run it as is and under
// `taskset -c 0` to compare one vCPU with the whole machine.

#include <ka/dynamicobjectbuilder.hpp>
#include <ka/session.hpp>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench_timing.hpp"

namespace {

using bench::Budget;
using bench::Result;

// The text echoed: with the call's header, object, method and signature fields it makes a
// request frame of kFrameBytes bytes on the wire.
const std::string kPayload(64, 'p');
// 16-byte header + msgpack [2, uid, "(s)", ["<64 bytes>"]] (74 bytes); the reply is a
// few bytes shorter. The floor exchanges this many bytes each way.
constexpr std::size_t kFrameBytes = 90;

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
  const Result r = bench::measure(threads, Budget{count, 0}, [&](int) {
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
        const Result floor =
            bench::pingPong(tcp, threads, Budget{count, 0}, kFrameBytes, kFrameBytes);
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
                                        ? "installed; bench/run compares with it"
                                        : "not installed, comparison skipped");
  return 0;
}
