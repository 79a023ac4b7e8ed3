#include "tests/support/TestSshd.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "platform/i18n/i18n.hpp"

extern char** environ;

namespace sshfa::testing {

namespace ssh = foundation::sshclient;
namespace fs = std::filesystem;

namespace {

constexpr char const* kSshd = "/usr/sbin/sshd";
constexpr char const* kLoopback = "127.0.0.1";

std::string readFile(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(fs::path const& path, std::string const& text, fs::perms mode) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  fs::permissions(path, mode);
}

std::string shellQuoted(std::string const& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string currentUser() {
  passwd const* entry = getpwuid(geteuid());
  if (entry == nullptr) throw std::runtime_error("TestSshd: the current user has no passwd entry");
  return entry->pw_name;
}

bool isRoot() { return geteuid() == 0; }

int freePort() {
  int const fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (fd >= 0) close(fd);
    throw std::runtime_error(std::string("TestSshd: no free port: ") + std::strerror(errno));
  }
  close(fd);
  return ntohs(address.sin_port);
}

bool acceptsConnections(int port) {
  int const fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool const ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

fs::path makeDirectory(char const* prefix) {
  std::string pattern = (fs::temp_directory_path() / (std::string(prefix) + ".XXXXXX")).string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("TestSshd: cannot create a temporary folder: " + std::string(std::strerror(errno)));
  }
  fs::permissions(pattern, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                               fs::perms::others_read | fs::perms::others_exec);
  return pattern;
}

// Temporary folders of makeTempDir(), removed when the process exits.
struct TempDirs {
  std::vector<fs::path> paths;
  ~TempDirs() {
    for (auto const& path : paths) {
      std::error_code ignored;
      fs::remove_all(path, ignored);
    }
  }
};

TempDirs& tempDirs() {
  static TempDirs dirs;
  return dirs;
}

std::string randomPassword() {
  static constexpr char kAlphabet[] = "abcdefghijkmnopqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789";
  std::random_device device;
  std::uniform_int_distribution<std::size_t> pick(0, sizeof kAlphabet - 2);
  std::string password;
  for (int i = 0; i < 20; ++i) password += kAlphabet[pick(device)];
  return password;
}

// Creates the account when missing (home "/" so that sshd can chdir there
// and nothing is left behind) and gives it `password`.
void ensureAccount(std::string const& name, char const* loginShell, std::string const& password) {
  if (getpwnam(name.c_str()) == nullptr) {
    TestSshd::shell("useradd -M -d / -s " + std::string(loginShell) + " " + name);
  } else {
    TestSshd::shell("usermod -d / -s " + std::string(loginShell) + " " + name);
  }
  TestSshd::shell("echo " + shellQuoted(name + ":" + password) + " | chpasswd");
}

std::map<pid_t, pid_t> parentsOfAllProcesses() {
  std::map<pid_t, pid_t> parents;
  for (auto const& entry : fs::directory_iterator("/proc")) {
    std::string const name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string const stat = readFile(entry.path() / "stat");
    // pid (comm) state ppid ...: comm may hold blanks and parentheses.
    auto const closing = stat.rfind(')');
    if (closing == std::string::npos) continue;
    std::istringstream fields(stat.substr(closing + 1));
    std::string state;
    pid_t parent = 0;
    fields >> state >> parent;
    parents[static_cast<pid_t>(std::stol(name))] = parent;
  }
  return parents;
}

ssh::SSHClientOptions clientOptions(std::string const& knownHosts) {
  ssh::SSHClientOptions options;
  options.knownHostsFiles = {knownHosts};
  options.hostKeyPolicy = ssh::HostKeyPolicy::Strict;
  options.readSshConfig = false;
  options.connectTimeout = std::chrono::seconds(10);
  return options;
}

// The log of one server, as the failure listener sees it.
struct ServerLog {
  std::string file;
  int port = 0;
  std::size_t shownUpTo = 0;

  void printNew() const {
    std::string const text = readFile(file);
    std::cerr << "---- sshd log (" << kLoopback << ":" << port << ") ----\n"
              << (shownUpTo < text.size() ? text.substr(shownUpTo) : std::string()) << "---- end of sshd log ----\n";
  }
};

// Logs of the live servers.
std::set<ServerLog*>& liveLogs() {
  static std::set<ServerLog*> logs;
  return logs;
}

class LogPrinter : public ::testing::EmptyTestEventListener {
 public:
  void OnTestStart(::testing::TestInfo const&) override {
    for (auto* log : liveLogs()) log->shownUpTo = readFile(log->file).size();
  }
  void OnTestEnd(::testing::TestInfo const& info) override {
    if (!info.result()->Failed()) return;
    for (auto* log : liveLogs()) log->printNew();
  }
};

void installLogPrinter() {
  static bool const installed = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new LogPrinter);
    return true;
  }();
  (void)installed;
}

}  // namespace

class TestSshd::Impl {
 public:
  fs::path dir;
  int port = 0;
  pid_t pid = -1;
  std::string user = currentUser();
  std::string identity;
  std::string knownHosts;
  std::string hostKey;
  std::string logFile;
  ServerLog serverLog;
  std::optional<Account> passwordAccount;
  std::optional<Account> cshAccount;

  explicit Impl(std::string const& extraConfig);
  ~Impl();
  Impl(Impl const&) = delete;
  Impl& operator=(Impl const&) = delete;

  void start(std::string const& extraConfig);
  void stop();
  void signalConnections(int signal) const;
  [[nodiscard]] std::vector<pid_t> connectionPids() const;
};

TestSshd::Impl::Impl(std::string const& extraConfig) {
  dir = makeDirectory("sshfa-sshd");
  identity = (dir / "id_ed25519").string();
  knownHosts = (dir / "known_hosts").string();
  logFile = (dir / "sshd.log").string();
  shell("ssh-keygen -q -t ed25519 -N '' -C sshfa-test-host -f " + shellQuoted((dir / "host_ed25519_key").string()));
  shell("ssh-keygen -q -t ed25519 -N '' -C sshfa-test-client -f " + shellQuoted(identity));
  writeFile(dir / "authorized_keys", readFile(identity + ".pub"),
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);
  std::istringstream publicKey(readFile((dir / "host_ed25519_key.pub").string()));
  std::string type;
  std::string blob;
  publicKey >> type >> blob;
  hostKey = type + " " + blob;
  if (isRoot() && !fs::exists("/run/sshd")) fs::create_directories("/run/sshd");

  // Another process may take the port between choosing and binding it.
  for (int attempt = 0;; ++attempt) {
    try {
      start(extraConfig);
      break;
    } catch (std::exception const&) {
      stop();
      if (attempt == 4 || readFile(logFile).find("Address already in use") == std::string::npos) throw;
    }
  }
  serverLog.file = logFile;
  serverLog.port = port;
  liveLogs().insert(&serverLog);
  installLogPrinter();
}

void TestSshd::Impl::start(std::string const& extraConfig) {
  port = freePort();
  std::string const d = dir.string();
  std::ostringstream config;
  config << "Port " << port << "\n"
         << "ListenAddress " << kLoopback << "\n"
         << "HostKey " << d << "/host_ed25519_key\n"
         << "PidFile " << d << "/sshd.pid\n"
         << "AuthorizedKeysFile " << d << "/authorized_keys\n"
         << "StrictModes no\n"
         << "UseDNS no\n"
         << "PrintMotd no\n"
         << "PrintLastLog no\n"
         << "LogLevel VERBOSE\n"
         << "MaxStartups 100:30:200\n"
         << "MaxSessions 50\n"
         << "PermitRootLogin yes\n"
         << "PubkeyAuthentication yes\n"
         << "Subsystem sftp internal-sftp\n"
         // bash sources ~/.bashrc for sshd's commands only at shell level 1;
         // that can cost far more than the command itself.
         << "SetEnv SHLVL=1\n";
  // Password checks need PAM, which needs root.
  if (isRoot()) {
    config << "UsePAM yes\nPasswordAuthentication yes\nKbdInteractiveAuthentication yes\n";
  } else {
    config << "UsePAM no\nPasswordAuthentication no\nKbdInteractiveAuthentication no\n";
  }
  config << extraConfig << "\n";
  writeFile(dir / "sshd_config", config.str(), fs::perms::owner_read | fs::perms::owner_write);
  writeFile(knownHosts, "[" + std::string(kLoopback) + "]:" + std::to_string(port) + " " + hostKey + "\n",
            fs::perms::owner_read | fs::perms::owner_write);

  std::string const configFile = d + "/sshd_config";
  std::vector<std::string> arguments = {kSshd, "-D", "-f", configFile, "-E", logFile};
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  if (int const rc = posix_spawn(&pid, kSshd, nullptr, nullptr, argv.data(), environ); rc != 0) {
    pid = -1;
    throw std::runtime_error(std::string("TestSshd: cannot start ") + kSshd + ": " + std::strerror(rc));
  }

  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  std::string lastError = "it does not accept connections";
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      pid = -1;
      throw std::runtime_error("TestSshd: sshd exited at start; its log:\n" + readFile(logFile));
    }
    if (acceptsConnections(port)) {
      try {
        ssh::SSHClient probe(fl::i18n::utf8_to_ustring(kLoopback), port,
                             {ssh::IdentityFileAuth{user, identity, std::nullopt}}, clientOptions(knownHosts));
        return;
      } catch (std::exception const& error) {
        lastError = error.what();
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  throw std::runtime_error("TestSshd: sshd on port " + std::to_string(port) + " refuses logins (" + lastError +
                           "); its log:\n" + readFile(logFile));
}

void TestSshd::Impl::stop() {
  if (pid <= 0) return;
  signalConnections(SIGCONT);
  signalConnections(SIGKILL);
  kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
  pid = -1;
}

TestSshd::Impl::~Impl() {
  liveLogs().erase(&serverLog);
  // A server that dies with its test would take its log along.
  if (auto const* test = ::testing::UnitTest::GetInstance()->current_test_info();
      test != nullptr && test->result()->Failed()) {
    serverLog.printNew();
  }
  stop();
  std::error_code ignored;
  fs::remove_all(dir, ignored);
}

std::vector<pid_t> TestSshd::Impl::connectionPids() const {
  std::vector<pid_t> found;
  if (pid <= 0) return found;
  auto const parents = parentsOfAllProcesses();
  std::set<pid_t> tree{pid};
  // Parents precede children in pid order only by chance, so iterate to a fixpoint.
  for (bool grew = true; grew;) {
    grew = false;
    for (auto const& [child, parent] : parents) {
      if (tree.count(parent) != 0 && tree.insert(child).second) {
        found.push_back(child);
        grew = true;
      }
    }
  }
  return found;
}

void TestSshd::Impl::signalConnections(int signal) const {
  for (pid_t child : connectionPids()) kill(child, signal);
}

// ---- TestSshd ------------------------------------------------------------------------

TestSshd::TestSshd(std::string const& extraConfig) : impl_(std::make_unique<Impl>(extraConfig)) {}
TestSshd::~TestSshd() = default;

TestSshd& TestSshd::instance() {
  static TestSshd server;
  return server;
}

std::string const& TestSshd::host() const noexcept {
  static std::string const loopback = kLoopback;
  return loopback;
}
int TestSshd::port() const noexcept { return impl_->port; }
std::string const& TestSshd::user() const noexcept { return impl_->user; }
std::string const& TestSshd::identityFile() const noexcept { return impl_->identity; }
std::string const& TestSshd::knownHostsFile() const noexcept { return impl_->knownHosts; }
std::string const& TestSshd::hostPublicKey() const noexcept { return impl_->hostKey; }
fs::path const& TestSshd::directory() const noexcept { return impl_->dir; }

ssh::SSHClientOptions TestSshd::options() const { return clientOptions(impl_->knownHosts); }

ssh::AuthMethods TestSshd::auth() const { return {ssh::IdentityFileAuth{impl_->user, impl_->identity, std::nullopt}}; }

std::unique_ptr<ssh::SSHClient> TestSshd::connect() const { return connect(options()); }

std::unique_ptr<ssh::SSHClient> TestSshd::connect(ssh::SSHClientOptions const& options) const {
  return std::make_unique<ssh::SSHClient>(fl::i18n::utf8_to_ustring(kLoopback), impl_->port, auth(), options);
}

void TestSshd::authorizeKey(std::string const& publicKeyFile) const {
  std::ofstream(impl_->dir / "authorized_keys", std::ios::binary | std::ios::app) << readFile(publicKeyFile);
}

fs::path TestSshd::makeTempDir() {
  fs::path dir = makeDirectory("sshfa-test");
  tempDirs().paths.push_back(dir);
  return dir;
}

std::string TestSshd::log() const { return readFile(impl_->logFile); }

std::vector<pid_t> TestSshd::connectionPids() const { return impl_->connectionPids(); }
void TestSshd::stopConnections() const { impl_->signalConnections(SIGSTOP); }
void TestSshd::continueConnections() const { impl_->signalConnections(SIGCONT); }
void TestSshd::killConnections() const { impl_->signalConnections(SIGKILL); }

std::optional<TestSshd::Account> TestSshd::passwordAccount() {
  if (!isRoot()) return std::nullopt;
  if (!impl_->passwordAccount) {
    Account account{"sshfa-pw", randomPassword()};
    ensureAccount(account.user, "/bin/sh", account.password);
    impl_->passwordAccount = account;
  }
  return impl_->passwordAccount;
}

std::optional<TestSshd::Account> TestSshd::cshAccount() {
  if (!isRoot()) return std::nullopt;
  if (!impl_->cshAccount) {
    Account account{"sshfa-csh", randomPassword()};
    ensureAccount(account.user, "/bin/csh", account.password);
    impl_->cshAccount = account;
  }
  return impl_->cshAccount;
}

std::string TestSshd::accountsUnavailableReason() {
  return isRoot() ? std::string()
                  : "needs root: the test creates a local account with a password, and sshd checks passwords "
                    "through PAM only when it runs as root";
}

std::string TestSshd::shell(std::string const& commandLine) {
  FILE* pipe = popen(commandLine.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("cannot run '" + commandLine + "': " + std::strerror(errno));
  std::string output;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  int const status = pclose(pipe);
  if (status != 0) {
    throw std::runtime_error("'" + commandLine + "' failed (status " + std::to_string(status) + "): " + output);
  }
  return output;
}

}  // namespace sshfa::testing
