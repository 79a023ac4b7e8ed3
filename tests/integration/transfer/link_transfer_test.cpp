// Transfers through a link with a real round trip, where the windows and the
// files in flight grow past their loopback floors: every byte arrives, both
// ways, and no temporary is left behind.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/LinkTestHelpers.hpp"
#include "tests/support/SshTestHelpers.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ssh::TransferDirection;

std::string randomBytes(std::size_t size, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::string bytes(size, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(random() & 0xFFU);
  return bytes;
}

// Copies every file of `from` to the same name in `to`, one command.
void copyAll(ssh::SSHClient& client, TransferDirection direction, fs::path const& from, fs::path const& to) {
  std::vector<ssh::FileLocations> items;
  for (auto const& entry : fs::directory_iterator(from)) {
    auto const source = u(entry.path().string());
    auto const destination = u((to / entry.path().filename()).string());
    items.push_back(direction == TransferDirection::LocalToRemote ? ssh::FileLocations{source, destination}
                                                                  : ssh::FileLocations{destination, source});
  }
  client.copyFiles(ssh::CopyFilesCommand(std::move(items), direction, ssh::TransferProtocol::SFTP, 0644));
}

// Every name of `folder` with its bytes.
std::vector<std::pair<std::string, std::string>> contents(fs::path const& folder) {
  std::vector<std::pair<std::string, std::string>> files;
  for (auto const& entry : fs::directory_iterator(folder)) {
    files.emplace_back(entry.path().filename().string(), readFile(entry.path()));
  }
  std::sort(files.begin(), files.end());
  return files;
}

class LinkTransfer : public ::testing::Test {
 protected:
  void SetUp() override {
    auto const scratch = TestSshd::makeTempDir();
    source_ = scratch / "source";
    there_ = scratch / "there";
    back_ = scratch / "back";
    for (auto const& folder : {source_, there_, back_}) fs::create_directory(folder);
  }

  // Up through a 20 ms round trip, then down again.
  void roundTrip() {
    auto& sshd = TestSshd::instance();
    auto const link = linkTo(sshd, 10ms);
    auto const client = connectThrough(sshd, *link, optionsThrough(sshd, *link));
    copyAll(*client, TransferDirection::LocalToRemote, source_, there_);
    copyAll(*client, TransferDirection::RemoteToLocal, there_, back_);
    EXPECT_EQ(link->stats().accepted, 1U);
  }

  fs::path source_;
  fs::path there_;
  fs::path back_;
};

TEST_F(LinkTransfer, ALargeFileArrivesWholeBothWays) {
  auto const bytes = randomBytes(24U << 20U, 25);
  writeFile(source_ / "large", bytes);
  roundTrip();
  EXPECT_TRUE(readFile(there_ / "large") == bytes);
  EXPECT_TRUE(readFile(back_ / "large") == bytes);
  EXPECT_EQ(contents(there_).size(), 1U);
  EXPECT_EQ(contents(back_).size(), 1U);
}

TEST_F(LinkTransfer, ManySmallFilesArriveWholeBothWays) {
  for (int i = 0; i < 400; ++i) {
    writeFile(source_ / ("f" + std::to_string(i)),
              randomBytes(2048 + static_cast<std::size_t>(i) * 11, static_cast<std::uint64_t>(i)));
  }
  roundTrip();
  auto const sent = contents(source_);
  ASSERT_EQ(sent.size(), 400U);
  EXPECT_TRUE(contents(there_) == sent);
  EXPECT_TRUE(contents(back_) == sent);
}

}  // namespace
}  // namespace sshfa::testing
