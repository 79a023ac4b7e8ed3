#include "sshfileaccess/platform/sshclient/internal/SftpChannel.hpp"

#include <string_view>
#include <utility>

namespace foundation::sshclient::internal {

SftpChannel::SftpChannel(Channel opening, bool& arrived)
    : session_(opening.session()), arrived_(arrived), channel_(std::move(opening)) {
  while (!channel_.requestAnswered()) session_.wait();
  channel_.requestSubsystem("sftp", Channel::Answer::Later);
}

std::size_t SftpChannel::send(std::span<std::uint8_t const> data) {
  return channel_.write(std::string_view(reinterpret_cast<char const*>(data.data()), data.size()));
}

std::size_t SftpChannel::receive(std::span<std::uint8_t> buffer) {
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
void SftpChannel::wait(bool /*wantSend*/) {
  if (!arrived_) session_.wait();
  arrived_ = false;
}

}  // namespace foundation::sshclient::internal
