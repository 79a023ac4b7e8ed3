// The plan of one folder, without a server: each decision a transfer takes
// from the two listings and the options, as a table of cases.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/transfer/Plan.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"

namespace sshfa::testing {
namespace {

namespace tr = foundation::sshclient::internal::transfer;
using foundation::sshclient::UnchangedTest;
using tr::Entry;
using tr::EntryType;
using tr::Step;

constexpr std::uint32_t kTime = 1'500'000'000;

Entry file(std::string name, std::uint64_t size, std::uint32_t mtime = kTime, std::uint32_t mode = 0644) {
  Entry entry;
  entry.name = std::move(name);
  entry.type = EntryType::File;
  entry.size = size;
  entry.mtime = mtime;
  entry.mode = mode;
  return entry;
}

Entry folder(std::string name, std::uint32_t mode = 0755) {
  Entry entry;
  entry.name = std::move(name);
  entry.type = EntryType::Folder;
  entry.mode = mode;
  entry.mtime = kTime;
  return entry;
}

Entry link(std::string name, std::string target) {
  Entry entry;
  entry.name = std::move(name);
  entry.type = EntryType::Link;
  entry.linkTarget = std::move(target);
  entry.mode = 0777;
  return entry;
}

Entry fifo(std::string name) {
  Entry entry;
  entry.name = std::move(name);
  entry.type = EntryType::Fifo;
  entry.mode = 0600;
  return entry;
}

tr::Listing listing(std::vector<Entry> entries) {
  tr::Listing out;
  out.entries = std::move(entries);
  out.sort();
  return out;
}

char const* stepName(Step step) {
  switch (step) {
    case Step::RemoveTemporary:
      return "remove-temporary";
    case Step::Fail:
      return "fail";
    case Step::Special:
      return "special";
    case Step::MakeFolder:
      return "mkdir";
    case Step::EnterFolder:
      return "enter";
    case Step::Link:
      return "link";
    case Step::FixAttributes:
      return "fix";
    case Step::Copy:
      return "copy";
    case Step::Delta:
      return "delta";
    case Step::Skip:
      return "skip";
    case Step::Delete:
      return "delete";
  }
  return "?";
}

// "copy a", "mkdir sub (replace)", "fail sub (file in the way)",
// "copy big (resume .big.sshfa-partial-9-1500000000 from 4)".
std::string describe(tr::Action const& action) {
  std::string out = std::string(stepName(action.step)) + " " + action.name;
  if (action.replace) out += " (replace)";
  if (action.newer) out += " (newer)";
  if (action.problem == tr::Problem::FileInTheWay) out += " (file in the way)";
  if (action.problem == tr::Problem::FolderInTheWay) out += " (folder in the way)";
  if (!action.temporary.empty()) {
    out += " (resume " + action.temporary + " from " + std::to_string(action.resumeFrom) + ")";
  }
  return out;
}

tr::FolderScope const kBelowRoot{.deletes = true, .aboveRoots = false};

struct Case {
  std::string name;
  std::vector<Entry> source;
  std::optional<std::vector<Entry>> destination;  // nullopt: a new folder
  tr::PlanSettings settings;
  tr::FolderScope scope;
  tr::ChecksumAnswers checksums;
  std::vector<std::string> expected;
};

tr::PlanSettings skipping(UnchangedTest test = UnchangedTest::SizeAndTime) {
  tr::PlanSettings settings;
  settings.skipUnchanged = test;
  return settings;
}

tr::PlanSettings updating(tr::PlanSettings settings) {
  settings.update = true;
  return settings;
}

tr::PlanSettings with(tr::PlanSettings settings, bool deleting, bool replacing, bool resuming) {
  settings.deleteExtraneous = deleting;
  settings.replaceInTheWay = replacing;
  settings.resume = resuming;
  return settings;
}

std::string const kPartial = tr::resumableName("big", 9, kTime);

tr::PlanSettings sharedOut(tr::PlanSettings settings) {
  settings.sharedOut = true;
  return settings;
}
constexpr std::uint64_t kHuge = std::uint64_t{100} << 20U;  // shared out among channels
std::string const kHugePartial = tr::resumableName("huge", kHuge, kTime);

std::vector<Case> const kCases{
    {"EverythingIsMadeInANewFolder",
     {file("a", 5), folder("sub"), link("l", "a"), fifo("p")},
     std::nullopt,
     {},
     {},
     {},
     {"special p", "mkdir sub", "link l", "copy a"}},
    {"AnEmptyDestinationIsTheSame",
     {file("a", 5), folder("sub")},
     std::vector<Entry>{},
     {},
     {},
     {},
     {"mkdir sub", "copy a"}},
    {"SameSizeAndTimeIsSkipped", {file("a", 5)}, std::vector<Entry>{file("a", 5)}, skipping(), {}, {}, {"skip a"}},
    {"AnotherTimeIsCopied",
     {file("a", 5)},
     std::vector<Entry>{file("a", 5, kTime + 1)},
     skipping(),
     {},
     {},
     {"copy a"}},
    {"AnotherSizeIsCopied", {file("a", 5)}, std::vector<Entry>{file("a", 6)}, skipping(), {}, {}, {"copy a"}},
    {"WithoutSkippingEverythingIsCopied", {file("a", 5)}, std::vector<Entry>{file("a", 5)}, {}, {}, {}, {"copy a"}},
    {"UnchangedDataWithAnotherModeIsPutRight",
     {file("a", 5, kTime, 0640)},
     std::vector<Entry>{file("a", 5, kTime, 0600)},
     skipping(),
     {},
     {},
     {"fix a"}},
    {"AModeNotKeptIsNoDifference",
     {file("a", 5, kTime, 0640)},
     std::vector<Entry>{file("a", 5, kTime, 0600)},
     [] {
       auto settings = skipping();
       settings.keepPermissions = false;
       return settings;
     }(),
     {},
     {},
     {"skip a"}},
    {"SpecialBitsCountOnlyWhenKept",
     {file("a", 5, kTime, 04755)},
     std::vector<Entry>{file("a", 5, kTime, 0755)},
     skipping(),
     {},
     {},
     {"skip a"}},
    {"EqualChecksumsAreSkipped",
     {file("a", 5)},
     std::vector<Entry>{file("a", 5)},
     skipping(UnchangedTest::Checksum),
     {},
     {{"a", true}},
     {"skip a"}},
    {"EqualChecksumsWithAnotherTimeArePutRight",
     {file("a", 5)},
     std::vector<Entry>{file("a", 5, kTime - 9)},
     skipping(UnchangedTest::Checksum),
     {},
     {{"a", true}},
     {"fix a"}},
    {"OtherChecksumsAreCopied",
     {file("a", 5)},
     std::vector<Entry>{file("a", 5)},
     skipping(UnchangedTest::Checksum),
     {},
     {{"a", false}},
     {"copy a"}},
    {"NoChecksumIsACopy",
     {file("a", 5)},
     std::vector<Entry>{file("a", 5)},
     skipping(UnchangedTest::Checksum),
     {},
     {},
     {"copy a"}},
    {"UpdateLeavesANewerDestinationFileAlone",
     {file("a", 5, kTime, 0640)},
     std::vector<Entry>{file("a", 7, kTime + 1, 0600)},
     updating(skipping()),
     {},
     {},
     {"skip a (newer)"}},
    {"UpdateCopiesOverAnOlderDestinationFile",
     {file("a", 5)},
     std::vector<Entry>{file("a", 5, kTime - 1)},
     updating(skipping()),
     {},
     {},
     {"copy a"}},
    {"UpdateCopiesAFileOfTheSameTimeAndAnotherSize",
     {file("a", 5)},
     std::vector<Entry>{file("a", 6)},
     updating(skipping()),
     {},
     {},
     {"copy a"}},
    {"UpdateAppliesWhenEveryFileIsCopied",
     {file("a", 5)},
     std::vector<Entry>{file("a", 5, kTime + 60)},
     updating({}),
     {},
     {},
     {"skip a (newer)"}},
    {"UpdateWinsOverChecksums",
     {file("a", 5)},
     std::vector<Entry>{file("a", 5, kTime + 1)},
     updating(skipping(UnchangedTest::Checksum)),
     {},
     {{"a", false}},
     {"skip a (newer)"}},
    {"UpdateStillReplacesAFolderInTheWay",
     {file("f", 1)},
     std::vector<Entry>{folder("f")},
     updating(with({}, true, true, false)),
     {},
     {},
     {"copy f (replace)"}},
    {"UpdateLeavesTheNewerFileAndDropsItsTemporary",
     {file("big", 9)},
     std::vector<Entry>{file("big", 3, kTime + 5), file(kPartial, 4)},
     updating(with(skipping(), false, false, true)),
     {},
     {},
     {"remove-temporary " + kPartial, "skip big (newer)"}},
    {"WithoutUpdateANewerDestinationFileIsCopiedOver",
     {file("a", 5)},
     std::vector<Entry>{file("a", 5, kTime + 60)},
     skipping(),
     {},
     {},
     {"copy a"}},
    {"AFolderThereIsEntered", {folder("sub")}, std::vector<Entry>{folder("sub")}, {}, {}, {}, {"enter sub"}},
    {"AFileInTheWayOfAFolderIsOneFailure",
     {folder("sub")},
     std::vector<Entry>{file("sub", 3)},
     {},
     {},
     {},
     {"fail sub (file in the way)"}},
    {"AFileInTheWayOfAFolderIsReplacedWhenAsked",
     {folder("sub")},
     std::vector<Entry>{file("sub", 3)},
     with({}, false, true, false),
     {},
     {},
     {"mkdir sub (replace)"}},
    {"ALinkWhereTheSourceHasAFolderIsAlwaysReplaced",
     {folder("sub")},
     std::vector<Entry>{link("sub", "/elsewhere")},
     {},
     {},
     {},
     {"mkdir sub (replace)"}},
    {"AFolderInTheWayOfAFileIsReplacedOnlyWithDelete",
     {file("f", 1)},
     std::vector<Entry>{folder("f")},
     with({}, true, true, false),
     {},
     {},
     {"copy f (replace)"}},
    {"AFolderInTheWayWithoutDeleteIsOneFailure",
     {file("f", 1)},
     std::vector<Entry>{folder("f")},
     with({}, false, true, false),
     {},
     {},
     {"fail f (folder in the way)"}},
    {"AFolderInTheWayOfALinkIsOneFailure",
     {link("l", "x")},
     std::vector<Entry>{folder("l")},
     {},
     {},
     {},
     {"fail l (folder in the way)"}},
    {"AFolderInTheWayOfALinkIsReplacedWithDelete",
     {link("l", "x")},
     std::vector<Entry>{folder("l")},
     with({}, true, true, false),
     {},
     {},
     {"link l (replace)"}},
    {"ASpecialFileInTheWayOfAFileIsRenamedOver",
     {file("p", 1)},
     std::vector<Entry>{fifo("p")},
     skipping(),
     {},
     {},
     {"copy p"}},
    {"ASourceFifoLeavesTheDestinationAlone",
     {fifo("p")},
     std::vector<Entry>{file("p", 4)},
     with(skipping(), true, true, false),
     {},
     {},
     {"special p"}},
    {"AnEqualLinkIsLeft", {link("l", "t")}, std::vector<Entry>{link("l", "t")}, skipping(), {}, {}, {"skip l"}},
    {"AChangedLinkIsReplaced", {link("l", "t")}, std::vector<Entry>{link("l", "u")}, skipping(), {}, {}, {"link l"}},
    {"WithoutSkippingLinksAreMadeAgain", {link("l", "t")}, std::vector<Entry>{link("l", "t")}, {}, {}, {}, {"link l"}},
    {"ALinkWhereAFileIsTakesItsPlace",
     {link("l", "t")},
     std::vector<Entry>{file("l", 1)},
     skipping(),
     {},
     {},
     {"link l"}},
    {"ExtrasStayWithoutDelete",
     {file("a", 1)},
     std::vector<Entry>{file("a", 1), file("x", 1)},
     skipping(),
     {},
     {},
     {"skip a"}},
    {"ExtrasGoWithDelete",
     {file("a", 1)},
     std::vector<Entry>{file("a", 1), file("x", 1), folder("old"), link("escape", "/")},
     with(skipping(), true, false, false),
     kBelowRoot,
     {},
     {"skip a", "delete escape", "delete old", "delete x"}},
    {"NothingIsDeletedAboveTheRoots",
     {file("root", 1)},
     std::vector<Entry>{file("root", 2), file("beside", 1)},
     with({}, true, false, false),
     {.deletes = false, .aboveRoots = true},
     {},
     {"copy root"}},
    {"NothingIsDeletedOutsideADeletingScope",
     {file("a", 1)},
     std::vector<Entry>{file("x", 1)},
     with({}, true, false, false),
     {.deletes = false, .aboveRoots = false},
     {},
     {"copy a"}},
    {"AResumableTemporaryContinuesItsFile",
     {file("big", 9)},
     std::vector<Entry>{file(kPartial, 4)},
     with(skipping(), false, false, true),
     {},
     {},
     {"copy big (resume " + kPartial + " from 4)"}},
    {"WithoutResumeTheTemporaryGoes",
     {file("big", 9)},
     std::vector<Entry>{file(kPartial, 4)},
     skipping(),
     {},
     {},
     {"remove-temporary " + kPartial, "copy big"}},
    {"ATemporaryOfAnotherVersionOfTheSourceGoes",
     {file("big", 10)},
     std::vector<Entry>{file(kPartial, 4)},
     with(skipping(), false, false, true),
     {},
     {},
     {"remove-temporary " + kPartial, "copy big"}},
    {"ATemporaryOfAChangedTimeGoes",
     {file("big", 9, kTime + 1)},
     std::vector<Entry>{file(kPartial, 4)},
     with(skipping(), false, false, true),
     {},
     {},
     {"remove-temporary " + kPartial, "copy big"}},
    {"AShareableFilesTemporaryIsTrustedBelowTheUnorderedReach",
     {file("huge", kHuge)},
     std::vector<Entry>{file(kHugePartial, std::uint64_t{40} << 20U)},
     sharedOut(with(skipping(), false, false, true)),
     {},
     {},
     {"copy huge (resume " + kHugePartial + " from " + std::to_string(std::uint64_t{24} << 20U) + ")"}},
    {"AShareableFilesTemporaryWithinTheReachGoes",
     {file("huge", kHuge)},
     std::vector<Entry>{file(kHugePartial, std::uint64_t{16} << 20U)},
     sharedOut(with(skipping(), false, false, true)),
     {},
     {},
     {"remove-temporary " + kHugePartial, "copy huge"}},
    {"ASmallFilesTemporaryIsWhollyTrustedWhenSharingOut",
     {file("big", 9)},
     std::vector<Entry>{file(kPartial, 4)},
     sharedOut(with(skipping(), false, false, true)),
     {},
     {},
     {"copy big (resume " + kPartial + " from 4)"}},
    {"WithOneChannelABigFilesTemporaryIsWhollyTrusted",
     {file("huge", kHuge)},
     std::vector<Entry>{file(kHugePartial, std::uint64_t{40} << 20U)},
     with(skipping(), false, false, true),
     {},
     {},
     {"copy huge (resume " + kHugePartial + " from " + std::to_string(std::uint64_t{40} << 20U) + ")"}},
    {"AnEmptyTemporaryGoes",
     {file("big", 9)},
     std::vector<Entry>{file(kPartial, 0)},
     with(skipping(), false, false, true),
     {},
     {},
     {"remove-temporary " + kPartial, "copy big"}},
    {"AnUnchangedFilesTemporaryGoes",
     {file("big", 9)},
     std::vector<Entry>{file("big", 9), file(kPartial, 4)},
     with(skipping(), false, false, true),
     {},
     {},
     {"remove-temporary " + kPartial, "skip big"}},
    {"ARandomTemporaryOfASourceFileGoes",
     {file("a", 1)},
     std::vector<Entry>{file(".a.sshfa-0a1b2c3d", 1)},
     skipping(),
     {},
     {},
     {"remove-temporary .a.sshfa-0a1b2c3d", "copy a"}},
    {"TemporariesOfNamesTheSourceLacksAreLeft",
     {file("a", 1)},
     std::vector<Entry>{file(".gone.sshfa-0a1b2c3d", 1)},
     skipping(),
     {},
     {},
     {"copy a"}},
    {"AStrangersFileIsNeverOurs",
     {file("a", 1)},
     std::vector<Entry>{file(".a.other", 1), file("a.sshfa-x", 1)},
     with(skipping(), false, false, true),
     {},
     {},
     {"copy a"}},
    {"AboveTheRootsTheRootsTemporariesCount",
     {file("big", 9)},
     std::vector<Entry>{file("big", 3), file(kPartial, 4)},
     with(skipping(), true, false, true),
     {.deletes = false, .aboveRoots = true},
     {},
     {"copy big (resume " + kPartial + " from 4)"}},
    {"HostileNamesAreNamesLikeAnyOther",
     {file("line\nfeed", 1), file("-rf", 1), file("$(x)", 1)},
     std::vector<Entry>{file("\xff", 1), file("tab\tname", 1)},
     with({}, true, false, false),
     kBelowRoot,
     {},
     {"copy $(x)", "copy -rf", "copy line\nfeed", "delete tab\tname", "delete \xff"}},
    {"FailuresComeBeforeFoldersAndCopiesBeforeDeletions",
     {file("c", 1), folder("b"), folder("a")},
     std::vector<Entry>{file("a", 1), file("z", 1), file(".c.sshfa-00000000", 1)},
     with({}, true, false, false),
     kBelowRoot,
     {},
     {"remove-temporary .c.sshfa-00000000", "fail a (file in the way)", "mkdir b", "copy c", "delete z"}},
};

void PrintTo(Case const& c, std::ostream* out) { *out << c.name; }

class PlanTable : public ::testing::TestWithParam<Case> {};

TEST_P(PlanTable, DecidesEachName) {
  auto const& c = GetParam();
  auto const source = listing(c.source);
  std::optional<tr::Listing> destination;
  if (c.destination) destination = listing(*c.destination);
  auto const plan = tr::planFolder(source, destination ? &*destination : nullptr, c.settings, c.scope, c.checksums);
  std::vector<std::string> actions;
  for (auto const& action : plan.actions) actions.push_back(describe(action));
  EXPECT_EQ(actions, c.expected);
}

INSTANTIATE_TEST_SUITE_P(Plan, PlanTable, ::testing::ValuesIn(kCases),
                         [](::testing::TestParamInfo<Case> const& param) { return param.param.name; });

constexpr std::uint64_t kMiB = 1024U * 1024U;
// 100 Mbit/s with a 50 ms round trip, and a loopback's 1 GB/s.
constexpr tr::LinkSpeed kSlowLink{.bytesPerSecond = 12.5e6, .roundTripSeconds = 0.05};
constexpr tr::LinkSpeed kLoopback{.bytesPerSecond = 1e9, .roundTripSeconds = 0.0001};
using foundation::sshclient::DeltaMode;

tr::PlanSettings deltas(DeltaMode mode, std::optional<tr::LinkSpeed> link = std::nullopt) {
  auto settings = skipping();
  settings.delta = mode;
  settings.link = link;
  return settings;
}

std::vector<Case> const kDeltaCases{
    {"ADeltaIsAskedForAChangedFileWithAnOldVersion",
     {file("a", 5), file("new", 5), file("same", 5)},
     std::vector<Entry>{file("a", 9, kTime - 1), file("same", 5)},
     deltas(DeltaMode::Always),
     {},
     {},
     {"copy new", "delta a", "skip same"}},
    {"ADeltaNeverReplacesALinkOrAFolder",
     {file("l", 5), file("d", 5)},
     std::vector<Entry>{link("l", "x"), folder("d")},
     with(deltas(DeltaMode::Always), true, true, false),
     kBelowRoot,
     {},
     {"copy d (replace)", "copy l"}},
    {"ADeltaOverAnEmptyOldVersionWhenAsked",
     {file("a", 5)},
     std::vector<Entry>{file("a", 0)},
     deltas(DeltaMode::Always),
     {},
     {},
     {"delta a"}},
    {"AResumableTemporaryWinsOverADelta",
     {file("big", 9)},
     std::vector<Entry>{file("big", 3, kTime - 1), file(kPartial, 4)},
     with(deltas(DeltaMode::Always), false, false, true),
     {},
     {},
     {"copy big (resume " + kPartial + " from 4)"}},
    {"WithoutDeltasAChangedFileIsCopied",
     {file("a", 64 * kMiB)},
     std::vector<Entry>{file("a", 64 * kMiB, kTime - 1)},
     deltas(DeltaMode::Off, kSlowLink),
     {},
     {},
     {"copy a"}},
    {"AutoSendsADeltaOverASlowLink",
     {file("a", 64 * kMiB)},
     std::vector<Entry>{file("a", 64 * kMiB, kTime - 1)},
     deltas(DeltaMode::Auto, kSlowLink),
     {},
     {},
     {"delta a"}},
    {"AutoCopiesOverALoopback",
     {file("a", 64 * kMiB)},
     std::vector<Entry>{file("a", 64 * kMiB, kTime - 1)},
     deltas(DeltaMode::Auto, kLoopback),
     {},
     {},
     {"copy a"}},
    {"AutoCopiesBeforeTheLinkIsMeasured",
     {file("a", 64 * kMiB)},
     std::vector<Entry>{file("a", 64 * kMiB, kTime - 1)},
     deltas(DeltaMode::Auto),
     {},
     {},
     {"copy a"}},
    {"AutoCopiesASmallFileOrOverASmallOne",
     {file("small", kMiB - 1), file("empty", 64 * kMiB), file("tiny", 64 * kMiB)},
     std::vector<Entry>{file("small", kMiB), file("empty", 0), file("tiny", kMiB - 1)},
     deltas(DeltaMode::Auto, kSlowLink),
     {},
     {},
     {"copy empty", "copy small", "copy tiny"}},
    {"AutoSendsADeltaForChecksumsThatDiffer",
     {file("a", 8 * kMiB)},
     std::vector<Entry>{file("a", 8 * kMiB)},
     [] {
       auto settings = deltas(DeltaMode::Auto, kSlowLink);
       settings.skipUnchanged = UnchangedTest::Checksum;
       return settings;
     }(),
     {},
     {{"a", false}},
     {"delta a"}},
};

INSTANTIATE_TEST_SUITE_P(Delta, PlanTable, ::testing::ValuesIn(kDeltaCases),
                         [](::testing::TestParamInfo<Case> const& param) { return param.param.name; });

TEST(LinkSpeedNeededFor, AChangedFileAutoCouldSendAsADelta) {
  auto const source = listing({file("new", 64 * kMiB), file("same", 64 * kMiB), file("small", 1000),
                               file("changed", 2 * kMiB), file("grown", 3 * kMiB)});
  auto const destination = listing(
      {file("same", 64 * kMiB), file("small", 10), file("changed", 2 * kMiB, kTime - 1), file("grown", 2 * kMiB)});
  auto const* wanted = tr::linkSpeedNeededFor(source, &destination, deltas(DeltaMode::Auto));
  ASSERT_NE(wanted, nullptr);
  EXPECT_EQ(wanted->name, "changed");
  // Measured once, never again; other modes never measure.
  EXPECT_EQ(tr::linkSpeedNeededFor(source, &destination, deltas(DeltaMode::Auto, kSlowLink)), nullptr);
  EXPECT_EQ(tr::linkSpeedNeededFor(source, &destination, deltas(DeltaMode::Always)), nullptr);
  EXPECT_EQ(tr::linkSpeedNeededFor(source, &destination, deltas(DeltaMode::Off)), nullptr);
  EXPECT_EQ(tr::linkSpeedNeededFor(source, nullptr, deltas(DeltaMode::Auto)), nullptr);
  // Nothing changed that is large enough: nothing to measure for.
  auto const unchanged = listing({file("same", 64 * kMiB), file("small", 1000)});
  EXPECT_EQ(tr::linkSpeedNeededFor(unchanged, &destination, deltas(DeltaMode::Auto)), nullptr);
  // Equal checksums count as unchanged.
  auto checksums = deltas(DeltaMode::Auto);
  checksums.skipUnchanged = UnchangedTest::Checksum;
  auto const equal = listing({file("same", 64 * kMiB, kTime + 5)});
  EXPECT_EQ(tr::linkSpeedNeededFor(equal, &destination, checksums, {{"same", true}}), nullptr);
  EXPECT_NE(tr::linkSpeedNeededFor(equal, &destination, checksums, {{"same", false}}), nullptr);
}

TEST(ChecksumCandidates, AreRegularFilesOfEqualSize) {
  auto const source = listing({file("same", 5), file("other", 5), file("new", 5), link("l", "x"), folder("d")});
  auto const destination = listing({file("same", 5), file("other", 6), link("l", "x"), folder("d")});
  EXPECT_THAT(tr::checksumCandidates(source, &destination, skipping(UnchangedTest::Checksum)),
              ::testing::ElementsAre("same"));
  EXPECT_TRUE(tr::checksumCandidates(source, &destination, skipping()).empty());
  EXPECT_TRUE(tr::checksumCandidates(source, nullptr, skipping(UnchangedTest::Checksum)).empty());
  // A newer destination file is left alone whatever its data: nothing to hash.
  auto const newer = listing({file("same", 5, kTime + 1), file("other", 6)});
  EXPECT_TRUE(tr::checksumCandidates(source, &newer, updating(skipping(UnchangedTest::Checksum))).empty());
  EXPECT_THAT(tr::checksumCandidates(source, &newer, skipping(UnchangedTest::Checksum)),
              ::testing::ElementsAre("same"));
}

TEST(Kept, FollowsTheOptions) {
  auto const source = file("a", 1, kTime, 04750);
  auto const all = tr::kept(source, {});
  EXPECT_EQ(all.mode, 0750U);
  EXPECT_EQ(all.mtime, kTime);
  EXPECT_EQ(all.atime, kTime);
  tr::PlanSettings special;
  special.keepSpecialBits = true;
  EXPECT_EQ(tr::kept(source, special).mode, 04750U);
  tr::PlanSettings none;
  none.keepPermissions = false;
  none.keepTimes = false;
  EXPECT_FALSE(tr::kept(source, none).mode);
  EXPECT_FALSE(tr::kept(source, none).mtime);
}

TEST(Temporaries, NamesAreFoundAgainAndCutWithinNameMax) {
  EXPECT_EQ(tr::resumableName("f", 12, 34), ".f.sshfa-partial-12-34");
  EXPECT_EQ(tr::temporaryOwner(".f.sshfa-partial-12-34"), "f");
  EXPECT_EQ(tr::temporaryOwner(".a.b.sshfa-00ff00ff"), "a.b");
  EXPECT_EQ(tr::temporaryOwner("f.sshfa-1"), std::nullopt);
  EXPECT_EQ(tr::temporaryOwner(".sshfa-1"), std::nullopt);
  std::string const longName(300, 'n');
  auto const temp = tr::resumableName(longName, 1, 2);
  EXPECT_LE(temp.size(), 255U);
  EXPECT_EQ(tr::temporaryOwner(temp), tr::ownerKey(longName));
  // A long name's temporary continues its file.
  tr::Listing const destination = listing({file(temp, 1)});
  auto const resumed = tr::planFolder(listing({file(longName, 1, 2)}), &destination, with({}, false, false, true), {});
  ASSERT_EQ(resumed.actions.size(), 1U);
  EXPECT_EQ(resumed.actions[0].temporary, temp);
}

}  // namespace
}  // namespace sshfa::testing
