// Transfers through the tool against a server that lies in its folder
// listings, and against destinations that hold other types where the source
// has its entries: nothing is written outside the destination, nothing the
// listing named outside it is removed, each lie is named once, and what is in
// the way is replaced as rsync does (a folder only with --delete).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/cli/CliFiles.hpp"
#include "tests/cli/ToolConnection.hpp"
#include "tests/cli/ToolProcess.hpp"
#include "tests/support/HostileSftpServer.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;
using namespace std::string_literals;

// Paths below `root` and what each is: "file BYTES", "folder", "link TARGET".
std::map<std::string, std::string> contents(fs::path const& root) {
  std::map<std::string, std::string> found;
  if (!fs::exists(root)) return found;
  for (auto const& entry : fs::recursive_directory_iterator(root)) {
    auto const path = fs::relative(entry.path(), root).string();
    if (entry.is_symlink()) {
      found[path] = "link " + fs::read_symlink(entry.path()).string();
    } else if (entry.is_directory()) {
      found[path] = "folder";
    } else {
      found[path] = "file " + readFile(entry.path());
    }
  }
  return found;
}

class HostileTransfers : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { server_ = std::make_unique<HostileSftpServer>(std::vector<hostile::Rule>{}); }
  static void TearDownTestSuite() { server_.reset(); }

  void SetUp() override {
    dir_ = TestSshd::makeTempDir();
    writeFile(at("R/tree/a.txt"), "alpha");
    writeFile(at("R/outside.txt"), "outside");
    fs::create_directories(at("L"));
    server_->setRules({});
  }

  static ToolResult tool(std::vector<std::string> const& args) {
    auto all = connectionArgs(server_->sshd());
    all.insert(all.end(), args.begin(), args.end());
    return runTool(all);
  }

  [[nodiscard]] std::string at(std::string const& name) const { return (dir_ / name).string(); }

  // An entry the server adds to the listing of `folder`, with the size and
  // time of a real file beside the tree.
  [[nodiscard]] hostile::Rule added(std::string const& folder, std::string const& name,
                                    hostile::EntryType type = hostile::EntryType::File) const {
    hostile::Rule rule;
    rule.placement = hostile::Placement::Before;
    rule.folder = at(folder);
    rule.name = name;
    rule.type = type;
    rule.mode = std::uint64_t{0644};
    rule.size = hostile::CopiedFrom{at("R/outside.txt")};
    rule.mtime = hostile::CopiedFrom{at("R/outside.txt")};
    return rule;
  }

  static std::unique_ptr<HostileSftpServer> server_;
  fs::path dir_;
};

std::unique_ptr<HostileSftpServer> HostileTransfers::server_;

struct HostileName {
  std::string label;
  std::string name;
  std::string shown;  // in messages
};

void PrintTo(HostileName const& name, std::ostream* out) { *out << name.label; }

class HostileGet : public HostileTransfers, public ::testing::WithParamInterface<HostileName> {};

TEST_P(HostileGet, NeverWritesOutsideTheDestinationAndNamesTheLie) {
  auto const& name = GetParam().name;
  auto const& shown = GetParam().shown.empty() ? name : GetParam().shown;
  server_->setRules({added("R/tree", name)});
  auto const warning = "sshfa: get: skipped the suspect name '" + shown + "' listed in '" + at("R/tree") + "' by ";

  auto const refused = tool({"get", at("R/tree"), at("L") + "/"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr(warning));
  EXPECT_THAT(refused.err, HasSubstr("suspect name '" + shown + "' listed in '" + at("R/tree") + "' (skipped)"));
  std::map<std::string, std::string> const onlyTheTree{{"tree", "folder"}, {"tree/a.txt", "file alpha"}};
  EXPECT_EQ(contents(at("L")), onlyTheTree);
  EXPECT_EQ(contents(at("R")).size(), 3U);

  auto const accepted = tool({"get", "--ignore-suspect-names", at("R/tree"), at("L2") + "/"});
  EXPECT_EQ(accepted.status, 0) << accepted.err;
  EXPECT_THAT(accepted.err, HasSubstr(warning));
  EXPECT_EQ(contents(at("L2")), onlyTheTree);
}

INSTANTIATE_TEST_SUITE_P(Names, HostileGet,
                         ::testing::Values(HostileName{"DotDotSlash", "../outside.txt", ""},
                                           HostileName{"Slash", "sub/x", ""}, HostileName{"Absolute", "/abs", ""},
                                           HostileName{"Dot", ".", ""}, HostileName{"DotDot", "..", ""},
                                           HostileName{"Empty", "", ""}, HostileName{"Nul", "a\0b"s, "a\\0b"}),
                         [](::testing::TestParamInfo<HostileName> const& param) { return param.param.label; });

// "evil" listed as a link out of the tree, then again as a folder, then
// "evil/x": neither evil is taken, and nothing lands where the link points.
TEST_F(HostileTransfers, ADuplicateLinkAndFolderLeadNowhere) {
  fs::create_directories(at("elsewhere"));
  auto link = added("R/tree", "evil", hostile::EntryType::Symlink);
  link.linkTarget = at("elsewhere");
  auto folder = added("R/tree", "evil", hostile::EntryType::Directory);
  folder.placement = hostile::Placement::After;
  server_->setRules({link, folder, added("R/tree", "evil/x")});
  auto const result = tool({"get", at("R/tree"), at("L") + "/"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("'evil' listed twice in '" + at("R/tree") + "'"));
  EXPECT_THAT(result.err, HasSubstr("'evil/x' listed in"));
  EXPECT_TRUE(fs::is_empty(at("elsewhere")));
  EXPECT_EQ(contents(at("L")), (std::map<std::string, std::string>{{"tree", "folder"}, {"tree/a.txt", "file alpha"}}));
}

// The destination's listing claims "../precious.txt" and "/abs": a mirror
// removes neither, and removes nothing at all while the listing lies.
TEST_F(HostileTransfers, PutDeleteNeverRemovesWhatTheListingNamedOutside) {
  writeFile(at("L/tree/a.txt"), "alpha");
  writeFile(at("R/dst/tree/a.txt"), "alpha");
  writeFile(at("R/dst/tree/extra"), "not in the source");
  writeFile(at("R/dst/precious.txt"), "keep");
  server_->setRules({added("R/dst/tree", "../precious.txt"), added("R/dst/tree", "/abs"), added("R/dst/tree", "..")});

  auto const refused = tool({"put", "--delete", at("L/tree"), at("R/dst") + "/"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("skipped the suspect name '../precious.txt' listed in '" + at("R/dst/tree")));
  EXPECT_THAT(refused.err, HasSubstr("skipped the suspect name '/abs'"));
  EXPECT_EQ(readFile(at("R/dst/precious.txt")), "keep");
  EXPECT_EQ(readFile(at("R/dst/tree/extra")), "not in the source");

  auto const accepted = tool({"put", "--delete", "--ignore-suspect-names", at("L/tree"), at("R/dst") + "/"});
  EXPECT_EQ(accepted.status, 0) << accepted.err;
  EXPECT_THAT(accepted.err, HasSubstr("1 deleted"));
  EXPECT_FALSE(fs::exists(at("R/dst/tree/extra")));
  EXPECT_EQ(readFile(at("R/dst/precious.txt")), "keep");
  EXPECT_EQ(readFile(at("R/outside.txt")), "outside");
}

// A file where the source has a folder, and a folder where it has a file,
// both ways: the file in the way is replaced; the folder only with --delete,
// else it is one error and everything else still arrives.
class TypeConflicts : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    dir_ = TestSshd::makeTempDir();
    writeFile(at("src/tree/sub/f"), "in sub");
    writeFile(at("src/tree/plain.txt"), "plain");
    writeFile(at("src/tree/other.txt"), "other");
    writeFile(at("dst/tree/sub"), "a file in the way");
    writeFile(at("dst/tree/plain.txt/inner"), "a folder in the way");
  }

  [[nodiscard]] std::string at(std::string const& name) const { return (dir_ / name).string(); }

  static ToolResult transfer(std::vector<std::string> args) {
    args.insert(args.begin(), GetParam() ? "put" : "get");
    auto all = connectionArgs(TestSshd::instance());
    all.insert(all.end(), args.begin(), args.end());
    return runTool(all);
  }

  fs::path dir_;
};

TEST_P(TypeConflicts, AFileInTheWayIsReplacedAndAFolderIsOneError) {
  auto const dry = transfer({"-n", at("src/tree"), at("dst") + "/"});
  EXPECT_EQ(dry.status, 1);
  EXPECT_THAT(dry.out, HasSubstr("replace " + at("dst/tree/sub") + "\n"));
  EXPECT_THAT(dry.out, HasSubstr("mkdir " + at("dst/tree/sub") + "\n"));
  EXPECT_THAT(dry.err, HasSubstr("cannot replace '" + at("dst/tree/plain.txt") + "': it is a folder"));
  EXPECT_EQ(readFile(at("dst/tree/sub")), "a file in the way");

  auto const run = transfer({at("src/tree"), at("dst") + "/"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.err, HasSubstr("cannot replace '" + at("dst/tree/plain.txt") + "': it is a folder"));
  EXPECT_THAT(run.err, Not(HasSubstr("more")));
  EXPECT_EQ(readFile(at("dst/tree/sub/f")), "in sub");
  EXPECT_EQ(readFile(at("dst/tree/other.txt")), "other");
  EXPECT_EQ(readFile(at("dst/tree/plain.txt/inner")), "a folder in the way");
}

TEST_P(TypeConflicts, WithDeleteBothAreReplaced) {
  auto const dry = transfer({"-n", "--delete", at("src/tree"), at("dst") + "/"});
  EXPECT_EQ(dry.status, 0) << dry.err;
  EXPECT_THAT(dry.out, HasSubstr("replace " + at("dst/tree/plain.txt") + "\n"));
  EXPECT_THAT(dry.out, HasSubstr("replace " + at("dst/tree/sub") + "\n"));

  auto const run = transfer({"--delete", at("src/tree"), at("dst") + "/"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_THAT(run.err, HasSubstr("2 replaced"));
  EXPECT_EQ(readFile(at("dst/tree/sub/f")), "in sub");
  EXPECT_EQ(readFile(at("dst/tree/plain.txt")), "plain");
  EXPECT_EQ(readFile(at("dst/tree/other.txt")), "other");
}

// For get, the source tree is the remote one: the same folders serve both.
INSTANTIATE_TEST_SUITE_P(BothWays, TypeConflicts, ::testing::Bool(),
                         [](::testing::TestParamInfo<bool> const& param) { return param.param ? "Put" : "Get"; });

}  // namespace
}  // namespace sshfa::testing
