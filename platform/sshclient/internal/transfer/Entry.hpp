#pragma once
// The entry record that every listing produces, local or remote, source or
// destination: a name as its bytes and what lstat (or the SFTP attributes of
// a READDIR answer) says of it. A folder's listing is its entries sorted by
// name, with what went wrong while reading it.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace foundation::sshclient::internal::transfer {

enum class EntryType : std::uint8_t { File, Folder, Link, Fifo, Socket, Device, Other };

struct Entry {
  std::string name;  // bytes; never "", ".", ".." or holding '/' or NUL
  EntryType type = EntryType::File;
  std::optional<std::uint32_t> mode;  // 07777 bits, when known
  std::uint64_t size = 0;
  std::optional<std::uint32_t> mtime;
  std::optional<std::uint32_t> atime;
  std::optional<std::string> linkTarget;  // a link's text, once read
  bool followed = false;                  // a link taken as what it points to
};

struct Listing {
  std::vector<Entry> entries;  // sorted by name
  // Why the folder could not be read (wholly): its entries may be partial.
  std::string error;
  // Entries that could not be looked at, one failure each.
  std::vector<std::string> problems;
  // Names the lister never joined to a path (suspect ones): one note each.
  std::vector<std::string> suspects;

  // The entry of that name, or null.
  [[nodiscard]] Entry const* find(std::string_view name) const;
  void sort();
};

// The type of st_mode / SFTP permission bits (S_IFMT), a missing type taken
// as a regular file.
[[nodiscard]] EntryType typeOfMode(std::uint32_t mode) noexcept;

}  // namespace foundation::sshclient::internal::transfer
