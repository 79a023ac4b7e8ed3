#include "sshfileaccess/platform/sshclient/internal/Transfer.hpp"

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/PendingCommand.hpp"
#include "sshfileaccess/platform/sshclient/internal/SftpChannel.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Copiers.hpp"

namespace foundation::sshclient::internal {

void transferFiles(Session& session, CopyFilesCommand const& command,
                   std::function<void(TransferProgress const&)> const& progress) {
  if (command.getItems().empty()) return;
  SftpChannel transport(session);
  sftp::transfer(transport, session.describe(), command, progress);
}

namespace {

// A command on an exec channel of its own, beside the SFTP channel; the
// channel opens while the command is prepared. Where the server refuses the
// channel (MaxSessions), the command runs in place on `shell`.
class ChannelCommand final : public sftp::RemoteCommand {
 public:
  ChannelCommand(Session& session, std::function<std::string(std::string const&)> const& shell)
      : session_(session), shell_(shell), running_(session, std::nullopt, Channel::Answer::Later) {}
  void run(std::string const& command) override {
    command_ = command;
    if (refused_) {
      inPlace_ = shell_(command);
    } else {
      running_.run(command);
    }
  }
  bool poll() override {
    if (inPlace_) return true;
    if (refused_) return false;
    try {
      running_.step();
    } catch (SSHError const& e) {
      if (e.kind() != SSHError::Kind::Channel || running_.opened() || !shell_) throw;
      // Refused before its command came: it runs in place once given.
      refused_ = true;
      if (!command_) return false;
      inPlace_ = shell_(*command_);
      return true;
    }
    return running_.ended();
  }
  [[nodiscard]] bool news() const override { return !inPlace_ && running_.news(); }
  void wait() override { session_.wait(); }
  [[nodiscard]] std::string const& output() const override { return inPlace_ ? *inPlace_ : running_.result().out; }

 private:
  Session& session_;
  std::function<std::string(std::string const&)> const& shell_;
  std::optional<std::string> command_;
  PendingCommand running_;
  bool refused_ = false;
  std::optional<std::string> inPlace_;
};

}  // namespace

TreeTransferReport transferTrees(Session& session, CopyTreesCommand const& command,
                                 std::function<void(TransferProgress const&)> const& progress,
                                 std::function<std::string(std::string const&)> const& shell) {
  if (command.getItems().empty()) return {};
  // A caller's count: every channel is asked for at once, the SFTP
  // session's first (a server that allows fewer refuses the last), one
  // round trip for them all.
  Channel first(session, Channel::Answer::Later);
  std::vector<Channel> further;
  auto const& options = command.getOptions();
  for (std::size_t i = 1; i < options.channels && !options.dryRun; ++i) {
    further.emplace_back(session, Channel::Answer::Later);
  }
  bool arrived = false;
  auto const asked = std::chrono::steady_clock::now();
  SftpChannel transport(std::move(first), arrived);
  // The first open's answer took a round trip: it tells how much the link
  // wants in flight and, when the count is left to us, how many channels;
  // they open while SFTP starts.
  auto const roundTrip = std::chrono::steady_clock::now() - asked;
  sftp::MoreStreams more;
  if (options.channels == 0 && !options.dryRun) {
    auto const count = transfer::channelsFor(roundTrip);
    for (std::size_t i = 1; i < count; ++i) further.emplace_back(session, Channel::Answer::Later);
  }
  sftp::RemoteShell const remote{shell,
                                 [&session, &shell] { return std::make_unique<ChannelCommand>(session, shell); }};
  std::size_t next = 0;
  more.count = further.size();
  more.open = [&further, &next, &arrived]() -> std::unique_ptr<sftp::Transport> {
    if (next == further.size()) throw std::logic_error("no further channel was asked for");
    return std::make_unique<SftpChannel>(std::move(further[next++]), arrived);
  };
  return sftp::transferTrees(transport, session.describe(), command, progress, remote,
                             transfer::startingOptions(roundTrip), std::move(more));
}

}  // namespace foundation::sshclient::internal
