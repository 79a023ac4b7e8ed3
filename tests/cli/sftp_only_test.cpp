// The tool, unchanged, on the accounts that may use SFTP only (one of them in
// a chroot): ls, stat, exists, isfile, isdir, mkdir, touch, cp, mv and rm
// work through SFTP; tar, zip, untar, unzip and exec fail with one clear
// message each and change nothing. Needs root for the accounts; otherwise
// the tests are skipped.

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

namespace sshfa::testing {
namespace {

using json = nlohmann::json;
using ::testing::HasSubstr;

enum class Confinement { None, Chroot };

class ToolOnSftpOnly : public ::testing::TestWithParam<Confinement> {
 protected:
  void SetUp() override {
    auto& server = TestSshd::instance();
    account_ = GetParam() == Confinement::Chroot ? server.chrootedSftpAccount() : server.sftpOnlyAccount();
    if (!account_) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
    // A folder of this test's own inside the account's, which the account owns.
    name_ =
        "tool-" + std::to_string(::getpid()) + "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
    for (char& c : name_) c = c == '/' ? '-' : c;
    fs::create_directory(account_->folder / name_);
    handOver();
  }
  void TearDown() override {
    if (!account_) return;
    std::error_code ignored;
    fs::remove_all(account_->folder / name_, ignored);
  }

  // The account gets what the test made as root.
  void handOver() const {
    TestSshd::shell("chown -R " + account_->login.user + " '" + (account_->folder / name_).string() + "'");
  }
  [[nodiscard]] ToolResult tool(std::vector<std::string> const& args) const {
    return runTool(joined(toolConnection(TestSshd::instance(), account_->login.user), args));
  }
  // A path as the account names it, and the same path on this machine.
  [[nodiscard]] std::string at(std::string const& relative) const {
    return account_->folderForAccount + "/" + name_ + "/" + relative;
  }
  [[nodiscard]] fs::path here(std::string const& relative) const { return account_->folder / name_ / relative; }

  std::optional<TestSshd::SftpOnlyAccount> account_;
  std::string name_;
};

void expectSuccess(ToolResult const& result, std::string const& what) {
  EXPECT_EQ(result.status, 0) << what << ": " << result.err;
  EXPECT_EQ(result.err, "") << what;
}

TEST_P(ToolOnSftpOnly, QueriesAnswerAsOnAnyServer) {
  writeFile(here("tree/a.txt"), "alpha");
  writeFile(here("tree/sub/b.txt"), "beta");
  writeFile(here("tree/.hidden"), "");
  timespec const times[2] = {{1614834367, 0}, {1614834367, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, here("tree/a.txt").c_str(), times, 0), 0);
  handOver();

  auto const flat = tool({"ls", at("tree")});
  expectSuccess(flat, "ls");
  EXPECT_EQ(flat.out, at("tree") + "/a.txt\n" + at("tree") + "/sub\n");
  auto const recursive = tool({"ls", "-R", at("tree")});
  expectSuccess(recursive, "ls -R");
  EXPECT_EQ(recursive.out, at("tree") + "/.hidden\n" + at("tree") + "/a.txt\n" + at("tree") + "/sub/b.txt\n");

  auto const stat = tool({"--json", "stat", at("tree/a.txt"), at("missing")});
  EXPECT_EQ(stat.status, 1);
  EXPECT_EQ(json::parse(stat.out), json::parse(R"([{"path": ")" + at("tree/a.txt") +
                                               R"(", "exists": true, "size": 5, "mtime": "2021-03-04T05:06:07Z",
                                                  "mtimeEpoch": 1614834367},
                                                 {"path": ")" +
                                               at("missing") + R"(", "exists": false}])"));
  EXPECT_EQ(stat.err, "sshfa: cannot stat '" + at("missing") + "': No such file or directory\n");

  auto const exists = tool({"exists", at("tree"), at("missing")});
  EXPECT_EQ(exists.status, 1);
  EXPECT_EQ(exists.err, "");
  EXPECT_EQ(exists.out, "true\t" + at("tree") + "\nfalse\t" + at("missing") + "\n");
  EXPECT_EQ(tool({"isfile", at("tree/a.txt")}).out, "true\n");
  EXPECT_EQ(tool({"isdir", at("tree/a.txt")}).out, "false\n");
}

TEST_P(ToolOnSftpOnly, MutationsWork) {
  writeFile(here("old.txt"), "old contents");
  handOver();
  expectSuccess(tool({"mkdir", at("a/b/c"), at("x")}), "mkdir");
  EXPECT_TRUE(fs::is_directory(here("a/b/c")));
  EXPECT_TRUE(fs::is_directory(here("x")));

  auto const before = std::time(nullptr);
  expectSuccess(tool({"touch", at("old.txt"), at("new it's.txt")}), "touch");
  EXPECT_EQ(readFile(here("old.txt")), "old contents");
  struct stat touched {};
  ASSERT_EQ(::stat(here("old.txt").c_str(), &touched), 0);
  EXPECT_GE(touched.st_mtime, before);
  EXPECT_EQ(readFile(here("new it's.txt")), "");

  // cp and mv put a source into an existing folder under its own name.
  expectSuccess(tool({"cp", at("old.txt"), at("copy1.txt"), at("a"), at("a-copy"), at("old.txt"), at("x")}), "cp");
  EXPECT_EQ(readFile(here("copy1.txt")), "old contents");
  EXPECT_TRUE(fs::is_directory(here("a-copy/b/c")));
  EXPECT_EQ(readFile(here("x/old.txt")), "old contents");

  expectSuccess(tool({"mv", at("copy1.txt"), at("moved.txt"), at("moved.txt"), at("a")}), "mv");
  EXPECT_FALSE(fs::exists(here("copy1.txt")));
  EXPECT_EQ(readFile(here("a/moved.txt")), "old contents");

  expectSuccess(tool({"rm", at("a"), at("x/old.txt"), at("missing")}), "rm");
  EXPECT_FALSE(fs::exists(here("a")));
  EXPECT_FALSE(fs::exists(here("x/old.txt")));
  EXPECT_TRUE(fs::is_directory(here("x")));
}

TEST_P(ToolOnSftpOnly, FailuresNameThePathAndTheCause) {
  auto const touched = tool({"touch", at("no/such/file")});
  EXPECT_EQ(touched.status, 1);
  EXPECT_EQ(touched.err, "sshfa: touch: cannot touch '" + at("no/such/file") + "': No such file or directory\n");
  auto const moved = tool({"mv", at("missing"), at("elsewhere")});
  EXPECT_EQ(moved.status, 1);
  EXPECT_EQ(moved.err,
            "sshfa: mv: cannot move '" + at("missing") + "' to '" + at("elsewhere") + "': No such file or directory\n");
  auto const copied = tool({"--json", "cp", at("missing"), at("elsewhere")});
  EXPECT_EQ(copied.status, 1);
  EXPECT_EQ(json::parse(copied.out),
            json::parse(R"({"error": "cp: cannot stat ')" + at("missing") + R"(': No such file or directory",
                           "exitCode": 1})"));
}

TEST_P(ToolOnSftpOnly, ArchivesAndExecSayWhyNotAndChangeNothing) {
  writeFile(here("src/a.txt"), "a");
  writeFile(here("s.tar"), "not read");
  writeFile(here("s.zip"), "not read");
  handOver();
  auto const names = namesIn(here(""));
  std::vector<std::pair<std::vector<std::string>, std::string>> const refused{
      {{"tar", at("src"), at("s.tar")}, "sshfa: tar: the server allows SFTP only, so there is no tar to run\n"},
      {{"zip", at("src"), at("s.zip")}, "sshfa: zip: the server allows SFTP only, so there is no zip to run\n"},
      {{"untar", at("s.tar"), at("src")}, "sshfa: untar: the server allows SFTP only, so there is no tar to run\n"},
      {{"unzip", at("s.zip"), at("src")}, "sshfa: unzip: the server allows SFTP only, so there is no unzip to run\n"},
      {{"exec", "echo", "hi"},
       "sshfa: " + prefixOf(TestSshd::instance(), account_->login.user) +
           "the server allows SFTP only: no shell to run commands\n"},
  };
  for (auto const& [args, message] : refused) {
    auto const result = tool(args);
    EXPECT_EQ(result.status, 1) << args.front();
    EXPECT_EQ(result.out, "") << args.front();
    EXPECT_EQ(result.err, message) << args.front();
  }
  EXPECT_EQ(namesIn(here("")), names);
  EXPECT_EQ(namesIn(here("src")), std::vector<std::string>{"a.txt"});
}

INSTANTIATE_TEST_SUITE_P(Accounts, ToolOnSftpOnly, ::testing::Values(Confinement::None, Confinement::Chroot),
                         [](auto const& confinement) {
                           return confinement.param == Confinement::Chroot ? std::string("Chrooted")
                                                                           : std::string("Plain");
                         });

}  // namespace
}  // namespace sshfa::testing
