#pragma once
// The remote side of FileAccessInterface: owns the SSH client and offers the
// three services remote operations rest on — run a command (execute), run one
// and fail when it wrote to standard error (executeExpectNoError), and copy
// files between the machines (copy). All 28 file operations stay pure here.
//
// Move-only; a moved-from object may only be destroyed or assigned to.
// Exceptions of the SSH client pass through unchanged; the only exception of
// its own is FileAccessException(RemoteError) from executeExpectNoError.

#include <chrono>
#include <memory>
#include <vector>

#include "sshfileaccess/FileAccessInterface.hpp"
#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

class SSHFA_EXPORT SSHFileAccess : public FileAccessInterface {
 public:
  using AuthMethods = foundation::sshclient::AuthMethods;
  using ExecuteCommandResult = foundation::sshclient::ExecuteCommandResult;
  using TransferDirection = foundation::sshclient::TransferDirection;

  SSHFileAccess(ustring host, int port, AuthMethods authMethods);
  explicit SSHFileAccess(std::unique_ptr<foundation::sshclient::SSHClient> client);
  SSHFileAccess(SSHFileAccess&& other) noexcept;
  SSHFileAccess& operator=(SSHFileAccess&& other) noexcept;
  SSHFileAccess(SSHFileAccess const&) = delete;
  SSHFileAccess& operator=(SSHFileAccess const&) = delete;
  ~SSHFileAccess() override;

  // Runs one command line (already quoted); the exit status is not examined.
  ExecuteCommandResult execute(ustring command);
  // Each command separately, in order; the first exception ends the list.
  std::vector<ExecuteCommandResult> execute(std::vector<ustring> const& commands);
  // As execute, but throws FileAccessException(RemoteError) with the whole
  // standard-error text when it holds anything but ' ', '\n' and '\r'.
  ExecuteCommandResult executeExpectNoError(ustring command);
  std::vector<ExecuteCommandResult> executeExpectNoError(std::vector<ustring> const& commands);

  // Runs one command line with its output handed to `streams` as it arrives
  // and its standard input fed from them (see SSHClient::executeStreaming);
  // returns the exit status. Logged as execute logs.
  int executeStreaming(ustring const& command, foundation::sshclient::CommandStreams const& streams);

  // Transfers sources[i] to destinations[i] (destinations at least as long)
  // with protocol 0 and mode 0744.
  void copy(TransferDirection direction, std::vector<ustring> const& sources, std::vector<ustring> const& destinations);
  using FileAccessInterface::copy;

  // Copies each pair's file, folder tree or link (source, destination) in
  // one SFTP session; see SSHClient::copyTrees.
  foundation::sshclient::TreeTransferReport copyTrees(TransferDirection direction, PathPairs const& pairs,
                                                      foundation::sshclient::TreeTransferOptions const& options);

  void setKeepaliveInterval(std::chrono::seconds interval);
  [[nodiscard]] std::chrono::seconds getKeepaliveInterval() const;

  // Beside the interface: whether the server runs commands for this account
  // (see SSHClient::shellAvailable), and the client's SFTP files, which
  // answer many paths in one round trip (see SSHClient::sftp).
  [[nodiscard]] bool shellAvailable();
  [[nodiscard]] foundation::sshclient::SftpFiles& sftp();

 private:
  std::unique_ptr<foundation::sshclient::SSHClient> client_;
};

}  // namespace nimbal::remoteaccess::sshfileaccess
