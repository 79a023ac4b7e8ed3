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

class RemoteBackend : public ThisMachineBackend<UnixSSHFileAccess> {
 public:
  RemoteBackend() : ThisMachineBackend(UnixSSHFileAccess(TestSshd::instance().connect())) {}

  FileAccessException::Code errorCode() const override { return FileAccessException::Code::RemoteError; }
  // "ls -1" leaves out names that begin with a dot.
  bool listShowsHiddenEntries() const override { return false; }
  // "ls -1" of a file prints the path given, which is then put after the
  // path and a slash like any entry of a folder.
  std::vector<ustring> listOfFile(ustring const& file) const override { return {file + u"/" + file}; }
  // "cd" into a missing folder fails before tar runs; "unzip -d" creates it.
  bool untarCreatesMissingDestination() const override { return false; }
  bool unzipCreatesMissingDestination() const override { return true; }
  // unzip without -o asks before replacing a file and, with no answer,
  // fails on its question.
  bool unzipOverwritesExistingFiles() const override { return false; }
};

INSTANTIATE_TEST_SUITE_P(Remote, ConformanceTest,
                         ::testing::Values(BackendFactory{"Remote", [] { return std::make_unique<RemoteBackend>(); }}),
                         backendName);

}  // namespace
}  // namespace sshfa::testing::conformance
