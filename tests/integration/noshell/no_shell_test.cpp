// Accounts that may use SFTP only, and servers that answer commands with
// anything but a shell: no command ever counts as run (every operation of
// the shell backend, and the tool's exec, fail with the one message and
// change nothing), the server is asked once per connection, and nothing
// waits on what answered in the shell's place.
//
// Runs in the command mode of SSHFA_TEST_COMMAND_MODE (the persistent shell
// by default). Needs root for the accounts; otherwise the tests are skipped.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sshfileaccess/UnixSSHFileAccess.hpp"
#include "tests/faults/FaultSupport.hpp"

namespace sshfa::testing {
namespace {

using Remote = nimbal::remoteaccess::sshfileaccess::UnixSSHFileAccess;

constexpr char const* kNoShell = "the server allows SFTP only: no shell to run commands";

std::string noShellMessage(TestSshd const& server, std::string const& user) {
  return prefixOf(server, user) + kNoShell;
}

void expectNoShell(TestSshd const& server, std::string const& user, std::string const& what,
                   std::function<void()> const& action) {
  auto const error = catchSSHError(action);
  ASSERT_TRUE(error) << what;
  EXPECT_EQ(error->kind(), ssh::SSHError::Kind::NoShell) << what;
  EXPECT_EQ(error->what(), noShellMessage(server, user)) << what;
}

// Sessions (command, shell or subsystem requests) that the server has started
// for `user` so far.
std::size_t sessionsOf(TestSshd const& server, std::string const& user) {
  std::string const log = server.log();
  std::string const owner = " for " + user + " from ";
  std::size_t count = 0;
  for (std::size_t at = log.find("Starting session: "); at != std::string::npos;
       at = log.find("Starting session: ", at + 1)) {
    std::size_t const end = log.find('\n', at);
    if (log.substr(at, end - at).find(owner) != std::string::npos) ++count;
  }
  return count;
}

ssh::ExecuteCommandResult run(ssh::SSHClient& client, std::string const& command) {
  return client.executeCommand(ssh::ExecuteCommand(str2ustr(command)));
}

ssh::SSHClientOptions quickOptions(TestSshd const& server) {
  auto options = server.options();
  // A command that asked the server after all would end in ConnectionLost
  // within seconds on a stopped server, not in NoShell.
  options.keepaliveInterval = std::chrono::seconds(1);
  return options;
}

// ---- the accounts limited to SFTP -----------------------------------------------------

enum class Confinement { None, Chroot };

class SftpOnly : public ::testing::TestWithParam<Confinement> {
 protected:
  void SetUp() override {
    account_ = accountOn(TestSshd::instance());
    if (!account_) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  }

  [[nodiscard]] std::optional<TestSshd::SftpOnlyAccount> accountOn(TestSshd& server) const {
    return GetParam() == Confinement::Chroot ? server.chrootedSftpAccount() : server.sftpOnlyAccount();
  }
  [[nodiscard]] std::string const& user() const { return account_->login.user; }
  [[nodiscard]] static TestSshd& server() { return TestSshd::instance(); }
  [[nodiscard]] std::unique_ptr<ssh::SSHClient> client() const { return connect(server(), server().options(), user()); }
  // A path in the account's folder, as the account names it.
  [[nodiscard]] fl::ustring at(std::string const& name) const {
    return str2ustr(account_->folderForAccount + "/" + name);
  }

  std::optional<TestSshd::SftpOnlyAccount> account_;
};

TEST_P(SftpOnly, EveryOperationFailsWithNoShellAndChangesNothing) {
  writeFile(account_->folder / "keep.txt", "kept\n");
  // Other tests of this process share the folder.
  std::vector<std::string> const names = namesIn(account_->folder);
  std::vector<std::pair<std::string, std::function<void(Remote&)>>> const operations = {
      {"makeDir", [&](Remote& r) { r.makeDir(at("made")); }},
      {"makeDir of a list",
       [&](Remote& r) {
         r.makeDir({at("made1"), at("made2")});
       }},
      {"touch", [&](Remote& r) { r.touch(at("touched")); }},
      {"copy", [&](Remote& r) { r.copy(at("keep.txt"), at("copied.txt")); }},
      {"move", [&](Remote& r) { r.move(at("keep.txt"), at("moved.txt")); }},
      {"remove", [&](Remote& r) { r.remove(at("keep.txt")); }},
      {"tar", [&](Remote& r) { r.tar(at("keep.txt"), at("a.tar")); }},
      {"zip", [&](Remote& r) { r.zip(at("keep.txt"), at("a.zip")); }},
      {"untar", [&](Remote& r) { r.untar(at("a.tar"), at("")); }},
      {"unzip", [&](Remote& r) { r.unzip(at("a.zip"), at("")); }},
      {"exists", [&](Remote& r) { (void)r.exists(at("keep.txt")); }},
      {"isFile", [&](Remote& r) { (void)r.isFile(at("keep.txt")); }},
      {"isDir", [&](Remote& r) { (void)r.isDir(at("")); }},
      {"list", [&](Remote& r) { (void)r.list(at("")); }},
      {"listRecursively", [&](Remote& r) { (void)r.listRecursively(at("")); }},
      {"getFileInfo", [&](Remote& r) { (void)r.getFileInfo(at("keep.txt")); }},
  };
  for (auto const& operation : operations) {
    Remote remote(client());
    // The first call finds out, the second is refused from the record.
    expectNoShell(server(), user(), operation.first, [&] { operation.second(remote); });
    expectNoShell(server(), user(), operation.first + ", again", [&] { operation.second(remote); });
  }
  EXPECT_EQ(namesIn(account_->folder), names);
  EXPECT_EQ(readFile(account_->folder / "keep.txt"), "kept\n");
}

TEST_P(SftpOnly, TheServerIsAskedOncePerConnection) {
  std::size_t const before = sessionsOf(server(), user());
  auto const ssh = client();
  for (int i = 0; i < 5; ++i) {
    expectNoShell(server(), user(), "command " + std::to_string(i),
                  [&] { run(*ssh, "mkdir -p " + account_->folderForAccount + "/x"); });
  }
  EXPECT_FALSE(ssh->shellAvailable());
  expectNoShell(server(), user(), "streamed", [&] { ssh->executeStreaming(u("echo hi"), {}); });
  EXPECT_EQ(sessionsOf(server(), user()) - before, 1U);
  EXPECT_FALSE(fs::exists(account_->folder / "x"));
}

TEST_P(SftpOnly, ShellAvailableFindsOutBeforeAnyCommand) {
  std::size_t const before = sessionsOf(server(), user());
  auto const ssh = client();
  EXPECT_FALSE(ssh->shellAvailable());
  EXPECT_FALSE(ssh->shellAvailable());
  expectNoShell(server(), user(), "command after the query", [&] { run(*ssh, "true"); });
  EXPECT_EQ(sessionsOf(server(), user()) - before, 1U);
}

TEST_P(SftpOnly, LaterCommandsFailWithoutAskingTheServer) {
  TestSshd own;
  auto const account = accountOn(own);
  ASSERT_TRUE(account);
  auto const ssh = connect(own, quickOptions(own), account->login.user);
  expectNoShell(own, account->login.user, "first command", [&] { run(*ssh, "true"); });
  // A frozen server answers nothing: only the record can answer now.
  own.stopConnections();
  for (int i = 0; i < 5; ++i) {
    expectNoShell(own, account->login.user, "command " + std::to_string(i), [&] { run(*ssh, "true"); });
  }
  expectNoShell(own, account->login.user, "streamed", [&] { ssh->executeStreaming(u("true"), {}); });
  EXPECT_FALSE(ssh->shellAvailable());
  own.continueConnections();
}

TEST_P(SftpOnly, AStreamedCommandFailsAndHandsNothingOver) {
  auto const ssh = client();
  std::string out;
  std::string err;
  ssh::CommandStreams streams;
  streams.out = [&](std::string_view piece) { out += piece; };
  streams.err = [&](std::string_view piece) { err += piece; };
  expectNoShell(server(), user(), "streamed", [&] { ssh->executeStreaming(u("echo hi"), streams); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(err, "");
}

TEST_P(SftpOnly, FilesStillTravelOverSftp) {
  // The account is not unusable: transfers do not need a shell.
  fs::path const local = TestSshd::makeTempDir() / "up.txt";
  writeFile(local, "sent\n");
  auto const ssh = client();
  ssh->copyFiles(ssh::CopyFilesCommand({{str2ustr(local.string()), at("up.txt")}},
                                       ssh::TransferDirection::LocalToRemote, ssh::TransferProtocol::SFTP, 0644));
  EXPECT_EQ(readFile(account_->folder / "up.txt"), "sent\n");
  EXPECT_FALSE(ssh->shellAvailable());
}

INSTANTIATE_TEST_SUITE_P(Accounts, SftpOnly, ::testing::Values(Confinement::None, Confinement::Chroot),
                         [](auto const& account) {
                           return account.param == Confinement::Chroot ? "Chrooted" : "Plain";
                         });

// ---- other things in place of a shell ----------------------------------------------

// A server whose forced commands answer with SFTP bytes and then wait for
// more, or end at once without a word.
class NotAShell : public ::testing::Test {
 protected:
  static constexpr char const* kSftpBytes = "sshfa-sftpbytes";
  static constexpr char const* kSilent = "sshfa-silent";

  static void SetUpTestSuite() {
    if (geteuid() != 0) return;
    // An SFTP VERSION packet (length 5, type 2, version 3), then silence.
    server_ = std::make_unique<TestSshd>(
        "", std::string("Match User ") + kSftpBytes +
                "\n  ForceCommand printf '\\000\\000\\000\\005\\002\\000\\000\\000\\003'; exec sleep 120\n"
                "Match User " +
                kSilent + "\n  ForceCommand true\n");
    server_->accountWithHome(kSftpBytes, "/bin/sh", TestSshd::makeTempDir());
    server_->accountWithHome(kSilent, "/bin/sh", TestSshd::makeTempDir());
  }
  static void TearDownTestSuite() { server_.reset(); }

  void SetUp() override {
    if (!server_) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  }

  // Forced commands of the server still running (sh until it has started
  // sleep): what nothing waited for. Found while their client is connected:
  // then they are children of the server's processes.
  static std::vector<pid_t> forcedCommands() {
    std::vector<pid_t> found;
    for (pid_t const pid : server_->connectionPids()) {
      std::string const name = readFile("/proc/" + std::to_string(pid) + "/comm");
      if (name == "sleep\n" || name == "sh\n") found.push_back(pid);
    }
    return found;
  }
  // Ends them: they would outlive the server, and usermod refuses to change
  // an account that has processes.
  static void end(std::vector<pid_t> const& pids) {
    for (pid_t const pid : pids) ::kill(pid, SIGKILL);
  }

  static inline std::unique_ptr<TestSshd> server_;
};

TEST_F(NotAShell, SftpBytesInPlaceOfTheMarkerEndTheWaitAtOnce) {
  std::size_t const sessions = sessionsOf(*server_, kSftpBytes);
  auto const ssh = connect(*server_, server_->options(), kSftpBytes);
  expectNoShell(*server_, kSftpBytes, "command", [&] { run(*ssh, "true"); });
  // The forced command still sleeps: the client did not wait for its end.
  auto const running = forcedCommands();
  end(running);
  EXPECT_EQ(running.size(), 1U);
  expectNoShell(*server_, kSftpBytes, "second command", [&] { run(*ssh, "true"); });
  EXPECT_EQ(sessionsOf(*server_, kSftpBytes) - sessions, 1U);
}

TEST_F(NotAShell, SftpBytesEndAStreamedCommandAtOnce) {
  auto const ssh = connect(*server_, server_->options(), kSftpBytes);
  std::string out;
  ssh::CommandStreams streams;
  streams.out = [&](std::string_view piece) { out += piece; };
  expectNoShell(*server_, kSftpBytes, "streamed", [&] { ssh->executeStreaming(u("echo hi"), streams); });
  auto const running = forcedCommands();
  end(running);
  EXPECT_EQ(running.size(), 1U);
  EXPECT_EQ(out, "");
}

TEST_F(NotAShell, ACommandThatEndsAtOnceWithoutAWordIsNoShell) {
  std::size_t const before = sessionsOf(*server_, kSilent);
  auto const ssh = connect(*server_, server_->options(), kSilent);
  EXPECT_FALSE(ssh->shellAvailable());
  expectNoShell(*server_, kSilent, "command", [&] { run(*ssh, "true"); });
  expectNoShell(*server_, kSilent, "streamed", [&] { ssh->executeStreaming(u("true"), {}); });
  EXPECT_EQ(sessionsOf(*server_, kSilent) - before, 1U);
}

// ---- a normal account is unaffected -------------------------------------------------------

TEST(NormalAccount, HasAShellAndAsksNoMoreForIt) {
  TestSshd& server = TestSshd::instance();
  auto const ssh = server.connect();
  std::size_t const before = sessionsOf(server, server.user());
  EXPECT_TRUE(ssh->shellAvailable());
  auto const result = run(*ssh, "echo hi; echo err >&2; exit 3");
  EXPECT_EQ(result.getExitcode(), 3);
  EXPECT_EQ(result.getStdout(), u"hi\n");
  EXPECT_EQ(result.getStderr(), u"err\n");
  EXPECT_TRUE(ssh->shellAvailable());
  bool const persistentShell = server.options().commandMode == ssh::CommandMode::PersistentShell;
  // The persistent shell started by the query runs the command; an exec
  // channel asks once per command, the query (an empty command) included.
  EXPECT_EQ(sessionsOf(server, server.user()) - before, persistentShell ? 1U : 2U);
}

TEST(NormalAccount, AnsweredFromTheFirstCommand) {
  TestSshd& server = TestSshd::instance();
  auto const ssh = server.connect();
  EXPECT_EQ(run(*ssh, "echo hi").getStdout(), u"hi\n");
  std::size_t const before = sessionsOf(server, server.user());
  EXPECT_TRUE(ssh->shellAvailable());
  EXPECT_EQ(sessionsOf(server, server.user()), before);
}

// ---- the tool ----------------------------------------------------------------------------

class ToolOnSftpOnly : public ::testing::Test {
 protected:
  void SetUp() override {
    account_ = TestSshd::instance().sftpOnlyAccount();
    if (!account_) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  }
  [[nodiscard]] ToolResult tool(std::vector<std::string> const& args) const {
    return runTool(joined(toolConnection(TestSshd::instance(), account_->login.user), args));
  }
  [[nodiscard]] std::string errorLine() const {
    return "sshfa: " + noShellMessage(TestSshd::instance(), account_->login.user) + "\n";
  }

  std::optional<TestSshd::SftpOnlyAccount> account_;
};

constexpr char const* kTraceLine = "sshfa: trace: the server allows SFTP only: no shell to run commands\n";

// The tool falls back to SFTP for everything else (cli_sftp_test); a
// command for the remote shell still fails.
TEST_F(ToolOnSftpOnly, ExecExitsOneWithTheMessage) {
  auto const names = namesIn(account_->folder);
  auto const result = tool({"exec", "touch", account_->folderForAccount + "/x"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, errorLine());
  EXPECT_EQ(namesIn(account_->folder), names);
}

TEST_F(ToolOnSftpOnly, VerboseSaysSoOnce) {
  auto const made = account_->folderForAccount + "/verbose-" + std::to_string(::getpid());
  auto const result = tool({"-v", "mkdir", made});
  EXPECT_EQ(result.status, 0) << result.err;
  // Right after the negotiated algorithms, and once.
  ASSERT_EQ(result.err.rfind("sshfa: trace: negotiated kex ", 0), 0U) << result.err;
  auto const at = result.err.find(kTraceLine);
  ASSERT_EQ(at, result.err.find('\n') + 1) << result.err;
  EXPECT_EQ(result.err.find(kTraceLine, at + 1), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("sshfa: trace: SFTP mkdir: '" + made + "'\n"), std::string::npos) << result.err;
  EXPECT_TRUE(fs::is_directory(account_->folder / fs::path(made).filename()));
  fs::remove(account_->folder / fs::path(made).filename());
}

TEST(ToolOnNormalAccount, VerboseSaysNothingOfTheKind) {
  TestSshd& server = TestSshd::instance();
  auto const result = runTool(joined(toolConnection(server), {"-v", "exists", "/"}));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "true\n");
  EXPECT_EQ(result.err.find("SFTP only"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace sshfa::testing
