#include "sshfileaccess/LocalFileAccess.hpp"

#include <gtest/gtest.h>

#include "tests/conformance/ConformanceTests.hpp"
#include "tests/unit/local/LocalTestSupport.hpp"

namespace sshfa::testing::conformance {
namespace {

using nimbal::remoteaccess::sshfileaccess::LocalFileAccess;
namespace local = sshfa::testing::local;

class LocalBackend : public Backend {
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

  FileAccessException::Code errorCode() const override { return FileAccessException::Code::LocalError; }
  bool listShowsHiddenEntries() const override { return true; }
  std::vector<ustring> listOfFile(ustring const& file) const override { return {file}; }
  bool untarCreatesMissingDestination() const override { return true; }
  bool unzipCreatesMissingDestination() const override { return true; }

 private:
  local::TempDir dir_;
  LocalFileAccess access_;
};

INSTANTIATE_TEST_SUITE_P(Local, ConformanceTest,
                         ::testing::Values(BackendFactory{"Local", [] { return std::make_unique<LocalBackend>(); }}),
                         backendName);

}  // namespace
}  // namespace sshfa::testing::conformance
