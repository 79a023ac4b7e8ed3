#pragma once
// How fast the link moves file data, measured in the smallest way that
// answers whether a delta pays: one short timed read of a remote file the
// transfer is about to work on. Its OPEN gives the round trip, then READs
// of up to 1 MiB at once give the rate. A measurement of the
// session's own traffic can replace it: the plan only takes a LinkSpeed.
//
// Asynchronous: start() sends requests on the session, the replies come
// through pump(), done() tells when the answer is in. A file that cannot be
// read measures nothing (a rate of 0: no delta is chosen by itself).
// Not thread-safe.

#include <chrono>
#include <cstdint>
#include <string>

#include "sshfileaccess/platform/sshclient/internal/sftp/SftpSession.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Delta.hpp"

namespace foundation::sshclient::internal::transfer {

class LinkProbe final : public sftp::ReplyHandler {
 public:
  explicit LinkProbe(sftp::SftpSession& session) : session_(session) {}

  // Reads `path`, a regular file of `size` bytes.
  void start(std::string const& path, std::uint64_t size);
  [[nodiscard]] bool started() const noexcept { return started_; }
  [[nodiscard]] bool done() const noexcept { return done_; }
  [[nodiscard]] LinkSpeed const& speed() const noexcept { return speed_; }

  void onReply(sftp::Ticket const& ticket, sftp::Reply const& reply) override;

 private:
  using Clock = std::chrono::steady_clock;
  void finish();

  sftp::SftpSession& session_;
  bool started_ = false;
  bool done_ = false;
  std::string handle_;
  std::uint64_t wanted_ = 0;
  std::uint64_t received_ = 0;
  std::size_t reads_ = 0;  // window reads awaiting an answer
  Clock::time_point sent_;
  LinkSpeed speed_;
};

}  // namespace foundation::sshclient::internal::transfer
