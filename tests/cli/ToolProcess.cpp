#include "tests/cli/ToolProcess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace sshfa::testing {
namespace {

void closeFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (auto& text : strings) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

std::string toolPath() {
  if (char const* installed = std::getenv("SSHFA_TOOL"); installed != nullptr && *installed != '\0') return installed;
  return SSHFA_BUILT_TOOL;
}

std::string examplesDirectory() {
  if (char const* built = std::getenv("SSHFA_EXAMPLES_DIR"); built != nullptr && *built != '\0') return built;
  return SSHFA_BUILT_EXAMPLES;
}

ToolProcess::ToolProcess(std::vector<std::string> const& args, ToolOptions options)
    : options_(std::move(options)), deadline_(std::chrono::steady_clock::now() + options_.timeout) {
  std::vector<std::string> argvStrings{options_.program.empty() ? toolPath() : options_.program};
  argvStrings.insert(argvStrings.end(), args.begin(), args.end());
  // The extra entries replace inherited ones of the same name.
  std::vector<std::string> envStrings = options_.environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string const inherited = *entry;
    std::string const name = inherited.substr(0, inherited.find('=') + 1);
    bool const replaced = std::any_of(options_.environment.begin(), options_.environment.end(),
                                      [&](std::string const& extra) { return extra.rfind(name, 0) == 0; });
    if (!replaced) envStrings.push_back(inherited);
  }
  std::vector<char*> argv = pointersTo(argvStrings);
  std::vector<char*> envp = pointersTo(envStrings);

  int inPipe[2];
  int outPipe[2];
  int errPipe[2];
  if (::pipe2(inPipe, O_CLOEXEC) != 0 || ::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  }
  int terminalSlave = -1;
  if (options_.terminal) {
    winsize size{};
    size.ws_row = 40;
    size.ws_col = 120;
    if (::openpty(&terminalFd_, &terminalSlave, nullptr, nullptr, &size) != 0) {
      throw std::runtime_error(std::string("openpty: ") + std::strerror(errno));
    }
    // Line feeds stay line feeds, so that the output compares as written.
    termios modes{};
    ::tcgetattr(terminalSlave, &modes);
    modes.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    ::tcsetattr(terminalSlave, TCSANOW, &modes);
    ::fcntl(terminalFd_, F_SETFD, FD_CLOEXEC);
    ::fcntl(terminalSlave, F_SETFD, FD_CLOEXEC);
  }

  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid_ == 0) {
    ::setsid();
    if (terminalSlave >= 0) {
      ::ioctl(terminalSlave, TIOCSCTTY, 0);
      ::dup2(terminalSlave, 1);
    } else {
      ::dup2(outPipe[1], 1);
    }
    ::dup2(inPipe[0], 0);
    ::dup2(errPipe[1], 2);
    if (!options_.workingDirectory.empty() && ::chdir(options_.workingDirectory.c_str()) != 0) ::_exit(127);
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  ::close(inPipe[0]);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  if (terminalSlave >= 0) {
    ::close(terminalSlave);
    ::close(outPipe[0]);
    outFd_ = terminalFd_;
  } else {
    outFd_ = outPipe[0];
  }
  errFd_ = errPipe[0];
  ::signal(SIGPIPE, SIG_IGN);
  if (!options_.input.empty()) {
    [[maybe_unused]] ssize_t const written = ::write(inPipe[1], options_.input.data(), options_.input.size());
  }
  ::close(inPipe[1]);
}

ToolProcess::~ToolProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  if (outFd_ != terminalFd_) closeFd(terminalFd_);
  closeFd(outFd_);
  closeFd(errFd_);
}

bool ToolProcess::pump(std::chrono::milliseconds wait) {
  pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
  if (outFd_ < 0 && errFd_ < 0) return false;
  int const ready = ::poll(fds, 2, static_cast<int>(wait.count()));
  if (ready <= 0) return true;
  for (int i = 0; i < 2; ++i) {
    if (fds[i].fd < 0 || fds[i].revents == 0) continue;
    char buffer[8192];
    ssize_t const n = ::read(fds[i].fd, buffer, sizeof buffer);
    if (n > 0) {
      (i == 0 ? result_.out : result_.err).append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      // A terminal reports EIO once its last user has gone.
      closeFd(i == 0 ? outFd_ : errFd_);
      if (i == 0) terminalFd_ = -1;
    }
  }
  return outFd_ >= 0 || errFd_ >= 0;
}

bool ToolProcess::waitForOutput(std::string const& text, std::chrono::seconds timeout) {
  auto const until = std::min(deadline_, std::chrono::steady_clock::now() + timeout);
  while (result_.out.find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= until || !pump(std::chrono::milliseconds(50))) {
      return result_.out.find(text) != std::string::npos;
    }
  }
  return true;
}

void ToolProcess::type(std::string const& text) const {
  if (terminalFd_ < 0) throw std::logic_error("no terminal to type on");
  [[maybe_unused]] ssize_t const written = ::write(terminalFd_, text.data(), text.size());
}

void ToolProcess::signal(int signalNumber) const { ::kill(pid_, signalNumber); }

ToolResult ToolProcess::finish() {
  while (std::chrono::steady_clock::now() < deadline_ && pump(std::chrono::milliseconds(100))) {
  }
  int status = 0;
  for (;;) {
    pid_t const reaped = ::waitpid(pid_, &status, WNOHANG);
    if (reaped == pid_) break;
    if (std::chrono::steady_clock::now() >= deadline_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      result_.err += "\n[killed by the test: timeout]";
      break;
    }
    pump(std::chrono::milliseconds(50));
  }
  pid_ = -1;
  result_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result_;
}

ToolResult runTool(std::vector<std::string> const& args, ToolOptions const& options) {
  ToolProcess process(args, options);
  return process.finish();
}

}  // namespace sshfa::testing
