// The conformance suite against the SFTP backend: on the test sshd's own
// account (chosen by option), and on the two accounts that may use SFTP only
// (one of them in a chroot), where the facade chooses it by itself. The sshd
// runs on this machine, so fixtures are set up and inspected with plain local
// calls; for the accounts they are handed to the account afterwards, and the
// chroot's paths are mapped to this machine's.

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "sshfileaccess/FileAccess.hpp"
#include "sshfileaccess/SftpFileAccess.hpp"
#include "tests/conformance/ConformanceTests.hpp"
#include "tests/support/TestSshd.hpp"
#include "tests/unit/local/LocalTestSupport.hpp"

namespace sshfa::testing::conformance {
namespace {

namespace fs = std::filesystem;
namespace ssh = foundation::sshclient;
using nimbal::remoteaccess::sshfileaccess::FileAccess;
using nimbal::remoteaccess::sshfileaccess::RemoteBackend;
using nimbal::remoteaccess::sshfileaccess::SftpFileAccess;

// The SFTP backend's answers where the backends differ by design.
template <class Base>
class SftpAnswers : public Base {
 public:
  FileAccessException::Code errorCode() const override { return FileAccessException::Code::RemoteError; }
  bool listShowsHiddenEntries() const override { return false; }
  std::vector<ustring> listOfFile(ustring const& file) const override { return {file}; }
  // No archives at all (whyNoPrograms says why).
  bool untarCreatesMissingDestination() const override { return false; }
  bool unzipCreatesMissingDestination() const override { return false; }
  bool unzipOverwritesExistingFiles() const override { return false; }

 protected:
  using Base::Base;
};

class SftpBackend : public SftpAnswers<ThisMachineBackend<SftpFileAccess>> {
 public:
  SftpBackend() : SftpAnswers(SftpFileAccess(TestSshd::instance().connect())) {}
  std::string whyNoPrograms() const override { return "this connection works over SFTP only"; }
};

// Lets `user` own everything at and below `root`, links themselves included.
void handTo(fs::path const& root, std::string const& user) {
  passwd const* const account = ::getpwnam(user.c_str());
  if (account == nullptr) throw std::runtime_error("no account " + user);
  auto const own = [&](fs::path const& path) {
    if (::lchown(path.c_str(), account->pw_uid, account->pw_gid) != 0) {
      throw std::system_error(errno, std::generic_category(), "lchown " + path.string());
    }
  };
  own(root);
  for (auto const& entry : fs::recursive_directory_iterator(root)) own(entry.path());
}

// A fresh folder inside the account's own, which the account names by its
// own path (under a chroot: from the chroot's root). The remote side is the
// facade's choice on a server that allows SFTP only.
class AccountBackend : public SftpAnswers<Backend> {
 public:
  explicit AccountBackend(TestSshd::SftpOnlyAccount account) : account_(std::move(account)) {
    std::string pattern = (account_.folder / "conformance-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp in " + account_.folder.string());
    local_ = pattern;
    remoteRoot_ = account_.folderForAccount + "/" + local_.filename().string();
    handTo(local_, account_.login.user);
    auto& server = TestSshd::instance();
    access_ = std::make_unique<FileAccess>(std::make_unique<ssh::SSHClient>(
        local::u(server.host()), server.port(),
        ssh::AuthMethods{ssh::IdentityFileAuth{account_.login.user, server.identityFile(), std::nullopt}},
        server.options()));
  }
  ~AccountBackend() override {
    access_.reset();
    std::error_code ignored;
    fs::remove_all(local_, ignored);
  }
  AccountBackend(AccountBackend const&) = delete;
  AccountBackend& operator=(AccountBackend const&) = delete;

  FileAccessInterface& access() override { return *access_->remote(); }
  ustring root() override { return local::u(remoteRoot_); }

  void writeFile(ustring const& path, std::string const& bytes) override {
    local::writeBytes(here(path), bytes);
    handTo(local_, account_.login.user);
  }
  std::string readFile(ustring const& path) override { return local::readBytes(here(path)); }
  void makeFolder(ustring const& path) override {
    local::makeFolders(here(path));
    handTo(local_, account_.login.user);
  }
  void makeLink(std::string const& target, ustring const& link) override {
    local::makeFolders(fs::path(here(link)).parent_path());
    local::makeSymlink(target, here(link));
    handTo(local_, account_.login.user);
  }
  void makeArchivableTree(ustring const& root) override {
    sshfa::testing::makeArchivableTree(here(root));
    handTo(local_, account_.login.user);
  }
  std::map<std::string, std::string> snapshot(ustring const& root) override {
    return sshfa::testing::archiveSnapshot(here(root));
  }
  // The account runs no commands, and the tests that would are skipped.
  void shell(std::string const& command) override { throw std::logic_error("no shell for the account: " + command); }
  bool present(ustring const& path) override { return local::present(here(path)); }
  void setModificationTime(ustring const& path, std::int64_t secondsSinceEpoch, long nanoseconds) override {
    local::setModificationTime(here(path), secondsSinceEpoch, nanoseconds);
  }

  std::string whyNoPrograms() const override { return "the server allows SFTP only"; }

  [[nodiscard]] FileAccess& facade() { return *access_; }

 private:
  // The path on this machine of a path the account names.
  [[nodiscard]] std::string here(ustring const& path) const {
    auto const bytes = local::b(path);
    if (!bytes.starts_with(remoteRoot_)) throw std::logic_error("a fixture outside the test's folder: " + bytes);
    return local_.string() + bytes.substr(remoteRoot_.size());
  }

  TestSshd::SftpOnlyAccount account_;
  fs::path local_;
  std::string remoteRoot_;
  std::unique_ptr<FileAccess> access_;
};

std::unique_ptr<Backend> accountBackend(bool chrooted) {
  auto& server = TestSshd::instance();
  auto account = chrooted ? server.chrootedSftpAccount() : server.sftpOnlyAccount();
  if (!account) return nullptr;
  auto backend = std::make_unique<AccountBackend>(std::move(*account));
  // The facade finds out by itself that only SFTP is offered.
  (void)backend->access();
  if (backend->facade().remoteBackend() != RemoteBackend::Sftp) throw std::logic_error("the shell backend was chosen");
  return backend;
}

INSTANTIATE_TEST_SUITE_P(Sftp, ConformanceTest,
                         ::testing::Values(BackendFactory{"OwnAccount", [] { return std::make_unique<SftpBackend>(); }},
                                           BackendFactory{"SftpOnlyAccount", [] { return accountBackend(false); }},
                                           BackendFactory{"ChrootedAccount", [] { return accountBackend(true); }}),
                         backendName);

}  // namespace
}  // namespace sshfa::testing::conformance
