#pragma once
// A limit on the file data a transfer moves per second: a token bucket that
// fills at the rate and holds at most one request's worth, so that an idle
// moment buys no burst. A request may go while the bucket is not in debt and
// takes its length from it (which may put it into debt); readyAt() says when
// the next one may go, so a caller sleeps exactly that long, never polling.
//
// Pure arithmetic on the time points it is given: no clock of its own is
// read, nothing throws. Not thread-safe.

#include <chrono>
#include <cstdint>

namespace foundation::sshclient::internal::transfer {

class RateLimit {
 public:
  using Clock = std::chrono::steady_clock;

  // bytesPerSecond 0: no limit (every request may go at once).
  RateLimit(std::uint64_t bytesPerSecond, Clock::time_point start) noexcept;

  [[nodiscard]] bool limits() const noexcept { return rate_ > 0; }
  // The length of one request under the limit: an eighth of a second's
  // worth (at least one byte), at most `chunk`; `chunk` without a limit.
  [[nodiscard]] std::uint32_t requestLength(std::uint32_t chunk) const noexcept;
  // Whether a request may go at `now`.
  [[nodiscard]] bool ready(Clock::time_point now) noexcept;
  // A request of `bytes` went at `now`.
  void take(std::uint64_t bytes, Clock::time_point now) noexcept;
  // When the next request may go (a time already past when it may go now).
  [[nodiscard]] Clock::time_point readyAt() const noexcept;

 private:
  void refill(Clock::time_point now) noexcept;

  std::uint64_t rate_;
  double tokens_ = 0;  // bytes that may go; negative: debt
  Clock::time_point last_;
};

}  // namespace foundation::sshclient::internal::transfer
