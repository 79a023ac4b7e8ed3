#pragma once
// A private sshd whose SFTP subsystem lies: OpenSSH's sftp-server behind the
// hostile relay (hostile_sftp/main.cpp), which adds entries of the rules'
// choosing to folder listings and can change the attributes of real entries
// (rules: hostile_sftp/Rules.hpp). Commands, keys and accounts are those of
// an ordinary TestSshd.
//
// Each SFTP session reads the rules when it starts: setRules() changes them
// for sessions opened afterwards. The rules file and the relay's log live in
// a folder of this object's own (TestSshd::makeTempDir()).
//
// Construction throws what TestSshd throws, and std::invalid_argument for
// rules that the relay would refuse or arguments that cannot go on sshd's
// Subsystem line. Not thread-safe.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/TestSshd.hpp"
#include "tests/support/hostile_sftp/Rules.hpp"

namespace sshfa::testing {

class HostileSftpServer {
 public:
  // `sftpServerArguments` go to the real sftp-server (e.g. {"-u", "022"});
  // `extraConfig` are further sshd_config lines.
  explicit HostileSftpServer(std::vector<hostile::Rule> const& rules,
                             std::vector<std::string> const& sftpServerArguments = {},
                             std::string const& extraConfig = {});

  [[nodiscard]] TestSshd& sshd() noexcept { return *sshd_; }

  void setRules(std::vector<hostile::Rule> const& rules) const;
  [[nodiscard]] std::filesystem::path const& rulesFile() const noexcept { return rulesFile_; }
  // One line per session started, listing rewritten and READLINK answered,
  // and the cause when a session ended in error.
  [[nodiscard]] std::string log() const;

  // "Subsystem sftp <program()> --rules <rulesFile> --log <logFile> [-- <arguments>]"
  [[nodiscard]] static std::string subsystemLine(std::filesystem::path const& rulesFile,
                                                 std::filesystem::path const& logFile,
                                                 std::vector<std::string> const& sftpServerArguments);
  // The relay as built with the tests.
  [[nodiscard]] static std::filesystem::path program();

 private:
  std::filesystem::path rulesFile_;
  std::filesystem::path logFile_;
  std::unique_ptr<TestSshd> sshd_;
};

}  // namespace sshfa::testing
