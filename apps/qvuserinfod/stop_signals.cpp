#include "stop_signals.hpp"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace qvuserinfod {
namespace {

sigset_t stopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

}  // namespace

StopSignals::StopSignals() {
  const sigset_t set = stopSet();
  if (const int error = ::pthread_sigmask(SIG_BLOCK, &set, nullptr); error != 0) {
    throw std::runtime_error(std::string("cannot block the stop signals: ") + std::strerror(error));
  }
  ::signal(SIGPIPE, SIG_IGN);
}

int StopSignals::wait() const {
  const sigset_t set = stopSet();
  for (;;) {
    int signal = 0;
    const int error = ::sigwait(&set, &signal);
    if (error == 0) {
      return signal;
    }
    if (error != EINTR) {
      throw std::runtime_error(std::string("cannot wait for a stop signal: ") +
                               std::strerror(error));
    }
  }
}

}  // namespace qvuserinfod
