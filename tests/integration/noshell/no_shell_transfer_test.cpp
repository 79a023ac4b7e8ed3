// Transfers on an account that allows SFTP and nothing else: a re-run still
// skips unchanged files, --checksum falls back to size and time and says so,
// and a partial copy is continued when its prefix is small enough to be
// read over SFTP and checked here, else started over with a note; a delta
// goes whole, and says so under -v.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/faults/FaultSupport.hpp"
#include "tests/support/TestFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr std::time_t kTime = 1'500'000'000;

class TransfersOnSftpOnly : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    account_ = TestSshd::instance().sftpOnlyAccount();
    if (!account_) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
    local_ = TestSshd::makeTempDir();
    // The account's folder outlives the test: each test takes one of its own in it.
    auto const* test = ::testing::UnitTest::GetInstance()->current_test_info();
    own_ = std::string(test->name()) + (upload() ? "-put" : "-get");
    std::replace(own_.begin(), own_.end(), '/', '-');
    fs::create_directories(account_->folder / own_);
    TestSshd::shell("chown " + account_->login.user + " '" + (account_->folder / own_).string() + "'");
  }

  [[nodiscard]] bool upload() const { return GetParam(); }
  // The side this test writes its source on, and the destination's side.
  [[nodiscard]] fs::path remoteFolder() const { return account_->folder / own_; }
  [[nodiscard]] fs::path sourceFolder() const { return upload() ? local_ : remoteFolder(); }
  [[nodiscard]] fs::path destinationFolder() const { return upload() ? remoteFolder() : local_; }
  // How the tool names a path in one of them.
  [[nodiscard]] std::string operand(fs::path const& folder, std::string const& name) const {
    if (folder == remoteFolder()) return account_->folderForAccount + "/" + own_ + "/" + name;
    return (folder / name).string();
  }

  // put or get of source/NAME into the destination folder.
  [[nodiscard]] ToolResult transfer(std::string const& name, std::vector<std::string> const& options) const {
    std::vector<std::string> args{upload() ? "put" : "get", "--json"};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(operand(sourceFolder(), name));
    args.push_back(operand(destinationFolder(), ""));
    return runTool(joined(toolConnection(TestSshd::instance(), account_->login.user), args));
  }

  // A file the account can read and write wherever it lies.
  void write(fs::path const& path, std::string const& bytes) const {
    writeFile(path, bytes);
    TestSshd::shell("chown " + account_->login.user + " '" + path.string() + "'");
    struct timespec const times[2] = {{kTime, 0}, {kTime, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
  }

  std::optional<TestSshd::SftpOnlyAccount> account_;
  fs::path local_;
  std::string own_;
};

TEST_P(TransfersOnSftpOnly, ARerunSkipsUnchangedFiles) {
  write(sourceFolder() / "tree" / "a", "alpha");
  write(sourceFolder() / "tree" / "b", "bravo");
  auto const first = transfer("tree", {});
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_THAT(first.out, HasSubstr("\"copied\": 2,\n"));
  auto const again = transfer("tree", {});
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_THAT(again.out, HasSubstr("\"copied\": 0,\n"));
  EXPECT_THAT(again.out, HasSubstr("\"unchanged\": 2,\n"));
}

TEST_P(TransfersOnSftpOnly, ChecksumsFallBackToSizeAndTimeAndSaySo) {
  write(sourceFolder() / "tree" / "a", "alpha");
  ASSERT_EQ(transfer("tree", {}).status, 0);
  auto const again = transfer("tree", {"-c"});
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_THAT(again.out, HasSubstr("\"copied\": 0,\n"));
  EXPECT_THAT(again.out, HasSubstr("\"unchanged\": 1,\n"));
  EXPECT_THAT(again.err,
              HasSubstr("the server allows SFTP only: files are compared by size and time, not by checksum\n"));
}

TEST_P(TransfersOnSftpOnly, ASmallPartialCopyIsCheckedOverSftpAndContinued) {
  auto const bytes = randomBytes(3 * 512 * 1024, 7);
  write(sourceFolder() / "big", bytes);
  auto const partial = ".big.sshfa-partial-" + std::to_string(bytes.size()) + "-" + std::to_string(kTime);
  write(destinationFolder() / partial, bytes.substr(0, 512 * 1024));
  auto const result = transfer("big", {});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\"resumed\": 1"));
  EXPECT_THAT(result.out, HasSubstr("\"bytes\": " + std::to_string(bytes.size() - 512 * 1024)));
  EXPECT_EQ(readFile(destinationFolder() / "big"), bytes);
}

TEST_P(TransfersOnSftpOnly, ALargePartialCopyStartsOverWithANote) {
  auto const bytes = randomBytes(3 * 1024 * 1024, 8);
  write(sourceFolder() / "big", bytes);
  auto const partial = ".big.sshfa-partial-" + std::to_string(bytes.size()) + "-" + std::to_string(kTime);
  write(destinationFolder() / partial, bytes.substr(0, 2 * 1024 * 1024));
  auto const result = transfer("big", {});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\"resumed\": 0"));
  EXPECT_THAT(result.out, HasSubstr("\"bytes\": " + std::to_string(bytes.size())));
  EXPECT_THAT(result.err, HasSubstr("starts over: the server allows SFTP only, so its partial copy cannot be checked"));
  EXPECT_FALSE(fs::exists(destinationFolder() / partial));
}

TEST_P(TransfersOnSftpOnly, ADeltaGoesWholeAndSaysSoWhenVerbose) {
  auto bytes = randomBytes(2 * 1024 * 1024, 9);
  write(destinationFolder() / "big", bytes);
  bytes[1000] = static_cast<char>(~bytes[1000]);
  write(sourceFolder() / "big", bytes);
  ::utimensat(AT_FDCWD, (sourceFolder() / "big").c_str(), nullptr, 0);
  auto const result = transfer("big", {"-v", "--delta"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\"bytes\": " + std::to_string(bytes.size()) + ",\n"));
  EXPECT_THAT(result.out, HasSubstr("\"reused\": 0,\n"));
  EXPECT_THAT(result.err, HasSubstr("sshfa: trace: " + std::string(upload() ? "put" : "get") + ": '" +
                                    operand(sourceFolder(), "big") + "' sent whole: the server allows SFTP only\n"));
  EXPECT_EQ(readFile(destinationFolder() / "big"), bytes);
}

INSTANTIATE_TEST_SUITE_P(BothWays, TransfersOnSftpOnly, ::testing::Bool(),
                         [](::testing::TestParamInfo<bool> const& param) { return param.param ? "Put" : "Get"; });

}  // namespace
}  // namespace sshfa::testing
