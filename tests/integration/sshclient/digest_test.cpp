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
      auto const hashes =
          in::parseRemoteHashes(utf8(result.getStdout()), std::span(paths).subspan(batch.first, batch.count));
      all.insert(all.end(), hashes.begin(), hashes.end());
    }
    return all;
  }

  static std::optional<std::string> prefixRemotely(std::string const& path, std::uint64_t length) {
    auto const result = client_->executeCommand(ssh::ExecuteCommand(u(in::remotePrefixHashCommand(path, length))));
    EXPECT_EQ(result.getStderr(), u"") << path;
    return in::parseRemotePrefixHash(utf8(result.getStdout()));
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
  for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(hashes[i], in::sha256OfLocalFile(paths[i])) << paths[i];
  EXPECT_FALSE(hashes[6].has_value());
  EXPECT_FALSE(hashes[7].has_value());
}

TEST_F(RemoteDigest, ManyFilesOverSeveralLines) {
  std::vector<std::string> paths;
  for (int i = 0; i < 300; ++i) paths.push_back(make("f" + std::to_string(i), std::to_string(i * i)));
  auto const hashes = hashRemotely(paths, 2000);
  ASSERT_EQ(hashes.size(), paths.size());
  for (std::size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(hashes[i], in::sha256OfLocalFile(paths[i]));
}

TEST_F(RemoteDigest, PrefixesMatchTheLocalPrefixes) {
  std::string bytes;
  for (int i = 0; i < 300000; ++i) bytes += static_cast<char>(i * 7);
  auto const path = make("-big", bytes);
  for (std::uint64_t const length : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{65536}, std::uint64_t{299999},
                                     std::uint64_t{300000}, std::uint64_t{1000000}}) {
    EXPECT_EQ(prefixRemotely(path, length), in::sha256OfLocalFile(path, length)) << length;
  }
}

TEST_F(RemoteDigest, ThePrefixOfAMissingFileOrAFolderIsUnreadable) {
  for (auto const& path : {(dir_ / "missing").string(), dir_.string()}) {
    EXPECT_FALSE(prefixRemotely(path, 10).has_value()) << path;
  }
}

}  // namespace
}  // namespace sshfa::testing
