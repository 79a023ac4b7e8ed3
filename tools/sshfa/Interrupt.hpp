#pragma once
// Ctrl-C, SIGTERM and SIGHUP for work that must clean up after itself
// (transfers, exec, the demo). While an InterruptGuard lives, the first one
// only sets a flag that the work polls (throwIfInterrupted); a second one
// ends the process at once, for the case that the work is stuck. A stop
// still under way a second after the first signal says so on standard error
// (SIGALRM), and how to quit at once; most are over before. Outside a guard
// the signals keep their default action. One guard at a time.

#include <stdexcept>

namespace sshfa::cli {

class Interrupted : public std::runtime_error {
 public:
  explicit Interrupted(int signalNumber);
  [[nodiscard]] int signalNumber() const noexcept { return signal_; }

 private:
  int signal_;
};

class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(InterruptGuard const&) = delete;
  InterruptGuard& operator=(InterruptGuard const&) = delete;
};

// The signal received under the current guard, or 0.
int pendingInterrupt() noexcept;
void throwIfInterrupted();

}  // namespace sshfa::cli
