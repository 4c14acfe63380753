// A client that streams writes to the daemon until it is killed: tests kill it in the middle of
// its calls to see that the daemon copes with a client that vanishes without a word.
//   stream_client URL
// Prints "streaming" once its first writes have been answered, then keeps a window of writes in
// flight forever. Exits 1 with a line on stderr when the daemon fails a call.

#include <ka/anyvalue.hpp>
#include <ka/session.hpp>

#include <deque>
#include <exception>
#include <iostream>
#include <string>

namespace {

constexpr int kCallMs = 20000;
constexpr std::size_t kInFlight = 16;  // enough that a kill always lands during a call
constexpr int kAnsweredBeforeReady = 32;

int stream(const std::string& url) {
  auto session = ka::makeSession();
  session->connect(url).value(kCallMs);
  ka::AnyObject users = session->service("QVUserSession").value(kCallMs);
  ka::AnyObject info = session->service("QVUserInfo").value(kCallMs);
  const int user = users->async<int>("createUser").value(kCallMs);
  std::deque<ka::Future<bool>> inFlight;
  for (long n = 0;; ++n) {
    inFlight.push_back(info->async<bool>("_set", user, "k" + std::to_string(n % 64),
                                         ka::AnyValue("v" + std::to_string(n))));
    if (inFlight.size() < kInFlight) {
      continue;
    }
    if (!inFlight.front().value(kCallMs)) {
      std::cerr << "stream_client: a write was refused\n";
      return 1;
    }
    inFlight.pop_front();
    if (n == kAnsweredBeforeReady + static_cast<long>(kInFlight)) {
      std::cout << "streaming" << std::endl;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: stream_client URL\n";
    return 2;
  }
  try {
    return stream(argv[1]);
  } catch (const std::exception& e) {
    std::cerr << "stream_client: " << e.what() << '\n';
    return 1;
  }
}
