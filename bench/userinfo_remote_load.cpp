// Remote load on a served "QVUserInfo" (the daemon qvuserinfod), next to its floor measured in
// the same run: a plain socket ping-pong of the bytes a get really exchanges, on the same kind of
// socket. Each client thread has a session and a connection of its own, as separate client
// processes would and as the references do (redis-benchmark -c N opens N connections, the
// ping-pong has one socket pair per thread): one shared session would multiplex its threads on
// one socket and measure that socket's queue instead.
//
// Prints one "result <key> <value>" line per figure (p50/p99 in microseconds, ops per second).
//
//   userinfo_remote_load frames --url unix:///PATH
//     The size of a get request and of its reply on the wire, counted by a relay between a
//     client and the daemon: result frame.request / frame.reply (bytes per call).
//   userinfo_remote_load run --url URL --users N --request B --reply B [--seconds S]
//                            [--prefix P] [--server-pid PID] [--only CASE.T]
//     For 1 and then 8 clients: ping-pong, get(id, "birthyear"), _set(id, "birthyear", int) on
//     users 1..N: P.pingpong.T.*, P.get.T.*, P.set.T.* (T: 1 or 8); with 8, one _set in ten
//     gets: P.mix.8.*. With --server-pid, the daemon's CPU time (user + system, all its threads)
//     per call over each case of calls, in microseconds: P.cpu.get.T, P.cpu.set.T, P.cpu.mix.8.
//     --only runs that one case, e.g. --only set.8.
//   userinfo_remote_load read --url URL --users N --calls C
//     C gets of scattered users, to bring part of a large store into the daemon's memory.

#include <ka/anyvalue.hpp>
#include <ka/session.hpp>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <map>
#include <memory>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench_store.hpp"
#include "bench_timing.hpp"

namespace {

using bench::Budget;
using bench::Result;

const std::string kDataName = "birthyear";

// A client of its own: one session, one connection, one handle on the service.
struct Client {
  explicit Client(const std::string& url) : session(ka::makeSession()) {
    session->connect(url).value(10000);
    info = session->service("QVUserInfo").value(10000);
  }
  ~Client() { session->close(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  void get(int user) {
    if (info->call<ka::AnyValue>("get", user, kDataName).kind() != ka::TypeKind::Int) {
      throw std::runtime_error("get answered no int: is the store built for " +
                               std::to_string(user) + " users?");
    }
  }
  void set(int user, int value) {
    if (!info->call<bool>("_set", user, kDataName, ka::AnyValue(value))) {
      throw std::runtime_error("_set was refused");
    }
  }

  ka::SessionPtr session;
  ka::AnyObject info;
};

std::vector<std::unique_ptr<Client>> clients(const std::string& url, int count) {
  std::vector<std::unique_ptr<Client>> list;
  for (int i = 0; i < count; ++i) {
    list.push_back(std::make_unique<Client>(url));
  }
  return list;
}

void report(const std::string& key, const Result& r) {
  std::printf("result %s.p50 %.3f\nresult %s.p99 %.3f\nresult %s.ops %.0f\n", key.c_str(), r.p50Us,
              key.c_str(), r.p99Us, key.c_str(), r.perSecond);
  std::fflush(stdout);
}

int connectUnix(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  bench::check(fd >= 0, "socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  bench::check(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
               ("connect " + path).c_str());
  return fd;
}

// Forwards one accepted connection to `upstream`, counting the bytes of each direction before it
// passes them on: once a reply has reached the client, both counts include that exchange.
class CountingRelay {
 public:
  CountingRelay(const std::string& listenPath, const std::string& upstreamPath)
      : path_(listenPath) {
    ::unlink(path_.c_str());
    listener_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    bench::check(listener_ >= 0, "socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
    bench::check(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
                 "bind");
    bench::check(::listen(listener_, 1) == 0, "listen");
    acceptor_ = std::thread([this, upstreamPath] {
      client_ = ::accept(listener_, nullptr, nullptr);
      if (client_ < 0) {
        return;
      }
      try {
        server_ = connectUnix(upstreamPath);
      } catch (const std::exception& e) {
        std::fprintf(stderr, "userinfo_remote_load: relay: %s\n", e.what());
        ::shutdown(client_, SHUT_RDWR);
        return;
      }
      toServer_ = std::thread([this] { pump(client_, server_, up); });
      pump(server_, client_, down);
    });
  }

  ~CountingRelay() {
    ::shutdown(listener_, SHUT_RDWR);
    if (client_ >= 0) {
      ::shutdown(client_, SHUT_RDWR);
    }
    if (server_ >= 0) {
      ::shutdown(server_, SHUT_RDWR);
    }
    acceptor_.join();
    if (toServer_.joinable()) {
      toServer_.join();
    }
    for (const int fd : {listener_, client_.load(), server_.load()}) {
      if (fd >= 0) {
        ::close(fd);
      }
    }
    ::unlink(path_.c_str());
  }

  std::atomic<long> up{0};
  std::atomic<long> down{0};

 private:
  static void pump(int from, int to, std::atomic<long>& count) {
    char buffer[65536];
    for (;;) {
      const ssize_t n = ::read(from, buffer, sizeof buffer);
      if (n <= 0) {
        ::shutdown(to, SHUT_WR);
        return;
      }
      count += n;
      try {
        bench::writeAll(to, buffer, static_cast<std::size_t>(n));
      } catch (const std::exception&) {
        return;
      }
    }
  }

  std::string path_;
  int listener_ = -1;
  // Set by the accepting thread, shut down by the destructor.
  std::atomic<int> client_{-1};
  std::atomic<int> server_{-1};
  std::thread acceptor_;
  std::thread toServer_;
};

int frames(const std::string& url) {
  const std::string prefix = "unix://";
  if (url.compare(0, prefix.size(), prefix) != 0) {
    throw std::invalid_argument("frames needs a unix:// url");
  }
  const std::string relayPath = "/tmp/userinfo-frames-" + std::to_string(::getpid()) + ".sock";
  CountingRelay relay(relayPath, url.substr(prefix.size()));
  constexpr int kCalls = 1000;
  long up = 0;
  long down = 0;
  {
    Client client("unix://" + relayPath);
    bench::UserPicker users(1000, 1);
    client.get(users.next());
    up = -relay.up.load();
    down = -relay.down.load();
    for (int i = 0; i < kCalls; ++i) {
      client.get(users.next());
    }
    up += relay.up.load();
    down += relay.down.load();
  }
  std::printf("result frame.request %ld\nresult frame.reply %ld\n", (up + kCalls / 2) / kCalls,
              (down + kCalls / 2) / kCalls);
  return 0;
}

// The CPU time (user + system, every thread) process `pid` has used so far, in microseconds.
double cpuUs(long pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  std::ifstream in(path);
  std::string line;
  if (!std::getline(in, line) || line.rfind(')') == std::string::npos) {
    throw std::runtime_error("cannot read " + path);
  }
  // The command name, in parentheses, may hold spaces: count the fields after it, from field 3;
  // utime and stime are fields 14 and 15, in clock ticks.
  std::istringstream fields(line.substr(line.rfind(')') + 1));
  std::string skipped;
  for (int field = 3; field < 14; ++field) {
    fields >> skipped;
  }
  unsigned long long user = 0;
  unsigned long long system = 0;
  if (!(fields >> user >> system)) {
    throw std::runtime_error("no CPU times in " + path);
  }
  return static_cast<double>(user + system) * 1e6 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

int run(const std::string& url, int users, std::size_t request, std::size_t reply, double seconds,
        const std::string& prefix, long serverPid, const std::string& only) {
  const bool tcp = url.compare(0, 6, "tcp://") == 0;
  const Budget budget{0, seconds};
  for (const int threads : {1, 8}) {
    const std::string suffix = "." + std::to_string(threads);
    const auto wanted = [&](const std::string& name) {
      return only.empty() || only == name + suffix;
    };
    if (!only.empty() && !wanted("pingpong") && !wanted("get") && !wanted("set") &&
        !wanted("mix")) {
      continue;
    }
    // Times one case of calls; with a server pid, also the server's CPU time per call made over
    // it, warm-up calls included on both sides of the division.
    const auto measure = [&](const std::string& name, auto&& roundTrip) {
      std::vector<long> made(static_cast<std::size_t>(threads), 0);
      const double before = serverPid > 0 ? cpuUs(serverPid) : 0;
      report(prefix + "." + name + suffix, bench::measure(threads, budget, [&](int t) {
               roundTrip(t);
               ++made[static_cast<std::size_t>(t)];
             }));
      if (serverPid > 0) {
        const double used = cpuUs(serverPid) - before;
        const long calls = std::accumulate(made.begin(), made.end(), 0L);
        std::printf("result %s.cpu.%s%s %.3f\n", prefix.c_str(), name.c_str(), suffix.c_str(),
                    used / static_cast<double>(calls));
        std::fflush(stdout);
      }
    };
    if (wanted("pingpong")) {
      report(prefix + ".pingpong" + suffix, bench::pingPong(tcp, threads, budget, request, reply));
    }
    auto list = clients(url, threads);
    std::vector<bench::UserPicker> pickers;
    for (int t = 0; t < threads; ++t) {
      pickers.emplace_back(users, 1, 42 + static_cast<std::uint64_t>(t));
    }
    if (wanted("get")) {
      measure("get", [&](int t) {
        list[static_cast<std::size_t>(t)]->get(pickers[static_cast<std::size_t>(t)].next());
      });
    }
    std::vector<int> years(static_cast<std::size_t>(threads), 0);
    if (wanted("set")) {
      measure("set", [&](int t) {
        const auto i = static_cast<std::size_t>(t);
        list[i]->set(pickers[i].next(), 1940 + years[i]++ % 70);
      });
    }
    if (threads == 8 && wanted("mix")) {
      // What a device mostly does: reads, with a write in ten.
      measure("mix", [&](int t) {
        const auto i = static_cast<std::size_t>(t);
        if (years[i]++ % 10 == 0) {
          list[i]->set(pickers[i].next(), 1940 + years[i] % 70);
        } else {
          list[i]->get(pickers[i].next());
        }
      });
    }
  }
  return 0;
}

int readUsers(const std::string& url, int users, long calls) {
  Client client(url);
  bench::UserPicker picker(users, 1);
  for (long i = 0; i < calls; ++i) {
    client.get(picker.next());
  }
  return 0;
}

int usage() {
  std::fprintf(stderr,
               "usage: userinfo_remote_load frames --url unix:///PATH\n"
               "       userinfo_remote_load run --url URL --users N --request B --reply B "
               "[--seconds S] [--prefix P]\n"
               "                                [--server-pid PID] [--only CASE.T]\n"
               "       userinfo_remote_load read --url URL --users N --calls C\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc % 2 != 0) {
    return usage();
  }
  const std::string command = argv[1];
  std::map<std::string, std::string> options{{"--seconds", "1"}, {"--prefix", "remote"}};
  for (int i = 2; i + 1 < argc; i += 2) {
    options[argv[i]] = argv[i + 1];
  }
  const auto number = [&](const char* name) {
    return options.count(name) != 0 ? std::atof(options[name].c_str()) : 0.0;
  };
  try {
    if (options.count("--url") == 0) {
      return usage();
    }
    const std::string url = options["--url"];
    if (command == "frames") {
      return frames(url);
    }
    if (command == "run" && number("--users") >= 1 && number("--request") >= 1 &&
        number("--reply") >= 1) {
      return run(url, static_cast<int>(number("--users")),
                 static_cast<std::size_t>(number("--request")),
                 static_cast<std::size_t>(number("--reply")), number("--seconds"),
                 options["--prefix"], static_cast<long>(number("--server-pid")), options["--only"]);
    }
    if (command == "read" && number("--users") >= 1) {
      return readUsers(url, static_cast<int>(number("--users")),
                       static_cast<long>(number("--calls")));
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "userinfo_remote_load: %s\n", e.what());
    return 1;
  }
  return usage();
}
