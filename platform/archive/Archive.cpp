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
  void reset(int fd) noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

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

// The header of an entry with `st`'s type, permission bits, time and owner.
Entry entryOf(std::string const& name, struct stat const& st) {
  Entry entry = made(Entry(archive_entry_new()));
  archive_entry_set_pathname(entry.get(), name.c_str());
  archive_entry_set_filetype(entry.get(), st.st_mode & S_IFMT);
  archive_entry_set_perm(entry.get(), st.st_mode & 07777);
  archive_entry_set_size(entry.get(), S_ISREG(st.st_mode) ? st.st_size : 0);
  archive_entry_set_mtime(entry.get(), st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  archive_entry_set_uid(entry.get(), st.st_uid);
  archive_entry_set_gid(entry.get(), st.st_gid);
  return entry;
}

void writeEntry(::archive* writer, archive_entry* entry, std::string const& action) {
  if (archive_write_header(writer, entry) < ARCHIVE_WARN) fail(action, messageOf(writer));
  if (archive_write_finish_entry(writer) < ARCHIVE_WARN) fail(action, messageOf(writer));
}

// A regular file open at `fd`, with its header. The header announces `st`'s
// size: a file that grows meanwhile is cut there, one that shrinks is padded
// by the archive library.
void writeFile(::archive* writer, int fd, archive_entry* entry, struct stat const& st, std::string const& action) {
  if (archive_write_header(writer, entry) < ARCHIVE_WARN) fail(action, messageOf(writer));
  std::array<char, kBlockSize> buffer{};
  auto remaining = static_cast<std::uint64_t>(st.st_size);
  while (remaining > 0) {
    const ssize_t got = ::read(fd, buffer.data(), std::min<std::uint64_t>(remaining, buffer.size()));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail(action, osText(errno));
    if (got == 0) break;
    if (archive_write_data(writer, buffer.data(), static_cast<std::size_t>(got)) < 0) fail(action, messageOf(writer));
    remaining -= static_cast<std::uint64_t>(got);
  }
  if (archive_write_finish_entry(writer) < ARCHIVE_WARN) fail(action, messageOf(writer));
}

// The identity of a file, to leave the archive being written out of itself.
struct FileId {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(FileId const&) const = default;
};

std::string addAction(std::string const& fileBytes, std::string const& archiveBytes) {
  return "cannot add " + quotedPath(fileBytes) + " to archive " + quotedPath(archiveBytes);
}

// O_NONBLOCK: opening a FIFO must not wait for a writer; it is refused by type.
int openForReading(std::string const& fileBytes, int extraFlags) {
  return ::open(fileBytes.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | extraFlags);
}

void addFile(::archive* writer, ustring const& file, ustring const& entryName, std::string const& archiveBytes,
             FileId const& /*archiveId*/) {
  const std::string fileBytes = native_bytes(file);
  const std::string action = addAction(fileBytes, archiveBytes);
  const FileDescriptor fd(openForReading(fileBytes, 0));
  struct stat st {};
  if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0) fail(action, osText(errno));
  if (!S_ISREG(st.st_mode)) fail(action, "not a regular file");
  writeFile(writer, fd.get(), entryOf(native_bytes(entryName), st).get(), st, action);
}

std::string linkText(std::string const& fileBytes, std::string const& action) {
  std::string text(256, '\0');
  for (;;) {
    const ssize_t got = ::readlink(fileBytes.c_str(), text.data(), text.size());
    if (got < 0) fail(action, osText(errno));
    if (static_cast<std::size_t>(got) < text.size()) return text.substr(0, static_cast<std::size_t>(got));
    text.resize(text.size() * 2);
  }
}

// `path` as what it is, never followed.
void addTreeEntry(::archive* writer, ustring const& path, ustring const& entryName, std::string const& archiveBytes,
                  FileId const& archiveId) {
  const std::string fileBytes = native_bytes(path);
  const std::string action = addAction(fileBytes, archiveBytes);
  struct stat st {};
  if (::lstat(fileBytes.c_str(), &st) != 0) fail(action, osText(errno));
  if (FileId{st.st_dev, st.st_ino} == archiveId) return;
  std::string name = native_bytes(entryName);
  if (S_ISDIR(st.st_mode)) {
    if (!name.ends_with('/')) name.push_back('/');
    writeEntry(writer, entryOf(name, st).get(), action);
  } else if (S_ISLNK(st.st_mode)) {
    const Entry entry = entryOf(name, st);
    archive_entry_set_symlink(entry.get(), linkText(fileBytes, action).c_str());
    writeEntry(writer, entry.get(), action);
  } else if (S_ISREG(st.st_mode)) {
    // O_NOFOLLOW: a link that took the file's place meanwhile is not read.
    const FileDescriptor fd(openForReading(fileBytes, O_NOFOLLOW));
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0) fail(action, osText(errno));
    if (!S_ISREG(st.st_mode)) fail(action, "not a regular file");
    writeFile(writer, fd.get(), entryOf(name, st).get(), st, action);
  } else {
    fail(action, "not a regular file, folder or symbolic link");
  }
}

// A new archive at `archiveBytes` in `format`, open for writing.
Writer openWriter(std::string const& archiveBytes, ustring const& format, std::string const& action) {
  Writer writer = made(Writer(archive_write_new()));
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
  return writer;
}

// Writes entry i of `paths` under entryNames[i] with `add`, then completes
// the archive. `add` is told the archive's own identity.
template <class Add>
std::vector<ustring> writeArchive(ustring const& archivePath, std::vector<ustring> const& paths,
                                  std::vector<ustring> const& entryNames, ustring const& format, Add&& add) {
  const std::string archiveBytes = native_bytes(archivePath);
  const std::string action = "cannot write archive " + quotedPath(archiveBytes);
  if (paths.size() != entryNames.size()) {
    fail(action, std::to_string(paths.size()) + " files but " + std::to_string(entryNames.size()) + " entry names");
  }
  const Writer writer = openWriter(archiveBytes, format, action);
  struct stat st {};
  const FileId archiveId = ::stat(archiveBytes.c_str(), &st) == 0 ? FileId{st.st_dev, st.st_ino} : FileId{};
  for (std::size_t i = 0; i < paths.size(); ++i) add(writer.get(), paths[i], entryNames[i], archiveBytes, archiveId);
  if (archive_write_close(writer.get()) != ARCHIVE_OK) fail(action, messageOf(writer.get()));
  return entryNames;
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

// A folder entry of an archive, by its name in the archive, and its time.
struct FolderTime {
  std::string name;
  timespec mtime;
};

// The archive library sets the time of a folder that already existed as soon
// as it meets its entry, and entries written into it afterwards change that
// time again; GNU tar sets it once everything is written, and so does this.
// Each folder is reached from the destination one name at a time without
// following a link, since a later entry may have put a link in a folder's
// place: no time outside the destination is touched. Best effort: a folder
// that cannot be reached so is left as it is.
void restoreFolderTimes(std::string const& root, std::vector<FolderTime> const& folders) {
  for (auto const& folder : folders) {
    std::vector<std::string> names;
    for (std::size_t start = 0; start <= folder.name.size();) {
      const std::size_t end = std::min(folder.name.find('/', start), folder.name.size());
      std::string name = folder.name.substr(start, end - start);
      if (!name.empty() && name != ".") names.push_back(std::move(name));
      start = end + 1;
    }
    if (names.empty()) names.emplace_back(".");
    FileDescriptor at(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (std::size_t i = 0; i + 1 < names.size() && at.get() >= 0; ++i) {
      at.reset(::openat(at.get(), names[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    struct stat st {};
    if (at.get() < 0 || ::fstatat(at.get(), names.back().c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISDIR(st.st_mode)) {
      continue;
    }
    const timespec times[2] = {{0, UTIME_OMIT}, folder.mtime};
    ::utimensat(at.get(), names.back().c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
}

}  // namespace

std::vector<ustring> createArchive(ustring const& archivePath, std::vector<ustring> const& files,
                                   std::vector<ustring> const& entryNames, ustring const& format) {
  return writeArchive(archivePath, files, entryNames, format, addFile);
}

std::vector<ustring> createTreeArchive(ustring const& archivePath, std::vector<ustring> const& paths,
                                       std::vector<ustring> const& entryNames, ustring const& format) {
  return writeArchive(archivePath, paths, entryNames, format, addTreeEntry);
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
  std::vector<FolderTime> folders;
  for (;;) {
    archive_entry* entry = nullptr;
    const int status = archive_read_next_header(reader.get(), &entry);
    if (status == ARCHIVE_EOF) break;
    if (status < ARCHIVE_WARN) fail(action, messageOf(reader.get()));
    const bool timedFolder = archive_entry_filetype(entry) == AE_IFDIR && archive_entry_mtime_is_set(entry) != 0 &&
                             archive_entry_pathname(entry) != nullptr;
    if (timedFolder) {
      folders.push_back({archive_entry_pathname(entry),
                         {archive_entry_mtime(entry), static_cast<long>(archive_entry_mtime_nsec(entry))}});
    }
    written.push_back(extractEntry(reader.get(), disk.get(), entry, prefix, archiveBytes));
  }
  if (archive_write_close(disk.get()) != ARCHIVE_OK) fail(action, messageOf(disk.get()));
  restoreFolderTimes(root.native(), folders);
  return written;
}

}  // namespace velmar::io::archive::core
