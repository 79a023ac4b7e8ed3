#pragma once
// A private OpenSSH sshd on 127.0.0.1 with throwaway keys, shared by the
// tool's demo and the test fixture.
//
// Everything lives in one folder chosen by the caller: sshd_config, an
// ed25519 host key, an ed25519 client key authorised for every account
// (authorized_keys), a known_hosts line for the host key, the pid file and the
// log. The listener runs in the foreground as a child of this process, in a
// session of its own (a terminal's Ctrl-C reaches only this process, which
// then stops it), and is sent SIGTERM if this process dies first.
//
// Construction generates the keys, writes the configuration, starts the
// server on a free port and returns once it listens; any failure throws
// std::runtime_error carrying the server log. stop() and the destructor
// terminate the listener and reap it; connections already open keep their own
// processes until their clients leave. Works as root and as an ordinary user
// (who can log in only as himself). Not thread-safe.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace sshfa::loopback {

class LoopbackSshd {
 public:
  struct Settings {
    std::filesystem::path directory;  // must exist; every file is written here
    // Configuration lines placed before the generated ones; sshd keeps the
    // first value of a keyword, so these override the defaults (a Subsystem
    // line replaces the generated one of its name). No Match blocks here.
    std::string extraConfig;
    std::chrono::milliseconds startTimeout{15000};
    // Match blocks, placed after the generated lines (a Match block runs to
    // the end of the file).
    std::string matchBlocks = {};
  };

  explicit LoopbackSshd(Settings settings);
  ~LoopbackSshd();
  LoopbackSshd(LoopbackSshd const&) = delete;
  LoopbackSshd& operator=(LoopbackSshd const&) = delete;

  // Idempotent; never throws.
  void stop() noexcept;
  [[nodiscard]] bool running() const noexcept { return pid_ > 0; }

  [[nodiscard]] std::string const& host() const noexcept { return host_; }  // "127.0.0.1"
  [[nodiscard]] int port() const noexcept { return port_; }
  [[nodiscard]] pid_t pid() const noexcept { return pid_; }  // the listener; 0 once stopped
  [[nodiscard]] std::string const& user() const noexcept { return user_; }
  [[nodiscard]] std::string const& identityFile() const noexcept { return identityFile_; }
  [[nodiscard]] std::string const& knownHostsFile() const noexcept { return knownHostsFile_; }
  // "ssh-ed25519 AAAA...", without comment.
  [[nodiscard]] std::string const& hostPublicKey() const noexcept { return hostPublicKey_; }
  [[nodiscard]] std::filesystem::path const& directory() const noexcept { return settings_.directory; }
  [[nodiscard]] std::filesystem::path logFile() const;
  [[nodiscard]] std::string log() const;

 private:
  void generateKeys();
  void writeConfig() const;
  // One attempt on a free port; false when the port was taken meanwhile.
  bool startOnce();

  Settings settings_;
  std::string host_ = "127.0.0.1";
  std::string user_;
  std::string identityFile_;
  std::string knownHostsFile_;
  std::string hostPublicKey_;
  int port_ = 0;
  pid_t pid_ = 0;
};

// The login name of the effective user.
std::string currentUserName();

// Runs a program (no shell) with standard input from /dev/null and returns
// what it wrote to standard output and standard error together; throws
// std::runtime_error with that text when it cannot be started or exits
// non-zero.
std::string runProgram(std::vector<std::string> const& argv);

// Whether sshd_config text has a Subsystem line for `name`: sshd refuses a
// second one, so a caller's line replaces the generated one.
bool definesSubsystem(std::string const& config, std::string const& name);

}  // namespace sshfa::loopback
