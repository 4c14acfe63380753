#include "ka/log.hpp"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <exception>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ka {
namespace log {
namespace detail {

namespace {

// A verbosity rule: an exact name, or a prefix when `prefix` is set ("" then matches all).
struct Rule {
  std::string text;
  bool prefix;
  LogLevel level;

  bool matches(const std::string& name) const {
    return prefix ? name.compare(0, text.size(), text) == 0 : name == text;
  }
};

Rule parseRule(const std::string& pattern, LogLevel level) {
  if (!pattern.empty() && pattern.back() == '*') {
    return Rule{pattern.substr(0, pattern.size() - 1), true, level};
  }
  return Rule{pattern, false, level};
}

// One registered handler, shared with the dispatch snapshots that may still reference it.
struct HandlerSlot {
  HandlerSlot(HandlerId i, Handler h) : id(i), handler(std::move(h)) {}

  const HandlerId id;
  // Called without any lock; reset by removeHandler only once no call is running.
  Handler handler;
  std::mutex mutex;              // guards removed, running
  std::condition_variable idle;  // signalled when running drops after removal
  bool removed = false;
  int running = 0;
};

using HandlerList = std::vector<std::shared_ptr<HandlerSlot>>;

// Set while this thread runs handlers: a message logged then goes straight to stderr.
thread_local bool tDispatching = false;
// The handler this thread is running, so that a handler removing itself does not wait for itself.
thread_local const HandlerSlot* tCurrentSlot = nullptr;

void writeLine(const Message& message) {
  std::string line = format(message);
  line += '\n';
  // One call per line: stdio locks the stream, so lines from several threads do not interleave.
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void reportHandlerFailure(const char* what) {
  std::fprintf(stderr, "ka::log: a log handler threw: %s\n", what);
}

}  // namespace

// Holds the categories, the verbosity rules and the handlers of the process.
class Registry {
 public:
  static Registry& instance() {
    // Intentionally immortal: never destroyed, so logging from static destructors and from
    // threads still running at exit cannot reach a dead registry.
    static Registry* const registry = new Registry;
    return *registry;
  }

  CategoryPtr addCategory(const std::string& name) {
    {
      std::shared_lock<std::shared_mutex> lock(categoriesMutex_);
      const auto it = categories_.find(name);
      if (it != categories_.end()) {
        return it->second.get();
      }
    }
    std::unique_lock<std::shared_mutex> lock(categoriesMutex_);
    auto& slot = categories_[name];
    if (!slot) {
      slot = std::make_unique<Category>(CategoryKey(), name, levelFromRules(name));
    }
    return slot.get();
  }

  void setVerbosity(const std::string& pattern, LogLevel level) {
    Rule rule = parseRule(pattern, level);
    std::unique_lock<std::shared_mutex> lock(categoriesMutex_);
    // The new rule overrides whatever it matches, so an earlier rule with the same pattern (or
    // every rule, for "*") can never win again: drop it to keep the list short.
    if (rule.prefix && rule.text.empty()) {
      rules_.clear();
    } else {
      rules_.erase(std::remove_if(rules_.begin(), rules_.end(),
                                  [&](const Rule& r) {
                                    return r.prefix == rule.prefix && r.text == rule.text;
                                  }),
                   rules_.end());
    }
    for (auto& [name, category] : categories_) {
      if (rule.matches(name)) {
        category->level_.store(static_cast<int>(level), std::memory_order_relaxed);
      }
    }
    rules_.push_back(std::move(rule));
  }

  void resetVerbosity() {
    std::unique_lock<std::shared_mutex> lock(categoriesMutex_);
    rules_.clear();
    for (auto& entry : categories_) {
      entry.second->level_.store(static_cast<int>(kDefaultVerbosity), std::memory_order_relaxed);
    }
  }

  LogLevel verbosity(const std::string& name) {
    std::shared_lock<std::shared_mutex> lock(categoriesMutex_);
    const auto it = categories_.find(name);
    return it != categories_.end() ? it->second->level() : levelFromRules(name);
  }

  HandlerId addHandler(Handler handler) {
    std::lock_guard<std::mutex> lock(handlersMutex_);
    const HandlerId id = nextHandlerId_++;
    auto list = std::make_shared<HandlerList>(*handlers_);
    list->push_back(std::make_shared<HandlerSlot>(id, std::move(handler)));
    handlers_ = std::move(list);
    return id;
  }

  void removeHandler(HandlerId id) {
    std::shared_ptr<HandlerSlot> slot;
    {
      std::lock_guard<std::mutex> lock(handlersMutex_);
      auto list = std::make_shared<HandlerList>(*handlers_);
      const auto it =
          std::find_if(list->begin(), list->end(), [id](const auto& s) { return s->id == id; });
      if (it == list->end()) {
        return;
      }
      slot = *it;
      list->erase(it);
      handlers_ = std::move(list);
    }
    Handler doomed;
    {
      std::unique_lock<std::mutex> lock(slot->mutex);
      slot->removed = true;
      const int ownCalls = tCurrentSlot == slot.get() ? 1 : 0;
      slot->idle.wait(lock, [&] { return slot->running == ownCalls; });
      if (ownCalls == 0) {
        doomed = std::move(slot->handler);
      }
    }
    // `doomed` (and whatever it captured) dies here, on the caller's thread, outside any lock.
  }

  void setDefaultHandlerEnabled(bool enabled) {
    defaultHandlerEnabled_.store(enabled, std::memory_order_relaxed);
  }
  bool isDefaultHandlerEnabled() const {
    return defaultHandlerEnabled_.load(std::memory_order_relaxed);
  }

  void dispatch(const Message& message) {
    if (tDispatching) {
      writeLine(message);
      return;
    }
    tDispatching = true;
    struct Reset {
      ~Reset() { tDispatching = false; }
    } reset;

    if (isDefaultHandlerEnabled()) {
      writeLine(message);
    }
    std::shared_ptr<const HandlerList> handlers;
    {
      std::lock_guard<std::mutex> lock(handlersMutex_);
      handlers = handlers_;
    }
    for (const auto& slot : *handlers) {
      call(*slot, message);
    }
  }

 private:
  Registry() : handlers_(std::make_shared<HandlerList>()) {}

  // Caller holds categoriesMutex_ (shared or exclusive).
  LogLevel levelFromRules(const std::string& name) const {
    LogLevel level = kDefaultVerbosity;
    for (const Rule& rule : rules_) {
      if (rule.matches(name)) {
        level = rule.level;
      }
    }
    return level;
  }

  static void call(HandlerSlot& slot, const Message& message) {
    {
      std::lock_guard<std::mutex> lock(slot.mutex);
      if (slot.removed) {
        return;
      }
      ++slot.running;
    }
    tCurrentSlot = &slot;
    try {
      slot.handler(message);
    } catch (const std::exception& e) {
      reportHandlerFailure(e.what());
    } catch (...) {
      reportHandlerFailure("unknown exception");
    }
    tCurrentSlot = nullptr;
    std::lock_guard<std::mutex> lock(slot.mutex);
    --slot.running;
    if (slot.removed) {
      slot.idle.notify_all();
    }
  }

  std::shared_mutex categoriesMutex_;  // guards categories_, rules_
  std::unordered_map<std::string, std::unique_ptr<Category>> categories_;
  std::vector<Rule> rules_;  // in the order they were set

  std::mutex handlersMutex_;  // guards handlers_, nextHandlerId_
  // Copy-on-write, so dispatch holds the lock only to take a snapshot.
  std::shared_ptr<const HandlerList> handlers_;
  HandlerId nextHandlerId_ = 1;

  std::atomic<bool> defaultHandlerEnabled_{true};
};

LogStream::LogStream(const Site& site, const char* file, const char* function, int line)
    : site_(site), file_(file), function_(function), line_(line) {}

LogStream::LogStream(const Site& site, const char* file, const std::string& function, int line)
    : LogStream(site, file, function.c_str(), line) {}

LogStream::~LogStream() {
  try {
    log::log(site_.level, site_.category, stream_.str(), file_, function_, line_);
  } catch (...) {
    // A destructor must not throw; losing one message under memory exhaustion is acceptable.
  }
}

}  // namespace detail

CategoryPtr addCategory(const std::string& name) {
  return detail::Registry::instance().addCategory(name);
}

bool isVisible(const std::string& category, LogLevel level) {
  return addCategory(category)->isVisible(level);
}

void log(LogLevel level, CategoryPtr category, const std::string& message, const char* file,
         const char* function, int line) {
  if (!category->isVisible(level)) {
    return;
  }
  Message m;
  m.level = level;
  m.category = category->name();
  m.message = message;
  m.file = file ? file : "";
  m.function = function ? function : "";
  m.line = line;
  m.date = std::chrono::system_clock::now();
  detail::Registry::instance().dispatch(m);
}

void log(LogLevel level, const std::string& category, const std::string& message, const char* file,
         const char* function, int line) {
  log(level, addCategory(category), message, file, function, line);
}

void setVerbosity(LogLevel level) {
  detail::Registry::instance().setVerbosity("*", level);
}

void setVerbosity(const std::string& pattern, LogLevel level) {
  detail::Registry::instance().setVerbosity(pattern, level);
}

void resetVerbosity() {
  detail::Registry::instance().resetVerbosity();
}

LogLevel verbosity(const std::string& category) {
  return detail::Registry::instance().verbosity(category);
}

std::string format(const Message& message) {
  using namespace std::chrono;
  const auto seconds = floor<std::chrono::seconds>(message.date);
  const auto millis = duration_cast<milliseconds>(message.date - seconds).count();
  const std::time_t t = system_clock::to_time_t(seconds);
  std::tm tm{};
  localtime_r(&t, &tm);
  char date[40];
  const std::size_t n = std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &tm);
  std::snprintf(date + n, sizeof date - n, ".%03d", static_cast<int>(millis));

  std::string line = date;
  line += ' ';
  line += logLevelLetter(message.level);
  line += ' ';
  line += message.category;
  if (!message.function.empty()) {
    line += ' ';
    line += message.function;
  }
  line += ": ";
  line += message.message;
  return line;
}

HandlerId addHandler(Handler handler) {
  return detail::Registry::instance().addHandler(std::move(handler));
}

void removeHandler(HandlerId id) {
  detail::Registry::instance().removeHandler(id);
}

void setDefaultHandlerEnabled(bool enabled) {
  detail::Registry::instance().setDefaultHandlerEnabled(enabled);
}

bool isDefaultHandlerEnabled() {
  return detail::Registry::instance().isDefaultHandlerEnabled();
}

ScopedHandler::ScopedHandler(Handler handler) : id_(addHandler(std::move(handler))) {}

ScopedHandler::ScopedHandler(ScopedHandler&& other) noexcept : id_(std::exchange(other.id_, 0)) {}

ScopedHandler& ScopedHandler::operator=(ScopedHandler&& other) noexcept {
  if (this != &other) {
    reset();
    id_ = std::exchange(other.id_, 0);
  }
  return *this;
}

ScopedHandler::~ScopedHandler() {
  reset();
}

void ScopedHandler::reset() {
  if (id_ != 0) {
    removeHandler(std::exchange(id_, 0));
  }
}

}  // namespace log
}  // namespace ka
