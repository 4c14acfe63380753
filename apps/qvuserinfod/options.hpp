#pragma once
// The daemon's command line, and the settings it resolves to once every default is filled in.

#include <qvstorage/durability.hpp>

#include <ka/loglevel.hpp>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qvuserinfod {

// A verbosity rule: "*" for every category, or a category name or "prefix*" pattern.
struct LogRule {
  std::string pattern;
  ka::LogLevel level = ka::LogLevel::Warning;
};

// What the daemon runs with; printed at start, one line each.
struct Settings {
  std::string database;             // the knowledge store's file (without store)
  std::string store;                // a PostgreSQL connection URI, or empty for the SQLite file
  std::vector<std::string> listen;  // urls to serve the directory on (empty with connect)
  std::string connect;              // the directory to join instead (empty when serving)
  bool ownUserSession = true;       // publish "QVUserSession" here
  QV::Durability durability = QV::Durability::Full;
  std::string token;
  std::vector<LogRule> log;  // in the order given, the global level first
};

// The outcome of reading the command line: settings to run with, or an exit code (0 after
// --help, 2 after a usage error, whose message CLI11 has printed).
struct CommandLine {
  std::optional<Settings> settings;
  int exitCode = 0;
};

// A default that cannot be resolved (a refused runtime directory, a state directory that
// cannot be created); the daemon then exits 1.
class SettingsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads the command line and fills in the defaults (creating the directories they name).
// Throws SettingsError.
CommandLine readCommandLine(int argc, char** argv);

// "full" or "normal".
const char* durabilityName(QV::Durability durability);
// The rules as given on the command line: "warning", "warning QVUser*=verbose".
std::string describeLog(const std::vector<LogRule>& rules);

}  // namespace qvuserinfod
