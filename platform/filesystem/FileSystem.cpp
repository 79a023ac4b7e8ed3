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

// The one throw site of the layer: "<action>: <OS text>".
[[noreturn]] void fail(std::string const& action, std::error_code const& ec) {
  foundation::core::except::throwRuntimeError(action + ": " + ec.message());
}

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

// ---- removal ------------------------------------------------------------------------

std::uintmax_t removeTree(stdfs::path const& path) {
  std::error_code ec;
  const stdfs::file_status st = stdfs::symlink_status(path, ec);
  if (st.type() == stdfs::file_type::not_found) return 0;
  std::uintmax_t count = 0;
  if (!ec && st.type() == stdfs::file_type::directory) {
    for (stdfs::directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec))
      count += removeTree(it->path());
  }
  if (!ec) stdfs::remove(path, ec);
  if (ec) fail("cannot remove " + quotedPath(path.native()), ec);
  return count + 1;
}

// ---- iteration ------------------------------------------------------------------------

struct DirCloser {
  void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

bool isDotOrDotDot(char const* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

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

// The next entry, or nullptr at the end of the folder.
dirent* readEntry(DIR* dir, ustring const& folder) {
  errno = 0;
  dirent* entry = ::readdir(dir);
  const int err = errno;
  if (entry == nullptr && err != 0)
    fail("cannot read folder " + quotedPath(detail::native_bytes(folder)), errorCode(err));
  return entry;
}

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

std::uintmax_t remove_all(ustring const& path) { return removeTree(stdfs::path(detail::native_bytes(path))); }

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
    while (dirent* next = readEntry(dir.get(), folder)) {
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
      dirent* next = readEntry(top.dir.get(), top.folder);
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
