#pragma once
// What each kacli command does once its command line is read: connect to the middleware at a
// url, run the command, print its results. Failures are exceptions that say which exit code
// they mean; the caller prints them as one line.

#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kacli {

// Exit codes: 0 done, 1 a call or remote error, 2 a usage error.
constexpr int kExitOk = 0;
constexpr int kExitCallError = 1;
constexpr int kExitUsage = 2;

// A command that ran and failed: no daemon, unknown service or method, no matching overload,
// the remote method threw, no answer in time. The text is the whole message.
class CallError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A command line that cannot run: a malformed target or argument. The text says which and why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Settings {
  std::string url;
  std::string token;
  // How long a connection, a lookup or a call may take before it counts as failed.
  double timeoutSeconds = 30;
  // Print "<signature> <json>" instead of the JSON alone.
  bool withSignature = false;
};

// What ends a watch besides its count: raise() may be called from a signal handler. One pipe,
// closed on destruction.
class StopFlag {
 public:
  StopFlag();
  ~StopFlag();
  StopFlag(const StopFlag&) = delete;
  StopFlag& operator=(const StopFlag&) = delete;

  // Async-signal-safe; later calls change nothing.
  void raise() noexcept;
  // True once raised, waiting up to `msecs`.
  bool waitFor(int msecs);

 private:
  int _read = -1;
  int _write = -1;
};

// "SERVICE.METHOD" split at its last dot; UsageError when either part is missing.
std::pair<std::string, std::string> splitTarget(const std::string& target, const char* what);

// The services of the directory at the url, one name a line, in the order of their ids.
void runServices(const Settings& settings, std::ostream& out);
// The interface of a service (see describeInterface).
void runInfo(const Settings& settings, const std::string& service, std::ostream& out);
// Calls SERVICE.METHOD with the arguments read as JSON (see parseArgument) and prints the result
// (see formatResult). Arguments are read before connecting: a bad one is a UsageError naming its
// position.
void runCall(const Settings& settings, const std::string& target,
             const std::vector<std::string>& arguments, std::ostream& out);
// Prints one line per emission of SERVICE.SIGNAL, its arguments as a JSON array, flushed at once,
// until `count` emissions arrived or `stop` is raised. CallError when the connection goes. Once
// subscribed, says so on `err` ("kacli: subscribed to SERVICE.SIGNAL").
void runWatch(const Settings& settings, const std::string& target, std::optional<long> count,
              StopFlag& stop, std::ostream& out, std::ostream& err);

}  // namespace kacli
