#include "sshfileaccess/platform/sshclient/internal/Transfer.hpp"

#include <string>
#include <string_view>

#include "sshfileaccess/platform/sshclient/internal/Session.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"

namespace foundation::sshclient::internal {

namespace {

// The "sftp" subsystem of one session channel as the engine's byte stream.
class ChannelTransport final : public sftp::Transport {
 public:
  // The first requests follow the subsystem request without waiting for its
  // answer; receive() checks it.
  explicit ChannelTransport(Session& session) : session_(session), channel_(session) {
    channel_.requestSubsystem("sftp", Channel::Answer::Later);
  }

  std::size_t send(std::span<std::uint8_t const> data) override {
    return channel_.write(std::string_view(reinterpret_cast<char const*>(data.data()), data.size()));
  }

  std::size_t receive(std::span<std::uint8_t> buffer) override {
    if (!accepted_) {
      try {
        accepted_ = channel_.requestAnswered();
      } catch (SSHError const& e) {
        if (e.kind() != SSHError::Kind::Channel) throw;
        session_.fail(SSHError::Kind::Transfer, "the server offers no SFTP service");
      }
    }
    if (auto const n = channel_.read(buffer.data(), buffer.size(), Stream::Stdout); n > 0) return n;
    // The server's diagnostics; read so that they never fill the window.
    channel_.read(diagnostics_, Stream::Stderr);
    bool const ended = channel_.remoteEof() || channel_.finished();
    // Those calls may have taken replies off the socket; they must be read
    // now, since waiting would wait for the next bytes on the socket.
    if (auto const n = channel_.read(buffer.data(), buffer.size(), Stream::Stdout); n > 0) return n;
    if (ended) {
      auto cause = std::string("the SFTP server ended the session");
      if (auto const end = diagnostics_.find_last_not_of(" \r\n"); end != std::string::npos) {
        cause += ": " + diagnostics_.substr(0, end + 1);
      }
      session_.fail(SSHError::Kind::Transfer, cause);
    }
    return 0;
  }

  // Replies or window space that libssh took in during the last send or
  // receive would not wake a sleep on the socket: go round once more instead.
  void wait(bool /*wantSend*/) override {
    if (!arrived_) session_.wait();
    arrived_ = false;
  }

 private:
  Session& session_;
  Channel channel_;
  bool arrived_ = false;
  ArrivalWatch watch_{channel_.raw(), arrived_};
  std::string diagnostics_;
  bool accepted_ = false;
};

}  // namespace

void transferFiles(Session& session, CopyFilesCommand const& command,
                   std::function<void(TransferProgress const&)> const& progress) {
  if (command.getItems().empty()) return;
  ChannelTransport transport(session);
  sftp::transfer(transport, session.describe(), command, progress);
}

TreeTransferReport transferTrees(Session& session, CopyTreesCommand const& command,
                                 std::function<void(TransferProgress const&)> const& progress,
                                 std::function<std::string(std::string const&)> const& shell) {
  if (command.getItems().empty()) return {};
  ChannelTransport transport(session);
  return sftp::transferTrees(transport, session.describe(), command, progress, shell);
}

}  // namespace foundation::sshclient::internal
