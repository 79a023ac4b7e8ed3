#pragma once
// Questions on the controlling terminal (/dev/tty), so that they work while
// standard input and output are redirected, and the terminal's width.
// A Ctrl-C while an answer is typed restores echo before the process ends.

#include <optional>
#include <string>

namespace sshfa::cli {

// Whether the process has a controlling terminal to ask on.
bool canPrompt();

// Writes `prompt` to the terminal and reads one line, without echo unless
// `echo`. nullopt when there is no terminal or it reached end of input.
std::optional<std::string> promptOnTerminal(std::string const& prompt, bool echo);

// Writes a line to the terminal (keyboard-interactive instructions).
void tellTerminal(std::string const& text);

// Columns of the terminal on `fd`; 80 when unknown.
int terminalColumns(int fd);

}  // namespace sshfa::cli
