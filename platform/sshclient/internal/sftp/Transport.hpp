#pragma once
// The byte stream to an SFTP server that the transfer engine drives: an SSH
// channel in production, pipes to a local sftp-server in tests.
//
// send() and receive() never block; wait() is the one call that sleeps, and
// it must not sleep forever: it throws SSHError (ConnectionLost, Timeout)
// when the other end is gone or silent for too long.

#include <cstddef>
#include <cstdint>
#include <span>

namespace foundation::sshclient::internal::sftp {

class Transport {
 public:
  virtual ~Transport() = default;

  // Takes as many leading bytes of `data` as can go out now; may be 0.
  virtual std::size_t send(std::span<std::uint8_t const> data) = 0;
  // Copies bytes that have already arrived into `buffer`; 0 when none yet.
  // Throws SSHError(ConnectionLost) once the stream has ended.
  virtual std::size_t receive(std::span<std::uint8_t> buffer) = 0;
  // Sleeps until receive() may have something, or send() may take more when
  // `wantSend`.
  virtual void wait(bool wantSend) = 0;

 protected:
  Transport() = default;
  Transport(Transport const&) = default;
  Transport& operator=(Transport const&) = default;
};

}  // namespace foundation::sshclient::internal::sftp
