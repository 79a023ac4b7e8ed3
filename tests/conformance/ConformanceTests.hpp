#pragma once
// One suite of file-operation tests that every FileAccessInterface
// implementation must pass. A test binary instantiates it with a factory of
// its backend:
//
//   INSTANTIATE_TEST_SUITE_P(Local, ConformanceTest,
//                            ::testing::Values(BackendFactory{"Local", makeLocalBackend}), backendName);
//
// and compiles ConformanceTests.cpp beside it. The backend gives the
// operations under test, a fresh folder per test, and a way to set up and
// inspect fixtures on its side without the operations under test. Where the
// backends differ by design, the backend states its own answer.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/FileAccessInterface.hpp"
#include "tests/support/ArchivableTree.hpp"
#include "tests/unit/local/LocalTestSupport.hpp"

namespace sshfa::testing::conformance {

using nimbal::remoteaccess::sshfileaccess::FileAccessException;
using nimbal::remoteaccess::sshfileaccess::FileAccessInterface;
using nimbal::remoteaccess::sshfileaccess::ustring;

class Backend {
 public:
  virtual ~Backend() = default;

  virtual FileAccessInterface& access() = 0;
  // A fresh empty folder for one test: absolute, no trailing '/'.
  virtual ustring root() = 0;

  // Fixtures, set up and inspected directly on the backend's side.
  virtual void writeFile(ustring const& path, std::string const& bytes) = 0;  // makes the folders above
  [[nodiscard]] virtual std::string readFile(ustring const& path) = 0;
  virtual void makeFolder(ustring const& path) = 0;                           // and the folders above
  virtual void makeLink(std::string const& target, ustring const& link) = 0;  // makes the folders above
  [[nodiscard]] virtual bool present(ustring const& path) = 0;
  virtual void setModificationTime(ustring const& path, std::int64_t secondsSinceEpoch, long nanoseconds) = 0;
  // The tree of makeArchivableTree (tests/support/ArchivableTree.hpp) at
  // `root`, whose parent exists, and the snapshot of a tree.
  virtual void makeArchivableTree(ustring const& root) = 0;
  [[nodiscard]] virtual std::map<std::string, std::string> snapshot(ustring const& root) = 0;
  // Runs a shell command on the backend's side, to make archives with the
  // system's own tools.
  virtual void shell(std::string const& command) = 0;

  // Where the backends differ by design.
  [[nodiscard]] virtual FileAccessException::Code errorCode() const = 0;
  [[nodiscard]] virtual bool listShowsHiddenEntries() const = 0;
  // What list() answers for a regular file.
  [[nodiscard]] virtual std::vector<ustring> listOfFile(ustring const& file) const = 0;
  [[nodiscard]] virtual bool untarCreatesMissingDestination() const = 0;
  [[nodiscard]] virtual bool unzipCreatesMissingDestination() const = 0;
  // Whether unzip replaces files that the destination holds already.
  [[nodiscard]] virtual bool unzipOverwritesExistingFiles() const = 0;
  // Why the backend runs no programs (so no archives), or empty.
  [[nodiscard]] virtual std::string whyNoPrograms() const { return {}; }

 protected:
  Backend() = default;
  Backend(Backend const&) = default;
  Backend& operator=(Backend const&) = default;
};

namespace local = sshfa::testing::local;

// A backend whose files live on this machine (the local one, and the remote
// one over the loopback sshd): fixtures are set up with plain local calls in
// a fresh temporary folder, and the operations under test go through
// `Access`.
template <class Access>
class ThisMachineBackend : public Backend {
 public:
  FileAccessInterface& access() override { return access_; }
  ustring root() override { return local::u(dir_.path()); }

  void writeFile(ustring const& path, std::string const& bytes) override { local::writeBytes(local::b(path), bytes); }
  std::string readFile(ustring const& path) override { return local::readBytes(local::b(path)); }
  void makeFolder(ustring const& path) override { local::makeFolders(local::b(path)); }
  void makeLink(std::string const& target, ustring const& link) override {
    local::makeFolders(std::filesystem::path(local::b(link)).parent_path());
    local::makeSymlink(target, local::b(link));
  }
  bool present(ustring const& path) override { return local::present(local::b(path)); }
  void setModificationTime(ustring const& path, std::int64_t secondsSinceEpoch, long nanoseconds) override {
    local::setModificationTime(local::b(path), secondsSinceEpoch, nanoseconds);
  }
  void makeArchivableTree(ustring const& root) override { sshfa::testing::makeArchivableTree(local::b(root)); }
  std::map<std::string, std::string> snapshot(ustring const& root) override {
    return sshfa::testing::archiveSnapshot(local::b(root));
  }
  void shell(std::string const& command) override {
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
  }

 protected:
  explicit ThisMachineBackend(Access access) : access_(std::move(access)) {}

 private:
  local::TempDir dir_;
  Access access_;
};

struct BackendFactory {
  std::string name;
  // Null: the backend cannot be had here, and the tests are skipped.
  std::function<std::unique_ptr<Backend>()> make;
};

inline std::string backendName(::testing::TestParamInfo<BackendFactory> const& info) { return info.param.name; }

class ConformanceTest : public ::testing::TestWithParam<BackendFactory> {
 protected:
  void SetUp() override;

  FileAccessInterface& fa() { return backend_->access(); }
  Backend& side() { return *backend_; }
  // The path of `relative` (UTF-8) inside the test's folder.
  [[nodiscard]] ustring at(std::string const& relative) const;

 private:
  std::unique_ptr<Backend> backend_;
  ustring root_;
};

}  // namespace sshfa::testing::conformance
