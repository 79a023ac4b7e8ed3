#pragma once
// File transfers of SSHClient::copyFiles over SFTP (the engine in sftp/).
//
// Each file goes to a temporary name beside its destination and replaces it
// only when complete; created files get the command's mode narrowed by the
// creator's umask (the remote server's for uploads). An empty command opens
// no channel.

#include <functional>
#include <string>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

namespace foundation::sshclient::internal {

class Session;

// Performs every item of `command` over `session` on an "sftp" subsystem
// channel of its own, or throws SSHError naming the file and the cause:
// Transfer for a failed file or a misbehaving server, ConnectionLost (or the
// session's other kinds) when the connection fails underneath.
void transferFiles(Session& session, CopyFilesCommand const& command,
                   std::function<void(TransferProgress const&)> const& progress);

// The same for copyTrees: always opens the channel (the sources are listed
// over it). `shell` runs the command lines that hash remote files.
TreeTransferReport transferTrees(Session& session, CopyTreesCommand const& command,
                                 std::function<void(TransferProgress const&)> const& progress,
                                 std::function<std::string(std::string const&)> const& shell);

}  // namespace foundation::sshclient::internal
