#include "sshfileaccess/platform/sshclient/internal/Transfer.hpp"

#include <string>

#include "sshfileaccess/platform/sshclient/internal/PendingCommand.hpp"
#include "sshfileaccess/platform/sshclient/internal/SftpChannel.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"

namespace foundation::sshclient::internal {

void transferFiles(Session& session, CopyFilesCommand const& command,
                   std::function<void(TransferProgress const&)> const& progress) {
  if (command.getItems().empty()) return;
  SftpChannel transport(session);
  sftp::transfer(transport, session.describe(), command, progress);
}

namespace {

// A command on an exec channel of its own, beside the SFTP channel.
class ChannelCommand final : public sftp::RemoteCommand {
 public:
  ChannelCommand(Session& session, std::string command) : session_(session), running_(session, std::move(command)) {}
  bool poll() override {
    running_.step();
    return running_.ended();
  }
  [[nodiscard]] bool news() const override { return running_.news(); }
  void wait() override { session_.wait(); }
  [[nodiscard]] std::string const& output() const override { return running_.result().out; }

 private:
  Session& session_;
  PendingCommand running_;
};

}  // namespace

TreeTransferReport transferTrees(Session& session, CopyTreesCommand const& command,
                                 std::function<void(TransferProgress const&)> const& progress,
                                 std::function<std::string(std::string const&)> const& shell) {
  if (command.getItems().empty()) return {};
  bool arrived = false;
  SftpChannel transport(session, arrived);
  sftp::RemoteShell const remote{
      shell, [&session](std::string const& line) { return std::make_unique<ChannelCommand>(session, line); }};
  auto const more = [&session, &arrived]() -> std::unique_ptr<sftp::Transport> {
    return std::make_unique<SftpChannel>(session, arrived);
  };
  return sftp::transferTrees(transport, session.describe(), command, progress, remote, {}, more);
}

}  // namespace foundation::sshclient::internal
