#include "sshfileaccess/platform/sshclient/internal/PendingCommand.hpp"

#include <random>

#include "sshfileaccess/platform/sshclient/internal/ExecChannelRunner.hpp"

namespace foundation::sshclient::internal {

namespace {

std::string freshMarker() {
  std::random_device random;
  return randomMarker(random);
}

// Known to have no shell: no channel is opened for nothing.
Session& withShell(Session& session) {
  session.requireShell();
  return session;
}

}  // namespace

PendingCommand::PendingCommand(Session& session, std::string command)
    : PendingCommand(session, freshMarker(), std::move(command)) {}

PendingCommand::PendingCommand(Session& session, std::string const& marker, std::string command)
    : PendingCommand(session, marker, execWrapper(marker), std::move(command)) {}

PendingCommand::PendingCommand(Session& session, std::string const& marker, std::string const& wrapper,
                               std::string command)
    : session_(withShell(session)),
      command_(std::move(command)),
      input_(command_),
      channel_(session),
      outNoise_(marker),
      errNoise_(marker) {
  watch_.emplace(channel_.raw(), arrived_);
  // The command text follows the request without waiting for its answer.
  channel_.requestExec(wrapper, Channel::Answer::Later);
}

bool PendingCommand::step() {
  if (ended_) return false;
  arrived_ = false;
  bool progressed = false;
  // Output is read while the input is still being sent: a large command
  // text and a chatty command must not wait on each other.
  if (!input_.empty()) {
    // What answers in place of a shell may close the channel before it has
    // read the text.
    std::size_t const written = channel_.offer(input_);
    input_.remove_prefix(written);
    progressed = written > 0;
  }
  if (input_.empty()) channel_.sendEof();
  if (channel_.read(result_.out, Stream::Stdout) > 0) {
    outNoise_.drop(result_.out);
    progressed = true;
  }
  if (channel_.read(result_.err, Stream::Stderr) > 0) {
    errNoise_.drop(result_.err);
    progressed = true;
  }
  // SFTP bytes where the marker should be: nothing more to wait for.
  if (outNoise_.foreign()) session_.failNoShell();
  bool const started = channel_.requestAnswered();
  if (!channel_.finished()) return progressed;
  // Closed without an answer: the session ended at once.
  if (!started && !channel_.requestAnswered()) session_.failNoShell();
  finish();
  return true;
}

// The marker on standard output is the shell's word that it ran the command
// (the one on standard error can be lost to a login script that redirects
// it, and is not needed).
void PendingCommand::finish() {
  if (!outNoise_.passed()) session_.failNoShell();
  session_.noteShellFound();
  std::optional<int> const status = channel_.exitStatus();
  if (!status) session_.fail(SSHError::Kind::Channel, "the server ended the command without reporting its exit status");
  result_.exitStatus = *status;
  ended_ = true;
}

}  // namespace foundation::sshclient::internal
