#include "sshfileaccess/FileAccess.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "tests/support/LogCapture.hpp"
#include "tests/support/RecordingSSHClient.hpp"

namespace {

using namespace nimbal::remoteaccess::sshfileaccess;  // NOLINT(google-build-using-namespace)
using foundation::sshclient::ExecuteCommandResult;
using foundation::sshclient::TransferDirection;
using sshfa::testing::RecordingSSHClient;
namespace fs = std::filesystem;

class FacadeTest : public ::testing::Test {
 protected:
  FacadeTest() {
    std::random_device rd;
    root_ = fs::temp_directory_path() / ("sshfa-facade-" + std::to_string(rd()));
    fs::create_directories(root_);
    auto client = std::make_unique<RecordingSSHClient>();
    client_ = client.get();
    access_ = std::make_unique<FileAccess>(std::move(client));
  }
  ~FacadeTest() override { fs::remove_all(root_); }

  ustring local(std::string const& relative) const { return str2ustr((root_ / relative).string()); }
  void writeFile(std::string const& relative) const {
    fs::create_directories((root_ / relative).parent_path());
    std::ofstream(root_ / relative) << "x";
  }
  // (local, remote) of every transfer item.
  std::vector<std::pair<ustring, ustring>> items(std::size_t transfer = 0) const {
    std::vector<std::pair<ustring, ustring>> out;
    for (auto const& item : client_->transfers.at(transfer).getItems())
      out.emplace_back(item.localPath, item.remotePath);
    return out;
  }

  fs::path root_;
  RecordingSSHClient* client_;
  std::unique_ptr<FileAccess> access_;
};

TEST_F(FacadeTest, UploadOfAFileNamesTheCopyItselfAndMakesItsFolderFirst) {
  writeFile("x/f.txt");
  access_->localToRemoteCopy(local("x/f.txt"), u"/srv/y/g.txt");
  EXPECT_EQ(client_->commands, (std::vector<ustring>{u"mkdir -p '/srv/y'"}));
  ASSERT_EQ(client_->transfers.size(), 1U);
  EXPECT_EQ(client_->transfers[0].getDirection(), TransferDirection::LocalToRemote);
  EXPECT_EQ(client_->transfers[0].getMode(), 0744);
  EXPECT_EQ(items(), (std::vector<std::pair<ustring, ustring>>{{local("x/f.txt"), u"/srv/y/g.txt"}}));
}

TEST_F(FacadeTest, UploadOfAFolderMapsEveryFileAndSkipsEmptyFolders) {
  writeFile("x/a.txt");
  writeFile("x/sub/b.txt");
  fs::create_directories(root_ / "x/empty");
  access_->localToRemoteCopy(local("x"), u"/srv/y");

  auto got = items();
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<std::pair<ustring, ustring>>{{local("x/a.txt"), u"/srv/y/a.txt"},
                                                           {local("x/sub/b.txt"), u"/srv/y/sub/b.txt"}}));
  ASSERT_EQ(client_->commands.size(), 1U);
  // One mkdir line for all destination folders, in listing order.
  const bool aFirst = client_->transfers[0].getItems()[0].remotePath == u"/srv/y/a.txt";
  EXPECT_EQ(client_->commands[0], aFirst ? u"mkdir -p '/srv/y' '/srv/y/sub'" : u"mkdir -p '/srv/y/sub' '/srv/y'");
}

TEST_F(FacadeTest, TailIsCutByPositionWithoutAddingASeparator) {
  writeFile("x/a.txt");
  access_->localToRemoteCopy(local("x") + u"/", u"/srv/y");
  EXPECT_EQ(items(), (std::vector<std::pair<ustring, ustring>>{{local("x/a.txt"), u"/srv/ya.txt"}}));
  EXPECT_EQ(client_->commands, (std::vector<ustring>{u"mkdir -p '/srv'"}));
}

TEST_F(FacadeTest, MissingLocalSourceStillRequestsAnEmptyTransfer) {
  access_->localToRemoteCopy(local("missing"), u"/srv/y");
  EXPECT_TRUE(client_->commands.empty());  // an empty mkdir list sends nothing
  ASSERT_EQ(client_->transfers.size(), 1U);
  EXPECT_TRUE(client_->transfers[0].getItems().empty());
}

TEST_F(FacadeTest, EmptyPairListStillRequestsAnEmptyTransfer) {
  access_->localToRemoteCopy(FileAccess::PathPairs{});
  access_->remoteToLocalCopy(FileAccess::PathPairs{});
  EXPECT_TRUE(client_->commands.empty());
  ASSERT_EQ(client_->transfers.size(), 2U);
  EXPECT_TRUE(client_->transfers[0].getItems().empty());
  EXPECT_TRUE(client_->transfers[1].getItems().empty());
  EXPECT_EQ(client_->transfers[1].getDirection(), TransferDirection::RemoteToLocal);
}

TEST_F(FacadeTest, PairsMappingToTheSameDestinationAreBothKeptInOrder) {
  writeFile("p.txt");
  writeFile("q.txt");
  access_->localToRemoteCopy(FileAccess::PathPairs{{local("p.txt"), u"/d/f"}, {local("q.txt"), u"/d/f"}});
  EXPECT_EQ(items(), (std::vector<std::pair<ustring, ustring>>{{local("p.txt"), u"/d/f"}, {local("q.txt"), u"/d/f"}}));
  EXPECT_EQ(client_->commands, (std::vector<ustring>{u"mkdir -p '/d' '/d'"}));
}

TEST_F(FacadeTest, DownloadListsRemotelyMakesLocalFoldersAndTransfersOnce) {
  client_->responder = [](ustring const& command) {
    if (command == u"find '/srv/y' -type f") return ExecuteCommandResult(0, u"/srv/y/a.txt\n/srv/y/sub/b.txt\n", u"");
    return ExecuteCommandResult(1, u"", u"unexpected");
  };
  access_->remoteToLocalCopy(u"/srv/y", local("down"));
  EXPECT_EQ(client_->commands, (std::vector<ustring>{u"find '/srv/y' -type f"}));
  EXPECT_TRUE(fs::is_directory(root_ / "down/sub"));
  ASSERT_EQ(client_->transfers.size(), 1U);
  EXPECT_EQ(client_->transfers[0].getDirection(), TransferDirection::RemoteToLocal);
  EXPECT_EQ(items(), (std::vector<std::pair<ustring, ustring>>{{local("down/a.txt"), u"/srv/y/a.txt"},
                                                               {local("down/sub/b.txt"), u"/srv/y/sub/b.txt"}}));
}

TEST_F(FacadeTest, MissingRemoteSourceContributesNothing) {
  client_->responder = [](ustring const&) { return ExecuteCommandResult(1, u"", u"find: '/nope': No such file"); };
  access_->remoteToLocalCopy(u"/nope", local("down"));
  EXPECT_FALSE(fs::exists(root_ / "down"));
  ASSERT_EQ(client_->transfers.size(), 1U);
  EXPECT_TRUE(client_->transfers[0].getItems().empty());
}

TEST_F(FacadeTest, ListedPathShorterThanItsSourceRaisesOutOfRange) {
  client_->responder = [](ustring const&) { return ExecuteCommandResult(0, u"/s\n", u""); };
  EXPECT_THROW(access_->remoteToLocalCopy(u"/srv/long", local("down")), std::out_of_range);
  EXPECT_TRUE(client_->transfers.empty());
}

TEST_F(FacadeTest, TransferIsLoggedAtSeverityFour) {
  writeFile("x/f.txt");
  sshfa::testing::LogCapture capture(4);
  access_->localToRemoteCopy(local("x/f.txt"), u"/srv/g");
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].text, "Executing command: mkdir -p '/srv'");
  EXPECT_EQ(records[1].text, "Copying \"" + ustr2str(local("x/f.txt")) + "\" -> \"/srv/g\"\t");
  EXPECT_EQ(records[1].severity, 4U);
}

TEST_F(FacadeTest, NothingIsLoggedWhenSeverityFourIsDisabled) {
  writeFile("x/f.txt");
  sshfa::testing::LogCapture capture(16);
  access_->localToRemoteCopy(local("x/f.txt"), u"/srv/g");
  EXPECT_TRUE(capture.records().empty());
}

TEST_F(FacadeTest, RemoteExecuteReturnsAFailedStatusWithoutThrowing) {
  client_->scripted.emplace_back(1, u"", u"");
  const auto result = access_->remoteExecute(u"false");
  EXPECT_EQ(result.getExitcode(), 1);
  EXPECT_EQ(client_->commands, (std::vector<ustring>{u"false"}));
}

TEST_F(FacadeTest, KeepaliveIsForwarded) {
  access_->setKeepaliveInterval(std::chrono::seconds(9));
  EXPECT_EQ(client_->keepalive, std::chrono::seconds(9));
  EXPECT_EQ(access_->getKeepaliveInterval(), std::chrono::seconds(9));
}

TEST_F(FacadeTest, MovedFromObjectHasNoBackendsAndDestroysHarmlessly) {
  auto* localBefore = access_->local();
  auto* remoteBefore = access_->remote();
  FileAccess moved(std::move(*access_));
  EXPECT_EQ(access_->local(), nullptr);   // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(access_->remote(), nullptr);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(moved.local(), localBefore);
  EXPECT_EQ(moved.remote(), remoteBefore);
  access_.reset();

  FileAccess other(std::make_unique<RecordingSSHClient>());
  other = std::move(moved);
  EXPECT_EQ(other.remote(), remoteBefore);
  EXPECT_EQ(moved.local(), nullptr);  // NOLINT(bugprone-use-after-move)
}

// ---- the remote backend -----------------------------------------------------------------

// A double of a server that runs no shell for the account.
class SftpOnlyClient : public RecordingSSHClient {
 public:
  bool shellAvailable() override {
    ++asked;
    return false;
  }
  int asked = 0;
};

TEST(FacadeBackend, WhereNoShellRunsRemoteIsTheSftpBackendOnTheSameConnection) {
  auto client = std::make_unique<SftpOnlyClient>();
  auto* double_ = client.get();
  FileAccess access(std::move(client));
  EXPECT_EQ(access.remoteBackend(), RemoteBackend::Automatic);
  EXPECT_EQ(double_->asked, 0);
  auto* remote = access.remote();
  EXPECT_NE(dynamic_cast<SftpFileAccess*>(remote), nullptr);
  EXPECT_EQ(access.remoteBackend(), RemoteBackend::Sftp);
  EXPECT_EQ(access.remote(), remote);
  EXPECT_EQ(double_->asked, 1);
  access.setKeepaliveInterval(std::chrono::seconds(7));
  EXPECT_EQ(double_->keepalive, std::chrono::seconds(7));
  EXPECT_TRUE(double_->commands.empty());
}

TEST(FacadeBackend, WhereAShellRunsRemoteIsTheShellBackend) {
  FileAccess access(std::make_unique<RecordingSSHClient>());
  auto* remote = access.remote();
  EXPECT_NE(dynamic_cast<UnixSSHFileAccess*>(remote), nullptr);
  EXPECT_EQ(access.remoteBackend(), RemoteBackend::Shell);
  EXPECT_EQ(access.remote(), remote);
}

TEST(FacadeBackend, AChosenBackendIsNeverAskedFor) {
  auto shellOnly = std::make_unique<SftpOnlyClient>();
  auto* asked = &shellOnly->asked;
  FileAccess shell(std::move(shellOnly), RemoteBackend::Shell);
  EXPECT_NE(dynamic_cast<UnixSSHFileAccess*>(shell.remote()), nullptr);
  EXPECT_EQ(*asked, 0);

  FileAccess sftp(std::make_unique<RecordingSSHClient>(), RemoteBackend::Sftp);
  EXPECT_NE(dynamic_cast<SftpFileAccess*>(sftp.remote()), nullptr);
  EXPECT_EQ(sftp.remoteBackend(), RemoteBackend::Sftp);
}

TEST(FacadeBackend, EmptyListsOnTheSftpBackendAskNothing) {
  // The double has no SFTP files: any request would throw.
  FileAccess access(std::make_unique<RecordingSSHClient>(), RemoteBackend::Sftp);
  auto& remote = *access.remote();
  EXPECT_TRUE(remote.exists(FileAccessInterface::PathList{}).empty());
  EXPECT_TRUE(remote.getFileInfo(FileAccessInterface::PathList{}).empty());
  EXPECT_TRUE(remote.list(FileAccessInterface::PathList{}).empty());
  EXPECT_TRUE(remote.listRecursively(FileAccessInterface::PathList{}).empty());
  remote.makeDir(FileAccessInterface::PathList{});
  remote.remove(FileAccessInterface::PathList{});
  remote.touch(FileAccessInterface::PathList{});
  remote.copy(FileAccessInterface::PathPairs{});
  remote.move(FileAccessInterface::PathPairs{});
  EXPECT_EQ(remote.parent(u"/a/b"), u"/a");
}

}  // namespace
