#pragma once
// Helpers for tests of the local file system: a temporary folder removed at
// the end of the test, and byte-exact file set-up done with plain POSIX calls
// so that the code under test is not used to prepare its own fixtures.

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include <vector>

#include "sshfileaccess/platform/except/Exception.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/i18n/ustring.hpp"

namespace sshfa::testing::local {

using fl::ustring;

inline ustring u(std::string const& bytes) { return fl::i18n::utf8_to_ustring(bytes); }
inline std::string b(ustring const& text) { return fl::i18n::ustring_to_utf8(text); }

// The message of the platform layer's own exception thrown by `call`.
template <class Call>
std::string messageOf(Call&& call) {
  try {
    call();
  } catch (foundation::core::except::RuntimeError const& e) {
    return e.what();
  }
  ADD_FAILURE() << "no RuntimeError";
  return {};
}

inline std::vector<std::string> bytesOf(std::vector<ustring> const& texts) {
  std::vector<std::string> out;
  out.reserve(texts.size());
  for (auto const& t : texts) out.push_back(b(t));
  return out;
}

[[noreturn]] inline void failErrno(std::string const& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// A fresh empty folder below the system's temporary folder.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "sshfa-local-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) failErrno("mkdtemp");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;

  [[nodiscard]] std::string const& path() const { return path_; }
  // The path of `relative` inside the folder, as bytes and as ustring.
  [[nodiscard]] std::string at(std::string const& relative) const { return path_ + "/" + relative; }
  [[nodiscard]] ustring uat(std::string const& relative) const { return u(at(relative)); }

 private:
  std::string path_;
};

inline void makeFolders(std::string const& path) { std::filesystem::create_directories(path); }

inline void writeBytes(std::string const& path, std::string const& bytes) {
  const std::filesystem::path p(path);
  if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out << bytes;
}

inline std::string readBytes(std::string const& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) failErrno("open " + path);
  std::string bytes;
  char buffer[4096];
  ssize_t got = 0;
  while ((got = ::read(fd, buffer, sizeof buffer)) > 0) bytes.append(buffer, static_cast<std::size_t>(got));
  ::close(fd);
  if (got < 0) failErrno("read " + path);
  return bytes;
}

inline bool present(std::string const& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

inline void setModificationTime(std::string const& path, std::int64_t seconds, long nanoseconds) {
  const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), nanoseconds}};
  if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) failErrno("utimensat " + path);
}

inline timespec modificationTime(std::string const& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) failErrno("lstat " + path);
  return st.st_mtim;
}

inline std::uint64_t sizeOf(std::string const& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) failErrno("lstat " + path);
  return static_cast<std::uint64_t>(st.st_size);
}

inline void makeSymlink(std::string const& target, std::string const& link) {
  if (::symlink(target.c_str(), link.c_str()) != 0) failErrno("symlink " + link);
}

// Marks a path immutable (even root cannot remove what is inside an immutable
// folder); false where the file system or the privileges do not allow it.
inline bool setImmutable(std::string const& path, bool on) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  int flags = 0;
  bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  if (done) {
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    done = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  }
  ::close(fd);
  return done;
}

// Keeps a path immutable for the life of the guard.
class ImmutableGuard {
 public:
  explicit ImmutableGuard(std::string path) : path_(std::move(path)), active_(setImmutable(path_, true)) {}
  ~ImmutableGuard() {
    if (active_) setImmutable(path_, false);
  }
  ImmutableGuard(ImmutableGuard const&) = delete;
  ImmutableGuard& operator=(ImmutableGuard const&) = delete;
  [[nodiscard]] bool active() const { return active_; }

 private:
  std::string path_;
  bool active_;
};

// A path whose last element is longer than any file system allows.
inline std::string tooLongName(std::string const& folder) { return folder + "/" + std::string(300, 'n'); }

}  // namespace sshfa::testing::local
