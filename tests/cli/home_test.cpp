// Remote operands relative to the login folder, as scp takes them: HOST:~/p,
// HOST:p, HOST:~ and HOST:, for put, get and sync. An account of its own
// whose login folder the test made (root only; skipped otherwise).

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/faults/FaultSupport.hpp"

namespace sshfa::testing {
namespace {

using json = nlohmann::json;

constexpr char const* kAccount = "sshfa-cli-home";

class HomeRelative : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(home_);
    if (!TestSshd::instance().accountWithHome(kAccount, "/bin/sh", home_)) {
      GTEST_SKIP() << TestSshd::accountsUnavailableReason();
    }
  }

  [[nodiscard]] static ToolResult tool(std::vector<std::string> const& args) {
    return runTool(joined(toolConnection(TestSshd::instance(), kAccount), args));
  }
  [[nodiscard]] static std::string host(std::string const& path) { return TestSshd::instance().host() + ":" + path; }
  [[nodiscard]] std::string local(std::string const& name) const { return (base_ / "local" / name).string(); }

  fs::path base_ = TestSshd::makeTempDir();
  fs::path home_ = base_ / "home";
};

TEST_F(HomeRelative, TildeAndRelativePathsStartInTheLoginFolder) {
  writeFile(local("f.txt"), "f");
  writeFile(local("tree/a"), "a");
  for (auto const& [operand, made] : std::vector<std::pair<std::string, std::string>>{
           {"~/tilde.txt", "tilde.txt"}, {"plain.txt", "plain.txt"}, {"~/sub/deeper.txt", "sub/deeper.txt"}}) {
    auto const put = tool({"put", local("f.txt"), host(operand)});
    EXPECT_EQ(put.status, 0) << operand << ": " << put.err;
    EXPECT_EQ(readFile(home_ / made), "f") << operand;
  }
  // HOST:~ and HOST: are the login folder; a trailing / puts into it.
  EXPECT_EQ(tool({"put", local("f.txt"), host("~")}).status, 0);
  EXPECT_EQ(readFile(home_ / "f.txt"), "f");
  fs::remove(home_ / "f.txt");
  EXPECT_EQ(tool({"put", local("f.txt"), host("~/")}).status, 0);
  EXPECT_EQ(readFile(home_ / "f.txt"), "f");

  auto const got = tool({"get", host("~/tilde.txt"), local("back.txt")});
  EXPECT_EQ(got.status, 0) << got.err;
  EXPECT_EQ(readFile(local("back.txt")), "f");

  auto const synced = tool({"--json", "sync", local("tree"), host("~/mirror")});
  EXPECT_EQ(synced.status, 0) << synced.err;
  EXPECT_EQ(json::parse(synced.out)["copied"], 1);
  EXPECT_EQ(readFile(home_ / "mirror/a"), "a");
  auto const again = tool({"--json", "sync", host("~/mirror"), local("tree")});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(json::parse(again.out)["copied"], 0);
}

TEST_F(HomeRelative, AnotherUsersLoginFolderIsAUsageError) {
  writeFile(local("f.txt"), "f");
  auto const result = tool({"put", local("f.txt"), host("~root/x")});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err,
            "sshfa: put: '~root/x' names another user's login folder, which SFTP cannot reach by name; write its "
            "full path\n");
  // sync will not make the login folder itself a copy.
  auto const home = tool({"sync", "--delete", local("f.txt"), host("~")});
  EXPECT_EQ(home.status, 2);
  EXPECT_TRUE(fs::exists(home_));
}

}  // namespace
}  // namespace sshfa::testing
