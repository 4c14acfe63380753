// The socket transport end to end, over Unix and TCP sockets: frames, limits, the handshake,
// socket files, closing, and a peer in another process.

#include "socket_test_util.hpp"

#include "../test_util.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <thread>
#include <vector>

using namespace ka::wire;
using namespace ka::wire::test;
using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;

// The largest single allocation since the last reset, to show that a declared length does not
// size one. Replaces the global allocator of this test program only.
namespace {
std::atomic<std::size_t> gLargestAllocation{0};
}  // namespace

#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  std::size_t largest = gLargestAllocation.load(std::memory_order_relaxed);
  while (size > largest &&
         !gLargestAllocation.compare_exchange_weak(largest, size, std::memory_order_relaxed)) {
  }
  if (void* p = std::malloc(size == 0 ? 1 : size)) {
    return p;
  }
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace {

// The text of the TransportError that `f` throws, or "" if it throws none.
template <typename F>
std::string transportError(F f) {
  try {
    f();
  } catch (const TransportError& e) {
    return e.what();
  }
  return "";
}

// ---------------------------------------------------------------------------------------------
// Behaviour that must not depend on the kind of socket.

enum class Kind { Unix, Tcp };

class OverEachSocketKind : public testing::TestWithParam<Kind> {
 protected:
  std::string listenUrl() const {
    return GetParam() == Kind::Unix ? "unix://" + dir_.file("s.sock") : "tcp://127.0.0.1:0";
  }
  // A server listening with `options`, a client channel to it and the server's end of it, neither
  // started.
  void connectPair(const TransportOptions& options = {}) {
    served.emplace(listenUrl(), options);
    toServer = client.connect(served->endpoints.at(0), {});
    toClient = served->next();
    ASSERT_TRUE(toClient);
  }

 private:
  TempDir dir_;

 protected:
  // Destroyed after the transports that call them.
  Recorder atServer, atClient;
  std::optional<Server> served;
  Transport client;
  ChannelPtr toServer, toClient;
};

INSTANTIATE_TEST_SUITE_P(Sockets, OverEachSocketKind, testing::Values(Kind::Unix, Kind::Tcp),
                         [](const auto& info) {
                           return std::string(info.param == Kind::Unix ? "Unix" : "Tcp");
                         });

TEST_P(OverEachSocketKind, ManyFramesQueuedAtOnceAndEchoedFromTheHandlerKeepTheirOrder) {
  // Enough to fill the socket buffers, so that most frames wait in the queue and go out in
  // batched writes, on both sides (the echo sends from the I/O thread).
  constexpr std::uint64_t kFrames = 20000;
  ASSERT_NO_FATAL_FAILURE(connectPair());
  std::weak_ptr<Channel> weak = toClient;
  toClient->start(
      [weak](Frame frame) {
        if (auto channel = weak.lock()) {
          channel->send(std::move(frame));
        }
      },
      [](const std::string&) {});
  atClient.attach(toServer);

  const std::string body(100, 'b');
  for (std::uint64_t i = 0; i < kFrames; ++i) {
    ASSERT_TRUE(toServer->send(makeFrame(static_cast<std::uint8_t>(i % 200), i, body)));
  }
  ASSERT_TRUE(atClient.waitFrames(kFrames));
  const auto frames = atClient.frames();
  for (std::uint64_t i = 0; i < kFrames; ++i) {
    ASSERT_EQ(frames[i].requestId, i);
    ASSERT_EQ(frames[i].type, i % 200);
    ASSERT_EQ(frames[i].body.size(), body.size());
  }
}

TEST_P(OverEachSocketKind, ConcurrentSendersKeepEachOnesOrderUntilACloseStopsThemAll) {
  // Senders race each other, the I/O thread's flushes and, at the end, a close: each sender's
  // frames must arrive in its order without gaps, and the close handler must run once.
  constexpr int kSenders = 4;
  ASSERT_NO_FATAL_FAILURE(connectPair());
  atServer.attach(toClient);
  atClient.attach(toServer);

  std::vector<std::thread> senders;
  for (int t = 0; t < kSenders; ++t) {
    senders.emplace_back([&, t] {
      const std::string body(t * 50, 's');  // unequal sizes: partial writes at odd offsets
      for (std::uint64_t i = 0; toServer->send(makeFrame(static_cast<std::uint8_t>(t), i, body));
           ++i) {
      }
    });
  }
  EXPECT_TRUE(atServer.waitFrames(20000));
  toServer->close("enough");
  for (auto& sender : senders) {
    sender.join();
  }
  EXPECT_EQ(atClient.waitClose(), "enough");
  EXPECT_EQ(atServer.waitClose(), "connection closed by peer");
  std::vector<std::uint64_t> next(kSenders, 0);
  for (const Frame& frame : atServer.frames()) {
    ASSERT_LT(frame.type, kSenders);
    ASSERT_EQ(frame.requestId, next[frame.type]) << "sender " << int(frame.type);
    ASSERT_EQ(frame.body.size(), frame.type * 50u);
    ++next[frame.type];
  }
  EXPECT_EQ(atClient.closes().size(), 1u);
}

TEST_P(OverEachSocketKind, AFrameLargerThanTheInputBufferArrivesWholeBetweenSmallOnes) {
  ASSERT_NO_FATAL_FAILURE(connectPair());
  atServer.attach(toClient);

  std::string large(3 * 1024 * 1024 + 7, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) {
    large[i] = static_cast<char>(i * 31 + i / 4096);
  }
  ASSERT_TRUE(toServer->send(makeFrame(1, 10, "before")));
  ASSERT_TRUE(toServer->send(makeFrame(0xEF, ~0ull, large)));
  ASSERT_TRUE(toServer->send(makeFrame(3, 0, "")));
  ASSERT_TRUE(atServer.waitFrames(3));
  const auto frames = atServer.frames();
  EXPECT_EQ(std::string(frames[0].body.begin(), frames[0].body.end()), "before");
  EXPECT_EQ(frames[0].requestId, 10u);
  EXPECT_EQ(frames[1].type, 0xEF);
  EXPECT_EQ(frames[1].requestId, ~0ull);
  EXPECT_TRUE(std::string(frames[1].body.begin(), frames[1].body.end()) == large);
  EXPECT_EQ(frames[2].type, 3);
  EXPECT_TRUE(frames[2].body.empty());
  EXPECT_THAT(toServer->peerDescription(),
              StartsWith(GetParam() == Kind::Unix ? "unix://" : "tcp://"));
}

TEST_P(OverEachSocketKind, ClosingRunsEachSidesCloseHandlerOnceWithAReasonAndStopsSending) {
  Recorder atServer, atClient;
  {
    Server server(listenUrl());
    Transport client;
    ChannelPtr toServer = client.connect(server.endpoints.at(0), {});
    ChannelPtr toClient = server.next();
    ASSERT_TRUE(toClient);
    atServer.attach(toClient);
    atClient.attach(toServer);

    toServer->close("done here");
    EXPECT_FALSE(toServer->isOpen());
    EXPECT_FALSE(toServer->send(makeFrame(1, 1, "late")));
    toServer->close("again");
    EXPECT_EQ(atClient.waitClose(), "done here");
    EXPECT_EQ(atServer.waitClose(), "connection closed by peer");
    EXPECT_FALSE(toClient->isOpen());
    EXPECT_FALSE(toClient->send(makeFrame(1, 1, "late")));
    toClient->close("after the fact");
  }
  // The transports are gone, their threads joined: whatever was pending has run.
  EXPECT_EQ(atClient.closes().size(), 1u);
  EXPECT_EQ(atServer.closes().size(), 1u);
  EXPECT_TRUE(atServer.frames().empty());
}

TEST_P(OverEachSocketKind, CloseFirstSendsTheFramesQueuedBeforeIt) {
  // More than the socket buffers hold, so that most are still queued when close() is called.
  constexpr std::size_t kFrames = 200;
  ASSERT_NO_FATAL_FAILURE(connectPair());
  atServer.attach(toClient);
  const std::string chunk(64 * 1024, 'q');
  for (std::size_t i = 0; i < kFrames; ++i) {
    ASSERT_TRUE(toServer->send(makeFrame(1, i, chunk)));
  }
  toServer->close("last words sent");
  EXPECT_EQ(atServer.waitClose(), "connection closed by peer");
  EXPECT_EQ(atServer.frames().size(), kFrames);
}

TEST_P(OverEachSocketKind, APeerVanishingInTheMiddleOfAFrameClosesTheChannelSayingSo) {
  Server server(listenUrl());
  RawClient raw(server.endpoints.at(0));
  ASSERT_TRUE(raw.handshake());
  ChannelPtr toClient = server.next();
  ASSERT_TRUE(toClient);
  atServer.attach(toClient);
  ASSERT_TRUE(raw.write(RawClient::header(1, 5, 1000) + std::string(10, 'x')));
  raw.closeNow();
  const auto reason = atServer.waitClose();
  ASSERT_TRUE(reason);
  EXPECT_THAT(*reason, HasSubstr("in the middle of a frame"));
  EXPECT_TRUE(atServer.frames().empty());
}

TEST_P(OverEachSocketKind, AnOversizedLengthClosesThatConnectionUnallocatedAndOthersAreServed) {
  Recorder atSecond;
  Server server(listenUrl());
  RawClient raw(server.endpoints.at(0));
  ASSERT_TRUE(raw.handshake());
  ChannelPtr toRaw = server.next();
  ASSERT_TRUE(toRaw);
  gLargestAllocation = 0;
  atServer.attach(toRaw);
  ASSERT_TRUE(raw.write(RawClient::header(1, 5, 0xFFFFFFF0u) + std::string(64, 'x')));
  const auto reason = atServer.waitClose();
  ASSERT_TRUE(reason);
  EXPECT_THAT(*reason, HasSubstr("exceeds the limit of 16777216 bytes"));
  EXPECT_LT(gLargestAllocation.load(), std::size_t{1} << 20);
  EXPECT_TRUE(raw.waitForEnd());

  Transport client;
  ChannelPtr second = client.connect(server.endpoints.at(0), {});
  ChannelPtr toSecond = server.next();
  ASSERT_TRUE(toSecond);
  atSecond.attach(toSecond);
  ASSERT_TRUE(second->send(makeFrame(1, 1, "still served")));
  EXPECT_TRUE(atSecond.waitFrames(1));
}

TEST_P(OverEachSocketKind, GarbageInsteadOfAHeaderClosesTheConnectionBeforeOrAfterTheHandshake) {
  ka::test::LogCapture log("ka.transport");
  Recorder atReserved;
  Server server(listenUrl());
  {
    RawClient http(server.endpoints.at(0));
    ASSERT_TRUE(http.write("GET / HTTP/1.1\r\nHost: x\r\n\r\n"));
    EXPECT_TRUE(http.waitForEnd());
    EXPECT_TRUE(log.waitFor("bad magic (starts with 47 45 54 20)"));
  }
  RawClient raw(server.endpoints.at(0));
  ASSERT_TRUE(raw.handshake());
  ChannelPtr toRaw = server.next();
  ASSERT_TRUE(toRaw);
  atServer.attach(toRaw);
  std::string flagged = RawClient::header(1, 1, 0);
  flagged[3] = '\x80';
  ASSERT_TRUE(raw.write(flagged));
  EXPECT_THAT(atServer.waitClose().value_or(""), HasSubstr("unknown flags 0x80"));
  EXPECT_TRUE(raw.waitForEnd());

  RawClient reserved(server.endpoints.at(0));
  ASSERT_TRUE(reserved.handshake());
  ChannelPtr toReserved = server.next();
  ASSERT_TRUE(toReserved);
  atReserved.attach(toReserved);
  ASSERT_TRUE(reserved.writeFrame(kHelloType, 0, ""));
  EXPECT_THAT(atReserved.waitClose().value_or(""), HasSubstr("unexpected frame of transport type"));
}

TEST_P(OverEachSocketKind, AClientThatNeverReadsIsClosedAtTheOutputLimit) {
  TransportOptions options;
  options.maxQueuedOutput = 1 << 20;
  ASSERT_NO_FATAL_FAILURE(connectPair(options));  // toServer is never started: never reads
  atServer.attach(toClient);
  const std::string chunk(64 * 1024, 'z');
  int sent = 0;
  // The kernel buffers take a few MiB at most; far fewer than this many chunks must hit the limit.
  while (sent < 2000 && toClient->send(makeFrame(1, 1, chunk))) {
    ++sent;
  }
  EXPECT_LT(sent, 2000);
  EXPECT_THAT(atServer.waitClose().value_or(""), HasSubstr("output limit exceeded"));
  EXPECT_FALSE(toClient->isOpen());
}

TEST_P(OverEachSocketKind, ATokenIsRequiredComparedAndReportedToTheRefusedClient) {
  TransportOptions withToken;
  withToken.token = "s3cret";
  Server server(listenUrl(), withToken);
  Transport client;

  TransportOptions none, wrong, right;
  wrong.token = "s3creT";
  right.token = "s3cret";
  EXPECT_THAT(transportError([&] { client.connect(server.endpoints.at(0), none); }),
              HasSubstr("refused by the server: this server requires a token"));
  EXPECT_THAT(transportError([&] { client.connect(server.endpoints.at(0), wrong); }),
              HasSubstr("refused by the server: wrong token"));
  ChannelPtr channel = client.connect(server.endpoints.at(0), right);
  ChannelPtr accepted = server.next();
  ASSERT_TRUE(accepted);
  atServer.attach(accepted);
  ASSERT_TRUE(channel->send(makeFrame(1, 1, "in")));
  EXPECT_TRUE(atServer.waitFrames(1));
}

TEST_P(OverEachSocketKind, AConnectionThatNeverSaysHelloIsDroppedAfterTheHandshakeTime) {
  TransportOptions options;
  options.handshakeTimeout = std::chrono::milliseconds(200);
  ka::test::LogCapture log("ka.transport");
  Server server(listenUrl(), options);
  RawClient silent(server.endpoints.at(0));
  ASSERT_TRUE(silent.connected());
  EXPECT_TRUE(silent.waitForEnd());
  EXPECT_TRUE(log.waitFor("handshake not completed within 200 ms"));
}

// ---------------------------------------------------------------------------------------------
// Connecting, listening and shutting down.

TEST(TransportConnect, FailsClearlyWhenNothingListensOrNothingAnswers) {
  TempDir dir;
  Transport client;
  EXPECT_THAT(transportError([&] { client.connect("unix://" + dir.file("none.sock"), {}); }),
              HasSubstr("cannot connect to unix://" + dir.file("none.sock")));
  EXPECT_THROW(client.connect("tcp:/127.0.0.1:1", {}), std::invalid_argument);

  // A socket that accepts (in the kernel's backlog) but never answers the hello.
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string mute = dir.file("mute.sock");
  std::strncpy(address.sun_path, mute.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(fd, 4), 0);
  TransportOptions quick;
  quick.handshakeTimeout = std::chrono::milliseconds(200);
  EXPECT_THAT(transportError([&] { client.connect("unix://" + mute, quick); }),
              AnyOf(HasSubstr("no answer within 200 ms"),
                    HasSubstr("handshake not completed within 200 ms")));
  ::close(fd);
}

TEST(TransportConnect, IsRefusedOnTheTransportsOwnThreadInsteadOfDeadlocking) {
  TempDir dir;
  std::promise<std::string> outcome;
  Server server("unix://" + dir.file("s.sock"));
  Transport client;
  ChannelPtr channel = client.connect(server.endpoints.at(0), {});
  channel->start(
      [&](Frame) {
        try {
          client.connect(server.endpoints.at(0), {});
          outcome.set_value("connected");
        } catch (const std::logic_error& e) {
          outcome.set_value(e.what());
        }
      },
      [](const std::string&) {});
  ChannelPtr accepted = server.next();
  ASSERT_TRUE(accepted);
  accepted->send(makeFrame(1, 1, "go"));
  auto result = outcome.get_future();
  ASSERT_EQ(result.wait_for(kWait), std::future_status::ready);
  EXPECT_THAT(result.get(), HasSubstr("I/O thread"));
}

TEST(TcpListening, OnPortZeroReportsTheChosenPortForEveryResolvedAddress) {
  std::deque<Recorder> atServer;  // one per endpoint; outlives the transports
  Server server("tcp://localhost:0");
  ASSERT_FALSE(server.endpoints.empty());
  for (const std::string& endpoint : server.endpoints) {
    const Url url = parseUrl(endpoint);
    EXPECT_NE(url.port, 0) << endpoint;
    EXPECT_EQ(url.port, parseUrl(server.endpoints[0]).port) << endpoint;
    Transport client;
    Recorder& recorder = atServer.emplace_back();
    ChannelPtr channel = client.connect(endpoint, {});
    ChannelPtr accepted = server.next();
    ASSERT_TRUE(accepted) << endpoint;
    recorder.attach(accepted);
    ASSERT_TRUE(channel->send(makeFrame(1, 1, "hi")));
    EXPECT_TRUE(recorder.waitFrames(1)) << endpoint;
  }
}

TEST(TcpListening, BeyondLoopbackNeedsAnExplicitPermissionAndAToken) {
  Transport transport;
  auto ignore = [](ChannelPtr) {};
  TransportOptions options;
  EXPECT_THAT(transportError([&] { transport.listen("tcp://0.0.0.0:0", options, ignore); }),
              HasSubstr("not a loopback address"));
  options.allowNonLoopback = true;
  EXPECT_THAT(transportError([&] { transport.listen("tcp://0.0.0.0:0", options, ignore); }),
              HasSubstr("requires a token"));
  options.token = "s3cret";
  const auto endpoints = transport.listen("tcp://0.0.0.0:0", options, ignore);
  ASSERT_EQ(endpoints.size(), 1u);
  EXPECT_THAT(endpoints[0], StartsWith("tcp://0.0.0.0:"));
}

TEST(UnixListening, CreatesTheSocketFileOwnerOnlyWhateverTheUmask) {
  TempDir dir;
  const std::string path = dir.file("s.sock");
  const mode_t previous = ::umask(0);
  std::unique_ptr<Server> server;
  try {
    server = std::make_unique<Server>("unix://" + path);
  } catch (...) {
    ::umask(previous);
    throw;
  }
  ::umask(previous);
  struct stat status {};
  ASSERT_EQ(::lstat(path.c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST(UnixListening, ReplacesAStaleSocketFileButRefusesALiveOneOrAnyOtherFile) {
  TempDir dir;
  const std::string path = dir.file("s.sock");
  {
    // What a crashed listener leaves: a socket file nobody accepts on.
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(fd);
  }
  {
    Server server("unix://" + path);
    Transport client;
    EXPECT_TRUE(client.connect(server.endpoints.at(0), {}));

    Transport rival;
    EXPECT_THAT(transportError([&] { rival.listen("unix://" + path, {}, [](ChannelPtr) {}); }),
                HasSubstr("already served"));
    EXPECT_TRUE(client.connect(server.endpoints.at(0), {})) << "the live listener was disturbed";
  }
  EXPECT_FALSE(std::filesystem::exists(path)) << "the listener left its socket file behind";

  const std::string plain = dir.file("notes.txt");
  { std::ofstream(plain) << "keep me"; }
  Transport transport;
  EXPECT_THAT(transportError([&] { transport.listen("unix://" + plain, {}, [](ChannelPtr) {}); }),
              HasSubstr("not a socket"));
  EXPECT_TRUE(std::filesystem::is_regular_file(plain));
}

// Two daemons started at once on one path must not both serve: each would judge the other's
// fresh socket file stale, and the loser would unlink it and serve on a path nobody else finds.
TEST(UnixListening, OfListenersStartingAtOnceOnAStalePathExactlyOneServesAndTheOthersSaySo) {
  TempDir dir;
  const std::string path = dir.file("s.sock");
  constexpr int kListeners = 4;
  for (int round = 0; round < 25; ++round) {
    {
      const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);  // a stale file, as after a crash
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
      ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
      ::close(fd);
    }
    std::vector<std::unique_ptr<Transport>> transports;
    for (int i = 0; i < kListeners; ++i) {
      transports.push_back(std::make_unique<Transport>());
    }
    std::atomic<int> ready{0};
    std::vector<std::string> errors(kListeners);
    std::vector<std::thread> threads;
    for (int i = 0; i < kListeners; ++i) {
      threads.emplace_back([&, i] {
        ++ready;
        while (ready.load() < kListeners) {
        }
        errors[i] =
            transportError([&] { transports[i]->listen("unix://" + path, {}, [](ChannelPtr) {}); });
      });
    }
    for (auto& t : threads) {
      t.join();
    }
    int serving = 0;
    for (const std::string& error : errors) {
      if (error.empty()) {
        ++serving;
      } else {
        EXPECT_THAT(error, HasSubstr("already served")) << "round " << round;
      }
    }
    ASSERT_EQ(serving, 1) << "round " << round;
    Transport client;
    EXPECT_TRUE(client.connect("unix://" + path, {})) << "the one serving lost its socket file";
    transports.clear();  // the next round starts from a stale file again
    ASSERT_FALSE(std::filesystem::exists(path));
  }
}

TEST(TransportShutdown, ClosesEveryChannelWithAReasonAndLeavesThemInertHusks) {
  TempDir dir;
  const std::string path = dir.file("s.sock");
  Recorder atClient, atServer;
  ChannelPtr toServer, toClient, neverStarted;
  {
    // Both ends on one transport, so that both learn of the shutdown from it, not from the peer.
    std::promise<ChannelPtr> accepted;
    bool first = true;  // the accept handler runs on the I/O thread only
    Transport transport;
    const auto endpoints = transport.listen("unix://" + path, {}, [&](ChannelPtr channel) {
      if (first) {
        first = false;
        accepted.set_value(std::move(channel));
      }
    });
    toServer = transport.connect(endpoints.at(0), {});
    neverStarted = transport.connect(endpoints.at(0), {});
    auto future = accepted.get_future();
    ASSERT_EQ(future.wait_for(kWait), std::future_status::ready);
    toClient = future.get();
    atServer.attach(toClient);
    atClient.attach(toServer);
  }
  EXPECT_EQ(atClient.closes(), std::vector<std::string>{"transport shut down"});
  EXPECT_EQ(atServer.closes(), std::vector<std::string>{"transport shut down"});
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(toServer->send(makeFrame(1, 1, "x")));
  toServer->close("nobody listens");
  EXPECT_FALSE(toServer->isOpen());
  Recorder late;
  late.attach(neverStarted);  // told at once, on this thread, that it is over
  EXPECT_EQ(late.closes(), std::vector<std::string>{"transport shut down"});
}

TEST(TransportShutdown, FromInsideItsOwnHandlerDoesNotDeadlock) {
  TempDir dir;
  Recorder atClient;
  std::promise<std::string> closed;
  auto server = std::make_unique<Server>("unix://" + dir.file("s.sock"));
  Transport client;
  ChannelPtr toServer = client.connect(server->endpoints.at(0), {});
  ChannelPtr toClient = server->next();
  ASSERT_TRUE(toClient);
  atClient.attach(toServer);
  toClient->start([&](Frame) { server.reset(); },
                  [&](const std::string& reason) { closed.set_value(reason); });
  ASSERT_TRUE(toServer->send(makeFrame(1, 1, "stop")));
  auto reason = closed.get_future();
  ASSERT_EQ(reason.wait_for(kWait), std::future_status::ready);
  EXPECT_EQ(reason.get(), "transport shut down");
  EXPECT_EQ(atClient.waitClose(), "connection closed by peer");
}

// ---------------------------------------------------------------------------------------------
// A peer in another process: this program started again, running only ChildPeer.

constexpr const char kChildUrlVariable[] = "KA_WIRE_TEST_CHILD_URL";

TEST(ChildPeer, EchoesFramesUntilKilled) {
  const char* url = std::getenv(kChildUrlVariable);
  if (url == nullptr) {
    GTEST_SKIP() << "runs only as the peer process of SecondProcess tests";
  }
  std::promise<void> closed;
  Transport transport;
  ChannelPtr channel = transport.connect(url, {});
  std::weak_ptr<Channel> weak = channel;
  channel->start(
      [weak](Frame frame) {
        if (auto c = weak.lock()) {
          c->send(std::move(frame));
        }
      },
      [&](const std::string&) { closed.set_value(); });
  // The parent kills this process; the limit only keeps an orphan from lingering.
  closed.get_future().wait_for(std::chrono::seconds(60));
}

TEST(SecondProcess, ExchangesFramesAndItsKillClosesTheChannel) {
  TempDir dir;
  Recorder atServer;
  Server server("unix://" + dir.file("s.sock"));

  ka::test::ChildProcess child("ChildPeer.EchoesFramesUntilKilled", kChildUrlVariable,
                               server.endpoints.at(0));
  ASSERT_NE(child.pid(), 0);
  ChannelPtr toChild = server.next();
  ASSERT_TRUE(toChild) << "the child never connected";
  EXPECT_THAT(toChild->peerDescription(), HasSubstr("(pid " + std::to_string(child.pid()) + ")"));
  atServer.attach(toChild);
  for (std::uint64_t i = 1; i <= 3; ++i) {
    toChild->send(makeFrame(7, i, "ping " + std::to_string(i)));
  }
  EXPECT_TRUE(atServer.waitFrames(3));
  EXPECT_TRUE(WIFSIGNALED(child.killAndWait()));
  const auto reason = atServer.waitClose();
  ASSERT_TRUE(reason);
  EXPECT_THAT(*reason, AnyOf(HasSubstr("closed by peer"), HasSubstr("connection lost")));
  const auto frames = atServer.frames();
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(std::string(frames[2].body.begin(), frames[2].body.end()), "ping 3");
}

}  // namespace
