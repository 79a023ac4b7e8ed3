#pragma once
// Whole-file reads and writes, and modification times, for the tool's tests.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/support/TestFiles.hpp"

namespace sshfa::testing {

inline std::string readFile(std::filesystem::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Creates the missing folders above `path`.
inline void writeFile(std::filesystem::path const& path, std::string const& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// Sets the modification (and access) time to `seconds` since the epoch.
inline void setTime(std::filesystem::path const& path, std::time_t seconds) {
  timespec const times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

}  // namespace sshfa::testing
