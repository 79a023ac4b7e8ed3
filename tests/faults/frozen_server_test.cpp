// A server that stops answering (its connection processes stopped with
// SIGSTOP) in the middle of an upload, a download, a command and a listing:
// with a keep-alive interval of 1 s, the library and the tool give up within
// 5 s with the keep-alive error, and no partial file appears under a final
// name.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/faults/FaultSupport.hpp"

namespace sshfa::testing {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::uintmax_t kBigFile = std::uintmax_t{512} << 20;
constexpr int kConnectionFailure = 3;  // the tool's status for a lost connection

constexpr char const* kKeepaliveCause =
    "connection lost: the server did not answer 3 keep-alive messages sent 1 s apart";

std::string keepaliveError(TestSshd const& server) { return prefixOf(server, server.user()) + kKeepaliveCause; }

std::string endpoint(TestSshd const& server) {
  return server.user() + "@" + server.host() + ":" + std::to_string(server.port());
}

// The server of one test, frozen at most once, and running again at the end.
class FrozenServer : public ::testing::Test {
 protected:
  void TearDown() override { server_.continueConnections(); }

  void freeze() {
    if (frozenAt_) return;
    server_.stopConnections();
    frozenAt_ = Clock::now();
  }
  // Seconds from the freeze to now.
  [[nodiscard]] double sinceFreeze() const { return frozenAt_ ? secondsSince(*frozenAt_) : -1.0; }

  // A facade whose client freezes the server once a transfer has moved bytes.
  std::unique_ptr<FileAccess> facadeFreezingOnProgress() {
    auto options = server_.options();
    options.keepaliveInterval = 1s;
    options.progress = [this](ssh::TransferProgress const& progress) {
      if (progress.bytesDone > 0) freeze();
    };
    return std::make_unique<FileAccess>(connect(server_, options));
  }
  std::unique_ptr<FileAccess> facade() {
    auto options = server_.options();
    options.keepaliveInterval = 1s;
    return std::make_unique<FileAccess>(connect(server_, options));
  }

  // Waits until `ready` holds, then freezes the server; false after 30 s.
  template <class Ready>
  bool freezeWhen(Ready const& ready) {
    auto const deadline = Clock::now() + 30s;
    while (!ready()) {
      if (Clock::now() > deadline) return false;
      std::this_thread::sleep_for(10ms);
    }
    freeze();
    return true;
  }

  void expectGivenUpInTime(double elapsed) const {
    EXPECT_GE(elapsed, 2.5) << "given up before three keep-alive intervals";
    EXPECT_LT(elapsed, 5.0);
  }

  TestSshd server_;
  std::optional<Clock::time_point> frozenAt_;
  fs::path local_ = TestSshd::makeTempDir();
  fs::path remote_ = TestSshd::makeTempDir();
};

// ---- the library -------------------------------------------------------------------

TEST_F(FrozenServer, Upload) {
  writeSparse(local_ / "big", kBigFile);
  writeFile(remote_ / "big", "old version");
  auto access = facadeFreezingOnProgress();
  auto const error = catchSSHError(
      [&] { access->localToRemoteCopy(str2ustr((local_ / "big").string()), str2ustr((remote_ / "big").string())); });
  double const elapsed = sinceFreeze();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), ssh::SSHError::Kind::ConnectionLost);
  EXPECT_EQ(std::string(error->what()), "cannot upload '" + (local_ / "big").string() + "' to '" +
                                            (remote_ / "big").string() + "' on " + endpoint(server_) + ": " +
                                            kKeepaliveCause);
  expectGivenUpInTime(elapsed);
  EXPECT_TRUE(sameBytes(readFile(remote_ / "big"), "old version"));
}

TEST_F(FrozenServer, Download) {
  writeSparse(remote_ / "big", kBigFile);
  writeFile(local_ / "big", "old version");
  auto access = facadeFreezingOnProgress();
  auto const error = catchSSHError(
      [&] { access->remoteToLocalCopy(str2ustr((remote_ / "big").string()), str2ustr((local_ / "big").string())); });
  double const elapsed = sinceFreeze();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), ssh::SSHError::Kind::ConnectionLost);
  EXPECT_EQ(std::string(error->what()), "cannot download '" + (remote_ / "big").string() + "' from " +
                                            endpoint(server_) + " to '" + (local_ / "big").string() +
                                            "': " + kKeepaliveCause);
  expectGivenUpInTime(elapsed);
  EXPECT_TRUE(sameBytes(readFile(local_ / "big"), "old version"));
}

TEST_F(FrozenServer, Command) {
  auto access = facade();
  ASSERT_EQ(access->remoteExecute(u"echo ready").getStdout(), u"ready\n");
  std::optional<ssh::SSHError> error;
  {
    std::thread stopper([&] {
      std::this_thread::sleep_for(300ms);
      freeze();
    });
    error = catchSSHError([&] { access->remoteExecute(u"sleep 60"); });
    stopper.join();
  }
  double const elapsed = sinceFreeze();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), ssh::SSHError::Kind::ConnectionLost);
  EXPECT_EQ(std::string(error->what()), keepaliveError(server_));
  expectGivenUpInTime(elapsed);
}

TEST_F(FrozenServer, Listing) {
  for (int i = 0; i < 2000; ++i) writeFile(remote_ / ("d" + std::to_string(i % 20)) / std::to_string(i), "x");
  auto access = facade();
  ASSERT_EQ(access->remote()->listRecursively(str2ustr(remote_.string())).size(), 2000U);
  freeze();
  auto const error = catchSSHError([&] { access->remote()->listRecursively(str2ustr(remote_.string())); });
  double const elapsed = sinceFreeze();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), ssh::SSHError::Kind::ConnectionLost);
  EXPECT_EQ(std::string(error->what()), keepaliveError(server_));
  expectGivenUpInTime(elapsed);
}

// ---- the tool ------------------------------------------------------------------------

class FrozenServerTool : public FrozenServer {
 protected:
  // Runs the tool until `ready` holds, freezes the server and returns what the tool did.
  template <class Ready>
  ToolResult runFreezingWhen(std::vector<std::string> const& args, Ready const& ready) {
    ToolProcess tool(joined(joined(toolConnection(server_), {"--keepalive", "1"}), args), {});
    EXPECT_TRUE(freezeWhen(ready)) << "the tool never got to the point of the freeze";
    ToolResult result = tool.finish();
    elapsed_ = sinceFreeze();
    return result;
  }
  void expectConnectionFailure(ToolResult const& result, std::string const& message) {
    EXPECT_EQ(result.status, kConnectionFailure) << result.err;
    EXPECT_EQ(result.err, "sshfa: " + message + "\n");
    expectGivenUpInTime(elapsed_);
  }
  double elapsed_ = 0;
};

bool holdsATemporary(fs::path const& folder) {
  auto const names = namesIn(folder);
  return std::any_of(names.begin(), names.end(),
                     [&](std::string const& name) { return isTemporary(name) && fs::file_size(folder / name) > 0; });
}

TEST_F(FrozenServerTool, Put) {
  writeSparse(local_ / "big", kBigFile);
  writeFile(remote_ / "big", "old version");
  auto const result = runFreezingWhen({"put", (local_ / "big").string(), (remote_ / "big").string()},
                                      [&] { return holdsATemporary(remote_); });
  expectConnectionFailure(result, "cannot upload '" + (local_ / "big").string() + "' to '" +
                                      (remote_ / "big").string() + "' on " + endpoint(server_) + ": " +
                                      kKeepaliveCause);
  EXPECT_TRUE(sameBytes(readFile(remote_ / "big"), "old version"));
}

TEST_F(FrozenServerTool, Get) {
  writeSparse(remote_ / "big", kBigFile);
  writeFile(local_ / "big", "old version");
  auto const result = runFreezingWhen({"get", (remote_ / "big").string(), (local_ / "big").string()},
                                      [&] { return holdsATemporary(local_); });
  expectConnectionFailure(result, "cannot download '" + (remote_ / "big").string() + "' from " + endpoint(server_) +
                                      " to '" + (local_ / "big").string() + "': " + kKeepaliveCause);
  EXPECT_TRUE(sameBytes(readFile(local_ / "big"), "old version"));
}

TEST_F(FrozenServerTool, Exec) {
  auto const started = remote_ / "started";
  auto const result =
      runFreezingWhen({"exec", "touch '" + started.string() + "'; sleep 60"}, [&] { return fs::exists(started); });
  expectConnectionFailure(result, keepaliveError(server_));
}

}  // namespace
}  // namespace sshfa::testing
