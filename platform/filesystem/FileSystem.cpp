#include "sshfileaccess/platform/filesystem/FileSystem.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <vector>

#include "sshfileaccess/platform/except/Exception.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"

namespace fl::filesystem {
namespace {

namespace stdfs = std::filesystem;
using boost::posix_time::ptime;

std::string quotedPath(std::string const& bytes) { return "'" + bytes + "'"; }

std::error_code errorCode(int err) { return {err, std::generic_category()}; }

// The one throw site of the layer: "<action>: <reason>", mostly the OS text.
[[noreturn]] void fail(std::string const& action, std::string const& reason) {
  foundation::core::except::throwRuntimeError(action + ": " + reason);
}

[[noreturn]] void fail(std::string const& action, std::error_code const& ec) { fail(action, ec.message()); }

const ptime kEpoch(boost::gregorian::date(1970, 1, 1));

ptime toPtime(timespec const& ts) {
  return kEpoch + boost::posix_time::seconds(ts.tv_sec) + boost::posix_time::microseconds(ts.tv_nsec / 1000);
}

file_status::bits_type typeBits(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return file_status::regular_file;
    case S_IFDIR:
      return file_status::directory_file;
    case S_IFLNK:
      return file_status::symlink_file;
    case S_IFBLK:
      return file_status::block_file;
    case S_IFCHR:
      return file_status::character_file;
    case S_IFIFO:
      return file_status::fifo_file;
    case S_IFSOCK:
      return file_status::socket_file;
    default:
      return file_status::type_unknown;
  }
}

const file_status kNotFound(file_status::file_not_found, 0, ptime());

// fstatat(2) as a status record; nullopt when nothing is there. `shownPath`
// builds the path for the message only when there is one to write.
template <class ShownPath>
std::optional<file_status> statusAt(int dirFd, char const* name, int flags, ShownPath&& shownPath) {
  struct stat st {};
  if (::fstatat(dirFd, name, &st, flags) == 0) {
    return file_status(typeBits(st.st_mode), static_cast<std::uint64_t>(st.st_size), toPtime(st.st_mtim));
  }
  const int err = errno;
  if (err == ENOENT || err == ENOTDIR) return std::nullopt;
  fail("cannot get the status of " + quotedPath(shownPath()), errorCode(err));
}

file_status statusOf(std::string const& bytes, int flags) {
  return statusAt(AT_FDCWD, bytes.c_str(), flags, [&] { return bytes; }).value_or(kNotFound);
}

bool isFolder(file_status const& st) {
  return (st.bits() & file_status::file_type_mask) == file_status::directory_file;
}

// ---- copy -------------------------------------------------------------------------

std::string copyAction(stdfs::path const& from, stdfs::path const& to) {
  return "cannot copy " + quotedPath(from.native()) + " to " + quotedPath(to.native());
}

stdfs::copy_options fileCopyOptions(copy_option options) {
  if (has_option(options, copy_option::overwrite_existing)) return stdfs::copy_options::overwrite_existing;
  if (has_option(options, copy_option::skip_existing)) return stdfs::copy_options::skip_existing;
  if (has_option(options, copy_option::update_existing)) return stdfs::copy_options::update_existing;
  return stdfs::copy_options::none;
}

// A link is copied as a link. An existing destination is kept with
// skip_existing and replaced (unless it is a folder) with any other choice of
// what to do with existing files.
void copyLink(stdfs::path const& from, stdfs::path const& to, copy_option options, std::error_code& ec) {
  stdfs::copy_symlink(from, to, ec);
  if (ec != std::errc::file_exists || fileCopyOptions(options) == stdfs::copy_options::none) return;
  ec.clear();
  if (has_option(options, copy_option::skip_existing)) return;
  if (stdfs::is_directory(stdfs::symlink_status(to, ec))) ec = errorCode(EISDIR);
  if (!ec && stdfs::remove(to, ec)) stdfs::copy_symlink(from, to, ec);
}

void copyEntry(stdfs::path const& from, stdfs::path const& to, copy_option options) {
  std::error_code ec;
  const stdfs::file_status st = stdfs::symlink_status(from, ec);
  if (ec) fail(copyAction(from, to), ec);
  switch (st.type()) {
    case stdfs::file_type::regular:
      stdfs::copy_file(from, to, fileCopyOptions(options), ec);
      break;
    case stdfs::file_type::symlink:
      copyLink(from, to, options, ec);
      break;
    case stdfs::file_type::directory:
      if (!has_option(options, copy_option::recursive)) {
        ec = errorCode(EISDIR);
        break;
      }
      // An existing folder receives the entries; anything else there is in the way.
      if (!stdfs::create_directory(to, from, ec) && !ec && !stdfs::is_directory(to, ec) && !ec) {
        ec = errorCode(EEXIST);
      }
      if (ec) break;
      for (stdfs::directory_iterator it(from, ec), end; !ec && it != end; it.increment(ec)) {
        copyEntry(it->path(), to / it->path().filename(), options);
      }
      break;
    default:
      ec = errorCode(ENOTSUP);
  }
  if (ec) fail(copyAction(from, to), ec);
}

// A folder copied into itself would keep finding the copy it is making.
bool isWithin(stdfs::path const& inner, stdfs::path const& outer) {
  std::error_code ec;
  const stdfs::path a = stdfs::weakly_canonical(inner, ec);
  if (ec) return false;
  const stdfs::path b = stdfs::canonical(outer, ec);
  if (ec) return false;
  return std::mismatch(b.begin(), b.end(), a.begin(), a.end()).first == b.end();
}

// ---- removal ------------------------------------------------------------------------------

struct DirCloser {
  void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

bool isDotOrDotDot(char const* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

std::string removeAction(std::string const& shown) { return "cannot remove " + quotedPath(shown); }

// The next entry, or nullptr at the end of the folder. `shownPath` builds the
// folder's path for the message only when there is one to write.
template <class ShownPath>
dirent* readEntry(DIR* dir, ShownPath&& shownPath) {
  errno = 0;
  dirent* entry = ::readdir(dir);
  const int err = errno;
  if (entry == nullptr && err != 0) fail("cannot read folder " + quotedPath(shownPath()), errorCode(err));
  return entry;
}

std::string below(std::string const& folder, char const* name) {
  return (folder.empty() || folder.back() == '/' ? folder : folder + '/') + name;
}

// Removes `name` in the folder `dirFd` and everything beneath it; `shown` is
// its path for messages. Each folder is opened relative to its parent and
// never through a link, so a link that takes a folder's place meanwhile is
// removed as a link, not followed. With `folderOnly` (the caller wrote a
// trailing '/') only a folder is removed: a link there fails with ENOTDIR,
// since the path names what the link points to, and anything else is not
// there (as for rm -f).
std::uintmax_t removeAt(int dirFd, std::string const& name, std::string const& shown, bool folderOnly) {
  struct stat st {};
  if (::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    const int err = errno;
    if (err == ENOENT || err == ENOTDIR) return 0;
    fail(removeAction(shown), errorCode(err));
  }
  const bool folder = S_ISDIR(st.st_mode);
  if (folderOnly && S_ISLNK(st.st_mode)) fail(removeAction(shown), errorCode(ENOTDIR));
  if (folderOnly && !folder) return 0;
  std::uintmax_t count = 0;
  if (folder) {
    const int fd = ::openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const DirPtr dir(fd >= 0 ? ::fdopendir(fd) : nullptr);
    if (!dir) {
      const int err = errno;
      if (fd >= 0) ::close(fd);
      fail("cannot open folder " + quotedPath(shown), errorCode(err));
    }
    // Read to the end before removing, so removal cannot disturb the reading.
    std::vector<std::string> names;
    while (dirent* entry = readEntry(dir.get(), [&] { return shown; })) {
      if (!isDotOrDotDot(entry->d_name)) names.emplace_back(entry->d_name);
    }
    for (auto const& entry : names) {
      count += removeAt(::dirfd(dir.get()), entry, below(shown, entry.c_str()), false);
    }
  }
  if (::unlinkat(dirFd, name.c_str(), folder ? AT_REMOVEDIR : 0) != 0) {
    const int err = errno;
    if (err != ENOENT) fail(removeAction(shown), errorCode(err));
  }
  return count + 1;
}

// ---- iteration ------------------------------------------------------------------------

ustring joined(ustring const& folder, ustring const& name) {
  ustring out = folder;
  if (!out.empty() && out.back() != u'/') out.push_back(u'/');
  out += name;
  return out;
}

std::string joinedBytes(ustring const& folder, char const* name) {
  std::string out = detail::native_bytes(folder);
  if (!out.empty() && out.back() != '/') out.push_back('/');
  return out + name;
}

DirPtr openFolder(std::string const& bytes) { return DirPtr(::opendir(bytes.c_str())); }

}  // namespace

std::string detail::native_bytes(ustring const& path) {
  std::string bytes = fl::i18n::ustring_to_utf8(path);
  if (bytes.find('\0') != std::string::npos) {
    std::replace(bytes.begin(), bytes.end(), '\0', '?');
    fail("cannot use the path " + quotedPath(bytes) + " holding a NUL character", errorCode(EINVAL));
  }
  return bytes;
}

file_status status(ustring const& path) { return statusOf(detail::native_bytes(path), 0); }

file_status symlink_status(ustring const& path) { return statusOf(detail::native_bytes(path), AT_SYMLINK_NOFOLLOW); }

bool exists(ustring const& path) { return (status(path).bits() & file_status::file_not_found) == 0; }

void copy(ustring const& from, ustring const& to, copy_option options) {
  const stdfs::path source(detail::native_bytes(from));
  const stdfs::path destination(detail::native_bytes(to));
  std::error_code ec;
  if (has_option(options, copy_option::recursive) && stdfs::is_directory(stdfs::symlink_status(source, ec)) &&
      isWithin(destination, source)) {
    fail(copyAction(source, destination) + ", a folder into itself", errorCode(EINVAL));
  }
  copyEntry(source, destination, options);
}

void rename(ustring const& from, ustring const& to, rename_options const& options) {
  const std::string source = detail::native_bytes(from);
  const std::string destination = detail::native_bytes(to);
  const unsigned flags = options.no_replace ? unsigned{RENAME_NOREPLACE} : 0U;
  if (::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, destination.c_str(), flags) != 0) {
    const std::error_code ec = errorCode(errno);
    fail("cannot rename " + quotedPath(source) + " to " + quotedPath(destination), ec);
  }
}

char const* detail::removal_refusal(std::string_view bytes) {
  const std::size_t end = bytes.find_last_not_of('/');
  if (end == std::string_view::npos) return bytes.empty() ? nullptr : "it is the root folder";
  const std::string_view named = bytes.substr(0, end + 1);
  const std::string_view last = named.substr(named.find_last_of('/') + 1);
  return last == "." || last == ".." ? "it ends in '.' or '..'" : nullptr;
}

std::uintmax_t remove_all(ustring const& path) {
  const std::string bytes = detail::native_bytes(path);
  if (char const* reason = detail::removal_refusal(bytes)) fail(removeAction(bytes), reason);
  const std::size_t end = bytes.find_last_not_of('/');
  if (end == std::string::npos) return 0;
  return removeAt(AT_FDCWD, bytes.substr(0, end + 1), bytes, end + 1 != bytes.size());
}

bool create_directories(ustring const& path) {
  if (path.empty()) return false;
  const std::string bytes = detail::native_bytes(path);
  std::error_code ec;
  const bool created = stdfs::create_directories(stdfs::path(bytes), ec);
  if (ec) fail("cannot create folder " + quotedPath(bytes), ec);
  return created;
}

void last_write_time(ustring const& path, ptime time) {
  const std::string bytes = detail::native_bytes(path);
  const std::string action = "cannot set the modification time of " + quotedPath(bytes);
  if (time.is_special()) fail(action, errorCode(EINVAL));
  const boost::posix_time::time_duration sinceEpoch = time - kEpoch;
  const std::int64_t ticksPerSecond = boost::posix_time::time_duration::ticks_per_second();
  const std::int64_t ticks = sinceEpoch.ticks();
  std::int64_t seconds = ticks / ticksPerSecond;
  std::int64_t rest = ticks % ticksPerSecond;
  if (rest < 0) {
    --seconds;
    rest += ticksPerSecond;
  }
  const timespec times[2] = {
      {0, UTIME_OMIT}, {static_cast<time_t>(seconds), static_cast<long>(rest * (1'000'000'000 / ticksPerSecond))}};
  if (::utimensat(AT_FDCWD, bytes.c_str(), times, 0) != 0) fail(action, errorCode(errno));
}

file_status const& directory_entry::status() const {
  if (!status_) status_ = statusOf(detail::native_bytes(pathName_), AT_SYMLINK_NOFOLLOW);
  return *status_;
}

// ---- single-level iteration ----------------------------------------------------------------

struct upath_directory_iterator::State {
  DirPtr dir;
  ustring folder;
  bool skipDots;
  std::optional<directory_entry> entry;

  bool advance() {
    while (dirent* next = readEntry(dir.get(), [&] { return detail::native_bytes(folder); })) {
      if (skipDots && isDotOrDotDot(next->d_name)) continue;
      ustring name = fl::i18n::utf8_to_ustring(next->d_name);
      ustring pathName = joined(folder, name);
      entry.emplace(std::move(name), std::move(pathName), std::nullopt);
      return true;
    }
    return false;
  }
};

upath_directory_iterator::upath_directory_iterator(ustring const& path, int mode, bool skipDots) {
  const std::string bytes = detail::native_bytes(path);
  DirPtr dir = openFolder(bytes);
  if (!dir) {
    const std::error_code ec = errorCode(errno);
    if (mode == skip_unopenable) return;
    fail("cannot open folder " + quotedPath(bytes), ec);
  }
  auto state = std::make_shared<State>(State{std::move(dir), path, skipDots, std::nullopt});
  if (state->advance()) state_ = std::move(state);
}

directory_entry const& upath_directory_iterator::operator*() const { return *state_->entry; }

upath_directory_iterator& upath_directory_iterator::operator++() {
  if (!state_->advance()) state_.reset();
  return *this;
}

// ---- recursive iteration --------------------------------------------------------------------

struct upath_recursive_directory_iterator::State {
  struct Level {
    DirPtr dir;
    ustring folder;
  };
  std::vector<Level> levels;
  std::optional<directory_entry> entry;
  std::string entryName;  // bytes of the current entry, to open it relative to its folder

  bool advance() {
    if (entry && isFolder(entry->status())) descend();
    while (!levels.empty()) {
      Level const& top = levels.back();
      dirent* next = readEntry(top.dir.get(), [&] { return detail::native_bytes(top.folder); });
      if (next == nullptr) {
        levels.pop_back();
        continue;
      }
      if (isDotOrDotDot(next->d_name)) continue;
      const auto status = statusAt(::dirfd(top.dir.get()), next->d_name, AT_SYMLINK_NOFOLLOW,
                                   [&] { return joinedBytes(top.folder, next->d_name); });
      if (!status) continue;  // removed since the folder was read
      entryName = next->d_name;
      ustring name = fl::i18n::utf8_to_ustring(entryName);
      ustring pathName = joined(top.folder, name);
      entry.emplace(std::move(name), std::move(pathName), *status);
      return true;
    }
    entry.reset();
    return false;
  }

  // Opened relative to the folder being read and without following a link,
  // so a link that replaced the folder since its status was taken is not
  // entered either.
  void descend() {
    const int fd =
        ::openat(::dirfd(levels.back().dir.get()), entryName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DirPtr dir(fd >= 0 ? ::fdopendir(fd) : nullptr);
    if (!dir) {
      const int err = errno;
      if (fd >= 0) ::close(fd);
      if (err == ENOENT) return;
      fail("cannot open folder " + quotedPath(detail::native_bytes(entry->path_name())), errorCode(err));
    }
    levels.push_back(Level{std::move(dir), entry->path_name()});
  }
};

upath_recursive_directory_iterator::upath_recursive_directory_iterator(ustring const& path) {
  const std::string bytes = detail::native_bytes(path);
  DirPtr dir = openFolder(bytes);
  if (!dir) {
    const std::error_code ec = errorCode(errno);
    fail("cannot open folder " + quotedPath(bytes), ec);
  }
  auto state = std::make_shared<State>();
  state->levels.push_back(State::Level{std::move(dir), path});
  if (state->advance()) state_ = std::move(state);
}

directory_entry const& upath_recursive_directory_iterator::operator*() const { return *state_->entry; }

upath_recursive_directory_iterator& upath_recursive_directory_iterator::operator++() {
  if (!state_->advance()) state_.reset();
  return *this;
}

}  // namespace fl::filesystem
