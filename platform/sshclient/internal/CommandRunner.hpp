#pragma once
// How SSHClient::executeCommand runs one command line on a session: the
// strategies (an exec channel per command, a persistent shell) implement this.
//
// Each strategy has a shell print a marker before it runs anything: its
// absence means the server ran something else in its place (an SFTP server
// forced on the account, typically), and no command ever counts as run
// without it.

#include <random>
#include <string>
#include <string_view>

namespace foundation::sshclient::internal {

struct CommandOutput {
  int exitStatus = 0;  // 128 + N for a command killed by signal N
  std::string out;     // raw bytes
  std::string err;
};

// `text` as one POSIX shell word: in single quotes, a quote written '\''.
std::string shellQuoted(std::string_view text);
// The same, appended to `line` (no string of its own).
void appendQuoted(std::string& line, std::string_view text);

// "sshfa" and 128 random bits in hex: a plain word for sh that nothing else
// on a channel writes by chance.
std::string randomMarker(std::random_device& random);

// A sh command that prints `marker` as a line, written in two pieces so that
// a login that echoes the command does not print the marker. Holds no
// single quote.
std::string markerPrint(std::string_view marker);

// Drops, on one stream, what the login shell wrote before the command's own
// sh started: everything up to and including the first `marker` line. A
// stream on which the marker never arrives is left whole.
//
// It also tells when the stream opened with bytes that no login writes: a
// NUL byte, with which every SFTP packet starts (the top byte of its
// length). Then no shell is there and no marker is to be waited for.
class LoginNoiseFilter {
 public:
  explicit LoginNoiseFilter(std::string_view marker);
  // Call after appending to `text` (the whole stream so far).
  void drop(std::string& text);
  // The marker line has been seen (and dropped).
  [[nodiscard]] bool passed() const noexcept { return passed_; }
  // The stream opened with a NUL byte, before any marker.
  [[nodiscard]] bool foreign() const noexcept { return foreign_; }

 private:
  std::string line_;
  bool passed_ = false;
  bool foreign_ = false;
  std::size_t searched_ = 0;
};

class CommandRunner {
 public:
  virtual ~CommandRunner() = default;
  // Runs `command` (UTF-8) with POSIX sh semantics, whatever the login shell.
  // Throws SSHError; NoShell when no shell answered (see
  // Session::failNoShell), and at once when that is already known.
  virtual CommandOutput run(std::string const& command) = 0;
  // Finds out whether commands can run, by setting up what run() needs (or
  // running an empty command); throws as run() does.
  virtual void probe() = 0;

 protected:
  CommandRunner() = default;
  CommandRunner(CommandRunner const&) = default;
  CommandRunner& operator=(CommandRunner const&) = default;
};

}  // namespace foundation::sshclient::internal
