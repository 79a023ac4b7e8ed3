#pragma once
// How SSHClient::executeCommand runs one command line on a session: the
// strategies (an exec channel per command, a persistent shell) implement this.

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

// Drops, on one stream, what the login shell wrote before the command's own
// sh started: everything up to and including the first `marker` line. A
// stream on which the marker never arrives is left whole.
class LoginNoiseFilter {
 public:
  explicit LoginNoiseFilter(std::string_view marker);
  // Call after appending to `text` (the whole stream so far).
  void drop(std::string& text);
  // The marker line has been seen (and dropped).
  [[nodiscard]] bool passed() const noexcept { return passed_; }

 private:
  std::string line_;
  bool passed_ = false;
  std::size_t searched_ = 0;
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
