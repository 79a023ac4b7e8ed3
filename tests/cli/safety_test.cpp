// What a transfer may touch, through the tool against the test sshd: "." and
// ".." in a source or destination are resolved before anything is planned,
// so a mirror never deletes outside the copy it makes, and never its root.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/cli/CliFiles.hpp"
#include "tests/cli/ToolConnection.hpp"
#include "tests/cli/ToolProcess.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

using Snapshot = std::map<std::string, std::string>;

Snapshot without(Snapshot snapshot, std::string const& path) {
  snapshot.erase(path);
  return snapshot;
}

// Each entry's type, mode and bytes, without its time.
Snapshot withoutTime(Snapshot snapshot) {
  for (auto& [path, what] : snapshot) {
    auto const mode = what.find(' ');
    what.erase(mode, what.find(' ', mode + 1) - mode);
  }
  return snapshot;
}

// `after` is `before` with the tree's copy made in `into` (whose time is
// new), and nothing else new or changed.
void expectOnlyTheCopy(Snapshot const& before, Snapshot after, std::string const& into) {
  for (auto const* made : {"/tree", "/tree/a", "/tree/sub", "/tree/sub/b"}) {
    EXPECT_EQ(after.erase(into + made), 1U) << into + made;
  }
  EXPECT_EQ(withoutTime(after), withoutTime(before));
  after.erase(into);
  EXPECT_EQ(after, without(before, into));
}

class DotDotTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TestSshd::makeTempDir();
    writeFile(at("L/tree/a"), "alpha");
    writeFile(at("L/tree/sub/b"), "bravo");
  }

  static ToolResult tool(std::vector<std::string> const& args, std::string const& workingDirectory = {}) {
    auto all = connectionArgs(TestSshd::instance());
    all.insert(all.end(), args.begin(), args.end());
    ToolOptions options;
    options.workingDirectory = workingDirectory;
    return runTool(all, options);
  }
  static std::vector<std::string> lines(std::string const& text) {
    std::vector<std::string> out;
    std::size_t start = 0;
    for (auto end = text.find('\n'); end != std::string::npos; start = end + 1, end = text.find('\n', start)) {
      out.push_back(text.substr(start, end - start));
    }
    return out;
  }

  [[nodiscard]] std::string at(std::string const& name) const { return (dir_ / name).string(); }

  fs::path dir_;
};

// cd L/tree/sub; put --delete .. host:R/dd3/target/ copies the tree into
// target/tree and deletes nothing beside it: not a sibling of target, not
// target itself.
TEST_F(DotDotTest, PutDeleteOfDotDotFromASubfolderStaysInsideTheCopy) {
  writeFile(at("R/dd3/precious.txt"), "keep me");
  writeFile(at("R/dd3/target/old.txt"), "mine");
  auto const before = treeSnapshot(dir_ / "R");

  auto const dry = tool({"put", "-n", "--delete", "..", at("R/dd3/target/")}, at("L/tree/sub"));
  ASSERT_EQ(dry.status, 0) << dry.err;
  auto const root = at("R/dd3/target/tree");
  EXPECT_THAT(lines(dry.out), ElementsAre("copy " + root + "/a (5 B)", "copy " + root + "/sub/b (5 B)", "mkdir " + root,
                                          "mkdir " + root + "/sub"));
  EXPECT_EQ(treeSnapshot(dir_ / "R"), before);

  auto const run = tool({"put", "--delete", "..", at("R/dd3/target/")}, at("L/tree/sub"));
  ASSERT_EQ(run.status, 0) << run.err;
  expectOnlyTheCopy(before, treeSnapshot(dir_ / "R"), "dd3/target");
  EXPECT_EQ(readFile(root + "/sub/b"), "bravo");
}

// put --delete sub/.. host:R/t, with t an existing folder: the source is
// the tree itself, copied into t/tree; what t and R hold beside stays.
TEST_F(DotDotTest, PutDeleteOfSubDotDotIntoAFolderKeepsItsNeighbours) {
  writeFile(at("R/t/extra"), "not the source's");
  writeFile(at("R/sibling"), "not ours");
  auto const before = treeSnapshot(dir_ / "R");

  auto const dry = tool({"put", "-n", "--delete", "sub/..", at("R/t")}, at("L/tree"));
  ASSERT_EQ(dry.status, 0) << dry.err;
  for (auto const& line : lines(dry.out)) EXPECT_FALSE(line.starts_with("delete")) << line;
  EXPECT_EQ(treeSnapshot(dir_ / "R"), before);

  auto const run = tool({"put", "--delete", "sub/..", at("R/t")}, at("L/tree"));
  ASSERT_EQ(run.status, 0) << run.err;
  expectOnlyTheCopy(before, treeSnapshot(dir_ / "R"), "t");
}

// get -n --delete host:R/x/sub/.. dir/ plans the copy of x into dir/x and
// deletes only there; the real run leaves dir's other entries alone.
TEST_F(DotDotTest, GetDeleteOfARemoteDotDotNamesTheRealFolder) {
  writeFile(at("R/x/keep"), "remote");
  writeFile(at("R/x/sub/s"), "sub");
  writeFile(at("D/mine"), "local, beside the copy");
  writeFile(at("D/x/stale"), "not in the source");
  auto const before = treeSnapshot(dir_ / "D");
  auto const remoteBefore = treeSnapshot(dir_ / "R");

  auto const dry = tool({"get", "-n", "--delete", at("R/x/sub/.."), at("D") + "/"});
  ASSERT_EQ(dry.status, 0) << dry.err;
  auto const root = at("D/x");
  EXPECT_THAT(lines(dry.out), ElementsAre("copy " + root + "/keep (6 B)", "copy " + root + "/sub/s (3 B)",
                                          "mkdir " + root + "/sub", "delete " + root + "/stale"));
  EXPECT_EQ(treeSnapshot(dir_ / "D"), before);

  auto const run = tool({"get", "--delete", at("R/x/sub/.."), at("D") + "/"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(readFile(at("D/mine")), "local, beside the copy");
  EXPECT_FALSE(fs::exists(at("D/x/stale")));
  EXPECT_EQ(readFile(at("D/x/sub/s")), "sub");
  EXPECT_EQ(treeSnapshot(dir_ / "R"), remoteBefore);
}

// A destination whose dots lead to a folder that does not exist yet is made
// where the dots lead, never beside it.
TEST_F(DotDotTest, DotsInAMissingDestinationAreResolvedByText) {
  fs::create_directories(at("R"));
  auto const run = tool({"put", at("L/tree"), at("R/new/../made")});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(readFile(at("R/made/a")), "alpha");
  EXPECT_FALSE(fs::exists(at("R/new")));
}

// The test sshd is this machine: a copy into the source itself is refused
// before anything is made.
TEST_F(DotDotTest, ASourceThatHoldsItsDestinationIsRefused) {
  auto const before = treeSnapshot(dir_ / "L");
  auto const inside = tool({"put", at("L/tree"), at("L/tree/sub/copy")});
  EXPECT_EQ(inside.status, 1);
  EXPECT_THAT(inside.err,
              ::testing::HasSubstr("cannot upload '" + at("L/tree") + "' to '" + at("L/tree/sub/copy") + "' on "));
  EXPECT_THAT(inside.err, ::testing::EndsWith(": the destination lies inside the source on this machine\n"));
  auto const itself = tool({"put", "--delete", at("L/tree/sub/.."), at("L") + "/"});
  EXPECT_EQ(itself.status, 1);
  EXPECT_THAT(itself.err, ::testing::EndsWith(": the source is its own destination on this machine\n"));
  // A folder destination named without its slash: the copy would go into it.
  auto const into = tool({"put", at("L/tree"), at("L")});
  EXPECT_EQ(into.status, 1);
  EXPECT_THAT(into.err, ::testing::EndsWith(": the source is its own destination on this machine\n"));
  auto const back = tool({"get", at("L/tree"), at("L/tree/sub") + "/"});
  EXPECT_EQ(back.status, 1);
  EXPECT_THAT(back.err, ::testing::HasSubstr("cannot download '" + at("L/tree") + "' from "));
  EXPECT_THAT(back.err, ::testing::EndsWith(": the destination lies inside the source on this machine\n"));
  EXPECT_EQ(treeSnapshot(dir_ / "L"), before);
}

TEST_F(DotDotTest, ASourceThatCannotBeResolvedIsOneClearError) {
  auto const run = tool({"put", at("L/missing/.."), at("R/")});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, ::testing::HasSubstr("cannot resolve '" + at("L/missing/..") + "'"));
  EXPECT_FALSE(fs::exists(at("R")));
}

}  // namespace
}  // namespace sshfa::testing
