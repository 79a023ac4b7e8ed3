#pragma once
// Failure messages in the tool's words. The library passes the remote
// command's standard error through as it is ("mkdir: cannot create
// directory ..."; "sh: 1: cd: can't cd to /x"); the tool names the command
// once and keeps the cause. Pure functions; thread-safe.

#include <string>
#include <vector>

namespace sshfa::cli {

// Without trailing blanks and line ends.
std::string trimmed(std::string text);

// The message of a failed command for "sshfa: COMMAND: ...": line by line,
// without the name of the remote program or shell that wrote it (and the
// shell's line number), without tar's closing "Exiting with failure status"
// and empty lines; each remaining line is prefixed with "COMMAND: ".
std::string inTheToolsWords(std::string const& command, std::string const& message);

// The name among `names` nearest to `word` (edit distance, a swap of two
// neighbours counting once) when it is near enough to be a typing slip;
// empty otherwise.
std::string nearestName(std::string const& word, std::vector<std::string> const& names);

}  // namespace sshfa::cli
