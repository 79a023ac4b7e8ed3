#pragma once
// Runs each command on its own exec channel.
//
// The server is asked to run a fixed line, kExecWrapper, which reads the
// command text from the channel's standard input and evaluates it with sh.
// So the text is never a command-line argument (Linux limits one argument to
// 128 KiB, and sshd hands the whole line to the login shell as one), the
// login shell (csh, fish, ...) only ever parses the fixed line, and the
// command's own standard input is /dev/null.

#include "sshfileaccess/platform/sshclient/internal/CommandRunner.hpp"
#include "sshfileaccess/platform/sshclient/internal/Session.hpp"

namespace foundation::sshclient::internal {

// Parsed identically by sh, bash, csh, tcsh and fish.
inline constexpr char const* kExecWrapper = "exec sh -c 'eval \"$(cat)\" </dev/null'";

class ExecChannelRunner final : public CommandRunner {
 public:
  explicit ExecChannelRunner(Session& session) : session_(session) {}
  CommandOutput run(std::string const& command) override;

 private:
  Session& session_;
};

}  // namespace foundation::sshclient::internal
