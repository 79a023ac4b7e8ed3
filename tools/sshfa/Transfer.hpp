#pragma once
// put and get: files and folder trees between this machine and the remote
// host, with a progress line on a terminal and a summary afterwards.

#include <string>
#include <vector>

#include "sshfileaccess/FileAccess.hpp"
#include "tools/sshfa/Progress.hpp"

namespace sshfa::cli {

// put (upload) and get: pairs of source and destination. A source that does
// not exist is an error; Ctrl-C and SIGTERM stop the transfer cleanly.
int runTransfer(nimbal::remoteaccess::sshfileaccess::FileAccess& access, ProgressRouter& progress, bool upload,
                std::vector<std::string> const& args, bool json);

}  // namespace sshfa::cli
