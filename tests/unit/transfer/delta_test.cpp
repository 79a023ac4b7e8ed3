// The pure pieces of delta updates, without a server: block sizes, the
// ranges a delta sends, the remote hashing command and its answers, and the
// rule that chooses a delta by itself.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Delta.hpp"

namespace sshfa::testing {
namespace {

namespace tr = foundation::sshclient::internal::transfer;
using foundation::sshclient::internal::sha256Of;
using tr::BlockHashes;
using tr::ByteRange;
using tr::RemoteBlockStatus;

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;

TEST(DeltaBlockSize, AboutSixtyFourBlocksOfTheLargerVersionWithinBounds) {
  EXPECT_EQ(tr::deltaBlockSize(0, 0), 128 * kKiB);
  EXPECT_EQ(tr::deltaBlockSize(3 * kMiB, 0), 128 * kKiB);
  EXPECT_EQ(tr::deltaBlockSize(8 * kMiB, 8 * kMiB), 128 * kKiB);
  EXPECT_EQ(tr::deltaBlockSize(8 * kMiB + 1, 0), 256 * kKiB);
  EXPECT_EQ(tr::deltaBlockSize(64 * kMiB, 64 * kMiB), kMiB);
  EXPECT_EQ(tr::deltaBlockSize(10 * kMiB, 64 * kMiB), kMiB);
  EXPECT_EQ(tr::deltaBlockSize(66 * kMiB, 64 * kMiB), 2 * kMiB);
  EXPECT_EQ(tr::deltaBlockSize(256 * kMiB, 0), 4 * kMiB);
  EXPECT_EQ(tr::deltaBlockSize(5 * kMiB * kMiB, 0), 4 * kMiB);
}

TEST(TailOverOld, OnlyAShortLastBlockOfAnOldVersionTheSourceGoesPast) {
  EXPECT_EQ(tr::tailOverOld(100, 250, 130), (ByteRange{100, 130}));
  EXPECT_EQ(tr::tailOverOld(100, 250, 30), (ByteRange{0, 30}));
  EXPECT_EQ(tr::tailOverOld(100, 250, 200), std::nullopt);  // full blocks only
  EXPECT_EQ(tr::tailOverOld(100, 130, 130), std::nullopt);  // not longer
  EXPECT_EQ(tr::tailOverOld(100, 120, 130), std::nullopt);  // shorter
  EXPECT_EQ(tr::tailOverOld(100, 250, 0), std::nullopt);
}

// Blocks of `size` bytes of `bytes`, hashed as the remote host would.
BlockHashes blocksOf(std::string const& bytes, std::uint64_t blockSize) {
  BlockHashes blocks;
  blocks.size = bytes.size();
  for (std::uint64_t at = 0; at < bytes.size(); at += blockSize)
    blocks.hashes.push_back(sha256Of(bytes.substr(at, blockSize)));
  return blocks;
}

struct RangeCase {
  std::string name;
  std::string source;
  std::string old;
  std::vector<ByteRange> send;
  std::uint64_t reused;
};

void PrintTo(RangeCase const& c, std::ostream* out) { *out << c.name; }

std::string const kOld = "aaaaBBBBccccDDDDee";  // blocks of 4: aaaa BBBB cccc DDDD ee

std::vector<RangeCase> const kRangeCases{
    {"Unchanged", kOld, kOld, {}, 18},
    {"OneBlockChanged", "aaaaBxBBccccDDDDee", kOld, {{4, 8}}, 14},
    {"FirstAndLastBlocksChanged", "xaaaBBBBccccDDDDex", kOld, {{0, 4}, {16, 18}}, 12},
    {"TwoNeighboursJoinIntoOneRange", "aaaaBBBxcxccDDDDee", kOld, {{4, 12}}, 10},
    {"AnAppendSendsOnlyTheTail", kOld + "fffffff", kOld, {{18, 25}}, 18},
    {"AnAppendToFullBlocksSendsOnlyTheTail", "aaaaBBBBzz", "aaaaBBBB", {{8, 10}}, 8},
    {"AGrownFileThatChangedInItsOldTailSendsThatBlock", "aaaaBBBBccccDDDDeXff", kOld, {{16, 20}}, 16},
    {"ATruncatedFileSendsItsShortLastBlock", "aaaaBBBBcc", kOld, {{8, 10}}, 8},
    {"ATruncationAtABlockBoundarySendsNothing", "aaaaBBBB", kOld, {}, 8},
    {"AnEmptyOldVersionSendsEverything", "aaaaBB", "", {{0, 6}}, 0},
    {"AnEmptySourceSendsNothing", "", kOld, {}, 0},
    {"AnInsertionSendsTheRest", "aaaaXBBBBccccDDDDee", kOld, {{4, 19}}, 4},
};

class Ranges : public ::testing::TestWithParam<RangeCase> {};

TEST_P(Ranges, SendWhatDiffersAndNothingElse) {
  auto const& c = GetParam();
  auto const source = blocksOf(c.source, 4);
  auto const old = blocksOf(c.old, 4);
  std::optional<std::string> tailHash;
  if (auto const tail = tr::tailOverOld(4, c.source.size(), c.old.size())) {
    tailHash = sha256Of(c.source.substr(tail->begin, tail->end - tail->begin));
  }
  auto const ranges = tr::changedRanges(4, source, old, tailHash);
  EXPECT_EQ(ranges.send, c.send);
  EXPECT_EQ(ranges.reused, c.reused);
  // Sent and reused make the whole source.
  std::uint64_t sent = 0;
  for (auto const& range : ranges.send) sent += range.end - range.begin;
  EXPECT_EQ(sent + ranges.reused, c.source.size());
  // Built as the copier builds it: the old version, the ranges written, cut.
  std::string built = c.old;
  for (auto const& range : ranges.send) {
    if (built.size() < range.end) built.resize(range.end);
    built.replace(range.begin, range.end - range.begin, c.source.substr(range.begin, range.end - range.begin));
  }
  built.resize(c.source.size());
  EXPECT_EQ(built, c.source);
}

INSTANTIATE_TEST_SUITE_P(Delta, Ranges, ::testing::ValuesIn(kRangeCases),
                         [](::testing::TestParamInfo<RangeCase> const& param) { return param.param.name; });

TEST(ChangedRanges, WithoutTheTailsHashAGrownFileSendsTheOldShortBlock) {
  auto const source = kOld + "ff";
  auto const ranges = tr::changedRanges(4, blocksOf(source, 4), blocksOf(kOld, 4), std::nullopt);
  EXPECT_EQ(ranges.send, (std::vector<ByteRange>{{16, 20}}));
  EXPECT_EQ(ranges.reused, 16U);
}

TEST(ChangedRanges, HashesThatDoNotFitTheirSizeSendEverything) {
  auto old = blocksOf(kOld, 4);
  old.hashes.pop_back();
  auto const ranges = tr::changedRanges(4, blocksOf(kOld, 4), old, std::nullopt);
  EXPECT_EQ(ranges.send, (std::vector<ByteRange>{{0, 18}}));
  EXPECT_EQ(ranges.reused, 0U);
}

TEST(RemoteBlockHashCommand, HashesTheBlocksInPartsAtOnceAndSaysWhatIsMissing) {
  EXPECT_EQ(tr::remoteBlockHashCommand({.path = "/srv/a b", .blockSize = 1048576, .copyFrom = {}, .tail = {}}),
            "if ! split -b 1 --filter=: </dev/null >/dev/null 2>&1; then echo no-split; "
            "elif ! s=$(wc -c <'/srv/a b'); then echo unreadable; "
            "else h=sha256sum; b2sum </dev/null >/dev/null 2>&1 && h=b2sum; echo $h; echo $s; "
            "b=1048576; n=$(((s+b-1)/b)); p=$(nproc) || p=1; [ $p -le 8 ] || p=8; "
            "k=$(((n+p-1)/p)); i=0; while [ $i -lt $n ]; do "
            "{ dd if='/srv/a b' bs=$b skip=$i count=$k 2>/dev/null | SHELL=/bin/sh split -a 9 -b $b "
            "--filter=$h || echo failed; } | { j=$i; while read v w; do echo $j $v; j=$((j+1)); done; } & "
            "i=$((i+k)); done; wait; echo end; fi 2>/dev/null");
}

TEST(RemoteBlockHashCommand, CopiesTheOldVersionFirstAndHashesATail) {
  EXPECT_EQ(
      tr::remoteBlockHashCommand(
          {.path = "/d/.f.sshfa-1", .blockSize = 131072, .copyFrom = "/d/-f'", .tail = ByteRange{131072, 131100}}),
      "if ! split -b 1 --filter=: </dev/null >/dev/null 2>&1; then echo no-split; "
      "elif ! dd if='/d/-f'\\''' of='/d/.f.sshfa-1' bs=1048576 conv=nocreat status=none; then echo no-copy; "
      "elif ! s=$(wc -c <'/d/.f.sshfa-1'); then echo unreadable; "
      "else h=sha256sum; b2sum </dev/null >/dev/null 2>&1 && h=b2sum; echo $h; echo $s; "
      "b=131072; n=$(((s+b-1)/b)); p=$(nproc) || p=1; [ $p -le 8 ] || p=8; "
      "k=$(((n+p-1)/p)); i=0; while [ $i -lt $n ]; do "
      "{ dd if='/d/.f.sshfa-1' bs=$b skip=$i count=$k 2>/dev/null | SHELL=/bin/sh split -a 9 -b $b "
      "--filter=$h || echo failed; } | { j=$i; while read v w; do echo $j $v; j=$((j+1)); done; } & "
      "i=$((i+k)); done; wait; "
      "{ tail -c +131073 <'/d/.f.sshfa-1' | head -c 28 | $h || echo failed; } | { read v w; echo tail $v; }; "
      "echo end; fi 2>/dev/null");
}

std::string const kHashA(64, 'a');
std::string const kHashB = std::string(63, '0') + "1";
std::string const kHashC = std::string(63, '0') + "2";
std::string const kHashB2(128, 'b');

TEST(ParseRemoteBlockHashes, B2sumHashesAreLonger) {
  auto const answer = tr::parseRemoteBlockHashes("b2sum\n9\n1 " + kHashB2 + "\n0 " + kHashB2 + "\nend\n", 8, false);
  EXPECT_EQ(answer.status, RemoteBlockStatus::Hashed);
  EXPECT_EQ(answer.hash, foundation::sshclient::internal::HashKind::Blake2b512);
  EXPECT_THAT(answer.blocks.hashes, ::testing::ElementsAre(kHashB2, kHashB2));
}

TEST(ParseRemoteBlockHashes, TheSizeAHashPerBlockInAnyOrderAndTheEnd) {
  auto const answer = tr::parseRemoteBlockHashes(
      "sha256sum\n20\n2 " + kHashC + "\n0 " + kHashA + "\n1 " + kHashB + "\nend\n", 8, false);
  EXPECT_EQ(answer.status, RemoteBlockStatus::Hashed);
  EXPECT_EQ(answer.hash, foundation::sshclient::internal::HashKind::Sha256);
  EXPECT_EQ(answer.blocks.size, 20U);
  EXPECT_THAT(answer.blocks.hashes, ::testing::ElementsAre(kHashA, kHashB, kHashC));
  EXPECT_EQ(answer.tail, std::nullopt);
}

TEST(ParseRemoteBlockHashes, ATailAfterTheBlocksAndAPaddedSize) {
  auto const answer =
      tr::parseRemoteBlockHashes("sha256sum\n   8\n0 " + kHashA + "\ntail " + kHashB + "\nend\n", 8, true);
  EXPECT_EQ(answer.blocks.size, 8U);
  EXPECT_THAT(answer.blocks.hashes, ::testing::ElementsAre(kHashA));
  EXPECT_EQ(answer.tail, kHashB);
}

TEST(ParseRemoteBlockHashes, AnEmptyFileHasNoBlocks) {
  auto const answer = tr::parseRemoteBlockHashes("b2sum\n0\nend\n", 8, false);
  EXPECT_EQ(answer.status, RemoteBlockStatus::Hashed);
  EXPECT_TRUE(answer.blocks.hashes.empty());
}

TEST(ParseRemoteBlockHashes, WhatWasMissingIsNamed) {
  EXPECT_EQ(tr::parseRemoteBlockHashes("no-split\n", 8, false).status, RemoteBlockStatus::NoSplit);
  EXPECT_EQ(tr::parseRemoteBlockHashes("no-copy\n", 8, false).status, RemoteBlockStatus::NoCopy);
  EXPECT_EQ(tr::parseRemoteBlockHashes("unreadable\n", 8, false).status, RemoteBlockStatus::Unreadable);
  // A part stopped part way: what the others hashed does not count.
  auto const failed = tr::parseRemoteBlockHashes("sha256sum\n10\n0 " + kHashA + "\n1 failed\nend\n", 8, false);
  EXPECT_EQ(failed.status, RemoteBlockStatus::Failed);
  EXPECT_TRUE(failed.blocks.hashes.empty());
}

// Lines as they come in, before the answer is whole.
TEST(RemoteAnswerLines, ASizePaddedOrNot) {
  EXPECT_EQ(tr::remoteSizeLine("10"), 10U);
  EXPECT_EQ(tr::remoteSizeLine("   67108864"), 67108864U);
  EXPECT_EQ(tr::remoteSizeLine("b2sum"), std::nullopt);
  EXPECT_EQ(tr::remoteSizeLine(""), std::nullopt);
  EXPECT_EQ(tr::remoteSizeLine("10 "), std::nullopt);
}

TEST(RemoteAnswerLines, ABlockLineOfTheToolsHash) {
  // The hash is a view into the line.
  std::string const line = "17 " + kHashA;
  auto const block = tr::blockHashLine(line, foundation::sshclient::internal::HashKind::Sha256);
  ASSERT_TRUE(block);
  EXPECT_EQ(block->index, 17U);
  EXPECT_EQ(block->hash, kHashA);
  // Of another tool's length, a failure, the tail, anything else: not a block's.
  EXPECT_FALSE(tr::blockHashLine("17 " + kHashA, foundation::sshclient::internal::HashKind::Blake2b512));
  EXPECT_FALSE(tr::blockHashLine("17 failed", foundation::sshclient::internal::HashKind::Sha256));
  EXPECT_FALSE(tr::blockHashLine("tail " + kHashA, foundation::sshclient::internal::HashKind::Sha256));
  EXPECT_FALSE(tr::blockHashLine("17", foundation::sshclient::internal::HashKind::Sha256));
  EXPECT_FALSE(tr::blockHashLine("end", foundation::sshclient::internal::HashKind::Sha256));
}

TEST(ParseRemoteBlockHashes, AnythingElseIsNoAnswer) {
  auto const refused = [](std::string const& output, bool withTail = false) {
    EXPECT_THROW((void)tr::parseRemoteBlockHashes(output, 8, withTail), std::runtime_error) << output;
  };
  refused("");
  refused("sha256sum\n10\nend");                      // unfinished
  refused("8\n0 " + kHashA + "\nend\n");              // no tool named
  refused("md5sum\n8\n0 " + kHashA + "\nend\n");      // not a tool of ours
  refused("b2sum\n8\n0 " + kHashA + "\nend\n");       // not b2sum's length
  refused("sha256sum\n8\n0 " + kHashB2 + "\nend\n");  // not sha256sum's length
  refused("sha256sum\n10\n0 " + kHashA + "\nend\n");  // a block missing
  refused("sha256sum\nten\nend\n");
  refused("sha256sum\nend\n");                                           // no size
  refused("sha256sum\n16\n0 " + kHashA + "\n0 " + kHashB + "\nend\n");   // a block twice
  refused("sha256sum\n16\n0 " + kHashA + "\n2 " + kHashB + "\nend\n");   // past the last block
  refused("sha256sum\n16\n0 " + kHashA + "\n-1 " + kHashB + "\nend\n");  // not an index
  refused("sha256sum\n8\n0 " + std::string(64, 'A') + "\nend\n");        // not sha256sum's
  refused("sha256sum\n8\n0 " + kHashA + " -\nend\n");
  refused("sha256sum\n8\n0 " + kHashA + "\nsplit: oops\n");
  refused("sha256sum\n8\n0 " + kHashA + "\ntail " + kHashB + "\nend\n");           // a tail not asked for
  refused("sha256sum\n8\n0 " + kHashA + "\n1 " + kHashB + "\nend\n", true);        // no tail
  refused("sha256sum\n8\ntail " + kHashA + "\ntail " + kHashB + "\nend\n", true);  // the tail twice
}

struct CostCase {
  std::string name;
  std::uint64_t sourceSize;
  std::uint64_t oldSize;
  tr::LinkSpeed link;
  bool pays;
};

void PrintTo(CostCase const& c, std::ostream* out) { *out << c.name; }

std::vector<CostCase> const kCostCases{
    {"64MiBOver100Mbit", 64 * kMiB, 64 * kMiB, {12.5e6, 0.05}, true},
    {"64MiBOverLoopback", 64 * kMiB, 64 * kMiB, {400e6, 0.0001}, false},
    // Hashing 64 MiB, 64 processes and copying the old version take
    // 0.10 + 0.16 + 0.11 s: the crossover falls near 182 MB/s, and near
    // 130 MB/s at 50 ms.
    {"64MiBJustBelowTheCrossover", 64 * kMiB, 64 * kMiB, {170e6, 0.0005}, true},
    {"64MiBJustAboveTheCrossover", 64 * kMiB, 64 * kMiB, {200e6, 0.0001}, false},
    {"64MiBAt50msJustBelowTheCrossover", 64 * kMiB, 64 * kMiB, {120e6, 0.05}, true},
    {"64MiBAt50msJustAboveTheCrossover", 64 * kMiB, 64 * kMiB, {140e6, 0.05}, false},
    {"2MiBOverALongLinkCostsMoreRoundTripsThanItSaves", 2 * kMiB, 2 * kMiB, {12.5e6, 0.05}, false},
    {"8MiBOverALongLinkPays", 8 * kMiB, 8 * kMiB, {12.5e6, 0.05}, true},
    {"ALargeOldVersionIsHashedToo", 8 * kMiB, 1024 * kMiB, {12.5e6, 0.05}, false},
    {"ATinyOldVersionSavesNothing", 64 * kMiB, 1000, {12.5e6, 0.05}, false},
    {"AGrownLogSavesItsOldBytes", 80 * kMiB, 64 * kMiB, {12.5e6, 0.05}, true},
    {"AnUnmeasuredLinkNeverPays", 64 * kMiB, 64 * kMiB, {0, 0}, false},
};

class Costs : public ::testing::TestWithParam<CostCase> {};

TEST_P(Costs, ADeltaPaysWhenHashingBothSidesTakesLessThanSending) {
  auto const& c = GetParam();
  EXPECT_EQ(tr::deltaPays(c.sourceSize, c.oldSize, c.link), c.pays);
}

TEST(WithinWindow, ALongRoundTripBoundsTheRateByTheDataInFlight) {
  // 1 MiB per 50 ms round trip: 21 MB/s over a link of 2 Gbit/s.
  auto const slowed = tr::withinWindow({250e6, 0.05}, kMiB);
  EXPECT_DOUBLE_EQ(slowed.bytesPerSecond, 1048576 / 0.05);
  EXPECT_DOUBLE_EQ(slowed.roundTripSeconds, 0.05);
  EXPECT_TRUE(tr::deltaPays(64 * kMiB, 64 * kMiB, slowed));
  EXPECT_FALSE(tr::deltaPays(64 * kMiB, 64 * kMiB, {250e6, 0.05}));
  // A window the link fills keeps the link's rate, and so does an unmeasured round trip.
  EXPECT_DOUBLE_EQ(tr::withinWindow({12.5e6, 0.05}, kMiB).bytesPerSecond, 12.5e6);
  EXPECT_DOUBLE_EQ(tr::withinWindow({400e6, 0}, kMiB).bytesPerSecond, 400e6);
}

INSTANTIATE_TEST_SUITE_P(Delta, Costs, ::testing::ValuesIn(kCostCases),
                         [](::testing::TestParamInfo<CostCase> const& param) { return param.param.name; });

}  // namespace
}  // namespace sshfa::testing
