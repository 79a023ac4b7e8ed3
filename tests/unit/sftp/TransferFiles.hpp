#pragma once
// File helpers shared by the transfer tests: random contents, whole-file
// reads and writes, folder listings that include hidden files, a lowered
// limit of open files.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/TestFiles.hpp"

namespace sshfa::testing {

inline void writeFile(std::filesystem::path const& path, std::string const& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

inline std::string readFile(std::filesystem::path const& path) {
  int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("cannot read " + path.string());
  std::string bytes;
  char buffer[65536];
  for (;;) {
    auto const n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return bytes;
}

inline unsigned permissionsOf(std::filesystem::path const& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) throw std::runtime_error("cannot stat " + path.string());
  return st.st_mode & 07777U;
}

// Memory-backed when the machine has it: creating thousands of files on a
// disk file system costs more than transferring them.
inline std::filesystem::path fastTempBase() {
  std::error_code ignored;
  if (::access("/dev/shm", W_OK) == 0 && std::filesystem::is_directory("/dev/shm", ignored)) return "/dev/shm";
  return std::filesystem::temp_directory_path();
}

// A fresh folder, removed with the object.
class ScratchDir {
 public:
  explicit ScratchDir(std::filesystem::path const& base = fastTempBase()) {
    auto pattern = (base / "sshfa-transfer-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    // Folders a test made read-only must become writable to be removed.
    for (auto it = std::filesystem::recursive_directory_iterator(path_, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
      if (it->is_directory(ignored)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                     ignored);
      }
    }
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(ScratchDir const&) = delete;
  ScratchDir& operator=(ScratchDir const&) = delete;

  [[nodiscard]] std::filesystem::path const& path() const noexcept { return path_; }
  [[nodiscard]] std::filesystem::path operator/(std::string const& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

// Lowers this process's soft limit of open files while it lives.
class OpenFileLimit {
 public:
  explicit OpenFileLimit(rlim_t soft) {
    ::getrlimit(RLIMIT_NOFILE, &saved_);
    struct rlimit lowered = saved_;
    lowered.rlim_cur = soft;
    ::setrlimit(RLIMIT_NOFILE, &lowered);
  }
  ~OpenFileLimit() { ::setrlimit(RLIMIT_NOFILE, &saved_); }
  OpenFileLimit(OpenFileLimit const&) = delete;
  OpenFileLimit& operator=(OpenFileLimit const&) = delete;

 private:
  struct rlimit saved_ {};
};

}  // namespace sshfa::testing
