// executeCommand against the real sshd: output, exit status, encodings,
// long lines, large output on both streams, login shells.

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

class ExecuteCommand : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { client_ = TestSshd::instance().connect(); }
  static void TearDownTestSuite() { client_.reset(); }

  static ssh::ExecuteCommandResult run(std::string const& command) {
    return client_->executeCommand(ssh::ExecuteCommand(u(command)));
  }

  static std::unique_ptr<ssh::SSHClient> client_;
};

std::unique_ptr<ssh::SSHClient> ExecuteCommand::client_;

TEST_F(ExecuteCommand, ReturnsExitStatusStdoutAndStderrExactly) {
  auto const result = run("printf 'a\\nb'; printf 'err\\n' >&2; exit 3");
  EXPECT_EQ(result.getExitcode(), 3);
  EXPECT_EQ(result.getStdout(), u"a\nb");
  EXPECT_EQ(result.getStderr(), u"err\n");
}

TEST_F(ExecuteCommand, ExitStatusOneWithEmptyStderr) {
  auto const result = run("exit 1");
  EXPECT_EQ(result.getExitcode(), 1);
  EXPECT_EQ(result.getStdout(), u"");
  EXPECT_EQ(result.getStderr(), u"");
}

TEST_F(ExecuteCommand, FalseReportsOne) { EXPECT_EQ(run("false").getExitcode(), 1); }

TEST_F(ExecuteCommand, StderrWhitespaceArrivesUnchanged) {
  EXPECT_EQ(run("printf '\\n' >&2").getStderr(), u"\n");
  EXPECT_EQ(run("printf '  \\r\\n' >&2").getStderr(), u"  \r\n");
  EXPECT_EQ(run("printf '\\t' >&2").getStderr(), u"\t");
}

TEST_F(ExecuteCommand, EmptyCommandSucceedsWithoutOutput) {
  auto const result = run("");
  EXPECT_EQ(result.getExitcode(), 0);
  EXPECT_EQ(result.getStdout(), u"");
  EXPECT_EQ(result.getStderr(), u"");
}

TEST_F(ExecuteCommand, CommandStandardInputIsEmpty) {
  auto const result = run("cat; echo done");
  EXPECT_EQ(result.getExitcode(), 0);
  EXPECT_EQ(result.getStdout(), u"done\n");
}

TEST_F(ExecuteCommand, PosixShellSyntaxOverSeveralLines) {
  auto const result = run("for i in 1 2; do echo \"$i\"; done\nif [ 1 = 1 ]; then echo y; fi\nx=$((6*7)); echo $x");
  EXPECT_EQ(result.getStdout(), u"1\n2\ny\n42\n");
}

TEST_F(ExecuteCommand, NonAsciiTextRoundTrips) {
  auto const result = run("printf '%s' 'Grüße € 😀 日本'");
  EXPECT_EQ(result.getStdout(), u"Grüße € 😀 日本");
}

TEST_F(ExecuteCommand, InvalidUtf8OutputComesBackAsTheOriginalBytes) {
  auto const result = run("printf 'a\\377\\376b\\303'; printf '\\200' >&2");
  fl::ustring const expectedOut = {u'a', 0xDCFF, 0xDCFE, u'b', 0xDCC3};
  EXPECT_EQ(result.getStdout(), expectedOut);
  EXPECT_EQ(utf8(result.getStdout()),
            "a\xff\xfe"
            "b\xc3");
  EXPECT_EQ(utf8(result.getStderr()), "\x80");
}

TEST_F(ExecuteCommand, CommandKilledBySignalReports128PlusSignal) {
  // The shell that runs the line is killed itself: on an exec channel sshd
  // reports exit-signal. (The persistent shell reports that as an error; the
  // shell tests cover it.)
  auto options = TestSshd::instance().options();
  options.commandMode = ssh::CommandMode::ExecChannel;
  auto const exec = TestSshd::instance().connect(options);
  EXPECT_EQ(exec->executeCommand(ssh::ExecuteCommand(u"kill -KILL $$")).getExitcode(), 128 + 9);
  // A child killed by a signal: the shell reports the status, in every mode.
  EXPECT_EQ(run("sh -c 'kill -TERM $$'").getExitcode(), 128 + 15);
}

// A line of exactly 32768 UTF-16 code units: non-ASCII characters (3 UTF-8
// bytes each) and apostrophes (4 bytes once quoted for sh).
TEST_F(ExecuteCommand, LineOf32768CodeUnitsWithNonAsciiAndApostrophesRuns) {
  fl::ustring const prefix = u"printf '%s' '";
  fl::ustring const suffix = u"'";
  fl::ustring payload;
  fl::ustring line;
  for (std::size_t i = 0;; ++i) {
    fl::ustring const piece = i % 5 == 4 ? fl::ustring(u"'\\''") : fl::ustring(u"€");
    if (prefix.size() + line.size() + piece.size() + suffix.size() > 32768) break;
    line += piece;
    payload += i % 5 == 4 ? u'\'' : u'€';
  }
  while (prefix.size() + line.size() + suffix.size() < 32768) {
    line += u"ä";
    payload += u"ä";
  }
  fl::ustring const command = prefix + line + suffix;
  ASSERT_EQ(command.size(), 32768u);
  auto const result = client_->executeCommand(ssh::ExecuteCommand(command));
  EXPECT_EQ(result.getExitcode(), 0);
  EXPECT_EQ(result.getStderr(), u"");
  EXPECT_EQ(result.getStdout(), payload);
}

// Far beyond one argument's limit of 128 KiB.
TEST_F(ExecuteCommand, LineOfOneMegabyteRuns) {
  std::string const payload(1 << 20, 'x');
  auto const result = run("printf '%s' '" + payload + "' | wc -c");
  EXPECT_EQ(result.getStdout(), u"1048576\n");
}

TEST_F(ExecuteCommand, FiftyMegabytesOnBothStreamsAtOnceArriveComplete) {
  constexpr std::size_t kSize = 50u << 20;
  auto const result =
      run("head -c 52428800 /dev/zero | tr '\\0' a & head -c 52428800 /dev/zero | tr '\\0' b >&2; wait");
  EXPECT_EQ(result.getExitcode(), 0);
  ASSERT_EQ(result.getStdout().size(), kSize);
  ASSERT_EQ(result.getStderr().size(), kSize);
  EXPECT_EQ(result.getStdout().find_first_not_of(u'a'), fl::ustring::npos);
  EXPECT_EQ(result.getStderr().find_first_not_of(u'b'), fl::ustring::npos);
}

// The command writes all of its stderr before any stdout: a client that
// reads stdout to the end first would never get there.
TEST_F(ExecuteCommand, StderrBeforeStdoutDoesNotDeadlock) {
  auto const result = run("head -c 8388608 /dev/zero | tr '\\0' e >&2; echo out");
  EXPECT_EQ(result.getStderr().size(), 8u << 20);
  EXPECT_EQ(result.getStdout(), u"out\n");
}

TEST_F(ExecuteCommand, ManyCommandsOnOneConnection) {
  for (int i = 0; i < 50; ++i) {
    auto const result = run("echo " + std::to_string(i));
    ASSERT_EQ(result.getStdout(), u(std::to_string(i) + "\n"));
  }
}

TEST_F(ExecuteCommand, CommandsRunUnderTheLoginUsersIdentity) {
  EXPECT_EQ(run("id -un").getStdout(), u(TestSshd::instance().user() + "\n"));
}

TEST(ExecuteCommandLoginShell, CshLoginShellRunsPosixLines) {
  auto& server = TestSshd::instance();
  if (!std::filesystem::exists("/bin/csh")) GTEST_SKIP() << "/bin/csh is not installed (Debian package csh)";
  auto account = server.cshAccount();
  if (!account) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  ssh::SSHClient client(u(server.host()), server.port(),
                        {ssh::IdentityFileAuth{account->user, server.identityFile(), {}}}, server.options());
  auto run = [&](std::string const& command) { return client.executeCommand(ssh::ExecuteCommand(u(command))); };
  EXPECT_EQ(run("getent passwd " + account->user + " | cut -d: -f7").getStdout(), u"/bin/csh\n");
  // History expansion (!), newlines, apostrophes and $ are csh's traps.
  auto const result = run("x='it'\\''s'; echo \"$x\" !! '!'\nfor i in 1 2; do printf '%s\\n' \"$i\"; done; exit 4");
  EXPECT_EQ(result.getStdout(), u"it's !! !\n1\n2\n");
  EXPECT_EQ(result.getStderr(), u"");
  EXPECT_EQ(result.getExitcode(), 4);
}

}  // namespace
}  // namespace sshfa::testing
