#pragma once
// The pieces of FileCopier shared by its sources (FileCopy.cpp,
// FileCopyUploads.cpp, FileCopyDownloads.cpp) and by the delta copies that
// prepare its temporaries (DeltaCopy.cpp); not for anyone else.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopy.hpp"

namespace foundation::sshclient::internal::transfer::copying {

using sftp::Attributes;
using sftp::ByteView;
using sftp::PacketType;
using sftp::Reply;
using sftp::StatusCode;
using sftp::Ticket;
namespace openflags = sftp::openflags;

// Local reads and writes go in blocks of at least this size.
constexpr std::size_t kIoBlock = 1024U * 1024U;
// Requests are not queued beyond this many unsent bytes.
constexpr std::size_t kOutboundLimit = 1024U * 1024U;
// Files started before the server has stated its handle limit.
constexpr std::size_t kFilesBeforeLimits = 8;
// Exclusive creation of a temporary name can collide with a stranger's file.
constexpr int kTempAttempts = 4;

enum Kind : std::uint32_t {
  kOpen,
  kStat,
  kWrite,
  kRead,
  kProbe,
  kClose,
  kSetAttributes,
  kRename,
  kPlainRename,
  kInspect,
  kMoveAside,
  kMoveIn,
  kStatvfs,
  kCleanup,
  kRecheck,
};

inline std::string quoted(std::string_view path) { return "'" + std::string(path) + "'"; }

// The folder part of a path, for messages.
inline std::string folderOf(std::string const& path) {
  auto const slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// The destination's folder with its '/' ("" for a bare name) and its name.
inline std::pair<std::string, std::string> splitPath(std::string const& path) {
  auto const slash = path.rfind('/');
  if (slash == std::string::npos) return {std::string(), path};
  return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

// A download's destination folder, opened from the destination's path when
// the task came without it (a caller's own file); 0 or the errno.
inline int openDestinationFolder(FileTask& task) {
  if (task.folder) return 0;
  auto const [folder, name] = splitPath(task.destination);
  int error = 0;
  task.folder = LocalDir::open(folder.empty() ? std::string(".") : folder, error);
  task.name = name;
  return task.folder ? 0 : error;
}

// Reads or writes the whole range unless an error occurs; returns the count
// done (short only at end of file) or -errno.
template <class Call>
std::int64_t fullIo(Call call, std::size_t length) {
  std::size_t done = 0;
  while (done < length) {
    auto const n = call(done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -std::int64_t{errno};
    }
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  return static_cast<std::int64_t>(done);
}

// A window of one file's bytes held in memory: read ahead for uploads,
// written behind for downloads.
struct FileBlock {
  std::unique_ptr<std::uint8_t[]> bytes;  // uninitialised: always written before read
  std::size_t capacity = 0;
  std::uint64_t offset = 0;
  std::size_t length = 0;

  [[nodiscard]] std::uint64_t end() const noexcept { return offset + length; }
  [[nodiscard]] std::uint8_t* data() const noexcept { return bytes.get(); }
  void reserve(std::size_t size) {
    if (capacity >= size) return;
    bytes = std::make_unique_for_overwrite<std::uint8_t[]>(size);
    capacity = size;
  }
  void release() {
    bytes.reset();
    capacity = 0;
    length = 0;
  }
};

}  // namespace foundation::sshclient::internal::transfer::copying

namespace foundation::sshclient::internal::transfer {

struct FileCopier::Job {
  using FileBlock = copying::FileBlock;
  using Attributes = sftp::Attributes;

  enum class Phase { Opening, Transferring, Finishing, Done };

  FileTask task;
  std::string folder;       // uploads: the destination's folder, with its '/'
  std::string name;         // uploads: the destination's name
  std::string temp;         // the temporary (uploads: its path; downloads: its name), once created
  std::string opening;      // uploads: the temporary being created
  std::string aside;        // uploads: the old destination while it is moved aside
  std::string renameError;  // why the destination could not simply be replaced
  bool plainRename = false;
  std::string handle;  // remote handle while open
  UniqueFd fd;
  FileBlock block;
  std::uint64_t size = 0;
  std::uint64_t next = 0;          // next offset to send or request
  std::uint64_t end = UINT64_MAX;  // where the server reported end of file
  std::size_t dataInFlight = 0;
  std::size_t pending = 0;  // requests of any kind awaiting a reply
  int tempAttempts = 0;
  Phase phase = Phase::Opening;
  bool failed = false;
  bool resumable = false;  // the temporary bears the resumable name
  bool resumed = false;    // continues an earlier run's temporary
  bool wrote = false;      // downloads: data reached the temporary
  bool statAnswered = false;
  bool probed = false;  // a listed file: asked for a byte past its size
  bool openAnswered = false;
  std::optional<Attributes> attributes;
  std::optional<std::string> sourceError;
  struct timespec sourceMtime {};  // uploads: the source as it was opened
  std::string diagnosed;           // the server's status text of a failure being looked into
  std::string failure;             // the failure being reported
  std::size_t range = 0;           // a delta: the range being sent
  bool inRange = false;            // `next` lies in it
  // A file shared out among channels: this job's ranges come from `stripe`,
  // the current one ending at `grantEnd`. A helper only writes its ranges
  // into the owner's temporary and closes it.
  std::shared_ptr<Stripe> stripe;
  std::uint64_t grantEnd = 0;
  bool helper = false;

  // A whole file's bytes not yet sent: they go as the window lets them,
  // whatever else is under way. 0 for a delta, whose ranges wait to be found,
  // and for a file shared out, whose ranges other channels may send.
  [[nodiscard]] std::uint64_t unsent() const noexcept {
    if (task.delta || stripe || helper || phase > Phase::Transferring || failed || next >= size) return 0;
    return size - next;
  }
  // Where what is sent from `next` on stops: the end of a delta's range
  // (`next` itself while its next range is still being found) or of a shared
  // file's grant, else the file's end.
  [[nodiscard]] std::uint64_t stretchEnd() const noexcept {
    if (stripe) return grantEnd;
    if (!task.delta) return size;
    auto const& ranges = task.feed->ranges;
    if (range < ranges.size()) return inRange ? ranges[range].end : next;
    return task.feed->complete ? size : next;
  }
  // Past a delta's range the next one found begins (the feed's ranges come
  // in the order they are found, not by offset); past the last of a
  // complete feed, the file's end.
  void skipReused() noexcept {
    if (!task.delta) return;
    auto const& ranges = task.feed->ranges;
    for (;;) {
      if (range >= ranges.size()) {
        if (task.feed->complete) next = size;
        return;
      }
      if (!inRange) {
        next = ranges[range].begin;
        inRange = true;
      }
      if (next < ranges[range].end) return;
      ++range;
      inRange = false;
    }
  }
  // Every byte to send is on its way (a delta's ranges all found).
  [[nodiscard]] bool sentAll() const noexcept { return next >= size && (!task.delta || task.feed->complete); }
  // A delta waiting for its next range, with nothing under way.
  [[nodiscard]] bool awaitsRanges() const noexcept {
    return task.delta && !task.feed->complete && phase == Phase::Transferring && !failed && dataInFlight == 0 &&
           stretchEnd() == next;
  }
};

}  // namespace foundation::sshclient::internal::transfer
