#pragma once
// File transfers of SSHClient::copyFiles over SFTP.

#include <functional>

#include "platform/sshclient/SSHClient.hpp"

namespace foundation::sshclient::internal {

class Session;

// Performs every item of `command` over `session`, or throws
// SSHError(Transfer, ...) naming the file and the cause.
void transferFiles(Session& session, CopyFilesCommand const& command,
                   std::function<void(TransferProgress const&)> const& progress);

}  // namespace foundation::sshclient::internal
