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

PendingCommand::PendingCommand(Session& session, std::optional<std::string> command, Channel::Answer open)
    : PendingCommand(session, freshMarker(), {}, std::move(command), open) {}

PendingCommand::PendingCommand(Session& session, std::string const& marker, std::string const& wrapper,
                               std::string command)
    : PendingCommand(session, marker, wrapper, std::move(command), Channel::Answer::Wait) {}

PendingCommand::PendingCommand(Session& session, std::string const& marker, std::string wrapper,
                               std::optional<std::string> command, Channel::Answer open)
    : session_(withShell(session)),
      wrapper_(wrapper.empty() ? execWrapper(marker) : std::move(wrapper)),
      command_(std::move(command)),
      channel_(session, open),
      outNoise_(marker),
      errNoise_(marker) {
  if (command_) input_ = *command_;
  watch_.emplace(channel_.raw(), arrived_);
  if (open == Channel::Answer::Wait) request();
}

// A channel still opening is waited for, then closed: freed unanswered,
// the server would keep it open, holding one of its sessions.
PendingCommand::~PendingCommand() {
  if (requested_) return;
  auto const deadline = std::chrono::steady_clock::now() + kCloseWait;
  try {
    while (!channel_.requestAnswered() && std::chrono::steady_clock::now() < deadline) {
      (void)session_.wait(std::chrono::duration_cast<std::chrono::milliseconds>(kCloseWait));
    }
  } catch (...) {  // NOLINT(bugprone-empty-catch): refused or lost, nothing is left to close
  }
}

void PendingCommand::run(std::string command) {
  command_ = std::move(command);
  input_ = *command_;
}

// Once the channel is open: the exec request. The wrapper waits for the
// command text, which follows without waiting for the answer, or once given:
// sshd opens a session channel's window only when it starts the command, so
// a channel asked for ahead of its command saves that round trip.
bool PendingCommand::request() {
  if (requested_) return true;
  if (!channel_.requestAnswered()) return false;
  channel_.requestExec(wrapper_, Channel::Answer::Later);
  requested_ = true;
  return true;
}

bool PendingCommand::step() {
  if (ended_) return false;
  arrived_ = false;
  if (!requested_ && !request()) return false;
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
  if (command_ && input_.empty()) channel_.sendEof();
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
  if (!command_) session_.fail(SSHError::Kind::Channel, "the server ended the shell before it was given its command");
  session_.noteShellFound();
  std::optional<int> const status = channel_.exitStatus();
  if (!status) session_.fail(SSHError::Kind::Channel, "the server ended the command without reporting its exit status");
  result_.exitStatus = *status;
  ended_ = true;
}

}  // namespace foundation::sshclient::internal
