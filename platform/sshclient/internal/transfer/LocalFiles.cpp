#include "sshfileaccess/platform/sshclient/internal/transfer/LocalFiles.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"

namespace foundation::sshclient::internal::transfer {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

Entry entryOf(std::string name, struct stat const& st) {
  Entry entry;
  entry.name = std::move(name);
  entry.type = typeOfMode(static_cast<std::uint32_t>(st.st_mode));
  entry.mode = static_cast<std::uint32_t>(st.st_mode) & 07777U;
  entry.size = static_cast<std::uint64_t>(st.st_size);
  entry.mtime = static_cast<std::uint32_t>(st.st_mtim.tv_sec);
  entry.atime = static_cast<std::uint32_t>(st.st_atim.tv_sec);
  return entry;
}

std::optional<std::string> linkTextAt(int folder, char const* name) {
  std::string target(PATH_MAX, '\0');
  auto const length = ::readlinkat(folder, name, target.data(), target.size());
  if (length < 0) return std::nullopt;
  target.resize(static_cast<std::size_t>(length));
  return target;
}

// Reads the names of an open folder (the descriptor is taken over); -errno
// in `error` when it cannot be read to its end.
std::vector<std::string> namesIn(int fd, int& error) {
  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> folder(::fdopendir(fd), &::closedir);
  if (!folder) {
    error = errno;
    ::close(fd);
    return names;
  }
  errno = 0;
  while (auto const* entry = ::readdir(folder.get())) {
    std::string_view const name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  error = errno;
  return names;
}

// Entries of the open folder `fd` (kept open), each by fstatat.
Listing entriesOf(int fd, std::string const& path, bool follow) {
  Listing listing;
  int const copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  int error = copy < 0 ? errno : 0;
  auto const names = copy < 0 ? std::vector<std::string>() : namesIn(copy, error);
  if (error != 0) listing.error = "cannot read folder '" + path + "': " + errnoText(error);
  listing.entries.reserve(names.size());
  for (auto const& name : names) {
    struct stat st {};
    if (::fstatat(fd, name.c_str(), &st, follow ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
      // Gone meanwhile is no failure; a followed link that leads nowhere is.
      if (errno != ENOENT || ::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        listing.problems.push_back("cannot read '" + joined(path, name) + "': " + errnoText(errno));
      }
      continue;
    }
    auto entry = entryOf(name, st);
    if (entry.type == EntryType::Link) entry.linkTarget = linkTextAt(fd, name.c_str());
    if (follow && entry.type == EntryType::Folder) {
      struct stat own {};
      entry.followed = ::fstatat(fd, name.c_str(), &own, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(own.st_mode);
    }
    listing.entries.push_back(std::move(entry));
  }
  listing.sort();
  return listing;
}

int failed(int result) { return result == 0 ? 0 : errno; }

}  // namespace

std::string errnoText(int error) { return std::generic_category().message(error); }

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    reset();
    fd_ = other.release();
  }
  return *this;
}

int UniqueFd::release() noexcept { return std::exchange(fd_, -1); }

void UniqueFd::reset() noexcept {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

int UniqueFd::close() noexcept {
  int const fd = release();
  return fd >= 0 && ::close(fd) != 0 ? errno : 0;
}

std::shared_ptr<LocalDir> LocalDir::open(std::string const& path, int& error) {
  int const fd = ::open(path.empty() ? "." : path.c_str(), kFolderFlags);
  if (fd < 0) {
    error = errno;
    return nullptr;
  }
  return std::shared_ptr<LocalDir>(new LocalDir(UniqueFd(fd), path));
}

std::shared_ptr<LocalDir> LocalDir::child(std::string const& name, int& error) const {
  int const fd = ::openat(fd_.get(), name.c_str(), kFolderFlags | O_NOFOLLOW);
  if (fd < 0) {
    // A link there is ELOOP, a file ENOTDIR: neither is a folder of ours.
    error = errno;
    return nullptr;
  }
  return std::shared_ptr<LocalDir>(new LocalDir(UniqueFd(fd), pathOf(name)));
}

std::string LocalDir::pathOf(std::string_view name) const {
  return path_.empty() ? std::string(name) : joined(path_, name);
}

Listing LocalDir::list() const { return entriesOf(fd_.get(), path_, false); }

int LocalDir::makeFolder(std::string const& name, mode_t mode) const {
  return failed(::mkdirat(fd_.get(), name.c_str(), mode));
}

int LocalDir::makeLink(std::string const& target, std::string const& name) const {
  return failed(::symlinkat(target.c_str(), fd_.get(), name.c_str()));
}

int LocalDir::createFile(std::string const& name, mode_t mode, UniqueFd& out) const {
  int const fd = ::openat(fd_.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) return errno;
  out = UniqueFd(fd);
  return 0;
}

int LocalDir::openFile(std::string const& name, UniqueFd& out) const { return openExisting(name, O_WRONLY, out); }

int LocalDir::openToRead(std::string const& name, UniqueFd& out) const { return openExisting(name, O_RDONLY, out); }

int LocalDir::openExisting(std::string const& name, int flags, UniqueFd& out) const {
  int const fd = ::openat(fd_.get(), name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return errno;
  UniqueFd file(fd);
  struct stat st {};
  if (::fstat(fd, &st) != 0) return errno;
  if (!S_ISREG(st.st_mode)) return EINVAL;
  out = std::move(file);
  return 0;
}

int LocalDir::rename(std::string const& from, std::string const& to) const {
  return failed(::renameat(fd_.get(), from.c_str(), fd_.get(), to.c_str()));
}

int LocalDir::removeFile(std::string const& name) const { return failed(::unlinkat(fd_.get(), name.c_str(), 0)); }

int LocalDir::removeFolder(std::string const& name) const {
  return failed(::unlinkat(fd_.get(), name.c_str(), AT_REMOVEDIR));
}

int setAttributesOf(int fd, Kept const& wanted, bool& modeFailed) {
  modeFailed = false;
  if (wanted.mode && ::fchmod(fd, static_cast<mode_t>(*wanted.mode)) != 0) {
    modeFailed = true;
    return errno;
  }
  if (!wanted.mtime) return 0;
  struct timespec const times[2] = {{static_cast<time_t>(wanted.atime.value_or(*wanted.mtime)), 0},
                                    {static_cast<time_t>(*wanted.mtime), 0}};
  return failed(::futimens(fd, times));
}

int LocalDir::setAttributes(std::string const& name, Kept const& wanted) const {
  int const fd = ::openat(fd_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return errno;
  UniqueFd const file(fd);
  bool modeFailed = false;
  return setAttributesOf(fd, wanted, modeFailed);
}

int LocalDir::setOwnAttributes(Kept const& wanted) const {
  bool modeFailed = false;
  return setAttributesOf(fd_.get(), wanted, modeFailed);
}

std::optional<Entry> localEntry(std::string const& path, bool follow, int& error) {
  struct stat st {};
  if ((follow ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st)) != 0) {
    error = errno;
    return std::nullopt;
  }
  auto const slash = path.find_last_of('/');
  auto entry = entryOf(slash == std::string::npos ? path : path.substr(slash + 1), st);
  if (entry.type == EntryType::Link) {
    entry.linkTarget = linkTextAt(AT_FDCWD, path.c_str());
    if (!entry.linkTarget) {
      error = errno;
      return std::nullopt;
    }
  }
  return entry;
}

Listing listLocalFolder(std::string const& path, bool follow) {
  int const fd = ::open(path.c_str(), kFolderFlags);
  if (fd < 0) {
    Listing listing;
    listing.error = "cannot read folder '" + path + "': " + errnoText(errno);
    return listing;
  }
  UniqueFd const folder(fd);
  return entriesOf(fd, path, follow);
}

std::optional<std::pair<dev_t, ino_t>> folderIdentity(std::string const& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return std::pair{st.st_dev, st.st_ino};
}

std::size_t openFileLimit() noexcept {
  constexpr std::size_t kNoLimit = 1U << 20U;
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kNoLimit;
  return static_cast<std::size_t>(std::min<rlim_t>(limit.rlim_cur, kNoLimit));
}

}  // namespace foundation::sshclient::internal::transfer
