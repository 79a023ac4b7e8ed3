#pragma once
// One command on an exec channel of its own, moved on without ever sleeping,
// so that a caller's loop can run it beside other work (a transfer hashes
// remote files while its SFTP requests fly). The protocol is
// ExecChannelRunner's (see ExecChannelRunner.hpp): a fixed wrapper line
// reads the command text from the channel's input and prints a marker
// first; what comes before the marker is the login's and is dropped.
//
// Driving: call step() until ended(); sleep in Session::wait() only when
// step() moved nothing and news() is false. news() is set by whatever takes
// the channel's data off the socket, which may be another channel's read.
//
// The channel opens in the constructor, waited for, or with Answer::Later
// while the caller goes on: step() then sends the exec request once the
// server has answered. A command may be given later by run(): the channel
// opens and its wrapper starts while the caller prepares it. The command
// text follows the exec request without waiting. Destroying an unfinished
// command closes its channel (one still opening is waited for, at most
// kCloseWait). Throws SSHError as the command runners do: NoShell when no
// shell ran it (nothing was run then), Channel when the server refuses the
// channel (from step() with Answer::Later; opened() is false then). Not
// thread-safe; must not outlive its Session; not movable (libssh holds a
// pointer into it).

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "sshfileaccess/platform/sshclient/internal/CommandRunner.hpp"
#include "sshfileaccess/platform/sshclient/internal/Session.hpp"

namespace foundation::sshclient::internal {

class PendingCommand {
 public:
  // A command of its own: a fresh marker; no command yet: see run().
  PendingCommand(Session& session, std::optional<std::string> command, Channel::Answer open);
  // With a runner's marker and the wrapper made from it (execWrapper).
  PendingCommand(Session& session, std::string const& marker, std::string const& wrapper, std::string command);
  PendingCommand(PendingCommand const&) = delete;
  PendingCommand& operator=(PendingCommand const&) = delete;
  PendingCommand(PendingCommand&&) = delete;
  PendingCommand& operator=(PendingCommand&&) = delete;
  ~PendingCommand();
  static constexpr std::chrono::seconds kCloseWait{10};

  // Gives the command of one made without it; once.
  void run(std::string command);
  // The exec request went: a refusal now is the command's, not the channel's.
  [[nodiscard]] bool opened() const noexcept { return requested_; }
  // Sends what the channel's window takes and reads what arrived. True when
  // anything moved. Once the channel is finished, ended() becomes true.
  bool step();
  [[nodiscard]] bool ended() const noexcept { return ended_; }
  [[nodiscard]] bool news() const noexcept { return arrived_; }
  // Standard output and error without the login's noise, and the exit
  // status; complete once ended().
  [[nodiscard]] CommandOutput const& result() const noexcept { return result_; }
  [[nodiscard]] CommandOutput take() { return std::move(result_); }

 private:
  PendingCommand(Session& session, std::string const& marker, std::string wrapper, std::optional<std::string> command,
                 Channel::Answer open);
  bool request();
  void finish();

  Session& session_;
  std::string wrapper_;
  std::optional<std::string> command_;
  std::string_view input_;
  Channel channel_;
  bool requested_ = false;
  LoginNoiseFilter outNoise_;
  LoginNoiseFilter errNoise_;
  bool arrived_ = false;
  std::optional<ArrivalWatch> watch_;
  CommandOutput result_;
  bool ended_ = false;
};

}  // namespace foundation::sshclient::internal
