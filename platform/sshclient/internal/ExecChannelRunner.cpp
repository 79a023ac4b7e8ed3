#include "sshfileaccess/platform/sshclient/internal/ExecChannelRunner.hpp"

#include <string_view>

namespace foundation::sshclient::internal {

namespace {

// Prints the marker on both streams, in two pieces (see the header).
std::string markerLines(std::string_view marker) {
  std::string const print = markerPrint(marker);
  return print + "; " + print + " >&2; ";
}

}  // namespace

std::string execWrapper(std::string_view marker) {
  return "exec sh -c '" + markerLines(marker) + "eval \"$(cat)\" </dev/null'";
}

std::string streamingWrapper(std::string_view marker) {
  // read -r takes the line byte by byte, so not one byte of the input after
  // it is consumed; "$(...)" drops trailing line feeds, as "$(cat)" does.
  return "exec sh -c '" + markerLines(marker) +
         "echo $$; IFS= read -r t || exit 127; eval \"$(printf \"%b\" \"$t\")\"'";
}

std::string streamingCommandLine(std::string_view command) {
  std::string line;
  line.reserve(command.size() + 1);
  for (char const c : command) {
    if (c == '\\') {
      line += "\\0134";
    } else if (c == '\n') {
      line += "\\012";
    } else {
      line += c;
    }
  }
  line += '\n';
  return line;
}

ExecChannelRunner::ExecChannelRunner(Session& session) : session_(session) {
  std::random_device random;
  marker_ = randomMarker(random);
  wrapper_ = execWrapper(marker_);
}

CommandOutput ExecChannelRunner::run(std::string const& command) {
  session_.requireShell();
  Channel channel(session_);
  // The command text follows the request without waiting for its answer.
  channel.requestExec(wrapper_, Channel::Answer::Later);
  CommandOutput result;
  LoginNoiseFilter outNoise(marker_);
  LoginNoiseFilter errNoise(marker_);
  std::string_view input = command;
  bool arrived = false;
  ArrivalWatch const watch(channel.raw(), arrived);
  // Output is read while the input is still being sent: a large command text
  // and a chatty command must not wait on each other.
  for (;;) {
    arrived = false;
    bool progressed = false;
    if (!input.empty()) {
      // What answers in place of a shell may close the channel before it
      // has read the text.
      std::size_t const written = channel.offer(input);
      input.remove_prefix(written);
      progressed = written > 0;
    }
    if (input.empty()) channel.sendEof();
    if (channel.read(result.out, Stream::Stdout) > 0) {
      outNoise.drop(result.out);
      progressed = true;
    }
    if (channel.read(result.err, Stream::Stderr) > 0) {
      errNoise.drop(result.err);
      progressed = true;
    }
    // SFTP bytes where the marker should be: nothing more to wait for.
    if (outNoise.foreign()) session_.failNoShell();
    bool const started = channel.requestAnswered();
    if (channel.finished()) {
      // Closed without an answer: the session ended at once.
      if (!started && !channel.requestAnswered()) session_.failNoShell();
      break;
    }
    if (!progressed && !arrived) session_.wait();
  }
  // The marker on standard output is the shell's word that it ran the
  // command (the one on standard error can be lost to a login script that
  // redirects it, and is not needed).
  if (!outNoise.passed()) session_.failNoShell();
  session_.noteShellFound();
  std::optional<int> const status = channel.exitStatus();
  if (!status) session_.fail(SSHError::Kind::Channel, "the server ended the command without reporting its exit status");
  result.exitStatus = *status;
  return result;
}

void ExecChannelRunner::probe() { run(std::string()); }

}  // namespace foundation::sshclient::internal
