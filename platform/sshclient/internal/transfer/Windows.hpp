#pragma once
// How much one transfer keeps in flight: pure decisions from what the SFTP
// replies measured (SftpSession::roundTrip and dataAnswered), so that the
// amounts follow the link. A long link gets larger windows and more files at
// once; on loopback they stay at the floors that measured fastest there (more
// in flight only slows sftp-server).
//
// An amount grows while the link could carry more than it holds: to twice
// the best rate seen times the time a unit spends in flight (for data, the
// bandwidth-delay product). While the amount in flight is what limits the
// rate, that doubles it every round; once the link or the server limits the
// rate, it stops growing. Nothing shrinks: the caps bound the memory.
// No I/O and no clock of its own: callers pass the times. Not thread-safe.

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace foundation::sshclient::internal::transfer {

using Clock = std::chrono::steady_clock;

// The best rate of a stream of deliveries, measured over rounds of at least
// one round trip, and at least kShortestRound: loopback's round trips are so
// short that a burst of replies would pass for a rate.
class RateMeter {
 public:
  static constexpr Clock::duration kShortestRound = std::chrono::milliseconds(5);

  // `delivered`: the total so far.
  void sample(Clock::time_point now, std::uint64_t delivered, Clock::duration roundTrip);
  // Per second; 0 until a round ended.
  [[nodiscard]] double best() const noexcept { return best_; }

 private:
  bool begun_ = false;
  Clock::time_point start_;
  std::uint64_t base_ = 0;
  double best_ = 0;
};

struct Bounds {
  std::uint64_t floor = 0;
  std::uint64_t cap = 0;
};

// `current` grown to twice `rate` (per second) times `span`, within `bounds`.
[[nodiscard]] std::uint64_t grown(std::uint64_t current, double rate, Clock::duration span, Bounds bounds);

}  // namespace foundation::sshclient::internal::transfer
