#pragma once
// This machine's side of a transfer: local folders listed into entries, and
// a destination written only through open folders.
//
// A LocalDir is an open folder. Below the folder a caller named, every
// folder is opened from its parent by one plain name with O_NOFOLLOW, and
// every file, link and folder is made, renamed, changed or removed by a plain
// name relative to its folder's descriptor. So nothing is ever written
// through a symbolic link (one the transfer made earlier, or one that was
// there already) and nothing lands outside the destination, whatever names
// a listing carried. Operations return 0 or an errno value; nothing throws
// but allocation. Not thread-safe.

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/transfer/Entry.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Plan.hpp"

namespace foundation::sshclient::internal::transfer {

// Owns a file descriptor.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(UniqueFd const&) = delete;
  UniqueFd& operator=(UniqueFd const&) = delete;
  ~UniqueFd() { reset(); }

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
  int release() noexcept;
  void reset() noexcept;
  // Closes and reports close()'s error (0 when fine).
  int close() noexcept;

 private:
  int fd_ = -1;
};

std::string errnoText(int error);

class LocalDir {
 public:
  // A folder the caller named: links in its path are followed. nullptr with
  // `error` set when it cannot be opened.
  static std::shared_ptr<LocalDir> open(std::string const& path, int& error);
  // A folder in this one, never through a link.
  std::shared_ptr<LocalDir> child(std::string const& name, int& error) const;

  [[nodiscard]] std::string const& path() const noexcept { return path_; }
  [[nodiscard]] int fd() const noexcept { return fd_.get(); }
  [[nodiscard]] std::string pathOf(std::string_view name) const;

  // Everything in it but "." and "..", links read, nothing followed.
  [[nodiscard]] Listing list() const;

  int makeFolder(std::string const& name, mode_t mode) const;
  int makeLink(std::string const& target, std::string const& name) const;
  // A new file (O_EXCL, never through a link) open for writing.
  int createFile(std::string const& name, mode_t mode, UniqueFd& out) const;
  // An existing regular file open for writing, never through a link.
  int openFile(std::string const& name, UniqueFd& out) const;
  // The same for reading.
  int openToRead(std::string const& name, UniqueFd& out) const;
  int rename(std::string const& from, std::string const& to) const;
  int removeFile(std::string const& name) const;
  // An empty folder in it.
  int removeFolder(std::string const& name) const;
  // Mode and times of a file or folder in it, never through a link.
  int setAttributes(std::string const& name, Kept const& wanted) const;
  // Mode and times of this folder itself.
  int setOwnAttributes(Kept const& wanted) const;

 private:
  int openExisting(std::string const& name, int flags, UniqueFd& out) const;
  LocalDir(UniqueFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}

  UniqueFd fd_;
  std::string path_;
};

// Mode and times on an open file: fchmod, then futimens. 0 or the errno, and
// which of the two failed.
int setAttributesOf(int fd, Kept const& wanted, bool& modeFailed);

// A local path's entry: lstat, or stat when `follow`. nullopt with `error`.
std::optional<Entry> localEntry(std::string const& path, bool follow, int& error);
// A local folder's entries (a source): lstat each, or stat when `follow`
// (a dangling link then stays a link). Links' texts are read.
Listing listLocalFolder(std::string const& path, bool follow);
// How many files this process may hold open: its soft limit (a large
// number where there is none).
[[nodiscard]] std::size_t openFileLimit() noexcept;
// The identity of a local folder, to tell a loop when links are followed.
std::optional<std::pair<dev_t, ino_t>> folderIdentity(std::string const& path);

}  // namespace foundation::sshclient::internal::transfer
