#include "process_harness.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace e2e {
namespace {

// A pipe whose ends close on exec; the child gets its write end through dup2.
struct Pipe {
  int read = -1;
  int write = -1;
  Pipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
      throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    }
    read = fds[0];
    write = fds[1];
  }
};

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& extra) {
  std::vector<std::string> out;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry(*e);
    const auto name = entry.substr(0, entry.find('='));
    if (extra.find(name) == extra.end()) {
      out.push_back(entry);
    }
  }
  for (const auto& [name, value] : extra) {
    out.push_back(name + "=" + value);
  }
  return out;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> out;
  for (auto& t : texts) {
    out.push_back(t.data());
  }
  out.push_back(nullptr);
  return out;
}

}  // namespace

Process::Process(const std::string& program, const std::vector<std::string>& args,
                 const std::map<std::string, std::string>& env, const std::string& cwd) {
  Pipe out;
  Pipe err;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out.write, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err.write, STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (!cwd.empty()) {
    posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
  }
  // The child starts with no signal blocked, whatever the test's threads block.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);

  std::vector<std::string> argv{program};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<std::string> envp = environmentWith(env);
  auto argvPointers = pointers(argv);
  auto envPointers = pointers(envp);
  const int error = ::posix_spawn(&pid_, program.c_str(), &actions, &attributes,
                                  argvPointers.data(), envPointers.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(out.write);
  ::close(err.write);
  if (error != 0) {
    ::close(out.read);
    ::close(err.read);
    throw std::runtime_error("cannot start " + program + ": " + std::strerror(error));
  }
  outReader_ = std::thread([this, fd = out.read] { readInto(fd, out_, outClosed_); });
  errReader_ = std::thread([this, fd = err.read] { readInto(fd, err_, errClosed_); });
}

Process::~Process() {
  if (!exitCode_) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
  }
  // Both pipes end once the child is gone (unless it left a grandchild holding them: none of
  // the programs under test does).
  outReader_.join();
  errReader_.join();
}

void Process::readInto(int fd, std::string& into, bool& closed) {
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (n <= 0) {
      closed = true;
      changed_.notify_all();
      break;
    }
    into.append(buffer, static_cast<std::size_t>(n));
    changed_.notify_all();
  }
  ::close(fd);
}

std::optional<std::string> Process::waitForLine(const std::string& prefix, Millis limit,
                                                Output from) {
  std::unique_lock<std::mutex> lock(mutex_);
  const std::string& text = from == Output::Out ? out_ : err_;
  const bool& closed = from == Output::Out ? outClosed_ : errClosed_;
  std::optional<std::string> found;
  changed_.wait_for(lock, limit, [&] {
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
      if (text.compare(start, prefix.size(), prefix) == 0) {
        found = text.substr(start, end - start);
        return true;
      }
    }
    return closed;
  });
  return found;
}

void Process::signal(int number) {
  if (!exitCode_) {
    ::kill(pid_, number);
  }
}

std::optional<int> Process::waitExit(Millis limit) {
  if (exitCode_) {
    return exitCode_;
  }
  {
    // Both pipes end when the child exits (the programs under test neither close their outputs
    // early nor leave children holding them): that is the condition to wait on.
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, limit, [&] { return outClosed_ && errClosed_; })) {
      return std::nullopt;
    }
  }
  int status = 0;
  pid_t done;
  while ((done = ::waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
  }
  if (done != pid_) {
    throw std::runtime_error(std::string("waitpid: ") + std::strerror(errno));
  }
  exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return exitCode_;
}

std::string Process::out() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return out_;
}

std::string Process::err() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return err_;
}

Finished run(const std::string& program, const std::vector<std::string>& args, Millis limit,
             const std::map<std::string, std::string>& env, const std::string& cwd) {
  Process process(program, args, env, cwd);
  Finished finished;
  const auto code = process.waitExit(limit);
  finished.exitCode = code ? *code : -1;
  finished.out = process.out();
  finished.err = process.err();
  return finished;
}

namespace {

std::filesystem::path makeTempDir(const std::string& prefix) {
  std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed: " + std::string(std::strerror(errno)));
  }
  return pattern;
}

}  // namespace

TempDir::TempDir(const std::string& prefix) : path(makeTempDir(prefix)) {}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

}  // namespace e2e
