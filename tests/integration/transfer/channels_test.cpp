// Tree transfers over several SFTP channels of one connection, through a
// link with a real round trip: every byte arrives both ways over as many
// server processes as channels asked for; a server that allows one session
// per connection still gets everything over one; a channel whose server
// process dies leaves nothing incomplete under a final name; a killed
// transfer over several channels is resumed; and folders are listed over
// every channel.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/LinkTestHelpers.hpp"
#include "tests/support/SftpPackets.hpp"
#include "tests/support/SshTestHelpers.hpp"
#include "tests/support/TestFiles.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ssh::TransferDirection;

void put(fs::path const& path, std::string const& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

bool isTemporary(std::string const& name) {
  return name.size() > 1 && name.front() == '.' && name.find(".sshfa-") != std::string::npos;
}

// Regular files below `root`, relative name -> content; temporaries apart.
struct Found {
  std::map<std::string, std::string> files;
  std::vector<std::string> temporaries;
};
Found filesBelow(fs::path const& root) {
  Found found;
  for (auto const& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file()) continue;
    auto name = fs::relative(entry.path(), root).string();
    if (isTemporary(entry.path().filename().string())) {
      found.temporaries.push_back(name);
    } else {
      found.files[name] = readFile(entry.path());
    }
  }
  return found;
}

// A tree of many small files in a few folders, and a few larger ones.
void writeTree(fs::path const& root, int smallFiles, int largeFiles, std::size_t largeSize) {
  for (int i = 0; i < smallFiles; ++i) {
    put(root / ("d" + std::to_string(i % 7)) / ("f" + std::to_string(i)),
        randomBytes(2048 + static_cast<std::size_t>(i) * 13, static_cast<std::uint64_t>(i)));
  }
  for (int i = 0; i < largeFiles; ++i) {
    put(root / ("large" + std::to_string(i)), randomBytes(largeSize, 1000 + static_cast<std::uint64_t>(i)));
  }
}

// Each SFTP session served by a process of its own, as OpenSSH installs it.
std::string ownProcesses() { return "Subsystem sftp " + sftpServerPath() + "\n"; }

// The SFTP server processes serving `server`'s connections.
std::vector<pid_t> sftpServers(TestSshd const& server) {
  std::vector<pid_t> found;
  for (pid_t const pid : server.connectionPids()) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    if (std::getline(comm, name) && name == "sftp-server") found.push_back(pid);
  }
  return found;
}

// Runs `look` every 2 ms on a thread of its own while it lives.
class Watch {
 public:
  explicit Watch(std::function<void()> look)
      : thread_([this, look = std::move(look)] {
          while (!done_) {
            look();
            std::this_thread::sleep_for(2ms);
          }
        }) {}
  ~Watch() {
    done_ = true;
    thread_.join();
  }
  Watch(Watch const&) = delete;
  Watch& operator=(Watch const&) = delete;

 private:
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// Counts the most SFTP server processes seen at once while it lives.
class ServerCount {
 public:
  explicit ServerCount(TestSshd const& server)
      : watch_([this, &server] {
          auto const now = sftpServers(server).size();
          if (now > most_) most_ = now;
        }) {}
  [[nodiscard]] std::size_t most() const { return most_; }

 private:
  std::atomic<std::size_t> most_{0};
  Watch watch_;  // last: stops before the rest goes
};

// One tree copy through `link` to `server`.
ssh::TreeTransferReport copyTree(TestSshd const& server, linkemu::LinkEmulator const& link, TransferDirection direction,
                                 fs::path const& from, fs::path const& to, ssh::TreeTransferOptions const& options,
                                 std::function<void(ssh::TransferProgress const&)> progress = {}) {
  auto clientOptions = optionsThrough(server, link);
  clientOptions.progress = std::move(progress);
  auto const client = connectThrough(server, link, clientOptions);
  auto const source = u(from.string());
  auto const destination = u(to.string());
  std::vector<ssh::FileLocations> items{direction == TransferDirection::LocalToRemote
                                            ? ssh::FileLocations{source, destination}
                                            : ssh::FileLocations{destination, source}};
  return client->copyTrees(ssh::CopyTreesCommand(std::move(items), direction, options));
}

class Channels : public ::testing::Test {
 protected:
  fs::path const scratch_ = TestSshd::makeTempDir();
  fs::path const source_ = scratch_ / "source";
  fs::path const there_ = scratch_ / "there";
  fs::path const back_ = scratch_ / "back";
};

TEST_F(Channels, ATreeOverThreeChannelsArrivesWholeBothWays) {
  writeTree(source_, 300, 3, 3U << 20U);
  TestSshd const sshd(ownProcesses());
  auto const link = linkTo(sshd, 10ms);
  ssh::TreeTransferOptions options;
  options.channels = 3;
  for (auto const direction : {TransferDirection::LocalToRemote, TransferDirection::RemoteToLocal}) {
    bool const up = direction == TransferDirection::LocalToRemote;
    ServerCount const servers(sshd);
    auto const report = copyTree(sshd, *link, direction, up ? source_ : there_, up ? there_ : back_, options);
    EXPECT_EQ(report.files, 303U);
    EXPECT_EQ(report.channels, 3U);
    EXPECT_THAT(report.details, ::testing::IsEmpty());
    EXPECT_EQ(servers.most(), 3U) << (up ? "up" : "down");
  }
  auto const sent = filesBelow(source_).files;
  ASSERT_EQ(sent.size(), 303U);
  auto const there = filesBelow(there_);
  auto const back = filesBelow(back_);
  EXPECT_TRUE(there.files == sent);
  EXPECT_TRUE(back.files == sent);
  EXPECT_THAT(there.temporaries, ::testing::IsEmpty());
  EXPECT_THAT(back.temporaries, ::testing::IsEmpty());
}

// At a 50 ms round trip one channel carries 2 MiB per round trip, about
// 40 MiB/s: left to itself the transfer takes the most channels it would.
TEST_F(Channels, ALongRoundTripGetsSeveralChannelsOfItself) {
  writeTree(source_, 40, 1, 1U << 20U);
  TestSshd const sshd(ownProcesses());
  auto const link = linkTo(sshd, 25ms);
  ServerCount const servers(sshd);
  auto const report = copyTree(sshd, *link, TransferDirection::LocalToRemote, source_, there_, {});
  EXPECT_EQ(report.channels, 4U);
  EXPECT_EQ(servers.most(), 4U);
  EXPECT_EQ(report.files, 41U);
  EXPECT_TRUE(filesBelow(there_).files == filesBelow(source_).files);
}

TEST_F(Channels, AServerOfOneSessionPerConnectionGetsEverythingOverOne) {
  TestSshd const server("MaxSessions 1\n" + ownProcesses());
  writeTree(source_, 120, 1, 1U << 20U);
  auto const link = linkTo(server, 5ms);
  ssh::TreeTransferOptions options;
  options.channels = 3;
  auto const report = copyTree(server, *link, TransferDirection::LocalToRemote, source_, there_, options);
  EXPECT_EQ(report.files, 121U);
  EXPECT_EQ(report.channels, 1U);
  ASSERT_EQ(report.details.size(), 1U);
  EXPECT_THAT(fl::i18n::ustring_to_utf8(report.details.front()),
              ::testing::StartsWith("files went over 1 of 3 channels: the server refused another ("));
  auto const there = filesBelow(there_);
  EXPECT_TRUE(there.files == filesBelow(source_).files);
  EXPECT_THAT(there.temporaries, ::testing::IsEmpty());
}

// The SFTP channel fills the only session: checksums have no command to
// run and fall back to size and time, and say why.
TEST_F(Channels, AServerOfOneSessionPerConnectionComparesChecksumsBySizeAndTime) {
  TestSshd const server("MaxSessions 1\n");
  writeTree(source_, 3, 1, 100);
  auto const link = linkTo(server, 1ms);
  copyTree(server, *link, TransferDirection::LocalToRemote, source_, there_, {});
  auto const again = copyTree(server, *link, TransferDirection::LocalToRemote, source_, there_,
                              {.skipUnchanged = ssh::UnchangedTest::Checksum});
  EXPECT_EQ(again.files, 0U);
  EXPECT_EQ(again.skipped, 4U);
  std::vector<std::string> notes;
  for (auto const& note : again.notes) notes.push_back(fl::i18n::ustring_to_utf8(note));
  EXPECT_THAT(notes, ::testing::ElementsAre(::testing::AllOf(
                         ::testing::StartsWith("the server refused a channel to run commands on ("),
                         ::testing::EndsWith("): files are compared by size and time, not by checksum"))));
}

// ... and a partial copy's prefix, too small to need a command, is read
// over SFTP, checked here and continued.
TEST_F(Channels, AServerOfOneSessionPerConnectionStillResumes) {
  TestSshd const server("MaxSessions 1\n");
  auto const bytes = randomBytes(3 * 512 * 1024, 9);
  fs::create_directories(source_);
  fs::create_directories(back_);
  writeFile(source_ / "big", bytes);
  struct timespec const times[2] = {{1'500'000'000, 0}, {1'500'000'000, 0}};
  ::utimensat(AT_FDCWD, (source_ / "big").c_str(), times, 0);
  auto const partial = back_ / (".big.sshfa-partial-" + std::to_string(bytes.size()) + "-1500000000");
  writeFile(partial, bytes.substr(0, 512 * 1024));
  ::utimensat(AT_FDCWD, partial.c_str(), times, 0);
  auto const link = linkTo(server, 1ms);
  auto const report =
      copyTree(server, *link, TransferDirection::RemoteToLocal, source_ / "big", back_ / "big", {.resume = true});
  EXPECT_EQ(report.resumed, 1U);
  EXPECT_EQ(report.bytes, bytes.size() - 512 * 1024);
  EXPECT_EQ(readFile(back_ / "big"), bytes);
  EXPECT_EQ(listNames(back_), std::vector<std::string>{"big"});
}

// A copy over 3 channels during which one of the SFTP server processes is
// killed, once `due` says so; and the copy's failure, if it failed.
struct KilledOne {
  bool killed = false;
  std::optional<std::string> error;
};
KilledOne copyKillingOneServer(TestSshd const& server, linkemu::LinkEmulator const& link, TransferDirection direction,
                               fs::path const& from, fs::path const& to,
                               std::function<bool(ssh::TransferProgress const&)> const& due) {
  ssh::TreeTransferOptions options;
  options.channels = 3;
  std::atomic<bool> killed{false};
  auto const killOne = [&](ssh::TransferProgress const& progress) {
    if (killed || !due(progress)) return;
    auto const servers = sftpServers(server);
    if (servers.size() < 3) return;
    ::kill(servers.back(), SIGKILL);
    killed = true;
  };
  KilledOne result;
  try {
    copyTree(server, link, direction, from, to, options, killOne);
  } catch (ssh::SSHError const& e) {
    result.error = e.what();
  }
  result.killed = killed;
  return result;
}

// One of three SFTP server processes is killed once files have arrived. The
// transfer may fail (naming a file under way, or the session) or finish;
// either way a file under its final name is complete, and a download leaves
// no temporary of its own.
void killOneChannelDuring(TransferDirection direction, fs::path const& source, fs::path const& destination) {
  TestSshd const server(ownProcesses());
  writeTree(source, 900, 4, 2U << 20U);
  auto const link = linkTo(server, 5ms);
  auto const [killed, error] = copyKillingOneServer(server, *link, direction, source, destination,
                                                    [](auto const& progress) { return progress.filesDone > 0; });
  ASSERT_TRUE(killed) << "the copy ended before the kill";
  bool const up = direction == TransferDirection::LocalToRemote;
  if (error) {
    EXPECT_THAT(*error, ::testing::AnyOf(::testing::StartsWith((up ? "cannot upload '" : "cannot download '") +
                                                               source.string() + "/"),
                                         ::testing::StartsWith("SFTP session with ")));
  }
  auto const sent = filesBelow(source).files;
  auto const arrived = filesBelow(destination);
  EXPECT_LE(arrived.files.size(), sent.size());
  for (auto const& [name, bytes] : arrived.files) {
    auto const original = sent.find(name);
    ASSERT_NE(original, sent.end()) << name;
    EXPECT_TRUE(bytes == original->second) << name << " is incomplete";
  }
  if (!up) {
    EXPECT_THAT(arrived.temporaries, ::testing::IsEmpty());
  }
}

TEST_F(Channels, AnUploadWhoseChannelDiesLeavesNothingIncomplete) {
  killOneChannelDuring(TransferDirection::LocalToRemote, source_, there_);
}

TEST_F(Channels, ADownloadWhoseChannelDiesLeavesNothingIncomplete) {
  killOneChannelDuring(TransferDirection::RemoteToLocal, source_, back_);
}

// 768 KiB at 256 KiB a second: about three seconds, however many channels.
TEST_F(Channels, ARateLimitHoldsForAllChannelsTogether) {
  TestSshd const server;
  writeTree(source_, 0, 3, 256U << 10U);
  auto const link = linkTo(server, 1ms);
  ssh::TreeTransferOptions options;
  options.channels = 3;
  options.bytesPerSecond = 256U << 10U;
  auto const started = std::chrono::steady_clock::now();
  auto const report = copyTree(server, *link, TransferDirection::LocalToRemote, source_, there_, options);
  EXPECT_GE(std::chrono::steady_clock::now() - started, 2500ms);
  EXPECT_EQ(report.bytes, 768U << 10U);
  EXPECT_TRUE(filesBelow(there_).files == filesBelow(source_).files);
}

// An upload over 3 resuming channels whose connection is killed once
// `bytes` have arrived.
ssh::TreeTransferOptions uploadKilledAt(TestSshd const& server, linkemu::LinkEmulator const& link, std::uint64_t bytes,
                                        fs::path const& from, fs::path const& to) {
  ssh::TreeTransferOptions options;
  options.channels = 3;
  options.resume = true;
  std::atomic<bool> killed{false};
  auto const killAll = [&](ssh::TransferProgress const& progress) {
    if (progress.bytesDone < bytes || killed.exchange(true)) return;
    server.killConnections();
  };
  EXPECT_THROW(copyTree(server, link, TransferDirection::LocalToRemote, from, to, options, killAll), ssh::SSHError);
  EXPECT_TRUE(killed);
  return options;
}

TEST_F(Channels, AKilledTransferOverSeveralChannelsIsResumed) {
  TestSshd const server;
  writeTree(source_, 0, 4, 24U << 20U);
  // 400 Mbit/s: the 96 MiB take about two seconds, time enough to be killed in.
  auto const link = linkTo(server, 5ms, 400'000'000);
  auto const options = uploadKilledAt(server, *link, 30U << 20U, source_, there_);
  ASSERT_THAT(filesBelow(there_).temporaries, ::testing::Not(::testing::IsEmpty()));
  auto const report = copyTree(server, *link, TransferDirection::LocalToRemote, source_, there_, options);
  EXPECT_GE(report.resumed, 1U);
  EXPECT_LT(report.bytes, 96U << 20U);
  auto const there = filesBelow(there_);
  EXPECT_TRUE(there.files == filesBelow(source_).files);
  EXPECT_THAT(there.temporaries, ::testing::IsEmpty());
}

// SFTP server processes of `server` seen holding open a file that `wanted`
// picks by its path.
class Holders {
 public:
  Holders(TestSshd const& server, std::function<bool(fs::path const&)> wanted)
      : watch_([this, &server, wanted = std::move(wanted)] {
          for (pid_t const pid : sftpServers(server)) {
            std::error_code error;
            for (auto const& fd : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error)) {
              auto const target = fs::read_symlink(fd.path(), error);
              if (!error && wanted(target)) {
                std::lock_guard const lock(mutex_);
                pids_.insert(pid);
              }
            }
          }
        }) {}
  [[nodiscard]] std::size_t count() {
    std::lock_guard const lock(mutex_);
    return pids_.size();
  }

 private:
  std::mutex mutex_;
  std::set<pid_t> pids_;
  Watch watch_;  // last: stops before the rest goes
};

// Holders of a temporary of `name`.
std::function<bool(fs::path const&)> temporaryOf(std::string const& name) {
  return
      [prefix = "." + name + ".sshfa-"](fs::path const& path) { return path.filename().string().starts_with(prefix); };
}

TEST_F(Channels, ABigFileAloneIsSharedOutAmongTheChannels) {
  TestSshd const server(ownProcesses());
  writeTree(source_, 0, 1, 48U << 20U);
  auto const link = linkTo(server, 5ms, 400'000'000);
  ssh::TreeTransferOptions options;
  options.channels = 3;
  Holders holders(server, temporaryOf("large0"));
  auto const report = copyTree(server, *link, TransferDirection::LocalToRemote, source_, there_, options);
  EXPECT_EQ(report.files, 1U);
  EXPECT_EQ(report.bytes, 48U << 20U);
  EXPECT_EQ(holders.count(), 3U);
  auto const there = filesBelow(there_);
  EXPECT_TRUE(there.files == filesBelow(source_).files);
  EXPECT_THAT(there.temporaries, ::testing::IsEmpty());
}

TEST_F(Channels, AKilledSharedOutUploadIsResumedFromWhatSurelyArrived) {
  TestSshd const server;
  writeTree(source_, 0, 1, 64U << 20U);
  auto const link = linkTo(server, 5ms, 400'000'000);
  auto const options = uploadKilledAt(server, *link, 40U << 20U, source_, there_);
  auto const partial = filesBelow(there_).temporaries;
  ASSERT_EQ(partial.size(), 1U);
  auto const held = fs::file_size(there_ / partial.front());
  ASSERT_GT(held, 16U << 20U) << "too little arrived before the kill to be resumed";
  auto const report = copyTree(server, *link, TransferDirection::LocalToRemote, source_, there_, options);
  EXPECT_EQ(report.resumed, 1U);
  // All but the reach below what the temporary held is trusted.
  EXPECT_EQ(report.bytes, (64U << 20U) - (held - (16U << 20U)));
  auto const there = filesBelow(there_);
  EXPECT_TRUE(there.files == filesBelow(source_).files);
  EXPECT_THAT(there.temporaries, ::testing::IsEmpty());
}

// A helper's server process dies: the file fails cleanly or arrives whole.
TEST_F(Channels, ASharedOutUploadWhoseHelperDiesLeavesNothingIncomplete) {
  TestSshd const server(ownProcesses());
  writeTree(source_, 0, 1, 48U << 20U);
  auto const link = linkTo(server, 5ms, 200'000'000);
  auto const [killed, error] =
      copyKillingOneServer(server, *link, TransferDirection::LocalToRemote, source_, there_,
                           [](auto const& progress) { return progress.bytesDone >= (8U << 20U); });
  ASSERT_TRUE(killed) << "the copy ended before the kill";
  ASSERT_TRUE(error) << "a dead channel went unnoticed";
  EXPECT_THAT(*error, ::testing::AnyOf(::testing::StartsWith("cannot upload '" + (source_ / "large0").string() + "'"),
                                       ::testing::StartsWith("SFTP session with ")));
  EXPECT_FALSE(fs::exists(there_ / "large0"));
}

// Each channel's server process reads folders of its own: a run that finds
// everything in place still lists its folders over every channel.
TEST_F(Channels, ARunWithNothingToCopyListsFoldersOverEveryChannel) {
  TestSshd const server(ownProcesses());
  for (int folder = 0; folder < 24; ++folder) {
    for (int file = 0; file < 300; ++file) {
      put(source_ / ("d" + std::to_string(folder)) / ("f" + std::to_string(file)), std::to_string(file));
    }
  }
  auto const link = linkTo(server, 10ms);
  ssh::TreeTransferOptions options;
  options.channels = 3;
  options.skipUnchanged = ssh::UnchangedTest::SizeAndTime;
  ASSERT_EQ(copyTree(server, *link, TransferDirection::LocalToRemote, source_, there_, options).files, 7200U);
  auto const inside = there_.string() + "/";
  Holders listers(
      server, [&inside](fs::path const& path) { return path.string().starts_with(inside) && fs::is_directory(path); });
  auto const report = copyTree(server, *link, TransferDirection::LocalToRemote, source_, there_, options);
  EXPECT_EQ(report.files, 0U);
  EXPECT_EQ(report.skipped, 7200U);
  EXPECT_EQ(listers.count(), 3U);
}

}  // namespace
}  // namespace sshfa::testing
