#include "tools/sshfa/Interrupt.hpp"

#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace sshfa::cli {
namespace {

volatile sig_atomic_t gPending = 0;
struct sigaction gOldInt {};
struct sigaction gOldTerm {};

extern "C" void noteInterrupt(int signalNumber) {
  if (gPending != 0) {
    ::signal(signalNumber, SIG_DFL);
    ::raise(signalNumber);
    return;
  }
  gPending = signalNumber;
  static constexpr char kNotice[] = "\nsshfa: stopping after the current step (a second signal quits at once)\n";
  [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, kNotice, sizeof kNotice - 1);
}

}  // namespace

Interrupted::Interrupted(int signalNumber)
    : std::runtime_error(std::string("interrupted by ") + (signalNumber == SIGINT ? "SIGINT" : "SIGTERM")),
      signal_(signalNumber) {}

InterruptGuard::InterruptGuard() {
  gPending = 0;
  struct sigaction action {};
  action.sa_handler = noteInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGINT, &action, &gOldInt);
  ::sigaction(SIGTERM, &action, &gOldTerm);
}

InterruptGuard::~InterruptGuard() {
  ::sigaction(SIGINT, &gOldInt, nullptr);
  ::sigaction(SIGTERM, &gOldTerm, nullptr);
}

int pendingInterrupt() noexcept { return gPending; }

void throwIfInterrupted() {
  if (int const signalNumber = gPending; signalNumber != 0) throw Interrupted(signalNumber);
}

}  // namespace sshfa::cli
