// Re-runs of SSHClient::copyTrees against the real sshd, both ways: unchanged
// files skipped (by size and time, or by checksum), mirroring with deletion,
// dry runs that change nothing, and resuming from an earlier run's temporary.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/SshTestHelpers.hpp"
#include "tests/support/TestFiles.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using Action = ssh::PlannedChange::Action;
using ssh::TransferDirection;
using ssh::UnchangedTest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::uint32_t kOldTime = 1'500'000'000;  // 2017-07-14

void setTime(fs::path const& path, std::uint32_t seconds) {
  struct timespec const times[2] = {{static_cast<time_t>(seconds), 0}, {static_cast<time_t>(seconds), 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

std::int64_t mtimeOf(fs::path const& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) throw std::runtime_error("cannot lstat " + path.string());
  return st.st_mtim.tv_sec;
}

std::vector<std::string> temporariesIn(fs::path const& folder) {
  std::vector<std::string> found;
  for (auto const& entry : fs::directory_iterator(folder)) {
    auto const name = entry.path().filename().string();
    if (name.find(".sshfa-") != std::string::npos) found.push_back(name);
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::string resumeName(std::string const& name, std::size_t size, std::uint32_t mtime) {
  return "." + name + ".sshfa-partial-" + std::to_string(size) + "-" + std::to_string(mtime);
}

class Reruns : public ::testing::TestWithParam<TransferDirection> {
 protected:
  static void SetUpTestSuite() { client_ = TestSshd::instance().connect(); }
  static void TearDownTestSuite() { client_.reset(); }

  void SetUp() override {
    fs::create_directory(src());
    fs::create_directory(scratch_ / "outside");
    writeFile(scratch_ / "outside" / "keep", "not ours");
  }

  [[nodiscard]] fs::path src() const { return scratch_ / "src"; }
  [[nodiscard]] fs::path dst() const { return scratch_ / "dst"; }

  ssh::TreeTransferReport copy(fs::path const& source, fs::path const& destination,
                               ssh::TreeTransferOptions const& options) {
    auto const from = u(source.string());
    auto const to = u(destination.string());
    bool const upload = GetParam() == TransferDirection::LocalToRemote;
    std::vector<ssh::FileLocations> items{upload ? ssh::FileLocations{from, to} : ssh::FileLocations{to, from}};
    return client_->copyTrees(ssh::CopyTreesCommand(std::move(items), GetParam(), options));
  }
  ssh::TreeTransferReport copyTree(ssh::TreeTransferOptions const& options) { return copy(src(), dst(), options); }

  // Three files in two folders, with old times, copied once.
  void makeCopiedTree() {
    fs::create_directory(src() / "sub");
    writeFile(src() / "a", "alpha");
    writeFile(src() / "sub" / "b", "bravo");
    writeFile(src() / "sub" / "c", "charlie");
    for (auto const* name : {"a", "sub/b", "sub/c", "sub"}) setTime(src() / name, kOldTime);
    auto const first = copyTree({});
    ASSERT_EQ(first.files, 3U);
  }

  static std::unique_ptr<ssh::SSHClient> client_;
  ScratchDir scratch_;
};

std::unique_ptr<ssh::SSHClient> Reruns::client_;

TEST_P(Reruns, AnUnchangedTreeCopiesNothing) {
  makeCopiedTree();
  auto const before = treeSnapshot(dst());
  auto const report = copyTree({.skipUnchanged = UnchangedTest::SizeAndTime});
  EXPECT_EQ(report.files, 0U);
  EXPECT_EQ(report.skipped, 3U);
  EXPECT_EQ(report.bytes, 0U);
  EXPECT_EQ(report.folders, 0U);
  EXPECT_EQ(treeSnapshot(dst()), before);
}

TEST_P(Reruns, AChangedFileIsCopiedAndTheRestSkipped) {
  makeCopiedTree();
  writeFile(src() / "sub" / "b", "bravissimo");
  auto const report = copyTree({.skipUnchanged = UnchangedTest::SizeAndTime});
  EXPECT_EQ(report.files, 1U);
  EXPECT_EQ(report.skipped, 2U);
  EXPECT_EQ(report.bytes, 10U);
  EXPECT_EQ(readFile(dst() / "sub" / "b"), "bravissimo");
  // The folder that changed gets its time back.
  EXPECT_EQ(mtimeOf(dst() / "sub"), kOldTime);
  // Without the test every file goes again.
  EXPECT_EQ(copyTree({}).files, 3U);
}

TEST_P(Reruns, OneByteChangedWithTheSameSizeAndTimeIsFoundOnlyByChecksum) {
  makeCopiedTree();
  writeFile(src() / "sub" / "c", "charliE");
  setTime(src() / "sub" / "c", kOldTime);
  auto const bySizeAndTime = copyTree({.skipUnchanged = UnchangedTest::SizeAndTime});
  EXPECT_EQ(bySizeAndTime.files, 0U);
  EXPECT_EQ(readFile(dst() / "sub" / "c"), "charlie");
  auto const byChecksum = copyTree({.skipUnchanged = UnchangedTest::Checksum});
  EXPECT_EQ(byChecksum.files, 1U);
  EXPECT_EQ(byChecksum.skipped, 2U);
  EXPECT_EQ(byChecksum.bytes, 7U);
  EXPECT_EQ(readFile(dst() / "sub" / "c"), "charliE");
}

// Checksums and deletions go through names as their bytes: the remote
// hashes come back escaped, the extras are removed over SFTP or here.
TEST_P(Reruns, HostileNamesAreComparedByChecksumAndDeleted) {
  std::vector<std::string> const names = {"line\nfeed", "back\\slash", "tab\there", "byte\xff", "-leading", "$(x)"};
  for (auto const& name : names) {
    writeFile(src() / name, "same " + name);
    setTime(src() / name, kOldTime);
  }
  copyTree({});
  writeFile(src() / "line\nfeed", "SAME line\nfeed");
  setTime(src() / "line\nfeed", kOldTime);
  for (auto const& name : names) writeFile(dst() / ("extra " + name), "x");
  auto const report = copyTree({.skipUnchanged = UnchangedTest::Checksum, .deleteExtraneous = true});
  EXPECT_EQ(report.files, 1U);
  EXPECT_EQ(report.skipped, names.size() - 1);
  EXPECT_EQ(report.deleted, names.size());
  EXPECT_EQ(readFile(dst() / "line\nfeed"), "SAME line\nfeed");
  auto expected = names;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(listNames(dst()), expected);
  EXPECT_FALSE(fs::exists(scratch_ / "x"));
}

TEST_P(Reruns, EqualContentsWithOtherTimesAndModesAreSkippedByChecksumAndPutRight) {
  makeCopiedTree();
  setTime(dst() / "a", kOldTime + 99);
  ::chmod((dst() / "a").c_str(), 0600);
  ::chmod((src() / "a").c_str(), 0640);
  auto const report = copyTree({.skipUnchanged = UnchangedTest::Checksum});
  EXPECT_EQ(report.files, 0U);
  EXPECT_EQ(mtimeOf(dst() / "a"), kOldTime);
  EXPECT_EQ(permissionsOf(dst() / "a"), 0640U);
}

TEST_P(Reruns, UnchangedLinksAreLeftAndChangedOnesReplaced) {
  writeFile(src() / "f", "f");
  fs::create_symlink("f", src() / "same");
  fs::create_symlink("f", src() / "moved");
  copyTree({});
  fs::remove(src() / "moved");
  fs::create_symlink("elsewhere", src() / "moved");
  auto const report = copyTree({.skipUnchanged = UnchangedTest::SizeAndTime});
  EXPECT_EQ(report.links, 1U);
  EXPECT_EQ(fs::read_symlink(dst() / "moved"), "elsewhere");
  EXPECT_EQ(fs::read_symlink(dst() / "same"), "f");
}

TEST_P(Reruns, DeleteRemovesExactlyTheExtrasAndNothingOutsideTheRoot) {
  makeCopiedTree();
  writeFile(dst() / "extra", "x");
  fs::create_directories(dst() / "old" / "deeper");
  writeFile(dst() / "old" / "deeper" / "gone", "g");
  writeFile(dst() / "sub" / "extra", "x");
  // A link out of the root: removed as a link, never followed.
  fs::create_symlink(scratch_ / "outside", dst() / "escape");
  fs::create_symlink(scratch_ / "outside" / "keep", dst() / "sub" / "escape-file");
  writeFile(scratch_ / "dst-sibling", "beside the root");
  auto const report = copyTree({.skipUnchanged = UnchangedTest::SizeAndTime, .deleteExtraneous = true});
  EXPECT_EQ(report.deleted, 7U);
  EXPECT_EQ(report.files, 0U);
  EXPECT_EQ(listNames(dst()), (std::vector<std::string>{"a", "sub"}));
  EXPECT_EQ(listNames(dst() / "sub"), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(readFile(scratch_ / "outside" / "keep"), "not ours");
  EXPECT_EQ(readFile(scratch_ / "dst-sibling"), "beside the root");
  EXPECT_EQ(mtimeOf(dst() / "sub"), kOldTime);
}

// A link where the source has a folder would lead the copies out of the
// destination: it is replaced by the folder, and what it points to stays.
TEST_P(Reruns, ALinkWhereTheSourceHasAFolderIsReplacedNotFollowed) {
  fs::create_directory(src() / "sub");
  writeFile(src() / "sub" / "keep", "copied");
  fs::create_directory(dst());
  fs::create_symlink(scratch_ / "outside", dst() / "sub");
  auto const report = copyTree({.skipUnchanged = UnchangedTest::SizeAndTime});
  EXPECT_EQ(report.files, 1U);
  EXPECT_FALSE(fs::is_symlink(dst() / "sub"));
  EXPECT_EQ(readFile(dst() / "sub" / "keep"), "copied");
  EXPECT_EQ(readFile(scratch_ / "outside" / "keep"), "not ours");
}

TEST_P(Reruns, DeleteKeepsWhatTheSourceHasInAnyForm) {
  writeFile(src() / "f", "f");
  ASSERT_EQ(::mkfifo((src() / "pipe").c_str(), 0600), 0);
  fs::create_directories(src() / "empty");
  fs::create_directories(dst() / "empty");
  writeFile(dst() / "pipe", "a file where the source has a FIFO");
  auto const report = copyTree({.deleteExtraneous = true});
  EXPECT_EQ(report.deleted, 0U);
  EXPECT_EQ(listNames(dst()), (std::vector<std::string>{"empty", "f", "pipe"}));
}

TEST_P(Reruns, DeleteOfASingleFileTouchesNothingBeside) {
  writeFile(src() / "f", "f");
  fs::create_directory(dst());
  writeFile(dst() / "other", "o");
  copy(src() / "f", dst() / "f", {.deleteExtraneous = true});
  EXPECT_EQ(listNames(dst()), (std::vector<std::string>{"f", "other"}));
}

TEST_P(Reruns, ADryRunChangesNothingAndNamesEveryChange) {
  makeCopiedTree();
  writeFile(src() / "sub" / "b", "new bravo");
  writeFile(src() / "new", "new!");
  fs::create_directory(src() / "fresh");
  fs::create_symlink("a", src() / "link");
  writeFile(dst() / "extra", "x");
  auto const before = treeSnapshot(dst());
  auto const report = copyTree({.skipUnchanged = UnchangedTest::SizeAndTime, .deleteExtraneous = true, .dryRun = true});
  EXPECT_EQ(treeSnapshot(dst()), before);
  EXPECT_EQ(report.files, 2U);
  EXPECT_EQ(report.bytes, 13U);
  EXPECT_EQ(report.skipped, 2U);
  EXPECT_EQ(report.deleted, 1U);
  EXPECT_EQ(report.folders, 1U);
  EXPECT_EQ(report.links, 1U);
  std::vector<std::tuple<Action, std::string, std::uint64_t>> plan;
  for (auto const& change : report.plan) plan.emplace_back(change.action, utf8(change.path), change.bytes);
  std::sort(plan.begin(), plan.end());
  auto const at = [&](char const* name) { return (dst() / name).string(); };
  EXPECT_THAT(plan, ElementsAre(std::tuple{Action::Copy, at("new"), 4U}, std::tuple{Action::Copy, at("sub/b"), 9U},
                                std::tuple{Action::Skip, at("a"), 5U}, std::tuple{Action::Skip, at("sub/c"), 7U},
                                std::tuple{Action::Link, at("link"), 0U}, std::tuple{Action::Folder, at("fresh"), 0U},
                                std::tuple{Action::Delete, at("extra"), 0U}));
}

TEST_P(Reruns, ADryRunIntoNothingPlansEverything) {
  writeFile(src() / "f", "four");
  auto const report = copyTree({.dryRun = true});
  EXPECT_FALSE(fs::exists(dst()));
  EXPECT_EQ(report.files, 1U);
  EXPECT_EQ(report.bytes, 4U);
}

TEST_P(Reruns, EachChangeIsToldAsItIsDoneAndNoneInADryRun) {
  makeCopiedTree();
  writeFile(src() / "sub" / "b", "new bravo");
  for (auto const& folder : {src() / "fresh", dst() / "old", src() / "was-a-file"}) fs::create_directory(folder);
  writeFile(src() / "fresh" / "f", "fresh");
  fs::create_symlink("a", src() / "link");
  ::chmod((src() / "a").c_str(), 0640);
  ::chmod((dst() / "a").c_str(), 0600);
  writeFile(dst() / "extra", "x");
  writeFile(dst() / "old" / "gone", "g");
  writeFile(src() / "was-a-file" / "now", "now");
  writeFile(dst() / "was-a-file", "in the way");
  std::vector<std::tuple<Action, std::string, std::uint64_t>> told;
  ssh::TreeTransferOptions options{
      .skipUnchanged = UnchangedTest::SizeAndTime, .deleteExtraneous = true, .dryRun = true, .replaceInTheWay = true};
  options.onChange = [&](ssh::PlannedChange const& change) {
    told.emplace_back(change.action, utf8(change.path), change.bytes);
  };
  auto const planned = copyTree(options);
  EXPECT_THAT(told, IsEmpty());
  std::vector<std::tuple<Action, std::string, std::uint64_t>> plan;
  for (auto const& change : planned.plan) plan.emplace_back(change.action, utf8(change.path), change.bytes);
  auto const at = [&](char const* name) { return (dst() / name).string(); };
  EXPECT_THAT(plan, ::testing::Contains(std::tuple{Action::Fix, at("a"), 5U}));

  options.dryRun = false;
  auto const report = copyTree(options);
  std::sort(told.begin(), told.end());
  EXPECT_THAT(told,
              ElementsAre(std::tuple{Action::Copy, at("fresh/f"), 5U}, std::tuple{Action::Copy, at("sub/b"), 9U},
                          std::tuple{Action::Copy, at("was-a-file/now"), 3U}, std::tuple{Action::Link, at("link"), 0U},
                          std::tuple{Action::Folder, at("fresh"), 0U}, std::tuple{Action::Folder, at("was-a-file"), 0U},
                          std::tuple{Action::Delete, at("extra"), 0U}, std::tuple{Action::Delete, at("old"), 0U},
                          std::tuple{Action::Delete, at("old/gone"), 0U},
                          std::tuple{Action::Replace, at("was-a-file"), 0U}, std::tuple{Action::Fix, at("a"), 0U}));
  EXPECT_EQ(report.files, 3U);
  EXPECT_EQ(report.deleted, 3U);
  EXPECT_EQ(report.replaced, 1U);
  EXPECT_EQ(permissionsOf(dst() / "a"), 0640U);
}

TEST_P(Reruns, UpdateLeavesNewerDestinationFilesAlone) {
  makeCopiedTree();
  writeFile(dst() / "a", "mine, newer");
  setTime(dst() / "a", kOldTime + 100);
  writeFile(src() / "sub" / "b", "new bravo");
  setTime(src() / "sub" / "b", kOldTime + 200);
  auto options = ssh::TreeTransferOptions{.skipUnchanged = UnchangedTest::SizeAndTime};
  options.update = true;
  auto const report = copyTree(options);
  EXPECT_EQ(report.files, 1U);
  EXPECT_EQ(report.newer, 1U);
  EXPECT_EQ(report.skipped, 1U);
  EXPECT_EQ(readFile(dst() / "a"), "mine, newer");
  EXPECT_EQ(readFile(dst() / "sub" / "b"), "new bravo");
  // Without it, the source's older file wins.
  auto const again = copyTree({.skipUnchanged = UnchangedTest::SizeAndTime});
  EXPECT_EQ(again.files, 1U);
  EXPECT_EQ(again.newer, 0U);
  EXPECT_EQ(readFile(dst() / "a"), "alpha");
}

// A lower bound only: the limit holds the data back, whatever the machine.
TEST_P(Reruns, ARateLimitHoldsTheDataBack) {
  auto const contents = randomBytes(512 * 1024, 3);
  writeFile(src() / "f", contents);
  auto options = ssh::TreeTransferOptions{};
  options.bytesPerSecond = 256 * 1024;
  auto const started = std::chrono::steady_clock::now();
  auto const report = copyTree(options);
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(1750));
  EXPECT_EQ(report.bytes, contents.size());
  EXPECT_TRUE(readFile(dst() / "f") == contents);
}

// More resumable temporaries than this process may hold open at once: a
// resumed file opens its temporary here as it starts (downloads) or reads
// its source (uploads), so the files wait for descriptors and every one
// continues.
TEST_P(Reruns, MoreResumesThanOpenFilesAllowAllContinue) {
  constexpr int kFiles = 120;
  fs::create_directory(dst());
  std::map<std::string, std::string> expected;
  for (int i = 0; i < kFiles; ++i) {
    auto const name = "f" + std::to_string(i);
    auto const contents = "resumed file " + std::to_string(i);
    writeFile(src() / name, contents);
    setTime(src() / name, kOldTime);
    // For uploads the temporary lies on the server's side, here too.
    writeFile(dst() / resumeName(name, contents.size(), kOldTime), contents.substr(0, 8));
    expected[name] = contents;
  }
  OpenFileLimit const limit(96);
  auto const report = copyTree({.resume = true});
  EXPECT_EQ(report.files, std::size_t{kFiles});
  EXPECT_EQ(report.resumed, std::size_t{kFiles});
  for (auto const& [name, contents] : expected) EXPECT_EQ(readFile(dst() / name), contents) << name;
  EXPECT_THAT(temporariesIn(dst()), IsEmpty());
}

// An earlier run's temporary holding the first half of the file.
class Resumes : public Reruns {
 protected:
  void SetUp() override {
    Reruns::SetUp();
    contents_ = randomBytes(3 * 1024 * 1024 + 17, 7);
    writeFile(src() / "big", contents_);
    setTime(src() / "big", kOldTime);
    fs::create_directory(dst());
    temp_ = dst() / resumeName("big", contents_.size(), kOldTime);
    writeFile(temp_, contents_.substr(0, half()));
  }
  [[nodiscard]] std::size_t half() const { return contents_.size() / 2; }

  std::string contents_;
  fs::path temp_;
};

TEST_P(Resumes, AVerifiedPrefixIsContinued) {
  auto const report = copyTree({.resume = true});
  EXPECT_EQ(report.files, 1U);
  EXPECT_EQ(report.resumed, 1U);
  EXPECT_EQ(report.bytes, contents_.size() - half());
  EXPECT_TRUE(readFile(dst() / "big") == contents_);
  EXPECT_EQ(mtimeOf(dst() / "big"), kOldTime);
  EXPECT_THAT(temporariesIn(dst()), IsEmpty());
}

TEST_P(Resumes, ACorruptedPrefixStartsOver) {
  auto corrupted = contents_.substr(0, half());
  corrupted[1000] = static_cast<char>(corrupted[1000] ^ 0x20);
  writeFile(temp_, corrupted);
  auto const report = copyTree({.resume = true});
  EXPECT_EQ(report.resumed, 0U);
  EXPECT_EQ(report.bytes, contents_.size());
  EXPECT_TRUE(readFile(dst() / "big") == contents_);
  EXPECT_THAT(temporariesIn(dst()), IsEmpty());
}

TEST_P(Resumes, AChangedSourceStartsOver) {
  setTime(src() / "big", kOldTime + 1);
  auto const report = copyTree({.resume = true});
  EXPECT_EQ(report.resumed, 0U);
  EXPECT_EQ(report.bytes, contents_.size());
  EXPECT_TRUE(readFile(dst() / "big") == contents_);
  EXPECT_THAT(temporariesIn(dst()), IsEmpty());
}

TEST_P(Resumes, StaleTemporariesOfTheDestinationGoAndOthersStay) {
  writeFile(dst() / ".big.sshfa-0123abcd", "killed run");
  writeFile(dst() / ".other.sshfa-0123abcd", "someone else's");
  auto const report = copyTree({.skipUnchanged = UnchangedTest::SizeAndTime, .resume = true});
  EXPECT_EQ(report.resumed, 1U);
  EXPECT_THAT(temporariesIn(dst()), ElementsAre(".other.sshfa-0123abcd"));
}

TEST_P(Resumes, ADryRunPlansTheResumeAndKeepsTheTemporary) {
  auto const report = copyTree({.dryRun = true, .resume = true});
  EXPECT_EQ(report.resumed, 1U);
  ASSERT_EQ(report.plan.size(), 1U);
  EXPECT_EQ(report.plan[0].action, Action::Resume);
  EXPECT_EQ(report.plan[0].bytes, contents_.size() - half());
  EXPECT_THAT(temporariesIn(dst()), ElementsAre(temp_.filename().string()));
  EXPECT_FALSE(fs::exists(dst() / "big"));
}

TEST_P(Resumes, WithoutResumeTheTemporaryIsNotUsed) {
  auto const report = copyTree({});
  EXPECT_EQ(report.resumed, 0U);
  EXPECT_EQ(report.bytes, contents_.size());
  EXPECT_TRUE(readFile(dst() / "big") == contents_);
}

std::string directionName(::testing::TestParamInfo<TransferDirection> const& param) {
  return param.param == TransferDirection::LocalToRemote ? "Upload" : "Download";
}

INSTANTIATE_TEST_SUITE_P(BothWays, Reruns,
                         ::testing::Values(TransferDirection::LocalToRemote, TransferDirection::RemoteToLocal),
                         directionName);
INSTANTIATE_TEST_SUITE_P(BothWays, Resumes,
                         ::testing::Values(TransferDirection::LocalToRemote, TransferDirection::RemoteToLocal),
                         directionName);

}  // namespace
}  // namespace sshfa::testing
