#include "sshfileaccess/platform/sshclient/internal/ExecChannelRunner.hpp"

#include <string_view>

#include "sshfileaccess/platform/sshclient/internal/PendingCommand.hpp"

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
  PendingCommand running(session_, marker_, wrapper_, command);
  while (!running.ended()) {
    if (!running.step() && !running.news()) session_.wait();
  }
  return running.take();
}

void ExecChannelRunner::probe() { run(std::string()); }

}  // namespace foundation::sshclient::internal
