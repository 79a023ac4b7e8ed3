#include "support/loopback_sshd/LoopbackSshd.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace sshfa::loopback {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string errnoText(std::string const& what) { return what + ": " + std::strerror(errno); }

std::string readFile(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(fs::path const& path, std::string const& text, fs::perms perms) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) throw std::runtime_error("cannot write '" + path.string() + "'");
  }
  fs::permissions(path, perms);
}

std::string findSshd() {
  for (char const* candidate : {"/usr/sbin/sshd", "/usr/local/sbin/sshd", "/sbin/sshd"}) {
    if (::access(candidate, X_OK) == 0) return candidate;
  }
  throw std::runtime_error("sshd not found (install openssh-server)");
}

// A port that was free a moment ago; sshd may still lose it to someone else,
// which startOnce() detects.
int pickFreePort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) throw std::runtime_error(errnoText("socket"));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the sockets API
  auto* generic = reinterpret_cast<sockaddr*>(&addr);
  if (::bind(fd, generic, sizeof addr) != 0 || ::getsockname(fd, generic, &len) != 0) {
    std::string const message = errnoText("bind 127.0.0.1");
    ::close(fd);
    throw std::runtime_error(message);
  }
  ::close(fd);
  return ntohs(addr.sin_port);
}

std::vector<char*> argvOf(std::vector<std::string>& args) {
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  return argv;
}

// Waits up to `timeout` for `pid` to end; true when it has been reaped.
bool waitForExit(pid_t pid, std::chrono::milliseconds timeout, int& status) {
  auto const deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    pid_t const r = ::waitpid(pid, &status, WNOHANG);
    if (r == pid || (r < 0 && errno == ECHILD)) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
}

}  // namespace

bool definesSubsystem(std::string const& config, std::string const& name) {
  std::istringstream lines(config);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string keyword;
    std::string subsystem;
    words >> keyword >> subsystem;
    std::transform(keyword.begin(), keyword.end(), keyword.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (keyword == "subsystem" && subsystem == name) return true;
  }
  return false;
}

std::string currentUserName() {
  passwd const* pw = ::getpwuid(::geteuid());
  if (pw == nullptr) throw std::runtime_error("the current user has no passwd entry");
  return pw->pw_name;
}

std::string runProgram(std::vector<std::string> const& argv) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(errnoText("pipe"));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
  std::vector<std::string> args = argv;
  std::vector<char*> cargv = argvOf(args);
  pid_t pid = 0;
  int const rc = ::posix_spawnp(&pid, cargv[0], &actions, nullptr, cargv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  if (rc != 0) {
    ::close(fds[0]);
    throw std::runtime_error("cannot run " + argv.front() + ": " + std::strerror(rc));
  }
  std::string output;
  char buffer[4096];
  for (;;) {
    ssize_t const n = ::read(fds[0], buffer, sizeof buffer);
    if (n > 0) {
      output.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  ::close(fds[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::string command;
    for (auto const& arg : argv) command += (command.empty() ? "" : " ") + arg;
    throw std::runtime_error(command + " failed: " + output);
  }
  return output;
}

LoopbackSshd::LoopbackSshd(Settings settings) : settings_(std::move(settings)), user_(currentUserName()) {
  if (::geteuid() == 0) {
    // Privilege separation needs this folder; minimal systems lack it.
    std::error_code ignored;
    fs::create_directories("/run/sshd", ignored);
  }
  generateKeys();
  constexpr int kAttempts = 5;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (startOnce()) return;
  }
  throw std::runtime_error("sshd could not bind a free port on 127.0.0.1:\n" + log());
}

LoopbackSshd::~LoopbackSshd() { stop(); }

fs::path LoopbackSshd::logFile() const { return settings_.directory / "sshd.log"; }

std::string LoopbackSshd::log() const { return readFile(logFile()); }

void LoopbackSshd::generateKeys() {
  fs::path const dir = settings_.directory;
  fs::path const hostKey = dir / "host_ed25519";
  fs::path const clientKey = dir / "client_ed25519";
  runProgram({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "loopback-sshd host", "-f", hostKey.string()});
  runProgram({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "loopback-sshd client", "-f", clientKey.string()});
  identityFile_ = clientKey.string();
  knownHostsFile_ = (dir / "known_hosts").string();

  std::istringstream hostPub(readFile(dir / "host_ed25519.pub"));
  std::string type;
  std::string key;
  hostPub >> type >> key;
  hostPublicKey_ = type + " " + key;
  // Other accounts read this file too (sshd reads it as the user logging in).
  writeFile(dir / "authorized_keys", readFile(dir / "client_ed25519.pub"),
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);
}

void LoopbackSshd::writeConfig() const {
  fs::path const dir = settings_.directory;
  std::string config = settings_.extraConfig;
  if (!config.empty() && config.back() != '\n') config += '\n';
  config += "ListenAddress 127.0.0.1\n";
  config += "Port " + std::to_string(port_) + "\n";
  config += "HostKey " + (dir / "host_ed25519").string() + "\n";
  config += "PidFile " + (dir / "sshd.pid").string() + "\n";
  config += "AuthorizedKeysFile " + (dir / "authorized_keys").string() + "\n";
  // The folder may lie below a world-writable /tmp.
  config += "StrictModes no\n";
  config += "LogLevel VERBOSE\n";
  config += "UseDNS no\n";
  config += "PrintMotd no\n";
  config += "PrintLastLog no\n";
  config += "X11Forwarding no\n";
  config += "MaxStartups 64\n";
  config += "MaxSessions 64\n";
  if (!definesSubsystem(config, "sftp")) config += "Subsystem sftp internal-sftp\n";
  // bash sources ~/.bashrc for sshd's commands only at shell level 1; that
  // can cost far more than the command itself.
  config += "SetEnv SHLVL=1\n";
  config += settings_.matchBlocks;
  writeFile(dir / "sshd_config", config, fs::perms::owner_read | fs::perms::owner_write);
  writeFile(knownHostsFile_, "[" + host_ + "]:" + std::to_string(port_) + " " + hostPublicKey_ + "\n",
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);
}

bool LoopbackSshd::startOnce() {
  port_ = pickFreePort();
  writeConfig();

  std::string const logPath = logFile().string();
  std::size_t const logOffset = fs::exists(logPath) ? static_cast<std::size_t>(fs::file_size(logPath)) : 0;
  std::vector<std::string> args{findSshd(), "-D", "-f", (settings_.directory / "sshd_config").string(), "-E", logPath};
  std::vector<char*> argv = argvOf(args);
  pid_t const parent = ::getpid();

  pid_t const pid = ::fork();
  if (pid < 0) throw std::runtime_error(errnoText("fork"));
  if (pid == 0) {
    // Only async-signal-safe calls until exec.
    ::setsid();
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(127);
    int const null = ::open("/dev/null", O_RDWR);
    if (null >= 0) {
      ::dup2(null, 0);
      ::dup2(null, 1);
      ::dup2(null, 2);
    }
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  pid_ = pid;

  std::string const ready = "Server listening on " + host_ + " port " + std::to_string(port_);
  auto const deadline = std::chrono::steady_clock::now() + settings_.startTimeout;
  for (;;) {
    std::string const logText = log();
    std::string const fresh = logText.size() > logOffset ? logText.substr(logOffset) : std::string();
    if (fresh.find(ready) != std::string::npos) return true;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = 0;
      if (fresh.find("Address already in use") != std::string::npos) return false;
      throw std::runtime_error("sshd exited during start-up:\n" + fresh);
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      stop();
      throw std::runtime_error("sshd did not start listening in time:\n" + fresh);
    }
    std::this_thread::sleep_for(10ms);
  }
}

void LoopbackSshd::stop() noexcept {
  if (pid_ <= 0) return;
  int status = 0;
  ::kill(pid_, SIGTERM);
  if (!waitForExit(pid_, 5000ms, status)) {
    ::kill(pid_, SIGKILL);
    waitForExit(pid_, 5000ms, status);
  }
  pid_ = 0;
}

}  // namespace sshfa::loopback
