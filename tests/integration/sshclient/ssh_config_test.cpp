// The SSH configuration as OpenSSH resolves it, with private configuration
// files and private servers: Host blocks merged, known_hosts files, jump
// hosts, the caller's options winning, libssh's parser where ssh cannot run.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "sshfileaccess/platform/sshclient/internal/Session.hpp"
#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using Kind = ssh::SSHError::Kind;

std::string readFile(fs::path const& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string whoAmI(ssh::SSHClient& client) {
  return utf8(client.executeCommand(ssh::ExecuteCommand(u"id -un")).getStdout());
}

// Options that read `config` and nothing else.
ssh::SSHClientOptions readingConfig(fs::path const& config) {
  auto options = TestSshd::instance().options();
  options.readSshConfig = true;
  options.sshConfigFile = config.string();
  options.knownHostsFiles.clear();
  return options;
}

fs::path writeConfig(std::string const& text) {
  fs::path const config = TestSshd::makeTempDir() / "config";
  std::ofstream(config) << text;
  return config;
}

TEST(SshConfig, TwoHostBlocksAreMerged) {
  auto& server = TestSshd::instance();
  // The first block names the address, the second (a pattern) user and key:
  // ssh takes each keyword's first value over all matching blocks.
  fs::path const config =
      writeConfig("Host box.lan\n  HostName 127.0.0.1\n  Port " + std::to_string(server.port()) +
                  "\nHost *.lan\n  User " + server.user() + "\n  IdentityFile " + server.identityFile() +
                  "\n  UserKnownHostsFile " + server.knownHostsFile() + "\n  Port 1\n");
  ssh::SSHClient client(u"box.lan", 0, {ssh::IdentityFileAuth{"", "", std::nullopt}}, readingConfig(config));
  EXPECT_EQ(whoAmI(client), server.user() + "\n");
}

TEST(SshConfig, UserKnownHostsFileIsHonoured) {
  auto& server = TestSshd::instance();
  fs::path const empty = TestSshd::makeTempDir() / "known_hosts";
  std::ofstream(empty) << "";
  fs::path const config =
      writeConfig("Host box\n  HostName 127.0.0.1\n  Port " + std::to_string(server.port()) +
                  "\n  UserKnownHostsFile " + empty.string() + "\n  GlobalKnownHostsFile " + empty.string() + "\n");
  auto const options = readingConfig(config);
  auto const error = catchSSHError([&] { ssh::SSHClient client(u"box", 0, server.auth(), options); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::HostKeyUnknown);
  EXPECT_NE(std::string(error->what()).find("is unknown: it is in none of " + empty.string() + ", " + empty.string()),
            std::string::npos)
      << error->what();

  fs::path const known = writeConfig("Host box\n  HostName 127.0.0.1\n  Port " + std::to_string(server.port()) +
                                     "\n  UserKnownHostsFile " + server.knownHostsFile() + "\n");
  ssh::SSHClient client(u"box", 0, server.auth(), readingConfig(known));
  EXPECT_EQ(whoAmI(client), server.user() + "\n");
}

TEST(SshConfig, StrictHostKeyCheckingAcceptNewAddsToTheUserFile) {
  auto& server = TestSshd::instance();
  fs::path const knownHosts = TestSshd::makeTempDir() / "known_hosts";
  fs::path const config =
      writeConfig("Host box\n  HostName 127.0.0.1\n  Port " + std::to_string(server.port()) +
                  "\n  UserKnownHostsFile " + knownHosts.string() + "\n  StrictHostKeyChecking accept-new\n");
  ssh::SSHClient client(u"box", 0, server.auth(), readingConfig(config));
  EXPECT_EQ(readFile(knownHosts), "[127.0.0.1]:" + std::to_string(server.port()) + " " + server.hostPublicKey() + "\n");
}

TEST(SshConfig, CallerOptionsWin) {
  auto& server = TestSshd::instance();
  fs::path const config = writeConfig(
      "Host box\n  HostName 127.0.0.1\n  Port 1\n  User nobody-here\n"
      "  ConnectTimeout 3\n  ServerAliveInterval 9\n  UserKnownHostsFile /nonexistent\n");
  auto options = readingConfig(config);
  options.knownHostsFiles = {server.knownHostsFile()};
  options.keepaliveInterval = std::chrono::seconds(5);
  ssh::SSHClient client(u"box", server.port(), server.auth(), options);
  EXPECT_EQ(whoAmI(client), server.user() + "\n");
  EXPECT_EQ(client.getKeepaliveInterval(), std::chrono::seconds(5));
}

TEST(SshConfig, ServerAliveIntervalAppliesWhileTheCallerKeepsTheDefault) {
  auto& server = TestSshd::instance();
  fs::path const config = writeConfig(sshConfigHostBlock("box", server) + "  ServerAliveInterval 9\n");
  auto options = readingConfig(config);
  options.keepaliveInterval = ssh::SSHClientOptions{}.keepaliveInterval;
  ssh::SSHClient client(u"box", 0, {ssh::IdentityFileAuth{"", "", std::nullopt}}, options);
  EXPECT_EQ(client.getKeepaliveInterval(), std::chrono::seconds(9));
}

TEST(SshConfig, WithoutCiphersInTheFileTheClientsPreferenceHolds) {
  auto& server = TestSshd::instance();
  fs::path const config = writeConfig(sshConfigHostBlock("box", server));
  foundation::sshclient::internal::Session session("box", 0, {ssh::IdentityFileAuth{"", "", std::nullopt}},
                                                   readingConfig(config));
  EXPECT_STREQ(ssh_get_cipher_out(session.raw()), "aes128-gcm@openssh.com");
}

TEST(SshConfig, MissingConfigFileIsAnErrorNamingIt) {
  auto& server = TestSshd::instance();
  fs::path const missing = TestSshd::makeTempDir() / "no-such-config";
  for (std::string const program : {"ssh", ""}) {
    auto options = readingConfig(missing);
    options.sshProgram = program;
    auto const error = catchSSHError([&] { (void)server.connect(options); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), Kind::Connect);
    EXPECT_EQ(std::string(error->what()), prefixOf(server, server.user()) + "cannot read the SSH configuration '" +
                                              missing.string() + "': No such file or directory");
  }
}

TEST(SshConfig, ConfigurationErrorsOfSshAreReported) {
  auto& server = TestSshd::instance();
  fs::path const config = writeConfig("Host box\n  NoSuchKeyword yes\n");
  auto const error = catchSSHError([&] { ssh::SSHClient client(u"box", 0, server.auth(), readingConfig(config)); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Connect);
  EXPECT_NE(std::string(error->what()).find("cannot resolve the SSH configuration of 'box' with 'ssh -G': "),
            std::string::npos)
      << error->what();
  EXPECT_NE(std::string(error->what()).find("Bad configuration option: nosuchkeyword"), std::string::npos)
      << error->what();
}

TEST(SshConfig, WithoutSshLibsshParsesTheFile) {
  auto& server = TestSshd::instance();
  fs::path const config = writeConfig(sshConfigHostBlock("box", server));
  for (std::string const program : {"", "/nonexistent/bin/ssh"}) {
    auto options = readingConfig(config);
    options.sshProgram = program;
    ssh::SSHClient client(u"box", 0, {ssh::IdentityFileAuth{"", "", std::nullopt}}, options);
    EXPECT_EQ(whoAmI(client), server.user() + "\n") << program;
  }
}

TEST(SshConfig, WithoutAUserMessagesNameTheLoginName) {
  auto& server = TestSshd::instance();
  auto options = server.options();
  options.knownHostsFiles = {(TestSshd::makeTempDir() / "empty").string()};
  auto const error = catchSSHError([&] {
    ssh::SSHClient client(u(server.host()), server.port(), {ssh::IdentityFileAuth{"", server.identityFile(), {}}},
                          options);
  });
  ASSERT_TRUE(error);
  EXPECT_EQ(std::string(error->what()).rfind(prefixOf(server, server.user()), 0), 0u) << error->what();
}

// ---- jump hosts ------------------------------------------------------------------------

class JumpHosts : public ::testing::Test {
 protected:
  static TestSshd& first() {
    static TestSshd server;
    return server;
  }
  static TestSshd& second() {
    static TestSshd server;
    return server;
  }
};

TEST_F(JumpHosts, ThroughOneJumpHost) {
  auto& target = TestSshd::instance();
  std::size_t const before = acceptedLogins(first());
  fs::path const config =
      writeConfig(sshConfigHostBlock("target", target) + "  ProxyJump jump1\n" + sshConfigHostBlock("jump1", first()));
  ssh::SSHClient client(u"target", 0, {ssh::IdentityFileAuth{"", "", std::nullopt}}, readingConfig(config));
  EXPECT_EQ(whoAmI(client), target.user() + "\n");
  EXPECT_EQ(acceptedLogins(first()), before + 1);
}

TEST_F(JumpHosts, ThroughTwoJumpHosts) {
  auto& target = TestSshd::instance();
  std::size_t const firstBefore = acceptedLogins(first());
  std::size_t const secondBefore = acceptedLogins(second());
  fs::path const config = writeConfig(sshConfigHostBlock("target", target) + "  ProxyJump jump1,jump2\n" +
                                      sshConfigHostBlock("jump1", first()) + sshConfigHostBlock("jump2", second()));
  ssh::SSHClient client(u"target", 0, {ssh::IdentityFileAuth{"", "", std::nullopt}}, readingConfig(config));
  EXPECT_EQ(whoAmI(client), target.user() + "\n");
  EXPECT_EQ(acceptedLogins(first()), firstBefore + 1);
  EXPECT_EQ(acceptedLogins(second()), secondBefore + 1);
}

TEST_F(JumpHosts, EachHopIsCheckedAgainstItsOwnKnownHosts) {
  auto& target = TestSshd::instance();
  // jump1's block names the target's known_hosts file, which does not know
  // jump1's key: ssh refuses the hop and the connection fails.
  std::string jumpBlock = sshConfigHostBlock("jump1", first());
  std::string const knownHostsLine = "UserKnownHostsFile " + first().knownHostsFile();
  jumpBlock.replace(jumpBlock.find(knownHostsLine), knownHostsLine.size(),
                    "UserKnownHostsFile " + target.knownHostsFile());
  fs::path const config = writeConfig(sshConfigHostBlock("target", target) + "  ProxyJump jump1\n" + jumpBlock);
  auto const error = catchSSHError([&] {
    ssh::SSHClient client(u"target", 0, {ssh::IdentityFileAuth{"", "", std::nullopt}}, readingConfig(config));
  });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Connect);
  // How the server's end of the pipe closing reads depends on timing.
  EXPECT_EQ(std::string(error->what())
                .rfind(target.user() + "@target:" + std::to_string(target.port()) +
                           ": cannot connect through the jump hosts 'jump1' (see ssh's messages): ",
                       0),
            0u)
      << error->what();
}

TEST_F(JumpHosts, CallerJumpHostsWithoutConfiguration) {
  auto& target = TestSshd::instance();
  std::size_t const before = acceptedLogins(first());
  fs::path const config = writeConfig(sshConfigHostBlock("jump1", first()));
  auto options = readingConfig(config);
  options.proxyJump = "jump1";
  options.knownHostsFiles = {target.knownHostsFile()};
  ssh::SSHClient client(u"127.0.0.1", target.port(), target.auth(), options);
  EXPECT_EQ(whoAmI(client), target.user() + "\n");
  EXPECT_EQ(acceptedLogins(first()), before + 1);
}

}  // namespace
}  // namespace sshfa::testing
