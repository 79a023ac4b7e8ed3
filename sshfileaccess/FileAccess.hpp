#pragma once
// The one object a caller holds to work on two machines at once: it owns a
// LocalFileAccess and a remote backend (which owns the SSH connection),
// hands them out for single-side work, and copies files and folder trees
// between them in either direction.
//
// The remote backend is a UnixSSHFileAccess (shell commands). Where the
// server runs no shell for the account (it allows SFTP only), remote() hands
// out a SftpFileAccess on the same connection instead, found out on its
// first call; a RemoteBackend chosen at construction is used as it is.
//
// Move-only. A moved-from object has no backends (local() and remote() give
// null) and may only be destroyed or assigned to. Nothing here catches
// anything: exceptions of the backends and of the SSH client pass through,
// and a transfer that fails part-way is not rolled back. One object must not
// be used from two threads at once.

#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "sshfileaccess/LocalFileAccess.hpp"
#include "sshfileaccess/SftpFileAccess.hpp"
#include "sshfileaccess/UnixSSHFileAccess.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

// What upload and download keep (modes, times, links) and what they did.
using TransferOptions = foundation::sshclient::TreeTransferOptions;
using TransferReport = foundation::sshclient::TreeTransferReport;

// The remote backend of a FileAccess.
enum class RemoteBackend {
  Automatic,  // UnixSSHFileAccess where the server runs a shell, else SftpFileAccess
  Shell,      // UnixSSHFileAccess
  Sftp,       // SftpFileAccess, whatever the server allows
};

class SSHFA_EXPORT FileAccess {
 public:
  using AuthMethods = foundation::sshclient::AuthMethods;
  using ExecuteCommandResult = foundation::sshclient::ExecuteCommandResult;
  using PathPairs = FileAccessInterface::PathPairs;

  // Connects; if that fails, nothing is left behind and the client's
  // exception propagates.
  FileAccess(ustring host, int port, AuthMethods authMethods);
  // Takes over a client the caller built (with its own options, or a double).
  explicit FileAccess(std::unique_ptr<foundation::sshclient::SSHClient> client);
  FileAccess(std::unique_ptr<foundation::sshclient::SSHClient> client, RemoteBackend backend);
  FileAccess(FileAccess&& other) noexcept;
  FileAccess& operator=(FileAccess&& other) noexcept;
  FileAccess(FileAccess const&) = delete;
  FileAccess& operator=(FileAccess const&) = delete;
  ~FileAccess();

  [[nodiscard]] LocalFileAccess* local() noexcept { return local_.get(); }
  // The remote backend. With RemoteBackend::Automatic, the first call finds
  // out whether the server runs a shell (see SSHClient::shellAvailable),
  // which may throw SSHError.
  [[nodiscard]] SSHFileAccess* remote();
  // The backend remote() hands out: Automatic until it has been decided.
  [[nodiscard]] RemoteBackend remoteBackend() const noexcept { return backend_; }

  // Beside the interface: the client's SFTP files, which answer many paths
  // in one round trip and carry every name as its bytes (SftpFiles), on any
  // server; asks nothing about the shell.
  [[nodiscard]] foundation::sshclient::SftpFiles& sftp();

  // Copies a file to exactly `destination`, or every regular file below a
  // folder to `destination` + the part of its path after `source` (cut by
  // length: end both with a separator or neither). Destination folders are
  // made first; empty folders are not reproduced; a missing source copies
  // nothing.
  void localToRemoteCopy(ustring const& source, ustring const& destination);
  void localToRemoteCopy(PathPairs const& pairs);
  void remoteToLocalCopy(ustring const& source, ustring const& destination);
  void remoteToLocalCopy(PathPairs const& pairs);

  // Copies each pair's file, folder tree or symbolic link to exactly its
  // destination (a folder's content lands in the destination folder, which
  // is made, with any missing parent). Unlike the copies above: names travel
  // as their bytes (remote trees are listed over SFTP), empty folders are
  // made, modes and times are kept and links copied as links (as `options`
  // say), FIFOs, sockets and devices are left out and noted in the report,
  // and a missing source is an error. Throws SSHError(Transfer) naming the
  // first failure; files completed before it stay.
  // Re-runs: `options` can leave unchanged files alone (size and time, or
  // checksums), mirror (remove what the sources lack), only plan (dry run),
  // and resume interrupted files; the report counts skipped, deleted and
  // resumed files.
  TransferReport upload(PathPairs const& pairs, TransferOptions const& options = {});
  TransferReport download(PathPairs const& pairs, TransferOptions const& options = {});

  // Runs a command on the remote host; a non-zero exit status is no error.
  ExecuteCommandResult remoteExecute(ustring command);
  // The same with live streams: output handed over as it arrives, standard
  // input fed until its end; returns the exit status (130 when stopped).
  int remoteExecuteStreaming(ustring const& command, foundation::sshclient::CommandStreams const& streams);

  void setKeepaliveInterval(std::chrono::seconds interval);
  [[nodiscard]] std::chrono::seconds getKeepaliveInterval() const;

 private:
  // Declaration order matters: remote_ is destroyed (connection closed) first.
  std::unique_ptr<LocalFileAccess> local_;
  std::unique_ptr<SSHFileAccess> remote_;
  RemoteBackend backend_ = RemoteBackend::Automatic;
};

}  // namespace nimbal::remoteaccess::sshfileaccess
