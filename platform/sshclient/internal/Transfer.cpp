#include "sshfileaccess/platform/sshclient/internal/Transfer.hpp"

#include <string>

#include "sshfileaccess/platform/sshclient/internal/SftpChannel.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"

namespace foundation::sshclient::internal {

void transferFiles(Session& session, CopyFilesCommand const& command,
                   std::function<void(TransferProgress const&)> const& progress) {
  if (command.getItems().empty()) return;
  SftpChannel transport(session);
  sftp::transfer(transport, session.describe(), command, progress);
}

TreeTransferReport transferTrees(Session& session, CopyTreesCommand const& command,
                                 std::function<void(TransferProgress const&)> const& progress,
                                 std::function<std::string(std::string const&)> const& shell) {
  if (command.getItems().empty()) return {};
  SftpChannel transport(session);
  return sftp::transferTrees(transport, session.describe(), command, progress, shell);
}

}  // namespace foundation::sshclient::internal
