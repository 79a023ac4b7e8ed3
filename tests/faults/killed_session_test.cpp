// A session killed in the middle of a transfer (every process serving the
// connection gets SIGKILL, right after the first bytes or files moved): the
// transfer fails, every file under its final name is either its old version
// or the complete new one, and the old versions of files not yet sent are
// intact.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <thread>

#include "tests/faults/FaultSupport.hpp"

namespace sshfa::testing {
namespace {

constexpr std::size_t kBigFile = std::size_t{128} << 20;
constexpr int kSmallFiles = 2000;

std::string oldVersion(int i) { return "old version of file " + std::to_string(i) + "\n"; }
std::string newVersion(int i) { return pattern(64 + static_cast<std::size_t>(i % 700), static_cast<unsigned>(i)); }
std::string smallName(int i) { return "d" + std::to_string(i % 40) + "/f" + std::to_string(i); }

class KilledSession : public ::testing::Test {
 protected:
  enum class Direction { Upload, Download };

  // Copies `source` to `destination` on a session that is killed as soon as
  // the first bytes have moved; returns what the copy threw.
  std::optional<ssh::SSHError> copyKilled(Direction direction, fs::path const& source, fs::path const& destination) {
    auto options = server_.options();
    options.progress = [this](ssh::TransferProgress const& progress) {
      if (progress.bytesDone > 0) kill();
    };
    // A big file, or a whole tree of small ones, can arrive before the first
    // progress report: the destination (on this machine, whichever the
    // direction) is watched as well.
    std::atomic<bool> done{false};
    std::thread watcher;
    if (fs::is_directory(destination)) {
      watcher = std::thread([this, &done, destination] {
        int const events = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        ASSERT_GE(events, 0);
        for (auto const& entry : fs::directory_iterator(destination)) {
          ::inotify_add_watch(events, entry.path().c_str(), IN_CREATE | IN_MOVED_TO);
        }
        std::array<char, 4096> buffer{};
        while (!done && !killed_) {
          if (::read(events, buffer.data(), buffer.size()) > 0) kill();
          std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        ::close(events);
      });
    } else if (fs::is_regular_file(source)) {
      watcher = std::thread([this, &done, folder = destination.parent_path()] {
        while (!done && !killed_) {
          std::error_code ec;
          for (auto const& entry : fs::directory_iterator(folder, ec)) {
            if (isTemporary(entry.path().filename().string()) && entry.file_size(ec) > 0) kill();
          }
          std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
      });
    }
    struct Join {
      std::atomic<bool>& done;
      std::thread& watcher;
      ~Join() {
        done = true;
        if (watcher.joinable()) watcher.join();
      }
    } const join{done, watcher};
    FileAccess access(connect(server_, options));
    auto error = catchSSHError([&] {
      if (direction == Direction::Upload) {
        access.localToRemoteCopy(str2ustr(source.string()), str2ustr(destination.string()));
      } else {
        access.remoteToLocalCopy(str2ustr(source.string()), str2ustr(destination.string()));
      }
    });
    EXPECT_TRUE(killed_) << "the copy ended before the kill";
    return error;
  }

  static void writeOldVersions(fs::path const& root) {
    for (int i = 0; i < kSmallFiles; ++i) writeFile(root / smallName(i), oldVersion(i));
  }
  static void writeNewVersions(fs::path const& root) {
    for (int i = 0; i < kSmallFiles; ++i) writeFile(root / smallName(i), newVersion(i));
  }

  // Every file under a final name below `root` is one of the small files, as
  // its old or its complete new version; returns how many are new.
  static int expectOldOrNew(fs::path const& root) {
    int newer = 0;
    std::size_t seen = 0;
    for (auto const& [name, content] : filesBelow(root)) {
      if (isTemporary(fs::path(name).filename().string())) continue;
      ++seen;
      std::string const index = fs::path(name).filename().string().substr(1);
      int const i = std::stoi(index);
      EXPECT_EQ(name, smallName(i));
      if (content == newVersion(i)) {
        ++newer;
      } else {
        EXPECT_TRUE(sameBytes(content, oldVersion(i))) << name << " is neither version";
      }
    }
    EXPECT_EQ(seen, static_cast<std::size_t>(kSmallFiles));
    return newer;
  }

  void kill() {
    if (!killed_.exchange(true)) server_.killConnections();
  }

  TestSshd server_;
  std::atomic<bool> killed_{false};
  fs::path local_ = TestSshd::makeTempDir();
  fs::path remote_ = TestSshd::makeTempDir();
};

TEST_F(KilledSession, MidUploadOfABigFile) {
  writeFile(local_ / "big", pattern(kBigFile, 1));
  writeFile(remote_ / "big", "old version");
  auto const error = copyKilled(Direction::Upload, local_ / "big", remote_ / "big");
  ASSERT_TRUE(error);
  EXPECT_THAT(std::string(error->what()), ::testing::StartsWith("cannot upload '" + (local_ / "big").string() +
                                                                "' to '" + (remote_ / "big").string() + "' on "));
  EXPECT_TRUE(sameBytes(readFile(remote_ / "big"), "old version"));
}

TEST_F(KilledSession, MidDownloadOfABigFile) {
  writeFile(remote_ / "big", pattern(kBigFile, 2));
  writeFile(local_ / "big", "old version");
  auto const error = copyKilled(Direction::Download, remote_ / "big", local_ / "big");
  ASSERT_TRUE(error);
  EXPECT_THAT(std::string(error->what()),
              ::testing::StartsWith("cannot download '" + (remote_ / "big").string() + "' from "));
  EXPECT_TRUE(sameBytes(readFile(local_ / "big"), "old version"));
}

TEST_F(KilledSession, MidUploadOfManySmallFiles) {
  writeNewVersions(local_ / "tree");
  writeOldVersions(remote_ / "tree");
  EXPECT_TRUE(copyKilled(Direction::Upload, local_ / "tree", remote_ / "tree"));
  EXPECT_LT(expectOldOrNew(remote_ / "tree"), kSmallFiles);
}

TEST_F(KilledSession, MidDownloadOfManySmallFiles) {
  writeNewVersions(remote_ / "tree");
  writeOldVersions(local_ / "tree");
  EXPECT_TRUE(copyKilled(Direction::Download, remote_ / "tree", local_ / "tree"));
  EXPECT_LT(expectOldOrNew(local_ / "tree"), kSmallFiles);
}

TEST_F(KilledSession, ToolMidUploadOfManySmallFiles) {
  writeNewVersions(local_ / "tree");
  writeOldVersions(remote_ / "tree");
  // Into the existing folder that holds the old tree.
  ToolProcess tool(joined(toolConnection(server_), {"put", (local_ / "tree").string(), remote_.string()}), {});
  // Killed once some new versions have arrived.
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (readFile(remote_ / "tree" / smallName(kSmallFiles - 1)) == oldVersion(kSmallFiles - 1) &&
         std::chrono::steady_clock::now() < deadline) {
    bool arrived = false;
    for (int i = 0; i < kSmallFiles && !arrived; i += 97)
      arrived = readFile(remote_ / "tree" / smallName(i)) == newVersion(i);
    if (arrived) break;
  }
  server_.killConnections();
  auto const result = tool.finish();
  EXPECT_EQ(result.status, 3) << result.err;
  EXPECT_THAT(result.err, ::testing::StartsWith("sshfa: "));
  EXPECT_LT(expectOldOrNew(remote_ / "tree"), kSmallFiles);
}

}  // namespace
}  // namespace sshfa::testing
