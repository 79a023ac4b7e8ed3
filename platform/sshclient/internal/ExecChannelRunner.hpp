#pragma once
// Runs each command on its own exec channel.
//
// The server is asked to run a fixed line, execWrapper(), which reads the
// command text from the channel's standard input and evaluates it with sh.
// So the text is never a command-line argument (Linux limits one argument to
// 128 KiB, and sshd hands the whole line to the login shell as one), the
// login shell (csh, fish, ...) only ever parses the fixed line, and the
// command's own standard input is /dev/null.
//
// Before it evaluates the text, that sh writes the session's random marker
// line on both streams; what arrives in front of it (a banner or a warning
// from a login script) is the login's, not the command's, and is dropped.
// A channel that ends without the marker on standard output was answered by
// something other than a shell (an account limited to SFTP says so in a
// line of text and closes): the command did not run, and the session has no
// shell (Session::failNoShell). A refused request means the same, and so
// do SFTP bytes in place of the marker.

#include "sshfileaccess/platform/sshclient/internal/CommandRunner.hpp"
#include "sshfileaccess/platform/sshclient/internal/Session.hpp"

namespace foundation::sshclient::internal {

// The line for the session whose marker is `marker` (a plain word); parsed
// identically by sh, bash, csh, tcsh and fish. The marker is printed in two
// pieces, so that a login that echoes the line does not print it.
std::string execWrapper(std::string_view marker);

// The same for a command whose standard input is the channel's: the command
// text comes first, as one line in which every backslash and line feed is
// written as a printf %b escape; what follows the line is the command's.
// After the marker line, standard output starts with a line holding the
// process id of that sh, which leads the session's process group.
std::string streamingWrapper(std::string_view marker);
// That line for `command`.
std::string streamingCommandLine(std::string_view command);

class ExecChannelRunner final : public CommandRunner {
 public:
  explicit ExecChannelRunner(Session& session);
  CommandOutput run(std::string const& command) override;
  void probe() override;

 private:
  Session& session_;
  std::string marker_;
  std::string wrapper_;
};

}  // namespace foundation::sshclient::internal
