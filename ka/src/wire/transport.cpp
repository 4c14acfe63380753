#include "wire/transport.hpp"

#include "wire/io_threads.hpp"
#include "wire/socket_channel.hpp"
#include "wire/url.hpp"

#include <ka/detail/blocking_scope.hpp>
#include <ka/log.hpp>

#include <boost/asio/connect.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <future>
#include <limits>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

namespace ka {
namespace wire {

namespace asio = boost::asio;
using Tcp = asio::ip::tcp;
using Local = asio::local::stream_protocol;

namespace {

constexpr const char kCategory[] = "ka.transport";
// After a failed accept (out of descriptors, say), wait this long before the next one rather
// than spin.
constexpr std::chrono::milliseconds kAcceptRetryDelay{100};
// connect() waits this much past the handshake time limit for the I/O thread to report, in
// case a handler of the application keeps that thread busy.
constexpr std::chrono::seconds kConnectGrace{5};

std::string errnoText(int error) {
  return std::strerror(error);
}

void checkOptions(const TransportOptions& options) {
  if (options.maxFrameBody > std::numeric_limits<std::uint32_t>::max()) {
    throw std::invalid_argument("maxFrameBody above 4 GiB - 1: a frame length is 32 bits");
  }
}

// Small frames leave at once; and a peer that vanishes without closing (cable pulled, machine
// gone) is noticed within about a minute of silence even when nothing is being sent.
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

}  // namespace

class Listener {
 public:
  virtual ~Listener() = default;
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

namespace {

// Accepts connections on one acceptor and hands each through the server handshake.
template <typename Protocol>
class AcceptLoop final : public Listener,
                         public std::enable_shared_from_this<AcceptLoop<Protocol>> {
 public:
  AcceptLoop(Transport::Impl& impl, typename Protocol::acceptor acceptor, std::string url,
             TransportOptions options, Transport::AcceptHandler onAccept)
      : impl_(impl),
        acceptor_(std::move(acceptor)),
        retry_(impl.io),
        url_(std::move(url)),
        options_(std::move(options)),
        onAccept_(std::move(onAccept)) {}

  // A Unix socket file to remove on close, if it is still the one this loop created.
  void ownFile(std::string path, dev_t device, ino_t inode) {
    path_ = std::move(path);
    device_ = device;
    inode_ = inode;
  }

  void acceptNext() {
    acceptor_.async_accept([self = this->shared_from_this()](const boost::system::error_code& error,
                                                             typename Protocol::socket socket) {
      self->onAccepted(error, std::move(socket));
    });
  }

  void close() override {
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    retry_.cancel();
    onAccept_ = nullptr;
    struct stat now {};
    if (!path_.empty() && ::lstat(path_.c_str(), &now) == 0 && now.st_dev == device_ &&
        now.st_ino == inode_) {
      ::unlink(path_.c_str());
    }
  }

 private:
  void onAccepted(const boost::system::error_code& error, typename Protocol::socket socket) {
    if (!acceptor_.is_open() || error == asio::error::operation_aborted) {
      return;
    }
    if (error) {
      KA_LOG_WARNING(kCategory) << url_ << ": accept failed: " << error.message();
      retry_.expires_after(kAcceptRetryDelay);
      retry_.async_wait([self = this->shared_from_this()](const boost::system::error_code& e) {
        if (!e && self->acceptor_.is_open()) {
          self->acceptNext();
        }
      });
      return;
    }
    std::string peer;
    if constexpr (std::is_same_v<Protocol, Tcp>) {
      configureTcp(socket);
      peer = tcpPeer(socket);
    } else {
      peer = unixPeer(socket, url_);
    }
    KA_LOG_VERBOSE(kCategory) << url_ << ": accepted " << peer;
    auto channel = std::make_shared<SocketChannel>(
        impl_.io, SocketChannel::Socket(std::move(socket)), peer, options_);
    impl_.registerChannel(channel);
    std::weak_ptr<SocketChannel> weak = channel;
    channel->beginHandshake(SocketChannel::Role::Server, [self = this->shared_from_this(),
                                                          weak](const std::string& failure) {
      auto accepted = weak.lock();
      if (!failure.empty() || !accepted) {
        return;  // the channel logged why
      }
      if (!self->onAccept_) {
        // The listener closed during the handshake: nobody would serve this connection.
        accepted->closeOnIoThread("the listener closed");
        return;
      }
      try {
        self->onAccept_(accepted);
      } catch (const std::exception& e) {
        KA_LOG_ERROR(kCategory) << self->url_ << ": accept handler threw: " << e.what();
        accepted->closeOnIoThread("accept handler failed");
      }
    });
    acceptNext();
  }

  Transport::Impl& impl_;
  // I/O thread only, once acceptNext() has been called.
  typename Protocol::acceptor acceptor_;
  asio::steady_timer retry_;
  const std::string url_;
  const TransportOptions options_;
  Transport::AcceptHandler onAccept_;
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

// One connect() in progress, on the I/O thread: resolve, connect, handshake, all under one
// time limit; reports to the waiting caller exactly once.
class ConnectAttempt final : public std::enable_shared_from_this<ConnectAttempt> {
 public:
  ConnectAttempt(Transport::Impl& impl, Url url, TransportOptions options)
      : impl_(impl),
        url_(std::move(url)),
        options_(std::move(options)),
        timer_(impl.io),
        resolver_(impl.io),
        tcpSocket_(impl.io),
        localSocket_(impl.io) {}

  // The channel, or why there is none. (Not an exception: its message would be shared between
  // threads through a reference count the thread sanitizer cannot see.)
  struct Outcome {
    ChannelPtr channel;
    std::string error;
  };

  std::future<Outcome> result() { return promise_.get_future(); }

  void start() {
    timer_.expires_after(options_.handshakeTimeout);
    timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
      if (!error) {
        self->fail("no answer within " + std::to_string(self->options_.handshakeTimeout.count()) +
                   " ms");
      }
    });
    if (url_.kind == Url::Kind::Unix) {
      localSocket_.async_connect(Local::endpoint(url_.path),
                                 [self = shared_from_this()](const boost::system::error_code& e) {
                                   self->onConnected(e);
                                 });
      return;
    }
    resolver_.async_resolve(
        url_.host, std::to_string(url_.port),
        [self = shared_from_this()](const boost::system::error_code& error,
                                    const Tcp::resolver::results_type& results) {
          if (self->done_) {
            return;
          }
          if (error) {
            self->fail("cannot resolve '" + self->url_.host + "': " + error.message());
            return;
          }
          asio::async_connect(self->tcpSocket_, results,
                              [self](const boost::system::error_code& e, const Tcp::endpoint&) {
                                self->onConnected(e);
                              });
        });
  }

 private:
  void onConnected(const boost::system::error_code& error) {
    if (done_) {
      return;
    }
    if (error) {
      fail(error.message());
      return;
    }
    std::optional<SocketChannel::Socket> socket;
    if (url_.kind == Url::Kind::Tcp) {
      configureTcp(tcpSocket_);
      socket.emplace(std::move(tcpSocket_));
    } else {
      socket.emplace(std::move(localSocket_));
    }
    channel_ = std::make_shared<SocketChannel>(impl_.io, std::move(*socket), url_.text(), options_);
    impl_.registerChannel(channel_);
    channel_->beginHandshake(SocketChannel::Role::Client,
                             [self = shared_from_this()](const std::string& failure) {
                               if (failure.empty()) {
                                 self->succeed();
                               } else {
                                 self->fail(failure);
                               }
                             });
  }

  void succeed() {
    if (done_) {
      return;
    }
    done_ = true;
    timer_.cancel();
    promise_.set_value(Outcome{channel_, {}});
    channel_.reset();
  }

  void fail(const std::string& why) {
    if (done_) {
      return;
    }
    done_ = true;
    timer_.cancel();
    resolver_.cancel();
    boost::system::error_code ignored;
    tcpSocket_.close(ignored);
    localSocket_.close(ignored);
    if (auto channel = std::move(channel_)) {
      channel->closeOnIoThread(why);
    }
    promise_.set_value(Outcome{nullptr, "cannot connect to " + url_.text() + ": " + why});
  }

  Transport::Impl& impl_;
  const Url url_;
  const TransportOptions options_;
  // I/O thread only.
  bool done_ = false;
  std::promise<Outcome> promise_;
  asio::steady_timer timer_;
  Tcp::resolver resolver_;
  Tcp::socket tcpSocket_;
  Local::socket localSocket_;
  std::shared_ptr<SocketChannel> channel_;
};

// Whether something accepts connections at the Unix socket `path`. Throws when the path exists
// and is not a socket: that is somebody's file, never ours to replace.
bool unixSocketAnswers(const std::string& path, const std::string& url) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) {
      return false;
    }
    throw TransportError("cannot listen on " + url + ": " + errnoText(errno));
  }
  if (!S_ISSOCK(status.st_mode)) {
    throw TransportError("cannot listen on " + url + ": the path exists and is not a socket");
  }
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    throw TransportError("cannot listen on " + url + ": " + errnoText(errno));
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int error = errno;
  ::close(fd);
  if (result == 0 || error == EAGAIN || error == EINPROGRESS) {
    return true;  // accepted, or a full backlog: either way a live server
  }
  if (error == ECONNREFUSED || error == ENOENT) {
    return false;
  }
  throw TransportError("cannot listen on " + url +
                       ": probing the existing socket: " + errnoText(error));
}

}  // namespace

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

std::vector<std::string> Transport::listen(const std::string& url, const TransportOptions& options,
                                           AcceptHandler onAccept) {
  const Url parsed = parseUrl(url);
  checkOptions(options);
  std::vector<std::shared_ptr<Listener>> created;
  std::vector<std::function<void()>> starts;
  std::vector<std::string> endpoints;

  if (parsed.kind == Url::Kind::Unix) {
    if (unixSocketAnswers(parsed.path, url)) {
      throw TransportError("cannot listen on " + url + ": already served by another listener");
    }
    if (::unlink(parsed.path.c_str()) == 0) {
      KA_LOG_INFO(kCategory) << url
                             << ": removed a stale socket file left by a listener that "
                                "is gone";
    }
    Local::acceptor acceptor(impl_->io);
    boost::system::error_code error;
    acceptor.open(Local(), error);
    // The file bind() creates takes its mode from the socket (minus the umask) on Linux:
    // setting it first makes the file owner-only from its first instant, without touching the
    // process-wide umask that other threads rely on.
    if (!error && ::fchmod(acceptor.native_handle(), S_IRUSR | S_IWUSR) != 0) {
      error.assign(errno, boost::system::system_category());
    }
    if (!error) {
      acceptor.bind(Local::endpoint(parsed.path), error);
    }
    if (!error) {
      acceptor.listen(asio::socket_base::max_listen_connections, error);
    }
    if (error) {
      throw TransportError("cannot listen on " + url + ": " + error.message());
    }
    struct stat status {};
    if (::lstat(parsed.path.c_str(), &status) != 0) {
      throw TransportError("cannot listen on " + url + ": the socket file vanished");
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
      // Systems where the socket's mode does not carry over: close the gap at once.
      ::chmod(parsed.path.c_str(), S_IRUSR | S_IWUSR);
    }
    auto loop = std::make_shared<AcceptLoop<Local>>(*impl_, std::move(acceptor), parsed.text(),
                                                    options, std::move(onAccept));
    loop->ownFile(parsed.path, status.st_dev, status.st_ino);
    created.push_back(loop);
    starts.push_back([loop] { loop->acceptNext(); });
    endpoints.push_back(parsed.text());
  } else {
    Tcp::resolver resolver(impl_->io);
    boost::system::error_code error;
    const auto results =
        resolver.resolve(parsed.host, std::to_string(parsed.port),
                         Tcp::resolver::passive | Tcp::resolver::numeric_service, error);
    if (error) {
      throw TransportError("cannot listen on " + url + ": cannot resolve '" + parsed.host +
                           "': " + error.message());
    }
    bool loopbackOnly = true;
    for (const auto& entry : results) {
      loopbackOnly = loopbackOnly && entry.endpoint().address().is_loopback();
    }
    if (!loopbackOnly && !options.allowNonLoopback) {
      throw TransportError("cannot listen on " + url +
                           ": not a loopback address (allow other addresses explicitly, with a "
                           "token)");
    }
    if (!loopbackOnly && options.token.empty()) {
      throw TransportError("cannot listen on " + url + ": a non-loopback address requires a token");
    }
    std::uint16_t port = parsed.port;
    std::string failures;
    for (const auto& entry : results) {
      Tcp::endpoint endpoint = entry.endpoint();
      endpoint.port(port);  // port 0: every address gets the port the first one was given
      Tcp::acceptor acceptor(impl_->io);
      acceptor.open(endpoint.protocol(), error);
      if (!error) {
        acceptor.set_option(asio::socket_base::reuse_address(true), error);
      }
      if (!error && endpoint.address().is_v6()) {
        acceptor.set_option(asio::ip::v6_only(true), error);
      }
      if (!error) {
        acceptor.bind(endpoint, error);
      }
      if (!error) {
        acceptor.listen(asio::socket_base::max_listen_connections, error);
      }
      Tcp::endpoint bound;
      if (!error) {
        bound = acceptor.local_endpoint(error);
      }
      if (error) {
        failures += (failures.empty() ? "" : "; ") + endpoint.address().to_string() + ": " +
                    error.message();
        continue;
      }
      port = bound.port();
      Url actual;
      actual.kind = Url::Kind::Tcp;
      actual.host = bound.address().to_string();
      actual.port = bound.port();
      auto loop = std::make_shared<AcceptLoop<Tcp>>(*impl_, std::move(acceptor), actual.text(),
                                                    options, onAccept);
      created.push_back(loop);
      starts.push_back([loop] { loop->acceptNext(); });
      endpoints.push_back(actual.text());
    }
    if (created.empty()) {
      throw TransportError("cannot listen on " + url + ": " + failures);
    }
    if (!failures.empty()) {
      KA_LOG_WARNING(kCategory) << url << ": some addresses could not be listened on: " << failures;
    }
  }

  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->stopping) {
      throw TransportError("cannot listen on " + url + ": the transport is shutting down");
    }
    impl_->listeners.insert(impl_->listeners.end(), created.begin(), created.end());
  }
  for (auto& start : starts) {
    asio::post(impl_->io, std::move(start));
  }
  for (const auto& endpoint : endpoints) {
    KA_LOG_INFO(kCategory) << "listening on " << endpoint;
  }
  return endpoints;
}

void Transport::stopListening() {
  if (impl_->io.get_executor().running_in_this_thread()) {
    throw std::logic_error("Transport::stopListening called on the transport's I/O thread");
  }
  std::promise<void> closed;
  std::future<void> done = closed.get_future();
  asio::post(impl_->io, [impl = impl_.get(), &closed] {
    impl->closeListeners();
    closed.set_value();
  });
  // The I/O thread runs until the transport is destroyed, which must not race with this call.
  // A served call may get here on a transport thread: it hands the reader role over first.
  detail::BlockingScope blocking;
  done.wait();
}

ChannelPtr Transport::connect(const std::string& url, const TransportOptions& options) {
  if (impl_->io.get_executor().running_in_this_thread()) {
    throw std::logic_error(
        "Transport::connect called on the transport's I/O thread, which would "
        "wait for itself");
  }
  Url parsed = parseUrl(url);
  checkOptions(options);
  auto attempt = std::make_shared<ConnectAttempt>(*impl_, std::move(parsed), options);
  std::future<ConnectAttempt::Outcome> result = attempt->result();
  asio::post(impl_->io, [attempt = std::move(attempt)] { attempt->start(); });
  detail::BlockingScope blocking;  // see stopListening
  if (result.wait_for(options.handshakeTimeout + kConnectGrace) != std::future_status::ready) {
    throw TransportError("cannot connect to " + url + ": the transport's I/O thread is busy");
  }
  ConnectAttempt::Outcome outcome;
  try {
    outcome = result.get();
  } catch (const std::future_error&) {
    throw TransportError("cannot connect to " + url + ": the transport shut down");
  }
  if (!outcome.channel) {
    throw TransportError(outcome.error);
  }
  return outcome.channel;
}

}  // namespace wire
}  // namespace ka
