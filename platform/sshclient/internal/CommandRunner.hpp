#pragma once
// How SSHClient::executeCommand runs one command line on a session: the
// strategies (an exec channel per command, a persistent shell) implement this.

#include <string>

namespace foundation::sshclient::internal {

struct CommandOutput {
  int exitStatus = 0;  // 128 + N for a command killed by signal N
  std::string out;     // raw bytes
  std::string err;
};

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  // Runs `command` (UTF-8) with POSIX sh semantics, whatever the login shell.
  // Throws SSHError.
  virtual CommandOutput run(std::string const& command) = 0;

 protected:
  CommandRunner() = default;
  CommandRunner(CommandRunner const&) = default;
  CommandRunner& operator=(CommandRunner const&) = default;
};

}  // namespace foundation::sshclient::internal
