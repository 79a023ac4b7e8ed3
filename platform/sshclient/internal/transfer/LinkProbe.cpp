#include "sshfileaccess/platform/sshclient/internal/transfer/LinkProbe.hpp"

#include <algorithm>
#include <utility>

namespace foundation::sshclient::internal::transfer {

namespace {

using sftp::PacketType;

// Enough to see the rate past the first round trip, little to spend on it.
constexpr std::uint64_t kProbeBytes = 1024U * 1024U;
// Below this the time is noise: the link counts as this fast.
constexpr double kShortestSeconds = 1e-4;

enum Step : std::uint32_t { kOpen, kWindow };

}  // namespace

void LinkProbe::start(std::string const& path, std::uint64_t size) {
  started_ = true;
  wanted_ = std::min(size, kProbeBytes);
  sent_ = Clock::now();
  session_.open({this, kOpen}, path, sftp::openflags::kRead, sftp::Attributes{});
}

void LinkProbe::onReply(sftp::Ticket const& ticket, sftp::Reply const& reply) {
  auto const now = Clock::now();
  switch (ticket.kind) {
    case kOpen: {
      // The open's answer took a round trip: the reads need not time one more.
      speed_.roundTripSeconds = std::chrono::duration<double>(now - sent_).count();
      if (reply.type != PacketType::Handle || wanted_ == 0) return finish();
      handle_ = std::string(reply.handle);
      sent_ = now;
      auto const chunk = session_.readChunk();
      for (std::uint64_t offset = 0; offset < wanted_; offset += chunk) {
        auto const length = static_cast<std::uint32_t>(std::min<std::uint64_t>(chunk, wanted_ - offset));
        session_.read({this, kWindow}, handle_, offset, length);
        ++reads_;
      }
      return;
    }
    case kWindow:
      if (reply.type == PacketType::Data) received_ += reply.data.size();
      if (--reads_ > 0) return;
      // The first bytes of the window came a round trip after it went out.
      if (received_ > 0) {
        auto const seconds = std::chrono::duration<double>(now - sent_).count() - speed_.roundTripSeconds;
        speed_.bytesPerSecond = static_cast<double>(received_) / std::max(seconds, kShortestSeconds);
      }
      return finish();
    default:
      return;
  }
}

void LinkProbe::finish() {
  if (!handle_.empty()) session_.close(sftp::SftpSession::ignored(), std::exchange(handle_, std::string()));
  done_ = true;
}

}  // namespace foundation::sshclient::internal::transfer
