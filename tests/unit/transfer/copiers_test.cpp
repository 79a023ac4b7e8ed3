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

// One channel carries 2 MiB a round trip, the connection about 300 MB/s;
// two channels at least, four at most.
TEST(ChannelsFor, FollowTheRoundTrip) {
  using std::chrono::microseconds;
  using std::chrono::milliseconds;
  EXPECT_EQ(channelsFor(microseconds(60)), 2U);  // loopback
  EXPECT_EQ(channelsFor(milliseconds(6)), 2U);
  EXPECT_EQ(channelsFor(milliseconds(10)), 2U);
  EXPECT_EQ(channelsFor(milliseconds(15)), 3U);
  EXPECT_EQ(channelsFor(milliseconds(20)), 3U);
  EXPECT_EQ(channelsFor(milliseconds(25)), 4U);
  EXPECT_EQ(channelsFor(milliseconds(50)), 4U);
  EXPECT_EQ(channelsFor(milliseconds(300)), kMostChannels);
  EXPECT_EQ(channelsFor(std::chrono::nanoseconds(0)), 2U);
}

// Uploads open files 256 KiB ahead of their data on a short round trip;
// from 10 ms on, without that bound, and files start at their cap.
TEST(StartingOptions, FollowTheRoundTrip) {
  using std::chrono::microseconds;
  using std::chrono::milliseconds;
  sftp::EngineOptions const defaults;
  for (auto const roundTrip : {microseconds(60), microseconds(9'999)}) {
    auto const options = startingOptions(roundTrip);
    EXPECT_EQ(options.uploadOpenAheadBytes, 256U * 1024U);
    EXPECT_EQ(options.maxOpenFiles, 512U);
  }
  for (auto const roundTrip : {milliseconds(10), milliseconds(50)}) {
    auto const options = startingOptions(roundTrip);
    EXPECT_EQ(options.uploadOpenAheadBytes, 0U);
    EXPECT_EQ(options.maxOpenFiles, 1024U);
  }
  // Nothing else moves.
  for (auto const roundTrip : {microseconds(60), microseconds(50'000)}) {
    auto const options = startingOptions(roundTrip);
    EXPECT_EQ(options.windowBytes, defaults.windowBytes);
    EXPECT_EQ(options.uploadWindowBytes, defaults.uploadWindowBytes);
    EXPECT_EQ(options.windowCap, defaults.windowCap);
    EXPECT_EQ(options.maxOpenFilesCap, defaults.maxOpenFilesCap);
  }
}

TEST(OpenFiles, StayWithinTheProcessLimit) {
  // Debian's default soft limit: half of what 64 leave, over the channels.
  EXPECT_EQ(filesOpenPerChannel(1024, 1, 512), 480U);
  EXPECT_EQ(filesOpenPerChannel(1024, 2, 512), 240U);
  EXPECT_EQ(filesOpenPerChannel(1024, 4, 512), 120U);
  EXPECT_EQ(foldersOpen(1024), 240U);
  // A generous limit leaves the cap.
  EXPECT_EQ(filesOpenPerChannel(20000, 4, 512), 512U);
  EXPECT_EQ(foldersOpen(20000), 4984U);
  // A tiny one still lets a few through.
  EXPECT_EQ(filesOpenPerChannel(64, 2, 512), 8U);
  EXPECT_EQ(filesOpenPerChannel(10, 2, 512), 8U);
  EXPECT_EQ(foldersOpen(64), 16U);
}

}  // namespace
}  // namespace foundation::sshclient::internal::transfer
