// connect(): resolving, connecting and the client handshake, on the thread that holds the
// reader role, while the caller waits for the outcome.

#include "wire/transport_impl.hpp"
#include "wire/url.hpp"

#include <ka/detail/blocking_scope.hpp>
#include <ka/log.hpp>

#include <boost/asio/connect.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <future>
#include <optional>
#include <utility>

namespace ka {
namespace wire {

namespace {

// connect() waits this much past the handshake time limit for the I/O thread to report, in
// case a handler of the application keeps that thread busy.
constexpr std::chrono::seconds kConnectGrace{5};

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

}  // namespace

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
