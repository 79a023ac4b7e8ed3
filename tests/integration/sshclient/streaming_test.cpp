// executeStreaming against the real sshd: output per stream as it arrives,
// standard input until its end, exit status, stopping a command.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

class ExecuteStreaming : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { client_ = TestSshd::instance().connect(); }
  static void TearDownTestSuite() { client_.reset(); }

  // Collects both streams; input from `inputFd` (-1: none).
  struct Run {
    int status = -1;
    std::string out;
    std::string err;
  };
  static Run run(std::string const& command, int inputFd = -1) {
    Run result;
    ssh::CommandStreams streams;
    streams.out = [&](std::string_view text) { result.out += text; };
    streams.err = [&](std::string_view text) { result.err += text; };
    streams.inputFd = inputFd;
    result.status = client_->executeStreaming(u(command), streams);
    return result;
  }

  // Asks the command to stop once it printed "started": its status, its
  // output and the signals it was sent.
  struct Stopped {
    int status = -1;
    std::string out;
    std::vector<int> signals;
  };
  static Stopped stopOnceStarted(std::string const& command) {
    Stopped result;
    ssh::CommandStreams streams;
    streams.out = [&](std::string_view text) { result.out += text; };
    streams.stopRequested = [&] { return result.out == "started\n"; };
    streams.signalled = [&](int number) { result.signals.push_back(number); };
    result.status = client_->executeStreaming(u(command), streams);
    return result;
  }

  static std::unique_ptr<ssh::SSHClient> client_;
};

std::unique_ptr<ssh::SSHClient> ExecuteStreaming::client_;

// A pipe whose write end is fed `data` by a thread, then closed.
class FedPipe {
 public:
  explicit FedPipe(std::string data) {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
    readEnd_ = fds[0];
    writer_ = std::thread([fd = fds[1], data = std::move(data)] {
      std::string_view rest = data;
      while (!rest.empty()) {
        ssize_t const n = ::write(fd, rest.data(), rest.size());
        if (n <= 0) break;
        rest.remove_prefix(static_cast<std::size_t>(n));
      }
      ::close(fd);
    });
  }
  ~FedPipe() {
    writer_.join();
    ::close(readEnd_);
  }
  FedPipe(FedPipe const&) = delete;
  FedPipe& operator=(FedPipe const&) = delete;
  [[nodiscard]] int fd() const noexcept { return readEnd_; }

 private:
  int readEnd_ = -1;
  std::thread writer_;
};

TEST_F(ExecuteStreaming, KeepsTheOrderOfEachStreamAndTheExitStatus) {
  auto const result = run("echo a; echo b >&2; echo c; echo d >&2; exit 7");
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(result.out, "a\nc\n");
  EXPECT_EQ(result.err, "b\nd\n");
}

TEST_F(ExecuteStreaming, TakesBackslashesQuotesAndLineFeedsOfTheCommandLiterally) {
  auto const result = run("printf '%s\\n' 'a\\b' \"c\\\\d\" '%b'\nprintf 'two\\n'\n\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "a\\b\nc\\d\n%b\ntwo\n");
}

TEST_F(ExecuteStreaming, FeedsStandardInputUntilItsEnd) {
  FedPipe input("hello\nworld");
  auto const result = run("cat; echo end", input.fd());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "hello\nworldend\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(ExecuteStreaming, CarriesLargeInputBothWays) {
  std::string data;
  for (std::size_t i = 0; data.size() < 6'000'000; ++i) data += std::to_string(i * 7919) + "\n";
  FedPipe echoed(data);
  auto const result = run("cat", echoed.fd());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.size(), data.size());
  EXPECT_TRUE(result.out == data);
  FedPipe counted(data);
  EXPECT_EQ(run("wc -c", counted.fd()).out, std::to_string(data.size()) + "\n");
}

TEST_F(ExecuteStreaming, WithoutInputTheCommandReadsEndOfFile) {
  auto const result = run("cat; echo done");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "done\n");
}

TEST_F(ExecuteStreaming, HandsTheFirstLineOverBeforeTheCommandEnds) {
  // The command waits for a line that is written only once its first line
  // has arrived here: it could not end otherwise.
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::string out;
  ssh::CommandStreams streams;
  streams.out = [&](std::string_view text) {
    out += text;
    if (out == "first\n") {
      ASSERT_EQ(::write(fds[1], "go\n", 3), 3);
      ::close(fds[1]);
    }
  };
  streams.inputFd = fds[0];
  int const status = client_->executeStreaming(u("echo first; read answer; echo \"then $answer\""), streams);
  ::close(fds[0]);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(out, "first\nthen go\n");
}

TEST_F(ExecuteStreaming, AStopRequestEndsTheRemoteCommandWith130) {
  auto const stopped = stopOnceStarted("echo started; exec sleep 4711; echo never");
  EXPECT_EQ(stopped.status, 130);
  EXPECT_EQ(stopped.out, "started\n");
  EXPECT_EQ(stopped.signals, std::vector<int>{SIGINT});
  // Nothing of it is left on the server.
  auto const left = client_->executeCommand(ssh::ExecuteCommand(u("ps -eo args | grep -c '^sleep 4711$'")));
  EXPECT_EQ(left.getStdout(), u"0\n");
}

// A command that ignores SIGINT gets SIGTERM after the grace, one that also
// ignores SIGTERM gets SIGKILL; none of it stays on the server.
TEST_F(ExecuteStreaming, ACommandThatIgnoresSignalsGetsHarderOnes) {
  for (auto const& [ignored, expected] : std::vector<std::pair<std::string, std::vector<int>>>{
           {"INT", {SIGINT, SIGTERM}}, {"INT TERM", {SIGINT, SIGTERM, SIGKILL}}}) {
    auto const started = std::chrono::steady_clock::now();
    auto const stopped = stopOnceStarted("trap '' " + ignored + "; echo started; while :; do sleep 4713; done");
    auto const took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(stopped.status, 130) << ignored;
    EXPECT_EQ(stopped.signals, expected) << ignored;
    EXPECT_GE(took, std::chrono::seconds(2) * (expected.size() - 1)) << ignored;
    auto const left = client_->executeCommand(ssh::ExecuteCommand(u("ps -eo args | grep -c '^sleep 4713$'")));
    EXPECT_EQ(left.getStdout(), u"0\n") << ignored;
  }
}

TEST_F(ExecuteStreaming, ReportsACommandKilledBySignal) { EXPECT_EQ(run("kill -9 $$").status, 128 + 9); }

}  // namespace
}  // namespace sshfa::testing
