#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopy.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"

namespace foundation::sshclient::internal::transfer {

using sftp::Attributes;
using sftp::ByteView;
using sftp::PacketType;
using sftp::Reply;
using sftp::StatusCode;
using sftp::Ticket;
namespace openflags = sftp::openflags;

namespace {

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
};

std::string quoted(std::string_view path) { return "'" + std::string(path) + "'"; }

// The folder part of a path, for messages.
std::string folderOf(std::string const& path) {
  auto const slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// The destination's folder with its '/' ("" for a bare name) and its name.
std::pair<std::string, std::string> splitPath(std::string const& path) {
  auto const slash = path.rfind('/');
  if (slash == std::string::npos) return {std::string(), path};
  return {path.substr(0, slash + 1), path.substr(slash + 1)};
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

}  // namespace

struct FileCopier::Job {
  enum class Phase { Opening, Transferring, Finishing, Done };

  FileTask task;
  std::string folder;       // uploads: the destination's folder, with its '/'
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
};

FileCopier::FileCopier(sftp::SftpSession& session, CopySettings const& settings, FileObserver& observer,
                       TransferCounters& counters)
    : session_(session),
      settings_(settings),
      observer_(observer),
      counters_(counters),
      random_(std::random_device{}()) {}

FileCopier::~FileCopier() = default;

void FileCopier::add(FileTask task) { queue_.push_back(std::move(task)); }

std::uint32_t FileCopier::chunk() const noexcept {
  return std::max<std::uint32_t>(
      1, settings_.chunkSize.value_or(settings_.upload ? session_.writeChunk() : session_.readChunk()));
}

bool FileCopier::idle() const noexcept { return (queue_.empty() || stopping_) && jobs_.empty(); }

std::size_t FileCopier::waiting() const noexcept { return queue_.size(); }

std::optional<std::string> FileCopier::current() const {
  if (jobs_.empty()) return std::nullopt;
  return jobs_.front()->task.source;
}

void FileCopier::poll() {
  // Finished files make room for new ones.
  std::erase_if(jobs_, [](auto const& job) { return job->phase == Job::Phase::Done && job->pending == 0; });
  auto maxOpen = std::max<std::size_t>(1, settings_.maxOpenFiles);
  if (!session_.limitsKnown()) {
    maxOpen = std::min(maxOpen, kFilesBeforeLimits);
  } else if (session_.handleLimit() > 0) {
    maxOpen = std::min<std::size_t>(maxOpen, std::max<std::uint64_t>(1, session_.handleLimit() / 2));
  }
  while (!stopping_ && !queue_.empty() && jobs_.size() < maxOpen && session_.queuedBytes() < kOutboundLimit) {
    if (busy_.contains(queue_.front().destination)) break;
    auto job = std::make_unique<Job>();
    job->task = std::move(queue_.front());
    queue_.pop_front();
    busy_.insert(job->task.destination);
    jobs_.push_back(std::move(job));
    start(*jobs_.back());
  }
  if (!session_.limitsKnown()) return;
  for (auto& job : jobs_) {
    if (session_.dataInFlight() >= settings_.windowBytes || session_.queuedBytes() >= kOutboundLimit) return;
    if (job->phase != Job::Phase::Transferring || job->failed) continue;
    if (settings_.upload) {
      issueWrites(*job);
    } else {
      issueReads(*job);
    }
  }
  std::erase_if(jobs_, [](auto const& job) { return job->phase == Job::Phase::Done && job->pending == 0; });
}

void FileCopier::onReply(Ticket const& ticket, Reply const& reply) {
  auto& job = *static_cast<Job*>(ticket.subject);
  --job.pending;
  switch (ticket.kind) {
    case kOpen:
      return settings_.upload ? onUploadOpen(job, reply) : onDownloadAnswer(job, kOpen, reply);
    case kStat:
      return onDownloadAnswer(job, kStat, reply);
    case kWrite:
      return onWrite(job, ticket, reply);
    case kRead:
      return onRead(job, ticket, reply);
    case kProbe:
      return onProbe(job, reply);
    case kClose:
      return onUploadClose(job, reply);
    case kSetAttributes:
      if (job.failed) return;
      if (reply.type != PacketType::Status) throw sftp::ProtocolError("unexpected reply to FSETSTAT");
      if (reply.status != StatusCode::Ok) {
        fail(job, "cannot set the mode and time of " + quoted(job.temp) + ": " +
                      sftp::describeStatus(reply.status, reply.message));
      }
      return;
    case kRename:
    case kPlainRename:
    case kMoveAside:
    case kMoveIn:
      return onRename(job, ticket.kind, reply);
    case kInspect:
      return onInspect(job, reply);
    case kStatvfs:
      return onStatvfs(job, reply);
    default:
      return;
  }
}

// ---- both directions -------------------------------------------------------------

void FileCopier::start(Job& job) {
  if (settings_.upload) {
    startUpload(job);
  } else {
    startDownload(job);
  }
}

std::string FileCopier::describe(Job const& job) const {
  auto const& task = job.task;
  if (settings_.upload) {
    return "cannot upload " + quoted(task.source) + " to " + quoted(task.destination) + " on " + session_.peer() + ": ";
  }
  return "cannot download " + quoted(task.source) + " from " + session_.peer() + " to " + quoted(task.destination) +
         ": ";
}

std::string FileCopier::context() const {
  auto const busy =
      std::find_if(jobs_.begin(), jobs_.end(), [](auto const& job) { return job->phase != Job::Phase::Done; });
  if (busy != jobs_.end()) return describe(**busy);
  if (!jobs_.empty()) return describe(*jobs_.front());
  return {};
}

// A resumable temporary with data in it is what the next run continues.
bool FileCopier::holdsResumableData(Job const& job) const {
  return settings_.resume && job.resumable && (settings_.upload ? job.next > 0 : job.wrote || job.resumed);
}

void FileCopier::discardTemp(Job& job) {
  if (job.temp.empty()) return;
  if (cancelled_ && holdsResumableData(job)) {
    // Kept for the next run.
    job.temp.clear();
    return;
  }
  if (settings_.upload) {
    ++job.pending;
    session_.remove({this, kCleanup, &job}, job.temp);
  } else {
    job.task.folder->removeFile(job.temp);
  }
  job.temp.clear();
}

void FileCopier::fail(Job& job, std::string const& cause) {
  if (job.failed || job.phase == Job::Phase::Done) return;
  job.failed = true;
  busy_.erase(busy_.find(job.task.destination));
  if (settings_.stopOnFailure) stopping_ = true;
  // What arrived so far is worth keeping when the temporary stays.
  if (!settings_.upload && job.resumable && cancelled_ && job.fd.valid() && job.block.length > 0) flush(job);
  job.fd.reset();
  job.block.release();
  closeRemote(job);
  discardTemp(job);
  if (!job.aside.empty()) {
    // The replacement did not arrive: put the old destination back.
    ++job.pending;
    session_.rename({this, kCleanup, &job}, job.aside, job.task.destination, false);
    job.aside.clear();
  }
  job.phase = Job::Phase::Done;
  if (cancelled_) return;
  job.failure = describe(job) + cause;
  // A cause being looked into is named once its answer is in.
  if (job.diagnosed.empty()) observer_.fileFailed(job.task, job.failure);
}

void FileCopier::complete(Job& job) {
  busy_.erase(busy_.find(job.task.destination));
  job.temp.clear();
  job.phase = Job::Phase::Done;
  ++counters_.filesDone;
  if (job.resumed) ++counters_.resumed;
  observer_.fileDone(job.task);
}

void FileCopier::closeRemote(Job& job) {
  if (job.handle.empty()) return;
  ++job.pending;
  session_.close({this, kCleanup, &job}, job.handle);
  job.handle.clear();
}

void FileCopier::cancel() {
  cancelled_ = stopping_ = true;
  for (auto& job : jobs_) fail(*job, "cancelled");
}

// The stream broke: local temporaries go, but a resumable one that holds
// data is kept for the next run (remote ones cannot be removed anyway).
void FileCopier::abandon() noexcept {
  for (auto& job : jobs_) {
    job->fd.reset();
    if (!settings_.upload && !job->temp.empty() && job->task.folder && !holdsResumableData(*job)) {
      job->task.folder->removeFile(job->temp);
    }
  }
}

// The server's generic failure hides the cause; its file system state names
// it. Asked before the temporary is removed, which would free space.
void FileCopier::diagnose(Job& job, StatusCode status, std::string_view message) {
  if (!session_.offers(sftp::kStatvfsExtension) || status != StatusCode::Failure || job.failed || cancelled_) return;
  job.diagnosed = sftp::describeStatus(status, message);
  ++job.pending;
  session_.statvfs({this, kStatvfs, &job}, folderOf(job.task.destination));
}

// The failure is reported now, with the cause named where the file
// system's state tells it.
void FileCopier::onStatvfs(Job& job, Reply const& reply) {
  if (job.failure.empty()) return;
  auto message = std::exchange(job.failure, std::string());
  if (reply.type == PacketType::ExtendedReply) {
    auto const state = sftp::decodeStatvfs(reply.data);
    std::string cause;
    if (state.readOnly) {
      cause = "read-only file system";
    } else if (state.bytesAvailable < chunk()) {
      cause = "no space left on device";
    }
    if (!cause.empty() && message.ends_with(job.diagnosed)) {
      message.replace(message.size() - job.diagnosed.size(), job.diagnosed.size(), cause);
    }
  }
  observer_.fileFailed(job.task, message);
}

// Size and time as when the file was opened, or the file fails.
bool FileCopier::changedWhileRead(Job& job) {
  struct stat st {};
  if (::fstat(job.fd.get(), &st) == 0 && static_cast<std::uint64_t>(st.st_size) == job.size &&
      st.st_mtim.tv_sec == job.sourceMtime.tv_sec && st.st_mtim.tv_nsec == job.sourceMtime.tv_nsec) {
    return false;
  }
  fail(job, quoted(job.task.source) + " changed while being read");
  return true;
}

// ---- uploads -----------------------------------------------------------------

void FileCopier::startUpload(Job& job) {
  auto const& task = job.task;
  job.folder = splitPath(task.destination).first;
  job.fd = UniqueFd(::open(task.source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!job.fd.valid()) return fail(job, "cannot open " + quoted(task.source) + ": " + errnoText(errno));
  struct stat st {};
  if (::fstat(job.fd.get(), &st) != 0) return fail(job, "cannot open " + quoted(task.source) + ": " + errnoText(errno));
  if (S_ISDIR(st.st_mode)) return fail(job, quoted(task.source) + " is a folder");
  if (!S_ISREG(st.st_mode)) return fail(job, quoted(task.source) + " is not a regular file");
  job.size = static_cast<std::uint64_t>(st.st_size);
  job.sourceMtime = st.st_mtim;
  // What the listing counted; the file may have changed since.
  auto const counted = task.size.value_or(0) - task.resumeFrom;
  if (!task.resumeTemp.empty()) {
    auto const temp = job.folder + task.resumeTemp;
    if (job.size == task.size && static_cast<std::uint32_t>(st.st_mtim.tv_sec) == task.listedMtime) {
      job.resumed = job.resumable = true;
      job.next = task.resumeFrom;
      job.opening = temp;
      ++job.pending;
      session_.open({this, kOpen, &job}, job.opening, openflags::kWrite, Attributes{});
    } else {
      // Made for the source as it was.
      ++job.pending;
      session_.remove({this, kCleanup, &job}, temp);
    }
  }
  counters_.bytesTotal = counters_.bytesTotal - counted + (job.size - job.next);
  if (!job.resumed) openRemoteTemp(job);
}

void FileCopier::openRemoteTemp(Job& job) {
  ++job.tempAttempts;
  auto const name = splitPath(job.task.destination).second;
  // The first try bears the resumable name; a clash falls back to a random one.
  job.resumable = settings_.resume && job.tempAttempts == 1;
  job.opening =
      job.folder + (job.resumable ? resumableName(name, job.size, static_cast<std::uint32_t>(job.sourceMtime.tv_sec))
                                  : randomTemporaryName(name, random_));
  Attributes attributes;
  attributes.permissions = settings_.createMode;
  ++job.pending;
  session_.open({this, kOpen, &job}, job.opening,
                openflags::kWrite | openflags::kCreate | openflags::kExclusive | openflags::kTruncate, attributes);
}

void FileCopier::onUploadOpen(Job& job, Reply const& reply) {
  if (reply.type == PacketType::Handle) {
    job.handle = std::string(reply.handle);
    job.temp = std::exchange(job.opening, std::string());
    if (job.failed) {
      closeRemote(job);
      return discardTemp(job);
    }
    job.phase = Job::Phase::Transferring;
    if (job.next >= job.size) finishUpload(job);
    return;
  }
  if (reply.type != PacketType::Status) throw sftp::ProtocolError("unexpected reply to OPEN");
  auto const temp = std::exchange(job.opening, std::string());
  if (job.failed) return;
  if (job.resumed) {
    // The earlier temporary went meanwhile: start over.
    job.resumed = false;
    counters_.bytesTotal += job.next;
    job.next = 0;
    return openRemoteTemp(job);
  }
  // In this protocol version an existing name shows only as a generic failure.
  if (reply.status == StatusCode::Failure && job.tempAttempts < kTempAttempts) return openRemoteTemp(job);
  if (reply.status == StatusCode::NoSuchFile) {
    return fail(job, "destination folder " + quoted(folderOf(job.task.destination)) + " does not exist");
  }
  diagnose(job, reply.status, reply.message);
  fail(job, "cannot create " + quoted(temp) + ": " + sftp::describeStatus(reply.status, reply.message));
}

bool FileCopier::readAhead(Job& job) {
  if (job.next < job.block.end() && job.next >= job.block.offset) return true;
  auto const block = static_cast<std::size_t>(chunk()) * ((kIoBlock + chunk() - 1) / chunk());
  auto const wanted = static_cast<std::size_t>(std::min<std::uint64_t>(block, job.size - job.next));
  job.block.reserve(wanted);
  auto* const data = job.block.data();
  auto const offset = job.next;
  auto const fd = job.fd.get();
  auto const got = fullIo(
      [&](std::size_t done) { return ::pread(fd, data + done, wanted - done, static_cast<off_t>(offset + done)); },
      wanted);
  if (got < 0) {
    fail(job, "cannot read " + quoted(job.task.source) + ": " + errnoText(static_cast<int>(-got)));
    return false;
  }
  job.block.offset = offset;
  job.block.length = static_cast<std::size_t>(got);
  if (job.block.length < wanted) {
    fail(job, quoted(job.task.source) + " changed while being read");
    return false;
  }
  return true;
}

void FileCopier::issueWrites(Job& job) {
  while (job.next < job.size && session_.dataInFlight() < settings_.windowBytes &&
         session_.queuedBytes() < kOutboundLimit) {
    if (!readAhead(job)) break;
    auto const length =
        static_cast<std::uint32_t>(std::min<std::uint64_t>({chunk(), job.size - job.next, job.block.end() - job.next}));
    ++job.pending;
    session_.write({this, kWrite, &job, job.next, length}, job.handle, job.next,
                   ByteView(job.block.data() + (job.next - job.block.offset), length));
    job.next += length;
    ++job.dataInFlight;
  }
  if (job.failed) return;
  if (job.next >= job.size) {
    job.block.release();
    if (job.dataInFlight == 0) finishUpload(job);
  }
}

void FileCopier::onWrite(Job& job, Ticket const& ticket, Reply const& reply) {
  --job.dataInFlight;
  if (job.failed || job.phase != Job::Phase::Transferring) return;
  if (reply.type != PacketType::Status) throw sftp::ProtocolError("unexpected reply to WRITE");
  if (reply.status != StatusCode::Ok) {
    diagnose(job, reply.status, reply.message);
    return fail(job, "cannot write " + quoted(job.temp) + ": " + sftp::describeStatus(reply.status, reply.message));
  }
  counters_.bytesDone += ticket.length;
  if (job.next >= job.size && job.dataInFlight == 0) finishUpload(job);
}

void FileCopier::finishUpload(Job& job) {
  if (changedWhileRead(job)) return;
  job.phase = Job::Phase::Finishing;
  job.fd.reset();
  job.block.release();
  auto const& kept = job.task.kept;
  if (kept.mode || kept.mtime) {
    // On the open file, after the last write: the rename then shows it whole.
    Attributes attributes;
    attributes.permissions = kept.mode;
    attributes.atime = kept.atime;
    attributes.mtime = kept.mtime;
    ++job.pending;
    session_.fsetstat({this, kSetAttributes, &job}, job.handle, attributes);
  }
  ++job.pending;
  session_.close({this, kClose, &job}, job.handle);
  job.handle.clear();
}

void FileCopier::onUploadClose(Job& job, Reply const& reply) {
  if (job.failed) return;
  if (reply.type != PacketType::Status) throw sftp::ProtocolError("unexpected reply to CLOSE");
  if (reply.status != StatusCode::Ok) {
    diagnose(job, reply.status, reply.message);
    return fail(job, "cannot write " + quoted(job.temp) + ": " + sftp::describeStatus(reply.status, reply.message));
  }
  ++job.pending;
  session_.rename({this, session_.replacingRename() ? kRename : kPlainRename, &job}, job.temp, job.task.destination);
}

// Replacing the destination. A generic failure is looked into: a folder in
// the way is named as such, and a plain RENAME (without posix-rename) refuses
// any existing target, so an old regular file moves aside, the new one in,
// and the old one goes.
void FileCopier::onRename(Job& job, std::uint32_t kind, Reply const& reply) {
  if (job.failed) return;
  if (reply.type != PacketType::Status) throw sftp::ProtocolError("unexpected reply to RENAME");
  if (reply.status != StatusCode::Ok) {
    job.renameError = sftp::describeStatus(reply.status, reply.message);
    if ((kind == kRename || kind == kPlainRename) && reply.status == StatusCode::Failure) {
      job.plainRename = kind == kPlainRename;
      ++job.pending;
      session_.lstat({this, kInspect, &job}, job.task.destination);
      return;
    }
    if (kind == kMoveAside) job.aside.clear();
    return fail(job, "cannot replace " + quoted(job.task.destination) + ": " + job.renameError);
  }
  if (kind == kMoveAside) {
    ++job.pending;
    session_.rename({this, kMoveIn, &job}, job.temp, job.task.destination, false);
    return;
  }
  if (kind == kMoveIn) {
    ++job.pending;
    session_.remove({this, kCleanup, &job}, std::exchange(job.aside, {}));
  }
  complete(job);
}

void FileCopier::onInspect(Job& job, Reply const& reply) {
  if (job.failed) return;
  if (reply.type == PacketType::Attrs && reply.attributes.isDirectory()) {
    return fail(job, "cannot replace " + quoted(job.task.destination) + ": it is a folder");
  }
  bool const regular = reply.type == PacketType::Attrs && reply.attributes.permissions &&
                       (*reply.attributes.permissions & sftp::modebits::kTypeMask) == sftp::modebits::kRegular;
  if (!job.plainRename || !regular) {
    return fail(job, "cannot replace " + quoted(job.task.destination) + ": " + job.renameError);
  }
  job.aside = job.folder + randomTemporaryName(splitPath(job.task.destination).second, random_);
  ++job.pending;
  session_.rename({this, kMoveAside, &job}, job.task.destination, job.aside, false);
}

// ---- downloads -----------------------------------------------------------------

void FileCopier::startDownload(Job& job) {
  auto& task = job.task;
  if (!task.folder) {
    auto const [folder, name] = splitPath(task.destination);
    int error = 0;
    task.folder = LocalDir::open(folder.empty() ? std::string(".") : folder, error);
    task.name = name;
    if (!task.folder) {
      if (error == ENOENT)
        return fail(job, "destination folder " + quoted(folderOf(task.destination)) + " does not exist");
      return fail(job, "cannot open " + quoted(folderOf(task.destination)) + ": " + errnoText(error));
    }
  }
  auto const& folder = *task.folder;
  if (!task.resumeTemp.empty()) {
    if (folder.openFile(task.resumeTemp, job.fd) == 0) {
      job.temp = task.resumeTemp;
      job.resumed = job.resumable = true;
      job.next = task.resumeFrom;
    } else {
      counters_.bytesTotal += task.resumeFrom;
    }
  }
  while (!job.fd.valid()) {
    // The first try bears the resumable name; a clash falls back to a random one.
    job.resumable = settings_.resume && job.tempAttempts == 0;
    auto const temp = job.resumable ? resumableName(task.name, task.size.value_or(0), task.listedMtime)
                                    : randomTemporaryName(task.name, random_);
    auto const error = folder.createFile(temp, static_cast<mode_t>(settings_.createMode), job.fd);
    if (error == 0) {
      job.temp = temp;
      break;
    }
    if (error == EEXIST && ++job.tempAttempts < kTempAttempts) continue;
    return fail(job, "cannot create " + quoted(folder.pathOf(temp)) + ": " + errnoText(error));
  }
  if (task.size) {
    // Listed: the size is known.
    job.statAnswered = true;
    job.attributes = Attributes{};
    job.attributes->size = task.size;
  } else {
    // The size and the handle in one round trip.
    ++job.pending;
    session_.stat({this, kStat, &job}, task.source);
  }
  ++job.pending;
  session_.open({this, kOpen, &job}, task.source, openflags::kRead, Attributes{});
}

void FileCopier::onDownloadAnswer(Job& job, std::uint32_t kind, Reply const& reply) {
  if (reply.type == PacketType::Status) {
    if (!job.sourceError) job.sourceError = sftp::describeStatus(reply.status, reply.message);
  } else if (kind == kStat && reply.type == PacketType::Attrs) {
    job.attributes = reply.attributes;
  } else if (kind == kOpen && reply.type == PacketType::Handle) {
    job.handle = std::string(reply.handle);
  } else {
    throw sftp::ProtocolError(kind == kStat ? "unexpected reply to STAT" : "unexpected reply to OPEN");
  }
  (kind == kStat ? job.statAnswered : job.openAnswered) = true;
  if (job.failed) return closeRemote(job);
  if (!job.statAnswered || !job.openAnswered) return;

  auto const& source = job.task.source;
  if (job.attributes && job.attributes->isDirectory()) return fail(job, quoted(source) + " is a folder");
  if (job.attributes && !job.attributes->isRegularOrUnknown()) {
    return fail(job, quoted(source) + " is not a regular file");
  }
  if (job.sourceError) return fail(job, "cannot open " + quoted(source) + ": " + *job.sourceError);
  job.size = job.attributes->size.value_or(UINT64_MAX);
  if (job.attributes->size && !job.task.size) counters_.bytesTotal += job.size;
  job.phase = Job::Phase::Transferring;
  // A listed file is probed past its end before it finishes, also when empty.
  if (job.size == 0 && !job.task.size) finishDownload(job);
}

void FileCopier::issueReads(Job& job) {
  while (job.next < job.size && job.end == UINT64_MAX && session_.dataInFlight() < settings_.windowBytes &&
         session_.queuedBytes() < kOutboundLimit) {
    auto const length = static_cast<std::uint32_t>(std::min<std::uint64_t>(chunk(), job.size - job.next));
    ++job.pending;
    session_.read({this, kRead, &job, job.next, length}, job.handle, job.next, length);
    job.next += length;
    ++job.dataInFlight;
  }
  if (job.task.size && !job.probed && job.next >= job.size && job.end == UINT64_MAX) {
    // A file that grew since it was listed answers with data here.
    ++job.pending;
    session_.read({this, kProbe, &job}, job.handle, job.size, 1);
    job.probed = true;
    ++job.dataInFlight;
  }
}

void FileCopier::onProbe(Job& job, Reply const& reply) {
  --job.dataInFlight;
  if (job.failed) return;
  if (reply.type == PacketType::Data) return fail(job, quoted(job.task.source) + " changed while being read");
  if (reply.type != PacketType::Status) throw sftp::ProtocolError("unexpected reply to READ");
  if (reply.status != StatusCode::Eof) {
    return fail(job,
                "cannot read " + quoted(job.task.source) + ": " + sftp::describeStatus(reply.status, reply.message));
  }
  if (job.dataInFlight == 0) finishDownload(job);
}

void FileCopier::onRead(Job& job, Ticket const& ticket, Reply const& reply) {
  --job.dataInFlight;
  if (job.failed) return;
  if (reply.type == PacketType::Data) {
    auto const length = reply.data.size();
    if (length == 0 || length > ticket.length) {
      throw sftp::ProtocolError("DATA reply of " + std::to_string(length) + " bytes to a READ of " +
                                std::to_string(ticket.length));
    }
    if (!writeBehind(job, ticket.offset, reply.data)) return;
    counters_.bytesDone += length;
    if (length < ticket.length) {
      // A short read: ask again for the rest.
      auto const offset = ticket.offset + length;
      auto const rest = static_cast<std::uint32_t>(ticket.length - length);
      ++job.pending;
      session_.read({this, kRead, &job, offset, rest}, job.handle, offset, rest);
      ++job.dataInFlight;
    }
  } else if (reply.type == PacketType::Status && reply.status == StatusCode::Eof) {
    job.end = std::min(job.end, ticket.offset);
  } else if (reply.type == PacketType::Status) {
    return fail(job,
                "cannot read " + quoted(job.task.source) + ": " + sftp::describeStatus(reply.status, reply.message));
  } else {
    throw sftp::ProtocolError("unexpected reply to READ");
  }
  bool const probing = job.task.size && job.end == UINT64_MAX;
  if (job.dataInFlight == 0 && (job.next >= job.size || job.end != UINT64_MAX) && (!probing || job.probed)) {
    finishDownload(job);
  }
}

bool FileCopier::writeBehind(Job& job, std::uint64_t offset, ByteView data) {
  auto& block = job.block;
  if (block.length > 0 && (offset != block.end() || block.length + data.size() > block.capacity)) {
    if (!flush(job)) return false;
  }
  if (block.length == 0) {
    block.offset = offset;
    auto const size = static_cast<std::size_t>(chunk()) * ((kIoBlock + chunk() - 1) / chunk());
    block.reserve(std::max(data.size(), static_cast<std::size_t>(std::min<std::uint64_t>(size, job.size))));
  }
  std::memcpy(block.data() + block.length, data.data(), data.size());
  block.length += data.size();
  return block.length < block.capacity || flush(job);
}

bool FileCopier::flush(Job& job) {
  auto& block = job.block;
  auto const* const data = block.data();
  auto const fd = job.fd.get();
  auto const done = fullIo(
      [&](std::size_t written) {
        return ::pwrite(fd, data + written, block.length - written, static_cast<off_t>(block.offset + written));
      },
      block.length);
  if (done < 0 || static_cast<std::size_t>(done) < block.length) {
    fail(job, "cannot write " + quoted(job.task.folder->pathOf(job.temp)) + ": " +
                  errnoText(done < 0 ? static_cast<int>(-done) : EIO));
    return false;
  }
  job.wrote = job.wrote || block.length > 0;
  block.length = 0;
  return true;
}

void FileCopier::finishDownload(Job& job) {
  auto const& task = job.task;
  // A listed size not reached: the file shrank while it was read.
  if (task.size && job.end < *task.size) return fail(job, quoted(task.source) + " changed while being read");
  job.phase = Job::Phase::Finishing;
  closeRemote(job);
  if (!flush(job)) return;
  job.block.release();
  auto const tempPath = task.folder->pathOf(job.temp);
  bool modeFailed = false;
  if (auto const error = setAttributesOf(job.fd.get(), task.kept, modeFailed); error != 0) {
    return fail(job, std::string(modeFailed ? "cannot set the mode of " : "cannot set the time of ") +
                         quoted(tempPath) + ": " + errnoText(error));
  }
  if (auto const error = job.fd.close(); error != 0) {
    return fail(job, "cannot write " + quoted(tempPath) + ": " + errnoText(error));
  }
  if (auto const error = task.folder->rename(job.temp, task.name); error != 0) {
    return fail(job, "cannot replace " + quoted(task.destination) + ": " + errnoText(error));
  }
  complete(job);
}

}  // namespace foundation::sshclient::internal::transfer
