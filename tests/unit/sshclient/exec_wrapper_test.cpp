// The fixed line that exec channels ask the server to run: every common login
// shell must hand the command text on standard input to sh unchanged.

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

struct Outcome {
  int status = -1;
  std::string out;
};

// Runs `loginShell -c kExecWrapper` as sshd would, with `command` on standard input.
Outcome runThroughLoginShell(std::string const& loginShell, std::string const& command) {
  fs::path const input = fs::temp_directory_path() / ("sshfa-wrapper-" + std::to_string(getpid()));
  std::ofstream(input, std::ios::binary) << command;
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  std::vector<std::string> arguments = {loginShell, "-c", foundation::sshclient::internal::kExecWrapper};
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  int const spawned = posix_spawn(&pid, loginShell.c_str(), &actions, nullptr, argv.data(), environ);
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
  EXPECT_EQ(outcome.out, "it's !! ! $HOME\na\\b\n");
  EXPECT_EQ(outcome.status, 4);
}

TEST_P(ExecWrapper, CommandReadsAnEmptyStandardInput) {
  auto const outcome = runThroughLoginShell(GetParam(), "cat; echo done");
  EXPECT_EQ(outcome.out, "done\n");
  EXPECT_EQ(outcome.status, 0);
}

TEST_P(ExecWrapper, EmptyTextSucceeds) {
  auto const outcome = runThroughLoginShell(GetParam(), "");
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.status, 0);
}

INSTANTIATE_TEST_SUITE_P(LoginShells, ExecWrapper, ::testing::Values("/bin/sh", "/bin/bash", "/bin/csh"),
                         [](auto const& shell) { return fs::path(shell.param).filename().string(); });

}  // namespace
