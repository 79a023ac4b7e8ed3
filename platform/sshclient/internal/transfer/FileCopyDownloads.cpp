// Downloads of FileCopier: READs pipelined from the remote file, written
// behind into a temporary made at the first write in its folder's
// descriptor, a probe past a listed size (within the last READ where the
// server allows), then mode, times and a rename within that folder.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopyJob.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"

namespace foundation::sshclient::internal::transfer {

using namespace copying;  // NOLINT(google-build-using-namespace): this room's own pieces

// ---- downloads -----------------------------------------------------------------

void FileCopier::startDownload(Job& job) {
  auto& task = job.task;
  // A delta's open source is ours from here: a failure closes it.
  job.handle = task.handle;
  if (auto const error = openDestinationFolder(task); error != 0) {
    if (error == ENOENT)
      return fail(job, "destination folder " + quoted(folderOf(task.destination)) + " does not exist");
    return fail(job, "cannot open " + quoted(folderOf(task.destination)) + ": " + errnoText(error));
  }
  auto const& folder = *task.folder;
  if (task.delta) {
    job.temp = task.resumeTemp;
    if (auto const error = folder.openFile(job.temp, job.fd); error != 0) {
      return fail(job, "cannot open " + quoted(folder.pathOf(job.temp)) + ": " + errnoText(error));
    }
  } else if (!task.resumeTemp.empty()) {
    if (folder.openFile(task.resumeTemp, job.fd) == 0) {
      job.temp = task.resumeTemp;
      job.resumed = job.resumable = true;
      job.next = task.resumeFrom;
    } else {
      counters_.bytesTotal += task.resumeFrom;
    }
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
  if (!job.handle.empty()) {
    job.openAnswered = true;
    if (job.statAnswered) return downloadAnswered(job);
    return;
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
  if (job.statAnswered && job.openAnswered) downloadAnswered(job);
}

// The source is open and its size known: the data comes.
void FileCopier::downloadAnswered(Job& job) {
  auto const& source = job.task.source;
  if (job.attributes && job.attributes->isDirectory()) return fail(job, quoted(source) + " is a folder");
  if (job.attributes && !job.attributes->isRegularOrUnknown()) {
    return fail(job, quoted(source) + " is not a regular file");
  }
  if (job.sourceError) return fail(job, "cannot open " + quoted(source) + ": " + *job.sourceError);
  job.size = job.attributes->size.value_or(UINT64_MAX);
  job.skipReused();
  if (job.attributes->size && !job.task.size) counters_.bytesTotal += job.size;
  job.phase = Job::Phase::Transferring;
  // A listed file is probed past its end before it finishes, also when empty.
  if (job.size == 0 && !job.task.size) finishDownload(job);
}

void FileCopier::issueReads(Job& job) {
  while (job.next < job.stretchEnd() && job.end == UINT64_MAX && session_.dataInFlight() < window_ &&
         session_.queuedBytes() < kOutboundLimit && mayRequest()) {
    auto const length =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(requestChunk(), job.stretchEnd() - job.next));
    // The last read of a listed file also asks for the byte past its size
    // when the server stated its limits: such a server answers a READ with
    // a single read(), so a reply ending at the listed size is its end of
    // file and no separate probe is needed.
    bool const probes = job.task.size && !job.task.delta && !job.probed && job.next + length == job.size &&
                        length < session_.readChunk() && session_.limitsStated();
    auto const asked = length + (probes ? 1U : 0U);
    requested(asked);
    ++job.pending;
    session_.read({this, kRead, &job, job.next, asked}, job.handle, job.next, asked);
    job.probed = job.probed || probes;
    job.next += length;
    job.skipReused();
    ++job.dataInFlight;
  }
  if (job.task.size && !job.probed && job.sentAll() && job.end == UINT64_MAX) {
    // A file that grew since it was listed answers with data here.
    ++job.pending;
    session_.read({this, kProbe, &job}, job.handle, job.size, 1);
    job.probed = true;
    ++job.dataInFlight;
    if (job.task.delta) {
      // Blocks kept from the old version fit only the source as listed: one
      // rewritten in place since shows in its time.
      ++job.pending;
      session_.stat({this, kRecheck, &job}, job.task.source);
      ++job.dataInFlight;
    }
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

void FileCopier::onRecheck(Job& job, Reply const& reply) {
  --job.dataInFlight;
  if (job.failed) return;
  if (reply.type != PacketType::Attrs || reply.attributes.size != job.task.size ||
      reply.attributes.mtime != job.task.listedMtime) {
    return fail(job, quoted(job.task.source) + " changed while being read");
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
    // A read that also probes past a listed size (the size is the listed one
    // whenever the file was listed).
    bool const probes = job.task.size && ticket.offset + ticket.length > job.size;
    if (probes && ticket.offset + length > job.size) {
      return fail(job, quoted(job.task.source) + " changed while being read");
    }
    if (!writeBehind(job, ticket.offset, reply.data)) return;
    counters_.bytesDone += length;
    if (probes && ticket.offset + length == job.size) {
      job.end = job.size;
    } else if (length < ticket.length) {
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
  if (job.dataInFlight == 0 && (job.sentAll() || job.end != UINT64_MAX) && (!probing || job.probed)) {
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

// Made with the first write rather than when the file starts: until then a
// file in flight holds no descriptor here, so the files in flight are not
// bound by the process's open files.
bool FileCopier::createTemp(Job& job) {
  auto const& task = job.task;
  for (;;) {
    // The first try bears the resumable name; a clash falls back to a random one.
    job.resumable = settings_.resume && job.tempAttempts == 0;
    auto const temp = job.resumable ? resumableName(task.name, task.size.value_or(0), task.listedMtime)
                                    : randomTemporaryName(task.name, random_);
    auto const error = task.folder->createFile(temp, static_cast<mode_t>(settings_.createMode), job.fd);
    if (error == 0) {
      job.temp = temp;
      return true;
    }
    if (error == EEXIST && ++job.tempAttempts < kTempAttempts) continue;
    fail(job, "cannot create " + quoted(task.folder->pathOf(temp)) + ": " + errnoText(error));
    return false;
  }
}

bool FileCopier::flush(Job& job) {
  if (!job.fd.valid() && !createTemp(job)) return false;
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
  // Every byte is here: a transfer that ends now need not wait for the
  // answer (the channel's end closes the handle all the same).
  session_.close(sftp::SftpSession::unawaited(), std::exchange(job.handle, std::string()));
  if (!flush(job)) return;
  job.block.release();
  auto const tempPath = task.folder->pathOf(job.temp);
  // A delta's temporary may still be as long as the old version.
  if (task.delta && ::ftruncate(job.fd.get(), static_cast<off_t>(job.size)) != 0) {
    return fail(job, "cannot write " + quoted(tempPath) + ": " + errnoText(errno));
  }
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
