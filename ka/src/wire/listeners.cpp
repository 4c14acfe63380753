// Listening on Unix sockets and on TCP addresses: the accept loops and the checks before a socket
// is bound (a live server already there, a stale file, a non-loopback address without a token).

#include "wire/transport_impl.hpp"
#include "wire/url.hpp"

#include <ka/detail/blocking_scope.hpp>
#include <ka/log.hpp>

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <future>
#include <type_traits>
#include <utility>

namespace ka {
namespace wire {

namespace {

// After a failed accept (out of descriptors, say), wait this long before the next one rather
// than spin.
constexpr std::chrono::milliseconds kAcceptRetryDelay{100};

// The lock file beside a Unix socket: held, with flock, for as long as one listener serves the
// path. Probing an existing socket cannot tell two listeners starting at the same instant apart
// (each finds the other's file stale, or none at all, and both bind); the lock can. The file
// itself stays when the listener stops: removing it would let a listener that opened the old
// file and one that creates a new one both hold "the" lock.
class SocketLock {
 public:
  SocketLock() = default;
  SocketLock(const std::string& socketPath, const std::string& url) {
    const std::string path = socketPath + ".lock";
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (fd_ < 0) {
      throw TransportError("cannot listen on " + url + ": cannot open the lock file " + path +
                           ": " + errnoText(errno));
    }
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      const int error = errno;
      ::close(fd_);
      fd_ = -1;
      if (error == EWOULDBLOCK) {
        throw TransportError("cannot listen on " + url + ": already served by another listener");
      }
      throw TransportError("cannot listen on " + url + ": cannot lock " + path + ": " +
                           errnoText(error));
    }
  }
  SocketLock(SocketLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  SocketLock& operator=(SocketLock&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  SocketLock(const SocketLock&) = delete;
  SocketLock& operator=(const SocketLock&) = delete;
  ~SocketLock() { release(); }

  void release() {
    if (fd_ >= 0) {
      ::close(fd_);  // closing the last descriptor of the file releases the lock
      fd_ = -1;
    }
  }

 private:
  int fd_ = -1;
};

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

  // A Unix socket file to remove on close, if it is still the one this loop created, and the
  // lock that keeps other listeners off it until then.
  void ownFile(std::string path, dev_t device, ino_t inode, SocketLock lock) {
    path_ = std::move(path);
    device_ = device;
    inode_ = inode;
    lock_ = std::move(lock);
  }

  void acceptNext() {
    acceptor_.async_accept([self = this->shared_from_this()](const boost::system::error_code& error,
                                                             typename Protocol::socket socket) {
      self->onAccepted(error, std::move(socket));
    });
  }

  void start() override { acceptNext(); }

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
    lock_.release();
  }

 private:
  void onAccepted(const boost::system::error_code& error, typename Protocol::socket socket) {
    if (!acceptor_.is_open() || error == asio::error::operation_aborted) {
      return;
    }
    if (error) {
      KA_LOG_WARNING(kTransportCategory) << url_ << ": accept failed: " << error.message();
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
    KA_LOG_VERBOSE(kTransportCategory) << url_ << ": accepted " << peer;
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
        KA_LOG_ERROR(kTransportCategory) << self->url_ << ": accept handler threw: " << e.what();
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
  SocketLock lock_;
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

// What one listen() made: its accept loops, not started yet, and the urls they serve.
struct Listening {
  std::vector<std::shared_ptr<Listener>> loops;
  std::vector<std::string> endpoints;
};

Listening listenUnix(Transport::Impl& impl, const Url& parsed, const std::string& url,
                     const TransportOptions& options, Transport::AcceptHandler onAccept) {
  Listening made;
  SocketLock lock(parsed.path, url);
  if (unixSocketAnswers(parsed.path, url)) {
    throw TransportError("cannot listen on " + url + ": already served by another listener");
  }
  if (::unlink(parsed.path.c_str()) == 0) {
    KA_LOG_INFO(kTransportCategory) << url
                                    << ": removed a stale socket file left by a listener that "
                                       "is gone";
  }
  Local::acceptor acceptor(impl.io);
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
  auto loop = std::make_shared<AcceptLoop<Local>>(impl, std::move(acceptor), parsed.text(), options,
                                                  std::move(onAccept));
  loop->ownFile(parsed.path, status.st_dev, status.st_ino, std::move(lock));
  made.loops.push_back(loop);
  made.endpoints.push_back(parsed.text());
  return made;
}

// Every address the host resolves to, on one port (port 0: the one the first address got).
Listening listenTcp(Transport::Impl& impl, const Url& parsed, const std::string& url,
                    const TransportOptions& options, const Transport::AcceptHandler& onAccept) {
  Listening made;
  Tcp::resolver resolver(impl.io);
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
    Tcp::acceptor acceptor(impl.io);
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
      failures +=
          (failures.empty() ? "" : "; ") + endpoint.address().to_string() + ": " + error.message();
      continue;
    }
    port = bound.port();
    Url actual;
    actual.kind = Url::Kind::Tcp;
    actual.host = bound.address().to_string();
    actual.port = bound.port();
    auto loop = std::make_shared<AcceptLoop<Tcp>>(impl, std::move(acceptor), actual.text(), options,
                                                  onAccept);
    made.loops.push_back(loop);
    made.endpoints.push_back(actual.text());
  }
  if (made.loops.empty()) {
    throw TransportError("cannot listen on " + url + ": " + failures);
  }
  if (!failures.empty()) {
    KA_LOG_WARNING(kTransportCategory)
        << url << ": some addresses could not be listened on: " << failures;
  }
  return made;
}

}  // namespace

std::vector<std::string> Transport::listen(const std::string& url, const TransportOptions& options,
                                           AcceptHandler onAccept) {
  const Url parsed = parseUrl(url);
  checkOptions(options);
  Listening made = parsed.kind == Url::Kind::Unix
                       ? listenUnix(*impl_, parsed, url, options, std::move(onAccept))
                       : listenTcp(*impl_, parsed, url, options, onAccept);

  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->stopping) {
      throw TransportError("cannot listen on " + url + ": the transport is shutting down");
    }
    impl_->listeners.insert(impl_->listeners.end(), made.loops.begin(), made.loops.end());
  }
  for (const auto& loop : made.loops) {
    asio::post(impl_->io, [loop] { loop->start(); });
  }
  for (const auto& endpoint : made.endpoints) {
    KA_LOG_INFO(kTransportCategory) << "listening on " << endpoint;
  }
  return made.endpoints;
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

}  // namespace wire
}  // namespace ka
