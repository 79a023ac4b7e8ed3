// FileAccess against the real sshd: trees copied up and back, folders made
// first, missing sources, failures passed through, construction failure.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "sshfileaccess/FileAccess.hpp"
#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/Utils.hpp"
#include "tests/support/TestSshd.hpp"

namespace {

using namespace nimbal::remoteaccess::sshfileaccess;  // NOLINT(google-build-using-namespace)
using sshfa::testing::TestSshd;
namespace fs = std::filesystem;
namespace ssh = foundation::sshclient;

// The sshd runs on this machine, so "remote" paths can be checked directly.
ustring u(fs::path const& p) { return str2ustr(p.string()); }

void write(fs::path const& p, std::string const& bytes) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << bytes;
}

std::string read(fs::path const& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

class FacadeIntegration : public ::testing::Test {
 protected:
  FacadeIntegration() : access_(TestSshd::instance().connect()), dir_(TestSshd::makeTempDir()) {}

  FileAccess access_;
  fs::path dir_;
};

TEST_F(FacadeIntegration, TreeGoesUpAndComesBackIdentical) {
  const std::string odd = "it's \xC3\xA9 $x";
  write(dir_ / "src/a.txt", "alpha");
  write(dir_ / "src/sub" / odd, std::string("\0\xFF binary", 9));
  fs::create_directories(dir_ / "src/empty");

  access_.localToRemoteCopy(u(dir_ / "src"), u(dir_ / "up"));
  EXPECT_EQ(read(dir_ / "up/a.txt"), "alpha");
  EXPECT_EQ(read(dir_ / "up/sub" / odd), std::string("\0\xFF binary", 9));
  EXPECT_FALSE(fs::exists(dir_ / "up/empty"));

  access_.remoteToLocalCopy(u(dir_ / "up"), u(dir_ / "down"));
  EXPECT_EQ(read(dir_ / "down/a.txt"), "alpha");
  EXPECT_EQ(read(dir_ / "down/sub" / odd), std::string("\0\xFF binary", 9));
}

TEST_F(FacadeIntegration, FileGoesToTheNamedDestinationInANewFolder) {
  write(dir_ / "f.txt", "content");
  access_.localToRemoteCopy(u(dir_ / "f.txt"), u(dir_ / "x/y/g.txt"));
  EXPECT_EQ(read(dir_ / "x/y/g.txt"), "content");
  access_.remoteToLocalCopy(u(dir_ / "x/y/g.txt"), u(dir_ / "back/h.txt"));
  EXPECT_EQ(read(dir_ / "back/h.txt"), "content");
}

TEST_F(FacadeIntegration, MissingSourcesCopyNothingAndRaiseNothing) {
  access_.localToRemoteCopy(u(dir_ / "missing"), u(dir_ / "up"));
  access_.remoteToLocalCopy(u(dir_ / "missing"), u(dir_ / "down"));
  access_.localToRemoteCopy(FileAccess::PathPairs{});
  EXPECT_FALSE(fs::exists(dir_ / "up"));
  EXPECT_FALSE(fs::exists(dir_ / "down"));
}

TEST_F(FacadeIntegration, FolderThatCannotBeMadeFailsBeforeAnythingIsCopied) {
  write(dir_ / "src/a.txt", "alpha");
  write(dir_ / "blocker", "a file where a folder must go");
  try {
    access_.localToRemoteCopy(u(dir_ / "src"), u(dir_ / "blocker/up"));
    FAIL() << "no exception";
  } catch (FileAccessException const& e) {
    EXPECT_EQ(e.code(), FileAccessException::Code::RemoteError);
    EXPECT_NE(std::string(e.what()).find("mkdir"), std::string::npos) << e.what();
  }
  EXPECT_EQ(read(dir_ / "blocker"), "a file where a folder must go");
}

TEST_F(FacadeIntegration, RemoteExecuteReturnsWhatTheCommandDid) {
  const auto failed = access_.remoteExecute(u"printf out; printf err >&2; exit 1");
  EXPECT_EQ(failed.getExitcode(), 1);
  EXPECT_EQ(failed.getStdout(), u"out");
  EXPECT_EQ(failed.getStderr(), u"err");
}

TEST_F(FacadeIntegration, BothSidesAnswerTheSameQueries) {
  write(dir_ / "q/f.txt", "12345");
  for (FileAccessInterface* side :
       {static_cast<FileAccessInterface*>(access_.local()), static_cast<FileAccessInterface*>(access_.remote())}) {
    EXPECT_TRUE(side->isDir(u(dir_ / "q")));
    EXPECT_TRUE(side->isFile(u(dir_ / "q/f.txt")));
    const auto info = side->getFileInfo(u(dir_ / "q/f.txt"));
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->size, 5U);
    EXPECT_EQ(side->listRecursively(u(dir_ / "q")), std::vector<ustring>{u(dir_ / "q/f.txt")});
  }
}

TEST(FacadeConstruction, FailedConnectionLeavesNoObjectAndPassesTheClientError) {
  const int s = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(s, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr*>(&addr), len), 0);
  ASSERT_EQ(::getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  const int closedPort = ntohs(addr.sin_port);
  ::close(s);  // nothing listens there now

  try {
    FileAccess access(u"127.0.0.1", closedPort, TestSshd::instance().auth());
    FAIL() << "connected to a closed port";
  } catch (ssh::SSHError const& e) {
    EXPECT_EQ(e.kind(), ssh::SSHError::Kind::Connect);
  }
}

}  // namespace
