#include "sshfileaccess/LocalFileAccess.hpp"

#include <gtest/gtest.h>

#include "tests/conformance/ConformanceTests.hpp"
#include "tests/unit/local/LocalTestSupport.hpp"

namespace sshfa::testing::conformance {
namespace {

using nimbal::remoteaccess::sshfileaccess::LocalFileAccess;

class LocalBackend : public ThisMachineBackend<LocalFileAccess> {
 public:
  LocalBackend() : ThisMachineBackend(LocalFileAccess()) {}

  FileAccessException::Code errorCode() const override { return FileAccessException::Code::LocalError; }
  bool listShowsHiddenEntries() const override { return true; }
  std::vector<ustring> listOfFile(ustring const& file) const override { return {file}; }
  bool untarCreatesMissingDestination() const override { return true; }
  bool unzipCreatesMissingDestination() const override { return true; }
  bool unzipOverwritesExistingFiles() const override { return true; }
};

INSTANTIATE_TEST_SUITE_P(Local, ConformanceTest,
                         ::testing::Values(BackendFactory{"Local", [] { return std::make_unique<LocalBackend>(); }}),
                         backendName);

}  // namespace
}  // namespace sshfa::testing::conformance
