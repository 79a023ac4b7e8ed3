#include "tests/support/TestSshd.hpp"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "support/loopback_sshd/LoopbackSshd.hpp"

namespace sshfa::testing {

namespace ssh = foundation::sshclient;
namespace fs = std::filesystem;

namespace {

constexpr char const* kLoopback = "127.0.0.1";

// The accounts limited to SFTP, named in every server's configuration.
constexpr char const* kSftpOnlyUser = "sshfa-sftp";
constexpr char const* kChrootedSftpUser = "sshfa-sftpjail";
// Root-owned at every level, as sshd demands of a chroot.
constexpr char const* kChrootFolder = "/var/lib/sshfa-test-chroot";

std::string sftpOnlyMatchBlocks() {
  return std::string("Match User ") + kSftpOnlyUser +
         "\n"
         "  ForceCommand internal-sftp\n"
         "Match User " +
         kChrootedSftpUser +
         "\n"
         "  ForceCommand internal-sftp\n"
         "  ChrootDirectory " +
         kChrootFolder + "\n";
}

std::string readFile(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string shellQuoted(std::string const& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

bool isRoot() { return geteuid() == 0; }

fs::path makeDirectory(char const* prefix, fs::path const& parent = fs::temp_directory_path()) {
  std::string pattern = (parent / (std::string(prefix) + ".XXXXXX")).string();
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

// One password per account for every test process of the machine: test
// binaries run in parallel and share the accounts, so a password drawn per
// process would lock the others out. It is random once, kept where only
// root reads it, and published with link() so that every reader sees it whole.
std::string accountPassword(std::string const& user) {
  fs::path const dir = "/var/lib/sshfa-tests";
  fs::create_directories(dir);
  fs::permissions(dir, fs::perms::owner_all);
  fs::path const file = dir / (user + ".password");
  std::error_code ec;
  if (!fs::exists(file, ec)) {
    fs::path const draft = dir / (user + ".password." + std::to_string(getpid()));
    std::ofstream(draft, std::ios::binary | std::ios::trunc) << randomPassword();
    ::link(draft.c_str(), file.c_str());  // EEXIST: another process was first, and its password holds
    fs::remove(draft, ec);
  }
  std::string password = readFile(file.string());
  if (password.empty()) throw std::runtime_error("empty test password in " + file.string());
  return password;
}

// Creates the account when missing (home "/" unless given, so that sshd can
// chdir there and nothing is left behind) and gives it `password`.
void ensureAccount(std::string const& name, std::string const& loginShell, std::string const& password,
                   std::string const& home = "/") {
  std::string const settings = "-d " + shellQuoted(home) + " -s " + shellQuoted(loginShell) + " " + name;
  if (getpwnam(name.c_str()) == nullptr) {
    TestSshd::shell("useradd -M " + settings);
  } else {
    // usermod refuses while a process of the account runs, and the last
    // test's connection may still be ending: it gets a few seconds.
    std::string const line = "usermod " + settings;
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    bool done = false;
    while (!(done = std::system((line + " 2>/dev/null").c_str()) == 0) && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!done) TestSshd::shell(line + " 2>&1");  // once more, for its message
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
  // Lets CTest run the same remote tests over both ways of running commands.
  if (char const* mode = std::getenv("SSHFA_TEST_COMMAND_MODE"); mode != nullptr) {
    if (std::strcmp(mode, "exec") != 0 && std::strcmp(mode, "shell") != 0) {
      throw std::runtime_error("SSHFA_TEST_COMMAND_MODE must be exec or shell, not '" + std::string(mode) + "'");
    }
    options.commandMode =
        std::strcmp(mode, "exec") == 0 ? ssh::CommandMode::ExecChannel : ssh::CommandMode::PersistentShell;
  }
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
  std::unique_ptr<loopback::LoopbackSshd> sshd;
  ServerLog serverLog;
  std::optional<Account> passwordAccount;
  std::optional<Account> cshAccount;
  std::optional<SftpOnlyAccount> sftpOnlyAccount;
  std::optional<SftpOnlyAccount> chrootedSftpAccount;

  Impl(std::string const& extraConfig, std::string const& matchBlocks);
  ~Impl();
  Impl(Impl const&) = delete;
  Impl& operator=(Impl const&) = delete;

  void stop();
  void signalConnections(int signal) const;
  [[nodiscard]] std::vector<pid_t> connectionPids() const;
};

TestSshd::Impl::Impl(std::string const& extraConfig, std::string const& matchBlocks) {
  dir = makeDirectory("sshfa-sshd");
  std::string config = extraConfig + "\nPermitRootLogin yes\n";
  // Password checks need PAM, which needs root; so do other accounts.
  std::string blocks = matchBlocks;
  if (isRoot()) {
    config += "UsePAM yes\nPasswordAuthentication yes\nKbdInteractiveAuthentication yes\n";
    if (!blocks.empty() && blocks.back() != '\n') blocks += '\n';
    blocks += sftpOnlyMatchBlocks();
  } else {
    config += "UsePAM no\nPasswordAuthentication no\nKbdInteractiveAuthentication no\n";
  }
  sshd = std::make_unique<loopback::LoopbackSshd>(
      loopback::LoopbackSshd::Settings{dir, config, std::chrono::seconds(20), blocks});
  serverLog.file = sshd->logFile().string();
  serverLog.port = sshd->port();
  liveLogs().insert(&serverLog);
  installLogPrinter();
}

void TestSshd::Impl::stop() {
  if (!sshd->running()) return;
  signalConnections(SIGCONT);
  signalConnections(SIGKILL);
  sshd->stop();
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
  if (!sshd->running()) return found;
  auto const parents = parentsOfAllProcesses();
  std::set<pid_t> tree{sshd->pid()};
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

TestSshd::TestSshd(std::string const& extraConfig, std::string const& matchBlocks)
    : impl_(std::make_unique<Impl>(extraConfig, matchBlocks)) {}
TestSshd::~TestSshd() = default;

TestSshd& TestSshd::instance() {
  static TestSshd server;
  return server;
}

std::string const& TestSshd::host() const noexcept {
  static std::string const loopback = kLoopback;
  return loopback;
}
int TestSshd::port() const noexcept { return impl_->sshd->port(); }
std::string const& TestSshd::user() const noexcept { return impl_->sshd->user(); }
std::string const& TestSshd::identityFile() const noexcept { return impl_->sshd->identityFile(); }
std::string const& TestSshd::knownHostsFile() const noexcept { return impl_->sshd->knownHostsFile(); }
std::string const& TestSshd::hostPublicKey() const noexcept { return impl_->sshd->hostPublicKey(); }
fs::path const& TestSshd::directory() const noexcept { return impl_->dir; }

ssh::SSHClientOptions TestSshd::options() const { return clientOptions(knownHostsFile()); }

ssh::AuthMethods TestSshd::auth() const { return {ssh::IdentityFileAuth{user(), identityFile(), std::nullopt}}; }

std::unique_ptr<ssh::SSHClient> TestSshd::connect() const { return connect(options()); }

std::unique_ptr<ssh::SSHClient> TestSshd::connect(ssh::SSHClientOptions const& options) const {
  return std::make_unique<ssh::SSHClient>(fl::i18n::utf8_to_ustring(kLoopback), port(), auth(), options);
}

void TestSshd::authorizeKey(std::string const& publicKeyFile) const {
  std::ofstream(impl_->dir / "authorized_keys", std::ios::binary | std::ios::app) << readFile(publicKeyFile);
}

fs::path TestSshd::makeTempDir() {
  fs::path dir = makeDirectory("sshfa-test");
  tempDirs().paths.push_back(dir);
  return dir;
}

std::string TestSshd::log() const { return impl_->sshd->log(); }

std::vector<pid_t> TestSshd::connectionPids() const { return impl_->connectionPids(); }
void TestSshd::stopConnections() const { impl_->signalConnections(SIGSTOP); }
void TestSshd::continueConnections() const { impl_->signalConnections(SIGCONT); }
void TestSshd::killConnections() const { impl_->signalConnections(SIGKILL); }

std::optional<TestSshd::Account> TestSshd::passwordAccount() {
  if (!isRoot()) return std::nullopt;
  if (!impl_->passwordAccount) {
    Account account{"sshfa-pw", accountPassword("sshfa-pw")};
    ensureAccount(account.user, "/bin/sh", account.password);
    impl_->passwordAccount = account;
  }
  return impl_->passwordAccount;
}

std::optional<TestSshd::Account> TestSshd::cshAccount() {
  if (!isRoot()) return std::nullopt;
  if (!impl_->cshAccount) {
    Account account{"sshfa-csh", accountPassword("sshfa-csh")};
    ensureAccount(account.user, "/bin/csh", account.password);
    impl_->cshAccount = account;
  }
  return impl_->cshAccount;
}

std::optional<TestSshd::Account> TestSshd::accountWithHome(std::string const& name, std::string const& loginShell,
                                                           fs::path const& home) {
  if (!isRoot()) return std::nullopt;
  Account account{name, accountPassword(name)};
  ensureAccount(account.user, loginShell, account.password, home.string());
  TestSshd::shell("chown -R " + shellQuoted(name) + " " + shellQuoted(home.string()));
  return account;
}

std::optional<TestSshd::SftpOnlyAccount> TestSshd::sftpOnlyAccount() {
  if (!isRoot()) return std::nullopt;
  if (!impl_->sftpOnlyAccount) {
    Account login{kSftpOnlyUser, accountPassword(kSftpOnlyUser)};
    ensureAccount(login.user, "/bin/sh", login.password);
    fs::path folder = makeTempDir();
    TestSshd::shell("chown " + shellQuoted(login.user) + " " + shellQuoted(folder.string()));
    impl_->sftpOnlyAccount = SftpOnlyAccount{login, folder, folder.string(), fs::path()};
  }
  return impl_->sftpOnlyAccount;
}

std::optional<TestSshd::SftpOnlyAccount> TestSshd::chrootedSftpAccount() {
  if (!isRoot()) return std::nullopt;
  if (!impl_->chrootedSftpAccount) {
    Account login{kChrootedSftpUser, accountPassword(kChrootedSftpUser)};
    fs::path const chroot = kChrootFolder;
    fs::create_directories(chroot);
    fs::permissions(chroot, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                fs::perms::others_read | fs::perms::others_exec);
    // Home "/": inside the chroot, its root.
    ensureAccount(login.user, "/bin/sh", login.password);
    fs::path folder = makeDirectory("files", chroot);
    tempDirs().paths.push_back(folder);
    TestSshd::shell("chown " + shellQuoted(login.user) + " " + shellQuoted(folder.string()));
    impl_->chrootedSftpAccount = SftpOnlyAccount{login, folder, "/" + folder.filename().string(), chroot};
  }
  return impl_->chrootedSftpAccount;
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
