// copyFiles hands the transfer to the session's SFTP engine.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;

std::string readText(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(CopyFiles, UploadThenDownloadOverTheClient) {
  auto client = TestSshd::instance().connect();
  fs::path const local = TestSshd::makeTempDir();
  fs::path const remote = TestSshd::makeTempDir();
  std::ofstream(local / "a.txt", std::ios::binary) << "first\nsecond\n";
  client->copyFiles(ssh::CopyFilesCommand({{u((local / "a.txt").string()), u((remote / "a.txt").string())}},
                                          ssh::TransferDirection::LocalToRemote, ssh::TransferProtocol::SFTP, 0744));
  EXPECT_EQ(readText(remote / "a.txt"), "first\nsecond\n");
  client->copyFiles(ssh::CopyFilesCommand({{u((local / "b.txt").string()), u((remote / "a.txt").string())}},
                                          ssh::TransferDirection::RemoteToLocal, ssh::TransferProtocol::SFTP, 0744));
  EXPECT_EQ(readText(local / "b.txt"), "first\nsecond\n");
  // Commands still run on the same connection afterwards.
  EXPECT_EQ(client->executeCommand(ssh::ExecuteCommand(u"echo ok")).getStdout(), u"ok\n");
}

TEST(CopyFiles, EmptyCommandDoesNothing) {
  auto client = TestSshd::instance().connect();
  client->copyFiles(
      ssh::CopyFilesCommand({}, ssh::TransferDirection::LocalToRemote, ssh::TransferProtocol::SFTP, 0744));
  EXPECT_EQ(client->executeCommand(ssh::ExecuteCommand(u"echo ok")).getStdout(), u"ok\n");
}

}  // namespace
}  // namespace sshfa::testing
