#pragma once
// The "sftp" subsystem of one session channel as the byte stream an SFTP
// session drives (sftp::Transport). The channel is opened and the subsystem
// asked for at construction; the first requests may follow without waiting
// for the answer, which receive() checks: a refusal is SSHError(Transfer)
// "the server offers no SFTP service", and a server that ends the session
// is SSHError(Transfer) with what it wrote to standard error. Closed when
// destroyed; must not outlive its Session.
//
// Several channels driven by one loop share one arrival flag: news taken in
// for any of them keeps wait() from sleeping on the socket.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "sshfileaccess/platform/sshclient/internal/Session.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Transport.hpp"

namespace foundation::sshclient::internal {

class SftpChannel final : public sftp::Transport {
 public:
  explicit SftpChannel(Session& session) : SftpChannel(Channel(session), ownArrival_) {}
  // On `opening` (whose open may still await its answer: a refusal throws
  // SSHError(Channel) once it came). `arrived` is shared with the loop's
  // other channels and outlives this one.
  SftpChannel(Channel opening, bool& arrived);

  std::size_t send(std::span<std::uint8_t const> data) override;
  std::size_t receive(std::span<std::uint8_t> buffer) override;
  void wait(bool wantSend) override;

 private:
  bool ownArrival_ = false;
  Session& session_;
  bool& arrived_;
  Channel channel_;
  ArrivalWatch watch_{channel_.raw(), arrived_};
  std::string diagnostics_;
  bool accepted_ = false;
};

}  // namespace foundation::sshclient::internal
