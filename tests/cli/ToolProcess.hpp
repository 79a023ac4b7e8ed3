#pragma once
// Runs the sshfa binary the way a user's shell would: its own session (no
// controlling terminal unless asked for), standard input from a pipe,
// standard output and standard error captured apart. With `terminal`,
// standard output and the controlling terminal (/dev/tty) are a pseudo
// terminal whose output is read back in place of standard output.
//
// The binary is $SSHFA_TOOL when set (an installed one), else the one built
// with the tests.

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace sshfa::testing {

struct ToolResult {
  int status = -1;  // exit status, or 128 + the signal that ended it
  std::string out;  // standard output (or what the terminal showed)
  std::string err;
};

struct ToolOptions {
  std::string program;  // another program to run instead of sshfa
  std::string input;    // written to standard input, which is then closed
  bool terminal = false;
  std::vector<std::string> environment;  // NAME=value entries, in place of inherited ones
  std::string workingDirectory;          // empty: this process's
  std::chrono::seconds timeout{180};
};

std::string toolPath();
// The folder of the example programs: $SSHFA_EXAMPLES_DIR when set (built
// against an installed package), else the one built with the tests.
std::string examplesDirectory();

class ToolProcess {
 public:
  ToolProcess(std::vector<std::string> const& args, ToolOptions options);
  ~ToolProcess();
  ToolProcess(ToolProcess const&) = delete;
  ToolProcess& operator=(ToolProcess const&) = delete;

  // Reads output until `text` appears in it; false when the process ended or
  // the time ran out first.
  bool waitForOutput(std::string const& text, std::chrono::seconds timeout);
  // Types on the terminal (only with `terminal`).
  void type(std::string const& text) const;
  void signal(int signalNumber) const;
  [[nodiscard]] pid_t pid() const noexcept { return pid_; }
  [[nodiscard]] std::string const& outputSoFar() const noexcept { return result_.out; }

  // Reads to the end and reaps the process (killed after the timeout).
  ToolResult finish();

 private:
  // Reads what is available within `wait`; false once both streams ended.
  bool pump(std::chrono::milliseconds wait);

  ToolOptions options_;
  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  int terminalFd_ = -1;  // the pseudo terminal's master side
  std::chrono::steady_clock::time_point deadline_;
  ToolResult result_;
};

ToolResult runTool(std::vector<std::string> const& args, ToolOptions const& options = {});

}  // namespace sshfa::testing
