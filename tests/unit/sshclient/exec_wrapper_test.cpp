// The fixed line that exec channels ask the server to run: every common login
// shell must hand the command text on standard input to sh unchanged, and
// that sh marks where the command's own output begins.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/ExecChannelRunner.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr char const* kMarker = "sshfa0123456789abcdef0123456789abcdef";

struct Outcome {
  int status = -1;
  std::string out;  // the marker line removed when it comes first
  bool marked = false;
};

// Runs `loginShell -c execWrapper(kMarker)` as sshd would, with `command` on
// standard input and the environment `environment`.
Outcome runThroughLoginShell(std::string const& loginShell, std::string const& command, char** environment = environ) {
  fs::path const input = fs::temp_directory_path() / ("sshfa-wrapper-" + std::to_string(getpid()));
  std::ofstream(input, std::ios::binary) << command;
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  std::vector<std::string> arguments = {loginShell, "-c", foundation::sshclient::internal::execWrapper(kMarker)};
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  int const spawned = posix_spawn(&pid, loginShell.c_str(), &actions, nullptr, argv.data(), environment);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  Outcome outcome;
  if (spawned == 0) {
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;)
      outcome.out.append(buffer, static_cast<std::size_t>(n));
    int status = 0;
    waitpid(pid, &status, 0);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  close(fds[0]);
  fs::remove(input);
  std::string const markerLine = std::string(kMarker) + "\n";
  outcome.marked = outcome.out.compare(0, markerLine.size(), markerLine) == 0;
  if (outcome.marked) outcome.out.erase(0, markerLine.size());
  return outcome;
}

class ExecWrapper : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (!fs::exists(GetParam())) GTEST_SKIP() << GetParam() << " is not installed";
  }
};

TEST_P(ExecWrapper, HandsTheTextToShUnchanged) {
  // History expansion (!), apostrophes, $, backslashes and newlines: the
  // login shell must see none of them.
  auto const outcome =
      runThroughLoginShell(GetParam(), "x='it'\\''s'; echo \"$x\" !! '!' \"\\$HOME\"\nprintf '%s\\n' a\\\\b; exit 4");
  EXPECT_TRUE(outcome.marked);
  EXPECT_EQ(outcome.out, "it's !! ! $HOME\na\\b\n");
  EXPECT_EQ(outcome.status, 4);
}

TEST(ExecWrapperLine, DoesNotHoldTheMarkerInOnePiece) {
  // A login that echoes the line it runs must not print the marker.
  EXPECT_EQ(foundation::sshclient::internal::execWrapper(kMarker).find(kMarker), std::string::npos);
}

TEST_P(ExecWrapper, CommandReadsAnEmptyStandardInput) {
  auto const outcome = runThroughLoginShell(GetParam(), "cat; echo done");
  EXPECT_TRUE(outcome.marked);
  EXPECT_EQ(outcome.out, "done\n");
  EXPECT_EQ(outcome.status, 0);
}

TEST_P(ExecWrapper, EmptyTextSucceeds) {
  auto const outcome = runThroughLoginShell(GetParam(), "");
  EXPECT_TRUE(outcome.marked);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.status, 0);
}

TEST(ExecWrapperUnderATalkativeLogin, TheMarkerFollowsWhatTheLoginPrinted) {
  fs::path const script = fs::temp_directory_path() / ("sshfa-login-" + std::to_string(getpid()) + ".sh");
  std::ofstream(script) << "echo banner\n";
  std::string bashEnv = "BASH_ENV=" + script.string();
  std::string path = "PATH=/usr/bin:/bin";
  char* environment[] = {bashEnv.data(), path.data(), nullptr};
  auto const outcome = runThroughLoginShell("/bin/bash", "echo done", environment);
  fs::remove(script);
  EXPECT_EQ(outcome.out, "banner\n" + std::string(kMarker) + "\ndone\n");
  EXPECT_EQ(outcome.status, 0);
}

// ---- the marker on the streams ------------------------------------------------------

using foundation::sshclient::internal::LoginNoiseFilter;

std::string filtered(std::vector<std::string> const& pieces) {
  LoginNoiseFilter filter(kMarker);
  std::string text;
  for (auto const& piece : pieces) {
    text += piece;
    filter.drop(text);
  }
  return text;
}

TEST(LoginNoiseFilter, DropsEverythingUpToTheMarkerLine) {
  EXPECT_EQ(filtered({"Welcome\nnote: lock held\n" + std::string(kMarker) + "\nout\n"}), "out\n");
}

TEST(LoginNoiseFilter, FindsAMarkerSplitAcrossReads) {
  std::string const line = std::string(kMarker) + "\n";
  for (std::size_t cut = 0; cut <= line.size(); ++cut) {
    EXPECT_EQ(filtered({"noise", line.substr(0, cut), line.substr(cut), "a", "b"}), "ab") << cut;
  }
}

TEST(LoginNoiseFilter, KeepsTheMarkerWhenItComesAgainFromTheCommand) {
  std::string const line = std::string(kMarker) + "\n";
  EXPECT_EQ(filtered({line, "x" + line, line}), "x" + line + line);
}

TEST(LoginNoiseFilter, AStreamWithoutTheMarkerIsLeftWhole) {
  EXPECT_EQ(filtered({"sshfa0123", "\nno marker\n"}), "sshfa0123\nno marker\n");
}

TEST(LoginNoiseFilter, TheMarkerWithoutItsLineFeedIsNotTheMarker) {
  EXPECT_EQ(filtered({std::string(kMarker) + "x\n"}), std::string(kMarker) + "x\n");
}

TEST(LoginNoiseFilter, AStreamOpeningWithANulByteIsForeign) {
  // An SFTP packet: its length (5) in four bytes, then its type.
  LoginNoiseFilter filter(kMarker);
  std::string text("\0\0\0\5\2", 5);
  filter.drop(text);
  EXPECT_TRUE(filter.foreign());
  EXPECT_FALSE(filter.passed());
  EXPECT_EQ(text.size(), 5U);
}

TEST(LoginNoiseFilter, ALoginBannerIsNotForeign) {
  LoginNoiseFilter filter(kMarker);
  std::string text = "Welcome\n";
  filter.drop(text);
  EXPECT_FALSE(filter.foreign());
  text += std::string("\0", 1) + kMarker + "\n";
  filter.drop(text);
  EXPECT_FALSE(filter.foreign());
  EXPECT_TRUE(filter.passed());
}

TEST(LoginNoiseFilter, ANulByteAfterTheMarkerIsTheCommands) {
  LoginNoiseFilter filter(kMarker);
  std::string text = std::string(kMarker) + "\n";
  filter.drop(text);
  text += std::string("\0", 1);
  filter.drop(text);
  EXPECT_FALSE(filter.foreign());
  EXPECT_EQ(text, std::string("\0", 1));
}

TEST(MarkerPrint, ShPrintsTheMarkerAsALineThatTheCommandDoesNotHold) {
  std::string const command = foundation::sshclient::internal::markerPrint(kMarker);
  EXPECT_EQ(command.find(kMarker), std::string::npos);
  EXPECT_EQ(command.find('\''), std::string::npos);
  // Run as a command of the wrapper, whose own marker line comes first.
  auto const outcome = runThroughLoginShell("/bin/sh", command);
  EXPECT_TRUE(outcome.marked);
  EXPECT_EQ(outcome.out, std::string(kMarker) + "\n");
}

INSTANTIATE_TEST_SUITE_P(LoginShells, ExecWrapper, ::testing::Values("/bin/sh", "/bin/bash", "/bin/csh"),
                         [](auto const& shell) { return fs::path(shell.param).filename().string(); });

}  // namespace
