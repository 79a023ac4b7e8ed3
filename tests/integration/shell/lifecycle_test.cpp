// The persistent shell over its life: nothing one command does reaches the
// next, a shell that dies is reported and replaced, however its session ends
// nothing of it stays on the server, a stopped server is given up like on
// exec channels, and a host where no shell can start still runs commands.

#include <gtest/gtest.h>

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/integration/shell/ShellTestHelpers.hpp"

namespace sshfa::testing {
namespace {

using Kind = ssh::SSHError::Kind;
using namespace std::chrono_literals;

// ---- state does not leak ------------------------------------------------------

struct Leak {
  std::string name;
  ustring change;  // a command that changes the shell's state
  ustring probe;   // a command whose result would show the change
};

void PrintTo(Leak const& leak, std::ostream* os) { *os << leak.name; }

std::vector<Leak> leaks() {
  return {
      {"WorkingFolder", u"cd /tmp", u"pwd"},
      {"Variable", u"leaked=yes", u"echo \"[${leaked-}]\""},
      {"ExportedVariable", u"export LEAKED=yes", u"echo \"[${LEAKED-}]\"; env | grep -c LEAKED"},
      {"Readonly", u"readonly ro=1", u"ro=2; echo \"$ro\""},
      {"Unset", u"unset HOME PATH", u"echo \"[$HOME]\"; ls -d /"},
      {"Path", u"PATH=/nonexistent", u"ls -d /"},
      {"Ifs", u"IFS=:", u"set -- $(echo a b); echo $#"},
      {"SetE", u"set -e", u"false; echo still running"},
      {"SetU", u"set -u", u"echo \"[$not_set]\""},
      {"SetX", u"set -x", u"echo quiet"},
      {"NoGlob", u"set -f", u"echo /bi?"},
      {"NoClobber", u"set -C", u"f=$(mktemp); echo a >\"$f\"; echo b >\"$f\"; cat \"$f\"; rm \"$f\""},
      {"PositionalParameters", u"set -- a b c", u"echo $#"},
      {"Umask", u"umask 077", u"umask"},
      {"Ulimit", u"ulimit -n 32", u"ulimit -n"},
      {"ExitTrap", u"trap 'echo trapped' EXIT", u"true"},
      {"SignalTrap", u"trap 'echo int' INT", u"trap"},
      {"Alias", u"alias ll='echo aliased'", u"ll"},
      {"Function", u"f() { echo function; }", u"f"},
      {"HashedCommand", u"hash ls", u"hash"},
      {"Stdout", u"exec >/dev/null", u"echo visible"},
      {"Stderr", u"exec 2>/dev/null", u"echo visible >&2"},
      {"Stdin", u"exec </etc/passwd", u"cat | wc -c"},
      {"ExtraDescriptor", u"exec 7>/dev/null", u"ls /proc/self/fd"},
      {"BackgroundJob", u"sleep 0.5 &", u"echo \"[$!]\"; jobs; wait; echo $?"},
      {"LastStatus", u"false", u"echo $?"},
      {"Shift", u"set -- a b; shift", u"echo $#"},
      {"Getopts", u"set -- -a; getopts a o", u"echo \"$OPTIND\""},
  };
}

class StateDoesNotLeak : public ::testing::TestWithParam<Leak> {
 protected:
  static void SetUpTestSuite() { client_ = connectIn(ssh::CommandMode::PersistentShell); }
  static void TearDownTestSuite() { client_.reset(); }
  static std::unique_ptr<ssh::SSHClient> client_;
};

std::unique_ptr<ssh::SSHClient> StateDoesNotLeak::client_;

TEST_P(StateDoesNotLeak, ProbeAnswersAsBeforeTheChange) {
  Leak const& leak = GetParam();
  auto const before = run(*client_, leak.probe);
  run(*client_, leak.change);
  auto const after = run(*client_, leak.probe);
  EXPECT_EQ(after.getExitcode(), before.getExitcode());
  EXPECT_TRUE(sameText(after.getStdout(), before.getStdout())) << "stdout";
  EXPECT_TRUE(sameText(after.getStderr(), before.getStderr())) << "stderr";
}

INSTANTIATE_TEST_SUITE_P(Changes, StateDoesNotLeak, ::testing::ValuesIn(leaks()),
                         [](::testing::TestParamInfo<Leak> const& param) { return param.param.name; });

// ---- one command's output stays with it -----------------------------------------

TEST(PersistentShell, OutputOfALingeringBackgroundJobBelongsToItsCommand) {
  auto client = connectIn(ssh::CommandMode::PersistentShell);
  auto const first = run(*client, u"(sleep 0.3; echo late; echo late-err >&2) & echo early");
  EXPECT_EQ(first.getStdout(), u"early\nlate\n");
  EXPECT_EQ(first.getStderr(), u"late-err\n");
  auto const second = run(*client, u"echo next");
  EXPECT_EQ(second.getStdout(), u"next\n");
  EXPECT_EQ(second.getStderr(), u"");
}

TEST(PersistentShell, AJobThatLetGoOfTheStreamsIsNotWaitedFor) {
  auto client = connectIn(ssh::CommandMode::PersistentShell);
  auto const start = std::chrono::steady_clock::now();
  EXPECT_EQ(run(*client, u"sleep 5 >/dev/null 2>&1 </dev/null & echo started").getStdout(), u"started\n");
  EXPECT_EQ(run(*client, u"echo next").getStdout(), u"next\n");
  EXPECT_LT(secondsSince(start), 4.0);
}

TEST(PersistentShell, ManyCommandsOnOneConnectionOutlastTheHelpersRounds) {
  // More commands than one shell serves: the runner moves to a new shell.
  auto client = connectIn(ssh::CommandMode::PersistentShell);
  for (int i = 0; i < 4200; ++i) {
    auto const result = run(*client, u"echo \"" + u(std::to_string(i)) + u"\"");
    ASSERT_EQ(result.getStdout(), u(std::to_string(i) + "\n"));
  }
}

TEST(PersistentShell, ListsOfBuiltinsDoNotUseUpTheShell) {
  // Evaluated by the shell itself, they leave the helpers' rounds alone.
  auto client = connectIn(ssh::CommandMode::PersistentShell);
  ustring const pid = run(*client, u"echo \"$$\"").getStdout();
  for (int i = 0; i < 4200; ++i) {
    auto const result = run(*client, u"test -e '/tmp' && echo " + u(std::to_string(i)));
    ASSERT_EQ(result.getStdout(), u(std::to_string(i) + "\n"));
  }
  EXPECT_EQ(run(*client, u"echo \"$$\"").getStdout(), pid);
}

// ---- a shell that dies ----------------------------------------------------------

TEST(PersistentShell, ACommandThatKillsTheShellFailsAndTheNextOneRuns) {
  auto client = connectIn(ssh::CommandMode::PersistentShell);
  ASSERT_EQ(run(*client, u"echo warm").getStdout(), u"warm\n");
  for (char16_t const* killer : {u"kill -9 $$", u"echo before; kill -KILL $$; echo after", u"kill -TERM $$; sleep 1"}) {
    SCOPED_TRACE(utf8(killer));
    auto const error = catchSSHError([&] { run(*client, killer); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), Kind::Channel);
    EXPECT_NE(std::string(error->what()).find("the shell on the server ended while running the command"),
              std::string::npos)
        << error->what();
    EXPECT_EQ(run(*client, u"echo alive").getStdout(), u"alive\n");
  }
}

TEST(PersistentShell, KillingDollarDollarIsTheOneDeliberateDifference) {
  // On an exec channel $$ is the command's own shell; here it is the
  // long-lived one, whose death loses the result.
  auto exec = connectIn(ssh::CommandMode::ExecChannel);
  auto shell = connectIn(ssh::CommandMode::PersistentShell);
  auto const viaExec = run(*exec, u"echo before; kill -9 $$; echo after");
  EXPECT_EQ(viaExec.getExitcode(), 137);
  EXPECT_EQ(viaExec.getStdout(), u"before\n");
  auto const error = catchSSHError([&] { run(*shell, u"echo before; kill -9 $$; echo after"); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Channel);
}

TEST(PersistentShell, TheErrorNamesTheSignal) {
  auto client = connectIn(ssh::CommandMode::PersistentShell);
  auto const& server = TestSshd::instance();
  auto const error = catchSSHError([&] { run(*client, u"kill -9 $$"); });
  ASSERT_TRUE(error);
  EXPECT_EQ(std::string(error->what()), server.user() + "@" + server.host() + ":" + std::to_string(server.port()) +
                                            ": the shell on the server ended while running the command (it was "
                                            "killed by signal 9); its result is lost");
}

TEST(PersistentShell, KillingTheCopyingProcessesFailsTheCommandAndTheNextOneRuns) {
  auto client = connectIn(ssh::CommandMode::PersistentShell);
  // -s 0: only processes of this shell's session, not other clients' helpers.
  auto const error = catchSSHError([&] { run(*client, u"pkill -KILL -x -s 0 cat; echo after"); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Channel);
  EXPECT_EQ(run(*client, u"echo alive").getStdout(), u"alive\n");
}

// Killed while a command is silent, the copying processes take its marker
// with them and the shell lives on: the runner looks at them after a few
// quiet seconds instead of waiting for the marker without end.
TEST(PersistentShell, CopyingProcessesKilledDuringASilentCommandFailItWithinSeconds) {
  auto client = connectIn(ssh::CommandMode::PersistentShell);
  auto other = connectIn(ssh::CommandMode::ExecChannel);
  ustring pid = run(*client, u"echo $$").getStdout();
  pid.pop_back();
  std::thread killer([&] {
    std::this_thread::sleep_for(1s);
    run(*other, u"pkill -KILL -x -s \"$(ps -o sid= -p " + pid + u" | tr -d ' ')\" cat");
  });
  auto const started = std::chrono::steady_clock::now();
  auto const error = catchSSHError([&] { run(*client, u"sleep 40; echo late"); });
  auto const took = std::chrono::steady_clock::now() - started;
  killer.join();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Channel);
  EXPECT_THAT(error->what(), ::testing::HasSubstr("lost the processes that copy its output"));
  EXPECT_LT(took, 20s);
  EXPECT_EQ(run(*client, u"echo alive").getStdout(), u"alive\n");
}

TEST(PersistentShell, CopyingProcessesKilledBetweenCommandsGoUnnoticed) {
  // The next command finds them gone before it starts, and runs on a fresh shell.
  auto client = connectIn(ssh::CommandMode::PersistentShell);
  ustring const pid = run(*client, u"echo \"$$\"").getStdout();
  run(*client, u"(sleep 0.2; pkill -KILL -x -s 0 cat) >/dev/null 2>&1 &");
  std::this_thread::sleep_for(600ms);
  auto const result = run(*client, u"echo alive");
  EXPECT_EQ(result.getExitcode(), 0);
  EXPECT_EQ(result.getStdout(), u"alive\n");
  EXPECT_NE(run(*client, u"echo \"$$\"").getStdout(), pid);
}

TEST(PersistentShell, AShellKilledBetweenCommandsIsReplacedQuietly) {
  auto client = connectIn(ssh::CommandMode::PersistentShell);
  auto other = connectIn(ssh::CommandMode::ExecChannel);
  auto const pid = run(*client, u"echo $$").getStdout();
  run(*other, u"kill -9 " + pid);
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(run(*client, u"echo alive").getStdout(), u"alive\n");
  EXPECT_NE(run(*client, u"echo $$").getStdout(), pid);
}

// ---- nothing is left behind ---------------------------------------------------------

std::string readText(std::filesystem::path const& file) {
  std::ifstream in(file);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Processes of the session `sid` on this machine (the test server's host).
std::vector<std::string> sessionMembers(pid_t sid) {
  std::vector<std::string> members;
  for (auto const& entry : std::filesystem::directory_iterator("/proc")) {
    std::string const name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string const stat = readText(entry.path() / "stat");
    // pid (comm) state ppid pgrp session ...; comm may hold blanks.
    std::size_t const closing = stat.rfind(')');
    if (closing == std::string::npos) continue;
    std::istringstream fields(stat.substr(closing + 1));
    std::string state;
    long parent = 0;
    long group = 0;
    long session = 0;
    fields >> state >> parent >> group >> session;
    if (session == sid && state != "Z") members.push_back(name + " " + stat.substr(0, closing + 1));
  }
  return members;
}

long parentOf(pid_t pid) {
  std::string const stat = readText("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream fields(stat.substr(stat.rfind(')') + 1));
  std::string state;
  long parent = 0;
  fields >> state >> parent;
  return parent;
}

std::vector<std::string> folderEntries(std::filesystem::path const& folder) {
  std::vector<std::string> names;
  for (auto const& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  return names;
}

enum class Ending {
  ClientCloses,
  ClientDies,
  SessionSshdKilled,
  ShellKilled,
  ConnectionProcessesKilled,
  SessionKilled
};

void PrintTo(Ending ending, std::ostream* os) {
  static char const* const kNames[] = {
      "ClientCloses", "ClientDies", "SessionSshdKilled", "ShellKilled", "ConnectionProcessesKilled", "SessionKilled"};
  *os << kNames[static_cast<int>(ending)];
}

class NothingIsLeftBehind : public ::testing::TestWithParam<Ending> {};

TEST_P(NothingIsLeftBehind, NoFileAndNoProcessOfTheShellRemains) {
  // The server's temporary folder is ours alone, so every name in it counts.
  auto const tmp = TestSshd::makeTempDir();
  TestSshd server("SetEnv TMPDIR=" + tmp.string() + " SHLVL=1\n");
  auto const options = optionsFor(server, ssh::CommandMode::PersistentShell);
  pid_t shell = 0;
  if (GetParam() == Ending::ClientDies) {
    // A client process that vanishes without a word: the kernel drops its connection.
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    pid_t const child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      close(report[0]);
      auto client = server.connect(options);
      std::string const pid = utf8(run(*client, u"printf %s \"$$\"").getStdout());
      (void)!write(report[1], pid.data(), pid.size());
      close(report[1]);
      pause();
      _exit(0);
    }
    close(report[1]);
    char buffer[32] = {};
    ASSERT_GT(read(report[0], buffer, sizeof buffer - 1), 0);
    close(report[0]);
    shell = static_cast<pid_t>(std::stol(buffer));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  } else {
    auto client = server.connect(options);
    shell = static_cast<pid_t>(std::stol(utf8(run(*client, u"printf %s \"$$\"").getStdout())));
    ASSERT_FALSE(sessionMembers(shell).empty());
    switch (GetParam()) {
      case Ending::SessionSshdKilled:
        kill(static_cast<pid_t>(parentOf(shell)), SIGKILL);
        break;
      case Ending::ShellKilled:
        kill(shell, SIGKILL);
        break;
      case Ending::ConnectionProcessesKilled:
        server.killConnections();
        break;
      case Ending::SessionKilled:
        kill(-shell, SIGKILL);
        break;
      default:
        break;
    }
    if (GetParam() != Ending::ClientCloses) std::this_thread::sleep_for(200ms);
  }
  auto const deadline = std::chrono::steady_clock::now() + 10s;
  while ((!sessionMembers(shell).empty() || !folderEntries(tmp).empty()) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_THAT(folderEntries(tmp), ::testing::IsEmpty());
  EXPECT_THAT(sessionMembers(shell), ::testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Endings, NothingIsLeftBehind,
                         ::testing::Values(Ending::ClientCloses, Ending::ClientDies, Ending::SessionSshdKilled,
                                           Ending::ShellKilled, Ending::ConnectionProcessesKilled,
                                           Ending::SessionKilled),
                         [](::testing::TestParamInfo<Ending> const& param) {
                           std::ostringstream name;
                           PrintTo(param.param, &name);
                           return name.str();
                         });

TEST(PersistentShell, NoNameOfTheShellExistsWhileItRuns) {
  auto const tmp = TestSshd::makeTempDir();
  TestSshd server("SetEnv TMPDIR=" + tmp.string() + " SHLVL=1\n");
  auto client = server.connect(optionsFor(server, ssh::CommandMode::PersistentShell));
  EXPECT_EQ(run(*client, u"printf %s \"$TMPDIR\"").getStdout(), u(tmp.string()));
  EXPECT_EQ(run(*client, u"(sleep 0.2; echo late) & echo early").getStdout(), u"early\nlate\n");
  EXPECT_THAT(folderEntries(tmp), ::testing::IsEmpty());
}

// ---- dead connections and hosts without a usable shell --------------------------

TEST(PersistentShell, StoppedServerFailsARunningCommandWithinAboutThreeIntervals) {
  TestSshd server;
  auto options = optionsFor(server, ssh::CommandMode::PersistentShell);
  options.keepaliveInterval = 1s;
  auto client = server.connect(options);
  ASSERT_EQ(run(*client, u"echo ready").getStdout(), u"ready\n");
  std::optional<ssh::SSHError> error;
  auto const start = std::chrono::steady_clock::now();
  {
    std::thread stopper([&] {
      std::this_thread::sleep_for(300ms);
      server.stopConnections();
    });
    error = catchSSHError([&] { run(*client, u"sleep 60"); });
    stopper.join();
  }
  double const elapsed = secondsSince(start);
  server.continueConnections();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::ConnectionLost);
  EXPECT_GE(elapsed, 3.0);
  EXPECT_LT(elapsed, 7.0);
}

TEST(PersistentShell, StoppedServerFailsTheFirstCommand) {
  TestSshd server;
  auto options = optionsFor(server, ssh::CommandMode::PersistentShell);
  options.keepaliveInterval = 1s;
  auto client = server.connect(options);
  server.stopConnections();
  auto const start = std::chrono::steady_clock::now();
  auto const error = catchSSHError([&] { run(*client, u"true"); });
  double const elapsed = secondsSince(start);
  server.continueConnections();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::ConnectionLost);
  EXPECT_LT(elapsed, 6.0);
}

TEST(PersistentShell, AQuietCommandLongerThanThreeIntervalsSucceeds) {
  auto options = optionsFor(TestSshd::instance(), ssh::CommandMode::PersistentShell);
  options.keepaliveInterval = 1s;
  auto client = TestSshd::instance().connect(options);
  auto const result = run(*client, u"sleep 4.5; echo done");
  EXPECT_EQ(result.getExitcode(), 0);
  EXPECT_EQ(result.getStdout(), u"done\n");
}

TEST(PersistentShell, WithoutAWritableTemporaryFolderCommandsRunOnExecChannels) {
  TestSshd server("SetEnv TMPDIR=/nonexistent/folder SHLVL=1\n");
  auto client = server.connect(optionsFor(server, ssh::CommandMode::PersistentShell));
  for (int i = 0; i < 2; ++i) {
    auto const result = run(*client, u"echo \"$TMPDIR\"; echo err >&2; exit 3");
    EXPECT_EQ(result.getExitcode(), 3);
    EXPECT_EQ(result.getStdout(), u"/nonexistent/folder\n");
    EXPECT_EQ(result.getStderr(), u"err\n");
  }
}

// ---- what the login says is no command's ------------------------------------------

TEST(TalkativeLogin, WhatTheServerPrintsBeforeTheCommandIsNoCommandsOutput) {
  // Like a login script that talks: the server runs every command line
  // after printing to both streams.
  TestSshd server("ForceCommand echo banner; echo warning >&2; eval \"$SSH_ORIGINAL_COMMAND\"\n");
  for (auto const mode : {ssh::CommandMode::ExecChannel, ssh::CommandMode::PersistentShell}) {
    auto client = server.connect(optionsFor(server, mode));
    for (int round = 0; round < 2; ++round) {
      auto const one = run(*client, u"echo one");
      EXPECT_EQ(one.getExitcode(), 0);
      EXPECT_EQ(one.getStdout(), u"one\n");
      EXPECT_EQ(one.getStderr(), u"");
      auto const two = run(*client, u"printf two >&2; exit 2");
      EXPECT_EQ(two.getExitcode(), 2);
      EXPECT_EQ(two.getStdout(), u"");
      EXPECT_EQ(two.getStderr(), u"two");
    }
  }
}

TEST(TalkativeLogin, ACshLoginThatTalksChangesNoResult) {
  // csh reads ~/.cshrc whenever it starts; this one talks on both streams.
  auto const home = TestSshd::makeTempDir();
  std::ofstream(home / ".cshrc") << "echo 'login banner'\nsh -c 'echo login warning >&2'\n";
  auto& server = TestSshd::instance();
  auto const account = server.accountWithHome("sshfa-csh-talk", "/bin/csh", home);
  if (!account) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  for (auto const mode : {ssh::CommandMode::ExecChannel, ssh::CommandMode::PersistentShell}) {
    SCOPED_TRACE(mode == ssh::CommandMode::ExecChannel ? "exec channel" : "persistent shell");
    ssh::SSHClient client(u(server.host()), server.port(),
                          {ssh::IdentityFileAuth{account->user, server.identityFile(), std::nullopt}},
                          optionsFor(server, mode));
    auto const mixed = run(client, u"echo out; echo err >&2; exit 3");
    EXPECT_EQ(mixed.getExitcode(), 3);
    EXPECT_EQ(mixed.getStdout(), u"out\n");
    EXPECT_EQ(mixed.getStderr(), u"err\n");
    auto const query = run(client, u"test -d '/' && echo 1");
    EXPECT_EQ(query.getStdout(), u"1\n");
    EXPECT_EQ(query.getStderr(), u"");
    EXPECT_EQ(run(client, u"pwd").getStdout(), u(home.string() + "\n"));
  }
}

}  // namespace
}  // namespace sshfa::testing
