// SSHClient::copyTrees and FileAccess::upload/download against the real sshd,
// both ways: names byte for byte, modes and times kept, links as links,
// special files noted, empty folders made, one error for a file in the way.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sshfileaccess/FileAccess.hpp"
#include "tests/support/SshTestHelpers.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using ssh::TransferDirection;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::uint32_t kOldTime = 1'500'000'000;  // 2017-07-14

struct stat statOf(fs::path const& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) throw std::runtime_error("cannot lstat " + path.string());
  return st;
}

void setTime(fs::path const& path, std::uint32_t seconds) {
  struct timespec const times[2] = {{static_cast<time_t>(seconds), 0}, {static_cast<time_t>(seconds), 0}};
  ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

std::vector<std::string> temporariesBelow(fs::path const& folder) {
  std::vector<std::string> found;
  for (auto const& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.path().filename().string().find(".sshfa-") != std::string::npos) found.push_back(entry.path());
  }
  return found;
}

class Trees : public ::testing::TestWithParam<TransferDirection> {
 protected:
  static void SetUpTestSuite() { client_ = TestSshd::instance().connect(); }
  static void TearDownTestSuite() { client_.reset(); }

  void SetUp() override { fs::create_directory(src()); }

  [[nodiscard]] bool upload() const { return GetParam() == TransferDirection::LocalToRemote; }
  [[nodiscard]] fs::path src() const { return scratch_ / "src"; }
  [[nodiscard]] fs::path dst() const { return scratch_ / "dst"; }

  ssh::TreeTransferReport copy(fs::path const& source, fs::path const& destination,
                               ssh::TreeTransferOptions options = {}) {
    auto const from = u(source.string());
    auto const to = u(destination.string());
    std::vector<ssh::FileLocations> items{upload() ? ssh::FileLocations{from, to} : ssh::FileLocations{to, from}};
    return client_->copyTrees(ssh::CopyTreesCommand(std::move(items), GetParam(), options));
  }
  ssh::TreeTransferReport copyTree(ssh::TreeTransferOptions options = {}) { return copy(src(), dst(), options); }

  [[nodiscard]] std::string failureOf(ssh::TreeTransferOptions options = {}) {
    auto const error = catchSSHError([&] { copyTree(options); });
    if (!error) return "no failure";
    EXPECT_EQ(error->kind(), ssh::SSHError::Kind::Transfer);
    return error->what();
  }

  static std::unique_ptr<ssh::SSHClient> client_;
  ScratchDir scratch_;
};

std::unique_ptr<ssh::SSHClient> Trees::client_;

TEST_P(Trees, NamesRoundTripByteForByte) {
  std::vector<std::string> const names = {"line\nfeed", "carriage\rreturn", "tab\there", "byte\xff",
                                          "$(touch x)", "-leading",         "plain"};
  fs::create_directory(src() / "sub\nfolder");
  for (auto const& name : names) writeFile(src() / "sub\nfolder" / name, "contents of " + name);
  auto const report = copyTree();
  EXPECT_EQ(report.files, names.size());
  EXPECT_EQ(report.folders, 2U);  // dst and the folder below it
  auto expected = names;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(listNames(dst() / "sub\nfolder"), expected);
  for (auto const& name : names) EXPECT_EQ(readFile(dst() / "sub\nfolder" / name), "contents of " + name);
  EXPECT_FALSE(fs::exists(scratch_ / "x"));
}

TEST_P(Trees, ModesArriveExactly) {
  for (auto const mode : {0600U, 0640U, 0755U}) {
    auto const name = "m" + std::to_string(mode);
    writeFile(src() / name, name);
    ::chmod((src() / name).c_str(), mode);
  }
  // Replacing files of other modes.
  fs::create_directory(dst());
  for (auto const& [name, mode] : {std::pair{"m384", 0777U}, {"m416", 0600U}, {"m493", 0444U}}) {
    writeFile(dst() / name, "old");
    ::chmod((dst() / name).c_str(), mode);
  }
  ::umask(022);
  copyTree();
  EXPECT_EQ(permissionsOf(dst() / "m384"), 0600U);
  EXPECT_EQ(permissionsOf(dst() / "m416"), 0640U);
  EXPECT_EQ(permissionsOf(dst() / "m493"), 0755U);
  EXPECT_EQ(readFile(dst() / "m416"), "m416");
}

// Modes the umask would narrow, or without the owner's writing, arrive too.
TEST_P(Trees, ModesTheUmaskWouldNarrowArriveExactly) {
  for (auto const mode : {0640U, 0644U, 0666U, 0400U, 0500U}) {
    auto const name = "m" + std::to_string(mode);
    writeFile(src() / name, name);
    ::chmod((src() / name).c_str(), mode);
  }
  ::umask(027);
  copyTree();
  ::umask(022);
  for (auto const mode : {0640U, 0644U, 0666U, 0400U, 0500U}) {
    auto const name = "m" + std::to_string(mode);
    EXPECT_EQ(permissionsOf(dst() / name), mode) << name;
    EXPECT_EQ(readFile(dst() / name), name);
  }
}

TEST_P(Trees, SpecialBitsOnlyWhenAsked) {
  writeFile(src() / "s", "s");
  ::chmod((src() / "s").c_str(), 04755);
  copyTree();
  EXPECT_EQ(statOf(dst() / "s").st_mode & 07777, 0755U);
  copyTree({.keepSpecialBits = true});
  EXPECT_EQ(statOf(dst() / "s").st_mode & 07777, 04755U);
}

TEST_P(Trees, TimesEqualToTheSecond) {
  fs::create_directory(src() / "folder");
  writeFile(src() / "folder" / "f", "f");
  setTime(src() / "folder" / "f", kOldTime);
  setTime(src() / "folder", kOldTime + 60);
  copyTree();
  EXPECT_EQ(statOf(dst() / "folder" / "f").st_mtim.tv_sec, kOldTime);
  EXPECT_EQ(statOf(dst() / "folder").st_mtim.tv_sec, kOldTime + 60);
}

TEST_P(Trees, NeitherModesNorTimesWhenTurnedOff) {
  writeFile(src() / "f", "f");
  ::chmod((src() / "f").c_str(), 0700);
  setTime(src() / "f", kOldTime);
  ::umask(022);
  copyTree({.keepPermissions = false, .keepTimes = false});
  EXPECT_EQ(permissionsOf(dst() / "f"), 0644U);
  EXPECT_GT(statOf(dst() / "f").st_mtim.tv_sec, kOldTime + 1000);
}

TEST_P(Trees, LinksArriveAsLinks) {
  writeFile(src() / "target", "t");
  fs::create_symlink("target", src() / "relative");
  fs::create_symlink("/nowhere/at\nall", src() / "dangling");
  auto const report = copyTree();
  EXPECT_EQ(report.links, 2U);
  EXPECT_EQ(report.files, 1U);
  EXPECT_TRUE(fs::is_symlink(dst() / "relative"));
  EXPECT_EQ(fs::read_symlink(dst() / "relative"), "target");
  EXPECT_EQ(fs::read_symlink(dst() / "dangling"), "/nowhere/at\nall");
  // Replacing a link keeps it a link.
  fs::remove(src() / "relative");
  fs::create_symlink("elsewhere", src() / "relative");
  copyTree();
  EXPECT_EQ(fs::read_symlink(dst() / "relative"), "elsewhere");
  EXPECT_THAT(temporariesBelow(dst()), IsEmpty());
}

TEST_P(Trees, FollowedLinksAreCopiedAsWhatTheyPointTo) {
  fs::create_directory(src() / "real");
  writeFile(src() / "real" / "f", "f");
  fs::create_symlink("real", src() / "alias");
  auto const report = copyTree({.followLinks = true});
  EXPECT_EQ(report.links, 0U);
  EXPECT_EQ(report.files, 2U);
  EXPECT_FALSE(fs::is_symlink(dst() / "alias"));
  EXPECT_EQ(readFile(dst() / "alias" / "f"), "f");
}

TEST_P(Trees, AFollowedLoopIsAnErrorNamingThePath) {
  fs::create_directory(src() / "a");
  fs::create_symlink("..", src() / "a" / "up");
  EXPECT_THAT(failureOf({.followLinks = true}),
              HasSubstr("'" + (src() / "a" / "up").string() + "' leads back into a folder above it"));
}

TEST_P(Trees, AFifoIsReportedAndSkipped) {
  writeFile(src() / "f", "f");
  ASSERT_EQ(::mkfifo((src() / "pipe").c_str(), 0600), 0);
  auto const report = copyTree();
  EXPECT_EQ(report.special, 1U);
  EXPECT_THAT(report.notes, ElementsAre(u("skipped '" + (src() / "pipe").string() + "': a FIFO")));
  EXPECT_EQ(listNames(dst()), std::vector<std::string>{"f"});
}

TEST_P(Trees, EmptyFoldersAreReproduced) {
  fs::create_directories(src() / "empty" / "deeper");
  auto const report = copyTree();
  EXPECT_TRUE(fs::is_directory(dst() / "empty" / "deeper"));
  EXPECT_EQ(report.folders, 3U);
  EXPECT_EQ(report.files, 0U);
}

TEST_P(Trees, MissingParentsOfTheDestinationAreMade) {
  writeFile(src() / "f", "f");
  auto const report = copy(src() / "f", scratch_ / "new" / "deeper" / "f");
  EXPECT_EQ(readFile(scratch_ / "new" / "deeper" / "f"), "f");
  EXPECT_EQ(report.folders, 2U);
}

TEST_P(Trees, AFileInTheWayOfAFolderIsOneError) {
  fs::create_directories(src() / "sub" / "deeper");
  for (int i = 0; i < 20; ++i) writeFile(src() / "sub" / "deeper" / ("f" + std::to_string(i)), "x");
  fs::create_directory(src() / "sub" / "other");
  fs::create_directory(dst());
  writeFile(dst() / "sub", "in the way");
  auto const message = failureOf();
  EXPECT_THAT(message, HasSubstr("cannot make folder '" + (dst() / "sub").string() + "'"));
  EXPECT_THAT(message, HasSubstr("a file is in the way"));
  EXPECT_THAT(message, ::testing::Not(HasSubstr("more")));
  EXPECT_EQ(readFile(dst() / "sub"), "in the way");
}

TEST_P(Trees, AMissingSourceIsAnError) {
  auto const error = catchSSHError([&] { copy(src() / "absent", dst()); });
  ASSERT_TRUE(error);
  EXPECT_THAT(error->what(), HasSubstr("cannot read '" + (src() / "absent").string() + "': No such file"));
}

TEST_P(Trees, ManyFilesInManyFolders) {
  std::size_t bytes = 0;
  for (int d = 0; d < 30; ++d) {
    fs::create_directory(src() / ("d" + std::to_string(d)));
    for (int f = 0; f < 40; ++f) {
      auto const contents =
          randomBytes(static_cast<std::size_t>(100 + d * 40 + f), static_cast<std::uint64_t>(d * 40 + f));
      writeFile(src() / ("d" + std::to_string(d)) / ("f" + std::to_string(f)), contents);
      bytes += contents.size();
    }
  }
  auto const report = copyTree();
  EXPECT_EQ(report.files, 1200U);
  EXPECT_EQ(report.bytes, bytes);
  EXPECT_EQ(readFile(dst() / "d29" / "f39"), readFile(src() / "d29" / "f39"));
  EXPECT_THAT(temporariesBelow(dst()), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(BothWays, Trees,
                         ::testing::Values(TransferDirection::LocalToRemote, TransferDirection::RemoteToLocal),
                         [](auto const& param) {
                           return param.param == TransferDirection::LocalToRemote ? "Upload" : "Download";
                         });

// The server reached under a name the transfer cannot take for this machine
// (127.0.0.1 written as one number): nothing is asked about this machine, so
// an upload's missing parents go with the first questions about its
// destination, before the answer says whether it is a folder.
class UploadsFromAfar : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    auto const& server = TestSshd::instance();
    auto const file = TestSshd::makeTempDir() / "known_hosts";
    std::ofstream(file) << "[2130706433]:" << server.port() << " " << server.hostPublicKey() << "\n";
    auto options = server.options();
    options.knownHostsFiles = {file.string()};
    client_ = std::make_unique<ssh::SSHClient>(u("2130706433"), server.port(), server.auth(), options);
  }
  static void TearDownTestSuite() { client_.reset(); }

  // As the tool puts: into a folder, unchanged files skipped.
  ssh::TreeTransferReport put(fs::path const& source, fs::path const& destination) {
    std::vector<ssh::FileLocations> items{{u(source.string()), u(destination.string())}};
    ssh::TreeTransferOptions options;
    options.intoFolders = true;
    options.skipUnchanged = ssh::UnchangedTest::SizeAndTime;
    return client_->copyTrees(ssh::CopyTreesCommand(std::move(items), TransferDirection::LocalToRemote, options));
  }

  static std::unique_ptr<ssh::SSHClient> client_;
  ScratchDir scratch_;
};

std::unique_ptr<ssh::SSHClient> UploadsFromAfar::client_;

TEST_F(UploadsFromAfar, MissingParentsOfTheDestinationAreMade) {
  writeFile(scratch_ / "f", "f");
  auto const report = put(scratch_ / "f", scratch_ / "new" / "deeper" / "g");
  EXPECT_EQ(readFile(scratch_ / "new" / "deeper" / "g"), "f");
  EXPECT_EQ(report.folders, 2U);
  EXPECT_EQ(report.files, 1U);
}

TEST_F(UploadsFromAfar, AFolderReceivesTheSourceUnderItsOwnNameAndNothingIsMade) {
  writeFile(scratch_ / "f", "f");
  fs::create_directories(scratch_ / "dst" / "deeper");
  auto const report = put(scratch_ / "f", scratch_ / "dst" / "deeper");
  EXPECT_EQ(readFile(scratch_ / "dst" / "deeper" / "f"), "f");
  EXPECT_EQ(report.folders, 0U);
  EXPECT_EQ(listNames(scratch_ / "dst" / "deeper"), std::vector<std::string>{"f"});
}

TEST_F(UploadsFromAfar, AFileOverAnOldVersionIsReplacedAndTheSecondRunSkipsIt) {
  writeFile(scratch_ / "f", "new version");
  writeFile(scratch_ / "g", "old");
  EXPECT_EQ(put(scratch_ / "f", scratch_ / "g").files, 1U);
  EXPECT_EQ(readFile(scratch_ / "g"), "new version");
  auto const again = put(scratch_ / "f", scratch_ / "g");
  EXPECT_EQ(again.files, 0U);
  EXPECT_EQ(again.skipped, 1U);
  EXPECT_EQ(again.folders, 0U);
}

TEST_F(UploadsFromAfar, AMissingSourceMakesNoParent) {
  auto const error = catchSSHError([&] { put(scratch_ / "absent", scratch_ / "new" / "deeper" / "absent"); });
  ASSERT_TRUE(error);
  EXPECT_THAT(error->what(), HasSubstr("cannot read '" + (scratch_ / "absent").string() + "': No such file"));
  EXPECT_FALSE(fs::exists(scratch_ / "new"));
}

TEST_F(UploadsFromAfar, AFileInTheWayOfAParentIsOneErrorAndChangesNothing) {
  writeFile(scratch_ / "f", "f");
  writeFile(scratch_ / "blocker", "in the way");
  auto const error = catchSSHError([&] { put(scratch_ / "f", scratch_ / "blocker" / "sub" / "f"); });
  ASSERT_TRUE(error);
  EXPECT_THAT(error->what(),
              HasSubstr("cannot make folder '" + (scratch_ / "blocker").string() + "' on root@2130706433:"));
  EXPECT_THAT(error->what(), HasSubstr("a file is in the way"));
  EXPECT_THAT(error->what(), ::testing::Not(HasSubstr("/sub'")));
  EXPECT_EQ(readFile(scratch_ / "blocker"), "in the way");
  EXPECT_EQ(listNames(scratch_.path()), (std::vector<std::string>{"blocker", "f"}));
}

// The facade's own names for the same engine.
TEST(FileAccessTrees, UploadAndDownloadReport) {
  ScratchDir scratch;
  fs::create_directory(scratch.path() / "tree");
  writeFile(scratch.path() / "tree" / "a", "abc");
  ::mkfifo((scratch.path() / "tree" / "p").c_str(), 0600);
  nimbal::remoteaccess::sshfileaccess::FileAccess access(TestSshd::instance().connect());
  auto const up = access.upload({{u((scratch.path() / "tree").string()), u((scratch.path() / "up").string())}});
  EXPECT_EQ(up.files, 1U);
  EXPECT_EQ(up.bytes, 3U);
  EXPECT_EQ(up.special, 1U);
  auto const down = access.download({{u((scratch.path() / "up").string()), u((scratch.path() / "down").string())}});
  EXPECT_EQ(down.files, 1U);
  EXPECT_EQ(readFile(scratch.path() / "down" / "a"), "abc");
}

}  // namespace
}  // namespace sshfa::testing
