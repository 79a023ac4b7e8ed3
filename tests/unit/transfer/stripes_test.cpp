// A big file shared out among channels: ranges in order, never further than
// the reach past what wholly arrived, and what a resume may trust of it.

#include "sshfileaccess/platform/sshclient/internal/transfer/Stripes.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>

namespace foundation::sshclient::internal::transfer {
namespace {

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20U;

Stripe stripe(std::uint64_t from, std::uint64_t size) { return {"/src/f", "/dst/f", "/dst/.f.sshfa-x", from, size}; }

TEST(Stripe, HandsOutRangesInOrderUpToTheSize) {
  auto s = stripe(0, 2 * kMiB + 5);
  auto const a = s.take(kMiB);
  auto const b = s.take(kMiB);
  auto const c = s.take(kMiB);
  ASSERT_TRUE(a && b && c);
  EXPECT_EQ(a->offset, 0U);
  EXPECT_EQ(a->end, kMiB);
  EXPECT_EQ(b->offset, kMiB);
  EXPECT_EQ(c->offset, 2 * kMiB);
  EXPECT_EQ(c->end, 2 * kMiB + 5);
  EXPECT_TRUE(s.handedOut());
  EXPECT_EQ(s.take(kMiB), std::nullopt);
  EXPECT_FALSE(s.complete());
}

TEST(Stripe, StartsWhereAResumeContinues) {
  auto s = stripe(3 * kMiB, 4 * kMiB);
  auto const a = s.take(kMiB);
  ASSERT_TRUE(a);
  EXPECT_EQ(a->offset, 3 * kMiB);
  EXPECT_EQ(s.prefix(), 3 * kMiB);
}

TEST(Stripe, NeverReachesFurtherThanTheReachPastThePrefix) {
  auto s = stripe(0, 64 * kMiB);
  std::uint64_t handed = 0;
  while (auto const grant = s.take(kMiB)) handed = grant->end;
  EXPECT_EQ(handed, kUnorderedReach);
  // Later ranges arriving do not move the prefix past a hole at 0.
  s.arrived(kMiB, kUnorderedReach - kMiB);
  EXPECT_EQ(s.prefix(), 0U);
  EXPECT_EQ(s.take(kMiB), std::nullopt);
  // The first range closes the hole: everything handed out has arrived.
  s.arrived(0, kMiB);
  EXPECT_EQ(s.prefix(), kUnorderedReach);
  auto const next = s.take(kMiB);
  ASSERT_TRUE(next);
  EXPECT_EQ(next->offset, kUnorderedReach);
}

TEST(Stripe, IsCompleteWhenEveryRangeArrivedInAnyOrder) {
  auto s = stripe(0, 3 * kMiB);
  while (s.take(kMiB)) {
  }
  s.arrived(2 * kMiB, kMiB);
  s.arrived(kMiB, kMiB);
  EXPECT_FALSE(s.complete());
  s.arrived(0, kMiB);
  EXPECT_TRUE(s.complete());
}

TEST(Stripe, TheFirstFailureStaysAndEndsIt) {
  auto s = stripe(0, 3 * kMiB);
  s.fail("cannot write '/dst/.f.sshfa-x': Permission denied");
  s.fail("later");
  EXPECT_TRUE(s.ended());
  EXPECT_EQ(s.failure(), "cannot write '/dst/.f.sshfa-x': Permission denied");
  EXPECT_EQ(s.take(kMiB), std::nullopt);
}

TEST(StripeBoard, OffersOnlyFilesWithRangesLeft) {
  StripeBoard board;
  auto const done = std::make_shared<Stripe>(stripe(0, kMiB));
  auto const open = std::make_shared<Stripe>(stripe(0, 4 * kMiB));
  auto const ended = std::make_shared<Stripe>(stripe(0, 4 * kMiB));
  ended->end();
  board.post(done);
  board.post(ended);
  board.post(open);
  ASSERT_TRUE(done->take(kMiB));
  EXPECT_EQ(board.next(), open);
  while (open->take(kMiB)) {
  }
  EXPECT_EQ(board.next(), nullptr);
}

TEST(TrustedPrefix, IsAllOfASmallFileAndLessTheReachOfAShareableOne) {
  EXPECT_EQ(trustedPrefix(5 * kMiB, 20 * kMiB), 5 * kMiB);
  EXPECT_EQ(trustedPrefix(40 * kMiB, kStripedFrom), 40 * kMiB - kUnorderedReach);
  EXPECT_EQ(trustedPrefix(kUnorderedReach, kStripedFrom), 0U);
}

}  // namespace
}  // namespace foundation::sshclient::internal::transfer
