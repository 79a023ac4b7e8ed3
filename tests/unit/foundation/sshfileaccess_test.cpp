#include "sshfileaccess/SSHFileAccess.hpp"

#include <gtest/gtest.h>

#include "sshfileaccess/FileAccessException.hpp"
#include "tests/support/LogCapture.hpp"
#include "tests/support/RecordingSSHClient.hpp"

namespace {

using namespace nimbal::remoteaccess::sshfileaccess;  // NOLINT(google-build-using-namespace)
using foundation::sshclient::ExecuteCommandResult;
using foundation::sshclient::TransferDirection;
using foundation::sshclient::TransferProtocol;
using sshfa::testing::RecordingSSHClient;

// A concrete SSHFileAccess for testing the channel alone: the file operations
// are not what these tests are about.
class ChannelOnly : public SSHFileAccess {
 public:
  using SSHFileAccess::SSHFileAccess;
  void copy(ustring const&, ustring const&) override {}
  void copy(PathPairs const&) override {}
  using SSHFileAccess::copy;
  bool exists(ustring const&) override { return false; }
  std::vector<bool> exists(PathList const&) override { return {}; }
  bool isFile(ustring const&) override { return false; }
  std::vector<bool> isFile(PathList const&) override { return {}; }
  bool isDir(ustring const&) override { return false; }
  std::vector<bool> isDir(PathList const&) override { return {}; }
  ustring parent(ustring const&) override { return {}; }
  std::vector<ustring> parent(PathList const&) override { return {}; }
  void touch(ustring const&) override {}
  void touch(PathList const&) override {}
  void remove(ustring const&) override {}
  void remove(PathList const&) override {}
  void makeDir(ustring const&) override {}
  void makeDir(PathList const&) override {}
  void move(ustring const&, ustring const&) override {}
  void move(PathPairs const&) override {}
  void tar(ustring const&, ustring const&) override {}
  void untar(ustring const&, ustring const&) override {}
  void zip(ustring const&, ustring const&) override {}
  void unzip(ustring const&, ustring const&) override {}
  std::vector<ustring> list(ustring const&) override { return {}; }
  std::vector<ustring> list(PathList const&) override { return {}; }
  std::vector<ustring> listRecursively(ustring const&) override { return {}; }
  std::vector<ustring> listRecursively(PathList const&) override { return {}; }
  std::optional<FileInfo> getFileInfo(ustring const&) override { return {}; }
  std::vector<std::optional<FileInfo>> getFileInfo(PathList const&) override { return {}; }
};

class SSHFileAccessTest : public ::testing::Test {
 protected:
  SSHFileAccessTest() {
    auto client = std::make_unique<RecordingSSHClient>();
    client_ = client.get();
    access_ = std::make_unique<ChannelOnly>(std::move(client));
  }
  RecordingSSHClient* client_;
  std::unique_ptr<ChannelOnly> access_;
};

TEST_F(SSHFileAccessTest, ExecuteReturnsTheClientResultUnchanged) {
  client_->scripted.emplace_back(7, u"out", u"err");
  const auto r = access_->execute(u"cmd 'a b'");
  EXPECT_EQ(r.getExitcode(), 7);
  EXPECT_EQ(r.getStdout(), u"out");
  EXPECT_EQ(r.getStderr(), u"err");
  EXPECT_EQ(client_->commands, (std::vector<ustring>{u"cmd 'a b'"}));
}

TEST_F(SSHFileAccessTest, BlankStderrPassesExpectNoError) {
  client_->scripted.emplace_back(0, u"", u"\n");
  client_->scripted.emplace_back(0, u"", u"  \r\n");
  EXPECT_NO_THROW(access_->executeExpectNoError(u"a"));
  EXPECT_NO_THROW(access_->executeExpectNoError(u"b"));
}

TEST_F(SSHFileAccessTest, TabInStderrFailsWithTheTabAsMessage) {
  client_->scripted.emplace_back(0, u"", u"\t");
  try {
    access_->executeExpectNoError(u"a");
    FAIL() << "no exception";
  } catch (FileAccessException const& e) {
    EXPECT_STREQ(e.what(), "\t");
    EXPECT_EQ(e.code(), FileAccessException::Code::RemoteError);
  }
}

TEST_F(SSHFileAccessTest, WarningWithStatusZeroFailsAndKeepsTheWholeText) {
  client_->scripted.emplace_back(0, u"", u"  warning: x\n");
  try {
    access_->executeExpectNoError(u"a");
    FAIL() << "no exception";
  } catch (FileAccessException const& e) {
    EXPECT_STREQ(e.what(), "  warning: x\n");
  }
}

TEST_F(SSHFileAccessTest, StatusOneWithEmptyStderrPasses) {
  client_->scripted.emplace_back(1, u"", u"");
  EXPECT_EQ(access_->executeExpectNoError(u"false").getExitcode(), 1);
}

TEST_F(SSHFileAccessTest, EmptyListsReturnEmptyAndLogNothing) {
  sshfa::testing::LogCapture capture(4);
  EXPECT_TRUE(access_->execute(std::vector<ustring>{}).empty());
  EXPECT_TRUE(access_->executeExpectNoError(std::vector<ustring>{}).empty());
  EXPECT_TRUE(client_->commands.empty());
  EXPECT_TRUE(capture.records().empty());
}

TEST_F(SSHFileAccessTest, ListRunsEachCommandSeparatelyInOrder) {
  client_->scripted.emplace_back(0, u"1", u"");
  client_->scripted.emplace_back(0, u"2", u"");
  const auto results = access_->execute(std::vector<ustring>{u"a", u"b"});
  ASSERT_EQ(results.size(), 2U);
  EXPECT_EQ(results[0].getStdout(), u"1");
  EXPECT_EQ(results[1].getStdout(), u"2");
  EXPECT_EQ(client_->commands, (std::vector<ustring>{u"a", u"b"}));
}

TEST_F(SSHFileAccessTest, FailureOfSecondCommandLeavesThirdUnrun) {
  client_->scripted.emplace_back(0, u"", u"");
  client_->scripted.emplace_back(0, u"", u"boom");
  client_->scripted.emplace_back(0, u"", u"");
  EXPECT_THROW(access_->executeExpectNoError(std::vector<ustring>{u"a", u"b", u"c"}), FileAccessException);
  EXPECT_EQ(client_->commands, (std::vector<ustring>{u"a", u"b"}));
}

TEST_F(SSHFileAccessTest, ExecuteLogsTheCommandAtSeverityFour) {
  sshfa::testing::LogCapture capture(4);
  access_->execute(u"ls -1 '/d\u00E9'");
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].severity, 4U);
  EXPECT_EQ(records[0].text, "Executing command: ls -1 '/d\xC3\xA9'");
}

TEST_F(SSHFileAccessTest, ExecuteLogsNothingWhenSeverityFourIsDisabled) {
  sshfa::testing::LogCapture capture(16);
  access_->execute(u"true");
  access_->executeExpectNoError(std::vector<ustring>{u"a", u"b"});
  EXPECT_TRUE(capture.records().empty());
}

TEST_F(SSHFileAccessTest, DownloadPutsTheLocalDestinationFirst) {
  access_->copy(TransferDirection::RemoteToLocal, {u"a", u"b"}, {u"x", u"y"});
  ASSERT_EQ(client_->transfers.size(), 1U);
  auto const& t = client_->transfers[0];
  ASSERT_EQ(t.getItems().size(), 2U);
  EXPECT_EQ(t.getItems()[0].localPath, u"x");
  EXPECT_EQ(t.getItems()[0].remotePath, u"a");
  EXPECT_EQ(t.getItems()[1].localPath, u"y");
  EXPECT_EQ(t.getItems()[1].remotePath, u"b");
  EXPECT_EQ(t.getDirection(), TransferDirection::RemoteToLocal);
  EXPECT_EQ(t.getProtocol(), TransferProtocol::SFTP);
  EXPECT_EQ(t.getMode(), 0744);
  EXPECT_EQ(t.getMode(), 484);
}

TEST_F(SSHFileAccessTest, UploadPutsTheLocalSourceFirst) {
  access_->copy(TransferDirection::LocalToRemote, {u"a", u"b"}, {u"x", u"y", u"extra"});
  ASSERT_EQ(client_->transfers.size(), 1U);
  auto const& items = client_->transfers[0].getItems();
  ASSERT_EQ(items.size(), 2U);
  EXPECT_EQ(items[0].localPath, u"a");
  EXPECT_EQ(items[0].remotePath, u"x");
  EXPECT_EQ(items[1].localPath, u"b");
  EXPECT_EQ(items[1].remotePath, u"y");
  EXPECT_EQ(client_->transfers[0].getDirection(), TransferDirection::LocalToRemote);
}

TEST_F(SSHFileAccessTest, EmptyCopyStillSendsACommand) {
  access_->copy(TransferDirection::LocalToRemote, {}, {});
  ASSERT_EQ(client_->transfers.size(), 1U);
  EXPECT_TRUE(client_->transfers[0].getItems().empty());
  EXPECT_EQ(client_->transfers[0].getMode(), 0744);
}

TEST_F(SSHFileAccessTest, KeepaliveIsForwarded) {
  access_->setKeepaliveInterval(std::chrono::seconds(5));
  EXPECT_EQ(client_->keepalive, std::chrono::seconds(5));
  EXPECT_EQ(access_->getKeepaliveInterval(), std::chrono::seconds(5));
}

TEST_F(SSHFileAccessTest, MoveLeavesTheSourceEmpty) {
  ChannelOnly moved(std::move(*access_));
  client_->scripted.emplace_back(0, u"ok", u"");
  EXPECT_EQ(moved.execute(u"x").getStdout(), u"ok");
  ChannelOnly assigned(std::make_unique<RecordingSSHClient>());
  assigned = std::move(moved);
  EXPECT_EQ(assigned.getKeepaliveInterval(), std::chrono::seconds(30));
}

}  // namespace
