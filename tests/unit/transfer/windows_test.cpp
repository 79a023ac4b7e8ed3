// The amounts in flight: rates measured over rounds of a round trip, and
// growth to twice the bandwidth-delay product within a floor and a cap.

#include "sshfileaccess/platform/sshclient/internal/transfer/Windows.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

namespace foundation::sshclient::internal::transfer {
namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t kMiB = 1024U * 1024U;

TEST(RateMeter, KnowsNoRateBeforeARoundEnded) {
  RateMeter meter;
  auto const t0 = Clock::time_point{} + 1s;
  meter.sample(t0, 0, 50ms);
  meter.sample(t0 + 40ms, 4'000'000, 50ms);
  EXPECT_EQ(meter.best(), 0.0);
}

TEST(RateMeter, MeasuresEachRoundAndKeepsTheBest) {
  RateMeter meter;
  auto const t0 = Clock::time_point{} + 1s;
  meter.sample(t0, 1'000, 50ms);
  meter.sample(t0 + 500ms, 1'000 + 3'000'000, 50ms);
  EXPECT_EQ(meter.best(), 6'000'000.0);
  meter.sample(t0 + 1000ms, 1'000 + 3'500'000, 50ms);  // a slower round
  EXPECT_EQ(meter.best(), 6'000'000.0);
  meter.sample(t0 + 1250ms, 1'000 + 6'000'000, 50ms);
  EXPECT_EQ(meter.best(), 10'000'000.0);
}

TEST(RateMeter, ALoopbackRoundLastsAtLeastTheShortestRound) {
  RateMeter meter;
  auto const t0 = Clock::time_point{} + 1s;
  meter.sample(t0, 0, 100us);
  meter.sample(t0 + 1ms, 1'000'000, 100us);  // a burst of replies, not a rate
  EXPECT_EQ(meter.best(), 0.0);
  meter.sample(t0 + RateMeter::kShortestRound, 2'500'000, 100us);
  EXPECT_EQ(meter.best(), 500'000'000.0);
}

TEST(Grown, StaysAtTheFloorOnLoopback) {
  // 600 MB/s over 112 µs: 134 KB would do.
  EXPECT_EQ(grown(8 * kMiB, 600e6, 112us, {8 * kMiB, 32 * kMiB}), 8 * kMiB);
  EXPECT_EQ(grown(1 * kMiB, 600e6, 112us, {1 * kMiB, 32 * kMiB}), 1 * kMiB);
}

TEST(Grown, GrowsToTwiceTheBandwidthDelayProduct) {
  EXPECT_EQ(grown(1 * kMiB, 3e6, 500ms, {1 * kMiB, 32 * kMiB}), 3'000'000U);
  EXPECT_EQ(grown(1 * kMiB, 20e6, 250ms, {1 * kMiB, 32 * kMiB}), 10'000'000U);
}

TEST(Grown, NeverShrinksNorPassesTheCap) {
  EXPECT_EQ(grown(4 * kMiB, 0, 50ms, {1 * kMiB, 32 * kMiB}), 4 * kMiB);
  EXPECT_EQ(grown(4 * kMiB, 1e9, 1s, {1 * kMiB, 32 * kMiB}), 32 * kMiB);
}

TEST(Grown, ACapBelowTheFloorKeepsTheFloor) { EXPECT_EQ(grown(0, 1e9, 1s, {8 * kMiB, 1 * kMiB}), 8 * kMiB); }

TEST(Grown, CountsFilesTheSameWay) {
  // 320 files a second, each in flight three round trips of 50 ms: 96.
  EXPECT_EQ(grown(48, 320, 150ms, {48, 256}), 96U);
}

}  // namespace
}  // namespace foundation::sshclient::internal::transfer
