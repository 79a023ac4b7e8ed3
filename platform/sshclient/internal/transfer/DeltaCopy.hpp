#pragma once
// Delta updates: a changed file whose destination holds an old version
// (the plan's Step::Delta) is built in a temporary that starts as a copy of
// the old version made on the destination's side, and only the source's
// blocks whose hashes differ from the old version's go into it.
//
// Both sides hash at once: the remote side's blocks by a command on a
// channel of its own (Delta.hpp's command line), polled from the transfer's
// loop, and this side's a slice per poll(), between the SFTP work of other
// files, from the job's start: with the hash the last remote host named
// (b2sum's at first), again with another should this one name another.
// Uploads: the server creates the temporary, and the hashing command copies
// the old destination into it (dd, which never makes it again once removed)
// and hashes the copy's blocks. Downloads: the old destination is copied
// into the temporary and hashed here in one pass, while the server hashes
// the source's blocks.
//
// A block is judged as soon as both sides have hashed it (the server's
// parts print theirs out of order). The first that differs sends the file
// to the FileCopier with a DeltaFeed, which takes each changed block as it
// is found while the rest are hashed; the last blocks (not whole on both
// sides) follow once both answers are in. The FileCopier writes them into
// the temporary, cuts it to the source's size, sets mode and times and
// renames it into place, with an ordinary copy's checks (a source that
// changed since it was hashed fails as "changed while being read").
//
// Where the remote side cannot hash (the server allows SFTP only, no GNU
// split with --filter, the old version cannot be copied or read), the
// temporary goes and the FileCopier sends the file whole; a detail line
// says why. A stop removes a delta's temporary (it is not resumable: its
// bytes are not the source's beginning), and the old version stays as it
// was; after a lost connection a remote one is left under its temporary
// name, which the next run's plan removes.
//
// Owns its jobs and their commands; calls the session, the remote shell,
// the local file system, the FileCopier and the observer. Not thread-safe.

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/SftpSession.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopy.hpp"

namespace foundation::sshclient::internal::transfer {

class DeltaCopier final : public sftp::ReplyHandler {
 public:
  DeltaCopier(sftp::SftpSession& session, sftp::RemoteShell const& shell, CopySettings const& settings,
              FileCopier& copier, FileObserver& observer, TransferCounters& counters);
  ~DeltaCopier();
  DeltaCopier(DeltaCopier const&) = delete;
  DeltaCopier& operator=(DeltaCopier const&) = delete;

  // A file to update whose destination holds `oldSize` bytes (as listed).
  void add(FileTask task, std::uint64_t oldSize);
  // A delta may come (the link is being measured for one): a command
  // channel opens and its shell starts now, for the first file's hashing.
  void prepare();
  // The file the link is measured for: its job begins now, so that both
  // sides hash while the link is measured. add() of the same file takes it
  // over; settle(owner), once the plan of the task's owner has been carried
  // out, ends it unreported if none did (an upload's temporary goes; the
  // server's copy of an old version of at most 256 MiB was spent).
  void speculate(FileTask task, std::uint64_t oldSize);
  void settle(void const* owner);
  // Uploads: whether `path` is a job's temporary (a listing must not take it
  // for an earlier run's).
  [[nodiscard]] bool makes(std::string const& path) const;
  // Starts queued files, moves their commands on, hashes a slice here and
  // hands finished ones to the FileCopier. Never sleeps.
  void poll();
  // Nothing queued or under way.
  [[nodiscard]] bool idle() const noexcept;
  // Hashing to do here: the loop must come round again without sleeping.
  [[nodiscard]] bool busy() const noexcept;
  // Commands under way: the loop must not sleep inside the SFTP session's
  // pump (their news may have come in with its replies), only after it, and
  // not while news() says something waits.
  [[nodiscard]] bool running() const noexcept;
  [[nodiscard]] bool news() const;
  [[nodiscard]] std::optional<std::string> current() const;
  // "cannot upload 'a' to 'b' on peer: " for the file under way, for a
  // failure of the whole stream; "" when none is.
  [[nodiscard]] std::string context() const;
  // Lines for a verbose reader: files that went whole after all, and why.
  [[nodiscard]] std::vector<std::string> takeDetails();

  // A stop: temporaries go, nothing is reported.
  void cancel();
  // A broken stream: local temporaries go.
  void abandon() noexcept;

  void onReply(sftp::Ticket const& ticket, sftp::Reply const& reply) override;

 private:
  struct Job;
  void start(Job& job);
  void startUpload(Job& job);
  void createTemp(Job& job);
  void startDownload(Job& job);
  void onCreated(Job& job, sftp::Reply const& reply);
  bool openCommand(Job& job);
  void refused(Job& job, SSHError const& error);
  void startHashing(Job& job);
  void moveCommand(Job& job);
  void learnHash(Job& job);
  static bool hashesHere(Job const& job) noexcept;
  bool hashSlice(Job& job, std::uint64_t& budget);
  void judge(Job& job);
  void judgeBlock(Job& job, std::uint64_t index);
  void handOver(Job& job);
  void complete(Job& job, std::vector<ByteRange> const& send, std::uint64_t reused);
  void conclude(Job& job);
  void whole(Job& job, std::string const& why);
  void asCopy(Job& job);
  void fail(Job& job, std::string const& cause);
  void finishJob(Job& job);
  void dropTemp(Job& job);
  [[nodiscard]] bool ready(Job const& job) const;

  sftp::SftpSession& session_;
  sftp::RemoteShell const& shell_;
  CopySettings settings_;
  FileCopier& copier_;
  FileObserver& observer_;
  TransferCounters& counters_;
  std::mt19937_64 random_;
  std::deque<std::pair<FileTask, std::uint64_t>> queue_;
  std::vector<std::unique_ptr<Job>> jobs_;
  std::unique_ptr<sftp::RemoteCommand> spare_;  // from prepare(), for the next job
  std::vector<std::string> details_;
  std::vector<std::uint8_t> buffer_;       // one block read here
  std::optional<std::string> noCommands_;  // why no command can hash there
  HashKind guess_ = HashKind::Blake2b512;  // what this side hashes with before the remote host names its tool
  bool stopping_ = false;
};

}  // namespace foundation::sshclient::internal::transfer
