// A session killed in the middle of a transfer (every process serving the
// connection gets SIGKILL, right after the first bytes moved): the transfer
// fails, every file under its final name is either its old version or the
// complete new one, and the old versions of files not yet sent are intact.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/faults/FaultSupport.hpp"

namespace sshfa::testing {
namespace {

constexpr std::size_t kBigFile = std::size_t{128} << 20;
constexpr int kSmallFiles = 2000;

std::string oldVersion(int i) { return "old version of file " + std::to_string(i) + "\n"; }
std::string newVersion(int i) { return pattern(64 + static_cast<std::size_t>(i % 700), static_cast<unsigned>(i)); }
std::string smallName(int i) { return "d" + std::to_string(i % 40) + "/f" + std::to_string(i); }

class KilledSession : public ::testing::Test {
 protected:
  // A facade whose client kills the session once `due` holds for the progress.
  template <class Due>
  std::unique_ptr<FileAccess> facadeKillingWhen(Due due) {
    auto options = server_.options();
    options.progress = [this, due](ssh::TransferProgress const& progress) {
      if (!killed_ && due(progress)) {
        server_.killConnections();
        killed_ = true;
      }
    };
    return std::make_unique<FileAccess>(connect(server_, options));
  }

  static void writeOldVersions(fs::path const& root) {
    for (int i = 0; i < kSmallFiles; ++i) writeFile(root / smallName(i), oldVersion(i));
  }
  static void writeNewVersions(fs::path const& root) {
    for (int i = 0; i < kSmallFiles; ++i) writeFile(root / smallName(i), newVersion(i));
  }

  // Every file under a final name below `root` is one of the small files, as
  // its old or its complete new version; returns how many are new.
  static int expectOldOrNew(fs::path const& root) {
    int newer = 0;
    std::size_t seen = 0;
    for (auto const& [name, content] : filesBelow(root)) {
      if (isTemporary(fs::path(name).filename().string())) continue;
      ++seen;
      std::string const index = fs::path(name).filename().string().substr(1);
      int const i = std::stoi(index);
      EXPECT_EQ(name, smallName(i));
      if (content == newVersion(i)) {
        ++newer;
      } else {
        EXPECT_TRUE(sameBytes(content, oldVersion(i))) << name << " is neither version";
      }
    }
    EXPECT_EQ(seen, static_cast<std::size_t>(kSmallFiles));
    return newer;
  }

  TestSshd server_;
  bool killed_ = false;
  fs::path local_ = TestSshd::makeTempDir();
  fs::path remote_ = TestSshd::makeTempDir();
};

TEST_F(KilledSession, MidUploadOfABigFile) {
  writeFile(local_ / "big", pattern(kBigFile, 1));
  writeFile(remote_ / "big", "old version");
  auto access = facadeKillingWhen([](ssh::TransferProgress const& p) { return p.bytesDone > 0; });
  auto const error = sshErrorOf(
      [&] { access->localToRemoteCopy(str2ustr((local_ / "big").string()), str2ustr((remote_ / "big").string())); });
  ASSERT_TRUE(killed_);
  ASSERT_TRUE(error);
  EXPECT_THAT(std::string(error->what()), ::testing::StartsWith("cannot upload '" + (local_ / "big").string() +
                                                                "' to '" + (remote_ / "big").string() + "' on "));
  EXPECT_TRUE(sameBytes(readFile(remote_ / "big"), "old version"));
  EXPECT_THAT(namesIn(remote_), ::testing::Contains("big"));
}

TEST_F(KilledSession, MidDownloadOfABigFile) {
  writeFile(remote_ / "big", pattern(kBigFile, 2));
  writeFile(local_ / "big", "old version");
  auto access = facadeKillingWhen([](ssh::TransferProgress const& p) { return p.bytesDone > 0; });
  auto const error = sshErrorOf(
      [&] { access->remoteToLocalCopy(str2ustr((remote_ / "big").string()), str2ustr((local_ / "big").string())); });
  ASSERT_TRUE(killed_);
  ASSERT_TRUE(error);
  EXPECT_THAT(std::string(error->what()),
              ::testing::StartsWith("cannot download '" + (remote_ / "big").string() + "' from "));
  EXPECT_TRUE(sameBytes(readFile(local_ / "big"), "old version"));
}

TEST_F(KilledSession, MidUploadOfManySmallFiles) {
  writeNewVersions(local_ / "tree");
  writeOldVersions(remote_ / "tree");
  auto access = facadeKillingWhen([](ssh::TransferProgress const& p) { return p.bytesDone > 0; });
  auto const error = sshErrorOf(
      [&] { access->localToRemoteCopy(str2ustr((local_ / "tree").string()), str2ustr((remote_ / "tree").string())); });
  ASSERT_TRUE(killed_);
  ASSERT_TRUE(error);
  EXPECT_LT(expectOldOrNew(remote_ / "tree"), kSmallFiles);
}

TEST_F(KilledSession, MidDownloadOfManySmallFiles) {
  writeNewVersions(remote_ / "tree");
  writeOldVersions(local_ / "tree");
  auto access = facadeKillingWhen([](ssh::TransferProgress const& p) { return p.bytesDone > 0; });
  auto const error = sshErrorOf(
      [&] { access->remoteToLocalCopy(str2ustr((remote_ / "tree").string()), str2ustr((local_ / "tree").string())); });
  ASSERT_TRUE(killed_);
  ASSERT_TRUE(error);
  EXPECT_LT(expectOldOrNew(local_ / "tree"), kSmallFiles);
}

TEST_F(KilledSession, ToolMidUploadOfManySmallFiles) {
  writeNewVersions(local_ / "tree");
  writeOldVersions(remote_ / "tree");
  ToolProcess tool(joined(toolConnection(server_), {"put", (local_ / "tree").string(), (remote_ / "tree").string()}),
                   {});
  // Killed once some new versions have arrived.
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (readFile(remote_ / "tree" / smallName(kSmallFiles - 1)) == oldVersion(kSmallFiles - 1) &&
         std::chrono::steady_clock::now() < deadline) {
    bool arrived = false;
    for (int i = 0; i < kSmallFiles && !arrived; i += 97)
      arrived = readFile(remote_ / "tree" / smallName(i)) == newVersion(i);
    if (arrived) break;
  }
  server_.killConnections();
  auto const result = tool.finish();
  EXPECT_EQ(result.status, 3) << result.err;
  EXPECT_THAT(result.err, ::testing::StartsWith("sshfa: "));
  EXPECT_LT(expectOldOrNew(remote_ / "tree"), kSmallFiles);
}

}  // namespace
}  // namespace sshfa::testing
