// put and get of a changed file over its old version, against the test
// sshd: --delta sends the changed block and says how much was reused (the
// summary and --json), -W sends it whole, a dry run names the delta, the
// two options exclude each other, and by default -v says what the link was
// measured to do.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/cli/CliFiles.hpp"
#include "tests/cli/ToolConnection.hpp"
#include "tests/cli/ToolProcess.hpp"
#include "tests/support/SshTestHelpers.hpp"
#include "tests/support/TestFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

constexpr std::size_t kSize = 8U << 20U;  // blocks of 128 KiB
constexpr std::size_t kBlock = 128U << 10U;
constexpr std::time_t kOldTime = 1'500'000'000;
constexpr std::time_t kNewTime = 1'600'000'000;

class ToolDelta : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    dir_ = TestSshd::makeTempDir();
    old_ = randomBytes(kSize, 11);
    new_ = old_;
    new_.replace(3 * kBlock + 100, 10, "0123456789");
    writeFile(dir_ / "dst" / "big", old_);
    setTime(dir_ / "dst" / "big", kOldTime);
    writeFile(dir_ / "src" / "big", new_);
    setTime(dir_ / "src" / "big", kNewTime);
  }

  [[nodiscard]] static std::string command() { return GetParam() ? "put" : "get"; }
  [[nodiscard]] std::string source() const { return (dir_ / "src" / "big").string(); }
  [[nodiscard]] std::string destination() const { return (dir_ / "dst" / "big").string(); }

  [[nodiscard]] ToolResult transfer(std::vector<std::string> const& options) const {
    auto args = connectionArgs(TestSshd::instance());
    args.push_back(command());
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(source());
    args.push_back(destination());
    return runTool(args);
  }
  [[nodiscard]] json totals(std::vector<std::string> options) const {
    options.insert(options.begin(), "--json");
    auto const result = transfer(options);
    EXPECT_EQ(result.status, 0) << result.err;
    return json::parse(result.out);
  }

  fs::path dir_;
  std::string old_;
  std::string new_;
};

TEST_P(ToolDelta, TheSummaryAndJsonCountTheBytesSentAndReused) {
  auto const result = transfer({"--delta"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, MatchesRegex(command() + R"(: copied 1 file, 128\.0 KiB in [0-9.]+ s \(.*\), 7\.9 MiB reused
)"));
  EXPECT_TRUE(readFile(dir_ / "dst" / "big") == new_);

  writeFile(dir_ / "dst" / "big", old_);
  setTime(dir_ / "dst" / "big", kOldTime);
  auto const counted = totals({"--delta"});
  EXPECT_EQ(counted["copied"], 1);
  EXPECT_EQ(counted["bytes"], kBlock);
  EXPECT_EQ(counted["reused"], kSize - kBlock);
  EXPECT_TRUE(readFile(dir_ / "dst" / "big") == new_);
}

TEST_P(ToolDelta, WholeFileSendsEverything) {
  auto const counted = totals({"-W"});
  EXPECT_EQ(counted["bytes"], kSize);
  EXPECT_EQ(counted["reused"], 0);
  EXPECT_TRUE(readFile(dir_ / "dst" / "big") == new_);
}

TEST_P(ToolDelta, ADryRunNamesTheDelta) {
  auto const planned = transfer({"-n", "--delta"});
  EXPECT_EQ(planned.status, 0) << planned.err;
  EXPECT_EQ(planned.out, "delta " + destination() + " (8.0 MiB)\n");
  EXPECT_TRUE(readFile(dir_ / "dst" / "big") == old_);
}

TEST_P(ToolDelta, DeltaAndWholeFileExcludeEachOther) {
  auto const result = transfer({"--delta", "-W"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, HasSubstr("--delta excludes --whole-file"));
  EXPECT_TRUE(readFile(dir_ / "dst" / "big") == old_);
}

TEST_P(ToolDelta, ByDefaultTheLinkIsMeasuredAndVerboseSaysWhatItDid) {
  auto const result = transfer({"-v"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(
      result.err,
      MatchesRegex(
          R"((.*
)*sshfa: trace: )" +
          command() +
          R"(: the link moved [0-9.]+ MB/s with a round trip of [0-9.]+ ms \([0-9.]+ MB/s with a copy's data in flight\): changed files go as deltas where hashing both sides takes less time than sending them
(.*
)*)"));
  EXPECT_TRUE(readFile(dir_ / "dst" / "big") == new_);
}

INSTANTIATE_TEST_SUITE_P(BothWays, ToolDelta, ::testing::Values(true, false),
                         [](::testing::TestParamInfo<bool> const& param) { return param.param ? "Put" : "Get"; });

}  // namespace
}  // namespace sshfa::testing
