// The link's timing on a made-up clock: serialisation, delay, the queue that
// stops reading when full, the memory bound, and the option parsers.

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/link_emulator/LinkModel.hpp"

namespace sshfa::linkemu {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::uint64_t kGigabit = 1'000'000'000;
constexpr std::uint64_t kByteAMicrosecond = 8'000'000;  // 8 Mbit/s

constexpr Clock::time_point t0{std::chrono::seconds(1000)};

TEST(LinkModel, SerialisationIsRoundedUp) {
  EXPECT_EQ(serialisation(1250, kGigabit), microseconds(10));
  EXPECT_EQ(serialisation(1, 3), Nanoseconds(2'666'666'667));
  EXPECT_EQ(serialisation(1 << 20, 0), Nanoseconds(0));
}

TEST(LinkModel, ChunkIsAboutOneMillisecondOfTheRate) {
  EXPECT_EQ(chunkFor(100'000'000), 12'500U);
  EXPECT_EQ(chunkFor(kGigabit), 65'536U);
  EXPECT_EQ(chunkFor(1'000'000), 1'500U);
  EXPECT_EQ(chunkFor(0), 65'536U);
}

TEST(LinkModel, DefaultBufferIsOneBandwidthDelayProduct) {
  EXPECT_EQ(defaultBuffer(kGigabit, milliseconds(50)), 6'250'000U);
  EXPECT_EQ(defaultBuffer(100'000'000, milliseconds(100)), 1'250'000U);
  EXPECT_EQ(defaultBuffer(1'000'000, milliseconds(1)), 65'536U);
  EXPECT_EQ(defaultBuffer(0, milliseconds(50)), 16U * 1024U * 1024U);
}

TEST(LinkModel, BytesArriveAfterTheirSerialisationAndTheDelay) {
  LinkDirection link({milliseconds(10), kGigabit, 1'000'000}, t0);
  EXPECT_EQ(link.admit(t0, 12'500), t0 + microseconds(100) + milliseconds(10));
  // Queued behind the first chunk.
  EXPECT_EQ(link.admit(t0, 12'500), t0 + microseconds(200) + milliseconds(10));
  // An idle link sends at once.
  EXPECT_EQ(link.admit(t0 + std::chrono::seconds(1), 125),
            t0 + std::chrono::seconds(1) + microseconds(1) + milliseconds(10));
  EXPECT_EQ(link.held(), 25'125U);
  link.delivered(25'125);
  EXPECT_EQ(link.held(), 0U);
}

TEST(LinkModel, NothingLeavesBeforeTheLinkOpens) {
  LinkDirection link({milliseconds(25), 0, 65'536}, t0 + milliseconds(50));
  EXPECT_EQ(link.admit(t0, 1'000), t0 + milliseconds(75));
  LinkDirection limited({milliseconds(25), kByteAMicrosecond, 65'536}, t0 + milliseconds(50));
  EXPECT_EQ(limited.admit(t0, 1'000), t0 + milliseconds(50) + microseconds(1'000) + milliseconds(25));
}

TEST(LinkModel, AFullQueueLetsNothingInUntilAChunkHasLeft) {
  // A byte a microsecond, a queue of 4000 bytes, chunks of 1500.
  LinkDirection link({Nanoseconds(0), kByteAMicrosecond, 4'000}, t0);
  ASSERT_EQ(link.chunkBytes(), 1'500U);
  EXPECT_EQ(link.room(t0), 1'500U);
  link.admit(t0, 1'500);
  link.admit(t0, 1'500);
  // 3000 queued: 1000 free, less than a chunk.
  EXPECT_EQ(link.room(t0), 0U);
  EXPECT_EQ(link.roomAt(t0), t0 + microseconds(500));
  EXPECT_EQ(link.room(t0 + microseconds(499)), 0U);
  EXPECT_EQ(link.room(t0 + microseconds(500)), 1'500U);
  EXPECT_EQ(link.room(t0 + microseconds(3'000)), 1'500U);
}

TEST(LinkModel, BytesTheReceiverHasNotTakenCountAgainstTheMemoryBound) {
  // A byte a microsecond, 10 ms on the wire (10,000 bytes), a queue of 4000.
  LinkDirection link({milliseconds(10), kByteAMicrosecond, 4'000}, t0);
  EXPECT_EQ(link.memoryBound(), 4'000U + 10'000U + 1'500U);
  // The sender always has more; the receiver takes nothing.
  auto now = t0;
  std::size_t admitted = 0;
  for (int i = 0; i < 1000; ++i, now += microseconds(100)) {
    if (std::size_t const room = link.room(now); room > 0) {
      link.admit(now, room);
      admitted += room;
    }
  }
  EXPECT_LE(link.held(), link.memoryBound());
  EXPECT_GT(link.held(), link.memoryBound() - link.chunkBytes());
  EXPECT_EQ(admitted, link.held());
  EXPECT_EQ(link.room(now), 0U);
  EXPECT_EQ(link.roomAt(now), Clock::time_point::max());
  link.delivered(link.held());
  EXPECT_EQ(link.room(now), 1'500U);
}

TEST(LinkModel, WithoutARateTheBufferBoundsWhatIsOnTheWire) {
  LinkDirection link({milliseconds(10), 0, 100'000}, t0);
  EXPECT_EQ(link.memoryBound(), 100'000U);
  EXPECT_EQ(link.room(t0), 65'536U);
  link.admit(t0, 65'536);
  EXPECT_EQ(link.room(t0), 0U);  // 34,464 free, less than a chunk
  EXPECT_EQ(link.roomAt(t0), Clock::time_point::max());
}

TEST(LinkModel, RatesAndSizesAreParsed) {
  EXPECT_EQ(parseRate("1G"), kGigabit);
  EXPECT_EQ(parseRate("100M"), 100'000'000U);
  EXPECT_EQ(parseRate("250k"), 250'000U);
  EXPECT_EQ(parseRate("64000"), 64'000U);
  EXPECT_EQ(parseRate("0"), 0U);
  EXPECT_EQ(parseBytes("4M"), 4U * 1024U * 1024U);
  EXPECT_EQ(parseBytes("512K"), 512U * 1024U);
  EXPECT_EQ(parseBytes("1g"), 1024U * 1024U * 1024U);
  EXPECT_EQ(parseBytes("65536"), 65'536U);
}

TEST(LinkModel, BadRatesAndSizesAreRefusedByName) {
  for (char const* text : {"", "G", "1X", "1.5G", "10MM", "-1", "99999999999G"}) {
    try {
      (void)parseRate(text);
      ADD_FAILURE() << "accepted '" << text << "'";
    } catch (std::invalid_argument const& error) {
      EXPECT_EQ(error.what(), "invalid rate '" + std::string(text) + "'");
    }
  }
  EXPECT_THROW((void)parseBytes("4 M"), std::invalid_argument);
}

}  // namespace
}  // namespace sshfa::linkemu
