// qvuserinfod: hosts the user information service and the stores it needs on the middleware,
// until SIGINT or SIGTERM. Prints its settings, then "ready <endpoint>..." once it accepts
// calls, and "stopped" once it has stopped. Exit codes: 0 stopped cleanly, 1 could not start,
// 2 usage error.
#include "options.hpp"
#include "service_host.hpp"
#include "settings_output.hpp"
#include "stop_signals.hpp"

#include <ka/log.hpp>

#include <malloc.h>

#include <chrono>
#include <iostream>
#include <optional>

namespace {

// How long the calls in flight at a stop signal may take to finish.
constexpr std::chrono::seconds kStopLimit{10};

int fail(const std::string& what, const std::string& reason) {
  std::cerr << "qvuserinfod: " << what << ": " << reason << std::endl;
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  // Buffers of a MiB and more (large frames, their decoded values) get pages of their own that
  // go back to the system when freed. By default the allocator raises this bound to the largest
  // block freed so far, after which every later 16 MiB frame stays in its free lists and an idle
  // daemon keeps hundreds of MiB it no longer uses. Fixing that bound also fixes the one past
  // which free memory at a heap's top is given back; left at its 128 KiB default, the frees of
  // SQLite's and the calls' buffers would trim and regrow the heaps all the time (measured: 5-8%
  // of a `_set`'s CPU).
  ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
  ::mallopt(M_TRIM_THRESHOLD, 8 << 20);
  // Before any thread exists, so that every thread inherits the blocked stop signals.
  const qvuserinfod::StopSignals signals;

  std::optional<qvuserinfod::Settings> settings;
  try {
    auto commandLine = qvuserinfod::readCommandLine(argc, argv);
    if (!commandLine.settings) {
      return commandLine.exitCode;
    }
    settings = std::move(commandLine.settings);
  } catch (const qvuserinfod::SettingsError& e) {
    return fail("state directory", e.what());
  }
  for (const auto& rule : settings->log) {
    ka::log::setVerbosity(rule.pattern, rule.level);
  }
  qvuserinfod::printSettings(std::cout, *settings);

  std::optional<qvuserinfod::ServiceHost> host;
  try {
    host.emplace(*settings);
  } catch (const qvuserinfod::StartError& e) {
    return fail(e.step(), e.what());
  }
  std::cout << "ready " << host->readiness() << std::endl;

  signals.wait();
  const bool clean = host->stop(kStopLimit);
  host.reset();
  std::cout << "stopped" << std::endl;
  (void)clean;  // what was cut short is logged; the stop itself succeeded
  return 0;
}
