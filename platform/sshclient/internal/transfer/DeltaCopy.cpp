#include "sshfileaccess/platform/sshclient/internal/transfer/DeltaCopy.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopyJob.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"

namespace foundation::sshclient::internal::transfer {

using namespace copying;  // NOLINT(google-build-using-namespace): the copies' shared pieces

namespace {

// Files hashed at once: the server starts a process per block for each.
constexpr std::size_t kAtOnce = 2;
// Bytes hashed here per poll(): the SFTP work of other files goes on between.
constexpr std::uint64_t kSlice = 8U * 1024U * 1024U;
// The largest old version an upload begins on before the plan chose a delta:
// should it choose the whole file, the server's copy of it was spent.
constexpr std::uint64_t kSpeculativeUploadBytes = 256U * 1024U * 1024U;

enum Request : std::uint32_t { kOpenTemp, kOpenSource };

bool sameTime(struct timespec const& a, struct timespec const& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

struct DeltaCopier::Job {
  enum class Phase { Preparing, Hashing, Done };

  FileTask task;
  Phase phase = Phase::Preparing;
  // Begun before the plan chose (speculate()): it waits for add() to take it
  // over, and ends unreported should anything stop it before then.
  bool speculative = false;
  std::uint64_t listedOld = 0;   // the old version's size as listed
  std::uint64_t listedSize = 0;  // the source's, as the totals counted it
  std::uint64_t sourceSize = 0;
  std::uint64_t oldSize = 0;
  std::uint64_t block = 0;
  std::optional<ByteRange> tail;  // the source's bytes over the old version's short last block
  std::string folder;             // uploads: the destination's folder, with its '/'
  std::string name;               // uploads: the destination's name
  std::string creating;           // uploads: the temporary being created
  std::string temp;               // the temporary's name, once it is ours
  std::string tempHandle;         // uploads: the temporary, open, kept for the copy
  std::string sourceHandle;       // downloads: the source, open, kept for the copy
  int tempAttempts = 0;
  std::size_t pending = 0;  // SFTP requests whose answer is awaited
  // Hashed here: an upload's source, a download's old version (copied into
  // `tempFile` as it is hashed).
  UniqueFd local;
  UniqueFd tempFile;
  std::uint64_t localSize = 0;
  std::uint64_t hashed = 0;
  struct timespec stamp {};  // uploads: the source's time when it was opened
  std::vector<std::string> hashes;
  std::optional<std::string> tailHash;  // uploads: of the source's bytes over `tail`
  std::unique_ptr<sftp::RemoteCommand> command;
  std::optional<std::string> output;  // the command's, once it ended
  std::optional<HashKind> hash;       // as the remote host announced it
  HashKind hashing{};                 // this side's hashes': a guess until the remote host names its own
  // Judged as the hashes come in: the remote host's by block (of the blocks
  // whole on both sides), read up to `read` of its output (`lines` lines);
  // the blocks `judged`, `kept` bytes of them reused. Once a block differs
  // the file goes to the FileCopier with `feed`, which takes the changed
  // blocks as they are found.
  std::vector<std::string> remote;
  std::size_t read = 0;
  std::size_t lines = 0;
  bool judging = true;  // false once the remote host's size is not the one expected
  std::vector<bool> judged;
  std::uint64_t hashedBlocks = 0;  // this side's hashes judge() has looked at
  std::uint64_t kept = 0;
  std::shared_ptr<DeltaFeed> feed;
};

namespace {

// `range` after the feed's last one; never joined to it: the copier may be
// past that one already.
void append(DeltaFeed& feed, ByteRange range) {
  if (range.begin < range.end) feed.ranges.push_back(range);
}

}  // namespace

DeltaCopier::DeltaCopier(sftp::SftpSession& session, sftp::RemoteShell const& shell, CopySettings const& settings,
                         FileCopier& copier, FileObserver& observer, TransferCounters& counters)
    : session_(session),
      shell_(shell),
      settings_(settings),
      copier_(copier),
      observer_(observer),
      counters_(counters),
      random_(std::random_device{}()) {}

DeltaCopier::~DeltaCopier() = default;

void DeltaCopier::add(FileTask task, std::uint64_t oldSize) {
  auto const begun = std::find_if(jobs_.begin(), jobs_.end(), [&](auto const& job) {
    return job->speculative && job->task.source == task.source && job->task.destination == task.destination &&
           job->listedOld == oldSize;
  });
  if (begun == jobs_.end()) {
    queue_.emplace_back(std::move(task), oldSize);
    return;
  }
  auto& job = **begun;
  job.speculative = false;
  // The plan's own task: its owner and attributes; the rest is the same file.
  job.task.item = task.item;
  job.task.kept = task.kept;
  job.task.listedMtime = task.listedMtime;
  job.task.owner = task.owner;
}

void DeltaCopier::speculate(FileTask task, std::uint64_t oldSize) {
  if (stopping_ || noCommands_ || (settings_.upload && oldSize > kSpeculativeUploadBytes)) return;
  auto job = std::make_unique<Job>();
  job->task = std::move(task);
  job->oldSize = job->listedOld = oldSize;
  job->speculative = true;
  jobs_.push_back(std::move(job));
  start(*jobs_.back());
}

bool DeltaCopier::makes(std::string const& path) const {
  return settings_.upload && std::any_of(jobs_.begin(), jobs_.end(), [&](auto const& job) {
           return (!job->temp.empty() && job->folder + job->temp == path) ||
                  (!job->creating.empty() && job->folder + job->creating == path);
         });
}

void DeltaCopier::settle(void const* owner) {
  for (auto& job : jobs_) {
    if (!job->speculative || job->task.owner != owner) continue;
    job->speculative = false;
    if (job->phase == Job::Phase::Done) continue;
    dropTemp(*job);
    finishJob(*job);
  }
}

void DeltaCopier::prepare() {
  if (spare_ || noCommands_ || stopping_) return;
  try {
    spare_ = sftp::openCommand(shell_);
  } catch (SSHError const& e) {
    sftp::recordRefusal(e, noCommands_);
  }
}

bool DeltaCopier::idle() const noexcept {
  return (queue_.empty() || stopping_) && std::all_of(jobs_.begin(), jobs_.end(), [](auto const& job) {
           return job->phase == Job::Phase::Done && job->pending == 0;
         });
}

// Both sides hashed, or the remote side cannot hash: its answer says why.
bool DeltaCopier::ready(Job const& job) const {
  return job.phase == Job::Phase::Hashing && job.output && (job.hashed >= job.localSize || !job.hash);
}

// From the start: the remote side's first hash is a round trip and a copy
// away, and this side's are ready by then.
bool DeltaCopier::hashesHere(Job const& job) noexcept {
  return job.phase != Job::Phase::Done && job.local.valid() && job.hashed < job.localSize;
}

bool DeltaCopier::busy() const noexcept {
  if (stopping_) return false;
  auto const active =
      std::count_if(jobs_.begin(), jobs_.end(), [](auto const& job) { return job->phase != Job::Phase::Done; });
  if (!queue_.empty() && static_cast<std::size_t>(active) < kAtOnce) return true;
  return std::any_of(jobs_.begin(), jobs_.end(),
                     [this](auto const& job) { return hashesHere(*job) || (ready(*job) && !job->speculative); });
}

// A spare command is not waited for: it moves on whenever the loop comes round.
bool DeltaCopier::running() const noexcept {
  return std::any_of(jobs_.begin(), jobs_.end(), [](auto const& job) { return job->command != nullptr; });
}

bool DeltaCopier::news() const {
  return std::any_of(jobs_.begin(), jobs_.end(), [](auto const& job) { return job->command && job->command->news(); });
}

std::optional<std::string> DeltaCopier::current() const {
  for (auto const& job : jobs_) {
    if (job->phase != Job::Phase::Done) return job->task.source;
  }
  return std::nullopt;
}

std::string DeltaCopier::context() const {
  for (auto const& job : jobs_) {
    if (job->phase != Job::Phase::Done) return failedCopy(job->task, settings_.upload, session_.peer());
  }
  return {};
}

std::vector<std::string> DeltaCopier::takeDetails() { return std::exchange(details_, {}); }

void DeltaCopier::poll() {
  std::erase_if(jobs_, [](auto const& job) { return job->phase == Job::Phase::Done && job->pending == 0; });
  while (!stopping_ && !queue_.empty() && jobs_.size() < kAtOnce) {
    auto job = std::make_unique<Job>();
    std::tie(job->task, job->oldSize) = std::move(queue_.front());
    job->listedOld = job->oldSize;
    queue_.pop_front();
    jobs_.push_back(std::move(job));
    start(*jobs_.back());
  }
  if (spare_) {
    // Its channel opens and its shell starts meanwhile.
    try {
      spare_->poll();
    } catch (SSHError const& e) {
      spare_.reset();
      sftp::recordRefusal(e, noCommands_);
    }
  }
  auto budget = kSlice;
  for (auto& job : jobs_) {
    if (job->phase == Job::Phase::Preparing && job->command) {
      // Its channel opens and its shell starts while the server copies.
      try {
        job->command->poll();
      } catch (SSHError const& e) {
        refused(*job, e);
      }
    }
    if (job->phase == Job::Phase::Hashing) moveCommand(*job);
    if (job->phase == Job::Phase::Hashing) learnHash(*job);
    while (budget > 0 && hashesHere(*job)) {
      if (!hashSlice(*job, budget)) break;
    }
    if (job->phase != Job::Phase::Hashing) continue;
    judge(*job);
    if (ready(*job) && !job->speculative) conclude(*job);
  }
}

void DeltaCopier::onReply(sftp::Ticket const& ticket, sftp::Reply const& reply) {
  auto& job = *static_cast<Job*>(ticket.subject);
  --job.pending;
  switch (ticket.kind) {
    case kOpenTemp:
      return onCreated(job, reply);
    case kOpenSource:
      if (reply.type == PacketType::Handle) job.sourceHandle = std::string(reply.handle);
      // A source that cannot be opened: the copy opens it again and says why.
      if (job.phase == Job::Phase::Done) dropTemp(job);
      return;
    default:
      return;
  }
}

// ---- starting ----------------------------------------------------------------------

void DeltaCopier::start(Job& job) {
  job.listedSize = job.task.size.value_or(0);
  job.hashing = guess_;
  if (settings_.upload) {
    startUpload(job);
  } else {
    startDownload(job);
  }
}

// The source is opened and stamped here; the server creates the temporary,
// and the hashing command copies the old version into it (a round trip less
// than the SFTP copy-data, which needs both files open first) before it
// hashes the copy.
void DeltaCopier::startUpload(Job& job) {
  auto const& task = job.task;
  std::tie(job.folder, job.name) = splitPath(task.destination);
  job.local = UniqueFd(::open(task.source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat st {};
  if (!job.local.valid() || ::fstat(job.local.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    // Sent as an ordinary copy, which names the cause.
    return asCopy(job);
  }
  if (noCommands_) return whole(job, *noCommands_);
  job.sourceSize = job.localSize = static_cast<std::uint64_t>(st.st_size);
  job.stamp = st.st_mtim;
  job.block = deltaBlockSize(job.sourceSize, job.oldSize);
  job.tail = tailOverOld(job.block, job.sourceSize, job.oldSize);
  // The hashing command's channel opens while the temporary is created.
  if (!openCommand(job)) return;
  createTemp(job);
}

bool DeltaCopier::openCommand(Job& job) {
  if (spare_) {
    job.command = std::move(spare_);
    return true;
  }
  try {
    job.command = sftp::openCommand(shell_);
    return true;
  } catch (SSHError const& e) {
    refused(job, e);
    return false;
  }
}

// Called while `error` is being handled: rethrown unless it says that no
// command can run; then this file and the next go whole.
void DeltaCopier::refused(Job& job, SSHError const& error) {
  sftp::recordRefusal(error, noCommands_);
  whole(job, *noCommands_);
}

void DeltaCopier::createTemp(Job& job) {
  job.creating = randomTemporaryName(job.name, random_);
  ++job.tempAttempts;
  Attributes attributes;
  attributes.permissions = settings_.createMode;
  ++job.pending;
  session_.open({this, kOpenTemp, &job}, job.folder + job.creating,
                openflags::kWrite | openflags::kCreate | openflags::kExclusive | openflags::kTruncate, attributes);
}

void DeltaCopier::onCreated(Job& job, Reply const& reply) {
  if (reply.type == PacketType::Status) {
    if (reply.status == StatusCode::Failure && job.tempAttempts < kTempAttempts && job.phase != Job::Phase::Done) {
      // In this protocol version a name that exists shows only as a generic
      // failure: another name.
      return createTemp(job);
    }
    if (job.phase == Job::Phase::Done) return;
    return whole(job, "cannot create " + quoted(job.folder + job.creating) + ": " +
                          sftp::describeStatus(reply.status, reply.message));
  }
  if (reply.type != PacketType::Handle) throw sftp::ProtocolError("unexpected reply to OPEN");
  // The temporary stays open for the changed blocks.
  job.tempHandle = std::string(reply.handle);
  job.temp = std::exchange(job.creating, std::string());
  // Stopped or given up meanwhile: what was created goes.
  if (job.phase == Job::Phase::Done) return dropTemp(job);
  startHashing(job);
}

// The old destination is copied into the temporary here as it is hashed,
// while the server hashes the source.
void DeltaCopier::startDownload(Job& job) {
  auto& task = job.task;
  if (noCommands_) return whole(job, *noCommands_);
  if (openDestinationFolder(task) != 0) {
    // Sent as an ordinary copy, which names the cause.
    return asCopy(job);
  }
  auto const& folder = *task.folder;
  struct stat st {};
  if (auto const error = folder.openToRead(task.name, job.local); error != 0) {
    return whole(job, "cannot read the old version: " + errnoText(error));
  }
  if (::fstat(job.local.get(), &st) != 0) return whole(job, "cannot read the old version: " + errnoText(errno));
  job.oldSize = job.localSize = static_cast<std::uint64_t>(st.st_size);
  job.sourceSize = task.size.value_or(0);
  job.block = deltaBlockSize(job.sourceSize, job.oldSize);
  job.tail = tailOverOld(job.block, job.sourceSize, job.oldSize);
  for (int attempt = 1;; ++attempt) {
    auto name = randomTemporaryName(task.name, random_);
    auto const error = folder.createFile(name, static_cast<mode_t>(settings_.createMode), job.tempFile);
    if (error == 0) {
      job.temp = std::move(name);
      break;
    }
    if (error != EEXIST || attempt == kTempAttempts) {
      return whole(job, "cannot create " + quoted(folder.pathOf(name)) + ": " + errnoText(error));
    }
  }
  if (!openCommand(job)) return;
  // Open for the changed blocks by the time they are known.
  ++job.pending;
  session_.open({this, kOpenSource, &job}, task.source, openflags::kRead, Attributes{});
  startHashing(job);
}

// Uploads: the temporary, filled from the old destination first; downloads:
// the source, with the tail over the old version.
void DeltaCopier::startHashing(Job& job) {
  RemoteBlockRequest request;
  request.blockSize = job.block;
  if (settings_.upload) {
    request.path = job.folder + job.temp;
    request.copyFrom = job.task.destination;
  } else {
    request.path = job.task.source;
    request.tail = job.tail;
  }
  try {
    job.command->run(remoteBlockHashCommand(request));
  } catch (SSHError const& e) {
    return refused(job, e);
  }
  job.phase = Job::Phase::Hashing;
  // Its request goes now, not after the loop's next wait.
  moveCommand(job);
}

// ---- hashing -----------------------------------------------------------------------

void DeltaCopier::moveCommand(Job& job) {
  if (!job.command) return;
  try {
    if (!job.command->poll()) return;
  } catch (SSHError const& e) {
    return refused(job, e);
  }
  job.output = job.command->output();
  job.command.reset();
}

// A guess that was wrong: this side's hashes are made again.
void DeltaCopier::learnHash(Job& job) {
  if (job.hash) return;
  job.hash = announcedHash(job.command ? job.command->output() : *job.output);
  if (!job.hash) return;
  guess_ = *job.hash;
  if (job.hashing == *job.hash) return;
  job.hashing = *job.hash;
  job.hashes.clear();
  job.tailHash.reset();
  job.hashed = 0;
  job.hashedBlocks = 0;
}

// One block of this side's version: hashed, and for a download also
// written into the temporary.
bool DeltaCopier::hashSlice(Job& job, std::uint64_t& budget) {
  auto const offset = job.hashed;
  auto const length = static_cast<std::size_t>(std::min(job.block, job.localSize - offset));
  if (buffer_.size() < length) buffer_.resize(length);
  auto* const data = buffer_.data();
  auto const fd = job.local.get();
  auto const got = fullIo(
      [&](std::size_t done) { return ::pread(fd, data + done, length - done, static_cast<off_t>(offset + done)); },
      length);
  auto const& task = job.task;
  if (got < 0 || static_cast<std::size_t>(got) < length) {
    auto const cause = got < 0 ? errnoText(static_cast<int>(-got)) : std::string("it changed while being read");
    if (settings_.upload) {
      fail(job, got < 0 ? "cannot read " + quoted(task.source) + ": " + cause
                        : quoted(task.source) + " changed while being read");
    } else {
      whole(job, "cannot read the old version: " + cause);
    }
    return false;
  }
  std::string_view const bytes(reinterpret_cast<char const*>(data), length);
  if (!settings_.upload) {
    auto const tempFd = job.tempFile.get();
    auto const written = fullIo(
        [&](std::size_t done) {
          return ::pwrite(tempFd, data + done, length - done, static_cast<off_t>(offset + done));
        },
        length);
    if (written < 0 || static_cast<std::size_t>(written) < length) {
      fail(job, "cannot write " + quoted(task.folder->pathOf(job.temp)) + ": " +
                    errnoText(written < 0 ? static_cast<int>(-written) : EIO));
      return false;
    }
  }
  job.hashes.push_back(hashOf(job.hashing, bytes));
  if (settings_.upload && job.tail && job.tail->begin == offset) {
    job.tailHash = hashOf(job.hashing, bytes.substr(0, job.tail->end - job.tail->begin));
  }
  job.hashed += length;
  budget -= std::min<std::uint64_t>(budget, length);
  return true;
}

// The remote hashes come in as each part prints them, this side's in
// order: a block both sides have hashed is judged at once, and one that
// differs goes to the FileCopier while the rest are hashed. Blocks that are
// not whole on both sides (a last one, an old version's tail) wait for
// conclude(), which judges the same way.
void DeltaCopier::judge(Job& job) {
  if (job.speculative || !job.judging || !job.hash) return;
  std::string_view const output = job.command ? job.command->output() : *job.output;
  auto const common = std::min(job.sourceSize, job.oldSize) / job.block;
  job.remote.resize(common);
  job.judged.resize(common);
  for (auto end = output.find('\n', job.read); end != std::string_view::npos; end = output.find('\n', job.read)) {
    auto const line = output.substr(job.read, end - job.read);
    job.read = end + 1;
    // After the tool's name, the size of the remote side's file.
    if (job.lines++ == 1 && remoteSizeLine(line) != (settings_.upload ? job.oldSize : job.sourceSize)) {
      job.judging = false;
      return;
    }
    auto const block = blockHashLine(line, *job.hash);
    if (!block || block->index >= common || !job.remote[block->index].empty()) continue;
    job.remote[block->index] = std::string(block->hash);
    judgeBlock(job, block->index);
  }
  // This side's hashes that came since: their remote ones may be in.
  for (auto i = job.hashedBlocks; i < std::min<std::uint64_t>(common, job.hashes.size()); ++i) judgeBlock(job, i);
  job.hashedBlocks = job.hashes.size();
}

void DeltaCopier::judgeBlock(Job& job, std::uint64_t index) {
  if (index >= job.hashes.size() || job.remote[index].empty() || job.judged[index]) return;
  job.judged[index] = true;
  if (job.hashes[index] == job.remote[index]) {
    job.kept += job.block;
    return;
  }
  if (!job.feed) handOver(job);
  append(*job.feed, {index * job.block, (index + 1) * job.block});
}

// The file goes to the FileCopier as a delta, its ranges to follow.
void DeltaCopier::handOver(Job& job) {
  auto& task = job.task;
  task.delta = true;
  task.feed = job.feed = std::make_shared<DeltaFeed>();
  task.resumeTemp = std::exchange(job.temp, std::string());
  task.size = job.sourceSize;
  task.hashedMtime = job.stamp;
  task.handle = std::exchange(settings_.upload ? job.tempHandle : job.sourceHandle, std::string());
  // The job keeps its copy to name the file until it ends.
  copier_.add(task);
}

// The last ranges, those of `send` in blocks judge() left; the file's total
// now known.
void DeltaCopier::complete(Job& job, std::vector<ByteRange> const& send, std::uint64_t reused) {
  if (!job.feed) handOver(job);
  std::optional<ByteRange> pending;  // joined while apart from what judge() sent
  for (auto const& range : send) {
    for (auto begin = range.begin; begin < range.end;) {
      auto const index = begin / job.block;
      auto const end = std::min(range.end, (index + 1) * job.block);
      if (index < job.judged.size() && job.judged[index]) {
        if (pending) append(*job.feed, *std::exchange(pending, std::nullopt));
      } else if (pending && pending->end == begin) {
        pending->end = end;
      } else {
        if (pending) append(*job.feed, *pending);
        pending = ByteRange{begin, end};
      }
      begin = end;
    }
  }
  if (pending) append(*job.feed, *pending);
  job.feed->reused = reused;
  job.feed->complete = true;
  counters_.bytesTotal =
      counters_.bytesTotal - std::min(counters_.bytesTotal, job.listedSize) + (job.sourceSize - reused);
  finishJob(job);
}

// Both sides hashed: the rest of the ranges to send.
void DeltaCopier::conclude(Job& job) {
  auto& task = job.task;
  RemoteBlockAnswer answer;
  try {
    answer = parseRemoteBlockHashes(*job.output, job.block, !settings_.upload && job.tail);
  } catch (std::runtime_error const& e) {
    return whole(job, e.what());
  }
  if (answer.status != RemoteBlockStatus::Hashed) return whole(job, std::string(describeStatus(answer.status)));
  DeltaRanges ranges;
  if (settings_.upload) {
    // The blocks kept fit only the version hashed here.
    struct stat st {};
    if (::fstat(job.local.get(), &st) != 0 || static_cast<std::uint64_t>(st.st_size) != job.sourceSize ||
        !sameTime(st.st_mtim, job.stamp)) {
      return fail(job, quoted(task.source) + " changed while being read");
    }
    // The tail was hashed for the old version as listed.
    bool const listedOld = answer.blocks.size == job.oldSize;
    ranges = changedRanges(job.block, {job.sourceSize, std::move(job.hashes)}, answer.blocks,
                           listedOld ? job.tailHash : std::nullopt);
  } else {
    if (answer.blocks.size != job.sourceSize) return fail(job, quoted(task.source) + " changed while being read");
    ranges = changedRanges(job.block, answer.blocks, {job.oldSize, std::move(job.hashes)}, answer.tail);
  }
  complete(job, ranges.send, ranges.reused);
}

// ---- endings -----------------------------------------------------------------------

void DeltaCopier::finishJob(Job& job) {
  job.phase = Job::Phase::Done;
  job.command.reset();
  job.local.reset();
  job.tempFile.reset();
}

// The remote side cannot hash: the temporary goes, the file goes whole
// (with the copier already: all but the blocks judged kept).
void DeltaCopier::whole(Job& job, std::string const& why) {
  if (job.feed) {
    details_.push_back(quoted(job.task.source) + " sent whole but for the blocks found unchanged so far: " + why);
    return complete(job, {{0, job.sourceSize}}, job.kept);
  }
  if (!job.speculative) details_.push_back(quoted(job.task.source) + " sent whole: " + why);
  dropTemp(job);
  asCopy(job);
}

// A job begun before the plan chose ends unreported: should the plan choose
// a delta after all, a job of its own meets the same cause and reports it.
void DeltaCopier::asCopy(Job& job) {
  finishJob(job);
  if (!job.speculative) copier_.add(std::move(job.task));
}

void DeltaCopier::fail(Job& job, std::string const& cause) {
  // With the copier already: it fails the file, and its temporary goes.
  if (job.feed) {
    job.feed->failure = cause;
    return finishJob(job);
  }
  dropTemp(job);
  finishJob(job);
  if (!stopping_ && !job.speculative) {
    observer_.fileFailed(job.task, failedCopy(job.task, settings_.upload, session_.peer()) + cause);
  }
}

void DeltaCopier::dropTemp(Job& job) {
  for (auto* handle : {&job.tempHandle, &job.sourceHandle}) {
    if (!handle->empty()) session_.close(sftp::SftpSession::ignored(), std::exchange(*handle, std::string()));
  }
  if (job.temp.empty()) return;
  if (settings_.upload) {
    session_.remove(sftp::SftpSession::ignored(), job.folder + job.temp);
  } else {
    job.tempFile.reset();
    job.task.folder->removeFile(job.temp);
  }
  job.temp.clear();
}

void DeltaCopier::cancel() {
  stopping_ = true;
  spare_.reset();
  for (auto& job : jobs_) {
    if (job->phase == Job::Phase::Done) continue;
    dropTemp(*job);
    finishJob(*job);
  }
}

void DeltaCopier::abandon() noexcept {
  for (auto& job : jobs_) {
    job->command.reset();
    job->local.reset();
    job->tempFile.reset();
    if (!settings_.upload && !job->temp.empty() && job->task.folder) job->task.folder->removeFile(job->temp);
  }
}

}  // namespace foundation::sshclient::internal::transfer
