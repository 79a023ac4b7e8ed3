// SSHClient::sftp() against the real sshd: one SFTP channel, opened by the
// first call that asks something and kept for every later call of the
// client; names as their bytes; mutations and their errors; copies on the
// server.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"
#include "tests/support/TestSshd.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
namespace ssh = foundation::sshclient;
using Strings = std::vector<std::string>;

// SFTP sessions the server has started for the test's own account so far.
std::size_t sftpSessions(TestSshd const& server) {
  std::string const log = server.log();
  std::string const wanted = "Starting session: subsystem 'sftp' for " + server.user() + " ";
  std::size_t count = 0;
  for (auto at = log.find(wanted); at != std::string::npos; at = log.find(wanted, at + 1)) ++count;
  return count;
}

std::string contentOf(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void put(fs::path const& path, std::string const& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

class ClientSftpFiles : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = TestSshd::makeTempDir(); }
  [[nodiscard]] std::string at(std::string const& relative) const { return (dir_ / relative).string(); }
  static TestSshd& server() { return TestSshd::instance(); }

  fs::path dir_;
};

TEST_F(ClientSftpFiles, OneChannelServesEveryCallOfTheClient) {
  auto const client = server().connect();
  auto const before = sftpSessions(server());
  auto& files = client->sftp();
  EXPECT_EQ(&files, &client->sftp());
  EXPECT_TRUE(files.lstat({}).empty());
  EXPECT_EQ(sftpSessions(server()), before);

  files.makeFolders({at("a/b/c")});
  files.touch({at("a/b/c/f")}, 1600000000);
  EXPECT_EQ(files.stat({at("a/b/c/f")})[0].modified, 1600000000);
  files.copy({{at("a"), at("copy")}}, ssh::Destination::Exact);
  files.rename({{at("copy"), at("moved")}}, ssh::Destination::Exact);
  files.remove({at("a")});
  EXPECT_TRUE(fs::is_regular_file(at("moved/b/c/f")));
  EXPECT_FALSE(fs::exists(at("a")));
  EXPECT_EQ(sftpSessions(server()), before + 1);
}

TEST_F(ClientSftpFiles, NamesTravelAsTheirBytes) {
  Strings const names{"line\nfeed", "cr\r", "tab\t", "\xff\xfe", "it's"};
  for (auto const& name : names) put(dir_ / "n" / name, name);
  auto const client = server().connect();
  auto const listing = client->sftp().list({at("n")});
  std::set<std::string> found;
  for (auto const& entry : listing[0].entries) found.insert(entry.name);
  EXPECT_EQ(found, std::set<std::string>(names.begin(), names.end()));

  auto const statuses = client->sftp().lstat({at("n/line\nfeed"), at("n/\xff\xfe"), at("n/line")});
  EXPECT_EQ(statuses[0].size, 9U);
  EXPECT_EQ(statuses[1].size, 2U);
  EXPECT_FALSE(statuses[2].exists());
}

TEST_F(ClientSftpFiles, CopiesOnTheServerAndNamesEachFailure) {
  std::string big(3 * 1024 * 1024 + 11, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 7919) >> 3);
  put(dir_ / "big.bin", big);
  fs::create_directory(dir_ / "into");
  auto const client = server().connect();
  auto& files = client->sftp();
  files.copy({{at("big.bin"), at("into")}}, ssh::Destination::IntoFolder);
  EXPECT_EQ(contentOf(dir_ / "into" / "big.bin"), big);

  try {
    files.remove({at("into/"), at("into/big.bin/")});
    ADD_FAILURE() << "no SftpError";
  } catch (ssh::SftpError const& e) {
    EXPECT_EQ(e.failures(), (Strings{"cannot remove '" + at("into/big.bin/") + "': Not a directory"}));
    EXPECT_EQ(e.kind(), ssh::SSHError::Kind::Transfer);
  }
  EXPECT_FALSE(fs::exists(at("into")));
}

}  // namespace
}  // namespace sshfa::testing
