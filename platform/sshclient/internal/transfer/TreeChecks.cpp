// What a tree transfer reads before it decides: SHA-256 of files on both
// sides (remote ones by sha256sum through the shell, many a line; local ones
// here), to compare equal sizes and to check a resumable temporary's prefix.

#include <span>

#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/TreeTransferParts.hpp"

namespace foundation::sshclient::internal::transfer {

std::string TreeTransfer::remoteOutput(std::string const& command) {
  if (!shell_) throw SSHError(SSHError::Kind::Transfer, "no remote shell to hash files with");
  return shell_(command);
}

// A file either side cannot hash is taken as changed.
ChecksumAnswers TreeTransfer::compareChecksums(Folder const& folder, std::vector<std::string> const& names) {
  ChecksumAnswers answers;
  std::vector<std::string> remotePaths;
  remotePaths.reserve(names.size());
  for (auto const& name : names) {
    remotePaths.push_back(upload_ ? destinationPathOf(folder, name) : sourcePathOf(folder, name));
  }
  std::vector<std::optional<std::string>> remoteHashes;
  remoteHashes.reserve(names.size());
  for (auto const& batch : remoteHashCommands(remotePaths)) {
    auto const output = remoteOutput(batch.command);
    std::vector<std::optional<std::string>> hashes(batch.count);
    try {
      hashes = parseRemoteHashes(output, std::span(remotePaths).subspan(batch.first, batch.count));
    } catch (std::runtime_error const&) {
      // Not an answer (no sha256sum there): every file of the line is sent.
    }
    remoteHashes.insert(remoteHashes.end(), hashes.begin(), hashes.end());
    reportProgress(false);
    if (stopping_) return answers;
  }
  for (std::size_t k = 0; k < names.size() && !stopping_; ++k) {
    if (!remoteHashes[k]) continue;
    auto const local = upload_ ? sourcePathOf(folder, names[k]) : destinationPathOf(folder, names[k]);
    try {
      answers[names[k]] = sha256OfLocalFile(local) == *remoteHashes[k];
    } catch (SSHError const&) {
      // Unreadable here: copied, and the copy names the cause if it fails.
    }
    reportProgress(false);
  }
  return answers;
}

// A temporary continues only when its bytes are the source's first bytes:
// SHA-256 of that prefix on both sides.
bool TreeTransfer::verifyResume(Folder const& folder, Action const& action) {
  auto const remotePath = upload_ ? destinationPathOf(folder, action.temporary) : sourcePathOf(folder, action.name);
  auto const localPath = upload_ ? sourcePathOf(folder, action.name) : destinationPathOf(folder, action.temporary);
  auto const output = remoteOutput(remotePrefixHashCommand(remotePath, action.resumeFrom));
  std::optional<std::string> remote;
  std::optional<std::string> local;
  try {
    remote = parseRemotePrefixHash(output);
    local = sha256OfLocalFile(localPath, action.resumeFrom);
  } catch (std::runtime_error const&) {
    // Either side unreadable or not an answer: start over.
  }
  reportProgress(false);
  return remote && local && *remote == *local;
}

}  // namespace foundation::sshclient::internal::transfer
