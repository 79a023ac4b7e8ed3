#include "sshfileaccess/SSHFileAccess.hpp"

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/Utils.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

namespace ssh = foundation::sshclient;

namespace {

constexpr int kTransferMode = 0744;

bool isCleanStderr(ustring const& err) { return err.find_first_not_of(u" \n\r") == ustring::npos; }

}  // namespace

SSHFileAccess::SSHFileAccess(ustring host, int port, AuthMethods authMethods)
    : client_(std::make_unique<ssh::SSHClient>(std::move(host), port, std::move(authMethods))) {}

SSHFileAccess::SSHFileAccess(std::unique_ptr<ssh::SSHClient> client) : client_(std::move(client)) {}

SSHFileAccess::SSHFileAccess(SSHFileAccess&& other) noexcept = default;
SSHFileAccess& SSHFileAccess::operator=(SSHFileAccess&& other) noexcept = default;
SSHFileAccess::~SSHFileAccess() = default;

SSHFileAccess::ExecuteCommandResult SSHFileAccess::execute(ustring command) {
  logRecord(kTraceSeverity, [&] { return "Executing command: " + ustr2str(command); });
  return client_->executeCommand(ssh::ExecuteCommand(std::move(command)));
}

int SSHFileAccess::executeStreaming(ustring const& command, ssh::CommandStreams const& streams) {
  logRecord(kTraceSeverity, [&] { return "Executing command: " + ustr2str(command); });
  return client_->executeStreaming(command, streams);
}

std::vector<SSHFileAccess::ExecuteCommandResult> SSHFileAccess::execute(std::vector<ustring> const& commands) {
  std::vector<ExecuteCommandResult> results;
  results.reserve(commands.size());
  for (auto const& command : commands) results.push_back(execute(command));
  return results;
}

SSHFileAccess::ExecuteCommandResult SSHFileAccess::executeExpectNoError(ustring command) {
  ExecuteCommandResult result = execute(std::move(command));
  ustring err = result.getStderr();
  if (!isCleanStderr(err)) throw FileAccessException(std::move(err), FileAccessException::Code::RemoteError);
  return result;
}

std::vector<SSHFileAccess::ExecuteCommandResult> SSHFileAccess::executeExpectNoError(
    std::vector<ustring> const& commands) {
  std::vector<ExecuteCommandResult> results;
  results.reserve(commands.size());
  for (auto const& command : commands) results.push_back(executeExpectNoError(command));
  return results;
}

void SSHFileAccess::copy(TransferDirection direction, std::vector<ustring> const& sources,
                         std::vector<ustring> const& destinations) {
  std::vector<ssh::FileLocations> items;
  items.reserve(sources.size());
  const bool upload = direction != TransferDirection::RemoteToLocal;
  for (std::size_t i = 0; i < sources.size(); ++i) {
    if (upload) {
      items.push_back({sources[i], destinations[i]});
    } else {
      items.push_back({destinations[i], sources[i]});
    }
  }
  client_->copyFiles(ssh::CopyFilesCommand(std::move(items), direction, ssh::TransferProtocol::SFTP, kTransferMode));
}

ssh::TreeTransferReport SSHFileAccess::copyTrees(TransferDirection direction, PathPairs const& pairs,
                                                 ssh::TreeTransferOptions const& options) {
  std::vector<ssh::FileLocations> items;
  items.reserve(pairs.size());
  const bool upload = direction != TransferDirection::RemoteToLocal;
  for (auto const& [source, destination] : pairs) {
    items.push_back(upload ? ssh::FileLocations{source, destination} : ssh::FileLocations{destination, source});
  }
  return client_->copyTrees(ssh::CopyTreesCommand(std::move(items), direction, options));
}

bool SSHFileAccess::shellAvailable() { return client_->shellAvailable(); }

foundation::sshclient::SftpFiles& SSHFileAccess::sftp() { return client_->sftp(); }

void SSHFileAccess::setKeepaliveInterval(std::chrono::seconds interval) { client_->setKeepaliveInterval(interval); }

std::chrono::seconds SSHFileAccess::getKeepaliveInterval() const { return client_->getKeepaliveInterval(); }

}  // namespace nimbal::remoteaccess::sshfileaccess
