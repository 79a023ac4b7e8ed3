#include "tools/sshfa/Interrupt.hpp"

#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

namespace sshfa::cli {
namespace {

// A closed terminal (SIGHUP) is as much a request to stop as Ctrl-C.
constexpr std::array<int, 3> kSignals = {SIGINT, SIGTERM, SIGHUP};

volatile sig_atomic_t gPending = 0;
std::array<struct sigaction, kSignals.size()> gOld{};

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
    : std::runtime_error(std::string("interrupted by ") + (signalNumber == SIGINT   ? "SIGINT"
                                                           : signalNumber == SIGHUP ? "SIGHUP"
                                                                                    : "SIGTERM")),
      signal_(signalNumber) {}

InterruptGuard::InterruptGuard() {
  gPending = 0;
  struct sigaction action {};
  action.sa_handler = noteInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (std::size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &action, &gOld[i]);
}

InterruptGuard::~InterruptGuard() {
  for (std::size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &gOld[i], nullptr);
}

int pendingInterrupt() noexcept { return gPending; }

void throwIfInterrupted() {
  if (int const signalNumber = gPending; signalNumber != 0) throw Interrupted(signalNumber);
}

}  // namespace sshfa::cli
