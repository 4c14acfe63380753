#include "wire/local_endpoints.hpp"

#include "wire/local_channel.hpp"

#include <map>
#include <mutex>
#include <stdexcept>

namespace ka {
namespace wire {
namespace {

constexpr const char kLocalScheme[] = "local://";

// The "local://" endpoints of this process, by url.
struct LocalEndpoints {
  std::mutex mutex;
  // Guarded by mutex; an endpoint's entry goes when its listener closes.
  std::map<std::string, std::shared_ptr<LocalAcceptHandler>> byUrl;
};

LocalEndpoints& localEndpoints() {
  static LocalEndpoints endpoints;
  return endpoints;
}

class Registration : public LocalListener {
 public:
  Registration(std::string url, std::shared_ptr<LocalAcceptHandler> handler)
      : _url(std::move(url)), _handler(std::move(handler)) {}
  ~Registration() override { close(); }

  void close() override {
    auto& all = localEndpoints();
    std::lock_guard<std::mutex> lock(all.mutex);
    const auto it = all.byUrl.find(_url);
    if (it != all.byUrl.end() && it->second == _handler) {
      all.byUrl.erase(it);
    }
  }

 private:
  const std::string _url;
  const std::shared_ptr<LocalAcceptHandler> _handler;
};

}  // namespace

bool isLocalUrl(const std::string& url) {
  return url.compare(0, sizeof(kLocalScheme) - 1, kLocalScheme) == 0;
}

std::unique_ptr<LocalListener> listenLocal(const std::string& url, LocalAcceptHandler onAccept) {
  if (!isLocalUrl(url) || url.size() == sizeof(kLocalScheme) - 1) {
    throw std::runtime_error("Cannot listen on \"" + url + "\": a local url is local://<name>");
  }
  auto handler = std::make_shared<LocalAcceptHandler>(std::move(onAccept));
  auto& all = localEndpoints();
  std::lock_guard<std::mutex> lock(all.mutex);
  if (!all.byUrl.emplace(url, handler).second) {
    throw std::runtime_error("Cannot listen on \"" + url + "\": already in use");
  }
  return std::make_unique<Registration>(url, handler);
}

ChannelPtr connectLocal(const std::string& url) {
  std::shared_ptr<LocalAcceptHandler> handler;
  {
    auto& all = localEndpoints();
    std::lock_guard<std::mutex> lock(all.mutex);
    const auto it = all.byUrl.find(url);
    if (it != all.byUrl.end()) {
      handler = it->second;
    }
  }
  if (!handler) {
    throw std::runtime_error("Cannot connect to \"" + url + "\": nobody listens there");
  }
  auto ends = LocalChannel::makePair(url);
  (*handler)(ends.second);
  return ends.first;
}

}  // namespace wire
}  // namespace ka
