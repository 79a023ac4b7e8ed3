// A server that stops answering or goes away must never hang the caller.
// Each test disturbs a server of its own.

#include <gtest/gtest.h>

#include <thread>

#include "sshfileaccess/platform/sshclient/internal/Session.hpp"
#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

using Kind = ssh::SSHError::Kind;
using namespace std::chrono_literals;

std::unique_ptr<ssh::SSHClient> connectWithKeepalive(TestSshd const& server, std::chrono::seconds interval) {
  auto options = server.options();
  options.keepaliveInterval = interval;
  return server.connect(options);
}

// Runs `action` after `delay` on another thread, joined on destruction.
class Later {
 public:
  template <class Action>
  Later(std::chrono::milliseconds delay, Action action)
      : thread_([delay, action] {
          std::this_thread::sleep_for(delay);
          action();
        }) {}
  ~Later() { thread_.join(); }
  Later(Later const&) = delete;
  Later& operator=(Later const&) = delete;

 private:
  std::thread thread_;
};

TEST(Keepalive, StoppedServerFailsTheCommandWithinAboutThreeIntervals) {
  TestSshd server;
  auto client = connectWithKeepalive(server, 1s);
  ASSERT_EQ(client->executeCommand(ssh::ExecuteCommand(u"echo ready")).getStdout(), u"ready\n");
  auto const start = std::chrono::steady_clock::now();
  std::optional<ssh::SSHError> error;
  {
    Later stop(300ms, [&] { server.stopConnections(); });
    error = catchSSHError([&] { client->executeCommand(ssh::ExecuteCommand(u"sleep 60")); });
  }
  double const elapsed = secondsSince(start);
  server.continueConnections();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::ConnectionLost);
  EXPECT_EQ(std::string(error->what()), prefixOf(server, server.user()) +
                                            "connection lost: the server did not answer 3 keep-alive messages "
                                            "sent 1 s apart");
  // Silent from 0.3 s: keep-alives at about 1.3, 2.3 and 3.3 s, given up at 4.3 s.
  EXPECT_GE(elapsed, 3.0);
  EXPECT_LT(elapsed, 7.0);
}

TEST(Keepalive, AQuietCommandLongerThanThreeIntervalsSucceeds) {
  auto client = connectWithKeepalive(TestSshd::instance(), 1s);
  auto const result = client->executeCommand(ssh::ExecuteCommand(u"sleep 4.5; echo done"));
  EXPECT_EQ(result.getExitcode(), 0);
  EXPECT_EQ(result.getStdout(), u"done\n");
}

TEST(Keepalive, StoppedServerFailsANewCommand) {
  TestSshd server;
  auto client = connectWithKeepalive(server, 1s);
  server.stopConnections();
  auto const start = std::chrono::steady_clock::now();
  auto const error = catchSSHError([&] { client->executeCommand(ssh::ExecuteCommand(u"true")); });
  double const elapsed = secondsSince(start);
  server.continueConnections();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::ConnectionLost);
  EXPECT_LT(elapsed, 6.0);
}

TEST(Keepalive, KilledConnectionFailsTheRunningCommandAtOnce) {
  TestSshd server;
  auto client = connectWithKeepalive(server, 30s);
  auto const start = std::chrono::steady_clock::now();
  std::optional<ssh::SSHError> error;
  {
    Later kill(300ms, [&] { server.killConnections(); });
    error = catchSSHError([&] { client->executeCommand(ssh::ExecuteCommand(u"sleep 60")); });
  }
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::ConnectionLost);
  EXPECT_EQ(std::string(error->what()).rfind(prefixOf(server, server.user()) + "connection lost: ", 0), 0u)
      << error->what();
  EXPECT_LT(secondsSince(start), 3.0);
  // The client stays an object that answers, with the same error.
  auto const again = catchSSHError([&] { client->executeCommand(ssh::ExecuteCommand(u"true")); });
  ASSERT_TRUE(again);
  EXPECT_EQ(again->kind(), Kind::ConnectionLost);
}

// Waits until `duration` has passed, whatever arrives meanwhile.
void waitFor(foundation::sshclient::internal::Session& session, std::chrono::milliseconds duration) {
  auto const end = std::chrono::steady_clock::now() + duration;
  for (auto now = std::chrono::steady_clock::now(); now < end; now = std::chrono::steady_clock::now()) {
    session.wait(std::chrono::ceil<std::chrono::milliseconds>(end - now));
  }
}

TEST(Keepalive, WritingToADroppedConnectionIsAnErrorNotASignal) {
  TestSshd server;
  foundation::sshclient::internal::Session session(server.host(), server.port(), server.auth(), server.options());
  foundation::sshclient::internal::Channel channel(session);
  channel.requestExec("cat >/dev/null");
  server.killConnections();
  std::this_thread::sleep_for(200ms);
  std::string const data(4 << 20, 'x');
  auto const error = catchSSHError([&] {
    channel.writeAll(data);
    channel.writeAll(data);
  });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::ConnectionLost);
}

TEST(Keepalive, WaitReturnsFalseAfterItsTimeoutWhenNothingHappens) {
  auto& server = TestSshd::instance();
  foundation::sshclient::internal::Session session(server.host(), server.port(), server.auth(), server.options());
  // What the server sends after login (host keys, ...) has arrived by then.
  waitFor(session, 300ms);
  auto const start = std::chrono::steady_clock::now();
  EXPECT_FALSE(session.wait(200ms));
  EXPECT_GE(secondsSince(start), 0.19);
}

TEST(Keepalive, ServerStoppedWhileWaitingIdleIsDetected) {
  TestSshd server;
  auto options = server.options();
  options.keepaliveInterval = 1s;
  foundation::sshclient::internal::Session session(server.host(), server.port(), server.auth(), options);
  // An idle, live server answers every keep-alive.
  waitFor(session, 3500ms);
  server.stopConnections();
  auto const error = catchSSHError([&] {
    while (true) session.wait();
  });
  server.continueConnections();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::ConnectionLost);
}

}  // namespace
}  // namespace sshfa::testing
