#pragma once
// Helpers for tests over real sockets: a private directory for socket files, a recorder of what
// a channel delivers, a listening transport that queues the channels it accepts, and a raw
// client that writes bytes the Channel API would never produce.

#include "wire/frame_header.hpp"
#include "wire/handshake.hpp"
#include "wire/transport.hpp"
#include "wire/url.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ka {
namespace wire {
namespace test {

// Generous: sanitizer builds on a shared machine are slow, and a hang must still fail.
inline constexpr std::chrono::seconds kWait{20};

// A fresh directory under /tmp (short, for sun_path), removed with its contents.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/kawire-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Starts a channel and records its frames and close reasons.
class Recorder {
 public:
  void attach(const ChannelPtr& channel) {
    channel->start(
        [this](Frame frame) {
          std::lock_guard<std::mutex> lock(mutex_);
          frames_.push_back(std::move(frame));
          changed_.notify_all();
        },
        [this](const std::string& reason) {
          std::lock_guard<std::mutex> lock(mutex_);
          closes_.push_back(reason);
          changed_.notify_all();
        });
  }
  bool waitFrames(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kWait, [&] { return frames_.size() >= count; });
  }
  // The first close reason, or nothing if none came in time.
  std::optional<std::string> waitClose() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, kWait, [&] { return !closes_.empty(); })) {
      return std::nullopt;
    }
    return closes_.front();
  }
  std::vector<Frame> frames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }
  std::vector<std::string> closes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closes_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  std::vector<Frame> frames_;
  std::vector<std::string> closes_;
};

// A transport listening at one url, queueing the channels it accepts.
class Server {
 public:
  explicit Server(const std::string& url, const TransportOptions& options = {}) {
    endpoints = transport.listen(url, options, [this](ChannelPtr channel) {
      std::lock_guard<std::mutex> lock(mutex_);
      accepted_.push_back(std::move(channel));
      changed_.notify_all();
    });
  }
  // The next accepted channel (not started), or null if none came in time.
  ChannelPtr next() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, kWait, [&] { return !accepted_.empty(); })) {
      return nullptr;
    }
    ChannelPtr channel = std::move(accepted_.front());
    accepted_.pop_front();
    return channel;
  }

  std::vector<std::string> endpoints;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<ChannelPtr> accepted_;  // guarded by mutex_

 public:
  // Last, so it is destroyed first: no accept handler runs once the queue is gone.
  Transport transport;
};

inline Frame makeFrame(std::uint8_t type, std::uint64_t requestId, const std::string& body) {
  Frame frame;
  frame.type = type;
  frame.requestId = requestId;
  frame.body.assign(body.begin(), body.end());
  return frame;
}

// A socket driven by hand, byte by byte.
class RawClient {
 public:
  explicit RawClient(const std::string& endpoint) {
    const Url url = parseUrl(endpoint);
    if (url.kind == Url::Kind::Unix) {
      fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::strncpy(address.sun_path, url.path.c_str(), sizeof address.sun_path - 1);
      connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    } else {
      fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(url.port);
      ::inet_pton(AF_INET, url.host.c_str(), &address.sin_addr);
      connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
  }
  ~RawClient() { closeNow(); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return connected_; }
  void closeNow() {
    if (fd_ >= 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }

  bool write(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (n <= 0) {
        return false;
      }
      done += static_cast<std::size_t>(n);
    }
    return true;
  }
  bool writeFrame(std::uint8_t type, std::uint64_t requestId, const std::string& body) {
    return write(header(type, requestId, static_cast<std::uint32_t>(body.size())) + body);
  }
  static std::string header(std::uint8_t type, std::uint64_t requestId, std::uint32_t length) {
    char bytes[kFrameHeaderSize];
    encodeFrameHeader(type, requestId, length, bytes);
    return std::string(bytes, kFrameHeaderSize);
  }

  // Reads exactly `count` bytes; nothing if the stream ends or time runs out first.
  std::optional<std::string> read(std::size_t count) {
    std::string out(count, '\0');
    std::size_t done = 0;
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (done < count) {
      if (!waitReadable(deadline)) {
        return std::nullopt;
      }
      const ssize_t n = ::recv(fd_, &out[done], count - done, 0);
      if (n <= 0) {
        return std::nullopt;
      }
      done += static_cast<std::size_t>(n);
    }
    return out;
  }
  // The next frame's type and body.
  std::optional<std::pair<std::uint8_t, std::string>> readFrame() {
    const auto head = read(kFrameHeaderSize);
    if (!head) {
      return std::nullopt;
    }
    FrameHeader header;
    if (decodeFrameHeader(head->data(), ~0u, header) != HeaderError::None) {
      return std::nullopt;
    }
    const auto body = read(header.bodyLength);
    if (!body) {
      return std::nullopt;
    }
    return std::make_pair(header.type, *body);
  }
  // Sends Hello and returns whether Welcome came back.
  bool handshake(const std::string& token = "") {
    const std::vector<char> hello = encodeHello(token);
    if (!writeFrame(kHelloType, 0, std::string(hello.begin(), hello.end()))) {
      return false;
    }
    const auto answer = readFrame();
    return answer && answer->first == kWelcomeType;
  }
  // Whether the peer ends the stream in time (reading and dropping whatever comes first).
  bool waitForEnd() {
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    char buffer[4096];
    for (;;) {
      if (!waitReadable(deadline)) {
        return false;
      }
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) {
        return true;
      }
    }
  }

 private:
  bool waitReadable(std::chrono::steady_clock::time_point deadline) {
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        return false;
      }
      pollfd p{fd_, POLLIN, 0};
      const int r = ::poll(&p, 1, static_cast<int>(left.count()));
      if (r > 0) {
        return true;
      }
      if (r < 0 && errno != EINTR) {
        return false;
      }
    }
  }

  int fd_ = -1;
  bool connected_ = false;
};

}  // namespace test
}  // namespace wire
}  // namespace ka
