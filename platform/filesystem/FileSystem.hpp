#pragma once
// File-system layer (fl::filesystem) for POSIX systems: status, existence,
// copy, rename, recursive removal, folder creation, modification times, an
// output file stream, and single-level and recursive directory iteration.
//
// Paths are ustring. They reach the OS as the lossless UTF-8 of fl::i18n, so a
// name that is not valid UTF-8 is listed, examined, copied and removed like
// any other; a path holding a NUL character is refused.
//
// Failures throw foundation::core::except::RuntimeError naming the action,
// the path and the OS text, e.g. "cannot remove '/x/y': Permission denied".
// A missing path is no failure for status() (it carries file_not_found),
// exists() and remove_all().
//
// Symbolic links: status() and exists() follow them. copy(), remove_all() and
// upath_recursive_directory_iterator never follow a link into a folder (a
// link is copied, removed or listed as a link), so a link loop cannot make
// them recurse forever. remove_all() of "link/" (a trailing '/' names the
// folder behind the link) removes nothing and fails with ENOTDIR.
//
// No state; every call is as thread-safe as the OS calls it makes. Iterators
// are input iterators whose copies share one position.

#include <boost/date_time/posix_time/ptime.hpp>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "sshfileaccess/platform/i18n/ustring.hpp"

namespace fl::filesystem {

class file_status {
 public:
  using bits_type = unsigned;

  // The type of an entry is bits() & file_type_mask.
  static constexpr bits_type type_unknown = 0;
  static constexpr bits_type regular_file = 1;
  static constexpr bits_type directory_file = 2;
  static constexpr bits_type symlink_file = 3;
  static constexpr bits_type block_file = 4;
  static constexpr bits_type character_file = 5;
  static constexpr bits_type fifo_file = 6;
  static constexpr bits_type socket_file = 7;
  static constexpr bits_type file_type_mask = 0x0F;
  // Set alone (type_unknown) when nothing exists at the path.
  static constexpr bits_type file_not_found = 0x10;

  file_status(bits_type bits, std::uint64_t size, boost::posix_time::ptime lastWriteTime)
      : bits_(bits), size_(size), lastWriteTime_(lastWriteTime) {}

  [[nodiscard]] bits_type bits() const noexcept { return bits_; }
  // As the file system reports it (for a folder, its own allocation size).
  [[nodiscard]] std::uint64_t size() const noexcept { return size_; }
  // UTC, to the microsecond; not-a-date-time for a missing path.
  [[nodiscard]] boost::posix_time::ptime last_write_time() const noexcept { return lastWriteTime_; }

 private:
  bits_type bits_;
  std::uint64_t size_;
  boost::posix_time::ptime lastWriteTime_;
};

// Follows symbolic links. A missing path (or one whose folder part is a file)
// gives file_not_found; any other failure throws.
file_status status(ustring const& path);
// As status(), but a symbolic link reports symlink_file. A path that ends in
// '/' is followed all the same, as the OS resolves it.
file_status symlink_status(ustring const& path);
bool exists(ustring const& path);

enum class copy_option : unsigned {
  none = 0,
  overwrite_existing = 1,  // replace an existing file
  skip_existing = 2,       // keep an existing file
  update_existing = 4,     // replace an existing file only when it is older
  recursive = 8,           // copy folders with everything in them
};
constexpr copy_option operator|(copy_option a, copy_option b) {
  return static_cast<copy_option>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr bool has_option(copy_option set, copy_option bit) {
  return (static_cast<unsigned>(set) & static_cast<unsigned>(bit)) != 0;
}

// Copies a file, a symbolic link (as a link) or, with `recursive`, a folder
// tree into `to`; an existing destination folder receives the entries
// (merged). Without an overwrite choice an existing destination file is an
// error. A folder cannot be copied into itself.
void copy(ustring const& from, ustring const& to, copy_option options);

struct rename_options {
  bool no_replace = false;  // fail instead of replacing an existing destination
};
// rename(2): same file system only; an existing destination file is replaced
// unless `no_replace`.
void rename(ustring const& from, ustring const& to, rename_options const& options);

// Removes the path and, for a folder, everything beneath it. Returns the
// number of entries removed (0 for a missing path). A symbolic link is
// removed as a link. A path ending in '/' names a folder only: a link there
// fails ("cannot remove 'dir/link/': Not a directory") and a file is not
// there. Refused without touching anything: the paths detail::removal_refusal
// names.
std::uintmax_t remove_all(ustring const& path);

// Creates the folder and every missing folder above it. Returns whether it
// created anything; an existing folder is no error, and the empty path (the
// current folder) needs nothing.
bool create_directories(ustring const& path);

// Sets the modification time (the access time stays).
void last_write_time(ustring const& path, boost::posix_time::ptime time);

// A file stream opened by the byte form of a path
// (detail::make_native_access_form_with_cleanup_i18n). Like the standard
// stream, a failed open sets failbit and throws nothing.
template <class CharT, class Traits = std::char_traits<CharT>>
class basic_ofstream : public std::basic_ofstream<CharT, Traits> {
 public:
  basic_ofstream() = default;
  explicit basic_ofstream(std::string const& nativeAccessPath, std::ios_base::openmode mode = std::ios_base::out)
      : std::basic_ofstream<CharT, Traits>(nativeAccessPath, mode) {}
};

class directory_entry {
 public:
  directory_entry(ustring fileName, ustring pathName, std::optional<file_status> ownStatus)
      : fileName_(std::move(fileName)), pathName_(std::move(pathName)), status_(ownStatus) {}

  [[nodiscard]] ustring const& file_name() const noexcept { return fileName_; }
  // The iterated folder's path joined with file_name() by one '/'.
  [[nodiscard]] ustring const& path_name() const noexcept { return pathName_; }
  // The entry's own status: a symbolic link reports symlink_file. Looked up
  // on first use when the iteration did not need it.
  [[nodiscard]] file_status const& status() const;

 private:
  ustring fileName_;
  ustring pathName_;
  mutable std::optional<file_status> status_;
};

// Initialisation modes of upath_directory_iterator.
inline constexpr int report_open_errors = 0;  // a folder that cannot be opened throws
inline constexpr int skip_unopenable = 1;     // ... gives an empty iteration

// The entries of one folder in the order the OS delivers them. With
// `skipDots` false the "." and ".." entries are delivered too, as the OS
// lists them. A default-constructed iterator is the end; errors while
// reading throw.
class upath_directory_iterator {
 public:
  upath_directory_iterator() = default;
  upath_directory_iterator(ustring const& path, int mode, bool skipDots);

  directory_entry const& operator*() const;
  directory_entry const* operator->() const { return &**this; }
  upath_directory_iterator& operator++();
  friend bool operator==(upath_directory_iterator const& a, upath_directory_iterator const& b) {
    return a.state_ == b.state_;
  }

 private:
  struct State;
  std::shared_ptr<State> state_;
};

// Every entry beneath a folder at any depth, a folder before its contents,
// never "." or "..". Symbolic links are delivered as entries (their status is
// symlink_file) and never descended into. A folder that cannot be opened
// throws. A default-constructed iterator is the end.
class upath_recursive_directory_iterator {
 public:
  upath_recursive_directory_iterator() = default;
  explicit upath_recursive_directory_iterator(ustring const& path);

  directory_entry const& operator*() const;
  directory_entry const* operator->() const { return &**this; }
  upath_recursive_directory_iterator& operator++();
  friend bool operator==(upath_recursive_directory_iterator const& a, upath_recursive_directory_iterator const& b) {
    return a.state_ == b.state_;
  }

 private:
  struct State;
  std::shared_ptr<State> state_;
};

namespace detail {
// The bytes the OS sees for a path (lossless UTF-8). Throws for a path
// holding a NUL character, which would otherwise cut it short silently.
std::string native_bytes(ustring const& path);

// Why remove_all refuses `bytes` by its text alone, or nullptr: the root
// folder, and a path whose last name is "." or "..", which would empty a
// folder that the path does not name itself (rm refuses both too).
char const* removal_refusal(std::string_view bytes);
}  // namespace detail

}  // namespace fl::filesystem
