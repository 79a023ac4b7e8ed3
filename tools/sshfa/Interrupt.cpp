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
// A stop that takes longer than this says so, and how to quit at once.
constexpr unsigned kQuietSeconds = 1;

volatile sig_atomic_t gPending = 0;
std::array<struct sigaction, kSignals.size()> gOld{};
struct sigaction gOldAlarm {};

extern "C" void noteInterrupt(int signalNumber) {
  if (gPending != 0) {
    ::signal(signalNumber, SIG_DFL);
    ::raise(signalNumber);
    return;
  }
  gPending = signalNumber;
  // Most stops are over at once; only one still under way is worth a word.
  ::alarm(kQuietSeconds);
}

extern "C" void noteSlowStop(int /*signalNumber*/) {
  static constexpr char kNotice[] = "\nsshfa: still stopping; a second Ctrl-C (or signal) quits at once\n";
  [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, kNotice, sizeof kNotice - 1);
}

void install(int signalNumber, void (*handler)(int), struct sigaction* old) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  ::sigaction(signalNumber, &action, old);
}

}  // namespace

Interrupted::Interrupted(int signalNumber)
    : std::runtime_error(std::string("interrupted by ") + (signalNumber == SIGINT   ? "SIGINT"
                                                           : signalNumber == SIGHUP ? "SIGHUP"
                                                                                    : "SIGTERM")),
      signal_(signalNumber) {}

InterruptGuard::InterruptGuard() {
  gPending = 0;
  install(SIGALRM, noteSlowStop, &gOldAlarm);
  for (std::size_t i = 0; i < kSignals.size(); ++i) install(kSignals[i], noteInterrupt, &gOld[i]);
}

InterruptGuard::~InterruptGuard() {
  for (std::size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &gOld[i], nullptr);
  ::alarm(0);
  ::sigaction(SIGALRM, &gOldAlarm, nullptr);
}

int pendingInterrupt() noexcept { return gPending; }

void throwIfInterrupted() {
  if (int const signalNumber = gPending; signalNumber != 0) throw Interrupted(signalNumber);
}

}  // namespace sshfa::cli
