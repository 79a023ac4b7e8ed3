#include "sshfileaccess/platform/sshclient/internal/transfer/Windows.hpp"

#include <algorithm>
#include <cmath>

namespace foundation::sshclient::internal::transfer {

namespace {

double seconds(Clock::duration span) { return std::chrono::duration<double>(span).count(); }

}  // namespace

void RateMeter::sample(Clock::time_point now, std::uint64_t delivered, Clock::duration roundTrip) {
  if (!begun_) {
    begun_ = true;
    start_ = now;
    base_ = delivered;
    return;
  }
  auto const elapsed = now - start_;
  if (elapsed < std::max(roundTrip, kShortestRound)) return;
  best_ = std::max(best_, static_cast<double>(delivered - base_) / seconds(elapsed));
  start_ = now;
  base_ = delivered;
}

std::uint64_t grown(std::uint64_t current, double rate, Clock::duration span, Bounds bounds) {
  auto const wanted = 2.0 * rate * seconds(span);
  auto const grownTo =
      wanted >= static_cast<double>(bounds.cap) ? bounds.cap : static_cast<std::uint64_t>(std::ceil(wanted));
  return std::clamp(std::max(current, grownTo), bounds.floor, std::max(bounds.floor, bounds.cap));
}

}  // namespace foundation::sshclient::internal::transfer
