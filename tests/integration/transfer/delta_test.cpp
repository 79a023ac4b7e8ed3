// Delta updates through SSHClient::copyTrees against the real sshd, both
// ways: a changed file whose destination holds an old version arrives
// byte-identical, with exactly the changed blocks sent (the report's bytes)
// and the rest taken from the old version (its reused bytes). Blocks are
// 1 MiB for files of 33 to 64 MiB and 2 MiB up to 128 MiB. A host without
// GNU split --filter gets the file whole, and the report's details say why.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/LinkTestHelpers.hpp"
#include "tests/support/SshTestHelpers.hpp"
#include "tests/support/TestFiles.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ssh::DeltaMode;
using ssh::TransferDirection;
using ::testing::HasSubstr;

constexpr std::uint64_t kMiB = 1024U * 1024U;
constexpr std::uint32_t kOldTime = 1'500'000'000;
constexpr std::uint32_t kNewTime = 1'600'000'000;

void setTime(fs::path const& path, std::uint32_t seconds) {
  struct timespec const times[2] = {{static_cast<time_t>(seconds), 0}, {static_cast<time_t>(seconds), 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

std::int64_t mtimeOf(fs::path const& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) throw std::runtime_error("cannot stat " + path.string());
  return st.st_mtim.tv_sec;
}

// `bytes` with `length` bytes at `offset` replaced by other ones.
std::string changed(std::string bytes, std::uint64_t offset, std::uint64_t length) {
  auto const other = randomBytes(static_cast<std::size_t>(length), offset + 7);
  bytes.replace(static_cast<std::size_t>(offset), other.size(), other);
  return bytes;
}

// Equality that stays readable for megabytes.
::testing::AssertionResult sameBytes(std::string const& actual, std::string const& expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  std::size_t at = 0;
  while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
  return ::testing::AssertionFailure() << "sizes " << actual.size() << " and " << expected.size()
                                       << ", first difference at byte " << at;
}

auto const kBothWays = ::testing::Values(TransferDirection::LocalToRemote, TransferDirection::RemoteToLocal);

// One file updated from `source` to `destination` by copyTrees, both on this
// machine (the server's side is a folder here too).
class DeltaUpdate {
 public:
  DeltaUpdate(ssh::SSHClient& client, TransferDirection direction) : client_(client), direction_(direction) {
    fs::create_directory(scratch_ / "from");
    fs::create_directory(scratch_ / "to");
  }

  ssh::TreeTransferReport update(std::string const& oldBytes, std::string const& newBytes,
                                 DeltaMode mode = DeltaMode::Always) {
    writeFile(destination(), oldBytes);
    setTime(destination(), kOldTime);
    writeFile(source(), newBytes);
    setTime(source(), kNewTime);
    ssh::TreeTransferOptions options;
    options.skipUnchanged = ssh::UnchangedTest::SizeAndTime;
    options.delta = mode;
    changes_.clear();
    options.onChange = [this](ssh::PlannedChange const& change) { changes_.push_back(change); };
    auto const from = u(source().string());
    auto const to = u(destination().string());
    bool const upload = direction_ == TransferDirection::LocalToRemote;
    std::vector<ssh::FileLocations> items{upload ? ssh::FileLocations{from, to} : ssh::FileLocations{to, from}};
    return client_.copyTrees(ssh::CopyTreesCommand(std::move(items), direction_, options));
  }

  // The destination is the source, with the source's time, and nothing
  // else is left in its folder.
  void expectArrived(std::string const& newBytes) const {
    EXPECT_TRUE(sameBytes(readFile(destination()), newBytes));
    EXPECT_EQ(mtimeOf(destination()), kNewTime);
    EXPECT_EQ(listNames(scratch_ / "to"), std::vector<std::string>{"file"});
  }

  // What onChange told of the last update.
  [[nodiscard]] std::vector<ssh::PlannedChange> const& changes() const { return changes_; }
  [[nodiscard]] fs::path source() const { return scratch_ / "from" / "file"; }
  [[nodiscard]] fs::path destination() const { return scratch_ / "to" / "file"; }

 private:
  ssh::SSHClient& client_;
  TransferDirection direction_;
  ScratchDir scratch_;
  std::vector<ssh::PlannedChange> changes_;
};

std::string directionName(::testing::TestParamInfo<TransferDirection> const& param) {
  return param.param == TransferDirection::LocalToRemote ? "Upload" : "Download";
}

class Deltas : public ::testing::TestWithParam<TransferDirection> {
 protected:
  static void SetUpTestSuite() {
    client_ = TestSshd::instance().connect();
    old64_ = randomBytes(64 * kMiB, 1);
  }
  static void TearDownTestSuite() {
    client_.reset();
    old64_.clear();
  }

  // Checks the report's counts and the arrival; `sent` bytes exactly.
  void expectDelta(std::string const& oldBytes, std::string const& newBytes, std::uint64_t sent) {
    auto const report = files_.update(oldBytes, newBytes);
    EXPECT_EQ(report.files, 1U);
    EXPECT_EQ(report.bytes, sent);
    EXPECT_EQ(report.reused, newBytes.size() - sent);
    EXPECT_THAT(report.details, ::testing::IsEmpty());
    ASSERT_EQ(files_.changes().size(), 1U);
    EXPECT_EQ(files_.changes().front().action, ssh::PlannedChange::Action::Delta);
    EXPECT_EQ(utf8(files_.changes().front().path), files_.destination().string());
    EXPECT_EQ(files_.changes().front().bytes, sent);
    files_.expectArrived(newBytes);
  }

  static std::unique_ptr<ssh::SSHClient> client_;
  static std::string old64_;
  DeltaUpdate files_{*client_, GetParam()};
};

std::unique_ptr<ssh::SSHClient> Deltas::client_;
std::string Deltas::old64_;

TEST_P(Deltas, OneMegabyteChangedInTheMiddleSendsTheTwoBlocksItTouches) {
  // Across the boundary of blocks 32 and 33: 2 MiB of 64, about 3 %.
  expectDelta(old64_, changed(old64_, 32 * kMiB + kMiB / 2, kMiB), 2 * kMiB);
}

TEST_P(Deltas, AnAppendSendsOnlyWhatWasAppended) {
  // The old version ends inside a block: its tail is compared by hash too.
  auto const old = old64_ + randomBytes(12345, 2);
  expectDelta(old, old + randomBytes(2 * kMiB, 3), 2 * kMiB);
}

TEST_P(Deltas, ATruncatedFileSendsOnlyItsShortLastBlock) {
  expectDelta(old64_, old64_.substr(0, 40 * kMiB + 1000), 1000);
}

TEST_P(Deltas, AChangeInTheFirstAndTheLastBlockSendsThoseTwo) {
  auto bytes = old64_;
  bytes.front() = static_cast<char>(~bytes.front());
  bytes.back() = static_cast<char>(~bytes.back());
  expectDelta(old64_, bytes, 2 * kMiB);
}

// The server hashes its blocks in parts at once, so changed blocks are found
// out of order; each is sent as it is found, exactly once.
TEST_P(Deltas, ChangesFoundInAnyOrderSendExactlyTheirBlocks) {
  auto bytes = old64_;
  for (std::uint64_t const block : {1U, 17U, 40U, 62U}) {
    auto& byte = bytes[static_cast<std::size_t>(block * kMiB + 1000)];
    byte = static_cast<char>(~byte);
  }
  expectDelta(old64_, bytes, 4 * kMiB);
}

TEST_P(Deltas, AnEmptyOldVersionSendsEverything) { expectDelta("", randomBytes(3 * kMiB, 4), 3 * kMiB); }

TEST_P(Deltas, TheSameContentsWithAnotherTimeSendNothing) {
  auto const report = files_.update(old64_, old64_);
  EXPECT_EQ(report.bytes, 0U);
  EXPECT_EQ(report.reused, 64 * kMiB);
  files_.expectArrived(old64_);
}

TEST_P(Deltas, AnInsertionSendsTheRest) {
  // 10 bytes into block 8: blocks 8 to 64 (the last one 10 bytes) differ.
  auto const bytes = old64_.substr(0, 8 * kMiB + 5) + "0123456789" + old64_.substr(8 * kMiB + 5);
  expectDelta(old64_, bytes, 56 * kMiB + 10);
}

TEST_P(Deltas, WithoutDeltasTheFileIsSentWhole) {
  auto const bytes = changed(old64_, kMiB, 10);
  auto const report = files_.update(old64_, bytes, DeltaMode::Off);
  EXPECT_EQ(report.bytes, 64 * kMiB);
  EXPECT_EQ(report.reused, 0U);
  ASSERT_EQ(files_.changes().size(), 1U);
  EXPECT_EQ(files_.changes().front().action, ssh::PlannedChange::Action::Copy);
  files_.expectArrived(bytes);
}

TEST_P(Deltas, AutoMeasuresTheLinkOnceAndSaysWhatItFound) {
  auto const bytes = changed(old64_, kMiB, 10);
  auto const report = files_.update(old64_, bytes, DeltaMode::Auto);
  // Whichever way it chose, every byte of the file was either sent or reused.
  EXPECT_EQ(report.bytes + report.reused, 64 * kMiB);
  ASSERT_EQ(report.details.size(), 1U);
  EXPECT_THAT(utf8(report.details.front()), ::testing::StartsWith("the link moved "));
  files_.expectArrived(bytes);
}

// Over a link of 40 Mbit/s hashing both sides costs far less than sending
// 16 MiB: the default measures it and sends the one changed block of 256 KiB.
TEST_P(Deltas, OverASlowLinkTheDefaultSendsOnlyTheChangedBlock) {
  auto& sshd = TestSshd::instance();
  auto const link = linkTo(sshd, 10ms, 40'000'000);
  auto const client = connectThrough(sshd, *link, optionsThrough(sshd, *link));
  DeltaUpdate files(*client, GetParam());
  auto const old = randomBytes(16 * kMiB, 5);
  auto const bytes = changed(old, 5 * kMiB + 1000, 1000);
  auto const report = files.update(old, bytes, DeltaMode::Auto);
  EXPECT_EQ(report.bytes, 256 * 1024U);
  EXPECT_EQ(report.reused, 16 * kMiB - 256 * 1024U);
  ASSERT_EQ(report.details.size(), 1U);
  EXPECT_THAT(utf8(report.details.front()), ::testing::StartsWith("the link moved "));
  ASSERT_EQ(files.changes().size(), 1U);
  EXPECT_EQ(files.changes().front().action, ssh::PlannedChange::Action::Delta);
  files.expectArrived(bytes);
}

// Over the same link, a destination that is a link to an old version: the
// first look (which follows links) finds a file worth measuring the link
// for, the listing finds a link, which a file replaces. The old version
// behind it stays, and no measurement is reported.
TEST_P(Deltas, OverASlowLinkALinkToAnOldVersionIsReplacedNotUpdated) {
  auto& sshd = TestSshd::instance();
  auto const link = linkTo(sshd, 10ms, 40'000'000);
  auto const client = connectThrough(sshd, *link, optionsThrough(sshd, *link));
  ScratchDir const scratch;
  fs::create_directory(scratch / "from");
  fs::create_directory(scratch / "to");
  auto const old = randomBytes(4 * kMiB, 8);
  auto const bytes = changed(old, kMiB, 10);
  writeFile(scratch / "to" / "old", old);
  setTime(scratch / "to" / "old", kOldTime);
  fs::create_symlink("old", scratch / "to" / "file");
  writeFile(scratch / "from" / "file", bytes);
  setTime(scratch / "from" / "file", kNewTime);
  ssh::TreeTransferOptions options;
  options.skipUnchanged = ssh::UnchangedTest::SizeAndTime;
  options.delta = DeltaMode::Auto;
  std::vector<ssh::PlannedChange> changes;
  options.onChange = [&changes](ssh::PlannedChange const& change) { changes.push_back(change); };
  auto const from = u((scratch / "from" / "file").string());
  auto const to = u((scratch / "to" / "file").string());
  bool const upload = GetParam() == TransferDirection::LocalToRemote;
  std::vector<ssh::FileLocations> items{upload ? ssh::FileLocations{from, to} : ssh::FileLocations{to, from}};
  auto const report = client->copyTrees(ssh::CopyTreesCommand(std::move(items), GetParam(), options));
  EXPECT_EQ(report.bytes, 4 * kMiB);
  EXPECT_EQ(report.reused, 0U);
  EXPECT_THAT(report.details, ::testing::IsEmpty());
  ASSERT_EQ(changes.size(), 1U);
  EXPECT_EQ(changes.front().action, ssh::PlannedChange::Action::Copy);
  EXPECT_FALSE(fs::is_symlink(scratch / "to" / "file"));
  EXPECT_TRUE(sameBytes(readFile(scratch / "to" / "file"), bytes));
  EXPECT_TRUE(sameBytes(readFile(scratch / "to" / "old"), old));
  EXPECT_EQ(listNames(scratch / "to"), (std::vector<std::string>{"file", "old"}));
}

// A server that allows one channel per connection has none left to hash
// with: the file goes whole, and the details say why.
TEST_P(Deltas, AServerOfOneSessionPerConnectionGetsTheFileWhole) {
  TestSshd const server("MaxSessions 1\n");
  auto const client = server.connect();
  DeltaUpdate files(*client, GetParam());
  auto const old = randomBytes(3 * kMiB, 6);
  auto const bytes = changed(old, kMiB, 10);
  auto const report = files.update(old, bytes, DeltaMode::Always);
  EXPECT_EQ(report.bytes, 3 * kMiB);
  EXPECT_EQ(report.reused, 0U);
  std::vector<std::string> details;
  for (auto const& line : report.details) details.push_back(utf8(line));
  EXPECT_THAT(details, ::testing::ElementsAre(::testing::StartsWith("files went over 1 of "),
                                              ::testing::StartsWith("'" + files.source().string() +
                                                                    "' sent whole: the server refused a channel to run "
                                                                    "commands on (")));
  files.expectArrived(bytes);
}

// The same over a slow link, where the default chooses a delta: the
// command channel it opens while measuring is refused, and the file goes
// whole all the same.
TEST_P(Deltas, AServerOfOneSessionPerConnectionGetsTheFileWholeByDefaultToo) {
  TestSshd const server("MaxSessions 1\n");
  auto const link = linkTo(server, 10ms, 40'000'000);
  auto const client = connectThrough(server, *link, optionsThrough(server, *link));
  DeltaUpdate files(*client, GetParam());
  auto const old = randomBytes(4 * kMiB, 7);
  auto const bytes = changed(old, kMiB, 10);
  auto const report = files.update(old, bytes, DeltaMode::Auto);
  EXPECT_EQ(report.bytes, 4 * kMiB);
  EXPECT_EQ(report.reused, 0U);
  std::vector<std::string> details;
  for (auto const& line : report.details) details.push_back(utf8(line));
  EXPECT_THAT(details, ::testing::ElementsAre(::testing::StartsWith("files went over 1 of "),
                                              ::testing::StartsWith("the link moved "),
                                              ::testing::StartsWith("'" + files.source().string() +
                                                                    "' sent whole: the server refused a channel to run "
                                                                    "commands on (")));
  files.expectArrived(bytes);
}

// Five changed files in a tree, two hashed at a time, among unchanged and new
// ones: each sends its own changed block.
TEST_P(Deltas, ATreeOfChangedFilesSendsEachOnesChangedBlock) {
  ScratchDir scratch;
  auto const from = scratch / "from";
  auto const to = scratch / "to";
  std::vector<std::string> versions;
  for (int i = 0; i < 7; ++i) {
    auto const name = "f" + std::to_string(i);
    auto const old = randomBytes(3 * kMiB, 20 + static_cast<std::uint64_t>(i));
    fs::create_directories(from / "sub");
    fs::create_directories(to / "sub");
    // f5 is new, f6 unchanged, the others changed in one block of 128 KiB.
    versions.push_back(i == 6 ? old : changed(old, static_cast<std::uint64_t>(i) * 300000, 1000));
    writeFile(from / "sub" / name, versions.back());
    setTime(from / "sub" / name, i == 6 ? kOldTime : kNewTime);
    if (i == 5) continue;
    writeFile(to / "sub" / name, old);
    setTime(to / "sub" / name, kOldTime);
  }
  ssh::TreeTransferOptions options;
  options.skipUnchanged = ssh::UnchangedTest::SizeAndTime;
  options.delta = DeltaMode::Always;
  bool const upload = GetParam() == TransferDirection::LocalToRemote;
  auto const a = u(from.string());
  auto const b = u(to.string());
  std::vector<ssh::FileLocations> items{upload ? ssh::FileLocations{a, b} : ssh::FileLocations{b, a}};
  auto const report = client_->copyTrees(ssh::CopyTreesCommand(std::move(items), GetParam(), options));
  EXPECT_EQ(report.files, 6U);
  EXPECT_EQ(report.skipped, 1U);
  // f0 to f4: one block each; f5 whole.
  EXPECT_EQ(report.bytes, 5 * 128 * 1024 + 3 * kMiB);
  EXPECT_EQ(report.reused, 5 * (3 * kMiB - 128 * 1024));
  for (int i = 0; i < 7; ++i) {
    auto const name = "f" + std::to_string(i);
    EXPECT_TRUE(sameBytes(readFile(to / "sub" / name), versions[static_cast<std::size_t>(i)])) << name;
  }
  EXPECT_EQ(listNames(to / "sub").size(), 7U);
}

INSTANTIATE_TEST_SUITE_P(BothWays, Deltas, kBothWays, directionName);

// A server whose commands find a fake tool first on their PATH (`Fake`
// names it and holds its script), with a client of its own.
template <typename Fake>
class WithFake : public ::testing::TestWithParam<TransferDirection> {
 protected:
  static void SetUpTestSuite() {
    fakeBin_ = TestSshd::makeTempDir();
    writeFile(fakeBin_ / Fake::kName, Fake::kScript);
    fs::permissions(fakeBin_ / Fake::kName, fs::perms(0755));
    server_ = std::make_unique<TestSshd>("SetEnv PATH=" + fakeBin_.string() + ":/usr/bin:/bin");
    client_ = server_->connect();
  }
  static void TearDownTestSuite() {
    client_.reset();
    server_.reset();
  }

  static inline fs::path fakeBin_;
  static inline std::unique_ptr<TestSshd> server_;
  static inline std::unique_ptr<ssh::SSHClient> client_;
};

// A host whose split is not GNU's (BusyBox, say): the commands see a PATH
// whose first split refuses --filter.
struct NotGnuSplit {
  static constexpr char const* kName = "split";
  static constexpr char const* kScript = "#!/bin/sh\necho \"split: unrecognized option '$1'\" >&2\nexit 1\n";
};
class WithoutGnuSplit : public WithFake<NotGnuSplit> {};

TEST_P(WithoutGnuSplit, TheFileIsSentWholeAndTheDetailsSaySo) {
  // The server's commands find that split first.
  auto const found = client_->executeCommand(ssh::ExecuteCommand(u("command -v split")));
  ASSERT_EQ(utf8(found.getStdout()), (fakeBin_ / "split").string() + "\n");
  DeltaUpdate files(*client_, GetParam());
  auto const old = randomBytes(4 * kMiB, 5);
  auto const bytes = changed(old, kMiB, 10);
  auto const report = files.update(old, bytes);
  EXPECT_EQ(report.files, 1U);
  EXPECT_EQ(report.bytes, 4 * kMiB);
  EXPECT_EQ(report.reused, 0U);
  ASSERT_EQ(report.details.size(), 1U);
  EXPECT_EQ(utf8(report.details.front()),
            "'" + files.source().string() +
                "' sent whole: the remote host has no GNU split with --filter to hash blocks with");
  files.expectArrived(bytes);
}

INSTANTIATE_TEST_SUITE_P(BothWays, WithoutGnuSplit, kBothWays, directionName);

// A server that hashes slowly (a pause before every block): a stop comes
// while the delta is under way.
struct SlowB2sum {
  static constexpr char const* kName = "b2sum";
  static constexpr char const* kScript = "#!/bin/sh\nsleep 0.05\nexec /usr/bin/b2sum \"$@\"\n";
};
class SlowHashing : public WithFake<SlowB2sum> {};

TEST_P(SlowHashing, AStopRemovesTheTemporaryAndKeepsTheOldVersion) {
  struct Stopped {};
  auto options = server_->options();
  bool stopped = false;
  options.progress = [&stopped](ssh::TransferProgress const& progress) {
    if (progress.currentFile.empty()) return;
    stopped = true;
    throw Stopped{};
  };
  auto const client = server_->connect(options);
  DeltaUpdate files(*client, GetParam());
  auto const old = randomBytes(64 * kMiB, 1);
  EXPECT_THROW(files.update(old, changed(old, kMiB, 10)), Stopped);
  EXPECT_TRUE(stopped);
  EXPECT_TRUE(sameBytes(readFile(files.destination()), old));
  EXPECT_EQ(listNames(files.destination().parent_path()), std::vector<std::string>{"file"});
}

INSTANTIATE_TEST_SUITE_P(BothWays, SlowHashing, kBothWays, directionName);

// A server whose hashing stops part way (its b2sum slows down after 50
// blocks and fails after 60): the block found changed early has gone, those
// found unchanged stay, and the rest is sent whole.
struct FailingB2sum {
  static constexpr char const* kName = "b2sum";
  static constexpr char const* kScript =
      "#!/bin/sh\nc=\"$(dirname \"$0\")/calls\"\necho >>\"$c\"\nn=$(wc -l <\"$c\")\n"
      "[ \"$n\" -le 60 ] || exit 1\n[ \"$n\" -le 50 ] || sleep 0.05\nexec /usr/bin/b2sum \"$@\"\n";
};
class FailingHashing : public WithFake<FailingB2sum> {};

TEST_P(FailingHashing, TheBlocksNotYetComparedAreSentWhole) {
  writeFile(fakeBin_ / "calls", "");
  DeltaUpdate files(*client_, GetParam());
  auto const old = randomBytes(64 * kMiB, 9);
  // In the second part's second block: found changed long before the end.
  auto const bytes = changed(old, 33 * kMiB + 10, 10);
  auto const report = files.update(old, bytes);
  EXPECT_EQ(report.files, 1U);
  EXPECT_EQ(report.bytes + report.reused, 64 * kMiB);
  EXPECT_EQ(report.reused % kMiB, 0U);
  EXPECT_GE(report.reused, 16 * kMiB);
  EXPECT_GE(report.bytes, 2 * kMiB);
  ASSERT_EQ(report.details.size(), 1U);
  // The cause as the server showed it: a part that said it failed, or one
  // that stopped short.
  EXPECT_THAT(
      utf8(report.details.front()),
      ::testing::AnyOf(::testing::StartsWith("'" + files.source().string() +
                                             "' sent whole but for the blocks found unchanged so far: hashing the "
                                             "blocks on the remote host failed"),
                       ::testing::StartsWith("'" + files.source().string() +
                                             "' sent whole but for the blocks found unchanged so far: the remote host "
                                             "hashed ")));
  files.expectArrived(bytes);
}

INSTANTIATE_TEST_SUITE_P(BothWays, FailingHashing, kBothWays, directionName);

// A host without b2sum (coreutils before 8.26): its blocks are hashed with
// sha256sum, and so are this side's.
struct MissingB2sum {
  static constexpr char const* kName = "b2sum";
  static constexpr char const* kScript = "#!/bin/sh\necho 'b2sum: not here' >&2\nexit 127\n";
};
class WithoutB2sum : public WithFake<MissingB2sum> {};

TEST_P(WithoutB2sum, TheChangedBlocksGoHashedBySha256sum) {
  auto const found = client_->executeCommand(ssh::ExecuteCommand(u("b2sum </dev/null; echo $?")));
  ASSERT_EQ(utf8(found.getStdout()), "127\n");
  DeltaUpdate files(*client_, GetParam());
  // The old version ends inside a block: its tail is compared by hash too.
  auto const old = randomBytes(4 * kMiB + 12345, 5);
  auto const bytes = changed(old, kMiB, 10) + randomBytes(kMiB, 6);
  auto const report = files.update(old, bytes);
  EXPECT_EQ(report.files, 1U);
  // The 128 KiB block changed, and what was appended.
  EXPECT_EQ(report.bytes, 128 * 1024 + kMiB);
  EXPECT_EQ(report.reused, bytes.size() - report.bytes);
  EXPECT_THAT(report.details, ::testing::IsEmpty());
  files.expectArrived(bytes);
}

INSTANTIATE_TEST_SUITE_P(BothWays, WithoutB2sum, kBothWays, directionName);

// A server whose SFTP refuses copy-data: deltas do not need it (an upload's
// temporary starts as a copy made by dd in the hashing command).
class WithoutCopyData : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = std::make_unique<TestSshd>("Subsystem sftp internal-sftp -P copy-data");
    client_ = server_->connect();
  }
  static void TearDownTestSuite() {
    client_.reset();
    server_.reset();
  }

  static std::unique_ptr<TestSshd> server_;
  static std::unique_ptr<ssh::SSHClient> client_;
};

std::unique_ptr<TestSshd> WithoutCopyData::server_;
std::unique_ptr<ssh::SSHClient> WithoutCopyData::client_;

TEST_F(WithoutCopyData, AnUploadCopiesTheOldVersionWithDdAndSendsTheChangedBlock) {
  DeltaUpdate files(*client_, TransferDirection::LocalToRemote);
  auto const old = randomBytes(4 * kMiB, 6);
  auto const bytes = changed(old, 3 * kMiB + 5, 10);
  auto const report = files.update(old, bytes);
  // 4 MiB: blocks of 128 KiB.
  EXPECT_EQ(report.bytes, 128U * 1024U);
  EXPECT_EQ(report.reused, 4 * kMiB - 128 * 1024);
  EXPECT_THAT(report.details, ::testing::IsEmpty());
  files.expectArrived(bytes);
}

}  // namespace
}  // namespace sshfa::testing
