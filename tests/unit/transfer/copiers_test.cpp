// Which copier a file goes to: the one holding its destination, else the
// least loaded with room in its queue.

#include "sshfileaccess/platform/sshclient/internal/transfer/Copiers.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <vector>

namespace foundation::sshclient::internal::transfer {
namespace {

TEST(CopierFor, TakesTheLeastLoaded) {
  std::vector<CopierLoad> const loads{{3, 10, false}, {2, 4, false}, {0, 9, false}};
  EXPECT_EQ(copierFor(loads, 64), std::optional<std::size_t>(1));
}

TEST(CopierFor, TakesTheFirstOfEquals) {
  std::vector<CopierLoad> const loads{{1, 4, false}, {0, 5, false}, {2, 3, false}};
  EXPECT_EQ(copierFor(loads, 64), std::optional<std::size_t>(0));
}

TEST(CopierFor, PassesOverAFullQueue) {
  std::vector<CopierLoad> const loads{{64, 0, false}, {10, 40, false}};
  EXPECT_EQ(copierFor(loads, 64), std::optional<std::size_t>(1));
}

TEST(CopierFor, WaitsWhenEveryQueueIsFull) {
  std::vector<CopierLoad> const loads{{64, 0, false}, {64, 1, false}};
  EXPECT_EQ(copierFor(loads, 64), std::nullopt);
}

TEST(CopierFor, KeepsADestinationWithTheCopierHoldingIt) {
  std::vector<CopierLoad> const loads{{0, 0, false}, {30, 40, true}};
  EXPECT_EQ(copierFor(loads, 64), std::optional<std::size_t>(1));
}

TEST(CopierFor, WaitsForTheHolderOfADestinationWhenItsQueueIsFull) {
  std::vector<CopierLoad> const loads{{0, 0, false}, {64, 40, true}};
  EXPECT_EQ(copierFor(loads, 64), std::nullopt);
}

// One channel carries 2 MiB a round trip, the connection about 300 MB/s.
TEST(ChannelsFor, FollowTheRoundTrip) {
  using std::chrono::microseconds;
  using std::chrono::milliseconds;
  EXPECT_EQ(channelsFor(microseconds(60)), 1U);  // loopback
  EXPECT_EQ(channelsFor(milliseconds(6)), 1U);
  EXPECT_EQ(channelsFor(milliseconds(10)), 2U);
  EXPECT_EQ(channelsFor(milliseconds(20)), 3U);
  EXPECT_EQ(channelsFor(milliseconds(25)), 4U);
  EXPECT_EQ(channelsFor(milliseconds(50)), 4U);
  EXPECT_EQ(channelsFor(milliseconds(300)), kMostChannels);
  EXPECT_EQ(channelsFor(std::chrono::nanoseconds(0)), 1U);
}

}  // namespace
}  // namespace foundation::sshclient::internal::transfer
