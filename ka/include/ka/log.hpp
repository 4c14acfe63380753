#pragma once
// ka::log: categorised, thread-safe logging for the middleware and the services built on it.
// Each category has its own level; messages are composed only when their category shows them,
// and are delivered to the default stderr handler and to any registered handlers.

#include <ka/api.hpp>
#include <ka/loglevel.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <utility>

namespace ka {
namespace log {

namespace detail {
class Registry;

// Lets only the registry construct categories, while still going through std::make_unique.
class KA_API CategoryKey {
  friend class Registry;
  CategoryKey() {}
};
}  // namespace detail

// Level of every category no rule covers.
inline constexpr LogLevel kDefaultVerbosity = LogLevel::Info;

// A named log category. Created only by addCategory(), never destroyed: a CategoryPtr stays
// valid for the whole process, including static destructors.
class KA_API Category {
 public:
  Category(detail::CategoryKey, std::string name, LogLevel level)
      : name_(std::move(name)), level_(static_cast<int>(level)) {}
  Category(const Category&) = delete;
  Category& operator=(const Category&) = delete;

  const std::string& name() const noexcept { return name_; }
  LogLevel level() const noexcept {
    return static_cast<LogLevel>(level_.load(std::memory_order_relaxed));
  }
  bool isVisible(LogLevel level) const noexcept {
    const int l = static_cast<int>(level);
    return l > static_cast<int>(LogLevel::Silent) && l <= level_.load(std::memory_order_relaxed);
  }

 private:
  friend class detail::Registry;

  const std::string name_;
  // Written by the verbosity rules under the registry's lock, read lock-free on every log call.
  std::atomic<int> level_;
};

using CategoryPtr = const Category*;

// Registers `name` (or finds it): the same name always gives the same handle.
KA_API CategoryPtr addCategory(const std::string& name);

// Whether a message of `level` in `category` would be shown. `category` must not be null.
inline bool isVisible(CategoryPtr category, LogLevel level) noexcept {
  return category->isVisible(level);
}
// Registers the category if it is unknown.
KA_API bool isVisible(const std::string& category, LogLevel level);

// Emits a message; dropped without calling any handler when the category does not show `level`.
// `file` and `function` may be null or empty; `line` 0 means no source position.
KA_API void log(LogLevel level, CategoryPtr category, const std::string& message, const char* file,
                const char* function, int line);
KA_API void log(LogLevel level, const std::string& category, const std::string& message,
                const char* file, const char* function, int line);

// Verbosity rules. A pattern is an exact category name, or a prefix followed by '*' ("QVUser*");
// "*" alone matches every category. Rules apply in the order they were set, the latest matching
// rule winning, to existing categories and to those registered later.
KA_API void setVerbosity(LogLevel level);  // same as setVerbosity("*", level)
KA_API void setVerbosity(const std::string& pattern, LogLevel level);
// Drops every rule: all categories back to kDefaultVerbosity.
KA_API void resetVerbosity();
// The effective level of a category (computed from the rules if it is not registered yet).
KA_API LogLevel verbosity(const std::string& category);
inline LogLevel verbosity(CategoryPtr category) noexcept {
  return category->level();
}

// One emitted message, as handlers receive it.
struct KA_API Message {
  LogLevel level = LogLevel::Info;
  std::string category;
  std::string message;
  std::string file;      // empty when unknown
  std::string function;  // empty when unknown
  int line = 0;          // 0 when unknown
  std::chrono::system_clock::time_point date;
};

// The default handler's line, without the newline:
// "2026-11-22 03:10:00.123 W QVUserInfo xCheckUser: User 7 does not exist" (local time; the
// function and its space are left out when unknown).
KA_API std::string format(const Message& message);

// Handlers are called on the thread that logs, possibly on several threads at once; they must be
// thread-safe. A message logged from inside a handler is not dispatched again: it is written
// straight to stderr, so handlers may log without recursing or deadlocking.
using Handler = std::function<void(const Message&)>;
using HandlerId = std::uint64_t;  // 0 is never a valid id

KA_API HandlerId addHandler(Handler handler);
// Once this returns, `id` is never called again and no call of it is running on any thread, and
// the handler has been destroyed. The one exception is a handler removing itself: its current
// call finishes after this returns. Unknown ids are ignored.
KA_API void removeHandler(HandlerId id);

// Whether messages also go to the built-in stderr handler (on by default).
KA_API void setDefaultHandlerEnabled(bool enabled);
KA_API bool isDefaultHandlerEnabled();

// Owns a handler registration: removes it (with removeHandler's guarantees) when destroyed.
// (nodiscard sits on a separate declaration: GCC rejects it next to KA_API.)
class [[nodiscard]] ScopedHandler;
class KA_API ScopedHandler {
 public:
  ScopedHandler() = default;
  explicit ScopedHandler(Handler handler);
  ScopedHandler(ScopedHandler&& other) noexcept;
  ScopedHandler& operator=(ScopedHandler&& other) noexcept;
  ScopedHandler(const ScopedHandler&) = delete;
  ScopedHandler& operator=(const ScopedHandler&) = delete;
  ~ScopedHandler();

  HandlerId id() const noexcept { return id_; }
  void reset();  // removes the handler now

 private:
  HandlerId id_ = 0;
};

namespace detail {

inline CategoryPtr resolve(CategoryPtr category) noexcept {
  return category;
}
inline CategoryPtr resolve(const std::string& name) {
  return addCategory(name);
}
inline CategoryPtr resolve(const char* name) {
  return addCategory(name);
}

// Where a log macro was expanded: evaluated once, before deciding whether to compose anything.
struct KA_API Site {
  LogLevel level;
  CategoryPtr category;
  bool visible() const noexcept { return category->isVisible(level); }
};

// Collects one message from operator<< and emits it when the full expression ends.
class KA_API LogStream {
 public:
  LogStream(const Site& site, const char* file, const char* function, int line);
  LogStream(const Site& site, const char* file, const std::string& function, int line);
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;
  ~LogStream();

  std::ostream& stream() { return stream_; }

 private:
  Site site_;
  const char* file_;
  const char* function_;  // outlives us: a literal, or a temporary of the same full expression
  int line_;
  std::ostringstream stream_;
};

}  // namespace detail
}  // namespace log
}  // namespace ka

// `if (!visible) {} else stream`: the streamed operands are not evaluated at all when the message
// would be dropped, and a trailing `else` of the caller still binds to the caller's `if`.
#define KA_LOG_DETAIL_STREAM(level, category, file, function, line)                            \
  if (const ::ka::log::detail::Site kaLogSite_{(level), ::ka::log::detail::resolve(category)}; \
      !kaLogSite_.visible()) {                                                                 \
  } else                                                                                       \
    ::ka::log::detail::LogStream(kaLogSite_, (file), (function), (line)).stream()

// `category` is a CategoryPtr or a name. Usage: KA_LOG_WARNING(cat) << "user " << id;
#define KA_LOG_FATAL(category) \
  KA_LOG_DETAIL_STREAM(::ka::LogLevel::Fatal, category, __FILE__, __func__, __LINE__)
#define KA_LOG_ERROR(category) \
  KA_LOG_DETAIL_STREAM(::ka::LogLevel::Error, category, __FILE__, __func__, __LINE__)
#define KA_LOG_WARNING(category) \
  KA_LOG_DETAIL_STREAM(::ka::LogLevel::Warning, category, __FILE__, __func__, __LINE__)
#define KA_LOG_INFO(category) \
  KA_LOG_DETAIL_STREAM(::ka::LogLevel::Info, category, __FILE__, __func__, __LINE__)
#define KA_LOG_VERBOSE(category) \
  KA_LOG_DETAIL_STREAM(::ka::LogLevel::Verbose, category, __FILE__, __func__, __LINE__)
#define KA_LOG_DEBUG(category) \
  KA_LOG_DETAIL_STREAM(::ka::LogLevel::Debug, category, __FILE__, __func__, __LINE__)

// Explicit function context (a const char* or std::string), no source file, line 0.
#define KA_LOG_AT(level, category, function) KA_LOG_DETAIL_STREAM(level, category, "", function, 0)
