#include "sshfileaccess/platform/sshclient/internal/SshConfig.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

namespace foundation::sshclient::internal {
namespace {

// What "ssh -G -F /dev/null host" answers on a machine without configuration.
constexpr char const* kBuiltIn =
    "user root\nhostname other\nport 22\nstricthostkeychecking ask\nserveraliveinterval 0\n"
    "ciphers chacha20-poly1305@openssh.com,aes128-ctr,aes192-ctr,aes256-ctr,aes128-gcm@openssh.com,"
    "aes256-gcm@openssh.com\n"
    "identityfile ~/.ssh/id_rsa\nidentityfile ~/.ssh/id_ed25519\n"
    "globalknownhostsfile /etc/ssh/ssh_known_hosts /etc/ssh/ssh_known_hosts2\n"
    "userknownhostsfile /root/.ssh/known_hosts /root/.ssh/known_hosts2\nconnecttimeout none\n";

class ParseResolvedConfig : public ::testing::Test {
 protected:
  void SetUp() override { setenv("HOME", "/home/tester", 1); }
  void TearDown() override {
    if (savedHome_) {
      setenv("HOME", savedHome_->c_str(), 1);
    } else {
      unsetenv("HOME");
    }
  }

 private:
  std::optional<std::string> savedHome_ =
      std::getenv("HOME") != nullptr ? std::optional<std::string>(std::getenv("HOME")) : std::nullopt;
};

TEST_F(ParseResolvedConfig, BuiltInDefaultsLeaveTheClientsOwn) {
  auto const settings = parseResolvedConfig(kBuiltIn, "other");
  EXPECT_EQ(settings.hostName, "other");
  EXPECT_EQ(settings.user, "root");
  EXPECT_EQ(settings.port, 22);
  EXPECT_EQ(settings.identityFiles,
            (std::vector<std::string>{"/home/tester/.ssh/id_rsa", "/home/tester/.ssh/id_ed25519"}));
  EXPECT_EQ(settings.knownHostsFiles,
            (std::vector<std::string>{"/root/.ssh/known_hosts", "/root/.ssh/known_hosts2", "/etc/ssh/ssh_known_hosts",
                                      "/etc/ssh/ssh_known_hosts2"}));
  EXPECT_EQ(settings.hostKeyPolicy, HostKeyPolicy::Strict);
  EXPECT_EQ(settings.proxyJump, "");
  EXPECT_EQ(settings.proxyCommand, "");
  EXPECT_EQ(settings.ciphers, "");
  EXPECT_FALSE(settings.connectTimeout);
  EXPECT_FALSE(settings.serverAliveInterval);
}

TEST_F(ParseResolvedConfig, ConfiguredValues) {
  auto const settings = parseResolvedConfig(
      "User alice\nhostname 10.1.2.3\nport 2222\nstricthostkeychecking accept-new\nserveraliveinterval 4\n"
      "ciphers aes256-ctr\nidentityfile ~/keys/%h-%r-%p-%n%%\nidentityfile /abs/key\n"
      "userknownhostsfile /k/one\nglobalknownhostsfile /k/two\nconnecttimeout 7\nproxyjump j1,bob@j2:23\n"
      "proxycommand none\n",
      "box.lan");
  EXPECT_EQ(settings.hostName, "10.1.2.3");
  EXPECT_EQ(settings.user, "alice");
  EXPECT_EQ(settings.port, 2222);
  EXPECT_EQ(settings.identityFiles,
            (std::vector<std::string>{"/home/tester/keys/10.1.2.3-alice-2222-box.lan%", "/abs/key"}));
  EXPECT_EQ(settings.knownHostsFiles, (std::vector<std::string>{"/k/one", "/k/two"}));
  EXPECT_EQ(settings.hostKeyPolicy, HostKeyPolicy::AcceptNew);
  EXPECT_EQ(settings.proxyJump, "j1,bob@j2:23");
  EXPECT_EQ(settings.proxyCommand, "");
  EXPECT_EQ(settings.ciphers, "aes256-ctr");
  EXPECT_EQ(settings.connectTimeout, std::chrono::seconds(7));
  EXPECT_EQ(settings.serverAliveInterval, std::chrono::seconds(4));
}

TEST_F(ParseResolvedConfig, StrictHostKeyCheckingNoIsTakenAsAcceptNew) {
  EXPECT_EQ(parseResolvedConfig("hostname h\nstricthostkeychecking false\n", "h").hostKeyPolicy,
            HostKeyPolicy::AcceptNew);
  EXPECT_EQ(parseResolvedConfig("hostname h\nstricthostkeychecking true\n", "h").hostKeyPolicy, HostKeyPolicy::Strict);
}

TEST_F(ParseResolvedConfig, ProxyCommandIsKeptUnexpanded) {
  EXPECT_EQ(parseResolvedConfig("hostname h\nproxycommand nc %h %p\n", "h").proxyCommand, "nc %h %p");
}

TEST_F(ParseResolvedConfig, BadValuesAreErrorsNamingThem) {
  try {
    parseResolvedConfig("hostname h\nport twenty\n", "h");
    FAIL() << "no error";
  } catch (ConfigError const& error) {
    EXPECT_STREQ(error.what(), "the SSH configuration gives Port 'twenty', which is no number");
  }
  try {
    parseResolvedConfig("hostname h\nidentityfile ~/.ssh/%C\n", "h");
    FAIL() << "no error";
  } catch (ConfigError const& error) {
    EXPECT_STREQ(error.what(),
                 "the SSH configuration path '~/.ssh/%C' has the token %C, which this client does not expand");
  }
}

TEST(ProxyCommandForJump, OneHopWithUserAndPort) {
  EXPECT_EQ(proxyCommandForJump("bob@jump:2222", "/usr/bin/ssh", "/etc/my config"),
            "exec '/usr/bin/ssh' -l 'bob' -p '2222' -F '/etc/my config' -W '[%h]:%p' 'jump'");
}

TEST(ProxyCommandForJump, EarlierHopsGoToTheLastHopsSsh) {
  EXPECT_EQ(proxyCommandForJump("j1,ssh://j2", "ssh", ""), "exec 'ssh' -J 'j1' -W '[%h]:%p' 'j2'");
  EXPECT_EQ(proxyCommandForJump("a,b@c:1,[::1]:22", "ssh", ""), "exec 'ssh' -p '22' -J 'a,b@c:1' -W '[%h]:%p' '::1'");
}

TEST(ProxyCommandForJump, EmptyHopIsAnError) {
  EXPECT_THROW(proxyCommandForJump("j1,", "ssh", ""), ConfigError);
  EXPECT_THROW(proxyCommandForJump(",j1", "ssh", ""), ConfigError);
}

TEST(ExpandConfigPath, TildeAndTokens) {
  ResolvedConfig settings;
  settings.hostName = "h.example";
  settings.user = "u";
  settings.port = 7;
  std::string const home = homeDirectory();
  EXPECT_EQ(expandConfigPath("~", settings, "alias"), home);
  EXPECT_EQ(expandConfigPath("~/k_%h_%r_%p_%n", settings, "alias"), home + "/k_h.example_u_7_alias");
  EXPECT_EQ(expandConfigPath("%d/x", settings, "alias"), home + "/x");
  EXPECT_EQ(expandConfigPath("/a/~b", settings, "alias"), "/a/~b");
  EXPECT_EQ(expandConfigPath("/i/%i", settings, "alias"), "/i/" + std::to_string(getuid()));
  EXPECT_THROW(expandConfigPath("/x/%", settings, "alias"), ConfigError);
}

TEST(RequireReadableConfig, MissingFileIsNamed) {
  try {
    requireReadableConfig("/nonexistent/sshfa-config");
    FAIL() << "no error";
  } catch (ConfigError const& error) {
    EXPECT_STREQ(error.what(),
                 "cannot read the SSH configuration '/nonexistent/sshfa-config': No such file or directory");
  }
}

}  // namespace
}  // namespace foundation::sshclient::internal
