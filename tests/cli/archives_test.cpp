// The tool's archives and rm, run the same way on this machine (--local) and
// on the test sshd: a tar and a zip round trip of a tree with links, an empty
// folder and modes 0750/0640 give the tree back as it was; unzip into a
// folder that holds the files already replaces them, as untar does; rm of
// "dir/link/" removes nothing through the link.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/cli/CliFiles.hpp"
#include "tests/cli/ToolProcess.hpp"
#include "tests/support/ArchivableTree.hpp"
#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;

constexpr int kFailed = 1;

// The options that choose the side: --local, or the test server.
std::vector<std::string> sideOptions(bool remote) {
  if (!remote) return {"--local"};
  TestSshd& server = TestSshd::instance();
  return {"-H",
          server.host(),
          "-p",
          std::to_string(server.port()),
          "-u",
          server.user(),
          "-i",
          server.identityFile(),
          "--known-hosts",
          server.knownHostsFile(),
          "-F",
          "/dev/null",
          "--batch"};
}

class ToolArchives : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    dir_ = TestSshd::makeTempDir();
    fs::create_directory(dir_ / "src");
    makeArchivableTree(dir_ / "src/t");
  }

  static ToolResult sshfa(std::vector<std::string> const& args) {
    std::vector<std::string> all = sideOptions(GetParam());
    all.insert(all.end(), args.begin(), args.end());
    return runTool(all);
  }

  // Runs a command that must succeed and print nothing to standard error.
  static void expectSuccess(std::vector<std::string> const& args) {
    auto const result = sshfa(args);
    EXPECT_EQ(result.status, 0) << args.front() << ": " << result.err;
    EXPECT_EQ(result.err, "") << args.front();
  }

  [[nodiscard]] std::string at(std::string const& name) const { return (dir_ / name).string(); }

  fs::path dir_;
};

std::string sideName(::testing::TestParamInfo<bool> const& info) { return info.param ? "Remote" : "Local"; }

INSTANTIATE_TEST_SUITE_P(BothSides, ToolArchives, ::testing::Values(false, true), sideName);

TEST_P(ToolArchives, TarRoundTripKeepsLinksEmptyFoldersModesAndTimes) {
  expectSuccess({"tar", at("src/t"), at("t.tar")});
  fs::create_directory(at("out"));
  expectSuccess({"untar", at("t.tar"), at("out")});
  EXPECT_EQ(archiveSnapshot(at("out/t")), archiveSnapshot(at("src/t")));
}

TEST_P(ToolArchives, ZipRoundTripKeepsLinksEmptyFoldersModesAndTimes) {
  expectSuccess({"zip", at("src/t"), at("t.zip")});
  expectSuccess({"unzip", at("t.zip"), at("out")});
  EXPECT_EQ(archiveSnapshot(at("out/t")), archiveSnapshot(at("src/t")));
}

TEST_P(ToolArchives, ALinkAsTheSourceIsStoredAsTheLink) {
  expectSuccess({"zip", at("src/t/dlnk"), at("l.zip")});
  expectSuccess({"unzip", at("l.zip"), at("out")});
  EXPECT_EQ(fs::read_symlink(at("out/dlnk")), "sub");
}

// The folder times of a second remote unzip are unzip's own: it sets them
// only on folders it creates.
TEST_P(ToolArchives, UnzipTwiceReplacesTheFilesAsUntarDoes) {
  expectSuccess({"zip", at("src/t"), at("t.zip")});
  expectSuccess({"tar", at("src/t"), at("t.tar")});
  fs::create_directories(at("tarred"));
  for (int round = 0; round < 2; ++round) {
    expectSuccess({"unzip", at("t.zip"), at("zipped")});
    expectSuccess({"untar", at("t.tar"), at("tarred")});
    for (auto const* out : {"zipped", "tarred"}) {
      writeFile(at(std::string(out) + "/t/a.txt"), "changed");
      ASSERT_EQ(::chmod(at(std::string(out) + "/t/sub/f").c_str(), 0600), 0);
    }
  }
  expectSuccess({"unzip", at("t.zip"), at("zipped")});
  expectSuccess({"untar", at("t.tar"), at("tarred")});
  auto files = [](std::map<std::string, std::string> snapshot) {
    std::erase_if(snapshot, [](auto const& entry) { return entry.second.starts_with("dir "); });
    return snapshot;
  };
  EXPECT_EQ(files(archiveSnapshot(at("zipped/t"))), files(archiveSnapshot(at("src/t"))));
  EXPECT_EQ(archiveSnapshot(at("tarred/t")), archiveSnapshot(at("src/t")));
  if (!GetParam()) {
    EXPECT_EQ(archiveSnapshot(at("zipped/t")), archiveSnapshot(at("src/t")));
  }
}

TEST_P(ToolArchives, RmOfALinkWithATrailingSlashRemovesNothingThroughIt) {
  auto const result = sshfa({"rm", at("src/t/dlnk/")});
  EXPECT_EQ(result.status, kFailed);
  EXPECT_EQ(result.err, "sshfa: rm: cannot remove '" + at("src/t/dlnk/") + "': Not a directory\n");
  EXPECT_EQ(archiveSnapshot(at("src/t/sub")).size(), 2U);
  EXPECT_EQ(readFile(at("src/t/sub/f")), "sub file\n");
  EXPECT_TRUE(fs::is_symlink(at("src/t/dlnk")));

  expectSuccess({"rm", at("src/t/dlnk"), at("src/t/empty/")});
  EXPECT_FALSE(fs::exists(fs::symlink_status(at("src/t/dlnk"))));
  EXPECT_FALSE(fs::exists(at("src/t/empty")));
  EXPECT_EQ(readFile(at("src/t/sub/f")), "sub file\n");
}

}  // namespace
}  // namespace sshfa::testing
