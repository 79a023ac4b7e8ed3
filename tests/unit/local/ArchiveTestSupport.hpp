#pragma once
// Crafts archives entry by entry with libarchive's writer, and reads back the
// names and contents of an archive, independently of the code under test.

#include <archive.h>
#include <archive_entry.h>
#include <sys/sysmacros.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace sshfa::testing::local {

struct CraftedEntry {
  enum class Kind { File, Folder, Symlink, Hardlink, CharDevice };
  Kind kind = Kind::File;
  std::string name;
  std::string data;    // File
  std::string target;  // Symlink, Hardlink
};

inline CraftedEntry fileEntry(std::string name, std::string data) {
  return {CraftedEntry::Kind::File, std::move(name), std::move(data), {}};
}
inline CraftedEntry folderEntry(std::string name) { return {CraftedEntry::Kind::Folder, std::move(name), {}, {}}; }
inline CraftedEntry symlinkEntry(std::string name, std::string target) {
  return {CraftedEntry::Kind::Symlink, std::move(name), {}, std::move(target)};
}
inline CraftedEntry hardlinkEntry(std::string name, std::string target) {
  return {CraftedEntry::Kind::Hardlink, std::move(name), {}, std::move(target)};
}

enum class CraftedFormat { GnuTar, PaxTarGzip, Zip };

inline CraftedEntry charDeviceEntry(std::string name) {
  return {CraftedEntry::Kind::CharDevice, std::move(name), {}, {}};
}

// With a passphrase, zip entries are encrypted (traditional PKWARE).
inline void craftArchive(std::string const& path, CraftedFormat format, std::vector<CraftedEntry> const& entries,
                         std::string const& passphrase = {}) {
  archive* a = archive_write_new();
  switch (format) {
    case CraftedFormat::GnuTar:
      archive_write_set_format_gnutar(a);
      break;
    case CraftedFormat::PaxTarGzip:
      archive_write_set_format_pax_restricted(a);
      archive_write_add_filter_gzip(a);
      break;
    case CraftedFormat::Zip:
      archive_write_set_format_zip(a);
      break;
  }
  if (!passphrase.empty()) {
    archive_write_set_options(a, "zip:encryption=zipcrypt");
    archive_write_set_passphrase(a, passphrase.c_str());
  }
  if (archive_write_open_filename(a, path.c_str()) != ARCHIVE_OK) {
    const std::string message = archive_error_string(a);
    archive_write_free(a);
    throw std::runtime_error(message);
  }
  for (auto const& e : entries) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, e.name.c_str());
    archive_entry_set_perm(entry, 0644);
    archive_entry_set_mtime(entry, 1'000'000'000, 0);
    switch (e.kind) {
      case CraftedEntry::Kind::File:
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_size(entry, static_cast<la_int64_t>(e.data.size()));
        break;
      case CraftedEntry::Kind::Folder:
        archive_entry_set_filetype(entry, AE_IFDIR);
        archive_entry_set_perm(entry, 0755);
        break;
      case CraftedEntry::Kind::Symlink:
        archive_entry_set_filetype(entry, AE_IFLNK);
        archive_entry_set_symlink(entry, e.target.c_str());
        break;
      case CraftedEntry::Kind::Hardlink:
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_hardlink(entry, e.target.c_str());
        break;
      case CraftedEntry::Kind::CharDevice:
        archive_entry_set_filetype(entry, AE_IFCHR);
        archive_entry_set_rdev(entry, makedev(1, 3));
        break;
    }
    archive_write_header(a, entry);
    if (!e.data.empty()) archive_write_data(a, e.data.data(), e.data.size());
    archive_entry_free(entry);
  }
  archive_write_close(a);
  archive_write_free(a);
}

// Entry name -> contents (folders and links map to an empty string), and the
// names in archive order.
struct ReadArchive {
  std::vector<std::string> names;
  std::map<std::string, std::string> contents;
  std::string formatName;
};

inline ReadArchive readArchive(std::string const& path) {
  archive* a = archive_read_new();
  archive_read_support_filter_all(a);
  archive_read_support_format_all(a);
  if (archive_read_open_filename(a, path.c_str(), 10240) != ARCHIVE_OK) {
    const std::string message = archive_error_string(a);
    archive_read_free(a);
    throw std::runtime_error(message);
  }
  ReadArchive result;
  archive_entry* entry = nullptr;
  while (archive_read_next_header(a, &entry) == ARCHIVE_OK) {
    const std::string name = archive_entry_pathname(entry);
    result.names.push_back(name);
    std::string data;
    char buffer[4096];
    la_ssize_t got = 0;
    while ((got = archive_read_data(a, buffer, sizeof buffer)) > 0) data.append(buffer, static_cast<std::size_t>(got));
    result.contents[name] = data;
    result.formatName = archive_format_name(a);
  }
  archive_read_free(a);
  return result;
}

}  // namespace sshfa::testing::local
