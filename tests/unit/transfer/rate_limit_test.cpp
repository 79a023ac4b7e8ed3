// The rate limit of transfers, on a clock the test moves: when a request may
// go, how long one is under a limit, and that an idle moment buys no burst.

#include <gtest/gtest.h>

#include <chrono>

#include "sshfileaccess/platform/sshclient/internal/transfer/RateLimit.hpp"

namespace sshfa::testing {
namespace {

using foundation::sshclient::internal::transfer::RateLimit;
using std::chrono::milliseconds;

constexpr std::uint64_t kMiB = 1024 * 1024;
RateLimit::Clock::time_point const kStart{std::chrono::seconds(1000)};

TEST(RateLimit, WithoutALimitEverythingGoesAtOnce) {
  RateLimit limit(0, kStart);
  EXPECT_FALSE(limit.limits());
  EXPECT_EQ(limit.requestLength(256 * 1024), 256U * 1024U);
  limit.take(100 * kMiB, kStart);
  EXPECT_TRUE(limit.ready(kStart));
  EXPECT_EQ(limit.readyAt(), kStart);
}

TEST(RateLimit, RequestsAreAnEighthOfASecondsWorth) {
  EXPECT_EQ(RateLimit(kMiB, kStart).requestLength(256 * 1024), 128U * 1024U);
  EXPECT_EQ(RateLimit(100 * kMiB, kStart).requestLength(256 * 1024), 256U * 1024U);
  EXPECT_EQ(RateLimit(4, kStart).requestLength(256 * 1024), 1U);
}

TEST(RateLimit, TheFirstRequestGoesAtOnceAndTheNextWhenItsBytesArePaidFor) {
  RateLimit limit(kMiB, kStart);
  EXPECT_TRUE(limit.ready(kStart));
  limit.take(128 * 1024, kStart);
  EXPECT_FALSE(limit.ready(kStart));
  EXPECT_EQ(limit.readyAt(), kStart + milliseconds(125));
  EXPECT_FALSE(limit.ready(kStart + milliseconds(124)));
  EXPECT_TRUE(limit.ready(kStart + milliseconds(125)));
}

TEST(RateLimit, FourMebibytesAtOneMebibyteASecondTakeAtLeastThreeSeconds) {
  RateLimit limit(kMiB, kStart);
  auto now = kStart;
  std::uint64_t sent = 0;
  int requests = 0;
  while (sent < 4 * kMiB) {
    if (!limit.ready(now)) now = limit.readyAt();
    ASSERT_TRUE(limit.ready(now));
    auto const length = limit.requestLength(256 * 1024);
    limit.take(length, now);
    sent += length;
    ++requests;
  }
  EXPECT_EQ(requests, 32);
  // The last request goes once the 31 before it are paid for.
  EXPECT_EQ(now, kStart + milliseconds(31 * 125));
}

TEST(RateLimit, AnIdleMomentBuysNoBurst) {
  RateLimit limit(kMiB, kStart);
  auto const later = kStart + std::chrono::seconds(60);
  EXPECT_TRUE(limit.ready(later));
  limit.take(128 * 1024, later);
  limit.take(128 * 1024, later);
  EXPECT_FALSE(limit.ready(later));
  EXPECT_EQ(limit.readyAt(), later + milliseconds(125));
}

}  // namespace
}  // namespace sshfa::testing
