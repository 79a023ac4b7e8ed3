#pragma once
// A real OpenSSH sshd on 127.0.0.1 for integration tests.
//
// TestSshd::instance() is the shared server of a test process: started on
// first use, stopped at process exit. Tests that disturb the server (stopping
// or killing its connection processes, extra configuration) construct their
// own TestSshd instead; it stops when destroyed.
//
// Each server lives in its own temporary folder: sshd_config, a throwaway
// ed25519 host key, a client key (identityFile(), authorized for every
// account), a known_hosts file naming the host key, the pid file and the log
// (LogLevel VERBOSE). It runs as the current user; as root it also uses PAM,
// so that password and keyboard-interactive logins work for passwordAccount(),
// and its configuration limits the accounts of sftpOnlyAccount() and
// chrootedSftpAccount() to SFTP.
// While a test fails, the lines the server logged during that test are
// printed (a GoogleTest listener).
//
// Failures to start throw std::runtime_error with the server log.
// Not thread-safe: use from the test thread.

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

namespace sshfa::testing {

class TestSshd {
 public:
  // extraConfig: sshd_config lines; they take precedence over the generated ones.
  // matchBlocks: Match blocks, placed at the end.
  explicit TestSshd(std::string const& extraConfig = {}, std::string const& matchBlocks = {});
  ~TestSshd();
  TestSshd(TestSshd const&) = delete;
  TestSshd& operator=(TestSshd const&) = delete;

  static TestSshd& instance();

  [[nodiscard]] std::string const& host() const noexcept;  // "127.0.0.1"
  [[nodiscard]] int port() const noexcept;
  [[nodiscard]] std::string const& user() const noexcept;  // the process owner
  [[nodiscard]] std::string const& identityFile() const noexcept;
  [[nodiscard]] std::string const& knownHostsFile() const noexcept;
  // The host key's public line ("ssh-ed25519 AAAA..."), without host name.
  [[nodiscard]] std::string const& hostPublicKey() const noexcept;
  [[nodiscard]] std::filesystem::path const& directory() const noexcept;

  // knownHostsFiles = { knownHostsFile() }, strict host key policy, no
  // ~/.ssh/config, 10 s connect timeout; the command mode named by
  // SSHFA_TEST_COMMAND_MODE (exec or shell) when set; everything else default.
  [[nodiscard]] foundation::sshclient::SSHClientOptions options() const;
  // { IdentityFileAuth{ user(), identityFile() } }
  [[nodiscard]] foundation::sshclient::AuthMethods auth() const;
  [[nodiscard]] std::unique_ptr<foundation::sshclient::SSHClient> connect() const;
  [[nodiscard]] std::unique_ptr<foundation::sshclient::SSHClient> connect(
      foundation::sshclient::SSHClientOptions const& options) const;

  // Adds the public key in `publicKeyFile` to the keys accepted for every account.
  void authorizeKey(std::string const& publicKeyFile) const;

  // A fresh empty folder (mode 0755), removed at process exit.
  static std::filesystem::path makeTempDir();

  // Everything the server has logged so far.
  [[nodiscard]] std::string log() const;

  // Fault injection on the processes that serve connections (the listener
  // itself is left alone, so new connections are still accepted).
  [[nodiscard]] std::vector<pid_t> connectionPids() const;
  void stopConnections() const;      // SIGSTOP
  void continueConnections() const;  // SIGCONT
  void killConnections() const;      // SIGKILL

  // Local accounts for logins other than the current user; only when running
  // as root (they are created on first use and kept with a new random
  // password each run). Otherwise nullopt, and accountsUnavailableReason()
  // says why, for GTEST_SKIP.
  struct Account {
    std::string user;
    std::string password;
  };
  std::optional<Account> passwordAccount();  // login shell /bin/sh
  std::optional<Account> cshAccount();       // login shell /bin/csh (key login with identityFile())
  // An account `name` with login shell `loginShell` whose login folder is
  // `home`, made its own: the relative paths and login scripts of a test stay
  // inside that folder, and the account, not root, acts on them. Key login
  // with identityFile().
  std::optional<Account> accountWithHome(std::string const& name, std::string const& loginShell,
                                         std::filesystem::path const& home);
  // Accounts that may use SFTP and nothing else: ForceCommand internal-sftp,
  // so sshd answers every command or shell request with a line of refusal
  // and closes the channel. Key login with identityFile(). Root only, as
  // above.
  struct SftpOnlyAccount {
    Account login;
    // A fresh folder the account owns (removed at process exit): its path on
    // this machine, and the path by which the account names it (they differ
    // under ChrootDirectory).
    std::filesystem::path folder;
    std::string folderForAccount;
    // The ChrootDirectory (root-owned, mode 0755); empty when none.
    std::filesystem::path chroot;
  };
  std::optional<SftpOnlyAccount> sftpOnlyAccount();
  // The same, also confined to a ChrootDirectory: a folder kept for all runs,
  // /var/lib/sshfa-test-chroot (a chroot must not lie below a world-writable
  // folder such as /tmp).
  std::optional<SftpOnlyAccount> chrootedSftpAccount();
  [[nodiscard]] static std::string accountsUnavailableReason();

  // Runs `commandLine` with /bin/sh locally and returns its standard output;
  // throws std::runtime_error with its output when it exits non-zero.
  static std::string shell(std::string const& commandLine);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sshfa::testing
