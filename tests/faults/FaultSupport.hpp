#pragma once
// Helpers of the fault suite: files with known contents, the library and the
// tool against a test sshd, and the states a folder may be left in. The test
// server runs on this machine, so "remote" files are checked directly.
//
// Not thread-safe unless said otherwise; failures are GoogleTest failures.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "sshfileaccess/FileAccess.hpp"
#include "sshfileaccess/Utils.hpp"
#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "tests/cli/ToolProcess.hpp"
#include "tests/support/SshTestHelpers.hpp"
#include "tests/support/TestSshd.hpp"

namespace sshfa::testing {

namespace fs = std::filesystem;
using nimbal::remoteaccess::sshfileaccess::FileAccess;
using nimbal::remoteaccess::sshfileaccess::str2ustr;
using nimbal::remoteaccess::sshfileaccess::ustr2str;

inline std::string readFile(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void writeFile(fs::path const& path, std::string const& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// `size` bytes that differ with `seed` and with the position, so that a
// piece of one version never passes for the other.
inline std::string pattern(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  std::uint32_t state = 2654435761U * (seed + 1);
  for (auto& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

// Equality of two contents that stays readable for megabytes: sizes and the
// first difference, not the bytes.
inline ::testing::AssertionResult sameBytes(std::string const& actual, std::string const& expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  std::size_t at = 0;
  while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
  return ::testing::AssertionFailure() << "sizes " << actual.size() << " and " << expected.size()
                                       << ", first difference at byte " << at;
}

// A file of `size` bytes that takes no disk space (a hole), fast to make.
inline void writeSparse(fs::path const& path, std::uintmax_t size) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc);
  fs::resize_file(path, size);
}

// Regular files below `root` at any depth, relative name -> content.
inline std::map<std::string, std::string> filesBelow(fs::path const& root) {
  std::map<std::string, std::string> files;
  for (auto const& entry : fs::recursive_directory_iterator(root)) {
    if (entry.is_regular_file()) files[fs::relative(entry.path(), root).string()] = readFile(entry.path());
  }
  return files;
}

// Names in `folder` (not recursive), sorted.
inline std::vector<std::string> namesIn(fs::path const& folder) {
  std::vector<std::string> names;
  for (auto const& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// A transfer's temporary: ".NAME.sshfa-..." beside its destination.
inline bool isTemporary(std::string const& name) {
  return name.size() > 1 && name.front() == '.' && name.find(".sshfa-") != std::string::npos;
}

inline std::unique_ptr<ssh::SSHClient> connect(TestSshd const& server, ssh::SSHClientOptions const& options,
                                               std::string const& user = {}) {
  return std::make_unique<ssh::SSHClient>(
      str2ustr(server.host()), server.port(),
      ssh::AuthMethods{ssh::IdentityFileAuth{user.empty() ? server.user() : user, server.identityFile(), std::nullopt}},
      options);
}

// The tool's connection options for `server`, without ~/.ssh/config.
inline std::vector<std::string> toolConnection(TestSshd const& server, std::string const& user = {}) {
  return {"-H",
          server.host(),
          "-p",
          std::to_string(server.port()),
          "-u",
          user.empty() ? server.user() : user,
          "-i",
          server.identityFile(),
          "--known-hosts",
          server.knownHostsFile(),
          "-F",
          "/dev/null",
          "--batch"};
}

inline std::vector<std::string> joined(std::vector<std::string> first, std::vector<std::string> const& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

}  // namespace sshfa::testing
