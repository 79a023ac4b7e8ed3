#pragma once
// The sshfa command line: parses it, runs the command and maps failures to
// the exit status (0 success, 1 operation failed, 2 usage, 3 connection,
// host key or authentication).

namespace sshfa::cli {

int run(int argc, char** argv);

}  // namespace sshfa::cli
