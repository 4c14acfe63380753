#pragma once
// Runs a program as a child process for end-to-end tests: arguments and extra environment in,
// its stdout and stderr captured into strings by a reader thread each, with a time limit on
// every wait. A child still running when its handle goes is killed and reaped.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace e2e {

using Millis = std::chrono::milliseconds;

class Process {
 public:
  // Starts `program` with `args` (argv[0] is the program) and the test's environment plus
  // `env` (which overrides), in the directory `cwd` (empty: the test's own). Throws
  // std::runtime_error when it cannot be spawned.
  Process(const std::string& program, const std::vector<std::string>& args,
          const std::map<std::string, std::string>& env = {}, const std::string& cwd = "");
  // Kills the child (SIGKILL) if it still runs, reaps it and joins the readers.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }

  // The first complete stdout (or stderr) line starting with `prefix`, once it has arrived;
  // nullopt when the limit passes or that output ends first.
  enum class Output { Out, Err };
  std::optional<std::string> waitForLine(const std::string& prefix, Millis limit,
                                         Output from = Output::Out);
  void signal(int number);
  // The exit code (128 + signal number when a signal ended it), or nullopt when the child still
  // runs at the limit. Both outputs have then been read to their end.
  std::optional<int> waitExit(Millis limit);

  std::string out() const;
  std::string err() const;

 private:
  void readInto(int fd, std::string& into, bool& closed);

  pid_t pid_ = -1;
  std::optional<int> exitCode_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_: what each output delivered so far and whether it ended.
  std::string out_;
  std::string err_;
  bool outClosed_ = false;
  bool errClosed_ = false;
  std::thread outReader_;
  std::thread errReader_;
};

// Runs a program to its end within `limit` and answers its exit code and outputs.
struct Finished {
  int exitCode = -1;
  std::string out;
  std::string err;
};
Finished run(const std::string& program, const std::vector<std::string>& args, Millis limit,
             const std::map<std::string, std::string>& env = {}, const std::string& cwd = "");

// A fresh directory under the system's temporary directory, removed with what it holds.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix);
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path path;
};

}  // namespace e2e
