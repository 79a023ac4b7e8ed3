// The remote host's hashes of files, read through the command channel, equal
// the ones this process computes for the same bytes.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"
#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
namespace in = foundation::sshclient::internal;

class RemoteDigest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { client_ = TestSshd::instance().connect(); }
  static void TearDownTestSuite() { client_.reset(); }

  void SetUp() override { dir_ = TestSshd::makeTempDir(); }

  std::string make(std::string const& name, std::string const& bytes) const {
    auto const path = (dir_ / name).string();
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }

  static std::vector<std::optional<std::string>> hashRemotely(std::vector<std::string> const& paths,
                                                              std::size_t maxLength = 32768) {
    std::vector<std::optional<std::string>> all;
    for (auto const& batch : in::remoteHashCommands(paths, maxLength)) {
      auto const result = client_->executeCommand(ssh::ExecuteCommand(u(batch.command)));
      EXPECT_EQ(result.getStderr(), u"") << batch.command;
      auto const answer =
          in::parseRemoteHashes(utf8(result.getStdout()), std::span(paths).subspan(batch.first, batch.count));
      // This host has b2sum (coreutils 9.1): its lines name it.
      EXPECT_EQ(answer.kind, in::HashKind::Blake2b512);
      all.insert(all.end(), answer.hashes.begin(), answer.hashes.end());
    }
    return all;
  }

  static std::optional<std::string> prefixRemotely(std::string const& path, std::uint64_t length) {
    auto const result = client_->executeCommand(ssh::ExecuteCommand(u(in::remotePrefixHashCommand(path, length))));
    EXPECT_EQ(result.getStderr(), u"") << path;
    auto const answer = in::parseRemotePrefixHash(utf8(result.getStdout()));
    EXPECT_EQ(answer.kind, in::HashKind::Blake2b512);
    return answer.hash;
  }

  static std::string b2(std::string const& path, std::optional<std::uint64_t> length = std::nullopt) {
    return in::hashOfLocalFile(in::HashKind::Blake2b512, path, length);
  }

  static std::unique_ptr<ssh::SSHClient> client_;
  fs::path dir_;
};

std::unique_ptr<ssh::SSHClient> RemoteDigest::client_;

TEST_F(RemoteDigest, HostileNamesFoldersAndMissingFiles) {
  std::vector<std::string> const paths = {make("plain", "abc"),
                                          make("-rf", "option-like"),
                                          make("line\nfeed", ""),
                                          make("back\\slash\r", "x"),
                                          make("\xff\x80 bytes", "\x01\x02"),
                                          make("it's $(touch x) `y`", std::string(100000, 'z')),
                                          dir_.string(),
                                          (dir_ / "missing").string()};
  auto const hashes = hashRemotely(paths);
  ASSERT_EQ(hashes.size(), paths.size());
  for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(hashes[i], b2(paths[i])) << paths[i];
  EXPECT_FALSE(hashes[6].has_value());
  EXPECT_FALSE(hashes[7].has_value());
}

TEST_F(RemoteDigest, ManyFilesOverSeveralLines) {
  std::vector<std::string> paths;
  for (int i = 0; i < 300; ++i) paths.push_back(make("f" + std::to_string(i), std::to_string(i * i)));
  auto const hashes = hashRemotely(paths, 2000);
  ASSERT_EQ(hashes.size(), paths.size());
  for (std::size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(hashes[i], b2(paths[i]));
}

TEST_F(RemoteDigest, PrefixesMatchTheLocalPrefixes) {
  std::string bytes;
  for (int i = 0; i < 300000; ++i) bytes += static_cast<char>(i * 7);
  auto const path = make("-big", bytes);
  for (std::uint64_t const length : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{65536}, std::uint64_t{299999},
                                     std::uint64_t{300000}, std::uint64_t{1000000}}) {
    EXPECT_EQ(prefixRemotely(path, length), b2(path, length)) << length;
  }
}

TEST_F(RemoteDigest, ThePrefixOfAMissingFileOrAFolderIsUnreadable) {
  for (auto const& path : {(dir_ / "missing").string(), dir_.string()}) {
    EXPECT_FALSE(prefixRemotely(path, 10).has_value()) << path;
  }
}

// A host without b2sum (coreutils before 8.26): the lines name sha256sum,
// and their hashes are SHA-256.
TEST(RemoteDigestWithoutB2sum, TheLinesNameSha256sumAndHashWithIt) {
  auto const dir = TestSshd::makeTempDir();
  fs::create_directories(dir / "bin");
  std::ofstream(dir / "bin" / "b2sum") << "#!/bin/sh\nexit 127\n";
  fs::permissions(dir / "bin" / "b2sum", fs::perms(0755));
  TestSshd const server("SetEnv PATH=" + (dir / "bin").string() + ":/usr/bin:/bin");
  auto const client = server.connect();
  auto const path = (dir / "f").string();
  std::ofstream(path, std::ios::binary) << "abcdef";
  std::vector<std::string> const paths{path};
  auto const batch = in::remoteHashCommands(paths).front();
  auto const hashes =
      in::parseRemoteHashes(utf8(client->executeCommand(ssh::ExecuteCommand(u(batch.command))).getStdout()), paths);
  EXPECT_EQ(hashes.kind, in::HashKind::Sha256);
  ASSERT_EQ(hashes.hashes.size(), 1U);
  EXPECT_EQ(hashes.hashes[0], in::sha256OfLocalFile(path));
  auto const prefix = in::parseRemotePrefixHash(
      utf8(client->executeCommand(ssh::ExecuteCommand(u(in::remotePrefixHashCommand(path, 3)))).getStdout()));
  EXPECT_EQ(prefix.kind, in::HashKind::Sha256);
  EXPECT_EQ(prefix.hash, in::sha256Of("abc"));
}

}  // namespace
}  // namespace sshfa::testing
