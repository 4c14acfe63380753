#pragma once
// A program run by a test: its stdout and stderr collected into strings by reader threads, waits
// on a line or on the exit with a time limit, signals. The destructor kills and reaps a program
// still running, so a failed test leaves nothing behind.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kaclitest {

class ChildProcess {
 public:
  // Starts `program` with `args` (argv[1]...), the environment of the test plus `env` (a value
  // replaces the variable; an empty value removes it), in the directory `cwd` when not empty.
  // Throws std::runtime_error when it cannot be started.
  ChildProcess(const std::string& program, const std::vector<std::string>& args,
               const std::map<std::string, std::string>& env = {}, const std::string& cwd = "");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The first complete stdout line starting with `prefix`, waiting up to `limit`.
  std::optional<std::string> waitForLine(const std::string& prefix,
                                         std::chrono::milliseconds limit);
  // Complete stdout lines so far.
  std::vector<std::string> lines() const;
  // The exit code (128 + n for a signal n), waiting up to `limit` for the program to close its
  // output and exit; nullopt on time out (the program is then killed).
  std::optional<int> waitExit(std::chrono::milliseconds limit);
  void signal(int sig);

  std::string out() const;
  std::string err() const;

 private:
  void readAll(int fd, std::string& into, bool& closed);

  pid_t _pid = -1;
  std::optional<int> _exitCode;
  mutable std::mutex _mutex;
  std::condition_variable _changed;
  std::string _out;         // guarded by _mutex
  std::string _err;         // guarded by _mutex
  bool _outClosed = false;  // guarded by _mutex
  bool _errClosed = false;  // guarded by _mutex
  std::thread _outReader;
  std::thread _errReader;
};

// Runs a program to its end (limit 30 s) and gives its exit code and output.
struct Finished {
  int code = -1;
  std::string out;
  std::string err;
};
Finished run(const std::string& program, const std::vector<std::string>& args,
             const std::map<std::string, std::string>& env = {}, const std::string& cwd = "");

}  // namespace kaclitest
