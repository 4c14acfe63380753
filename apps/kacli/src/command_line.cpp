#include "command_line.hpp"

#include "commands.hpp"

#include <appcommon/default_url.hpp>
#include <appcommon/token.hpp>

#include <ka/log.hpp>

#include <CLI/CLI.hpp>

#include <signal.h>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

namespace kacli {
namespace {

// The flag a running watch waits on, for the signal handlers.
std::atomic<StopFlag*> gStopFlag{nullptr};

extern "C" void raiseStopFlag(int) {
  if (StopFlag* flag = gStopFlag.load()) {
    flag->raise();
  }
}

// SIGINT and SIGTERM raise `flag` while this lives; the previous handlers come back after.
class StopOnSignals {
 public:
  explicit StopOnSignals(StopFlag& flag) {
    gStopFlag.store(&flag);
    struct sigaction action {};
    action.sa_handler = raiseStopFlag;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, &_previousInt);
    ::sigaction(SIGTERM, &action, &_previousTerm);
  }
  ~StopOnSignals() {
    ::sigaction(SIGINT, &_previousInt, nullptr);
    ::sigaction(SIGTERM, &_previousTerm, nullptr);
    gStopFlag.store(nullptr);
  }
  StopOnSignals(const StopOnSignals&) = delete;
  StopOnSignals& operator=(const StopOnSignals&) = delete;

 private:
  struct sigaction _previousInt {};
  struct sigaction _previousTerm {};
};

// The command line with the arguments of a call taken out: they go to the argument parser as
// typed, where CLI11 would take "-5" for an option and split "[1,2]" into two values.
struct CallArguments {
  std::vector<const char*> options;  // argv up to SERVICE.METHOD of a call, all of it otherwise
  std::vector<std::string> arguments;
};

CallArguments splitCallArguments(int argc, const char* const* argv) {
  CallArguments split;
  split.options.assign(argv, argv + argc);
  // Options that take a value in the next word unless given as --name=value.
  auto takesValue = [](const std::string& word) {
    return word == "--url" || word == "--token" || word == "--token-file" || word == "--timeout" ||
           word == "--count";
  };
  bool inCall = false;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--") {
      break;
    }
    if (word.size() > 1 && word[0] == '-') {
      i += takesValue(word) ? 1 : 0;
      continue;
    }
    if (!inCall) {
      if (word != "call") {
        break;  // another subcommand, or something CLI11 refuses
      }
      inCall = true;
      continue;
    }
    // SERVICE.METHOD: the rest are arguments, a leading "--" aside.
    split.options.assign(argv, argv + i + 1);
    int first = i + 1;
    if (first < argc && std::string(argv[first]) == "--") {
      ++first;
    }
    split.arguments.assign(argv + first, argv + argc);
    break;
  }
  return split;
}

}  // namespace

int runCommandLine(int argc, const char* const* argv, std::ostream& out, std::ostream& err,
                   bool handleSignals) {
  CallArguments callArguments = splitCallArguments(argc, argv);
  CLI::App app{
      "Inspects and drives the services of a ka middleware.\n"
      "Arguments are JSON texts; a prefix SIG: forces a signature (l:42, s:text, "
      "b:true, [s]:[\"a\"]).\n"
      "Exit codes: 0 done, 1 call or remote error, 2 usage error."};
  app.name("kacli");
  app.require_subcommand(1);

  Settings settings;
  app.add_option("--url", settings.url,
                 "Where the middleware is (default: $QV_URL, else ./var/qvuserinfod.sock when it "
                 "exists, else the per-user runtime socket)");
  qvapp::TokenSource token;
  app.add_option("--token-file", token.file,
                 "File holding the token presented to the daemon (owner-only, e.g. mode 600). "
                 "Default: $QV_TOKEN, else none");
  app.add_option("--token", token.token,
                 "The token itself; visible in process listings, prefer --token-file");
  app.add_option("--timeout", settings.timeoutSeconds,
                 "Seconds a connection or a call may take before it fails")
      ->capture_default_str();
  app.add_flag("--signature", settings.withSignature,
               "Print results as '<signature> <json>' (the void value as 'v')");

  auto* services = app.add_subcommand("services", "List the services, one name a line");
  services->fallthrough();

  std::string service;
  auto* info = app.add_subcommand("info", "Show the methods and signals of a service");
  info->fallthrough();
  info->add_option("SERVICE", service, "Service name")->required();

  std::string target;
  auto* call = app.add_subcommand("call", "Call a method; the result prints as one JSON text");
  call->fallthrough();
  call->add_option("SERVICE.METHOD", target, "Service and method")->required();
  // Listed for --help only: splitCallArguments took the arguments out before parsing.
  std::vector<std::string> listedArguments;
  call->add_option("ARG", listedArguments,
                   "Arguments, JSON texts with an optional SIG: prefix; everything after "
                   "SERVICE.METHOD is one");

  std::optional<long> count;
  auto* watch = app.add_subcommand(
      "watch", "Print each emission of a signal as a JSON array of its arguments, one a line");
  watch->fallthrough();
  watch->add_option("SERVICE.SIGNAL", target, "Service and signal")->required();
  watch->add_option("--count", count, "Stop after this many emissions");

  try {
    app.parse(static_cast<int>(callArguments.options.size()), callArguments.options.data());
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::ParseError& e) {
    err << "kacli: " << e.what() << " (see kacli --help)\n";
    return kExitUsage;
  }

  // Every failure reaches the user as the one line below; the middleware's own log lines (a
  // refused connection, a lost peer) would only repeat it.
  ka::log::setVerbosity(ka::LogLevel::Silent);
  try {
    if (!(settings.timeoutSeconds > 0)) {
      throw UsageError("--timeout: expected a positive number of seconds, got " +
                       app.get_option("--timeout")->as<std::string>());
    }
    if (count && *count <= 0) {
      throw UsageError("--count: expected a positive number, got " + std::to_string(*count));
    }
    if (settings.url.empty()) {
      settings.url = qvapp::defaultUrl();
    }
    try {
      settings.token = qvapp::resolveToken(token);
    } catch (const qvapp::TokenError& e) {
      throw UsageError(e.what());
    }
    if (!token.warning.empty()) {
      err << "kacli: warning: " << token.warning << "\n";
    }
    if (*services) {
      runServices(settings, out);
    } else if (*info) {
      runInfo(settings, service, out);
    } else if (*call) {
      runCall(settings, target, callArguments.arguments, out);
    } else if (*watch) {
      StopFlag stop;
      std::optional<StopOnSignals> handlers;
      if (handleSignals) {
        handlers.emplace(stop);
      }
      runWatch(settings, target, count, stop, out, err);
    }
    return kExitOk;
  } catch (const UsageError& e) {
    err << "kacli: " << e.what() << "\n";
    return kExitUsage;
  } catch (const std::exception& e) {
    err << "kacli: " << e.what() << "\n";
    return kExitCallError;
  }
}

}  // namespace kacli
