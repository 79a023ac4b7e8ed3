#pragma once
// Runs every command inside one long-lived sh on its own channel, opened on
// first use, and returns what an exec channel would have returned for it.
//
// The channel runs "exec sh", whose script arrives on its standard input: a
// start-up part, then one line per command. Each line evaluates the command
// text in a subshell the way ExecChannelRunner's wrapper does
// (eval TEXT </dev/null), so variables, cd, umask, ulimit, traps, set -e,
// aliases and descriptors die with the subshell, and parse errors, $0 and
// exit statuses read as they do there. A list of builtins that cannot change
// the shell (see StateFreeCommand.hpp) is evaluated by the shell itself,
// without the fork, which is most of a command's cost.
//
// Where a command's output ends: its standard output and error go to two
// anonymous pipes read by two cat processes that live as long as the shell
// and copy into the channel. cat moves past a pipe only when every process
// holding it has closed it, like sshd with an exec channel's pipes, so a
// background job that still writes is waited for. Then the cats copy a
// random 128-bit marker (and the exit status) that the shell wrote after all
// of the command's bytes. The pipes are reached through /dev/fd and
// /proc/PID/fd, so nothing of the shell has a name on the server once it has
// started: a session that ends in any way (the client gone, sshd, the shell
// or every process of the session killed) leaves no file behind, and its
// helpers end with the shell. That needs Linux; elsewhere the shell does not
// start (see below).
//
// What cannot be the same: $$ names the long-lived shell, so a command that
// kills $$ kills it. If the shell dies while a command runs (killed, its cats
// killed, the server closed the channel), run() throws SSHError(Channel) and
// the next command gets a fresh shell (cats killed while the shell lives on
// are noticed once the command has been silent for 5 s, then 10, 20...: an
// exec channel of its own looks for them, where the server allows one
// more); a command that provably never started is run on a fresh shell
// instead. When no shell can be started at all (not Linux, no writable
// temporary folder for its first milliseconds, a restricted account), the
// runner falls back to exec channels for the rest of the session. The
// shell's channel stays open for the life of the connection.
//
// The start-up script prints a marker first: a channel that ends without it
// (or opens with SFTP bytes, or whose request is refused) has no shell
// behind it, which is recorded for the session (Session::failNoShell), so
// neither a fallback nor a new shell is tried for later commands.

#include <memory>
#include <optional>

#include "sshfileaccess/platform/sshclient/internal/CommandRunner.hpp"
#include "sshfileaccess/platform/sshclient/internal/ExecChannelRunner.hpp"
#include "sshfileaccess/platform/sshclient/internal/Session.hpp"

namespace foundation::sshclient::internal {

class ShellChannelRunner final : public CommandRunner {
 public:
  explicit ShellChannelRunner(Session& session);
  ~ShellChannelRunner() override;
  ShellChannelRunner(ShellChannelRunner const&) = delete;
  ShellChannelRunner& operator=(ShellChannelRunner const&) = delete;

  CommandOutput run(std::string const& command) override;
  void probe() override;

 private:
  class Shell;
  // A ready shell, started when needed; false when the session has moved to
  // exec channels (fallback_).
  bool haveShell();
  Session& session_;
  std::unique_ptr<Shell> shell_;
  std::optional<ExecChannelRunner> fallback_;
};

}  // namespace foundation::sshclient::internal
