#pragma once
// A local OpenSSH sftp-server child process (or another program serving
// SFTP) spoken to over pipes: the transfer engine's server without any SSH in
// between. The "remote" side is this machine's file system, as seen by the
// child.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Transport.hpp"
#include "tests/support/PipedProcess.hpp"
#include "tests/support/SftpPackets.hpp"

namespace sshfa::testing {

class SftpServerProcess : public foundation::sshclient::internal::sftp::Transport {
 public:
  // `arguments` go to sftp-server (e.g. {"-u", "077"} or {"-P", "limits@openssh.com"}).
  explicit SftpServerProcess(std::vector<std::string> const& arguments = {}, int waitTimeoutMs = 20000)
      : SftpServerProcess(sftpServerPath(), arguments, waitTimeoutMs) {}

  // Another program that serves SFTP on its standard input and output.
  SftpServerProcess(std::string const& program, std::vector<std::string> const& arguments, int waitTimeoutMs = 20000)
      : waitTimeoutMs_(waitTimeoutMs) {
    // A write into the pipe of a killed server must fail, not end the test.
    ::signal(SIGPIPE, SIG_IGN);
    auto const child = startPiped(program, arguments);
    pid_ = child.pid;
    toServer_ = child.input;
    fromServer_ = child.output;
    ::fcntl(toServer_, F_SETFL, O_NONBLOCK);
    ::fcntl(fromServer_, F_SETFL, O_NONBLOCK);
  }

  ~SftpServerProcess() override {
    ::close(toServer_);
    ::close(fromServer_);
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }

  SftpServerProcess(SftpServerProcess const&) = delete;
  SftpServerProcess& operator=(SftpServerProcess const&) = delete;

  void kill() const { ::kill(pid_, SIGKILL); }
  void stop() const { ::kill(pid_, SIGSTOP); }

  std::size_t send(std::span<std::uint8_t const> data) override {
    auto const n = ::write(toServer_, data.data(), data.size());
    if (n >= 0) return static_cast<std::size_t>(n);
    if (errno == EAGAIN || errno == EINTR) return 0;
    lost();
  }

  std::size_t receive(std::span<std::uint8_t> buffer) override {
    auto const n = ::read(fromServer_, buffer.data(), buffer.size());
    if (n > 0) return static_cast<std::size_t>(n);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
    lost();
  }

  void wait(bool wantSend) override {
    pollfd fds[2] = {{fromServer_, POLLIN, 0}, {toServer_, POLLOUT, 0}};
    int const n = ::poll(fds, wantSend ? 2 : 1, waitTimeoutMs_);
    if (n == 0) {
      throw foundation::sshclient::SSHError(foundation::sshclient::SSHError::Kind::ConnectionLost,
                                            "tester@local:0: the server did not answer");
    }
  }

 private:
  [[noreturn]] static void lost() {
    throw foundation::sshclient::SSHError(foundation::sshclient::SSHError::Kind::ConnectionLost,
                                          "tester@local:0: connection lost");
  }

  pid_t pid_ = -1;
  int toServer_ = -1;
  int fromServer_ = -1;
  int waitTimeoutMs_;
};

}  // namespace sshfa::testing
