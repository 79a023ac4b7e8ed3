#include "platform/sshclient/internal/Transfer.hpp"

namespace foundation::sshclient::internal {

void transferFiles(Session& /*session*/, CopyFilesCommand const& /*command*/,
                   std::function<void(TransferProgress const&)> const& /*progress*/) {
  throw SSHError(SSHError::Kind::Transfer, "file transfer is not available in this build");
}

}  // namespace foundation::sshclient::internal
