// Faults during a delta update, both ways: a source that changes while its
// blocks are hashed fails as "changed while being read" and leaves the old
// file as it was; a connection killed while the blocks are hashed leaves
// the old file as it was, and the next run completes the update (and
// removes what the killed one left).

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <thread>

#include "tests/faults/FaultSupport.hpp"

namespace sshfa::testing {
namespace {

constexpr std::size_t kSize = std::size_t{64} << 20;
constexpr std::size_t kMiB = std::size_t{1} << 20;
constexpr int kFailed = 1;  // the tool's status for a failed operation
constexpr time_t kOldTime = 1'500'000'000;
constexpr time_t kNewTime = 1'600'000'000;

void setTime(fs::path const& path, time_t seconds) {
  struct timespec const times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// `bytes` with 1 MiB of other bytes in the middle.
std::string withChangedMiddle(std::string bytes, unsigned seed) {
  bytes.replace(kSize / 2, kMiB, pattern(kMiB, seed));
  return bytes;
}

// Rewrites a megabyte of `path` in place: same size, a new time.
void rewriteInPlace(fs::path const& path) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(kSize / 4));
  auto const other = pattern(kMiB, 99);
  file.write(other.data(), static_cast<std::streamsize>(other.size()));
}

class DeltaFaults : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    old_ = pattern(kSize, 1);
    new_ = withChangedMiddle(old_, 2);
    writeFile(destination(), old_);
    setTime(destination(), kOldTime);
    writeFile(source(), new_);
    setTime(source(), kNewTime);
  }

  [[nodiscard]] bool upload() const { return GetParam(); }
  [[nodiscard]] fs::path source() const { return (upload() ? local_ : remote_) / "big"; }
  [[nodiscard]] fs::path destination() const { return (upload() ? remote_ : local_) / "big"; }

  // Runs `copy` while a watcher calls `act` as soon as a temporary appears
  // beside the destination: the delta's, made before any block is hashed.
  template <class Copy>
  void whileTheDeltaRuns(std::function<void()> const& act, Copy&& copy) {
    std::atomic<bool> done{false};
    std::atomic<bool> acted{false};
    std::thread watcher([&] {
      while (!done) {
        for (auto const& name : namesIn(destination().parent_path())) {
          if (isTemporary(name)) {
            act();
            acted = true;
            return;
          }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
    copy();
    done = true;
    watcher.join();
    EXPECT_TRUE(acted) << "the copy ended before any temporary appeared";
  }

  // The old version, alone, as it was.
  void expectOldKept() const {
    EXPECT_TRUE(sameBytes(readFile(destination()), old_));
    EXPECT_THAT(namesIn(destination().parent_path()), ::testing::ElementsAre("big"));
  }

  ssh::TreeTransferReport copy(TestSshd const& server) const {
    auto client = connect(server, server.options());
    ssh::TreeTransferOptions options;
    options.skipUnchanged = ssh::UnchangedTest::SizeAndTime;
    options.delta = ssh::DeltaMode::Always;
    auto const from = str2ustr(source().string());
    auto const to = str2ustr(destination().string());
    auto const direction = upload() ? ssh::TransferDirection::LocalToRemote : ssh::TransferDirection::RemoteToLocal;
    std::vector<ssh::FileLocations> items{upload() ? ssh::FileLocations{from, to} : ssh::FileLocations{to, from}};
    return client->copyTrees(ssh::CopyTreesCommand(std::move(items), direction, options));
  }

  fs::path local_ = TestSshd::makeTempDir();
  fs::path remote_ = TestSshd::makeTempDir();
  std::string old_;
  std::string new_;
};

TEST_P(DeltaFaults, ASourceChangedWhileItsBlocksAreHashedFails) {
  auto const& server = TestSshd::instance();
  ToolResult result;
  whileTheDeltaRuns([this] { rewriteInPlace(source()); },
                    [&] {
                      result = runTool(joined(toolConnection(server), {upload() ? "put" : "get", "--delta",
                                                                       source().string(), destination().string()}));
                    });
  EXPECT_EQ(result.status, kFailed) << result.err;
  auto const peer = prefixOf(server, server.user());
  auto const what = upload()
                        ? "cannot upload '" + source().string() + "' to '" + destination().string() + "' on " + peer
                        : "cannot download '" + source().string() + "' from " + peer.substr(0, peer.size() - 2) +
                              " to '" + destination().string() + "': ";
  EXPECT_EQ(result.err, "sshfa: " + what + "'" + source().string() + "' changed while being read\n");
  expectOldKept();
}

TEST_P(DeltaFaults, AConnectionKilledWhileTheBlocksAreHashedKeepsTheOldFileAndTheNextRunCompletes) {
  TestSshd server;
  std::optional<ssh::SSHError> error;
  whileTheDeltaRuns([&] { server.killConnections(); }, [&] { error = catchSSHError([&] { copy(server); }); });
  ASSERT_TRUE(error);
  EXPECT_THAT(std::string(error->what()),
              ::testing::StartsWith(upload() ? "cannot upload '" + source().string() + "' to '" +
                                                   destination().string() + "' on "
                                             : "cannot download '" + source().string() + "' from "));
  EXPECT_TRUE(sameBytes(readFile(destination()), old_));
  auto const again = copy(server);
  EXPECT_EQ(again.bytes, kMiB);
  EXPECT_EQ(again.reused, kSize - kMiB);
  EXPECT_TRUE(sameBytes(readFile(destination()), new_));
  EXPECT_THAT(namesIn(destination().parent_path()), ::testing::ElementsAre("big"));
}

INSTANTIATE_TEST_SUITE_P(BothWays, DeltaFaults, ::testing::Bool(), [](::testing::TestParamInfo<bool> const& param) {
  return param.param ? "Upload" : "Download";
});

}  // namespace
}  // namespace sshfa::testing
