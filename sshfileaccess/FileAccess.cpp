#include "sshfileaccess/FileAccess.hpp"

#include "sshfileaccess/Utils.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

namespace {

using foundation::sshclient::TransferDirection;

// Lists every pair's source on `sourceSide`, maps each listed file to its
// destination by cutting the source's length off the front, makes every
// destination folder on `destinationSide`, logs the list and hands all files
// to one transfer.
void transfer(FileAccessInterface& sourceSide, FileAccessInterface& destinationSide, SSHFileAccess& remote,
              TransferDirection direction, FileAccessInterface::PathPairs const& pairs) {
  std::vector<ustring> sources;
  std::vector<ustring> destinations;
  for (auto const& [source, destination] : pairs) {
    const std::size_t cut = source.size();
    std::vector<ustring> listed = sourceSide.listRecursively(source);
    for (auto const& path : listed) destinations.push_back(destination + path.substr(cut));
    sources.insert(sources.end(), std::make_move_iterator(listed.begin()), std::make_move_iterator(listed.end()));
  }
  destinationSide.makeDir(destinationSide.parent(destinations));
  logRecord(kTraceSeverity, [&] { return "Copying " + formatCopiedPaths(sources, destinations); });
  remote.copy(direction, sources, destinations);
}

}  // namespace

FileAccess::FileAccess(ustring host, int port, AuthMethods authMethods)
    : local_(std::make_unique<LocalFileAccess>()),
      remote_(std::make_unique<UnixSSHFileAccess>(std::move(host), port, std::move(authMethods))) {}

FileAccess::FileAccess(std::unique_ptr<foundation::sshclient::SSHClient> client)
    : local_(std::make_unique<LocalFileAccess>()), remote_(std::make_unique<UnixSSHFileAccess>(std::move(client))) {}

FileAccess::FileAccess(std::unique_ptr<foundation::sshclient::SSHClient> client, RemoteBackend backend)
    : local_(std::make_unique<LocalFileAccess>()), backend_(backend) {
  if (backend == RemoteBackend::Sftp) {
    remote_ = std::make_unique<SftpFileAccess>(std::move(client));
  } else {
    remote_ = std::make_unique<UnixSSHFileAccess>(std::move(client));
  }
}

FileAccess::FileAccess(FileAccess&& other) noexcept = default;
FileAccess& FileAccess::operator=(FileAccess&& other) noexcept = default;
FileAccess::~FileAccess() = default;

SSHFileAccess* FileAccess::remote() {
  if (remote_ && backend_ == RemoteBackend::Automatic) {
    if (remote_->shellAvailable()) {
      backend_ = RemoteBackend::Shell;
    } else {
      remote_ = std::make_unique<SftpFileAccess>(std::move(*remote_));
      backend_ = RemoteBackend::Sftp;
    }
  }
  return remote_.get();
}

foundation::sshclient::SftpFiles& FileAccess::sftp() { return remote_->sftp(); }

void FileAccess::localToRemoteCopy(ustring const& source, ustring const& destination) {
  localToRemoteCopy(PathPairs{{source, destination}});
}

void FileAccess::localToRemoteCopy(PathPairs const& pairs) {
  SSHFileAccess& side = *remote();
  transfer(*local_, side, side, TransferDirection::LocalToRemote, pairs);
}

void FileAccess::remoteToLocalCopy(ustring const& source, ustring const& destination) {
  remoteToLocalCopy(PathPairs{{source, destination}});
}

void FileAccess::remoteToLocalCopy(PathPairs const& pairs) {
  SSHFileAccess& side = *remote();
  transfer(side, *local_, side, TransferDirection::RemoteToLocal, pairs);
}

TransferReport FileAccess::upload(PathPairs const& pairs, TransferOptions const& options) {
  return remote_->copyTrees(TransferDirection::LocalToRemote, pairs, options);
}

TransferReport FileAccess::download(PathPairs const& pairs, TransferOptions const& options) {
  return remote_->copyTrees(TransferDirection::RemoteToLocal, pairs, options);
}

FileAccess::ExecuteCommandResult FileAccess::remoteExecute(ustring command) {
  return remote_->execute(std::move(command));
}

int FileAccess::remoteExecuteStreaming(ustring const& command, foundation::sshclient::CommandStreams const& streams) {
  return remote_->executeStreaming(command, streams);
}

void FileAccess::setKeepaliveInterval(std::chrono::seconds interval) { remote_->setKeepaliveInterval(interval); }

std::chrono::seconds FileAccess::getKeepaliveInterval() const { return remote_->getKeepaliveInterval(); }

}  // namespace nimbal::remoteaccess::sshfileaccess
