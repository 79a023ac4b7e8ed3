#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

#include <stdexcept>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"
#include "sshfileaccess/platform/sshclient/internal/ExecChannelRunner.hpp"
#include "sshfileaccess/platform/sshclient/internal/Session.hpp"
#include "sshfileaccess/platform/sshclient/internal/SftpChannel.hpp"
#include "sshfileaccess/platform/sshclient/internal/ShellChannelRunner.hpp"
#include "sshfileaccess/platform/sshclient/internal/StreamingCommand.hpp"
#include "sshfileaccess/platform/sshclient/internal/Transfer.hpp"
#include "sshfileaccess/platform/sshclient/internal/files/SessionFiles.hpp"

namespace foundation::sshclient {

namespace {

std::unique_ptr<internal::CommandRunner> makeRunner(internal::Session& session, CommandMode mode) {
  if (mode == CommandMode::ExecChannel) return std::make_unique<internal::ExecChannelRunner>(session);
  return std::make_unique<internal::ShellChannelRunner>(session);
}

}  // namespace

class SSHClient::Impl {
 public:
  Impl(ustring const& host, int port, AuthMethods const& authMethods, SSHClientOptions options)
      : options_(std::move(options)),
        session_(fl::i18n::ustring_to_utf8(host), port, authMethods, options_),
        runner_(makeRunner(session_, options_.commandMode)) {}

  SSHClientOptions options_;
  internal::Session session_;
  std::unique_ptr<internal::CommandRunner> runner_;
  // Made on first use; goes (with its channel) before the session.
  std::unique_ptr<internal::files::SessionFiles> files_;
};

SSHClient::SSHClient(ustring host, int port, AuthMethods authMethods)
    : SSHClient(std::move(host), port, std::move(authMethods), SSHClientOptions{}) {}

SSHClient::SSHClient(ustring host, int port, AuthMethods authMethods, SSHClientOptions options)
    : impl_(std::make_unique<Impl>(host, port, authMethods, std::move(options))) {}

SSHClient::SSHClient() = default;
SSHClient::~SSHClient() = default;

ExecuteCommandResult SSHClient::executeCommand(ExecuteCommand command) {
  internal::CommandOutput output = impl_->runner_->run(fl::i18n::ustring_to_utf8(command.getCommand()));
  return {output.exitStatus, fl::i18n::utf8_to_ustring(output.out), fl::i18n::utf8_to_ustring(output.err)};
}

bool SSHClient::shellAvailable() {
  if (std::optional<bool> const known = impl_->session_.shellFound()) return *known;
  try {
    impl_->runner_->probe();
  } catch (SSHError const& error) {
    if (error.kind() != SSHError::Kind::NoShell) throw;
    return false;
  }
  return true;
}

int SSHClient::executeStreaming(ustring const& command, CommandStreams const& streams) {
  return internal::runStreaming(impl_->session_, fl::i18n::ustring_to_utf8(command), streams);
}

void SSHClient::copyFiles(CopyFilesCommand command) {
  internal::transferFiles(impl_->session_, command, impl_->options_.progress);
}

TreeTransferReport SSHClient::copyTrees(CopyTreesCommand command) {
  return internal::transferTrees(impl_->session_, command, impl_->options_.progress,
                                 [this](std::string const& line) { return impl_->runner_->run(line).out; });
}

SftpFiles& SSHClient::sftp() {
  if (!impl_) throw std::logic_error("SSHClient::sftp: a client without a connection (a test double) must override it");
  if (!impl_->files_) {
    impl_->files_ = std::make_unique<internal::files::SessionFiles>([this] {
      return std::make_unique<internal::files::LinkOver<internal::SftpChannel>>(impl_->session_.describe(),
                                                                                impl_->session_);
    });
  }
  return *impl_->files_;
}

void SSHClient::setKeepaliveInterval(std::chrono::seconds interval) { impl_->session_.setKeepaliveInterval(interval); }

std::chrono::seconds SSHClient::getKeepaliveInterval() const { return impl_->session_.keepaliveInterval(); }

NegotiatedAlgorithms SSHClient::negotiatedAlgorithms() const {
  return impl_ ? impl_->session_.negotiated() : NegotiatedAlgorithms{};
}

}  // namespace foundation::sshclient
