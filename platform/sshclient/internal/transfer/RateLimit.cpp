#include "sshfileaccess/platform/sshclient/internal/transfer/RateLimit.hpp"

#include <algorithm>

namespace foundation::sshclient::internal::transfer {

namespace {

// Requests per second under a limit: small enough that a wait between two
// is short, large enough that each carries a worthwhile amount of data.
constexpr std::uint64_t kRequestsPerSecond = 8;
// Rounding of the arithmetic in seconds must not hold a request back.
constexpr double kSlack = 0.5;

}  // namespace

RateLimit::RateLimit(std::uint64_t bytesPerSecond, Clock::time_point start) noexcept
    : rate_(bytesPerSecond), last_(start) {}

std::uint32_t RateLimit::requestLength(std::uint32_t chunk) const noexcept {
  if (rate_ == 0) return chunk;
  return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(rate_ / kRequestsPerSecond, 1, chunk));
}

void RateLimit::refill(Clock::time_point now) noexcept {
  if (now <= last_) return;
  double const seconds = std::chrono::duration<double>(now - last_).count();
  // Full at one request: an idle moment buys no burst.
  double const capacity = static_cast<double>(requestLength(UINT32_MAX));
  tokens_ = std::min(capacity, tokens_ + seconds * static_cast<double>(rate_));
  last_ = now;
}

bool RateLimit::ready(Clock::time_point now) noexcept {
  if (rate_ == 0) return true;
  refill(now);
  return tokens_ > -kSlack;
}

void RateLimit::take(std::uint64_t bytes, Clock::time_point now) noexcept {
  if (rate_ == 0) return;
  refill(now);
  tokens_ -= static_cast<double>(bytes);
}

RateLimit::Clock::time_point RateLimit::readyAt() const noexcept {
  if (rate_ == 0 || tokens_ > -kSlack) return last_;
  auto const wait = std::chrono::duration<double>(-tokens_ / static_cast<double>(rate_));
  return last_ + std::chrono::ceil<Clock::duration>(wait);
}

}  // namespace foundation::sshclient::internal::transfer
