// Choosing files through the tool, both ways, against the test sshd:
// --exclude and --include in their order, rules files, --gitignore with the
// answer git itself gives, what --delete keeps and --delete-excluded does
// not, the dry run's list of what is left out, and a bad rule.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/cli/CliFiles.hpp"
#include "tests/cli/ToolConnection.hpp"
#include "tests/cli/ToolProcess.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class FilterTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    dir_ = TestSshd::makeTempDir();
    for (auto const* file : {"a.c", "b.o", "README", "build/x", "lib/c.c", "lib/d.h", "lib/e.o"}) {
      writeFile(src() / file, file);
    }
  }

  [[nodiscard]] fs::path src() const { return dir_ / "src" / "tree"; }
  [[nodiscard]] fs::path copied() const { return dir_ / "dst" / "tree"; }

  // put or get of src/tree into dst/, with `options` before the operands.
  ToolResult transfer(std::vector<std::string> const& options) {
    auto args = connectionArgs(TestSshd::instance());
    args.push_back(GetParam() ? "put" : "get");
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(src().string());
    args.push_back((dir_ / "dst").string() + "/");
    return runTool(args);
  }

  // Every path below `root` (folders with a trailing '/'), sorted.
  static std::vector<std::string> pathsBelow(fs::path const& root) {
    std::vector<std::string> paths;
    for (auto const& entry : fs::recursive_directory_iterator(root)) {
      paths.push_back(fs::relative(entry.path(), root).string() + (entry.is_directory() ? "/" : ""));
    }
    std::sort(paths.begin(), paths.end());
    return paths;
  }

  fs::path dir_;
};

TEST_P(FilterTest, ExcludesLeaveOutFilesAndFolders) {
  auto const result = transfer({"--exclude", "*.o", "--exclude", "build/"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(pathsBelow(copied()), ElementsAre("README", "a.c", "lib/", "lib/c.c", "lib/d.h"));
}

TEST_P(FilterTest, TheFirstMatchingRuleDecides) {
  auto const cOnly = transfer({"--include", "*/", "--include", "*.c", "--exclude", "*"});
  ASSERT_EQ(cOnly.status, 0) << cOnly.err;
  EXPECT_THAT(pathsBelow(copied()), ElementsAre("a.c", "build/", "lib/", "lib/c.c"));
  fs::remove_all(copied());
  // The other order: the exclusion comes first and takes everything.
  auto const nothing = transfer({"--exclude", "*", "--include", "*.c"});
  ASSERT_EQ(nothing.status, 0) << nothing.err;
  EXPECT_TRUE(pathsBelow(copied()).empty());
}

TEST_P(FilterTest, RulesFilesSkipCommentsAndEmptyLines) {
  writeFile(dir_ / "rules", "# objects\n\n*.o\n; a comment too\n/build\n");
  auto const result = transfer({"--exclude-from", (dir_ / "rules").string(), "--filter", "- README"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(pathsBelow(copied()), ElementsAre("a.c", "lib/", "lib/c.c", "lib/d.h"));
}

TEST_P(FilterTest, GitignoreGivesWhatGitLists) {
  writeFile(src() / ".gitignore", "*.o\n!lib/e.o\n/build/\n");
  writeFile(src() / "lib" / ".gitignore", "*.h\n");
  writeFile(src() / ".git" / "HEAD", "ref: refs/heads/main\n");
  auto const result = transfer({"--gitignore"});
  ASSERT_EQ(result.status, 0) << result.err;
  std::vector<std::string> files;
  for (auto const& path : pathsBelow(copied())) {
    if (!path.ends_with('/')) files.push_back(path);
  }
  // git's own answer on the source tree, with no configuration of the user's.
  fs::remove_all(src() / ".git");
  auto const listed = TestSshd::shell("cd '" + src().string() +
                                      "' && git init -q . && HOME=/nonexistent GIT_CONFIG_NOSYSTEM=1 "
                                      "git ls-files -co --exclude-standard | sort");
  std::vector<std::string> expected;
  std::size_t start = 0;
  for (auto end = listed.find('\n'); end != std::string::npos; start = end + 1, end = listed.find('\n', start)) {
    expected.push_back(listed.substr(start, end - start));
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(files, expected);
  EXPECT_THAT(files, ElementsAre(".gitignore", "README", "a.c", "lib/.gitignore", "lib/c.c", "lib/e.o"));
}

TEST_P(FilterTest, DeleteKeepsWhatTheRulesLeaveOutAndDeleteExcludedRemovesIt) {
  writeFile(copied() / "extra.txt", "not in the source");
  writeFile(copied() / "old.o", "left out by the rules");
  auto const kept = transfer({"--delete", "--exclude", "*.o"});
  ASSERT_EQ(kept.status, 0) << kept.err;
  EXPECT_FALSE(fs::exists(copied() / "extra.txt"));
  EXPECT_EQ(readFile(copied() / "old.o"), "left out by the rules");
  EXPECT_FALSE(fs::exists(copied() / "b.o"));

  auto const removed = transfer({"--delete-excluded", "--exclude", "*.o"});
  ASSERT_EQ(removed.status, 0) << removed.err;
  EXPECT_FALSE(fs::exists(copied() / "old.o"));
  EXPECT_THAT(pathsBelow(copied()), ElementsAre("README", "a.c", "build/", "build/x", "lib/", "lib/c.c", "lib/d.h"));
}

TEST_P(FilterTest, AVerboseDryRunNamesWhatIsLeftOut) {
  auto const quiet = transfer({"-n", "--exclude", "*.o"});
  ASSERT_EQ(quiet.status, 0) << quiet.err;
  EXPECT_THAT(quiet.out, ::testing::Not(HasSubstr("exclude")));
  auto const verbose = transfer({"-n", "-v", "--exclude", "*.o"});
  ASSERT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_THAT(verbose.out, HasSubstr("exclude " + (src() / "b.o").string() + "\n"));
  EXPECT_THAT(verbose.out, HasSubstr("exclude " + (src() / "lib" / "e.o").string() + "\n"));
  EXPECT_FALSE(fs::exists(copied()));
}

TEST_P(FilterTest, ABadRuleIsAUsageErrorNamingIt) {
  auto const result = transfer({"--exclude", "*.o", "--filter", "x foo"});
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.err, HasSubstr("sshfa: bad filter rule 2 ('x foo'): unknown rule type 'x'"));
  auto const missing = transfer({"--exclude-from", (dir_ / "absent").string()});
  EXPECT_EQ(missing.status, 2);
  EXPECT_THAT(missing.err, HasSubstr("cannot read '" + (dir_ / "absent").string() + "': No such file or directory"));
  EXPECT_FALSE(fs::exists(copied()));
}

INSTANTIATE_TEST_SUITE_P(BothWays, FilterTest, ::testing::Bool(),
                         [](::testing::TestParamInfo<bool> const& param) { return param.param ? "Put" : "Get"; });

}  // namespace
}  // namespace sshfa::testing
