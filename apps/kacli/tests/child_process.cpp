#include "child_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace kaclitest {
namespace {

// A pipe whose ends close on destruction unless released.
struct Pipe {
  int fds[2] = {-1, -1};
  Pipe() {
    if (::pipe2(fds, O_CLOEXEC) != 0) {
      throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    }
  }
  ~Pipe() {
    for (int fd : fds) {
      if (fd >= 0) {
        ::close(fd);
      }
    }
  }
  int release(int end) {
    const int fd = fds[end];
    fds[end] = -1;
    return fd;
  }
};

// RAII for the spawn attribute objects.
struct FileActions {
  posix_spawn_file_actions_t actions;
  FileActions() { posix_spawn_file_actions_init(&actions); }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions); }
};

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::map<std::string, std::string>& env, const std::string& cwd) {
  std::map<std::string, std::string> environment;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry(*e);
    const auto eq = entry.find('=');
    environment[entry.substr(0, eq)] = eq == std::string::npos ? "" : entry.substr(eq + 1);
  }
  for (const auto& [name, value] : env) {
    if (value.empty()) {
      environment.erase(name);
    } else {
      environment[name] = value;
    }
  }
  std::vector<std::string> envTexts;
  for (const auto& [name, value] : environment) {
    envTexts.push_back(name + "=" + value);
  }
  std::vector<char*> envp;
  for (auto& text : envTexts) {
    envp.push_back(text.data());
  }
  envp.push_back(nullptr);
  std::vector<std::string> argTexts{program};
  argTexts.insert(argTexts.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& text : argTexts) {
    argv.push_back(text.data());
  }
  argv.push_back(nullptr);

  Pipe out;
  Pipe err;
  FileActions files;
  posix_spawn_file_actions_adddup2(&files.actions, out.fds[1], 1);
  posix_spawn_file_actions_adddup2(&files.actions, err.fds[1], 2);
  posix_spawn_file_actions_addopen(&files.actions, 0, "/dev/null", O_RDONLY, 0);
  if (!cwd.empty()) {
    // The shell runs the program from `cwd`: posix_spawn has no portable chdir action.
    argTexts.insert(argTexts.begin(), {"/bin/sh", "-c", "cd \"$0\" && exec \"$@\"", cwd});
    argv.clear();
    for (auto& text : argTexts) {
      argv.push_back(text.data());
    }
    argv.push_back(nullptr);
  }
  const int rc = ::posix_spawn(&_pid, argv[0], &files.actions, nullptr, argv.data(), envp.data());
  if (rc != 0) {
    throw std::runtime_error("cannot start " + program + ": " + std::strerror(rc));
  }
  ::close(out.release(1));
  ::close(err.release(1));
  const int outFd = out.release(0);
  const int errFd = err.release(0);
  _outReader = std::thread([this, outFd] { readAll(outFd, _out, _outClosed); });
  _errReader = std::thread([this, errFd] { readAll(errFd, _err, _errClosed); });
}

ChildProcess::~ChildProcess() {
  if (!_exitCode) {
    ::kill(_pid, SIGKILL);
    int status = 0;
    ::waitpid(_pid, &status, 0);
  }
  _outReader.join();
  _errReader.join();
}

void ChildProcess::readAll(int fd, std::string& into, bool& closed) {
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    std::lock_guard<std::mutex> lock(_mutex);
    if (n <= 0) {
      closed = true;
      _changed.notify_all();
      break;
    }
    into.append(buffer, static_cast<std::size_t>(n));
    _changed.notify_all();
  }
  ::close(fd);
}

std::optional<std::string> ChildProcess::waitForLine(const std::string& prefix,
                                                     std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(_mutex);
  std::optional<std::string> found;
  _changed.wait_for(lock, limit, [&] {
    std::size_t start = 0;
    for (auto end = _out.find('\n'); end != std::string::npos; end = _out.find('\n', start)) {
      const std::string line = _out.substr(start, end - start);
      if (line.compare(0, prefix.size(), prefix) == 0) {
        found = line;
        return true;
      }
      start = end + 1;
    }
    return _outClosed;
  });
  return found;
}

std::vector<std::string> ChildProcess::lines() const {
  std::lock_guard<std::mutex> lock(_mutex);
  std::vector<std::string> result;
  std::size_t start = 0;
  for (auto end = _out.find('\n'); end != std::string::npos; end = _out.find('\n', start)) {
    result.push_back(_out.substr(start, end - start));
    start = end + 1;
  }
  return result;
}

std::optional<int> ChildProcess::waitExit(std::chrono::milliseconds limit) {
  if (_exitCode) {
    return _exitCode;
  }
  {
    // A program that exits closes its output; waiting on that keeps the wait bounded.
    std::unique_lock<std::mutex> lock(_mutex);
    if (!_changed.wait_for(lock, limit, [&] { return _outClosed && _errClosed; })) {
      return std::nullopt;
    }
  }
  int status = 0;
  while (::waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
  }
  _exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return _exitCode;
}

void ChildProcess::signal(int sig) {
  if (!_exitCode) {
    ::kill(_pid, sig);
  }
}

std::string ChildProcess::out() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _out;
}

std::string ChildProcess::err() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _err;
}

Finished run(const std::string& program, const std::vector<std::string>& args,
             const std::map<std::string, std::string>& env, const std::string& cwd) {
  ChildProcess child(program, args, env, cwd);
  Finished result;
  const auto code = child.waitExit(std::chrono::seconds(30));
  result.code = code ? *code : -1;
  result.out = child.out();
  result.err = child.err();
  return result;
}

}  // namespace kaclitest
