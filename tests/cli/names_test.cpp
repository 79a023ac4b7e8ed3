// The tool's remote queries over SFTP on the test sshd's own account: every
// name exactly as its bytes (line feeds, carriage returns, tabs, bytes that
// are not UTF-8) in ls, ls -R and stat, plain and JSON; a folder whose name
// holds a line feed never yields a path that was not listed; names a hostile
// server sends that are not plain names are left out with a warning; and N
// paths cost one batch of requests.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/faults/FaultSupport.hpp"
#include "tests/support/HostileSftpServer.hpp"

namespace sshfa::testing {
namespace {

using json = nlohmann::json;
using hostile::CopiedFrom;
using hostile::EntryType;
using hostile::Placement;
using ::testing::HasSubstr;

void setModificationTime(fs::path const& path, std::time_t seconds) {
  timespec const times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// The lines of `text` that begin with `prefix`.
std::vector<std::string> linesStarting(std::string const& text, std::string const& prefix) {
  std::vector<std::string> found;
  std::size_t start = 0;
  while (start < text.size()) {
    auto const end = std::min(text.find('\n', start), text.size());
    auto const line = text.substr(start, end - start);
    if (line.starts_with(prefix)) found.push_back(line);
    start = end + 1;
  }
  return found;
}

class ToolNames : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = TestSshd::makeTempDir();
    base_ = dir_.string();
  }

  static ToolResult tool(std::vector<std::string> const& args) {
    return runTool(joined(toolConnection(TestSshd::instance()), args));
  }

  // Files whose names hold LF, CR, tab and a byte that is not UTF-8, and a
  // folder named with a line feed holding one more.
  void makeNames() const {
    writeFile(dir_ / "names" / "a\nb", "1");
    writeFile(dir_ / "names" / "c\rd", "22");
    writeFile(dir_ / "names" / "e\tf", "333");
    writeFile(dir_ / "names" / "g\xffh", "4444");
    writeFile(dir_ / "names" / "s\nt" / "x\ny", "55555");
    writeFile(dir_ / "names" / ".hidden", "");
    for (auto const& name : {"a\nb", "c\rd", "e\tf", "g\xffh", "s\nt/x\ny"}) {
      setModificationTime(dir_ / "names" / name, 1614834367);
    }
  }

  fs::path dir_;
  std::string base_;
};

TEST_F(ToolNames, LsGivesEveryNameAsItsBytes) {
  makeNames();
  std::string const folder = base_ + "/names/";
  auto const flat = tool({"ls", base_ + "/names"});
  EXPECT_EQ(flat.status, 0) << flat.err;
  EXPECT_EQ(flat.out,
            folder + "a\nb\n" + folder + "c\rd\n" + folder + "e\tf\n" + folder + "g\xffh\n" + folder + "s\nt\n");
  EXPECT_EQ(flat.err, "");

  auto const recursive = tool({"ls", "-R", base_ + "/names"});
  EXPECT_EQ(recursive.status, 0) << recursive.err;
  EXPECT_EQ(recursive.out, folder + ".hidden\n" + folder + "a\nb\n" + folder + "c\rd\n" + folder + "e\tf\n" + folder +
                               "g\xffh\n" + folder + "s\nt/x\ny\n");

  auto const asJson = tool({"--json", "ls", "-R", base_ + "/names"});
  EXPECT_EQ(asJson.status, 0) << asJson.err;
  EXPECT_EQ(asJson.out, "{\n  \"entries\": [\"" + folder + ".hidden\", \"" + folder + "a\\nb\", \"" + folder +
                            "c\\rd\", \"" + folder + "e\\tf\", \"" + folder + "g\\udcffh\", \"" + folder +
                            "s\\nt/x\\ny\"],\n  \"missing\": [],\n  \"warnings\": []\n}\n");
}

TEST_F(ToolNames, StatAnswersEveryNameExactly) {
  makeNames();
  std::string const folder = base_ + "/names/";
  std::vector<std::string> const names{"a\nb", "c\rd", "e\tf", "g\xffh", "s\nt/x\ny"};
  std::vector<std::string> args{"stat"};
  for (auto const& name : names) args.push_back(folder + name);
  auto const plain = tool(args);
  EXPECT_EQ(plain.status, 0) << plain.err;
  std::string expected;
  for (std::size_t i = 0; i < names.size(); ++i) {
    expected += std::to_string(i + 1) + "\t2021-03-04T05:06:07Z\t" + folder + names[i] + "\n";
  }
  EXPECT_EQ(plain.out, expected);

  args.insert(args.begin(), "--json");
  auto const asJson = tool(args);
  EXPECT_EQ(asJson.status, 0) << asJson.err;
  std::vector<std::string> const escaped{"a\\nb", "c\\rd", "e\\tf", "g\\udcffh", "s\\nt/x\\ny"};
  std::string expectedJson = "[\n";
  for (std::size_t i = 0; i < names.size(); ++i) {
    expectedJson +=
        "  {\"path\": \"" + folder + escaped[i] + "\", \"exists\": true, \"size\": " + std::to_string(i + 1) +
        ", \"mtime\": \"2021-03-04T05:06:07Z\", \"mtimeEpoch\": 1614834367}" + (i + 1 < names.size() ? ",\n" : "\n");
  }
  EXPECT_EQ(asJson.out, expectedJson + "]\n");
}

// A line feed in a folder's name made "find" print a line that reads as
// another path: "<base>/inj/\n<base>/victim" printed "<base>/victim".
TEST_F(ToolNames, AFolderNamedWithALineFeedNeverYieldsAMadeUpPath) {
  writeFile(dir_ / "victim", "precious");
  writeFile(dir_ / "inj" / "a", "a");
  std::string const hidden = base_ + "/inj/\n" + base_ + "/victim";
  writeFile(hidden, "v");
  auto const result = tool({"--json", "ls", "-R", base_ + "/inj"});
  EXPECT_EQ(result.status, 0) << result.err;
  json const answer = json::parse(result.out);
  std::string const escapedHidden = base_ + "/inj/\\n" + base_ + "/victim";
  EXPECT_EQ(result.out, "{\n  \"entries\": [\"" + escapedHidden + "\", \"" + base_ +
                            "/inj/a\"],\n  \"missing\": [],\n  \"warnings\": []\n}\n");
  for (auto const& path : answer["entries"]) EXPECT_NE(path.get<std::string>(), base_ + "/victim");

  auto const plain = tool({"ls", "-R", base_ + "/inj"});
  EXPECT_EQ(plain.out, hidden + "\n" + base_ + "/inj/a\n");
  EXPECT_EQ(readFile(dir_ / "victim"), "precious");
}

TEST_F(ToolNames, QueriesOfManyPathsAreOneBatchOfRequests) {
  writeFile(dir_ / "f0", "");
  fs::create_directory(dir_ / "d");
  std::vector<std::string> paths;
  for (int i = 0; i < 40; ++i) paths.push_back(base_ + "/f" + std::to_string(i));
  for (auto const& command : {"exists", "isfile", "isdir", "stat"}) {
    auto const result = tool(joined({"-v", command}, paths));
    // f0 alone is there (a file): every query has a false answer or a missing path.
    EXPECT_EQ(result.status, 1) << command << result.err;
    auto const requests = linesStarting(result.err, "sshfa: trace: SFTP ");
    ASSERT_EQ(requests.size(), 1U) << command << "\n" << result.err;
    EXPECT_THAT(requests[0], HasSubstr("'" + paths[0] + "' '" + paths[1] + "'")) << command;
    EXPECT_THAT(requests[0], HasSubstr("'" + paths[39] + "'")) << command;
    EXPECT_TRUE(linesStarting(result.err, "sshfa: trace: Executing command").empty()) << result.err;
  }
  auto const listed = tool({"-v", "ls", base_ + "/d", base_ + "/f0", base_ + "/f1"});
  EXPECT_EQ(listed.status, 1);
  EXPECT_EQ(listed.out, base_ + "/f0\n");
  EXPECT_EQ(listed.err.find("Executing command"), std::string::npos) << listed.err;
  EXPECT_EQ(linesStarting(listed.err, "sshfa: trace: SFTP ").size(), 2U) << listed.err;
  EXPECT_THAT(listed.err, HasSubstr("sshfa: cannot access '" + base_ + "/f1': No such file or directory\n"));
}

// ---- a server that lists names of its choosing ---------------------------------------------

TEST(ToolOnHostileServer, NamesThatAreNotPlainAreLeftOutWithAWarning) {
  auto const base = TestSshd::makeTempDir();
  auto const tree = (base / "tree").string();
  writeFile(base / "tree" / "a.txt", "alpha");
  writeFile(base / "tree" / "sub" / "b.txt", "beta");
  writeFile(base / "outside.txt", "outside");
  auto const outside = CopiedFrom{(base / "outside.txt").string()};
  HostileSftpServer server({{Placement::Before, tree, "../outside.txt", EntryType::File, 0644U, outside, outside, {}},
                            {Placement::After, tree, "sub/b.txt", EntryType::File, 0644U, 4U, 1700000000U, {}},
                            {Placement::After, tree, "", EntryType::Directory, 0755U, 4096U, 1700000000U, {}}});
  auto const run = [&](std::vector<std::string> const& args) {
    return runTool(joined(toolConnection(server.sshd()), args));
  };
  std::string const warnings = "sshfa: '" + tree +
                               "' lists a name that is not a plain name, left out: '../outside.txt'\n" + "sshfa: '" +
                               tree + "' lists a name that is not a plain name, left out: 'sub/b.txt'\n" + "sshfa: '" +
                               tree + "' lists a name that is not a plain name, left out: ''\n";

  auto const recursive = run({"--json", "ls", "-R", tree});
  EXPECT_EQ(recursive.status, 1);
  json const listed = json::parse(recursive.out);
  EXPECT_EQ(listed["entries"], json::parse("[\"" + tree + "/a.txt\", \"" + tree + "/sub/b.txt\"]"));
  EXPECT_EQ(listed["missing"], json::array());
  EXPECT_EQ(
      listed["warnings"],
      json::parse(R"(["')" + tree + R"(' lists a name that is not a plain name, left out: '../outside.txt'", "')" +
                  tree + R"(' lists a name that is not a plain name, left out: 'sub/b.txt'", "')" + tree +
                  R"(' lists a name that is not a plain name, left out: ''"])"));
  EXPECT_EQ(recursive.err, warnings);

  auto const flat = run({"ls", tree});
  EXPECT_EQ(flat.status, 1);
  EXPECT_EQ(flat.out, tree + "/a.txt\n" + tree + "/sub\n");
  EXPECT_EQ(flat.err, warnings);
}

}  // namespace
}  // namespace sshfa::testing
