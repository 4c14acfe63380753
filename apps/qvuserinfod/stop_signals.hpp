#pragma once
// SIGINT and SIGTERM as a request to stop, taken by one thread that waits for them: they are
// blocked in the thread that makes this object, and so in every thread it creates afterwards,
// so no other thread is ever interrupted by them.

namespace qvuserinfod {

class StopSignals {
 public:
  // Blocks SIGINT and SIGTERM in the calling thread; make it before any thread starts. Also
  // ignores SIGPIPE, so that a client gone mid-write is an error and not the end of the process.
  StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Waits until SIGINT or SIGTERM arrives; answers which.
  int wait() const;
};

}  // namespace qvuserinfod
