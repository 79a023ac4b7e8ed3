#pragma once
// Contents and listings for tests that compare files with what they should be.

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace sshfa::testing {

// `size` bytes that no compression or sparseness makes cheap; the same for
// the same seed.
inline std::string randomBytes(std::size_t size, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  std::string bytes(size, '\0');
  std::size_t i = 0;
  for (; i + 8 <= size; i += 8) {
    auto v = random();
    for (int k = 0; k < 8; ++k, v >>= 8U) bytes[i + static_cast<std::size_t>(k)] = static_cast<char>(v & 0xffU);
  }
  for (auto v = random(); i < size; ++i, v >>= 8U) bytes[i] = static_cast<char>(v & 0xffU);
  return bytes;
}

// Names in `folder`, hidden ones included, sorted.
inline std::vector<std::string> listNames(std::filesystem::path const& folder) {
  std::vector<std::string> names;
  for (auto const& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// Everything below a folder, by path relative to it: type and mode, time to
// the nanosecond, and bytes or link target. Links are not followed.
inline std::map<std::string, std::string> treeSnapshot(std::filesystem::path const& root) {
  std::map<std::string, std::string> entries;
  for (auto const& entry : std::filesystem::recursive_directory_iterator(root)) {
    struct stat st {};
    ::lstat(entry.path().c_str(), &st);
    std::string what = std::to_string(st.st_mode) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
                       std::to_string(st.st_mtim.tv_nsec) + " ";
    if (S_ISREG(st.st_mode)) {
      std::ifstream in(entry.path(), std::ios::binary);
      std::ostringstream bytes;
      bytes << in.rdbuf();
      what += bytes.str();
    }
    if (S_ISLNK(st.st_mode)) what += std::filesystem::read_symlink(entry.path()).string();
    entries[std::filesystem::relative(entry.path(), root).string()] = what;
  }
  return entries;
}

}  // namespace sshfa::testing
