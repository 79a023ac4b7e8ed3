// put and get run again, against the test sshd: unchanged files left alone
// (by size and time, or by checksum), --ignore-times, --delete, --dry-run
// with its plan, and a transfer killed halfway that the next run resumes.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/cli/CliFiles.hpp"
#include "tests/cli/ToolConnection.hpp"
#include "tests/cli/ToolProcess.hpp"
#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

constexpr std::time_t kOldTime = 1'500'000'000;

std::vector<fs::path> temporariesIn(fs::path const& folder) {
  std::vector<fs::path> found;
  if (!fs::exists(folder)) return found;
  for (auto const& entry : fs::directory_iterator(folder)) {
    if (entry.path().filename().string().find(".sshfa-") != std::string::npos) found.push_back(entry.path());
  }
  return found;
}

class SyncTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { dir_ = TestSshd::makeTempDir(); }

  static TestSshd& server() { return TestSshd::instance(); }

  static std::vector<std::string> withConnection(std::vector<std::string> const& args) {
    return testing::withConnection(server(), args);
  }

  [[nodiscard]] static bool upload() { return GetParam(); }
  [[nodiscard]] static std::string command() { return upload() ? "put" : "get"; }

  // put or get of the source tree into the destination folder, as rsync
  // users run it again and again.
  static ToolResult transfer(std::vector<std::string> args) {
    args.insert(args.begin(), command());
    return runTool(withConnection(args));
  }
  static json totals(std::vector<std::string> args) {
    args.insert(args.begin(), "--json");
    auto const result = transfer(args);
    EXPECT_EQ(result.status, 0) << result.err;
    return json::parse(result.out);
  }

  [[nodiscard]] std::string at(std::string const& name) const { return (dir_ / name).string(); }
  [[nodiscard]] std::string source() const { return at("src/tree"); }
  [[nodiscard]] std::string into() const { return at("dst/"); }
  [[nodiscard]] fs::path copied(std::string const& name) const { return dir_ / "dst" / "tree" / name; }

  void makeTree() {
    writeFile(at("src/tree/a"), "alpha");
    writeFile(at("src/tree/sub/b"), "bravo");
    setTime(at("src/tree/a"), kOldTime);
    setTime(at("src/tree/sub/b"), kOldTime);
    ASSERT_EQ(totals({source(), into()})["copied"], 2);
  }

  fs::path dir_;
};

TEST_P(SyncTest, UnchangedFilesAreLeftAloneByDefault) {
  makeTree();
  auto const again = totals({source(), into()});
  EXPECT_EQ(again["copied"], 0);
  EXPECT_EQ(again["unchanged"], 2);
  EXPECT_EQ(again["deleted"], 0);
  EXPECT_EQ(again["resumed"], 0);
  EXPECT_EQ(again["bytes"], 0);
  auto const summary = transfer({source(), into()});
  EXPECT_EQ(summary.status, 0) << summary.err;
  EXPECT_THAT(summary.err, MatchesRegex(command() + R"(: copied 0 files, 0 B in [0-9.]+ s \(.*\), 2 unchanged
)"));
  EXPECT_EQ(totals({"--ignore-times", source(), into()})["copied"], 2);
}

TEST_P(SyncTest, AByteChangedUnderTheSameSizeAndTimeIsFoundWithChecksums) {
  makeTree();
  writeFile(at("src/tree/sub/b"), "bravO");
  setTime(at("src/tree/sub/b"), kOldTime);
  EXPECT_EQ(totals({source(), into()})["copied"], 0);
  EXPECT_EQ(readFile(copied("sub/b")), "bravo");
  auto const checked = totals({"--checksum", source(), into()});
  EXPECT_EQ(checked["copied"], 1);
  EXPECT_EQ(checked["unchanged"], 1);
  EXPECT_EQ(checked["bytes"], 5);
  EXPECT_EQ(readFile(copied("sub/b")), "bravO");
}

TEST_P(SyncTest, DeleteRemovesWhatTheSourceLacks) {
  makeTree();
  writeFile(copied("stale"), "s");
  writeFile(copied("sub/gone/deep"), "d");
  auto const result = transfer({"--delete", source(), into()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr(", 2 unchanged, 3 deleted\n"));
  EXPECT_EQ(listNames(dir_ / "dst" / "tree"), (std::vector<std::string>{"a", "sub"}));
  EXPECT_EQ(listNames(dir_ / "dst" / "tree" / "sub"), (std::vector<std::string>{"b"}));
}

TEST_P(SyncTest, DryRunPrintsOnlyTheChangesAndChangesNothing) {
  makeTree();
  writeFile(at("src/tree/new"), "new!");
  writeFile(copied("stale"), "s");
  ::chmod(at("src/tree/a").c_str(), 0600);
  auto const planned = transfer({"-n", "--delete", source(), into()});
  EXPECT_EQ(planned.status, 0) << planned.err;
  EXPECT_EQ(planned.out, "copy " + copied("new").string() + " (4 B)\ndelete " + copied("stale").string() + "\nfix " +
                             copied("a").string() + "\n");
  // No rate: nothing moved.
  EXPECT_EQ(planned.err, command() + ": dry run, would copy 1 file, 4 B, 2 unchanged, 1 deleted\n");
  EXPECT_FALSE(fs::exists(copied("new")));
  EXPECT_TRUE(fs::exists(copied("stale")));

  // -v names what is left alone too.
  auto const verbose = transfer({"-n", "-v", "--delete", source(), into()});
  EXPECT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_EQ(verbose.out, "copy " + copied("new").string() + " (4 B)\nskip " + copied("sub/b").string() +
                             " (5 B)\ndelete " + copied("stale").string() + "\nfix " + copied("a").string() + "\n");

  auto const plan = totals({"--dry-run", "--delete", source(), into()});
  EXPECT_EQ(plan["dryRun"], true);
  EXPECT_EQ(plan["copied"], 1);
  EXPECT_EQ(plan["unchanged"], 2);
  EXPECT_EQ(plan["deleted"], 1);
  EXPECT_EQ(plan["bytes"], 4);
  ASSERT_EQ(plan["plan"].size(), 4U);
  EXPECT_EQ(plan["plan"][0],
            json::parse(R"({"action": "copy", "bytes": 4, "path": ")" + copied("new").string() + "\"}"));
  EXPECT_EQ(plan["plan"][1]["action"], "skip");
  EXPECT_EQ(plan["plan"][2]["action"], "delete");
  EXPECT_EQ(plan["plan"][3], json::parse(R"({"action": "fix", "bytes": 5, "path": ")" + copied("a").string() + "\"}"));
  EXPECT_FALSE(fs::exists(copied("new")));
}

// rsync's -v: a line per change as it is done, on standard output.
TEST_P(SyncTest, VerboseNamesEachChangeAsItIsDone) {
  makeTree();
  writeFile(at("src/tree/new"), "new!");
  writeFile(at("src/tree/sub/b"), "bravo, longer");
  writeFile(copied("stale"), "s");
  auto const done = transfer({"-v", "--delete", source(), into()});
  EXPECT_EQ(done.status, 0) << done.err;
  std::vector<std::string> lines;
  std::istringstream in(done.out);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (std::vector<std::string>{"copy " + copied("new").string() + " (4 B)",
                                             "copy " + copied("sub/b").string() + " (13 B)",
                                             "delete " + copied("stale").string()}));
  EXPECT_TRUE(fs::exists(copied("new")));
  EXPECT_FALSE(fs::exists(copied("stale")));
  // Nothing changed, nothing named.
  auto const again = transfer({"-v", "--delete", source(), into()});
  EXPECT_EQ(again.out, "");
}

// ---- resume ----------------------------------------------------------------------------

constexpr std::size_t kBigSize = 64U << 20U;

class ResumeTest : public SyncTest {
 protected:
  void SetUp() override {
    SyncTest::SetUp();
    contents_ = randomBytes(kBigSize, 42);
    writeFile(at("src/big"), contents_);
    setTime(at("src/big"), kOldTime);
    fs::create_directories(at("dst"));
  }

  // Starts the transfer and kills it (SIGKILL) once its temporary holds
  // half the file; returns the temporary.
  fs::path killHalfway() {
    ToolProcess tool(withConnection({command(), at("src/big"), at("dst/big")}), {});
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    std::optional<fs::path> temp;
    while (std::chrono::steady_clock::now() < deadline) {
      auto const found = temporariesIn(at("dst"));
      std::error_code error;
      if (found.size() == 1 && fs::file_size(found[0], error) >= kBigSize / 2 && !error) {
        temp = found[0];
        break;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    tool.signal(SIGKILL);
    tool.finish();
    EXPECT_TRUE(temp) << "the temporary never reached half the file";
    // What the server still had in hand lands now.
    std::uintmax_t size = 0;
    for (int still = 0; still < 5; std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
      auto const now = temp ? fs::file_size(*temp) : 0;
      still = now == size ? still + 1 : 0;
      size = now;
    }
    EXPECT_FALSE(fs::exists(at("dst/big")));
    return temp.value_or(fs::path());
  }

  std::string contents_;
};

TEST_P(ResumeTest, AKilledTransferResumesWithTheRestOfTheBytes) {
  auto const temp = killHalfway();
  ASSERT_FALSE(temp.empty());
  EXPECT_EQ(temp.filename().string(),
            ".big.sshfa-partial-" + std::to_string(kBigSize) + "-" + std::to_string(kOldTime));
  auto const kept = fs::file_size(temp);
  EXPECT_LT(kept, kBigSize);
  auto const again = totals({at("src/big"), at("dst/big")});
  EXPECT_EQ(again["resumed"], 1);
  EXPECT_EQ(again["copied"], 1);
  // A put goes over several channels, a big file shared out among them: the
  // next run trusts all but the last 16 MiB of what arrived. A get trusts
  // all of it.
  constexpr std::uintmax_t kUnorderedReach = 16U << 20U;
  auto const trusted = upload() ? kept - std::min(kept, kUnorderedReach) : kept;
  EXPECT_EQ(again["bytes"], kBigSize - trusted);
  EXPECT_LE(again["bytes"].get<std::uint64_t>(), kBigSize / 2 + (upload() ? kUnorderedReach : 0));
  EXPECT_TRUE(readFile(at("dst/big")) == contents_);
  EXPECT_TRUE(temporariesIn(at("dst")).empty());
}

TEST_P(ResumeTest, ASourceChangedAfterTheKillStartsOver) {
  auto const temp = killHalfway();
  ASSERT_FALSE(temp.empty());
  setTime(at("src/big"), kOldTime + 10);
  auto const again = totals({at("src/big"), at("dst/big")});
  EXPECT_EQ(again["resumed"], 0);
  EXPECT_EQ(again["bytes"], kBigSize);
  EXPECT_TRUE(readFile(at("dst/big")) == contents_);
  EXPECT_TRUE(temporariesIn(at("dst")).empty());
}

TEST_P(ResumeTest, ACorruptedTemporaryStartsOver) {
  auto const temp = killHalfway();
  ASSERT_FALSE(temp.empty());
  {
    auto const fd = ::open(temp.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, "X", 1, 12345), 1);
    ::close(fd);
  }
  auto const again = totals({at("src/big"), at("dst/big")});
  EXPECT_EQ(again["resumed"], 0);
  EXPECT_EQ(again["bytes"], kBigSize);
  EXPECT_TRUE(readFile(at("dst/big")) == contents_);
  EXPECT_TRUE(temporariesIn(at("dst")).empty());
}

TEST_P(ResumeTest, NoResumeStartsOverAndLeavesNothing) {
  auto const temp = killHalfway();
  ASSERT_FALSE(temp.empty());
  auto const again = totals({"--no-resume", at("src/big"), at("dst/big")});
  EXPECT_EQ(again["resumed"], 0);
  EXPECT_EQ(again["bytes"], kBigSize);
  EXPECT_TRUE(readFile(at("dst/big")) == contents_);
  EXPECT_TRUE(temporariesIn(at("dst")).empty());
}

// Many files in flight when killed: the next run completes the tree and
// leaves no temporary, whatever state each file was in.
TEST_P(SyncTest, AKilledManyFileTransferLeavesNothingAfterTheNextRun) {
  fs::create_directories(at("src/many"));
  for (int i = 0; i < 300; ++i) {
    writeFile(at("src/many/f" + std::to_string(i)), randomBytes(96 * 1024, static_cast<std::uint64_t>(i)));
  }
  fs::create_directories(at("dst"));
  ToolProcess tool(withConnection({command(), at("src/many"), into()}), {});
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline &&
         (!fs::exists(at("dst/many")) || fs::is_empty(at("dst/many")) || fs::exists(at("dst/many/f299")))) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  tool.signal(SIGKILL);
  tool.finish();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  auto const again = totals({at("src/many"), into()});
  EXPECT_EQ(again["copied"].get<int>() + again["unchanged"].get<int>(), 300);
  EXPECT_EQ(listNames(at("dst/many")), listNames(at("src/many")));
  for (int i = 0; i < 300; i += 37) {
    auto const name = "many/f" + std::to_string(i);
    EXPECT_TRUE(readFile(at("dst/" + name)) == readFile(at("src/" + name))) << name;
  }
}

std::string directionName(::testing::TestParamInfo<bool> const& param) { return param.param ? "Put" : "Get"; }

INSTANTIATE_TEST_SUITE_P(BothWays, SyncTest, ::testing::Values(true, false), directionName);
INSTANTIATE_TEST_SUITE_P(BothWays, ResumeTest, ::testing::Values(true, false), directionName);

}  // namespace
}  // namespace sshfa::testing
