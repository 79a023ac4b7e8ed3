#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopy.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "sshfileaccess/platform/sshclient/internal/transfer/Copiers.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopyJob.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/LocalFiles.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"

namespace foundation::sshclient::internal::transfer {

using namespace copying;  // NOLINT(google-build-using-namespace): this room's own pieces

CopySettings copySettings(sftp::EngineOptions const& options, bool upload, std::size_t channels) {
  CopySettings settings;
  settings.upload = upload;
  settings.windowBytes = upload ? std::min(options.windowBytes, options.uploadWindowBytes) : options.windowBytes;
  settings.windowCap = options.windowCap;
  settings.maxOpenFiles = std::min(options.maxOpenFiles, options.maxOpenFilesCap);
  settings.maxOpenFilesCap = options.maxOpenFilesCap;
  settings.openAheadBytes = upload ? options.uploadOpenAheadBytes : 0;
  // Descriptors over all channels stay within the process's open files.
  settings.descriptors = filesOpenPerChannel(openFileLimit(), channels, options.maxOpenFilesCap);
  settings.chunkSize = options.chunkSize;
  return settings;
}

FileCopier::FileCopier(sftp::SftpSession& session, CopySettings const& settings, FileObserver& observer,
                       TransferCounters& counters, RateLimit* sharedLimit)
    : session_(session),
      settings_(settings),
      observer_(observer),
      counters_(counters),
      random_(std::random_device{}()),
      window_(settings.windowBytes),
      openFiles_(settings.maxOpenFiles),
      ownLimit_(settings.bytesPerSecond, RateLimit::Clock::now()),
      limit_(sharedLimit != nullptr ? *sharedLimit : ownLimit_) {}

FileCopier::~FileCopier() = default;

void FileCopier::add(FileTask task) {
  queued_.insert(task.destination);
  queue_.push_back(std::move(task));
}

std::uint32_t FileCopier::chunk() const noexcept {
  return std::max<std::uint32_t>(
      1, settings_.chunkSize.value_or(settings_.upload ? session_.writeChunk() : session_.readChunk()));
}

bool FileCopier::idle() const noexcept { return (queue_.empty() || stopping_) && jobs_.empty(); }

bool FileCopier::awaitsDeltas() const noexcept {
  return (queue_.empty() || stopping_) && !jobs_.empty() &&
         std::all_of(jobs_.begin(), jobs_.end(),
                     [](auto const& job) { return job->awaitsRanges() && job->pending == 0; });
}

std::size_t FileCopier::waiting() const noexcept { return queue_.size(); }

std::optional<std::string> FileCopier::current() const {
  if (jobs_.empty()) return std::nullopt;
  return jobs_.front()->task.source;
}

namespace {

// A file takes about three round trips in a row (open; write, set and close;
// rename): the time it spends in flight. Its rate is measured over single
// round trips, where files finish in bursts: the count grows at the first
// burst rather than three round trips later.
constexpr int kTurnsPerFile = 3;

}  // namespace

void FileCopier::followLink() {
  auto const now = Clock::now();
  auto const roundTrip = session_.roundTrip();
  dataRate_.sample(now, session_.dataAnswered(), roundTrip);
  fileRate_.sample(now, filesDone_, roundTrip);
  window_ = grown(window_, dataRate_.best(), roundTrip, {settings_.windowBytes, settings_.windowCap});
  openFiles_ = static_cast<std::size_t>(grown(openFiles_, fileRate_.best(), kTurnsPerFile * roundTrip,
                                              {settings_.maxOpenFiles, settings_.maxOpenFilesCap}));
  // The channel lets the server send ahead as much as the room offered to
  // each receive: grown the same way (more eagerly: libssh's own window
  // already carries twice its rate), up to the replies of every READ in
  // flight. On loopback it stays at its floor, as before.
  if (!settings_.upload) {
    session_.setReceiveRoom(
        grown(session_.receiveRoom(), dataRate_.best(), 2 * roundTrip, {0, window_ + window_ / 16}));
  }
}

void FileCopier::poll() {
  // Finished files make room for new ones.
  if (std::exchange(reapable_, false)) {
    done_ -= std::erase_if(jobs_, [](auto const& job) { return job->phase == Job::Phase::Done && job->pending == 0; });
  }
  followLink();
  auto maxOpen = std::max<std::size_t>(1, openFiles_);
  if (!session_.limitsKnown()) {
    maxOpen = std::min(maxOpen, kFilesBeforeLimits);
  } else if (session_.handleLimit() > 0) {
    maxOpen = std::min<std::size_t>(maxOpen, std::max<std::uint64_t>(1, session_.handleLimit() / 2));
  }
  // A file done holds no handle: its CLOSE went before any later OPEN, and
  // the server answers in order (one failed before its OPEN was answered
  // closes on the answer: half the server's handles stay spare for those).
  auto const ahead = settings_.openAheadBytes;
  // Summed over the jobs only when a file could start.
  bool const mayStart = !stopping_ && !queue_.empty() && active() < maxOpen;
  auto unsent = ahead > 0 && mayStart ? unsentBytes() : 0;
  // A job holds one descriptor at most, so they bind only below maxOpen:
  // counted only then.
  auto held = mayStart && settings_.descriptors < maxOpen ? descriptorsHeld() : 0;
  while (!stopping_ && !queue_.empty() && active() < maxOpen && session_.queuedBytes() < kOutboundLimit &&
         (ahead == 0 || unsent < ahead)) {
    auto const& next = queue_.front();
    if (busy_.contains(next.destination)) break;
    bool const descriptorFree = held < settings_.descriptors;
    if (!descriptorFree && opensAtOnce(next)) break;
    auto job = std::make_unique<Job>();
    job->task = std::move(queue_.front());
    queue_.pop_front();
    busy_.insert(queued_.extract(job->task.destination));
    jobs_.push_back(std::move(job));
    start(*jobs_.back(), descriptorFree);
    if (jobs_.back()->fd.valid()) ++held;
    if (ahead > 0) unsent += jobs_.back()->unsent();
  }
  if (!session_.limitsKnown()) return;
  sendData();
  // Held back by the rate limit with nothing else to wait for: the wait is
  // here, exactly as long as the limit needs.
  while (throttled_ && session_.pending() == 0 && session_.queuedBytes() == 0) {
    std::this_thread::sleep_until(limit_.readyAt());
    sendData();
  }
}

// A delta, a resumed file and an upload not listed need their descriptor
// as they start; other files wait for one until their data moves.
bool FileCopier::opensAtOnce(FileTask const& task) const noexcept {
  return task.delta || !task.resumeTemp.empty() || (settings_.upload && (!task.size || !task.listedMtime));
}

std::size_t FileCopier::descriptorsHeld() const noexcept {
  return static_cast<std::size_t>(
      std::count_if(jobs_.begin(), jobs_.end(), [](auto const& job) { return job->fd.valid(); }));
}

std::uint64_t FileCopier::unsentBytes() const noexcept {
  std::uint64_t unsent = 0;
  for (auto const& job : jobs_) unsent += job->unsent();
  return unsent;
}

void FileCopier::sendData() {
  throttled_ = false;
  for (auto& job : jobs_) {
    if (session_.dataInFlight() >= window_ || session_.queuedBytes() >= kOutboundLimit) return;
    if (job->phase != Job::Phase::Transferring || job->failed) continue;
    if (job->task.delta) {
      if (auto const& failure = job->task.feed->failure) {
        fail(*job, *failure);
        continue;
      }
      // Ranges found since, or the end of them.
      job->skipReused();
    }
    if (settings_.upload) {
      issueWrites(*job);
    } else {
      issueReads(*job);
    }
    if (throttled_) return;
  }
}

bool FileCopier::mayRequest() {
  if (limit_.ready(RateLimit::Clock::now())) return true;
  throttled_ = true;
  return false;
}

void FileCopier::requested(std::uint32_t length) { limit_.take(length, RateLimit::Clock::now()); }

void FileCopier::onReply(Ticket const& ticket, Reply const& reply) {
  auto& job = *static_cast<Job*>(ticket.subject);
  --job.pending;
  reapable_ = reapable_ || (job.phase == Job::Phase::Done && job.pending == 0);
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
    case kRecheck:
      return onRecheck(job, reply);
    default:
      return;
  }
}

// ---- both directions -------------------------------------------------------------

void FileCopier::start(Job& job, bool descriptorFree) {
  if (settings_.upload) {
    startUpload(job, descriptorFree);
  } else {
    startDownload(job);
  }
}

std::string failedCopy(FileTask const& task, bool upload, std::string const& peer) {
  if (upload) return "cannot upload " + quoted(task.source) + " to " + quoted(task.destination) + " on " + peer + ": ";
  return "cannot download " + quoted(task.source) + " from " + peer + " to " + quoted(task.destination) + ": ";
}

std::string FileCopier::describe(Job const& job) const {
  return failedCopy(job.task, settings_.upload, session_.peer());
}

std::string FileCopier::context() const {
  // Before VERSION a failure is the session's, whatever file has started.
  if (!session_.started()) return {};
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
  if (job.helper) {
    // Its owner reports the file (an empty cause: the helper just stops).
    if (!cancelled_ && !cause.empty()) job.stripe->fail(cause);
    return endHelper(job);
  }
  if (job.stripe) job.stripe->end();
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
  retire(job);
  if (cancelled_) return;
  job.failure = describe(job) + cause;
  // A cause being looked into is named once its answer is in.
  if (job.diagnosed.empty()) observer_.fileFailed(job.task, job.failure);
}

void FileCopier::retire(Job& job) {
  job.phase = Job::Phase::Done;
  reapable_ = true;
  ++done_;
}

void FileCopier::complete(Job& job) {
  busy_.erase(busy_.find(job.task.destination));
  job.temp.clear();
  retire(job);
  ++counters_.filesDone;
  ++filesDone_;
  if (job.resumed) ++counters_.resumed;
  if (job.task.delta) counters_.reused += job.task.feed->reused;
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

}  // namespace foundation::sshclient::internal::transfer
