// Connecting: authentication methods, host key policy, configuration, and
// connections that cannot be made.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libssh/callbacks.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/Session.hpp"
#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using Kind = ssh::SSHError::Kind;

std::string readText(fs::path const& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string echoHello(ssh::SSHClient& client) {
  return utf8(client.executeCommand(ssh::ExecuteCommand(u"echo hello")).getStdout());
}

std::unique_ptr<ssh::SSHClient> connectWith(ssh::AuthMethods methods) {
  auto& server = TestSshd::instance();
  return std::make_unique<ssh::SSHClient>(u(server.host()), server.port(), std::move(methods), server.options());
}

// A key pair in a fresh folder, authorized on the server unless told not to.
std::string makeKey(std::string const& type, std::string const& passphrase = {}, bool authorize = true) {
  std::string const file = (TestSshd::makeTempDir() / ("id_" + type)).string();
  TestSshd::shell("ssh-keygen -q -t " + type + (type == "rsa" ? " -b 2048" : "") + " -N '" + passphrase + "' -f " +
                  file);
  if (authorize) TestSshd::instance().authorizeKey(file + ".pub");
  return file;
}

// ---- authentication -----------------------------------------------------------------

TEST(Authentication, Ed25519IdentityFile) {
  auto client = TestSshd::instance().connect();
  EXPECT_EQ(echoHello(*client), "hello\n");
}

TEST(Authentication, RsaIdentityFile) {
  auto& server = TestSshd::instance();
  auto client = connectWith({ssh::IdentityFileAuth{server.user(), makeKey("rsa"), std::nullopt}});
  EXPECT_EQ(echoHello(*client), "hello\n");
}

TEST(Authentication, EncryptedKeyWithTheRightPassphrase) {
  auto& server = TestSshd::instance();
  auto client = connectWith({ssh::IdentityFileAuth{server.user(), makeKey("ed25519", "open sesame"), "open sesame"}});
  EXPECT_EQ(echoHello(*client), "hello\n");
}

TEST(Authentication, EncryptedKeyWithAWrongPassphraseFails) {
  auto& server = TestSshd::instance();
  std::string const key = makeKey("ed25519", "open sesame");
  auto const error = catchSSHError([&] {
    connectWith({ssh::IdentityFileAuth{server.user(), key, std::string("wrong")}});
  });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Authentication);
  EXPECT_EQ(std::string(error->what()),
            prefixOf(server, server.user()) + "authentication failed; tried: publickey with '" + key +
                "' (wrong passphrase, or not a private key); the server offers: " +
                (geteuid() == 0 ? "publickey, password, keyboard-interactive" : "publickey"));
}

TEST(Authentication, EncryptedKeyWithoutPassphraseFails) {
  auto& server = TestSshd::instance();
  std::string const key = makeKey("ed25519", "open sesame");
  auto const error = catchSSHError([&] { connectWith({ssh::IdentityFileAuth{server.user(), key, std::nullopt}}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Authentication);
  EXPECT_NE(std::string(error->what()).find("no passphrase given for an encrypted key"), std::string::npos)
      << error->what();
}

TEST(Authentication, MissingKeyFileIsNamed) {
  auto& server = TestSshd::instance();
  auto const error = catchSSHError([&] {
    connectWith({ssh::IdentityFileAuth{server.user(), "/nonexistent/key", std::nullopt}});
  });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Authentication);
  EXPECT_NE(std::string(error->what()).find("publickey with '/nonexistent/key' (cannot read the file"),
            std::string::npos)
      << error->what();
}

TEST(Authentication, UnauthorizedKeyIsRefused) {
  auto& server = TestSshd::instance();
  std::string const key = makeKey("ed25519", "", false);
  auto const error = catchSSHError([&] { connectWith({ssh::IdentityFileAuth{server.user(), key, std::nullopt}}); });
  ASSERT_TRUE(error);
  EXPECT_NE(std::string(error->what()).find("tried: publickey with '" + key + "' (refused)"), std::string::npos)
      << error->what();
}

TEST(Authentication, MethodsAreTriedInOrderUntilOneSucceeds) {
  auto& server = TestSshd::instance();
  std::string const stranger = makeKey("ed25519", "", false);
  auto client = connectWith({ssh::PasswordAuth{server.user(), "not the password"},
                             ssh::IdentityFileAuth{server.user(), stranger, std::nullopt},
                             ssh::IdentityFileAuth{server.user(), server.identityFile(), std::nullopt}});
  EXPECT_EQ(echoHello(*client), "hello\n");
}

TEST(Authentication, FailureListsEveryMethodTriedAndWhatTheServerOffers) {
  auto& server = TestSshd::instance();
  std::string const stranger = makeKey("ed25519", "", false);
  auto const error = catchSSHError([&] {
    connectWith({ssh::IdentityFileAuth{server.user(), stranger, std::nullopt},
                 ssh::AgentAuth{server.user(), std::string("/nonexistent/agent.sock")}});
  });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Authentication);
  EXPECT_EQ(std::string(error->what()),
            prefixOf(server, server.user()) + "authentication failed; tried: publickey with '" + stranger +
                "' (refused), agent at '/nonexistent/agent.sock' (refused); the server offers: " +
                (geteuid() == 0 ? "publickey, password, keyboard-interactive" : "publickey"));
}

TEST(Authentication, NoMethodsFails) {
  auto const error = catchSSHError([&] { connectWith({}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Authentication);
  EXPECT_NE(std::string(error->what()).find("tried: no method"), std::string::npos) << error->what();
}

// The server refuses a change of user within one connection; each user gets its own.
TEST(Authentication, AnotherUserAfterAFailedOneConnectsAgain) {
  auto& server = TestSshd::instance();
  auto client = connectWith({ssh::IdentityFileAuth{"sshfa-no-such-user", server.identityFile(), std::nullopt},
                             ssh::IdentityFileAuth{server.user(), server.identityFile(), std::nullopt}});
  EXPECT_EQ(utf8(client->executeCommand(ssh::ExecuteCommand(u"id -un")).getStdout()), server.user() + "\n");
}

TEST(Authentication, PasswordSucceeds) {
  auto& server = TestSshd::instance();
  auto account = server.passwordAccount();
  if (!account) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  auto client = connectWith({ssh::PasswordAuth{account->user, account->password}});
  EXPECT_EQ(utf8(client->executeCommand(ssh::ExecuteCommand(u"id -un")).getStdout()), account->user + "\n");
}

TEST(Authentication, WrongPasswordFails) {
  auto& server = TestSshd::instance();
  auto account = server.passwordAccount();
  if (!account) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  auto const error = catchSSHError([&] { connectWith({ssh::PasswordAuth{account->user, "wrong"}}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Authentication);
  EXPECT_EQ(std::string(error->what()),
            prefixOf(server, account->user) +
                "authentication failed; tried: password (refused); the server offers: publickey, password, "
                "keyboard-interactive");
}

TEST(Authentication, KeyboardInteractiveAnswersThePasswordPrompt) {
  auto& server = TestSshd::instance();
  auto account = server.passwordAccount();
  if (!account) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  std::vector<ssh::KeyboardInteractivePrompt> seen;
  auto client = connectWith({ssh::KeyboardInteractiveAuth{
      account->user, [&](std::string const&, std::string const&, std::vector<ssh::KeyboardInteractivePrompt> const& p) {
        seen.insert(seen.end(), p.begin(), p.end());
        return std::vector<std::string>(p.size(), account->password);
      }}});
  EXPECT_EQ(utf8(client->executeCommand(ssh::ExecuteCommand(u"id -un")).getStdout()), account->user + "\n");
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].text, "Password: ");
  EXPECT_FALSE(seen[0].echo);
}

TEST(Authentication, KeyboardInteractiveWithAWrongAnswerFails) {
  auto& server = TestSshd::instance();
  auto account = server.passwordAccount();
  if (!account) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  auto const error = catchSSHError([&] {
    connectWith({ssh::KeyboardInteractiveAuth{account->user, [](std::string const&, std::string const&,
                                                                std::vector<ssh::KeyboardInteractivePrompt> const& p) {
                                                return std::vector<std::string>(p.size(), "wrong");
                                              }}});
  });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Authentication);
  EXPECT_NE(std::string(error->what()).find("tried: keyboard-interactive (refused)"), std::string::npos)
      << error->what();
}

TEST(Authentication, ServerThatStopsAnsweringDuringAuthenticationTimesOut) {
  TestSshd server;
  auto account = server.passwordAccount();
  if (!account) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  auto options = server.options();
  options.connectTimeout = std::chrono::seconds(1);
  auto const start = std::chrono::steady_clock::now();
  auto const error = catchSSHError([&] {
    ssh::SSHClient client(
        u(server.host()), server.port(),
        {ssh::KeyboardInteractiveAuth{
             account->user,
             [&](std::string const&, std::string const&, std::vector<ssh::KeyboardInteractivePrompt> const& prompts) {
               server.stopConnections();
               return std::vector<std::string>(prompts.size(), account->password);
             }},
         ssh::PasswordAuth{account->user, account->password}},
        options);
  });
  server.continueConnections();
  EXPECT_LT(secondsSince(start), 4.0);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Timeout);
  EXPECT_EQ(std::string(error->what()),
            prefixOf(server, account->user) +
                "the server did not answer the authentication (keyboard-interactive) within 1 s");
}

// An ssh-agent of the test's own, on a socket in a fresh folder.
class Agent {
 public:
  Agent() : socket_((TestSshd::makeTempDir() / "agent.sock").string()) {
    std::string const output = TestSshd::shell("ssh-agent -s -a " + socket_);
    auto const at = output.find("SSH_AGENT_PID=");
    pid_ = std::stoi(output.substr(at + 14));
  }
  ~Agent() { kill(pid_, SIGTERM); }
  Agent(Agent const&) = delete;
  Agent& operator=(Agent const&) = delete;

  void add(std::string const& key) const { TestSshd::shell("SSH_AUTH_SOCK=" + socket_ + " ssh-add -q " + key); }
  [[nodiscard]] std::string const& socket() const { return socket_; }

 private:
  std::string socket_;
  int pid_ = 0;
};

TEST(Authentication, AgentWithTheKeySucceeds) {
  auto& server = TestSshd::instance();
  Agent agent;
  agent.add(server.identityFile());
  auto client = connectWith({ssh::AgentAuth{server.user(), agent.socket()}});
  EXPECT_EQ(echoHello(*client), "hello\n");
}

TEST(Authentication, AgentFromTheEnvironment) {
  auto& server = TestSshd::instance();
  Agent agent;
  agent.add(server.identityFile());
  char const* before = std::getenv("SSH_AUTH_SOCK");
  std::optional<std::string> const saved = before ? std::optional<std::string>(before) : std::nullopt;
  setenv("SSH_AUTH_SOCK", agent.socket().c_str(), 1);
  auto client = connectWith({ssh::AgentAuth{server.user(), std::nullopt}});
  if (saved) {
    setenv("SSH_AUTH_SOCK", saved->c_str(), 1);
  } else {
    unsetenv("SSH_AUTH_SOCK");
  }
  EXPECT_EQ(echoHello(*client), "hello\n");
}

TEST(Authentication, AgentWithoutKeysFails) {
  auto& server = TestSshd::instance();
  Agent agent;
  auto const error = catchSSHError([&] { connectWith({ssh::AgentAuth{server.user(), agent.socket()}}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Authentication);
  EXPECT_NE(std::string(error->what()).find("tried: agent at '" + agent.socket() + "' (refused)"), std::string::npos)
      << error->what();
}

TEST(Authentication, IdentityFilesOfTheConfiguration) {
  auto& server = TestSshd::instance();
  fs::path const config = TestSshd::makeTempDir() / "config";
  std::ofstream(config) << "IdentityFile " << server.identityFile() << "\n";
  auto options = server.options();
  options.readSshConfig = true;
  options.sshConfigFile = config.string();
  ssh::SSHClient client(u(server.host()), server.port(), {ssh::IdentityFileAuth{server.user(), "", std::nullopt}},
                        options);
  EXPECT_EQ(echoHello(client), "hello\n");
}

// ---- host keys ----------------------------------------------------------------------

TEST(HostKey, UnknownHostIsRefusedByDefaultWithAHowTo) {
  auto& server = TestSshd::instance();
  fs::path const knownHosts = TestSshd::makeTempDir() / "known_hosts";
  auto options = server.options();
  options.knownHostsFiles = {knownHosts.string()};
  auto const error = catchSSHError([&] { (void)server.connect(options); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::HostKeyUnknown);
  std::string const port = std::to_string(server.port());
  std::string const message = error->what();
  EXPECT_EQ(
      message.rfind(
          prefixOf(server, server.user()) + "the host key of [127.0.0.1]:" + port + " (ssh-ed25519 key SHA256:", 0),
      0u)
      << message;
  EXPECT_NE(message.find("is unknown: it is in none of " + knownHosts.string() +
                         ". After checking the fingerprint, add it with \"ssh-keyscan -p " + port + " 127.0.0.1 >> " +
                         knownHosts.string() + "\", or connect once with the host key policy AcceptNew"),
            std::string::npos)
      << message;
  EXPECT_FALSE(fs::exists(knownHosts));
}

TEST(HostKey, AcceptNewAddsTheHostToTheFirstFile) {
  auto& server = TestSshd::instance();
  fs::path const dir = TestSshd::makeTempDir();
  fs::path const knownHosts = dir / "sub" / "known_hosts";
  auto options = server.options();
  options.knownHostsFiles = {knownHosts.string(), server.knownHostsFile()};
  options.hostKeyPolicy = ssh::HostKeyPolicy::AcceptNew;
  // Known from the second file: nothing is added.
  (void)server.connect(options);
  EXPECT_FALSE(fs::exists(knownHosts));

  options.knownHostsFiles = {knownHosts.string()};
  EXPECT_EQ(echoHello(*server.connect(options)), "hello\n");
  EXPECT_EQ(readText(knownHosts), "[127.0.0.1]:" + std::to_string(server.port()) + " " + server.hostPublicKey() + "\n");

  options.hostKeyPolicy = ssh::HostKeyPolicy::Strict;
  EXPECT_EQ(echoHello(*server.connect(options)), "hello\n");
}

TEST(HostKey, ChangedKeyIsRefusedUnderEveryPolicy) {
  auto& server = TestSshd::instance();
  fs::path const dir = TestSshd::makeTempDir();
  TestSshd::shell("ssh-keygen -q -t ed25519 -N '' -f " + (dir / "other").string());
  std::istringstream otherKey(readText(dir / "other.pub"));
  std::string type;
  std::string blob;
  otherKey >> type >> blob;
  fs::path const knownHosts = dir / "known_hosts";
  std::string const entry = "[127.0.0.1]:" + std::to_string(server.port()) + " " + type + " " + blob + "\n";
  std::ofstream(knownHosts) << entry;
  auto options = server.options();
  options.knownHostsFiles = {knownHosts.string()};
  for (auto policy : {ssh::HostKeyPolicy::Strict, ssh::HostKeyPolicy::AcceptNew}) {
    options.hostKeyPolicy = policy;
    auto const error = catchSSHError([&] { (void)server.connect(options); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), Kind::HostKeyChanged);
    std::string const message = error->what();
    std::string const name = "[127.0.0.1]:" + std::to_string(server.port());
    EXPECT_NE(message.find("the host key of " + name + " has CHANGED: the server offers the ssh-ed25519 key SHA256:"),
              std::string::npos)
        << message;
    EXPECT_NE(message.find("which does not match the entry in '" + knownHosts.string() + "'"), std::string::npos)
        << message;
    EXPECT_NE(message.find("ssh-keygen -R '" + name + "' -f '" + knownHosts.string() + "'"), std::string::npos)
        << message;
  }
  EXPECT_EQ(readText(knownHosts), entry);
}

TEST(HostKey, KeyOfAnotherTypeCountsAsChanged) {
  auto& server = TestSshd::instance();
  fs::path const dir = TestSshd::makeTempDir();
  TestSshd::shell("ssh-keygen -q -t ecdsa -N '' -f " + (dir / "other").string());
  std::istringstream otherKey(readText(dir / "other.pub"));
  std::string type;
  std::string blob;
  otherKey >> type >> blob;
  fs::path const knownHosts = dir / "known_hosts";
  std::ofstream(knownHosts) << "[127.0.0.1]:" << server.port() << " " << type << " " << blob << "\n";
  auto options = server.options();
  options.knownHostsFiles = {knownHosts.string()};
  options.hostKeyPolicy = ssh::HostKeyPolicy::AcceptNew;
  auto const error = catchSSHError([&] { (void)server.connect(options); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::HostKeyChanged);
}

TEST(HostKey, HashedEntriesAreHonoured) {
  auto& server = TestSshd::instance();
  fs::path const knownHosts = TestSshd::makeTempDir() / "known_hosts";
  fs::copy_file(server.knownHostsFile(), knownHosts);
  TestSshd::shell("ssh-keygen -q -H -f " + knownHosts.string() + " 2>/dev/null");
  ASSERT_EQ(readText(knownHosts).rfind("|1|", 0), 0u) << readText(knownHosts);
  auto options = server.options();
  options.knownHostsFiles = {knownHosts.string()};
  EXPECT_EQ(echoHello(*server.connect(options)), "hello\n");
}

TEST(HostKey, LaterFilesAreConsulted) {
  auto& server = TestSshd::instance();
  auto options = server.options();
  options.knownHostsFiles = {(TestSshd::makeTempDir() / "missing").string(), server.knownHostsFile()};
  EXPECT_EQ(echoHello(*server.connect(options)), "hello\n");
}

// ---- options ------------------------------------------------------------------------

TEST(Options, ConfigurationSuppliesHostNamePortUserAndIdentity) {
  auto& server = TestSshd::instance();
  fs::path const config = TestSshd::makeTempDir() / "config";
  std::ofstream(config) << "Host sshfa-alias\n  HostName 127.0.0.1\n  Port " << server.port() << "\n  User "
                        << server.user() << "\n  IdentityFile " << server.identityFile() << "\n";
  auto options = server.options();
  options.readSshConfig = true;
  options.sshConfigFile = config.string();
  ssh::SSHClient client(u"sshfa-alias", 0, {ssh::IdentityFileAuth{"", "", std::nullopt}}, options);
  EXPECT_EQ(utf8(client.executeCommand(ssh::ExecuteCommand(u"id -un")).getStdout()), server.user() + "\n");
}

TEST(Options, ConfigurationIsIgnoredWhenNotWanted) {
  auto& server = TestSshd::instance();
  fs::path const config = TestSshd::makeTempDir() / "config";
  std::ofstream(config) << "Host 127.0.0.1\n  Port 1\n";
  auto options = server.options();
  options.readSshConfig = false;
  options.sshConfigFile = config.string();
  EXPECT_EQ(echoHello(*server.connect(options)), "hello\n");
}

std::string negotiatedCipher(ssh::SSHClientOptions const& options) {
  auto& server = TestSshd::instance();
  foundation::sshclient::internal::Session session(server.host(), server.port(), server.auth(), options);
  return ssh_get_cipher_out(session.raw());
}

TEST(Options, Aes128GcmIsPreferredByDefault) {
  EXPECT_EQ(negotiatedCipher(TestSshd::instance().options()), "aes128-gcm@openssh.com");
}

TEST(Options, CallerCiphersWin) {
  auto options = TestSshd::instance().options();
  options.ciphers = "aes256-ctr,aes128-gcm@openssh.com";
  EXPECT_EQ(negotiatedCipher(options), "aes256-ctr");
}

TEST(Options, ConfigurationCiphersWinOverTheDefault) {
  fs::path const config = TestSshd::makeTempDir() / "config";
  std::ofstream(config) << "Ciphers chacha20-poly1305@openssh.com\n";
  auto options = TestSshd::instance().options();
  options.readSshConfig = true;
  options.sshConfigFile = config.string();
  EXPECT_EQ(negotiatedCipher(options), "chacha20-poly1305@openssh.com");
}

TEST(Options, UnknownCipherIsAConnectError) {
  auto options = TestSshd::instance().options();
  options.ciphers = "rot13";
  auto const error = catchSSHError([&] { negotiatedCipher(options); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Connect);
  EXPECT_NE(std::string(error->what()).find("invalid cipher list"), std::string::npos) << error->what();
}

TEST(Options, TcpNoDelayIsOn) {
  auto& server = TestSshd::instance();
  foundation::sshclient::internal::Session session(server.host(), server.port(), server.auth(), server.options());
  int value = 0;
  socklen_t length = sizeof value;
  ASSERT_EQ(getsockopt(ssh_get_fd(session.raw()), IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
  EXPECT_NE(value, 0);
}

TEST(Options, KeepaliveIntervalComesFromTheOptionsAndCanBeChanged) {
  auto options = TestSshd::instance().options();
  EXPECT_EQ(options.keepaliveInterval, std::chrono::seconds(30));
  options.keepaliveInterval = std::chrono::seconds(7);
  auto client = TestSshd::instance().connect(options);
  EXPECT_EQ(client->getKeepaliveInterval(), std::chrono::seconds(7));
  client->setKeepaliveInterval(std::chrono::seconds(1));
  EXPECT_EQ(client->getKeepaliveInterval(), std::chrono::seconds(1));
  EXPECT_EQ(echoHello(*client), "hello\n");
}

TEST(Options, NegotiatedAlgorithmsAreKnownAndCompressionIsOffByDefault) {
  auto client = TestSshd::instance().connect();
  auto const algorithms = client->negotiatedAlgorithms();
  EXPECT_FALSE(algorithms.kex.empty());
  EXPECT_FALSE(algorithms.hostKey.empty());
  EXPECT_EQ(algorithms.cipherOut, "aes128-gcm@openssh.com");
  EXPECT_EQ(algorithms.cipherIn, "aes128-gcm@openssh.com");
  EXPECT_EQ(algorithms.compressionOut, "none");
  EXPECT_EQ(algorithms.compressionIn, "none");
}

TEST(Options, CompressionIsNegotiatedWhenAsked) {
  auto options = TestSshd::instance().options();
  options.compression = true;
  auto client = TestSshd::instance().connect(options);
  auto const algorithms = client->negotiatedAlgorithms();
  EXPECT_EQ(algorithms.compressionOut, "zlib@openssh.com");
  EXPECT_EQ(algorithms.compressionIn, "zlib@openssh.com");
  auto const result = client->executeCommand(ssh::ExecuteCommand(u"yes | head -c 300000 | wc -c; yes | head -c 70000"));
  EXPECT_EQ(result.getExitcode(), 0);
  auto const out = utf8(result.getStdout());
  EXPECT_EQ(out.substr(0, 7), "300000\n");
  EXPECT_EQ(out.size(), 7U + 70000U);
}

// The caller's thread keeps its own libssh log level and callback.
std::vector<std::pair<int, std::string>> gLogged;
void keepRecord(int priority, char const* /*function*/, char const* text, void* /*userdata*/) {
  gLogged.emplace_back(priority, text);
}

TEST(Options, TheThreadsLibsshLogIsPutBackAfterConnecting) {
  gLogged.clear();
  int const level = ssh_get_log_level();
  auto const callback = ssh_get_log_callback();
  void* const userdata = ssh_get_log_userdata();
  ssh_set_log_callback(&keepRecord);
  ssh_set_log_level(SSH_LOG_WARN);
  auto client = TestSshd::instance().connect();
  EXPECT_EQ(ssh_get_log_level(), SSH_LOG_WARN);
  EXPECT_EQ(ssh_get_log_callback(), &keepRecord);
  for (auto const& [priority, text] : gLogged) EXPECT_LE(priority, SSH_LOG_WARN) << text;
  EXPECT_FALSE(client->negotiatedAlgorithms().compressionIn.empty());
  ssh_set_log_level(level);
  if (callback != nullptr) ssh_set_log_callback(callback);
  ssh_set_log_userdata(userdata);
}

// ---- connections that cannot be made ------------------------------------------------

// A port nobody listens on: bound, never listened, so nothing else takes it.
class ClosedPort {
 public:
  ClosedPort() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~ClosedPort() { close(fd_); }
  ClosedPort(ClosedPort const&) = delete;
  ClosedPort& operator=(ClosedPort const&) = delete;

  [[nodiscard]] int port() const { return port_; }
  void listenWithoutAnswering() const { listen(fd_, 8); }

 private:
  int fd_;
  int port_ = 0;
};

TEST(ConnectFailure, RefusedPortFailsFastWithAClearMessage) {
  auto& server = TestSshd::instance();
  ClosedPort closed;
  auto const start = std::chrono::steady_clock::now();
  auto const error =
      catchSSHError([&] { ssh::SSHClient client(u"127.0.0.1", closed.port(), server.auth(), server.options()); });
  EXPECT_LT(secondsSince(start), 2.0);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Connect);
  EXPECT_EQ(std::string(error->what())
                .rfind(server.user() + "@127.0.0.1:" + std::to_string(closed.port()) + ": cannot connect: ", 0),
            0u)
      << error->what();
  EXPECT_NE(std::string(error->what()).find("Connection refused"), std::string::npos) << error->what();
}

TEST(ConnectFailure, SilentServerTimesOutWithinTheConnectTimeout) {
  auto& server = TestSshd::instance();
  ClosedPort silent;
  silent.listenWithoutAnswering();
  auto options = server.options();
  options.connectTimeout = std::chrono::seconds(1);
  auto const start = std::chrono::steady_clock::now();
  auto const error = catchSSHError([&] { ssh::SSHClient client(u"127.0.0.1", silent.port(), server.auth(), options); });
  double const elapsed = secondsSince(start);
  EXPECT_GE(elapsed, 0.9);
  EXPECT_LT(elapsed, 3.0);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Timeout);
  EXPECT_NE(std::string(error->what()).find("cannot connect: no answer within 1 s"), std::string::npos)
      << error->what();
}

TEST(ConnectFailure, UnreachableHostFailsWithinTheConnectTimeout) {
  auto& server = TestSshd::instance();
  auto options = server.options();
  options.connectTimeout = std::chrono::seconds(1);
  auto const start = std::chrono::steady_clock::now();
  // TEST-NET-1 (RFC 5737): never routed.
  auto const error = catchSSHError([&] { ssh::SSHClient client(u"192.0.2.1", 22, server.auth(), options); });
  EXPECT_LT(secondsSince(start), 3.0);
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->kind() == Kind::Timeout || error->kind() == Kind::Connect) << error->what();
  EXPECT_NE(std::string(error->what()).find("@192.0.2.1:22: cannot connect: "), std::string::npos) << error->what();
}

TEST(ConnectFailure, UnknownHostNameIsAConnectError) {
  auto& server = TestSshd::instance();
  auto const error =
      catchSSHError([&] { ssh::SSHClient client(u"no-such-host.invalid", 22, server.auth(), server.options()); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), Kind::Connect);
  EXPECT_NE(std::string(error->what()).find("@no-such-host.invalid:22: cannot connect: "), std::string::npos)
      << error->what();
}

}  // namespace
}  // namespace sshfa::testing
