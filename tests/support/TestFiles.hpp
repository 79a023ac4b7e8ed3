#pragma once
// Contents and listings for tests that compare files with what they should be.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <random>
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

}  // namespace sshfa::testing
