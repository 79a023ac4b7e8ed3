#include "sshfileaccess/platform/sshclient/internal/SshConfig.hpp"

#include "sshfileaccess/platform/sshclient/internal/CommandRunner.hpp"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <utility>

extern char** environ;

namespace foundation::sshclient::internal {

namespace {

[[noreturn]] void fail(std::string const& cause) { throw ConfigError(cause); }

// OpenSSH's own Ciphers default (unchanged from 6.9 to 9.x): an answer equal
// to it means the configuration names none, and the client's preference
// holds. Telling it apart by asking "ssh -G -F /dev/null" would cost a second
// process on every connection; a release with another default only loses
// that preference.
constexpr std::string_view kBuiltInCiphers =
    "chacha20-poly1305@openssh.com,aes128-ctr,aes192-ctr,aes256-ctr,aes128-gcm@openssh.com,aes256-gcm@openssh.com";

struct ProgramOutput {
  int status = 0;
  std::string out;
  std::string err;
};

// Closes a descriptor when it goes out of scope.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) noexcept : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    reset(std::exchange(other.fd_, -1));
    return *this;
  }
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;
  void reset(int fd = -1) noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  [[nodiscard]] int get() const noexcept { return fd_; }

 private:
  int fd_ = -1;
};

[[noreturn]] void cannotRun(std::string const& program, int error) {
  fail("cannot run '" + program + "': " + std::strerror(error));
}

// A program run without a shell, standard input from /dev/null and both
// output streams captured. Whoever drops one unfinished still waits for it:
// no zombie is left.
class Child {
 public:
  // nullopt when the program does not exist.
  static std::optional<Child> start(std::vector<std::string> const& args) {
    int outPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0) cannotRun(args.front(), errno);
    Fd outRead(outPipe[0]);
    Fd const outWrite(outPipe[1]);
    int errPipe[2];
    if (::pipe2(errPipe, O_CLOEXEC) != 0) cannotRun(args.front(), errno);
    Fd errRead(errPipe[0]);
    Fd const errWrite(errPipe[1]);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outWrite.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errWrite.get(), STDERR_FILENO);
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (auto const& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    int const spawned = posix_spawnp(&pid, argv.front(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned == ENOENT) return std::nullopt;
    if (spawned != 0) cannotRun(args.front(), spawned);
    return Child(pid, std::move(outRead), std::move(errRead));
  }

  ~Child() {
    if (pid_ > 0) (void)finish();
  }
  Child(Child&& other) noexcept
      : pid_(std::exchange(other.pid_, -1)), out_(std::move(other.out_)), err_(std::move(other.err_)) {}
  Child& operator=(Child&&) = delete;
  Child(Child const&) = delete;
  Child& operator=(Child const&) = delete;

  // Reads both streams to their end and waits for the exit status.
  ProgramOutput finish() {
    ProgramOutput result;
    pollfd fds[2] = {{out_.get(), POLLIN, 0}, {err_.get(), POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        break;
      }
      for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0) continue;
        char buffer[4096];
        ssize_t const n = ::read(fds[i].fd, buffer, sizeof buffer);
        if (n > 0) {
          sinks[i]->append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
          fds[i].fd = -1;
        }
      }
    }
    out_.reset();
    err_.reset();
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
  }

 private:
  Child(pid_t pid, Fd out, Fd err) : pid_(pid), out_(std::move(out)), err_(std::move(err)) {}

  pid_t pid_ = -1;
  Fd out_;
  Fd err_;
};

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

// ssh's complaints without the notes it prints whenever its input is no
// terminal.
std::string complaintOf(std::string const& err) {
  std::istringstream in(err);
  std::string kept;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("Pseudo-terminal will not be allocated", 0) == 0 || line.empty()) continue;
    kept += (kept.empty() ? "" : "; ") + line;
  }
  return kept.empty() ? std::string("no message") : kept;
}

std::multimap<std::string, std::string> keywords(std::string_view output) {
  std::multimap<std::string, std::string> values;
  std::istringstream in{std::string(output)};
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    auto const blank = line.find(' ');
    if (blank == std::string::npos) continue;
    values.emplace(lowered(std::string_view(line).substr(0, blank)), line.substr(blank + 1));
  }
  return values;
}

std::string valueOf(std::multimap<std::string, std::string> const& values, std::string const& key) {
  auto const found = values.find(key);
  return found == values.end() ? std::string() : found->second;
}

std::vector<std::string> words(std::string const& text) {
  std::istringstream in(text);
  std::vector<std::string> out;
  for (std::string word; in >> word;) out.push_back(word);
  return out;
}

int number(std::string const& text, char const* keyword) {
  char* end = nullptr;
  errno = 0;
  long const value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value < 0 || value > 0x7fffffff) {
    fail(std::string("the SSH configuration gives ") + keyword + " '" + text + "', which is no number");
  }
  return static_cast<int>(value);
}

std::string hostNameOfThisMachine() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return {};
  return name;
}

}  // namespace

std::string homeDirectory() {
  if (char const* home = std::getenv("HOME"); home != nullptr && *home != '\0') return home;
  if (passwd const* entry = getpwuid(getuid()); entry != nullptr && entry->pw_dir != nullptr) return entry->pw_dir;
  return "/";
}

std::string localUserName() {
  if (passwd const* entry = getpwuid(getuid()); entry != nullptr && entry->pw_name != nullptr) return entry->pw_name;
  if (char const* name = std::getenv("USER"); name != nullptr && *name != '\0') return name;
  return std::to_string(getuid());
}

void requireReadableConfig(std::string const& file) {
  int const fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail("cannot read the SSH configuration '" + file + "': " + std::strerror(errno));
  ::close(fd);
}

std::string expandConfigPath(std::string_view const original, ResolvedConfig const& settings,
                             std::string_view originalHost) {
  std::string_view path = original;
  std::string out;
  if (path == "~" || path.rfind("~/", 0) == 0) {
    out = homeDirectory();
    path.remove_prefix(1);
  }
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (path[i] != '%') {
      out += path[i];
      continue;
    }
    if (++i == path.size()) fail("the SSH configuration path '" + std::string(original) + "' ends with a lone %");
    switch (path[i]) {
      case '%':
        out += '%';
        break;
      case 'd':
        out += homeDirectory();
        break;
      case 'h':
        out += settings.hostName;
        break;
      case 'i':
        out += std::to_string(getuid());
        break;
      case 'l':
        out += hostNameOfThisMachine();
        break;
      case 'L': {
        std::string const name = hostNameOfThisMachine();
        out += name.substr(0, name.find('.'));
        break;
      }
      case 'n':
        out += originalHost;
        break;
      case 'p':
        out += std::to_string(settings.port);
        break;
      case 'r':
        out += settings.user;
        break;
      case 'u':
        out += localUserName();
        break;
      default:
        fail("the SSH configuration path '" + std::string(original) + "' has the token %" + path[i] +
             ", which this client does not expand");
    }
  }
  return out;
}

ResolvedConfig parseResolvedConfig(std::string_view output, std::string_view host) {
  auto const values = keywords(output);
  ResolvedConfig settings;
  settings.hostName = valueOf(values, "hostname");
  settings.user = valueOf(values, "user");
  if (std::string const port = valueOf(values, "port"); !port.empty()) settings.port = number(port, "Port");
  auto const [first, last] = values.equal_range("identityfile");
  for (auto it = first; it != last; ++it)
    settings.identityFiles.push_back(expandConfigPath(it->second, settings, host));
  for (char const* key : {"userknownhostsfile", "globalknownhostsfile"}) {
    for (auto& file : words(valueOf(values, key))) settings.knownHostsFiles.push_back(std::move(file));
  }
  std::string const strict = lowered(valueOf(values, "stricthostkeychecking"));
  if (strict == "accept-new" || strict == "false" || strict == "no" || strict == "off") {
    settings.hostKeyPolicy = HostKeyPolicy::AcceptNew;
  } else if (strict == "true" || strict == "yes" || strict == "ask") {
    settings.hostKeyPolicy = HostKeyPolicy::Strict;
  }
  if (std::string const jump = valueOf(values, "proxyjump"); lowered(jump) != "none") settings.proxyJump = jump;
  if (std::string const command = valueOf(values, "proxycommand"); lowered(command) != "none") {
    settings.proxyCommand = command;
  }
  std::string const ciphers = valueOf(values, "ciphers");
  if (ciphers != kBuiltInCiphers) settings.ciphers = ciphers;
  if (std::string const timeout = valueOf(values, "connecttimeout"); !timeout.empty() && timeout != "none") {
    settings.connectTimeout = std::chrono::seconds(number(timeout, "ConnectTimeout"));
  }
  if (std::string const interval = valueOf(values, "serveraliveinterval"); !interval.empty()) {
    if (int const seconds = number(interval, "ServerAliveInterval"); seconds > 0) {
      settings.serverAliveInterval = std::chrono::seconds(seconds);
    }
  }
  return settings;
}

std::string proxyCommandForJump(std::string_view jumps, std::string const& program, std::string const& configFile) {
  auto const comma = jumps.rfind(',');
  std::string_view const earlier = comma == std::string_view::npos ? std::string_view() : jumps.substr(0, comma);
  std::string_view hop = comma == std::string_view::npos ? jumps : jumps.substr(comma + 1);
  if (hop.rfind("ssh://", 0) == 0) hop.remove_prefix(6);
  std::string user;
  if (auto const at = hop.rfind('@'); at != std::string_view::npos) {
    user = hop.substr(0, at);
    hop.remove_prefix(at + 1);
  }
  std::string port;
  std::string host(hop);
  if (!hop.empty() && hop.front() == '[') {
    auto const close = hop.find(']');
    if (close != std::string_view::npos) {
      host = hop.substr(1, close - 1);
      if (close + 1 < hop.size() && hop[close + 1] == ':') port = hop.substr(close + 2);
    }
  } else if (auto const colon = hop.rfind(':'); colon != std::string_view::npos) {
    host = hop.substr(0, colon);
    port = hop.substr(colon + 1);
  }
  if (host.empty() || (earlier.empty() && comma != std::string_view::npos)) {
    fail("the jump host list '" + std::string(jumps) + "' has an empty entry");
  }
  std::string command = "exec " + shellQuoted(program);
  if (!user.empty()) command += " -l " + shellQuoted(user);
  if (!port.empty()) command += " -p " + shellQuoted(port);
  if (!earlier.empty()) command += " -J " + shellQuoted(earlier);
  if (!configFile.empty()) command += " -F " + shellQuoted(configFile);
  return command + " -W '[%h]:%p' " + shellQuoted(host);
}

std::optional<ResolvedConfig> resolveSshConfig(ConfigRequest const& request) {
  std::vector<std::string> args{request.program, "-G"};
  if (!request.configFile.empty()) args.insert(args.end(), {"-F", request.configFile});
  if (request.port > 0) args.insert(args.end(), {"-p", std::to_string(request.port)});
  if (!request.user.empty()) args.insert(args.end(), {"-l", request.user});
  if (!request.proxyJump.empty()) args.insert(args.end(), {"-J", request.proxyJump});
  // "--" keeps a host that begins with '-' from being read as an option.
  args.insert(args.end(), {"--", request.host});
  auto child = Child::start(args);
  if (!child) return std::nullopt;
  ProgramOutput const answer = child->finish();
  if (answer.status != 0) {
    fail("cannot resolve the SSH configuration of '" + request.host + "' with '" + request.program +
         " -G': " + complaintOf(answer.err));
  }
  ResolvedConfig settings = parseResolvedConfig(answer.out, request.host);
  if (settings.hostName.empty()) {
    fail("'" + request.program + " -G' named no host name for '" + request.host + "'");
  }
  return settings;
}

}  // namespace foundation::sshclient::internal
