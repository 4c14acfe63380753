#include "commands.hpp"

#include "argument_parser.hpp"
#include "interface_printer.hpp"
#include "value_printer.hpp"

#include <ka/anyfunction.hpp>
#include <ka/session.hpp>
#include <ka/signal.hpp>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <sstream>

namespace kacli {
namespace {

std::string seconds(double s) {
  std::ostringstream text;
  text << s << " s";
  return text.str();
}

int milliseconds(double s) {
  const double ms = std::ceil(s * 1000);
  return ms >= static_cast<double>(std::numeric_limits<int>::max() - 1)
             ? std::numeric_limits<int>::max() - 1
             : static_cast<int>(std::max(ms, 1.0));
}

// A session joined to the directory at the url for the life of one command.
class Connection {
 public:
  explicit Connection(const Settings& settings) : _settings(settings) {
    ka::EndpointOptions options;
    options.token = settings.token;
    const std::string prefix = "no daemon at " + settings.url + ": ";
    try {
      _session->connect(settings.url, options).value(timeoutMs());
    } catch (const ka::FutureTimeoutError&) {
      throw CallError(prefix + "no answer within " + seconds(settings.timeoutSeconds));
    } catch (const std::exception& e) {
      // The transport's own text repeats the url; the reason is what is left.
      std::string reason = e.what();
      const std::string repeated = "cannot connect to " + settings.url + ": ";
      if (reason.compare(0, repeated.size(), repeated) == 0) {
        reason.erase(0, repeated.size());
      }
      throw CallError(prefix + reason);
    }
  }
  ~Connection() { _session->close(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int timeoutMs() const { return milliseconds(_settings.timeoutSeconds); }

  // Waits for `future` within the time limit; its error text, or the time out, is a CallError.
  template <typename T>
  T wait(const ka::Future<T>& future, const std::string& what) const {
    try {
      return future.value(timeoutMs());
    } catch (const ka::FutureTimeoutError&) {
      throw CallError(what + " did not answer within " + seconds(_settings.timeoutSeconds));
    } catch (const ka::FutureError& e) {
      throw CallError(e.what());
    }
  }

  ka::AnyObject service(const std::string& name) {
    return wait(_session->service(name), "the lookup of \"" + name + "\"");
  }
  std::vector<ka::ServiceInfo> services() {
    return wait(_session->services(), "the service directory");
  }
  bool isConnected() const { return _session->isConnected(); }

 private:
  const Settings& _settings;
  const ka::SessionPtr _session = ka::makeSession();
};

// What is given as an argument: an empty value stays a dynamic value holding nothing, which is
// how the middleware passes "nothing" to an "m" parameter.
ka::AnyReference argumentReference(const ka::AnyValue& value) {
  return value.isValid() ? value.asReference() : ka::AnyReference::from(value);
}

}  // namespace

StopFlag::StopFlag() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::runtime_error(std::string("cannot create a pipe: ") + std::strerror(errno));
  }
  _read = fds[0];
  _write = fds[1];
}

StopFlag::~StopFlag() {
  ::close(_read);
  ::close(_write);
}

void StopFlag::raise() noexcept {
  const char byte = 1;
  // A full pipe already holds a raise; nothing else can fail here.
  [[maybe_unused]] const auto written = ::write(_write, &byte, 1);
}

bool StopFlag::waitFor(int msecs) {
  pollfd entry{_read, POLLIN, 0};
  const int ready = ::poll(&entry, 1, msecs);
  return ready > 0 && (entry.revents & POLLIN) != 0;
}

std::pair<std::string, std::string> splitTarget(const std::string& target, const char* what) {
  const auto dot = target.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == target.size()) {
    throw UsageError("expected SERVICE." + std::string(what) + ", got \"" + target + "\"");
  }
  return {target.substr(0, dot), target.substr(dot + 1)};
}

void runServices(const Settings& settings, std::ostream& out) {
  Connection connection(settings);
  auto services = connection.services();
  std::sort(
      services.begin(), services.end(),
      [](const ka::ServiceInfo& a, const ka::ServiceInfo& b) { return a.serviceId < b.serviceId; });
  for (const auto& info : services) {
    out << info.name << "\n";
  }
  out.flush();
}

void runInfo(const Settings& settings, const std::string& service, std::ostream& out) {
  Connection connection(settings);
  const ka::AnyObject object = connection.service(service);
  for (const auto& line : describeInterface(object->metaObject())) {
    out << line << "\n";
  }
  out.flush();
}

void runCall(const Settings& settings, const std::string& target,
             const std::vector<std::string>& arguments, std::ostream& out) {
  const auto [service, method] = splitTarget(target, "METHOD");
  std::vector<ka::AnyValue> values;
  values.reserve(arguments.size());
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    try {
      values.push_back(parseArgument(arguments[i]));
    } catch (const ArgumentError& e) {
      throw UsageError("argument " + std::to_string(i + 1) + " (" + arguments[i] +
                       "): " + e.what());
    }
  }
  ka::AnyReferenceVector references;
  for (const auto& value : values) {
    references.push_back(argumentReference(value));
  }

  Connection connection(settings);
  const ka::AnyObject object = connection.service(service);
  const ka::AnyValue result =
      connection.wait(object->metaCall(method, references, ka::MetaCallType::Auto), target);
  if (const auto text = formatResult(result, settings.withSignature)) {
    out << *text << "\n";
  }
  out.flush();
}

void runWatch(const Settings& settings, const std::string& target, std::optional<long> count,
              StopFlag& stop, std::ostream& out, std::ostream& err) {
  const auto [service, signalName] = splitTarget(target, "SIGNAL");
  Connection connection(settings);
  const ka::AnyObject object = connection.service(service);
  const ka::MetaSignal* signal = object->metaObject().signal(signalName);
  if (signal == nullptr) {
    throw CallError("Signal \"" + signalName + "\" not found");
  }
  const std::string prefix = settings.withSignature ? signal->signature().toString() + " " : "";

  // Shared with the subscriber, which a delivery queued before the end may still run.
  struct Output {
    std::mutex mutex;
    long printed = 0;     // guarded by mutex
    bool closed = false;  // guarded by mutex; set once runWatch no longer owns out and stop
  };
  const auto output = std::make_shared<Output>();
  auto print = [output, count, prefix, &out, &stop](const ka::AnyReferenceVector& args) {
    nlohmann::json array = nlohmann::json::array();
    for (const auto& arg : args) {
      array.push_back(toJson(arg));
    }
    std::lock_guard<std::mutex> lock(output->mutex);
    if (output->closed || (count && output->printed >= *count)) {
      return ka::AnyValue::makeVoid();
    }
    out << prefix << array.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
        << std::endl;
    if (count && ++output->printed == *count) {
      stop.raise();
    }
    return ka::AnyValue::makeVoid();
  };
  // Queued: deliveries arrive one at a time in emission order, never inside the transport.
  const ka::SignalSubscriber subscriber(
      ka::AnyFunction::fromDynamic(signal->argumentTypes, ka::typeOf<void>(), print),
      ka::MetaCallType::Queued);
  const ka::SignalLink link =
      connection.wait(object->connect(signalName, subscriber), "the subscription to " + target);
  // From here on no emission is missed: a script started in the background waits for this line
  // before it makes the change it wants to see.
  err << "kacli: subscribed to " << target << std::endl;

  bool lost = false;
  while (!stop.waitFor(200)) {
    if (!connection.isConnected()) {
      lost = true;
      break;
    }
  }
  try {
    object->disconnect(link).value(connection.timeoutMs());
  } catch (const std::exception&) {
    // A connection that is gone took the subscription with it.
  }
  {
    std::lock_guard<std::mutex> lock(output->mutex);
    output->closed = true;
  }
  if (lost) {
    // The middleware's own wording, as for a call that loses its connection.
    throw CallError("Connection lost to " + settings.url);
  }
}

}  // namespace kacli
