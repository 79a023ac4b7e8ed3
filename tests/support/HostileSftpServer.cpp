#include "tests/support/HostileSftpServer.hpp"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace sshfa::testing {

namespace fs = std::filesystem;

namespace {

// sshd splits its configuration lines at blanks and hands the command to the
// login shell: only words that need no quoting survive both.
std::string const& plainWord(std::string const& word) {
  bool const plain = !word.empty() && word.find_first_not_of(
                                          "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                          "0123456789/._+-=,:@") == std::string::npos;
  if (!plain) throw std::invalid_argument("cannot put '" + word + "' on sshd's Subsystem line");
  return word;
}

void writeWhole(fs::path const& path, std::string const& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write '" + path.string() + "'");
}

}  // namespace

HostileSftpServer::HostileSftpServer(std::vector<hostile::Rule> const& rules,
                                     std::vector<std::string> const& sftpServerArguments,
                                     std::string const& extraConfig) {
  auto const dir = TestSshd::makeTempDir();
  rulesFile_ = dir / "rules";
  logFile_ = dir / "log";
  setRules(rules);
  // Sessions of other accounts append to it too.
  writeWhole(logFile_, "");
  fs::permissions(logFile_, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                                fs::perms::group_write | fs::perms::others_read | fs::perms::others_write);
  sshd_ = std::make_unique<TestSshd>(subsystemLine(rulesFile_, logFile_, sftpServerArguments) + "\n" + extraConfig);
}

void HostileSftpServer::setRules(std::vector<hostile::Rule> const& rules) const {
  // A session starting meanwhile reads either the old rules or the new ones.
  auto const next = fs::path(rulesFile_).concat(".next");
  writeWhole(next, hostile::formatRules(rules));
  fs::rename(next, rulesFile_);
}

std::string HostileSftpServer::log() const {
  std::ifstream in(logFile_, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string HostileSftpServer::subsystemLine(fs::path const& rulesFile, fs::path const& logFile,
                                             std::vector<std::string> const& sftpServerArguments) {
  std::string line = "Subsystem sftp " + plainWord(program().string()) + " --rules " + plainWord(rulesFile.string()) +
                     " --log " + plainWord(logFile.string());
  if (!sftpServerArguments.empty()) line += " --";
  for (auto const& argument : sftpServerArguments) line += " " + plainWord(argument);
  return line;
}

fs::path HostileSftpServer::program() { return SSHFA_HOSTILE_SFTP; }

}  // namespace sshfa::testing
