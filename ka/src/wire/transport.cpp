#include "wire/transport.hpp"

#include "wire/local_channel.hpp"

#include <map>
#include <mutex>
#include <stdexcept>

namespace ka {
namespace wire {
namespace {

constexpr const char kLocalScheme[] = "local://";

bool isLocal(const std::string& url) {
  return url.compare(0, sizeof(kLocalScheme) - 1, kLocalScheme) == 0;
}

// The "local://" endpoints of this process, by url.
struct LocalEndpoints {
  std::mutex mutex;
  // Guarded by mutex; an endpoint's entry goes when its listener closes.
  std::map<std::string, std::shared_ptr<AcceptHandler>> byUrl;
};

LocalEndpoints& localEndpoints() {
  static LocalEndpoints endpoints;
  return endpoints;
}

class LocalListener : public Listener {
 public:
  LocalListener(std::string url, std::shared_ptr<AcceptHandler> handler)
      : _url(std::move(url)), _handler(std::move(handler)) {}
  ~LocalListener() override { close(); }

  std::vector<std::string> endpoints() const override { return {_url}; }
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
  const std::shared_ptr<AcceptHandler> _handler;
};

}  // namespace

std::unique_ptr<Listener> listen(const std::string& url, AcceptHandler onAccept) {
  if (!isLocal(url)) {
    throw std::runtime_error("Cannot listen on \"" + url + "\": unsupported url");
  }
  if (url.size() == sizeof(kLocalScheme) - 1) {
    throw std::runtime_error("Cannot listen on \"" + url + "\": the endpoint needs a name");
  }
  auto handler = std::make_shared<AcceptHandler>(std::move(onAccept));
  auto& all = localEndpoints();
  std::lock_guard<std::mutex> lock(all.mutex);
  if (!all.byUrl.emplace(url, handler).second) {
    throw std::runtime_error("Cannot listen on \"" + url + "\": already in use");
  }
  return std::make_unique<LocalListener>(url, handler);
}

Future<ChannelPtr> connect(const std::string& url) {
  if (!isLocal(url)) {
    return makeFutureError<ChannelPtr>("Cannot connect to \"" + url + "\": unsupported url");
  }
  std::shared_ptr<AcceptHandler> handler;
  {
    auto& all = localEndpoints();
    std::lock_guard<std::mutex> lock(all.mutex);
    const auto it = all.byUrl.find(url);
    if (it != all.byUrl.end()) {
      handler = it->second;
    }
  }
  if (!handler) {
    return makeFutureError<ChannelPtr>("Cannot connect to \"" + url + "\": nobody listens there");
  }
  auto ends = LocalChannel::makePair(url);
  (*handler)(ends.second);
  return makeReadyFuture(ChannelPtr(ends.first));
}

}  // namespace wire
}  // namespace ka
