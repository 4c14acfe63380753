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
  constexpr const char* kLetters[] = {"S", "F", "E", "W", "I", "V", "D"};
  const int index = static_cast<int>(level);
  return index >= 0 && index <= static_cast<int>(LogLevel::Debug) ? kLetters[index] : "?";
}

}  // namespace ka
