// The conformance suite against the remote backend. The test sshd runs on
// this machine as the current user, so fixtures are set up and inspected with
// plain local calls on the same files the remote commands see.

#include "sshfileaccess/UnixSSHFileAccess.hpp"

#include <gtest/gtest.h>

#include "tests/conformance/ConformanceTests.hpp"
#include "tests/support/TestSshd.hpp"
#include "tests/unit/local/LocalTestSupport.hpp"

namespace sshfa::testing::conformance {
namespace {

using nimbal::remoteaccess::sshfileaccess::UnixSSHFileAccess;
namespace local = sshfa::testing::local;

class RemoteBackend : public Backend {
 public:
  FileAccessInterface& access() override { return access_; }
  ustring root() override { return local::u(dir_.path()); }

  void writeFile(ustring const& path, std::string const& bytes) override { local::writeBytes(local::b(path), bytes); }
  std::string readFile(ustring const& path) override { return local::readBytes(local::b(path)); }
  void makeFolder(ustring const& path) override { local::makeFolders(local::b(path)); }
  bool present(ustring const& path) override { return local::present(local::b(path)); }
  void setModificationTime(ustring const& path, std::int64_t secondsSinceEpoch, long nanoseconds) override {
    local::setModificationTime(local::b(path), secondsSinceEpoch, nanoseconds);
  }

  FileAccessException::Code errorCode() const override { return FileAccessException::Code::RemoteError; }
  // "ls -1" leaves out names that begin with a dot.
  bool listShowsHiddenEntries() const override { return false; }
  // "ls -1" of a file prints the path given, which is then put after the
  // path and a slash like any entry of a folder.
  std::vector<ustring> listOfFile(ustring const& file) const override { return {file + u"/" + file}; }
  // "cd" into a missing folder fails before tar runs; "unzip -d" creates it.
  bool untarCreatesMissingDestination() const override { return false; }
  bool unzipCreatesMissingDestination() const override { return true; }

 private:
  local::TempDir dir_;
  UnixSSHFileAccess access_{TestSshd::instance().connect()};
};

INSTANTIATE_TEST_SUITE_P(Remote, ConformanceTest,
                         ::testing::Values(BackendFactory{"Remote", [] { return std::make_unique<RemoteBackend>(); }}),
                         backendName);

}  // namespace
}  // namespace sshfa::testing::conformance
