// Uploads of FileCopier: local files read ahead, WRITEs pipelined into a
// remote temporary, mode and times set on the open handle, then a rename
// (or, without posix-rename, a move aside and back).

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopyJob.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"

namespace foundation::sshclient::internal::transfer {

using namespace copying;  // NOLINT(google-build-using-namespace): this room's own pieces

// ---- uploads -----------------------------------------------------------------

namespace {

// The disk reads the first block while the temporary is opened: a cold
// file's read would otherwise stop every channel of this thread.
void readSoon(int fd, std::uint64_t size) {
  if (size > 0) {
    ::posix_fadvise(fd, 0, static_cast<off_t>(std::min<std::uint64_t>(size, kIoBlock)), POSIX_FADV_WILLNEED);
  }
}

}  // namespace

void FileCopier::startUpload(Job& job, bool descriptorFree) {
  auto const& task = job.task;
  std::tie(job.folder, job.name) = splitPath(task.destination);
  if (task.delta) {
    // A delta's temporary is ours from here: a failure closes and removes it.
    job.temp = job.folder + task.resumeTemp;
    job.handle = task.handle;
  }
  if (descriptorFree) {
    if (!openSource(job)) return;
    readSoon(job.fd.get(), job.size);
  } else {
    // Opened when its data is about to go (a listed file that is neither a
    // delta nor resumed: poll() starts no other without a free descriptor);
    // read ahead all the same, the descriptor not kept.
    job.size = *task.size;
    job.sourceMtime = {static_cast<time_t>(*task.listedMtime), 0};
    UniqueFd const source(::open(task.source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (source.valid()) readSoon(source.get(), job.size);
  }
  if (task.delta) {
    // The blocks kept fit only the version that was hashed.
    if (job.size != task.size || job.sourceMtime.tv_sec != task.hashedMtime.tv_sec ||
        job.sourceMtime.tv_nsec != task.hashedMtime.tv_nsec) {
      return fail(job, quoted(task.source) + " changed while being read");
    }
    job.skipReused();
    if (!job.handle.empty()) return uploadOpened(job);
    job.opening = std::exchange(job.temp, std::string());
    ++job.pending;
    session_.open({this, kOpen, &job}, job.opening, openflags::kWrite, Attributes{});
    return;
  }
  // What the listing counted; the file may have changed since.
  auto const counted = task.size.value_or(0) - task.resumeFrom;
  if (!task.resumeTemp.empty()) {
    auto const temp = job.folder + task.resumeTemp;
    if (job.size == task.size && static_cast<std::uint32_t>(job.sourceMtime.tv_sec) == task.listedMtime) {
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

// The source as it is now gives the file's size and time.
bool FileCopier::openSource(Job& job) {
  auto const& source = job.task.source;
  job.fd = UniqueFd(::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat st {};
  if (!job.fd.valid() || ::fstat(job.fd.get(), &st) != 0) {
    fail(job, "cannot open " + quoted(source) + ": " + errnoText(errno));
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    fail(job, quoted(source) + (S_ISDIR(st.st_mode) ? " is a folder" : " is not a regular file"));
    return false;
  }
  job.size = static_cast<std::uint64_t>(st.st_size);
  job.sourceMtime = st.st_mtim;
  return true;
}

void FileCopier::openRemoteTemp(Job& job) {
  ++job.tempAttempts;
  auto const& name = job.name;
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
  if (job.helper) return onHelperOpen(job, reply);
  if (reply.type == PacketType::Handle) {
    job.handle = std::string(reply.handle);
    job.temp = std::exchange(job.opening, std::string());
    if (job.failed) {
      closeRemote(job);
      return discardTemp(job);
    }
    return uploadOpened(job);
  }
  if (reply.type != PacketType::Status) throw sftp::ProtocolError("unexpected reply to OPEN");
  auto const temp = std::exchange(job.opening, std::string());
  if (job.failed) return;
  if (job.task.delta) {
    return fail(job, "cannot open " + quoted(temp) + ": " + sftp::describeStatus(reply.status, reply.message));
  }
  onUploadRefused(job, reply, temp);
}

// The temporary is open for writing: the data goes.
void FileCopier::uploadOpened(Job& job) {
  job.phase = Job::Phase::Transferring;
  // A source not open yet is opened when its data is about to go.
  if (job.fd.valid()) sourceReady(job);
}

// Source and temporary are open: a big file is shared out, an empty one ends.
void FileCopier::sourceReady(Job& job) {
  if (board_ != nullptr && !job.task.delta && job.size - job.next >= kStripedFrom) {
    job.stripe = std::make_shared<Stripe>(job.task.source, job.task.destination, job.temp, job.next, job.size);
    job.grantEnd = job.next;
    board_->post(job.stripe);
  }
  if (job.sentAll()) finishUpload(job);
}

void FileCopier::onUploadRefused(Job& job, Reply const& reply, std::string const& temp) {
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
  auto const wanted = static_cast<std::size_t>(std::min<std::uint64_t>(block, job.stretchEnd() - job.next));
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

// Whether the job has bytes to send now; a shared file's job takes its next
// range when the last one is sent, and sends nothing more once the file
// failed or was given up.
bool FileCopier::moreToSend(Job& job) {
  if (!job.stripe) return job.next < job.stretchEnd();
  if (job.stripe->ended()) return false;
  if (job.next < job.grantEnd) return true;
  auto const grant = job.stripe->take(kGrantSize);
  if (!grant) return false;
  job.next = grant->offset;
  job.grantEnd = grant->end;
  return true;
}

void FileCopier::issueWrites(Job& job) {
  if (!job.fd.valid()) {
    // Counted as listed until now.
    auto const listed = job.size;
    if (!openSource(job)) return;
    counters_.bytesTotal = counters_.bytesTotal - listed + job.size;
    sourceReady(job);
    if (job.phase != Job::Phase::Transferring || job.failed) return;
  }
  while (session_.dataInFlight() < window_ && session_.queuedBytes() < kOutboundLimit && moreToSend(job) &&
         mayRequest()) {
    if (!readAhead(job)) break;
    auto const length = static_cast<std::uint32_t>(
        std::min<std::uint64_t>({requestChunk(), job.stretchEnd() - job.next, job.block.end() - job.next}));
    requested(length);
    ++job.pending;
    session_.write({this, kWrite, &job, job.next, length}, job.handle, job.next,
                   ByteView(job.block.data() + (job.next - job.block.offset), length));
    job.next += length;
    job.skipReused();
    ++job.dataInFlight;
  }
  if (job.failed) return;
  if (job.stripe) return afterStripedWrites(job);
  // The attributes and the CLOSE follow the last WRITE at once: the server
  // answers in order, so a failed WRITE fails the file before the CLOSE's
  // answer could lead to the rename.
  if (job.sentAll()) finishUpload(job);
}

// A shared file ends when every range arrived, over whichever channel: its
// owner then finishes it as any other. A helper closes once it has nothing
// in flight and nothing left to take.
void FileCopier::afterStripedWrites(Job& job) {
  auto& stripe = *job.stripe;
  if (job.helper) {
    bool const nothingLeft = stripe.ended() || (stripe.handedOut() && job.next >= job.grantEnd);
    if (nothingLeft && job.dataInFlight == 0) endHelper(job);
    return;
  }
  if (auto const& failure = stripe.failure()) return fail(job, *failure);
  if (stripe.complete() && job.dataInFlight == 0) finishUpload(job);
}

void FileCopier::endHelper(Job& job) {
  job.fd.reset();
  job.block.release();
  closeRemote(job);
  retire(job);
}

void FileCopier::onHelperOpen(Job& job, Reply const& reply) {
  auto const opened = std::exchange(job.opening, std::string());
  if (reply.type == PacketType::Handle) {
    job.handle = std::string(reply.handle);
    if (job.failed || job.stripe->ended()) return fail(job, "");
    job.phase = Job::Phase::Transferring;
    return;
  }
  if (reply.type != PacketType::Status) throw sftp::ProtocolError("unexpected reply to OPEN");
  // The owner finished or gave up meanwhile: nothing was taken, nothing lost.
  fail(job, "");
}

bool FileCopier::help() {
  if (board_ == nullptr || stopping_) return false;
  auto stripe = board_->next();
  if (!stripe) return false;
  auto job = std::make_unique<Job>();
  job->helper = true;
  job->stripe = stripe;
  job->task.source = stripe->source();
  job->task.destination = stripe->destination();
  job->size = stripe->size();
  job->fd = UniqueFd(::open(stripe->source().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!job->fd.valid()) {
    stripe->fail("cannot open " + quoted(stripe->source()) + ": " + errnoText(errno));
    return false;
  }
  job->opening = stripe->temp();
  ++job->pending;
  session_.open({this, kOpen, job.get()}, job->opening, openflags::kWrite, Attributes{});
  jobs_.push_back(std::move(job));
  return true;
}

void FileCopier::onWrite(Job& job, Ticket const& ticket, Reply const& reply) {
  --job.dataInFlight;
  if (job.failed) return;
  if (reply.type != PacketType::Status) throw sftp::ProtocolError("unexpected reply to WRITE");
  if (reply.status != StatusCode::Ok) {
    if (!job.helper) diagnose(job, reply.status, reply.message);
    auto const temp = job.helper ? job.stripe->temp() : job.temp;
    return fail(job, "cannot write " + quoted(temp) + ": " + sftp::describeStatus(reply.status, reply.message));
  }
  counters_.bytesDone += ticket.length;
  if (job.stripe) job.stripe->arrived(ticket.offset, ticket.length);
}

void FileCopier::finishUpload(Job& job) {
  if (changedWhileRead(job)) return;
  if (job.stripe) job.stripe->end();
  job.phase = Job::Phase::Finishing;
  job.fd.reset();
  job.block.release();
  auto const& kept = job.task.kept;
  if (kept.mode || kept.mtime || job.task.delta) {
    // On the open file, after the last write: the rename then shows it whole.
    // A delta's temporary may still be as long as the old version.
    Attributes attributes;
    if (job.task.delta) attributes.size = job.size;
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
  job.aside = job.folder + randomTemporaryName(job.name, random_);
  ++job.pending;
  session_.rename({this, kMoveAside, &job}, job.task.destination, job.aside, false);
}

}  // namespace foundation::sshclient::internal::transfer
