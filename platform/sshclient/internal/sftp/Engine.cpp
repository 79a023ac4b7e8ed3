#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <random>
#include <stdexcept>
#include <system_error>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"

namespace foundation::sshclient::internal::sftp {

namespace {

constexpr std::uint32_t kDefaultChunk = 32U * 1024U;
constexpr std::uint32_t kMaxChunk = 1024U * 1024U;
// Local reads and writes go in blocks of at least this size.
constexpr std::size_t kIoBlock = 1024U * 1024U;
// Requests are not queued beyond this many unsent bytes.
constexpr std::size_t kOutboundLimit = 1024U * 1024U;
// Room offered to each receive: large replies arrive in few calls, and a
// partial packet is seldom moved to make room.
constexpr std::size_t kReceiveRoom = 512U * 1024U;
// Received bytes handled per turn before sending again.
constexpr std::size_t kReceiveBatch = 1024U * 1024U;
// Files started before the server has stated its handle limit.
constexpr std::size_t kFilesBeforeLimits = 8;
// Exclusive creation of a temporary name can collide with a stranger's file.
constexpr int kTempAttempts = 4;
// Keeps temporary names within NAME_MAX.
constexpr std::size_t kTempBaseLength = 200;

std::string errnoText(int error) { return std::generic_category().message(error); }

std::string quoted(std::string_view path) {
  std::string out;
  out.reserve(path.size() + 2);
  out.append(1, '\'').append(path).append(1, '\'');
  return out;
}

// The folder part of a path, for messages.
std::string folderOf(std::string const& path) {
  auto const slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd const&) = delete;
  UniqueFd& operator=(UniqueFd const&) = delete;
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  ~UniqueFd() { reset(); }

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
  void reset() noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  // Closes and reports close()'s error (0 when fine).
  int close() noexcept {
    int const fd = std::exchange(fd_, -1);
    return fd >= 0 && ::close(fd) != 0 ? errno : 0;
  }

 private:
  int fd_ = -1;
};

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

// Frames requests and replies on a transport: queues outgoing packets and
// turns incoming bytes into packets.
class Connection {
 public:
  explicit Connection(Transport& transport) : transport_(transport) {}

  // Where the next packets go.
  PacketWriter writer() {
    if (sent_ > 0 && sent_ >= out_.size() / 2) {
      out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(sent_));
      sent_ = 0;
    }
    return PacketWriter(out_);
  }

  [[nodiscard]] std::size_t queued() const noexcept { return out_.size() - sent_; }

  // Sends what can go, receives what has come and hands every complete packet
  // to `onPacket`; sleeps in the transport when nothing moved.
  template <class OnPacket>
  void pump(OnPacket&& onPacket) {
    bool moved = false;
    if (queued() > 0) {
      auto const n = transport_.send(std::span<std::uint8_t const>(out_).subspan(sent_));
      sent_ += n;
      moved = n > 0;
      if (sent_ == out_.size()) {
        out_.clear();
        sent_ = 0;
      }
    }
    std::size_t received = 0;
    while (received < kReceiveBatch) {
      auto const n = transport_.receive(in_.writable(kReceiveRoom));
      if (n == 0) break;
      in_.commit(n);
      received += n;
    }
    while (auto packet = in_.next()) onPacket(*packet);
    if (!moved && received == 0) transport_.wait(queued() > 0);
  }

 private:
  Transport& transport_;
  Bytes out_;
  std::size_t sent_ = 0;
  PacketReader in_;
};

enum class Op {
  Limits,
  Open,
  Stat,
  Write,
  Read,
  Close,
  Rename,
  PosixRename,
  Inspect,
  MoveAside,
  MoveIn,
  Cleanup,
};

struct Job {
  enum class Phase { Opening, Transferring, Finishing, Done };

  std::size_t index = 0;
  std::string source;       // bytes, local or remote by direction
  std::string destination;  // bytes
  std::string temp;         // temporary beside the destination, once created
  std::string opening;      // temporary name being created
  std::string aside;        // the old destination while it is moved aside
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
  // Downloads: the STAT and OPEN sent together, and their answers.
  bool statAnswered = false;
  bool openAnswered = false;
  std::optional<Attributes> attributes;
  std::optional<std::string> sourceError;
};

struct Pending {
  Job* job = nullptr;
  Op op = Op::Cleanup;
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
};

class Engine {
 public:
  Engine(Transport& transport, std::string peer, CopyFilesCommand const& command, ProgressCallback const& progress,
         EngineOptions const& options)
      : connection_(transport),
        peer_(std::move(peer)),
        command_(command),
        upload_(command.getDirection() == TransferDirection::LocalToRemote),
        mode_(static_cast<std::uint32_t>(command.getMode()) & 07777U),
        progress_(progress),
        options_(options),
        random_(std::random_device{}()) {}

  void run();

 private:
  // ---- driving
  void handshake();
  void adopt(Limits const& limits);
  void startJobs();
  void issueData();
  void onPacket(ByteView packet);
  void dispatch(Pending const& pending, Reply const& reply);
  void reap();
  void reportProgress(bool final);
  [[nodiscard]] bool finished() const;
  std::uint32_t track(Job* job, Op op, std::uint64_t offset = 0, std::uint32_t length = 0);

  // ---- both directions
  void start(Job& job);
  void fail(Job& job, std::string const& cause);
  void complete(Job& job);
  void closeRemote(Job& job);
  std::string tempNameFor(std::string const& path);
  [[nodiscard]] std::string describeItem(Job const& job) const;
  [[nodiscard]] std::string context() const;
  void discardTemp(Job& job);
  void abandon() noexcept;

  // ---- uploads
  void startUpload(Job& job);
  void openRemoteTemp(Job& job);
  void onUploadOpen(Job& job, Reply const& reply);
  bool readAhead(Job& job);
  void issueWrites(Job& job);
  void onWrite(Job& job, Pending const& pending, Reply const& reply);
  void finishUpload(Job& job);
  void onUploadClose(Job& job, Reply const& reply);
  void onRename(Job& job, Op op, Reply const& reply);
  void onInspect(Job& job, Reply const& reply);

  // ---- downloads
  void startDownload(Job& job);
  void onDownloadAnswer(Job& job, Op op, Reply const& reply);
  void issueReads(Job& job);
  void onRead(Job& job, Pending const& pending, Reply const& reply);
  bool writeBehind(Job& job, std::uint64_t offset, ByteView data);
  bool flush(Job& job);
  void finishDownload(Job& job);

  Connection connection_;
  std::string peer_;
  CopyFilesCommand const& command_;
  bool upload_;
  std::uint32_t mode_;
  ProgressCallback const& progress_;
  EngineOptions options_;
  std::mt19937_64 random_;

  bool versionReceived_ = false;
  bool limitsPending_ = false;
  bool posixRename_ = false;
  std::uint32_t chunk_ = kDefaultChunk;
  std::size_t ioBlock_ = kIoBlock;
  std::size_t maxOpenFiles_ = 1;

  std::uint32_t nextId_ = 0;
  std::unordered_map<std::uint32_t, Pending> pending_;
  std::vector<std::unique_ptr<Job>> jobs_;
  // Destinations of unfinished files: a later item to the same place waits,
  // so that it is the one that stays.
  std::unordered_multiset<std::string> busyDestinations_;
  std::size_t nextItem_ = 0;
  std::uint64_t inFlight_ = 0;
  bool stopping_ = false;
  std::vector<std::pair<std::size_t, std::string>> failures_;
  std::exception_ptr cancelled_;

  std::uint64_t bytesDone_ = 0;
  std::uint64_t bytesTotal_ = 0;
  std::size_t filesDone_ = 0;
  std::size_t lastItem_ = 0;
  std::chrono::steady_clock::time_point lastReport_ = std::chrono::steady_clock::now();
};

// ---- driving -------------------------------------------------------------------

void Engine::run() {
  try {
    handshake();
    for (;;) {
      // Files finished by the last replies make room for new ones, and files
      // that failed as they started must not look busy.
      reap();
      startJobs();
      issueData();
      reap();
      if (finished()) break;
      if (pending_.empty() && connection_.queued() == 0) throw std::logic_error("SFTP transfer stalled");
      connection_.pump([this](ByteView packet) { onPacket(packet); });
      reportProgress(false);
    }
  } catch (SSHError const& e) {
    abandon();
    std::string cause = e.what();
    if (cause.starts_with(peer_ + ": ")) cause.erase(0, peer_.size() + 2);
    throw SSHError(e.kind(), context() + cause);
  } catch (ProtocolError const& e) {
    abandon();
    throw SSHError(SSHError::Kind::Transfer, context() + e.what());
  } catch (...) {
    abandon();
    throw;
  }
  if (cancelled_) std::rethrow_exception(cancelled_);
  reportProgress(true);
  if (!failures_.empty()) {
    auto const first = std::min_element(failures_.begin(), failures_.end());
    auto message = first->second;
    if (auto const more = failures_.size() - 1; more > 0) {
      message += " (and " + std::to_string(more) + (more == 1 ? " more file" : " more files") + " failed)";
    }
    throw SSHError(SSHError::Kind::Transfer, message);
  }
}

// The server's limits are asked for, but not waited for: the first files
// open meanwhile, and their data waits for the chunk size.
void Engine::handshake() {
  connection_.writer().init();
  while (!versionReceived_) connection_.pump([this](ByteView packet) { onPacket(packet); });
  if (limitsPending_) {
    connection_.writer().limits(track(nullptr, Op::Limits));
    maxOpenFiles_ = std::min(kFilesBeforeLimits, std::max<std::size_t>(1, options_.maxOpenFiles));
  } else {
    adopt(Limits{});
  }
}

void Engine::adopt(Limits const& limits) {
  limitsPending_ = false;
  auto const stated = upload_ ? limits.maxWriteLength : limits.maxReadLength;
  std::uint64_t chunk = stated > 0 ? std::min<std::uint64_t>(stated, kMaxChunk) : kDefaultChunk;
  if (limits.maxPacketLength > 2048) chunk = std::min<std::uint64_t>(chunk, limits.maxPacketLength - 1024);
  chunk_ = std::max<std::uint32_t>(1, options_.chunkSize.value_or(static_cast<std::uint32_t>(chunk)));
  ioBlock_ = chunk_ * ((kIoBlock + chunk_ - 1) / chunk_);
  maxOpenFiles_ = std::max<std::size_t>(1, options_.maxOpenFiles);
  if (limits.maxOpenHandles > 0) {
    maxOpenFiles_ = std::min<std::size_t>(maxOpenFiles_, std::max<std::uint64_t>(1, limits.maxOpenHandles / 2));
  }
}

bool Engine::finished() const {
  return (stopping_ || nextItem_ == command_.getItems().size()) && jobs_.empty() && pending_.empty();
}

std::uint32_t Engine::track(Job* job, Op op, std::uint64_t offset, std::uint32_t length) {
  auto const id = nextId_++;
  pending_.emplace(id, Pending{job, op, offset, length});
  if (job != nullptr) ++job->pending;
  return id;
}

void Engine::startJobs() {
  auto const& items = command_.getItems();
  while (!stopping_ && nextItem_ < items.size() && jobs_.size() < maxOpenFiles_ &&
         connection_.queued() < kOutboundLimit) {
    auto const& item = items[nextItem_];
    auto destination = fl::i18n::ustring_to_utf8(upload_ ? item.remotePath : item.localPath);
    if (busyDestinations_.contains(destination)) return;
    auto job = std::make_unique<Job>();
    job->index = nextItem_++;
    job->source = fl::i18n::ustring_to_utf8(upload_ ? item.localPath : item.remotePath);
    job->destination = std::move(destination);
    busyDestinations_.insert(job->destination);
    jobs_.push_back(std::move(job));
    start(*jobs_.back());
  }
}

void Engine::issueData() {
  if (limitsPending_) return;
  for (auto& job : jobs_) {
    if (inFlight_ >= options_.windowBytes || connection_.queued() >= kOutboundLimit) return;
    if (job->phase != Job::Phase::Transferring || job->failed) continue;
    if (upload_) {
      issueWrites(*job);
    } else {
      issueReads(*job);
    }
  }
}

void Engine::onPacket(ByteView packet) {
  if (!versionReceived_) {
    auto const version = decodeVersion(packet);
    if (version.version != kProtocolVersion) {
      throw ProtocolError("the server speaks SFTP version " + std::to_string(version.version) + ", not " +
                          std::to_string(kProtocolVersion));
    }
    versionReceived_ = true;
    posixRename_ = options_.usePosixRename && version.offers(kPosixRenameExtension);
    limitsPending_ = version.offers(kLimitsExtension);
    return;
  }
  auto const reply = decodeReply(packet);
  auto const found = pending_.find(reply.id);
  if (found == pending_.end()) throw ProtocolError("reply to unknown request " + std::to_string(reply.id));
  auto const pending = found->second;
  pending_.erase(found);
  if (pending.job != nullptr) --pending.job->pending;
  dispatch(pending, reply);
}

void Engine::dispatch(Pending const& pending, Reply const& reply) {
  if (pending.op == Op::Limits) {
    adopt(reply.type == PacketType::ExtendedReply ? decodeLimits(reply.data) : Limits{});
    return;
  }
  auto& job = *pending.job;
  switch (pending.op) {
    case Op::Open:
      if (upload_) {
        onUploadOpen(job, reply);
      } else {
        onDownloadAnswer(job, pending.op, reply);
      }
      break;
    case Op::Stat:
      onDownloadAnswer(job, pending.op, reply);
      break;
    case Op::Write:
      onWrite(job, pending, reply);
      break;
    case Op::Read:
      onRead(job, pending, reply);
      break;
    case Op::Close:
      onUploadClose(job, reply);
      break;
    case Op::Inspect:
      onInspect(job, reply);
      break;
    case Op::Rename:
    case Op::PosixRename:
    case Op::MoveAside:
    case Op::MoveIn:
      onRename(job, pending.op, reply);
      break;
    case Op::Limits:
    case Op::Cleanup:
      break;
  }
}

void Engine::reap() {
  std::erase_if(jobs_, [](auto const& job) { return job->phase == Job::Phase::Done && job->pending == 0; });
}

void Engine::reportProgress(bool final) {
  if (!progress_ || cancelled_) return;
  auto const now = std::chrono::steady_clock::now();
  if (!final && now - lastReport_ < options_.progressInterval) return;
  lastReport_ = now;
  auto const current = jobs_.empty() ? lastItem_ : jobs_.front()->index;
  auto const& items = command_.getItems();
  TransferProgress progress;
  progress.bytesDone = bytesDone_;
  progress.bytesTotal = bytesTotal_;
  progress.filesDone = filesDone_;
  progress.filesTotal = items.size();
  if (current < items.size()) progress.currentFile = upload_ ? items[current].localPath : items[current].remotePath;
  try {
    progress_(progress);
  } catch (...) {
    cancelled_ = std::current_exception();
    for (auto& job : jobs_) fail(*job, "cancelled");
  }
}

// ---- both directions -------------------------------------------------------------

void Engine::start(Job& job) {
  lastItem_ = job.index;
  if (upload_) {
    startUpload(job);
  } else {
    startDownload(job);
  }
}

std::string Engine::describeItem(Job const& job) const {
  if (upload_) return "cannot upload " + quoted(job.source) + " to " + quoted(job.destination) + " on " + peer_ + ": ";
  return "cannot download " + quoted(job.source) + " from " + peer_ + " to " + quoted(job.destination) + ": ";
}

// The file the transfer was busy with, for a failure of the whole stream.
std::string Engine::context() const {
  auto const busy =
      std::find_if(jobs_.begin(), jobs_.end(), [](auto const& job) { return job->phase != Job::Phase::Done; });
  if (busy != jobs_.end()) return describeItem(**busy);
  if (!jobs_.empty()) return describeItem(*jobs_.front());
  return "SFTP session with " + peer_ + ": ";
}

void Engine::discardTemp(Job& job) {
  if (job.temp.empty()) return;
  if (upload_) {
    connection_.writer().remove(track(&job, Op::Cleanup), job.temp);
  } else {
    ::unlink(job.temp.c_str());
  }
  job.temp.clear();
}

void Engine::fail(Job& job, std::string const& cause) {
  if (job.failed || job.phase == Job::Phase::Done) return;
  job.failed = true;
  busyDestinations_.erase(busyDestinations_.find(job.destination));
  stopping_ = true;
  if (!cancelled_) failures_.emplace_back(job.index, describeItem(job) + cause);
  job.fd.reset();
  job.block.release();
  closeRemote(job);
  discardTemp(job);
  if (!job.aside.empty()) {
    // The replacement did not arrive: put the old destination back.
    connection_.writer().rename(track(&job, Op::Cleanup), job.aside, job.destination);
    job.aside.clear();
  }
  job.phase = Job::Phase::Done;
}

void Engine::complete(Job& job) {
  busyDestinations_.erase(busyDestinations_.find(job.destination));
  job.temp.clear();
  job.phase = Job::Phase::Done;
  ++filesDone_;
}

void Engine::closeRemote(Job& job) {
  if (job.handle.empty()) return;
  connection_.writer().close(track(&job, Op::Cleanup), job.handle);
  job.handle.clear();
}

std::string Engine::tempNameFor(std::string const& path) {
  auto const slash = path.rfind('/');
  auto const folder = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  auto const name = slash == std::string::npos ? path : path.substr(slash + 1);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string suffix(8, '0');
  auto bits = random_();
  for (auto& c : suffix) {
    c = kHex[bits & 15U];
    bits >>= 4U;
  }
  return folder + "." + name.substr(0, kTempBaseLength) + ".sshfa-" + suffix;
}

void Engine::abandon() noexcept {
  for (auto& job : jobs_) {
    job->fd.reset();
    if (!upload_ && !job->temp.empty()) ::unlink(job->temp.c_str());
  }
}

// ---- uploads -----------------------------------------------------------------

void Engine::startUpload(Job& job) {
  job.fd = UniqueFd(::open(job.source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!job.fd.valid()) return fail(job, "cannot open " + quoted(job.source) + ": " + errnoText(errno));
  struct stat st {};
  if (::fstat(job.fd.get(), &st) != 0) return fail(job, "cannot open " + quoted(job.source) + ": " + errnoText(errno));
  if (S_ISDIR(st.st_mode)) return fail(job, quoted(job.source) + " is a folder");
  if (!S_ISREG(st.st_mode)) return fail(job, quoted(job.source) + " is not a regular file");
  job.size = static_cast<std::uint64_t>(st.st_size);
  bytesTotal_ += job.size;
  openRemoteTemp(job);
}

void Engine::openRemoteTemp(Job& job) {
  ++job.tempAttempts;
  job.opening = tempNameFor(job.destination);
  Attributes attributes;
  attributes.permissions = mode_;
  connection_.writer().open(track(&job, Op::Open), job.opening,
                            openflags::kWrite | openflags::kCreate | openflags::kExclusive | openflags::kTruncate,
                            attributes);
}

void Engine::onUploadOpen(Job& job, Reply const& reply) {
  if (reply.type == PacketType::Handle) {
    job.handle = std::string(reply.handle);
    job.temp = std::exchange(job.opening, std::string());
    if (job.failed) {
      closeRemote(job);
      return discardTemp(job);
    }
    job.phase = Job::Phase::Transferring;
    if (job.size == 0) finishUpload(job);
    return;
  }
  if (reply.type != PacketType::Status) throw ProtocolError("unexpected reply to OPEN");
  auto const temp = std::exchange(job.opening, std::string());
  if (job.failed) return;
  // In this protocol version an existing name shows only as a generic failure.
  if (reply.status == StatusCode::Failure && job.tempAttempts < kTempAttempts) return openRemoteTemp(job);
  if (reply.status == StatusCode::NoSuchFile) {
    return fail(job, "destination folder " + quoted(folderOf(job.destination)) + " does not exist");
  }
  fail(job, "cannot create " + quoted(temp) + ": " + describeStatus(reply.status, reply.message));
}

bool Engine::readAhead(Job& job) {
  if (job.next < job.block.end() && job.next >= job.block.offset) return true;
  auto const wanted = static_cast<std::size_t>(std::min<std::uint64_t>(ioBlock_, job.size - job.next));
  job.block.reserve(wanted);
  auto* const data = job.block.data();
  auto const offset = job.next;
  auto const fd = job.fd.get();
  auto const got = fullIo(
      [&](std::size_t done) { return ::pread(fd, data + done, wanted - done, static_cast<off_t>(offset + done)); },
      wanted);
  if (got < 0) {
    fail(job, "cannot read " + quoted(job.source) + ": " + errnoText(static_cast<int>(-got)));
    return false;
  }
  job.block.offset = offset;
  job.block.length = static_cast<std::size_t>(got);
  if (job.block.length < wanted) {
    // The file shrank since it was opened: send what there is.
    bytesTotal_ -= job.size - (offset + job.block.length);
    job.size = offset + job.block.length;
  }
  return job.block.length > 0;
}

void Engine::issueWrites(Job& job) {
  while (job.next < job.size && inFlight_ < options_.windowBytes && connection_.queued() < kOutboundLimit) {
    if (!readAhead(job)) break;
    auto const length =
        static_cast<std::uint32_t>(std::min<std::uint64_t>({chunk_, job.size - job.next, job.block.end() - job.next}));
    auto const id = track(&job, Op::Write, job.next, length);
    connection_.writer().write(id, job.handle, job.next,
                               ByteView(job.block.data() + (job.next - job.block.offset), length));
    job.next += length;
    ++job.dataInFlight;
    inFlight_ += length;
  }
  if (job.failed) return;
  if (job.next >= job.size) {
    job.block.release();
    if (job.dataInFlight == 0) finishUpload(job);
  }
}

void Engine::onWrite(Job& job, Pending const& pending, Reply const& reply) {
  inFlight_ -= pending.length;
  --job.dataInFlight;
  if (job.failed || job.phase != Job::Phase::Transferring) return;
  if (reply.type != PacketType::Status) throw ProtocolError("unexpected reply to WRITE");
  if (reply.status != StatusCode::Ok) {
    return fail(job, "cannot write " + quoted(job.temp) + ": " + describeStatus(reply.status, reply.message));
  }
  bytesDone_ += pending.length;
  if (job.next >= job.size && job.dataInFlight == 0) finishUpload(job);
}

void Engine::finishUpload(Job& job) {
  job.phase = Job::Phase::Finishing;
  job.fd.reset();
  job.block.release();
  connection_.writer().close(track(&job, Op::Close), job.handle);
  job.handle.clear();
}

void Engine::onUploadClose(Job& job, Reply const& reply) {
  if (job.failed) return;
  if (reply.type != PacketType::Status) throw ProtocolError("unexpected reply to CLOSE");
  if (reply.status != StatusCode::Ok) {
    return fail(job, "cannot write " + quoted(job.temp) + ": " + describeStatus(reply.status, reply.message));
  }
  if (posixRename_) {
    connection_.writer().posixRename(track(&job, Op::PosixRename), job.temp, job.destination);
  } else {
    connection_.writer().rename(track(&job, Op::Rename), job.temp, job.destination);
  }
}

// Replacing the destination. A generic failure is looked into: a folder in
// the way is named as such, and a plain RENAME (without posix-rename) refuses
// any existing target, so an old regular file moves aside, the new one in,
// and the old one goes.
void Engine::onRename(Job& job, Op op, Reply const& reply) {
  if (job.failed) return;
  if (reply.type != PacketType::Status) throw ProtocolError("unexpected reply to RENAME");
  if (reply.status != StatusCode::Ok) {
    job.renameError = describeStatus(reply.status, reply.message);
    if ((op == Op::Rename || op == Op::PosixRename) && reply.status == StatusCode::Failure) {
      job.plainRename = op == Op::Rename;
      connection_.writer().lstat(track(&job, Op::Inspect), job.destination);
      return;
    }
    if (op == Op::MoveAside) job.aside.clear();
    return fail(job, "cannot replace " + quoted(job.destination) + ": " + job.renameError);
  }
  if (op == Op::MoveAside) {
    connection_.writer().rename(track(&job, Op::MoveIn), job.temp, job.destination);
    return;
  }
  if (op == Op::MoveIn) connection_.writer().remove(track(&job, Op::Cleanup), std::exchange(job.aside, {}));
  complete(job);
}

void Engine::onInspect(Job& job, Reply const& reply) {
  if (job.failed) return;
  if (reply.type == PacketType::Attrs && reply.attributes.isDirectory()) {
    return fail(job, "cannot replace " + quoted(job.destination) + ": it is a folder");
  }
  bool const regular = reply.type == PacketType::Attrs && reply.attributes.permissions &&
                       (*reply.attributes.permissions & modebits::kTypeMask) == modebits::kRegular;
  if (!job.plainRename || !regular)
    return fail(job, "cannot replace " + quoted(job.destination) + ": " + job.renameError);
  job.aside = tempNameFor(job.destination);
  connection_.writer().rename(track(&job, Op::MoveAside), job.destination, job.aside);
}

// ---- downloads -----------------------------------------------------------------

void Engine::startDownload(Job& job) {
  for (;;) {
    job.temp = tempNameFor(job.destination);
    job.fd = UniqueFd(::open(job.temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, static_cast<mode_t>(mode_)));
    if (job.fd.valid()) break;
    auto const error = errno;
    auto const temp = std::exchange(job.temp, std::string());
    if (error == EEXIST && ++job.tempAttempts < kTempAttempts) continue;
    if (error == ENOENT) {
      return fail(job, "destination folder " + quoted(folderOf(job.destination)) + " does not exist");
    }
    return fail(job, "cannot create " + quoted(temp) + ": " + errnoText(error));
  }
  // The size and the handle in one round trip.
  connection_.writer().stat(track(&job, Op::Stat), job.source);
  connection_.writer().open(track(&job, Op::Open), job.source, openflags::kRead, Attributes{});
}

void Engine::onDownloadAnswer(Job& job, Op op, Reply const& reply) {
  if (reply.type == PacketType::Status) {
    if (!job.sourceError) job.sourceError = describeStatus(reply.status, reply.message);
  } else if (op == Op::Stat && reply.type == PacketType::Attrs) {
    job.attributes = reply.attributes;
  } else if (op == Op::Open && reply.type == PacketType::Handle) {
    job.handle = std::string(reply.handle);
  } else {
    throw ProtocolError(op == Op::Stat ? "unexpected reply to STAT" : "unexpected reply to OPEN");
  }
  (op == Op::Stat ? job.statAnswered : job.openAnswered) = true;
  if (job.failed) return closeRemote(job);
  if (!job.statAnswered || !job.openAnswered) return;

  if (job.attributes && job.attributes->isDirectory()) return fail(job, quoted(job.source) + " is a folder");
  if (job.attributes && !job.attributes->isRegularOrUnknown()) {
    return fail(job, quoted(job.source) + " is not a regular file");
  }
  if (job.sourceError) return fail(job, "cannot open " + quoted(job.source) + ": " + *job.sourceError);
  job.size = job.attributes->size.value_or(UINT64_MAX);
  if (job.attributes->size) bytesTotal_ += job.size;
  job.phase = Job::Phase::Transferring;
  if (job.size == 0) finishDownload(job);
}

void Engine::issueReads(Job& job) {
  while (job.next < job.size && job.end == UINT64_MAX && inFlight_ < options_.windowBytes &&
         connection_.queued() < kOutboundLimit) {
    auto const length = static_cast<std::uint32_t>(std::min<std::uint64_t>(chunk_, job.size - job.next));
    connection_.writer().read(track(&job, Op::Read, job.next, length), job.handle, job.next, length);
    job.next += length;
    ++job.dataInFlight;
    inFlight_ += length;
  }
}

void Engine::onRead(Job& job, Pending const& pending, Reply const& reply) {
  inFlight_ -= pending.length;
  --job.dataInFlight;
  if (job.failed) return;
  if (reply.type == PacketType::Data) {
    auto const length = reply.data.size();
    if (length == 0 || length > pending.length) {
      throw ProtocolError("DATA reply of " + std::to_string(length) + " bytes to a READ of " +
                          std::to_string(pending.length));
    }
    if (!writeBehind(job, pending.offset, reply.data)) return;
    bytesDone_ += length;
    if (length < pending.length) {
      // A short read: ask again for the rest.
      auto const offset = pending.offset + length;
      auto const rest = static_cast<std::uint32_t>(pending.length - length);
      connection_.writer().read(track(&job, Op::Read, offset, rest), job.handle, offset, rest);
      ++job.dataInFlight;
      inFlight_ += rest;
    }
  } else if (reply.type == PacketType::Status && reply.status == StatusCode::Eof) {
    job.end = std::min(job.end, pending.offset);
  } else if (reply.type == PacketType::Status) {
    return fail(job, "cannot read " + quoted(job.source) + ": " + describeStatus(reply.status, reply.message));
  } else {
    throw ProtocolError("unexpected reply to READ");
  }
  if (job.dataInFlight == 0 && (job.next >= job.size || job.end != UINT64_MAX)) finishDownload(job);
}

bool Engine::writeBehind(Job& job, std::uint64_t offset, ByteView data) {
  auto& block = job.block;
  if (block.length > 0 && (offset != block.end() || block.length + data.size() > block.capacity)) {
    if (!flush(job)) return false;
  }
  if (block.length == 0) {
    block.offset = offset;
    block.reserve(std::max(data.size(), static_cast<std::size_t>(std::min<std::uint64_t>(ioBlock_, job.size))));
  }
  std::memcpy(block.data() + block.length, data.data(), data.size());
  block.length += data.size();
  return block.length < block.capacity || flush(job);
}

bool Engine::flush(Job& job) {
  auto& block = job.block;
  auto const* const data = block.data();
  auto const fd = job.fd.get();
  auto const done = fullIo(
      [&](std::size_t written) {
        return ::pwrite(fd, data + written, block.length - written, static_cast<off_t>(block.offset + written));
      },
      block.length);
  if (done < 0 || static_cast<std::size_t>(done) < block.length) {
    fail(job, "cannot write " + quoted(job.temp) + ": " + errnoText(done < 0 ? static_cast<int>(-done) : EIO));
    return false;
  }
  block.length = 0;
  return true;
}

void Engine::finishDownload(Job& job) {
  job.phase = Job::Phase::Finishing;
  closeRemote(job);
  if (!flush(job)) return;
  job.block.release();
  if (auto const error = job.fd.close(); error != 0) {
    return fail(job, "cannot write " + quoted(job.temp) + ": " + errnoText(error));
  }
  if (::rename(job.temp.c_str(), job.destination.c_str()) != 0) {
    return fail(job, "cannot replace " + quoted(job.destination) + ": " + errnoText(errno));
  }
  complete(job);
}

}  // namespace

void transfer(Transport& transport, std::string const& peer, CopyFilesCommand const& command,
              ProgressCallback const& progress, EngineOptions const& options) {
  if (command.getItems().empty()) return;
  Engine(transport, peer, command, progress, options).run();
}

}  // namespace foundation::sshclient::internal::sftp
