#include "tools/sshfa/Terminal.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

namespace sshfa::cli {
namespace {

// Read by the signal handler, hence plain globals.
int gTtyFd = -1;
termios gSavedTermios{};
volatile sig_atomic_t gEchoOff = 0;

extern "C" void restoreEchoAndDie(int signalNumber) {
  if (gEchoOff != 0) ::tcsetattr(gTtyFd, TCSAFLUSH, &gSavedTermios);
  ::signal(signalNumber, SIG_DFL);
  ::raise(signalNumber);
}

class Tty {
 public:
  Tty() : fd_(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)) {}
  ~Tty() {
    if (fd_ >= 0) ::close(fd_);
  }
  Tty(Tty const&) = delete;
  Tty& operator=(Tty const&) = delete;
  [[nodiscard]] int fd() const noexcept { return fd_; }

  void write(std::string const& text) const {
    std::size_t done = 0;
    while (done < text.size()) {
      ssize_t const n = ::write(fd_, text.data() + done, text.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      done += static_cast<std::size_t>(n);
    }
  }

 private:
  int fd_;
};

}  // namespace

bool canPrompt() { return Tty().fd() >= 0; }

std::optional<std::string> promptOnTerminal(std::string const& prompt, bool echo) {
  Tty tty;
  if (tty.fd() < 0) return std::nullopt;

  struct sigaction restore {};
  restore.sa_handler = restoreEchoAndDie;
  sigemptyset(&restore.sa_mask);
  struct sigaction oldInt {};
  struct sigaction oldTerm {};
  bool const hideInput = !echo && ::tcgetattr(tty.fd(), &gSavedTermios) == 0;
  if (hideInput) {
    gTtyFd = tty.fd();
    ::sigaction(SIGINT, &restore, &oldInt);
    ::sigaction(SIGTERM, &restore, &oldTerm);
    termios quiet = gSavedTermios;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    gEchoOff = 1;
    // Discards what was typed ahead; the prompt comes after, so that nothing
    // typed in answer to it is lost.
    ::tcsetattr(tty.fd(), TCSAFLUSH, &quiet);
  }
  tty.write(prompt);

  std::string line;
  bool complete = false;
  for (;;) {
    char c = 0;
    ssize_t const n = ::read(tty.fd(), &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (c == '\n') {
      complete = true;
      break;
    }
    line += c;
  }

  if (hideInput) {
    ::tcsetattr(tty.fd(), TCSAFLUSH, &gSavedTermios);
    gEchoOff = 0;
    ::sigaction(SIGINT, &oldInt, nullptr);
    ::sigaction(SIGTERM, &oldTerm, nullptr);
  }
  if (!complete && line.empty()) return std::nullopt;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

void tellTerminal(std::string const& text) {
  Tty const tty;
  if (tty.fd() >= 0) tty.write(text.empty() || text.back() != '\n' ? text + "\n" : text);
}

int terminalColumns(int fd) {
  winsize size{};
  if (::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

}  // namespace sshfa::cli
