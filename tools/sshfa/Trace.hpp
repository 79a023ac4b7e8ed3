#pragma once
// -v: the library's trace (severity 4: commands and transfers) and its
// reports of swallowed failures (severity 16) on standard error, one line per
// record, escaped when standard error is a terminal.

#include <string>

namespace sshfa::cli {

// Enables both severities and adds the sink; call once.
void enableTrace();

// One line of the tool's own in the same form, for what it finds out itself.
void trace(std::string const& message);

}  // namespace sshfa::cli
