#pragma once
// Whole-file reads and writes for the tool's tests.

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

}  // namespace sshfa::testing
