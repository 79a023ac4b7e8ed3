// What a tree transfer reads before it decides: hashes of files on both
// sides (remote ones by b2sum or sha256sum through the shell, many a line;
// local ones here, as the remote tool hashes), to compare equal sizes and to
// check a resumable temporary's prefix.

#include <span>

#include "sshfileaccess/platform/i18n/i18n.hpp"

#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/TreeTransferParts.hpp"

namespace foundation::sshclient::internal::transfer {

namespace {

// The largest prefix of a partial copy read over SFTP to check it.
constexpr std::uint64_t kPrefixReadLimit = 1024U * 1024U;

}  // namespace

// A remote command's output; nullopt where none can run (noCommands_ says why).
std::optional<std::string> TreeTransfer::remoteOutput(std::string const& command) {
  if (noCommands_) return std::nullopt;
  try {
    if (!shell_.run) throw SSHError(SSHError::Kind::NoShell, "no remote shell to hash files with");
    return shell_.run(command);
  } catch (SSHError const& e) {
    sftp::recordRefusal(e, noCommands_);
    return std::nullopt;
  }
}

// A remote command started to run beside this side's work; null where none
// can run.
std::unique_ptr<sftp::RemoteCommand> TreeTransfer::startRemote(std::string const& command) {
  if (noCommands_) return nullptr;
  try {
    return sftp::startCommand(shell_, command);
  } catch (SSHError const& e) {
    sftp::recordRefusal(e, noCommands_);
    return nullptr;
  }
}

// Its output once it ended; nullopt when no shell ran it.
std::optional<std::string> TreeTransfer::awaitRemote(std::unique_ptr<sftp::RemoteCommand> command) {
  if (!command) return std::nullopt;
  try {
    return sftp::finishCommand(*command);
  } catch (SSHError const& e) {
    sftp::recordRefusal(e, noCommands_);
    return std::nullopt;
  }
}

// The hash a started command announced on its first line, waited for;
// nullopt when it named none (or no shell ran it: the command is dropped).
std::optional<HashKind> TreeTransfer::awaitAnnouncedHash(std::unique_ptr<sftp::RemoteCommand>& command) {
  if (!command) return std::nullopt;
  try {
    while (!announcedHash(command->output()) && !command->poll()) {
      if (!command->news()) command->wait();
    }
  } catch (SSHError const& e) {
    command.reset();
    sftp::recordRefusal(e, noCommands_);
    return std::nullopt;
  }
  return announcedHash(command->output());
}

// Where no command can hash, files are compared by size and time, and the
// report says so once.
ChecksumAnswers TreeTransfer::bySizeAndTime(Folder const& folder, std::vector<std::string> const& names) {
  if (!checksumNoted_) {
    checksumNoted_ = true;
    report_.notes.push_back(fl::i18n::utf8_to_ustring(noCommands_.value_or("no command can run on the server") +
                                                      ": files are compared by size and time, not by checksum"));
  }
  ChecksumAnswers answers;
  auto const* existing = folder.destinationKnown ? &folder.destinationListing : nullptr;
  for (auto const& name : names) {
    auto const* source = folder.sourceListing.find(name);
    auto const* there = existing != nullptr ? existing->find(name) : nullptr;
    answers[name] = source != nullptr && there != nullptr && source->mtime && there->mtime == source->mtime;
  }
  return answers;
}

std::optional<std::string> TreeTransfer::readRemoteFile(std::string const& path, std::optional<std::uint64_t> prefix) {
  startRemoteRead(path, prefix);
  return finishRemoteRead();
}

void TreeTransfer::startRemoteRead(std::string const& path, std::optional<std::uint64_t> prefix) {
  prefix_.reset();
  prefixRead_ = false;
  if (!prefixCookie_) prefixCookie_ = std::make_unique<Cookie>(Cookie{Cookie::Kind::Prefix, nullptr});
  lister_.readFile(path, prefixCookie_.get(), prefix);
}

std::optional<std::string> TreeTransfer::finishRemoteRead() {
  while (!prefixRead_) session_.pump();
  return std::move(prefix_);
}

// A file either side cannot hash is taken as changed.
ChecksumAnswers TreeTransfer::compareChecksums(Folder const& folder, std::vector<std::string> const& names) {
  ChecksumAnswers answers;
  std::vector<std::string> remotePaths;
  remotePaths.reserve(names.size());
  for (auto const& name : names) {
    remotePaths.push_back(upload_ ? target(folder, name) : sourcePathOf(folder, name));
  }
  // Each with the kind its line's tool hashes.
  std::vector<std::pair<HashKind, std::optional<std::string>>> remoteHashes;
  remoteHashes.reserve(names.size());
  for (auto const& batch : remoteHashCommands(remotePaths)) {
    auto const output = remoteOutput(batch.command);
    if (!output) return bySizeAndTime(folder, names);
    RemoteHashes answer;
    answer.hashes.resize(batch.count);
    try {
      answer = parseRemoteHashes(*output, std::span(remotePaths).subspan(batch.first, batch.count));
    } catch (std::runtime_error const&) {
      // Not an answer (neither tool there): every file of the line is sent.
    }
    for (auto& hash : answer.hashes) remoteHashes.emplace_back(answer.kind, std::move(hash));
    reportProgress(false);
    if (stopping_) return answers;
  }
  for (std::size_t k = 0; k < names.size() && !stopping_; ++k) {
    auto const& [kind, remote] = remoteHashes[k];
    if (!remote) continue;
    auto const local = upload_ ? sourcePathOf(folder, names[k]) : target(folder, names[k]);
    try {
      answers[names[k]] = hashOfLocalFile(kind, local) == *remote;
    } catch (SSHError const&) {
      // Unreadable here: copied, and the copy names the cause if it fails.
    }
    reportProgress(false);
  }
  return answers;
}

// A temporary continues only when its bytes are the source's first bytes:
// the hash of that prefix on both sides, both at once once the remote side
// has named its tool.
bool TreeTransfer::verifyResume(Folder const& folder, Action const& action) {
  auto const remotePath = upload_ ? target(folder, action.temporary) : sourcePathOf(folder, action.name);
  auto const localPath = upload_ ? sourcePathOf(folder, action.name) : target(folder, action.temporary);
  auto running = startRemote(remotePrefixHashCommand(remotePath, action.resumeFrom));
  auto const kind = awaitAnnouncedHash(running).value_or(HashKind::Sha256);
  std::optional<std::string> remote;
  std::optional<std::string> local;
  try {
    local = hashOfLocalFile(kind, localPath, action.resumeFrom);
  } catch (std::runtime_error const&) {
    // Unreadable here: it starts over.
  }
  auto const output = awaitRemote(std::move(running));
  try {
    if (output) {
      auto const answer = parseRemotePrefixHash(*output);
      if (answer.kind == kind) remote = answer.hash;
    } else if (action.resumeFrom <= kPrefixReadLimit) {
      // No command to hash with: a small prefix comes over to be hashed here.
      if (auto const bytes = readRemoteFile(remotePath, action.resumeFrom)) remote = hashOf(kind, *bytes);
    } else {
      report_.notes.push_back(fl::i18n::utf8_to_ustring(
          quoted(remotePath) + " starts over: " + noCommands_.value_or("no command can run on the server") +
          ", so its partial copy cannot be checked"));
    }
  } catch (std::runtime_error const&) {
    // Either side unreadable or not an answer: start over.
  }
  reportProgress(false);
  return remote && local && *remote == *local;
}

}  // namespace foundation::sshclient::internal::transfer
