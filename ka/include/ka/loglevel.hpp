#pragma once
// Severity of a log message, and the threshold a log category shows messages up to.

namespace ka {

// A category at level L shows every message whose level is in [Fatal, L]; Silent shows nothing.
enum class LogLevel : int {
  Silent = 0,
  Fatal = 1,
  Error = 2,
  Warning = 3,
  Info = 4,
  Verbose = 5,
  Debug = 6,
};

// One-letter tag used in log lines ("W" for Warning); "?" for a value outside the enum.
constexpr const char* logLevelLetter(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::Silent:
      return "S";
    case LogLevel::Fatal:
      return "F";
    case LogLevel::Error:
      return "E";
    case LogLevel::Warning:
      return "W";
    case LogLevel::Info:
      return "I";
    case LogLevel::Verbose:
      return "V";
    case LogLevel::Debug:
      return "D";
  }
  return "?";
}

// Lower-case name ("warning"); "?" for a value outside the enum.
constexpr const char* logLevelName(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::Silent:
      return "silent";
    case LogLevel::Fatal:
      return "fatal";
    case LogLevel::Error:
      return "error";
    case LogLevel::Warning:
      return "warning";
    case LogLevel::Info:
      return "info";
    case LogLevel::Verbose:
      return "verbose";
    case LogLevel::Debug:
      return "debug";
  }
  return "?";
}

}  // namespace ka
