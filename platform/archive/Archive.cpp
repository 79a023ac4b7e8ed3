#include "sshfileaccess/platform/archive/Archive.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <system_error>

#include "sshfileaccess/platform/except/Exception.hpp"
#include "sshfileaccess/platform/filesystem/FileSystem.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"

namespace velmar::io::archive::core {
namespace {

using fl::ustring;
using fl::filesystem::detail::native_bytes;

struct WriterFree {
  void operator()(::archive* a) const noexcept { archive_write_free(a); }
};
struct ReaderFree {
  void operator()(::archive* a) const noexcept { archive_read_free(a); }
};
struct EntryFree {
  void operator()(archive_entry* e) const noexcept { archive_entry_free(e); }
};
using Writer = std::unique_ptr<::archive, WriterFree>;
using Reader = std::unique_ptr<::archive, ReaderFree>;
using Entry = std::unique_ptr<archive_entry, EntryFree>;

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor const&) = delete;
  FileDescriptor& operator=(FileDescriptor const&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  [[nodiscard]] int get() const noexcept { return fd_; }

 private:
  int fd_;
};

template <class Handle>
Handle made(Handle handle) {
  if (!handle) throw std::bad_alloc();
  return handle;
}

std::string quotedPath(std::string const& bytes) { return "'" + bytes + "'"; }

std::string osText(int err) { return std::generic_category().message(err); }

// The one throw site: "<action>: <reason>".
[[noreturn]] void fail(std::string const& action, std::string const& reason) {
  foundation::core::except::throwRuntimeError(action + ": " + reason);
}

std::string messageOf(::archive* a) {
  const char* text = archive_error_string(a);
  return text != nullptr ? text : "unknown archive error";
}

// A failed open names only the file; the OS reason is in the errno beside it.
// The library reports a bad format as EILSEQ and bad use as EINVAL; those
// are not OS reasons.
std::string openMessageOf(::archive* a) {
  const int err = archive_errno(a);
  const bool osReason = err > 0 && err != EILSEQ && err != EINVAL;
  return osReason ? messageOf(a) + ": " + osText(err) : messageOf(a);
}

constexpr std::size_t kBlockSize = 64 * 1024;

void addFile(::archive* writer, ustring const& file, ustring const& entryName, std::string const& archiveBytes) {
  const std::string fileBytes = native_bytes(file);
  const std::string action = "cannot add " + quotedPath(fileBytes) + " to archive " + quotedPath(archiveBytes);
  // O_NONBLOCK: opening a FIFO must not wait for a writer; it is refused below.
  const FileDescriptor fd(::open(fileBytes.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat st {};
  if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0) fail(action, osText(errno));
  if (!S_ISREG(st.st_mode)) fail(action, "not a regular file");

  const Entry entry = made(Entry(archive_entry_new()));
  archive_entry_set_pathname(entry.get(), native_bytes(entryName).c_str());
  archive_entry_set_filetype(entry.get(), AE_IFREG);
  archive_entry_set_perm(entry.get(), st.st_mode & 07777);
  archive_entry_set_size(entry.get(), st.st_size);
  archive_entry_set_mtime(entry.get(), st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  archive_entry_set_uid(entry.get(), st.st_uid);
  archive_entry_set_gid(entry.get(), st.st_gid);
  if (archive_write_header(writer, entry.get()) < ARCHIVE_WARN) fail(action, messageOf(writer));

  // The header announced st_size bytes; a file that grows meanwhile is cut
  // there, one that shrinks is padded by the archive library.
  std::array<char, kBlockSize> buffer{};
  auto remaining = static_cast<std::uint64_t>(st.st_size);
  while (remaining > 0) {
    const ssize_t got = ::read(fd.get(), buffer.data(), std::min<std::uint64_t>(remaining, buffer.size()));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail(action, osText(errno));
    if (got == 0) break;
    if (archive_write_data(writer, buffer.data(), static_cast<std::size_t>(got)) < 0) fail(action, messageOf(writer));
    remaining -= static_cast<std::uint64_t>(got);
  }
  if (archive_write_finish_entry(writer) < ARCHIVE_WARN) fail(action, messageOf(writer));
}

// Everything is written below `prefix` (the canonical destination followed by
// '/'). Joining makes every name absolute, so absolute names are refused here
// rather than by ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS, which would then
// refuse every entry; ".." and writes through links are left to the
// ARCHIVE_EXTRACT_SECURE_* checks on the joined name.
ustring extractEntry(::archive* reader, ::archive* disk, archive_entry* entry, std::string const& prefix,
                     std::string const& archiveBytes) {
  const char* rawName = archive_entry_pathname(entry);
  if (rawName == nullptr) rawName = archive_entry_pathname_utf8(entry);
  if (rawName == nullptr) fail("cannot extract archive " + quotedPath(archiveBytes), "an entry has no name");
  const std::string name = rawName;
  const std::string action = "cannot extract " + quotedPath(name) + " from archive " + quotedPath(archiveBytes);
  if (name.starts_with('/')) fail(action, "Path is absolute");
  if (const char* link = archive_entry_hardlink(entry)) {
    if (link[0] == '/') fail(action, "Hard link target " + quotedPath(link) + " is absolute");
    archive_entry_set_hardlink(entry, (prefix + link).c_str());
  }
  const auto type = archive_entry_filetype(entry);
  if (type == AE_IFCHR || type == AE_IFBLK) fail(action, "device entries are not extracted");
  const std::string target = prefix + name;
  archive_entry_set_pathname(entry, target.c_str());

  if (archive_write_header(disk, entry) < ARCHIVE_WARN) fail(action, messageOf(disk));
  const void* block = nullptr;
  std::size_t size = 0;
  la_int64_t offset = 0;
  int status = ARCHIVE_OK;
  while ((status = archive_read_data_block(reader, &block, &size, &offset)) == ARCHIVE_OK) {
    if (archive_write_data_block(disk, block, size, offset) < ARCHIVE_WARN) fail(action, messageOf(disk));
  }
  if (status < ARCHIVE_WARN) fail(action, messageOf(reader));
  if (archive_write_finish_entry(disk) < ARCHIVE_WARN) fail(action, messageOf(disk));
  return fl::i18n::utf8_to_ustring(target);
}

}  // namespace

std::vector<ustring> createArchive(ustring const& archivePath, std::vector<ustring> const& files,
                                   std::vector<ustring> const& entryNames, ustring const& format) {
  const std::string archiveBytes = native_bytes(archivePath);
  const std::string action = "cannot write archive " + quotedPath(archiveBytes);
  if (files.size() != entryNames.size()) {
    fail(action, std::to_string(files.size()) + " files but " + std::to_string(entryNames.size()) + " entry names");
  }
  const Writer writer = made(Writer(archive_write_new()));
  // GNU tar format keeps names as raw bytes (no charset conversion) and has
  // no length limits; every tar reader in use understands it.
  int status = ARCHIVE_FATAL;
  if (format == u"tar") {
    status = archive_write_set_format_gnutar(writer.get());
  } else if (format == u"zip") {
    status = archive_write_set_format_zip(writer.get());
  } else {
    fail(action, "unknown format " + quotedPath(fl::i18n::ustring_to_utf8(format)));
  }
  if (status != ARCHIVE_OK) fail(action, messageOf(writer.get()));
  if (archive_write_open_filename(writer.get(), archiveBytes.c_str()) != ARCHIVE_OK) {
    fail(action, openMessageOf(writer.get()));
  }
  for (std::size_t i = 0; i < files.size(); ++i) addFile(writer.get(), files[i], entryNames[i], archiveBytes);
  if (archive_write_close(writer.get()) != ARCHIVE_OK) fail(action, messageOf(writer.get()));
  return entryNames;
}

std::vector<ustring> extractArchive(ustring const& archivePath, ustring const& destinationFolder, ustring const& format,
                                    ustring const& passphrase) {
  const std::string archiveBytes = native_bytes(archivePath);
  const std::string action = "cannot extract archive " + quotedPath(archiveBytes);
  const bool tar = format.empty() || format == u"tar";
  const bool zip = format.empty() || format == u"zip";
  if (!tar && !zip) fail(action, "unknown format " + quotedPath(fl::i18n::ustring_to_utf8(format)));

  const Reader reader = made(Reader(archive_read_new()));
  archive_read_support_filter_all(reader.get());
  if (tar) {
    archive_read_support_format_tar(reader.get());
    archive_read_support_format_empty(reader.get());
  }
  if (zip) archive_read_support_format_zip(reader.get());
  if (!passphrase.empty() &&
      archive_read_add_passphrase(reader.get(), native_bytes(passphrase).c_str()) != ARCHIVE_OK) {
    fail(action, messageOf(reader.get()));
  }
  if (archive_read_open_filename(reader.get(), archiveBytes.c_str(), kBlockSize) != ARCHIVE_OK) {
    fail(action, openMessageOf(reader.get()));
  }

  fl::filesystem::create_directories(destinationFolder);
  const std::string destinationBytes = native_bytes(destinationFolder);
  std::error_code ec;
  // Canonical, so that the destination itself holds no ".." and no link for
  // the security checks to trip over.
  const std::filesystem::path root = std::filesystem::canonical(destinationBytes, ec);
  if (ec) fail(action + " into " + quotedPath(destinationBytes), ec.message());
  const std::string prefix = root.native() == "/" ? root.native() : root.native() + "/";

  const Writer disk = made(Writer(archive_write_disk_new()));
  archive_write_disk_set_options(disk.get(), ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM |
                                                 ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_SECURE_SYMLINKS);
  std::vector<ustring> written;
  for (;;) {
    archive_entry* entry = nullptr;
    const int status = archive_read_next_header(reader.get(), &entry);
    if (status == ARCHIVE_EOF) break;
    if (status < ARCHIVE_WARN) fail(action, messageOf(reader.get()));
    written.push_back(extractEntry(reader.get(), disk.get(), entry, prefix, archiveBytes));
  }
  if (archive_write_close(disk.get()) != ARCHIVE_OK) fail(action, messageOf(disk.get()));
  return written;
}

}  // namespace velmar::io::archive::core
