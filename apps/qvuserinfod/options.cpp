#include "options.hpp"

#include <appcommon/default_url.hpp>
#include <appcommon/token.hpp>
#include <qvpostgres/postgres_database.hpp>

#include <CLI/CLI.hpp>

#include <array>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string_view>

namespace qvuserinfod {
namespace {

namespace fs = std::filesystem;

// The daemon is quiet on stderr unless asked: a start failure is then one line there.
constexpr ka::LogLevel kDefaultLogLevel = ka::LogLevel::Warning;

constexpr std::array<std::pair<const char*, ka::LogLevel>, 7> kLevels{{
    {"silent", ka::LogLevel::Silent},
    {"fatal", ka::LogLevel::Fatal},
    {"error", ka::LogLevel::Error},
    {"warning", ka::LogLevel::Warning},
    {"info", ka::LogLevel::Info},
    {"verbose", ka::LogLevel::Verbose},
    {"debug", ka::LogLevel::Debug},
}};

std::optional<ka::LogLevel> levelNamed(const std::string& name) {
  for (const auto& [text, level] : kLevels) {
    if (name == text) {
      return level;
    }
  }
  return std::nullopt;
}

const char* levelName(ka::LogLevel level) {
  for (const auto& [text, l] : kLevels) {
    if (l == level) {
      return text;
    }
  }
  return "?";
}

// The file of a `sqlite:PATH` store, or nothing for any other text.
std::optional<std::string> sqliteStorePath(const std::string& text) {
  constexpr std::string_view kScheme = "sqlite:";
  if (text.size() <= kScheme.size() || text.compare(0, kScheme.size(), kScheme) != 0) {
    return std::nullopt;
  }
  return text.substr(kScheme.size());
}

// "LEVEL" (every category) or "PATTERN=LEVEL".
std::optional<LogRule> parseLogRule(const std::string& text) {
  const auto equals = text.rfind('=');
  const std::string pattern = equals == std::string::npos ? "*" : text.substr(0, equals);
  const auto level = levelNamed(equals == std::string::npos ? text : text.substr(equals + 1));
  if (!level || pattern.empty()) {
    return std::nullopt;
  }
  return LogRule{pattern, *level};
}

std::string absolute(const std::string& path) {
  return fs::absolute(path).lexically_normal().string();
}

void createDirectories(const fs::path& dir) {
  std::error_code error;
  fs::create_directories(dir, error);
  if (error) {
    throw SettingsError("cannot create " + dir.string() + ": " + error.message());
  }
}

}  // namespace

const char* durabilityName(QV::Durability durability) {
  return durability == QV::Durability::Full ? "full" : "normal";
}

std::string describeLog(const std::vector<LogRule>& rules) {
  std::string out;
  for (const auto& rule : rules) {
    out += out.empty() ? "" : " ";
    out += rule.pattern == "*" ? std::string(levelName(rule.level))
                               : rule.pattern + "=" + levelName(rule.level);
  }
  return out;
}

CommandLine readCommandLine(int argc, char** argv) {
  CLI::App app{
      "qvuserinfod: hosts the user information service. Serves a service directory on a Unix "
      "socket (and TCP loopback when asked), or joins one served elsewhere, and publishes "
      "QVKnowledge, QVUserSession and QVUserInfo on it. Prints its settings, then "
      "'ready <endpoint>...' once it accepts calls; SIGINT or SIGTERM stop it cleanly."};
  app.get_formatter()->column_width(30);

  std::string stateDir;
  std::string database;
  std::string store;
  std::vector<std::string> listen;
  std::string connect;
  bool noUserSession = false;
  std::string durability = "full";
  qvapp::TokenSource token;
  std::vector<std::string> logTexts;

  app.add_option("--state-dir", stateDir,
                 "Directory for both the socket and the database (created if missing). Default: "
                 "socket in the per-user runtime dir ($XDG_RUNTIME_DIR/qvuserinfo or "
                 "/tmp/qvuserinfo-<uid>), database in the per-user data dir "
                 "($XDG_DATA_HOME/qvuserinfo or ~/.local/share/qvuserinfo)");
  app.add_option("--database", database,
                 "The knowledge store's SQLite file (the users are kept beside it, in "
                 "<file>.users). Default: knowledge.db in the state or data dir");
  auto* storeOption =
      app.add_option("--store", store,
                     "Where users and knowledge are kept: a PostgreSQL database shared with other "
                     "daemons, as a libpq URI postgresql://user@host/db (the password from "
                     "PGPASSWORD or ~/.pgpass, never here), or sqlite:PATH (as --database PATH). "
                     "Default: the SQLite file")
          ->check(
              [](const std::string& text) {
                return QV::isPostgresUri(text) || sqliteStorePath(text)
                           ? std::string()
                           : "expected a URI postgresql://[user@]host[:port]/database or "
                             "sqlite:PATH";
              },
              "URI");
  auto* listenOption = app.add_option(
      "--listen", listen,
      "Serve on URL, repeatable: unix:///path/to.sock or tcp://127.0.0.1:PORT (0 = any free "
      "port). Default: $QV_URL, else the socket in the state or runtime dir");
  auto* connectOption = app.add_option(
      "--connect", connect, "Join the service directory served at URL instead of serving one");
  listenOption->excludes(connectOption);
  storeOption->excludes(app.get_option("--database"));
  app.add_flag("--no-user-session", noUserSession,
               "Do not publish QVUserSession: another process provides it");
  app.add_option("--durability", durability,
                 "full: a reply means the write survives a power loss; normal: it survives a "
                 "crash of the daemon")
      ->check(CLI::IsMember({"full", "normal"}));
  app.add_option("--token-file", token.file,
                 "File holding the shared secret (owner-only, e.g. mode 600): clients must "
                 "present it (serving), or presented to the server (--connect). Default: "
                 "$QV_TOKEN, else none");
  app.add_option("--token", token.token,
                 "The shared secret itself; visible in process listings, prefer --token-file");
  app.add_option("--log", logTexts,
                 "LEVEL for every category, or PATTERN=LEVEL for some (e.g. 'QVUser*=verbose'); "
                 "repeatable, later rules win. Levels: silent fatal error warning info verbose "
                 "debug. Default: warning")
      ->check(
          [](const std::string& text) {
            return parseLogRule(text) ? std::string()
                                      : "expected LEVEL or PATTERN=LEVEL with LEVEL one of "
                                        "silent, fatal, error, warning, info, verbose, debug";
          },
          "LEVEL|PATTERN=LEVEL");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return CommandLine{std::nullopt, app.exit(e)};
  } catch (const CLI::ParseError& e) {
    (void)app.exit(e);
    return CommandLine{std::nullopt, 2};
  }

  Settings settings;
  try {
    settings.token = qvapp::resolveToken(token);
  } catch (const qvapp::TokenError& e) {
    std::cerr << "qvuserinfod: " << e.what() << std::endl;
    return CommandLine{std::nullopt, 2};
  }
  if (!token.warning.empty()) {
    std::cerr << "qvuserinfod: warning: " << token.warning << std::endl;
  }
  settings.durability = durability == "normal" ? QV::Durability::Normal : QV::Durability::Full;
  settings.ownUserSession = !noUserSession;
  settings.log.push_back(LogRule{"*", kDefaultLogLevel});
  for (const auto& text : logTexts) {
    settings.log.push_back(*parseLogRule(text));
  }
  // A single bare level replaces the default rather than following it.
  if (settings.log.size() > 1 && settings.log[1].pattern == "*") {
    settings.log.erase(settings.log.begin());
  }

  try {
    if (!stateDir.empty()) {
      createDirectories(stateDir);
    }
    // A relative SQLite path names a file of the directory the daemon was started in.
    settings.store = sqliteStorePath(store) ? "sqlite:" + absolute(*sqliteStorePath(store)) : store;
    if (!store.empty()) {
      // No file to make or name.
    } else if (database.empty()) {
      const std::string dir = stateDir.empty() ? qvapp::dataDir() : stateDir;
      createDirectories(dir);
      database = (fs::path(dir) / qvapp::kDatabaseName).string();
    }
    if (store.empty()) {
      settings.database = absolute(database);
    }
    if (!connect.empty()) {
      settings.connect = connect;
    } else if (!listen.empty()) {
      settings.listen = listen;
    } else {
      settings.listen.push_back(stateDir.empty() ? qvapp::daemonDefaultUrl()
                                                 : qvapp::socketUrlIn(stateDir));
    }
  } catch (const qvapp::DirectoryError& e) {
    throw SettingsError(e.what());
  } catch (const fs::filesystem_error& e) {
    throw SettingsError(e.what());
  }
  return CommandLine{std::move(settings), 0};
}

}  // namespace qvuserinfod
