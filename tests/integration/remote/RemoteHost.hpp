#pragma once
// Fixture for UnixSSHFileAccess against the test sshd: one connection per test
// suite, a fresh temporary folder per test, and checks that look at the host
// over the same connection without going through the library's quoting (every
// path is rebuilt on the host by printf from octal escapes).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/date_time/gregorian/gregorian.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/UnixSSHFileAccess.hpp"
#include "sshfileaccess/Utils.hpp"
#include "tests/support/TestSshd.hpp"

namespace sshfa::testing {

using fl::ustring;
using nimbal::remoteaccess::sshfileaccess::FileAccessException;
using nimbal::remoteaccess::sshfileaccess::FileAccessInterface;
using nimbal::remoteaccess::sshfileaccess::FileInfo;
using nimbal::remoteaccess::sshfileaccess::str2ustr;
using nimbal::remoteaccess::sshfileaccess::UnixSSHFileAccess;
using nimbal::remoteaccess::sshfileaccess::ustr2str;
using Paths = FileAccessInterface::PathList;
using Pairs = FileAccessInterface::PathPairs;

// A shell word that expands to exactly `path` (which must not end in a line
// feed): "$(printf '\ooo\ooo...')".
inline ustring hostWord(ustring const& path) {
  std::string word = "\"$(printf '";
  for (const char byte : ustr2str(path)) {
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\%03o", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    word += escape;
  }
  word += "')\"";
  return str2ustr(word);
}

class RemoteHostTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { remote_ = std::make_unique<UnixSSHFileAccess>(TestSshd::instance().connect()); }
  static void TearDownTestSuite() { remote_.reset(); }

  void SetUp() override { dir_ = str2ustr(TestSshd::makeTempDir().string()); }

  [[nodiscard]] ustring at(ustring const& name) const { return dir_ + u"/" + name; }

  // Runs a setup or check command that must succeed quietly; returns its output.
  static ustring run(ustring const& command) {
    const auto result = remote_->execute(command);
    EXPECT_EQ(result.getExitcode(), 0) << ustr2str(command) << ": " << ustr2str(result.getStderr());
    EXPECT_EQ(result.getStderr(), u"") << ustr2str(command);
    return result.getStdout();
  }
  static bool hostTest(char const* flag, ustring const& path) {
    return remote_->execute(u"test " + str2ustr(flag) + u" " + hostWord(path) + u" && echo yes").getStdout() ==
           u"yes\n";
  }
  static bool hostExists(ustring const& path) { return hostTest("-e", path) || hostTest("-L", path); }
  static bool hostIsFile(ustring const& path) { return hostTest("-f", path); }
  static bool hostIsDir(ustring const& path) { return hostTest("-d", path); }
  static ustring hostRead(ustring const& path) { return run(u"cat " + hostWord(path)); }
  static void hostWrite(ustring const& path, std::string const& content) {
    run(u"printf '%s' '" + str2ustr(content) + u"' > " + hostWord(path));
  }
  static void hostMakeDir(ustring const& path) { run(u"mkdir -p " + hostWord(path)); }
  static long long hostMtime(ustring const& path) { return std::stoll(ustr2str(run(u"stat -c %Y " + hostWord(path)))); }
  // Number of entries below `dir` at any depth (names with line feeds count once).
  static std::size_t hostCount(ustring const& dir) {
    return run(u"find " + hostWord(dir) + u" -mindepth 1 -printf x").size();
  }

  static inline std::unique_ptr<UnixSSHFileAccess> remote_;
  ustring dir_;
};

template <class Action>
std::string remoteErrorOf(Action&& action) {
  try {
    action();
  } catch (FileAccessException const& e) {
    EXPECT_EQ(e.code(), FileAccessException::Code::RemoteError);
    return e.what();
  }
  ADD_FAILURE() << "expected FileAccessException(RemoteError)";
  return {};
}

}  // namespace sshfa::testing
