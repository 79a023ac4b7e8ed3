#pragma once
// Files sent over an SFTP session, many at once: the execution of copies.
//
// Speed comes from never waiting for one reply before sending the next
// request: many READ/WRITE requests of a file are in flight at once (bounded
// by a window of outstanding bytes, not by a request count), and the next
// files are opened while earlier ones are still moving.
//
// Safety: each file is written to a temporary beside its destination
// (".<name>.sshfa-<random>", created exclusively; a file that may resume
// bears ".<name>.sshfa-partial-<size>-<mtime>" of its source) and renamed
// over the destination only once complete, so an existing destination is
// either untouched or wholly replaced. Mode and times are set on the
// temporary before the rename. Remote renames use posix-rename where
// offered, else a plain rename and, where that refuses to replace a regular
// file, a move aside and back. Local files are made in their folder's open
// descriptor (LocalDir), never through a link. A file whose size or time
// changes while it is read fails ("changed while being read"). A delta's
// temporary arrives made (DeltaCopy.hpp): only the changed ranges are sent
// into it, it is cut to the source's size, and it is renamed the same way.
//
// Copiers of one transfer over several channels may share big uploads out
// (Stripes.hpp): the owner posts the file once its temporary is open, and a
// copier with nothing else to do helps with its ranges.
//
// Under a rate limit (bytesPerSecond), data requests are cut to an eighth
// of a second's worth and issued as a token bucket allows; when nothing else
// is awaited, poll() sleeps until the next may go (never longer, never in a
// busy loop).
//
// A failed file's temporary goes and the observer is told; with
// stopOnFailure no new file starts afterwards. cancel() (a stop) fails every
// file in flight quietly, keeping resumable temporaries that hold data;
// abandon() (a broken stream) only closes and removes local temporaries.
// Owns its jobs; calls only the session, the local file system and the
// observer. Not thread-safe.

#include <sys/stat.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/SftpSession.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Delta.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/LocalFiles.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Plan.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/RateLimit.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Stripes.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Windows.hpp"

namespace foundation::sshclient::internal::transfer {

// The window and the open files start at their floors, which measured
// fastest on loopback, and grow up to their caps while the link carries more
// (Windows.hpp).
struct CopySettings {
  bool upload = true;
  std::uint64_t windowBytes = 8U * 1024U * 1024U;  // file data in flight
  std::uint64_t windowCap = 32U * 1024U * 1024U;
  std::size_t maxOpenFiles = 512;  // also bounded by the server's handle limit
  std::size_t maxOpenFilesCap = 1024;
  // Files holding a local descriptor at once (a file holds one only while it
  // is read or written here; a delta, a resumed file or one not listed from
  // its start).
  std::size_t descriptors = 1024;
  std::uint64_t openAheadBytes = 0;        // unsent data of the files open that stops further opens; 0: none
  std::optional<std::uint32_t> chunkSize;  // bytes per READ/WRITE; unset: the server's
  std::uint32_t createMode = 0600;         // temporaries are created with it (less the umask)
  bool resume = false;                     // resumable temporaries, kept when stopped
  bool stopOnFailure = false;
  std::uint64_t bytesPerSecond = 0;  // file data sent or asked for; 0: no limit
};

// The settings of the engine's options that copying uses, in one direction over that many channels.
CopySettings copySettings(sftp::EngineOptions const& options, bool upload, std::size_t channels);

// A delta's ranges to send, as they are found: the copier sends each as it
// comes and finishes once `complete`; a `failure` fails the file. Shared by
// the DeltaCopier that finds them and the FileCopier that sends them.
struct DeltaFeed {
  std::vector<ByteRange> ranges;  // growing, in the order found (apart, not by offset)
  bool complete = false;
  std::optional<std::string> failure;
  std::uint64_t reused = 0;  // once complete: the old version's bytes kept
};

struct FileTask {
  std::size_t item = 0;     // of the command, to order failures
  std::string source;       // full path, local or remote
  std::string destination;  // full path, for messages and remote requests
  // Downloads: the destination's folder and its name there; a null folder
  // is opened from the destination's path (a caller's own file).
  std::shared_ptr<LocalDir> folder;
  std::string name;
  std::optional<std::uint64_t> size;  // as listed
  std::optional<std::uint32_t> listedMtime;
  Kept kept;               // mode and times to set
  std::string resumeTemp;  // an earlier run's verified temporary (its name)
  std::uint64_t resumeFrom = 0;
  // A delta: `resumeTemp` is a temporary of this transfer (not resumable)
  // that holds the old version's bytes; only the ranges of `feed` are sent
  // into it, and it is cut to `size`. An upload's source must still have
  // `size` and `hashedMtime`, as when its blocks were hashed.
  bool delta = false;
  std::shared_ptr<DeltaFeed> feed;
  struct timespec hashedMtime {};
  // A delta's remote file left open for the copy, a round trip saved: the
  // temporary for writing (uploads), the source for reading (downloads).
  std::string handle;
  void* owner = nullptr;  // the caller's, handed back
};

class FileObserver {
 public:
  virtual void fileDone(FileTask const& task) = 0;
  virtual void fileFailed(FileTask const& task, std::string const& message) = 0;

 protected:
  FileObserver() = default;
  ~FileObserver() = default;
  FileObserver(FileObserver const&) = default;
  FileObserver& operator=(FileObserver const&) = default;
};

struct TransferCounters {
  std::uint64_t bytesDone = 0;
  std::uint64_t bytesTotal = 0;
  std::size_t filesDone = 0;
  std::size_t resumed = 0;
  std::uint64_t reused = 0;  // file data taken from old versions (deltas)
};

// "cannot upload 'a' to 'b' on peer: " (or the download's words): how the
// failure of a file begins.
[[nodiscard]] std::string failedCopy(FileTask const& task, bool upload, std::string const& peer);

class FileCopier final : public sftp::ReplyHandler {
 public:
  // Copiers of one transfer over several channels share one rate limit:
  // `sharedLimit` (another copier's rateLimit()) outlives this one.
  FileCopier(sftp::SftpSession& session, CopySettings const& settings, FileObserver& observer,
             TransferCounters& counters, RateLimit* sharedLimit = nullptr);
  ~FileCopier();
  FileCopier(FileCopier const&) = delete;
  FileCopier& operator=(FileCopier const&) = delete;

  void add(FileTask task);
  // Starts queued files and sends data as the window (and the rate limit)
  // allows.
  void poll();
  [[nodiscard]] bool idle() const noexcept;
  // Nothing to do but deltas whose next ranges are still being found.
  [[nodiscard]] bool awaitsDeltas() const noexcept;
  [[nodiscard]] std::size_t waiting() const noexcept;  // queued, not started
  // Files under way (those done may still wait for a stray answer).
  [[nodiscard]] std::size_t active() const noexcept { return jobs_.size() - done_; }
  // Whether a file to `destination` is queued or under way here.
  [[nodiscard]] bool holds(std::string const& destination) const {
    return busy_.contains(destination) || queued_.contains(destination);
  }
  [[nodiscard]] bool stopped() const noexcept { return stopping_; }
  [[nodiscard]] RateLimit& rateLimit() noexcept { return limit_; }
  // Big uploads go on `board` for the other copiers, which outlive them.
  void shareStripes(StripeBoard* board) noexcept { board_ = board; }
  // Starts helping with a file on the board; false when there is none.
  bool help();
  // The source of the oldest file in flight, for progress.
  [[nodiscard]] std::optional<std::string> current() const;
  // "cannot upload 'a' to 'b' on peer: " for the file in flight, for a failure of the whole stream.
  [[nodiscard]] std::string context() const;

  void cancel();
  void abandon() noexcept;

  void onReply(sftp::Ticket const& ticket, sftp::Reply const& reply) override;

 private:
  struct Job;
  void start(Job& job, bool descriptorFree);
  [[nodiscard]] std::uint64_t unsentBytes() const noexcept;
  [[nodiscard]] bool opensAtOnce(FileTask const& task) const noexcept;
  [[nodiscard]] std::size_t descriptorsHeld() const noexcept;
  void fail(Job& job, std::string const& cause);
  void retire(Job& job);
  void complete(Job& job);
  void closeRemote(Job& job);
  void discardTemp(Job& job);
  [[nodiscard]] std::string describe(Job const& job) const;
  [[nodiscard]] bool holdsResumableData(Job const& job) const;
  [[nodiscard]] bool changedWhileRead(Job& job);
  void diagnose(Job& job, sftp::StatusCode status, std::string_view message);
  void onStatvfs(Job& job, sftp::Reply const& reply);

  void startUpload(Job& job, bool descriptorFree);
  bool openSource(Job& job);
  void openRemoteTemp(Job& job);
  void onUploadOpen(Job& job, sftp::Reply const& reply);
  void uploadOpened(Job& job);
  void sourceReady(Job& job);
  void onUploadRefused(Job& job, sftp::Reply const& reply, std::string const& temp);
  bool readAhead(Job& job);
  bool moreToSend(Job& job);
  void issueWrites(Job& job);
  void afterStripedWrites(Job& job);
  void onHelperOpen(Job& job, sftp::Reply const& reply);
  void endHelper(Job& job);
  void onWrite(Job& job, sftp::Ticket const& ticket, sftp::Reply const& reply);
  void finishUpload(Job& job);
  void onUploadClose(Job& job, sftp::Reply const& reply);
  void onRename(Job& job, std::uint32_t kind, sftp::Reply const& reply);
  void onInspect(Job& job, sftp::Reply const& reply);

  void startDownload(Job& job);
  void onDownloadAnswer(Job& job, std::uint32_t kind, sftp::Reply const& reply);
  void downloadAnswered(Job& job);
  void issueReads(Job& job);
  void onRead(Job& job, sftp::Ticket const& ticket, sftp::Reply const& reply);
  void onProbe(Job& job, sftp::Reply const& reply);
  void onRecheck(Job& job, sftp::Reply const& reply);
  bool writeBehind(Job& job, std::uint64_t offset, sftp::ByteView data);
  bool createTemp(Job& job);
  bool flush(Job& job);
  void finishDownload(Job& job);

  [[nodiscard]] std::uint32_t chunk() const noexcept;
  void followLink();
  // The length of the next data request: a chunk, cut under a rate limit.
  [[nodiscard]] std::uint32_t requestChunk() const noexcept { return limit_.requestLength(chunk()); }
  // Whether the rate limit lets a data request go now; false marks the copier
  // throttled.
  [[nodiscard]] bool mayRequest();
  void requested(std::uint32_t length);
  void sendData();

  sftp::SftpSession& session_;
  CopySettings settings_;
  FileObserver& observer_;
  TransferCounters& counters_;
  std::mt19937_64 random_;
  std::deque<FileTask> queue_;
  std::vector<std::unique_ptr<Job>> jobs_;
  // Destinations of unfinished files: a later file to the same place waits,
  // so that it is the one that stays.
  std::unordered_multiset<std::string> busy_;
  std::unordered_multiset<std::string> queued_;  // destinations of queue_
  bool stopping_ = false;
  bool cancelled_ = false;
  bool reapable_ = false;  // a finished job may be waiting to go
  std::size_t done_ = 0;   // jobs done and still held for their answers
  // What the link carries: the window and the open files grow from the
  // settings' floors.
  std::uint64_t window_;
  std::size_t openFiles_;
  RateMeter dataRate_;
  RateMeter fileRate_;
  std::size_t filesDone_ = 0;  // by this copier: its own channel's rate, when several share the counters
  RateLimit ownLimit_;
  RateLimit& limit_;
  bool throttled_ = false;  // data held back by the rate limit
  StripeBoard* board_ = nullptr;
};

}  // namespace foundation::sshclient::internal::transfer
