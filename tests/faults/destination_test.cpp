// Destinations that refuse the data: a full file system (a 1 MiB tmpfs) and
// a read-only one. An upload or download into them fails, the old file stays
// as it was, and nothing else is left there: no partial file under the final
// name, no temporary; the tool names the cause. Mounting needs root;
// otherwise the tests are skipped. Also sources that change while they are
// uploaded: they fail, and the old destination stays.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/faults/FaultSupport.hpp"

namespace sshfa::testing {
namespace {

constexpr char const* kOld = "old version\n";
constexpr std::size_t kTooBig = std::size_t{2} << 20;
constexpr int kFailed = 1;  // the tool's status for a failed operation

class RefusingDestination : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a tmpfs";
    try {
      TestSshd::shell("mount -t tmpfs -o size=1m,mode=0755 sshfa-faults '" + mount_.string() + "' 2>&1");
    } catch (std::exception const& error) {
      GTEST_SKIP() << "cannot mount a tmpfs here: " << error.what();
    }
    mounted_ = true;
    writeFile(mount_ / "big", kOld);
    writeFile(source_ / "big", pattern(kTooBig, 7));
  }
  void TearDown() override {
    if (mounted_) TestSshd::shell("umount '" + mount_.string() + "' 2>&1");
  }

  void makeReadOnly() const { TestSshd::shell("mount -o remount,ro '" + mount_.string() + "' 2>&1"); }

  // The old file is intact and alone.
  void expectUntouched() const {
    EXPECT_EQ(readFile(mount_ / "big"), kOld);
    EXPECT_THAT(namesIn(mount_), ::testing::ElementsAre("big"));
  }

  std::unique_ptr<FileAccess> facade() const {
    return std::make_unique<FileAccess>(connect(TestSshd::instance(), TestSshd::instance().options()));
  }
  void upload() const {
    auto access = facade();
    auto const error = catchSSHError(
        [&] { access->localToRemoteCopy(str2ustr((source_ / "big").string()), str2ustr((mount_ / "big").string())); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), ssh::SSHError::Kind::Transfer);
    EXPECT_THAT(
        std::string(error->what()),
        ::testing::StartsWith("cannot upload '" + (source_ / "big").string() + "' to '" + (mount_ / "big").string() +
                              "' on " + prefixOf(TestSshd::instance(), TestSshd::instance().user())));
  }
  void download() const {
    writeFile(remoteSource_ / "big", pattern(kTooBig, 8));
    auto access = facade();
    auto const error = catchSSHError([&] {
      access->remoteToLocalCopy(str2ustr((remoteSource_ / "big").string()), str2ustr((mount_ / "big").string()));
    });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), ssh::SSHError::Kind::Transfer);
    EXPECT_THAT(std::string(error->what()),
                ::testing::StartsWith("cannot download '" + (remoteSource_ / "big").string() + "' from "));
  }
  void toolUpload(std::string const& cause = {}) const {
    auto const result = runTool(
        joined(toolConnection(TestSshd::instance()), {"put", (source_ / "big").string(), (mount_ / "big").string()}));
    EXPECT_EQ(result.status, kFailed) << result.err;
    EXPECT_THAT(result.err, ::testing::StartsWith("sshfa: cannot upload '" + (source_ / "big").string() + "' to '" +
                                                  (mount_ / "big").string() + "' on "));
    if (!cause.empty()) {
      EXPECT_THAT(result.err, ::testing::EndsWith(": " + cause + "\n"));
    }
  }

  fs::path mount_ = TestSshd::makeTempDir();
  fs::path source_ = TestSshd::makeTempDir();
  fs::path remoteSource_ = TestSshd::makeTempDir();
  bool mounted_ = false;
};

TEST_F(RefusingDestination, UploadIntoAFullFileSystem) {
  upload();
  expectUntouched();
}

TEST_F(RefusingDestination, DownloadIntoAFullFileSystem) {
  download();
  expectUntouched();
}

TEST_F(RefusingDestination, ToolUploadIntoAFullFileSystem) {
  toolUpload("no space left on device");
  expectUntouched();
}

TEST_F(RefusingDestination, UploadIntoAReadOnlyFileSystem) {
  makeReadOnly();
  upload();
  expectUntouched();
}

TEST_F(RefusingDestination, DownloadIntoAReadOnlyFileSystem) {
  makeReadOnly();
  download();
  expectUntouched();
}

TEST_F(RefusingDestination, ToolUploadIntoAReadOnlyFileSystem) {
  makeReadOnly();
  toolUpload("read-only file system");
  expectUntouched();
}

// A source changed by `change` as soon as its temporary appears beside the
// destination, while the tool copies it: up (a local source) or down (the
// server's file).
class ChangingSource : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    writeFile(destination_ / "big", kOld);
    writeFile(source_ / "big", pattern(kSize, 3));
  }
  [[nodiscard]] static bool upload() { return GetParam(); }

  template <class Change>
  void copyWhile(Change&& change) {
    std::atomic<bool> done{false};
    std::thread watcher([&] {
      while (!done) {
        for (auto const& name : namesIn(destination_)) {
          if (name.find(".sshfa-") != std::string::npos) {
            change(source_ / "big");
            return;
          }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
    result_ = runTool(joined(toolConnection(TestSshd::instance()),
                             {upload() ? "put" : "get", (source_ / "big").string(), (destination_ / "big").string()}));
    done = true;
    watcher.join();
  }

  void expectFailedAndOldKept() const {
    auto const source = (source_ / "big").string();
    auto const destination = (destination_ / "big").string();
    auto const peer = prefixOf(TestSshd::instance(), TestSshd::instance().user());
    EXPECT_EQ(result_.status, kFailed) << result_.err;
    EXPECT_EQ(result_.err, "sshfa: " +
                               (upload() ? "cannot upload '" + source + "' to '" + destination + "' on " + peer
                                         : "cannot download '" + source + "' from " + peer.substr(0, peer.size() - 2) +
                                               " to '" + destination + "': ") +
                               "'" + source + "' changed while being read\n");
    EXPECT_EQ(readFile(destination_ / "big"), kOld);
    EXPECT_THAT(namesIn(destination_), ::testing::ElementsAre("big"));
  }

  // Large enough that the copy is still reading when the change comes.
  static constexpr std::size_t kSize = std::size_t{192} << 20;
  fs::path source_ = TestSshd::makeTempDir();
  fs::path destination_ = TestSshd::makeTempDir();
  ToolResult result_;
};

TEST_P(ChangingSource, ASourceTruncatedWhileCopiedFails) {
  copyWhile([](fs::path const& path) { fs::resize_file(path, 10 << 20); });
  expectFailedAndOldKept();
}

TEST_P(ChangingSource, ASourceGrownWhileCopiedFails) {
  copyWhile([](fs::path const& path) {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << "more";
  });
  expectFailedAndOldKept();
}

INSTANTIATE_TEST_SUITE_P(BothWays, ChangingSource, ::testing::Bool(),
                         [](::testing::TestParamInfo<bool> const& param) { return param.param ? "Up" : "Down"; });

}  // namespace
}  // namespace sshfa::testing
