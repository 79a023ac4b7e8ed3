#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"

#include <dirent.h>
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
#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"

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
// Every temporary's name: "." + the destination's name + kTempMark + a suffix.
constexpr std::string_view kTempMark = ".sshfa-";
// The suffix of a resumable temporary, before the source's size and time.
constexpr std::string_view kResumeMark = "partial-";
// Remote folders read at once while listing.
constexpr std::size_t kFoldersOpen = 32;
constexpr std::size_t kNone = SIZE_MAX;
constexpr std::uint32_t kPermissionBits = 0777;
constexpr std::uint32_t kModeBits = 07777;

std::string errnoText(int error) { return std::generic_category().message(error); }

using transfer::joined;

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// The destination's folder (with its '/') and name cut to kTempBaseLength:
// what every temporary made for it is named after.
std::pair<std::string, std::string> temporaryOwner(std::string const& destination) {
  auto const slash = destination.rfind('/');
  if (slash == std::string::npos) return {std::string(), destination.substr(0, kTempBaseLength)};
  return {destination.substr(0, slash + 1), destination.substr(slash + 1, kTempBaseLength)};
}

// "<folder>/.<name>.sshfa-<suffix>" beside the destination.
std::string temporaryName(std::string const& destination, std::string_view suffix) {
  auto const [folder, name] = temporaryOwner(destination);
  std::string temp;
  temp.reserve(folder.size() + name.size() + kTempMark.size() + suffix.size() + 1);
  temp.append(folder).append(1, '.').append(name).append(kTempMark).append(suffix);
  return temp;
}

// A resumable temporary is named from its destination and the source's size
// and time: the next run finds it, and continues it only while the source
// still has both.
std::string resumeNameFor(std::string const& destination, std::uint64_t size, std::optional<std::uint32_t> mtime) {
  return temporaryName(destination,
                       std::string(kResumeMark) + std::to_string(size) + "-" + std::to_string(mtime.value_or(0)));
}

EngineOptions forDirection(EngineOptions options, bool upload) {
  if (upload) {
    options.windowBytes = std::min(options.windowBytes, options.uploadWindowBytes);
    options.maxOpenFiles = std::min(options.maxOpenFiles, options.maxOpenUploads);
  }
  return options;
}

// The last name of a path ("a" for "x/a/").
std::string baseName(std::string const& path) {
  auto const trimmed = withoutTrailingSlashes(path);
  auto const slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

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
  // to `onPacket`; sleeps in the transport when nothing moved, unless told
  // not to wait (work of its own to go back to).
  template <class OnPacket>
  void pump(OnPacket&& onPacket, bool mayWait = true) {
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
    if (!moved && received == 0 && mayWait) transport_.wait(queued() > 0);
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
  SetAttributes,
  Statvfs,
  // trees
  Examine,
  RealPath,
  OpenFolder,
  ReadFolder,
  ReadLink,
  MakeFolder,
  CheckFolder,
  FolderAttributes,
  MakeLink,
  PlaceLink,
  Destination,
  Probe,
  Resolve,
  // re-runs
  FixAttributes,
  Delete,
};

// One file to copy; byte strings, local or remote by direction.
struct FileWork {
  FileWork(std::string from, std::string to, std::size_t index)
      : source(std::move(from)), destination(std::move(to)), item(index) {}

  std::string source;
  std::string destination;
  std::optional<std::uint64_t> size;  // known from a listing
  std::optional<std::uint32_t> mode;  // permission bits to set exactly
  std::optional<std::uint32_t> atime;
  std::optional<std::uint32_t> mtime;        // with atime: times to set
  std::size_t item = 0;                      // the command's item it came from
  std::optional<std::uint32_t> listedMtime;  // the source's, whatever is kept
  // An earlier run's temporary to continue, and its verified length.
  std::string resumeTemp;
  std::uint64_t resumeFrom = 0;
};

// A destination folder to make: a missing parent of an item's destination,
// or a folder of a source tree (with the mode and times it should end with).
struct FolderWork {
  FolderWork(std::string to, std::size_t index, bool listed)
      : destination(std::move(to)), item(index), fromSource(listed) {}

  std::string destination;
  std::size_t item = 0;
  bool fromSource = false;
  bool existed = false;       // found as a folder in the destination listing
  bool linkInTheWay = false;  // found as a symbolic link there: replaced, never followed
  std::optional<std::uint32_t> mode;
  std::optional<std::uint32_t> atime;
  std::optional<std::uint32_t> mtime;
  // Outcome of the MKDIR and the STAT after it.
  bool made = false;
  bool isFolder = false;
  bool inTheWay = false;
  std::string error;
};

struct LinkWork {
  LinkWork(std::string to, std::string text, std::size_t index)
      : destination(std::move(to)), target(std::move(text)), item(index) {}

  std::string destination;
  std::string target;
  std::size_t item = 0;
  std::string temp;
  bool failed = false;
};

// A remote entry still being looked at while listing: a folder to read, or
// a link to resolve. On the destination side (listing what is there already)
// `source` is the entry's path and `destination` is unused.
struct ListNode {
  ListNode(std::size_t index, std::string from, std::string to, std::size_t folder, bool destinationSide = false)
      : item(index), source(std::move(from)), destination(std::move(to)), parent(folder), existing(destinationSide) {}

  std::size_t item = 0;
  std::string source;
  std::string destination;
  std::size_t parent = kNone;    // the folder it was found in
  bool existing = false;         // a destination entry
  bool temporariesOnly = false;  // a folder above the destinations: only our temporaries count
  std::string real;              // its canonical path, when following links
  std::string handle;
  bool sawDot = false;  // its listing's "." and "..": once each is the rule
  bool sawDotDot = false;
};

// An entry of a destination tree, as listed before anything changes.
struct Existing {
  std::uint32_t type = 0;  // modebits::kTypeMask bits
  std::uint64_t size = 0;
  std::optional<std::uint32_t> permissions;  // 07777 bits
  std::optional<std::uint32_t> mtime;
  std::optional<std::string> linkTarget;  // of a symbolic link, when read
  std::size_t item = 0;                   // whose destination it lies in
};

// A temporary of ours found in a destination folder.
struct Temporary {
  std::string path;
  std::string owner;  // the destination it was made for (name cut as in tempNameFor)
  std::uint32_t type = 0;
  std::uint64_t size = 0;
};

struct Job {
  enum class Phase { Opening, Transferring, Finishing, Done };

  std::size_t index = 0;
  FileWork const* work = nullptr;
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
  bool resumable = false;  // the temporary bears the resumable name
  bool resumed = false;    // continues an earlier run's temporary
  bool wrote = false;      // downloads: data reached the temporary
  // Downloads: the STAT and OPEN sent together, and their answers.
  bool statAnswered = false;
  bool probed = false;  // a listed file: asked for a byte past its size
  bool openAnswered = false;
  std::optional<Attributes> attributes;
  std::optional<std::string> sourceError;
  // Uploads: the source as it was opened, to tell a change while reading.
  struct timespec sourceMtime {};
  // The server's status text of a failure being looked into.
  std::string diagnosed;
};

struct Pending {
  Job* job = nullptr;
  Op op = Op::Cleanup;
  std::uint64_t offset = 0;  // of data; the folder, link or node otherwise
  std::uint32_t length = 0;
};

class Engine {
 public:
  Engine(Transport& transport, std::string peer, CopyFilesCommand const& command, ProgressCallback const& progress,
         EngineOptions const& options)
      : connection_(transport),
        peer_(std::move(peer)),
        upload_(command.getDirection() == TransferDirection::LocalToRemote),
        mode_(static_cast<std::uint32_t>(command.getMode()) & 07777U),
        progress_(progress),
        options_(forDirection(options, upload_)),
        random_(std::random_device{}()) {
    auto const& items = command.getItems();
    files_.reserve(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
      auto const& item = items[i];
      files_.emplace_back(fl::i18n::ustring_to_utf8(upload_ ? item.localPath : item.remotePath),
                          fl::i18n::ustring_to_utf8(upload_ ? item.remotePath : item.localPath), i);
    }
  }

  Engine(Transport& transport, std::string peer, CopyTreesCommand const& command, ProgressCallback const& progress,
         RemoteShell const& shell, EngineOptions const& options)
      : connection_(transport),
        peer_(std::move(peer)),
        upload_(command.getDirection() == TransferDirection::LocalToRemote),
        // Private until the final mode is set.
        mode_(command.getOptions().keepPermissions ? 0600U : 0666U),
        progress_(progress),
        options_(forDirection(options, upload_)),
        random_(std::random_device{}()),
        trees_(&command),
        shell_(&shell) {
    auto const& treeOptions = command.getOptions();
    listDestinations_ = treeOptions.skipUnchanged != UnchangedTest::None || treeOptions.deleteExtraneous ||
                        treeOptions.resume || treeOptions.dryRun;
  }

  void run();
  [[nodiscard]] TreeTransferReport const& report() const noexcept { return report_; }

 private:
  // ---- driving
  void drain();
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

  // ---- trees
  void plan();
  void resolvePaths();
  std::optional<std::string> remoteRealPath(std::string const& path);
  void addParents(std::size_t item, std::string const& destination);
  void addFolder(FolderWork folder);
  void planFailure(std::size_t item, std::string const& cause);
  [[nodiscard]] std::string describePair(std::size_t item) const;
  void takeAttributes(std::size_t item, std::string const& source, std::string const& destination,
                      Attributes const& attributes, std::size_t parent, bool resolve);
  void keepFrom(Attributes const& attributes, std::optional<std::uint32_t>& mode, std::optional<std::uint32_t>& atime,
                std::optional<std::uint32_t>& mtime) const;
  void listLocal(std::size_t item, std::string const& source, std::string const& destination,
                 std::vector<std::pair<dev_t, ino_t>>& above);
  void keepListing();
  void openFolder(std::size_t node);
  void onListing(Pending const& pending, Reply const& reply);
  void makeFolders();
  void onFolder(Pending const& pending, Reply const& reply);
  void judgeFolders();
  void makeLinks();
  void onLink(Pending const& pending, Reply const& reply);
  void finishFolders();
  void diagnose(Job& job, StatusCode status, std::string_view message);
  void onStatvfs(Job& job, Reply const& reply);
  void onSetAttributes(Job& job, Reply const& reply);
  [[nodiscard]] bool changedWhileRead(Job& job);

  // ---- re-runs: what the destination holds already
  void listExisting(std::size_t item, std::string const& root);
  void listLocalExisting(std::size_t item, std::string const& path);
  void recordExisting(std::size_t item, std::string const& path, Attributes const& attributes);
  void recordTemporary(std::string const& path, Attributes const& attributes);
  void listLocalTemporaries(std::string const& folder);
  void folderRead(std::size_t node);
  bool acceptName(std::size_t node, std::string_view name);
  void decide();
  std::vector<std::string> claimTemporaries();
  void compareChecksums(std::vector<std::size_t> const& candidates, std::vector<bool>& unchanged);
  void verifyResumes(std::vector<std::string>& stale);
  void removeStale(std::vector<std::string> const& paths);
  void fixAttributes();
  [[nodiscard]] std::vector<std::string> extraneous() const;
  void deleteExtraneous();
  void onDeleted(Pending const& pending, Reply const& reply);
  void planDryRun();
  [[nodiscard]] bool unchangedFolder(FolderWork const& folder) const;
  [[nodiscard]] bool modeDiffers(Existing const& entry, std::optional<std::uint32_t> mode) const;
  [[nodiscard]] bool resuming() const;
  [[nodiscard]] bool holdsResumableData(Job const& job) const;
  [[nodiscard]] bool keepsPartial(Job const& job) const;
  std::string remoteOutput(std::string const& command);

  // ---- downloads
  void startDownload(Job& job);
  void onDownloadAnswer(Job& job, Op op, Reply const& reply);
  void issueReads(Job& job);
  void onRead(Job& job, Pending const& pending, Reply const& reply);
  void onProbe(Job& job, Reply const& reply);
  bool writeBehind(Job& job, std::uint64_t offset, ByteView data);
  bool flush(Job& job);
  void finishDownload(Job& job);

  Connection connection_;
  std::string peer_;
  bool upload_;
  std::uint32_t mode_;
  ProgressCallback const& progress_;
  EngineOptions options_;
  std::mt19937_64 random_;

  bool versionReceived_ = false;
  bool limitsPending_ = false;
  bool posixRename_ = false;
  bool statvfs_ = false;
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

  std::vector<FileWork> files_;
  CopyTreesCommand const* trees_ = nullptr;
  bool planning_ = false;
  std::vector<FolderWork> folders_;
  std::unordered_map<std::string, std::size_t> folderIndex_;  // into folders_
  std::vector<LinkWork> links_;
  std::vector<ListNode> nodes_;
  std::vector<std::string> sources_;         // of the items, "." and ".." resolved
  std::vector<std::string> destinations_;    // of the items, resolved, into folders joined
  std::optional<std::string> resolvedPath_;  // the answer to the last Resolve
  std::vector<bool> intoFolder_;
  std::vector<std::size_t> foldersWaiting_;
  std::size_t foldersOpen_ = 0;
  std::size_t walked_ = 0;  // local entries listed, to serve the remote listing now and then
  TreeTransferReport report_;

  RemoteShell const* shell_ = nullptr;
  bool listDestinations_ = false;
  std::unordered_map<std::string, Existing> existing_;
  std::vector<Temporary> temporaries_;
  std::vector<std::string> specialDestinations_;  // of the special files left out
  std::unordered_set<std::string> sourceNames_;   // every destination the sources give
  std::vector<bool> sourceIsFolder_;
  std::vector<FileWork> skipped_;
  std::vector<std::string> deletions_;              // of the delete pass, by its requests' offsets
  std::unordered_set<std::string> changedFolders_;  // folders whose entries changed
  // Names a server listed that were never joined to a path: each fails the
  // transfer (unless accepted) and stops every deletion.
  std::vector<std::pair<std::size_t, std::string>> suspects_;
};

// ---- driving -------------------------------------------------------------------

void Engine::run() {
  try {
    handshake();
    bool const dryRun = trees_ != nullptr && trees_->getOptions().dryRun;
    if (trees_ != nullptr) {
      planning_ = true;
      plan();
      if (!stopping_ && listDestinations_) decide();
      if (!stopping_ && dryRun) planDryRun();
      if (!stopping_ && !dryRun) makeFolders();
      planning_ = false;
      if (!stopping_ && !dryRun) makeLinks();
    }
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
    if (trees_ != nullptr && !stopping_ && !dryRun) {
      deleteExtraneous();
      if (!stopping_) finishFolders();
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
  failures_.insert(failures_.end(), suspects_.begin(), suspects_.end());
  reportProgress(true);
  if (trees_ == nullptr || !trees_->getOptions().dryRun) {
    report_.files = filesDone_;
    report_.bytes = bytesDone_;
  }
  if (!failures_.empty()) {
    std::sort(failures_.begin(), failures_.end());
    auto message = failures_.front().second;
    if (auto const more = failures_.size() - 1; more > 0) {
      message += " (and " + std::to_string(more) + (more == 1 ? " more file" : " more files") + " failed)";
    }
    std::vector<std::string> lines;
    lines.reserve(failures_.size());
    for (auto& failure : failures_) lines.push_back(std::move(failure.second));
    throw TransferError(message, report_, std::move(lines));
  }
}

// Runs the connection until every request sent so far is answered.
void Engine::drain() {
  while (!pending_.empty() || connection_.queued() > 0) {
    connection_.pump([this](ByteView packet) { onPacket(packet); });
    reportProgress(false);
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

bool Engine::finished() const { return (stopping_ || nextItem_ == files_.size()) && jobs_.empty() && pending_.empty(); }

std::uint32_t Engine::track(Job* job, Op op, std::uint64_t offset, std::uint32_t length) {
  auto const id = nextId_++;
  pending_.emplace(id, Pending{job, op, offset, length});
  if (job != nullptr) ++job->pending;
  return id;
}

void Engine::startJobs() {
  while (!stopping_ && nextItem_ < files_.size() && jobs_.size() < maxOpenFiles_ &&
         connection_.queued() < kOutboundLimit) {
    auto const& work = files_[nextItem_];
    if (busyDestinations_.contains(work.destination)) return;
    auto job = std::make_unique<Job>();
    job->index = nextItem_++;
    job->work = &work;
    job->source = work.source;
    job->destination = work.destination;
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
    statvfs_ = version.offers(kStatvfsExtension);
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
  switch (pending.op) {
    case Op::Limits:
      adopt(reply.type == PacketType::ExtendedReply ? decodeLimits(reply.data) : Limits{});
      return;
    case Op::Examine:
    case Op::RealPath:
    case Op::OpenFolder:
    case Op::ReadFolder:
    case Op::ReadLink:
      return onListing(pending, reply);
    case Op::MakeFolder:
    case Op::CheckFolder:
    case Op::FolderAttributes:
      return onFolder(pending, reply);
    case Op::MakeLink:
    case Op::PlaceLink:
      return onLink(pending, reply);
    case Op::Destination:
      intoFolder_[static_cast<std::size_t>(pending.offset)] =
          reply.type == PacketType::Attrs && reply.attributes.isDirectory();
      return;
    case Op::FixAttributes:
      if (reply.type != PacketType::Status || reply.status != StatusCode::Ok) {
        auto const& file = skipped_[static_cast<std::size_t>(pending.offset)];
        planFailure(file.item, "cannot set the mode and time of " + quoted(file.destination) + ": " +
                                   describeStatus(reply.status, reply.message));
      }
      return;
    case Op::Delete:
      return onDeleted(pending, reply);
    case Op::Resolve:
      if (reply.type == PacketType::Name && reply.names.size() == 1) {
        resolvedPath_ = std::string(reply.names.front().filename);
      }
      return;
    default:
      break;
  }
  if (pending.job == nullptr) return;
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
    case Op::SetAttributes:
      onSetAttributes(job, reply);
      break;
    case Op::Statvfs:
      onStatvfs(job, reply);
      break;
    case Op::Probe:
      onProbe(job, reply);
      break;
    default:
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
  TransferProgress progress;
  // While the sources are listed the totals are not known yet: none are
  // given, and the callback can still stop the transfer.
  if (!planning_) {
    progress.bytesDone = bytesDone_;
    progress.bytesTotal = bytesTotal_;
    progress.filesDone = filesDone_;
    progress.filesTotal = files_.size();
    if (current < files_.size()) progress.currentFile = fl::i18n::utf8_to_ustring(files_[current].source);
  }
  try {
    progress_(progress);
  } catch (...) {
    cancelled_ = std::current_exception();
    stopping_ = true;
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

bool Engine::resuming() const { return trees_ != nullptr && trees_->getOptions().resume; }

// A resumable temporary with data in it is what the next run continues.
bool Engine::holdsResumableData(Job const& job) const {
  return resuming() && job.resumable && (upload_ ? job.next > 0 : job.wrote || job.resumed);
}

// Such a temporary stays when the transfer is stopped.
bool Engine::keepsPartial(Job const& job) const { return cancelled_ && holdsResumableData(job); }

void Engine::discardTemp(Job& job) {
  if (job.temp.empty()) return;
  if (keepsPartial(job)) {
    job.temp.clear();
    return;
  }
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
  // What arrived so far is worth keeping when the temporary stays.
  if (!upload_ && job.resumable && cancelled_ && job.fd.valid() && job.block.length > 0) flush(job);
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
  if (job.resumed) ++report_.resumed;
  if (listDestinations_) changedFolders_.insert(folderOf(job.destination));
}

void Engine::closeRemote(Job& job) {
  if (job.handle.empty()) return;
  connection_.writer().close(track(&job, Op::Cleanup), job.handle);
  job.handle.clear();
}

std::string Engine::tempNameFor(std::string const& path) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string suffix(8, '0');
  auto bits = random_();
  for (auto& c : suffix) {
    c = kHex[bits & 15U];
    bits >>= 4U;
  }
  return temporaryName(path, suffix);
}

// The stream broke: local temporaries go, but a resumable one that holds
// data is kept for the next run (remote ones cannot be removed anyway).
void Engine::abandon() noexcept {
  for (auto& job : jobs_) {
    job->fd.reset();
    if (!upload_ && !job->temp.empty() && !holdsResumableData(*job)) ::unlink(job->temp.c_str());
  }
}

// ---- trees -------------------------------------------------------------------

std::string Engine::describePair(std::size_t item) const {
  auto const& local = upload_ ? sources_[item] : destinations_[item];
  auto const& remote = upload_ ? destinations_[item] : sources_[item];
  if (upload_) return "cannot upload " + quoted(local) + " to " + quoted(remote) + " on " + peer_ + ": ";
  return "cannot download " + quoted(remote) + " from " + peer_ + " to " + quoted(local) + ": ";
}

void Engine::planFailure(std::size_t item, std::string const& cause) {
  stopping_ = true;
  failures_.emplace_back(item, describePair(item) + cause);
}

void Engine::addFolder(FolderWork folder) {
  if (!folderIndex_.emplace(folder.destination, folders_.size()).second) return;
  folders_.push_back(std::move(folder));
}

// Every missing parent of a destination is made, as the facade's mkdir -p does.
void Engine::addParents(std::size_t item, std::string const& destination) {
  for (auto slash = destination.find('/', 1); slash != std::string::npos; slash = destination.find('/', slash + 1)) {
    auto parent = withoutTrailingSlashes(destination.substr(0, slash));
    if (parent == "/" || parent == "." || parent == ".." || parent.ends_with("/.") || parent.ends_with("/..")) continue;
    addFolder(FolderWork(std::move(parent), item, false));
  }
}

void Engine::keepFrom(Attributes const& attributes, std::optional<std::uint32_t>& mode,
                      std::optional<std::uint32_t>& atime, std::optional<std::uint32_t>& mtime) const {
  auto const& options = trees_->getOptions();
  if (options.keepPermissions && attributes.permissions) {
    mode = *attributes.permissions & (options.keepSpecialBits ? kModeBits : kPermissionBits);
  }
  if (options.keepTimes && attributes.mtime) {
    mtime = attributes.mtime;
    atime = attributes.atime.value_or(*attributes.mtime);
  }
}

// Sorts one listed entry into the plan; `resolve`: a remote folder reached
// through a link, whose canonical path is asked for before it is read.
void Engine::takeAttributes(std::size_t item, std::string const& source, std::string const& destination,
                            Attributes const& attributes, std::size_t parent, bool resolve) {
  auto const type = attributes.permissions.value_or(modebits::kRegular) & modebits::kTypeMask;
  if (type == modebits::kDirectory) {
    FolderWork folder(withoutTrailingSlashes(destination), item, true);
    keepFrom(attributes, folder.mode, folder.atime, folder.mtime);
    addFolder(std::move(folder));
    if (upload_) return;  // local folders are read by listLocal
    nodes_.emplace_back(item, source, destination, parent);
    auto const node = nodes_.size() - 1;
    if (trees_->getOptions().followLinks) {
      if (resolve) {
        connection_.writer().realpath(track(nullptr, Op::RealPath, node), source);
        return;
      }
      if (parent != kNone) nodes_[node].real = joined(nodes_[parent].real, source.substr(source.rfind('/') + 1));
    }
    openFolder(node);
  } else if (type == modebits::kRegular || type == 0) {
    FileWork file(source, destination, item);
    file.size = attributes.size.value_or(0);
    file.listedMtime = attributes.mtime;
    keepFrom(attributes, file.mode, file.atime, file.mtime);
    bytesTotal_ += *file.size;
    files_.push_back(std::move(file));
  } else if (type == modebits::kSymlink) {
    if (upload_) return;  // read by listLocal
    nodes_.emplace_back(item, source, destination, parent);
    connection_.writer().readlink(track(nullptr, Op::ReadLink, nodes_.size() - 1), source);
  } else {
    ++report_.special;
    specialDestinations_.push_back(destination);
    char const* kind = "a special file";
    if (type == 0010000) kind = "a FIFO";
    if (type == 0140000) kind = "a socket";
    if (type == 0020000 || type == 0060000) kind = "a device";
    report_.notes.push_back(fl::i18n::utf8_to_ustring("skipped " + quoted(source) + ": " + kind));
  }
}

Attributes localAttributes(struct stat const& st) {
  Attributes attributes;
  attributes.size = static_cast<std::uint64_t>(st.st_size);
  attributes.permissions = static_cast<std::uint32_t>(st.st_mode);
  attributes.atime = static_cast<std::uint32_t>(st.st_atim.tv_sec);
  attributes.mtime = static_cast<std::uint32_t>(st.st_mtim.tv_sec);
  return attributes;
}

// The text of a local symbolic link; nullopt with errno set when unreadable.
std::optional<std::string> linkText(std::string const& path) {
  std::string target(PATH_MAX, '\0');
  auto const length = ::readlink(path.c_str(), target.data(), target.size());
  if (length < 0) return std::nullopt;
  target.resize(static_cast<std::size_t>(length));
  return target;
}

// The names in a local folder but "." and ".."; nullopt with errno set when
// it cannot be read.
std::optional<std::vector<std::string>> folderEntries(std::string const& path) {
  std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(path.c_str()), &::closedir);
  if (!folder) return std::nullopt;
  std::vector<std::string> names;
  errno = 0;
  while (auto const* entry = ::readdir(folder.get())) {
    std::string_view const name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  if (errno != 0) return std::nullopt;
  return names;
}

// Mode and times as an SFTP request sets them.
Attributes modeAndTimes(std::optional<std::uint32_t> mode, std::optional<std::uint32_t> atime,
                        std::optional<std::uint32_t> mtime) {
  Attributes attributes;
  attributes.permissions = mode;
  attributes.atime = atime;
  attributes.mtime = mtime;
  return attributes;
}

// Sets what is given of mode and times on a local path; empty, or what failed.
std::string setLocalModeAndTimes(std::string const& path, std::optional<std::uint32_t> mode,
                                 std::optional<std::uint32_t> atime, std::optional<std::uint32_t> mtime) {
  if (mode && ::chmod(path.c_str(), static_cast<mode_t>(*mode)) != 0) {
    return "cannot set the mode of " + quoted(path) + ": " + errnoText(errno);
  }
  if (!mtime) return {};
  struct timespec const times[2] = {{static_cast<time_t>(atime.value_or(*mtime)), 0}, {static_cast<time_t>(*mtime), 0}};
  if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) {
    return "cannot set the time of " + quoted(path) + ": " + errnoText(errno);
  }
  return {};
}

// A remote listing in flight goes on while a local tree is walked: its
// answers are taken in every few entries, without waiting for them.
void Engine::keepListing() {
  if (++walked_ % 64 == 0 && !pending_.empty()) {
    connection_.pump([this](ByteView packet) { onPacket(packet); }, false);
  }
}

void Engine::listLocal(std::size_t item, std::string const& source, std::string const& destination,
                       std::vector<std::pair<dev_t, ino_t>>& above) {
  if (stopping_) return;
  keepListing();
  bool const follow = trees_->getOptions().followLinks;
  struct stat st {};
  if ((follow ? ::stat(source.c_str(), &st) : ::lstat(source.c_str(), &st)) != 0) {
    return planFailure(item, "cannot read " + quoted(source) + ": " + errnoText(errno));
  }
  if (S_ISLNK(st.st_mode)) {
    auto target = linkText(source);
    if (!target) return planFailure(item, "cannot read the link " + quoted(source) + ": " + errnoText(errno));
    links_.emplace_back(destination, std::move(*target), item);
    return;
  }
  takeAttributes(item, source, destination, localAttributes(st), kNone, false);
  if (!S_ISDIR(st.st_mode)) return;
  std::pair<dev_t, ino_t> const self{st.st_dev, st.st_ino};
  if (std::find(above.begin(), above.end(), self) != above.end()) {
    return planFailure(item, quoted(source) + " leads back into a folder above it (a symbolic link loop)");
  }
  auto const names = folderEntries(source);
  if (!names) return planFailure(item, "cannot read folder " + quoted(source) + ": " + errnoText(errno));
  above.push_back(self);
  for (auto const& name : *names) listLocal(item, joined(source, name), joined(destination, name), above);
  above.pop_back();
}

void Engine::openFolder(std::size_t node) {
  if (stopping_) return;
  if (foldersOpen_ >= kFoldersOpen) return foldersWaiting_.push_back(node);
  ++foldersOpen_;
  auto const& path = nodes_[node].source;
  connection_.writer().opendir(track(nullptr, Op::OpenFolder, node), path.empty() ? std::string_view(".") : path);
}

void Engine::onListing(Pending const& pending, Reply const& reply) {
  auto const index = static_cast<std::size_t>(pending.offset);
  auto& node = nodes_[index];
  auto const failed = [&](std::string const& what) {
    if (!stopping_)
      planFailure(node.item, what + quoted(node.source) + ": " + describeStatus(reply.status, reply.message));
  };
  if (node.existing) {
    // What the destination holds: nothing here fails the transfer, and a
    // folder that cannot be read is only not known.
    switch (pending.op) {
      case Op::Examine:
        if (reply.type != PacketType::Attrs) return;
        recordExisting(node.item, node.source, reply.attributes);
        if (reply.attributes.isSymlink()) {
          connection_.writer().readlink(track(nullptr, Op::ReadLink, index), node.source);
        } else if (reply.attributes.isDirectory()) {
          openFolder(index);
        }
        return;
      case Op::OpenFolder:
        if (reply.type != PacketType::Handle) return folderRead(index);
        node.handle = std::string(reply.handle);
        connection_.writer().readdir(track(nullptr, Op::ReadFolder, index), node.handle);
        return;
      case Op::ReadFolder:
        if (reply.type != PacketType::Name) return folderRead(index);
        for (auto const& entry : reply.names) {
          if (!acceptName(index, entry.filename)) continue;
          if (nodes_[index].temporariesOnly) {
            recordTemporary(nodes_[index].source + std::string(entry.filename), entry.attributes);
            continue;
          }
          auto path = joined(nodes_[index].source, entry.filename);
          recordExisting(nodes_[index].item, path, entry.attributes);
          if (!entry.attributes.isSymlink() && !entry.attributes.isDirectory()) continue;
          nodes_.emplace_back(nodes_[index].item, std::move(path), std::string(), index, true);
          auto const child = nodes_.size() - 1;
          if (entry.attributes.isSymlink()) {
            connection_.writer().readlink(track(nullptr, Op::ReadLink, child), nodes_[child].source);
          } else {
            openFolder(child);
          }
        }
        connection_.writer().readdir(track(nullptr, Op::ReadFolder, index), nodes_[index].handle);
        return;
      case Op::ReadLink:
        if (reply.type == PacketType::Name && reply.names.size() == 1) {
          existing_[node.source].linkTarget = std::string(reply.names.front().filename);
        }
        return;
      default:
        return;
    }
  }
  switch (pending.op) {
    case Op::Examine:
      if (reply.type == PacketType::Attrs) {
        // Copies: takeAttributes may add to nodes_.
        auto const source = node.source;
        auto const destination = node.destination;
        return takeAttributes(node.item, source, destination, reply.attributes, node.parent,
                              trees_->getOptions().followLinks);
      }
      return failed("cannot read ");
    case Op::RealPath: {
      if (reply.type != PacketType::Name || reply.names.size() != 1) return failed("cannot resolve ");
      node.real = std::string(reply.names.front().filename);
      for (auto above = node.parent; above != kNone; above = nodes_[above].parent) {
        if (nodes_[above].real == node.real) {
          if (!stopping_) {
            planFailure(node.item, quoted(node.source) + " leads back into a folder above it (a symbolic link loop)");
          }
          return;
        }
      }
      return openFolder(index);
    }
    case Op::OpenFolder:
      if (reply.type != PacketType::Handle) {
        failed("cannot read folder ");
        return folderRead(index);
      }
      node.handle = std::string(reply.handle);
      if (stopping_) break;
      connection_.writer().readdir(track(nullptr, Op::ReadFolder, index), node.handle);
      return;
    case Op::ReadFolder:
      if (reply.type == PacketType::Name) {
        // Copies: nodes_ grows below.
        auto const item = node.item;
        auto const folderSource = node.source;
        auto const folderDestination = node.destination;
        for (auto const& entry : reply.names) {
          if (!acceptName(index, entry.filename)) continue;
          auto source = joined(folderSource, entry.filename);
          auto destination = joined(folderDestination, entry.filename);
          if (trees_->getOptions().followLinks && entry.attributes.isSymlink()) {
            nodes_.emplace_back(item, std::move(source), std::move(destination), index);
            connection_.writer().stat(track(nullptr, Op::Examine, nodes_.size() - 1), nodes_.back().source);
          } else {
            takeAttributes(item, source, destination, entry.attributes, index, false);
          }
        }
        // nodes_ may have grown: no reference into it from here on.
        if (!stopping_) {
          connection_.writer().readdir(track(nullptr, Op::ReadFolder, index), nodes_[index].handle);
          return;
        }
      } else if (reply.status != StatusCode::Eof) {
        failed("cannot read folder ");
      }
      break;
    case Op::ReadLink:
      if (reply.type != PacketType::Name || reply.names.size() != 1) return failed("cannot read the link ");
      links_.emplace_back(node.destination, std::string(reply.names.front().filename), node.item);
      return;
    default:
      return;
  }
  folderRead(index);
}

// The folder is read (or given up): its handle goes, a waiting one opens.
void Engine::folderRead(std::size_t node) {
  auto& done = nodes_[node];
  if (!done.handle.empty()) connection_.writer().close(track(nullptr, Op::Cleanup), done.handle);
  done.handle.clear();
  --foldersOpen_;
  if (!foldersWaiting_.empty() && !stopping_) {
    auto const next = foldersWaiting_.back();
    foldersWaiting_.pop_back();
    openFolder(next);
  }
}

// A listed name is joined to its folder only when it is a plain name. The
// one "." and ".." of each listing are dropped silently; any other suspect
// name is skipped with a note naming it and its folder.
bool Engine::acceptName(std::size_t node, std::string_view name) {
  auto& folder = nodes_[node];
  if (name == "." && !std::exchange(folder.sawDot, true)) return false;
  if (name == ".." && !std::exchange(folder.sawDotDot, true)) return false;
  if (!transfer::suspectName(name)) return true;
  auto const where = quoted(std::string(name)) + " listed in " + quoted(folder.source);
  report_.notes.push_back(fl::i18n::utf8_to_ustring("skipped the suspect name " + where + " by " + peer_));
  if (!trees_->getOptions().ignoreSuspectNames) {
    suspects_.emplace_back(folder.item, describePair(folder.item) + "suspect name " + where + " (skipped)");
  }
  return false;
}

std::optional<std::string> Engine::remoteRealPath(std::string const& path) {
  resolvedPath_.reset();
  connection_.writer().realpath(track(nullptr, Op::Resolve), path);
  drain();
  return std::exchange(resolvedPath_, std::nullopt);
}

// "." and ".." in a caller's path are resolved before anything is planned,
// so that a source's own name and the root below which a mirror deletes come
// from the real folders, never from the text.
void Engine::resolvePaths() {
  auto const& items = trees_->getItems();
  sources_.reserve(items.size());
  destinations_.reserve(items.size());
  int localError = 0;
  auto const localReal = [&localError](std::string const& path) -> std::optional<std::string> {
    std::unique_ptr<char, decltype(&::free)> const real(::realpath(path.c_str(), nullptr), &::free);
    if (!real) {
      localError = errno;
      return std::nullopt;
    }
    return std::string(real.get());
  };
  auto const remoteReal = [this](std::string const& path) { return remoteRealPath(path); };
  for (std::size_t i = 0; i < items.size(); ++i) {
    auto const local = fl::i18n::ustring_to_utf8(items[i].localPath);
    auto const remote = fl::i18n::ustring_to_utf8(items[i].remotePath);
    auto const localResolved = transfer::resolved(local, localReal, upload_);
    auto const remoteResolved = transfer::resolved(remote, remoteReal, !upload_);
    sources_.push_back(upload_ ? localResolved.value_or(local) : remoteResolved.value_or(remote));
    destinations_.push_back(upload_ ? remoteResolved.value_or(remote) : localResolved.value_or(local));
    if (!localResolved) planFailure(i, "cannot resolve " + quoted(local) + ": " + errnoText(localError));
    if (!remoteResolved) planFailure(i, "cannot resolve " + quoted(remote) + " on " + peer_ + ": No such file");
  }
}

// Lists every source (remote ones over this session) into files_, folders_
// and links_; totals are known afterwards.
void Engine::plan() {
  auto const& items = trees_->getItems();
  resolvePaths();
  intoFolder_.assign(items.size(), false);
  for (std::size_t i = 0; i < items.size() && !stopping_; ++i) {
    if (!trees_->getOptions().intoFolders) continue;
    auto const& destination = destinations_.back();
    struct stat st {};
    if (destination.ends_with('/')) {
      intoFolder_[i] = true;
    } else if (upload_) {
      connection_.writer().stat(track(nullptr, Op::Destination, i), destination);
    } else {
      intoFolder_[i] = ::stat(destination.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
  }
  drain();
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (intoFolder_[i]) destinations_[i] = joined(destinations_[i], baseName(sources_[i]));
    addParents(i, destinations_[i]);
  }
  // Remote destinations are listed while the local sources are.
  if (listDestinations_ && upload_) {
    for (std::size_t i = 0; i < items.size(); ++i) listExisting(i, destinations_[i]);
  }
  for (std::size_t i = 0; i < items.size() && !stopping_; ++i) {
    auto source = sources_[i];
    auto destination = destinations_[i];
    if (upload_) {
      std::vector<std::pair<dev_t, ino_t>> above;
      listLocal(i, source, destination, above);
    } else {
      nodes_.emplace_back(i, std::move(source), std::move(destination), kNone);
      auto const& root = nodes_.back().source;
      auto const id = track(nullptr, Op::Examine, nodes_.size() - 1);
      if (trees_->getOptions().followLinks) {
        connection_.writer().stat(id, root);
      } else {
        connection_.writer().lstat(id, root);
      }
    }
  }
  // Local destinations are listed while the remote sources are.
  if (listDestinations_ && !upload_) {
    for (std::size_t i = 0; i < items.size(); ++i) listLocalExisting(i, withoutTrailingSlashes(destinations_[i]));
  }
  drain();
  // A file copied to a name of its own lies in a folder that was not listed:
  // only the temporaries there are looked for.
  if (listDestinations_ && !stopping_) {
    std::unordered_set<std::string> folders;
    for (auto const& file : files_) {
      if (file.destination == destinations_[file.item]) folders.insert(temporaryOwner(file.destination).first);
    }
    for (auto const& folder : folders) {
      if (upload_) {
        nodes_.emplace_back(0, folder, std::string(), kNone, true);
        nodes_.back().temporariesOnly = true;
        openFolder(nodes_.size() - 1);
      } else {
        listLocalTemporaries(folder);
      }
    }
    drain();
  }
  nodes_.clear();
  nodes_.shrink_to_fit();
  sourceIsFolder_.assign(items.size(), false);
  for (std::size_t i = 0; i < items.size(); ++i) {
    auto const root = folderIndex_.find(withoutTrailingSlashes(destinations_[i]));
    sourceIsFolder_[i] = root != folderIndex_.end() && folders_[root->second].fromSource;
  }
}

// ---- re-runs -------------------------------------------------------------------

// A destination root is looked at as it is (a link is not followed); below
// it, folders are read and links read, never followed.
void Engine::listExisting(std::size_t item, std::string const& root) {
  nodes_.emplace_back(item, withoutTrailingSlashes(root), std::string(), kNone, true);
  connection_.writer().lstat(track(nullptr, Op::Examine, nodes_.size() - 1), nodes_.back().source);
}

void Engine::listLocalExisting(std::size_t item, std::string const& path) {
  keepListing();
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return;
  recordExisting(item, path, localAttributes(st));
  if (S_ISLNK(st.st_mode)) {
    existing_[path].linkTarget = linkText(path);
    return;
  }
  if (!S_ISDIR(st.st_mode)) return;
  for (auto const& name : folderEntries(path).value_or(std::vector<std::string>())) {
    listLocalExisting(item, joined(path, name));
  }
}

std::uint32_t typeOf(Attributes const& attributes) {
  auto const type = attributes.permissions.value_or(modebits::kRegular) & modebits::kTypeMask;
  return type == 0 ? modebits::kRegular : type;
}

void Engine::recordExisting(std::size_t item, std::string const& path, Attributes const& attributes) {
  Existing entry;
  entry.type = typeOf(attributes);
  entry.size = attributes.size.value_or(0);
  if (attributes.permissions) entry.permissions = *attributes.permissions & kModeBits;
  entry.mtime = attributes.mtime;
  entry.item = item;
  existing_.insert_or_assign(path, std::move(entry));
  recordTemporary(path, attributes);
}

// ".<name>.sshfa-<suffix>": a temporary made for <name> in its folder.
void Engine::recordTemporary(std::string const& path, Attributes const& attributes) {
  auto const slash = path.rfind('/');
  std::string_view const name = std::string_view(path).substr(slash == std::string::npos ? 0 : slash + 1);
  auto const mark = name.rfind(kTempMark);
  if (name.size() < 2 || name.front() != '.' || mark == std::string_view::npos || mark < 2) return;
  auto const folder = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  temporaries_.push_back(
      {path, folder + std::string(name.substr(1, mark - 1)), typeOf(attributes), attributes.size.value_or(0)});
}

// `folder` is "" (the working folder) or ends with '/'.
void Engine::listLocalTemporaries(std::string const& folder) {
  for (auto const& name : folderEntries(folder.empty() ? "." : folder).value_or(std::vector<std::string>())) {
    if (!name.starts_with('.') || name.find(kTempMark) == std::string::npos) continue;
    auto const path = folder + name;
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) recordTemporary(path, localAttributes(st));
  }
}

// Lists what the destination holds against the sources: temporaries of
// earlier runs claimed, unchanged files and links set aside, the rest
// counted for progress. Nothing changes in a dry run.
void Engine::decide() {
  auto const& options = trees_->getOptions();
  if (options.deleteExtraneous) {
    for (auto const& file : files_) sourceNames_.insert(file.destination);
    for (auto const& folder : folders_) {
      if (folder.fromSource) sourceNames_.insert(folder.destination);
    }
    for (auto const& link : links_) sourceNames_.insert(link.destination);
    sourceNames_.insert(specialDestinations_.begin(), specialDestinations_.end());
  }
  auto stale = claimTemporaries();
  std::vector<bool> unchanged(files_.size(), false);
  if (options.skipUnchanged != UnchangedTest::None) {
    std::vector<std::size_t> hashing;
    for (std::size_t i = 0; i < files_.size(); ++i) {
      auto const& file = files_[i];
      auto const there = existing_.find(file.destination);
      if (there == existing_.end() || there->second.type != modebits::kRegular || there->second.size != *file.size) {
        continue;
      }
      if (options.skipUnchanged == UnchangedTest::Checksum) {
        hashing.push_back(i);
      } else {
        unchanged[i] = file.listedMtime && there->second.mtime == file.listedMtime;
      }
    }
    compareChecksums(hashing, unchanged);
    std::erase_if(links_, [&](LinkWork const& link) {
      auto const there = existing_.find(link.destination);
      return there != existing_.end() && there->second.type == modebits::kSymlink &&
             there->second.linkTarget == link.target;
    });
  }
  if (stopping_) return;
  std::vector<FileWork> copying;
  copying.reserve(files_.size());
  for (std::size_t i = 0; i < files_.size(); ++i) {
    if (unchanged[i] && !files_[i].resumeTemp.empty()) {
      stale.push_back(std::exchange(files_[i].resumeTemp, std::string()));
      files_[i].resumeFrom = 0;
    }
    (unchanged[i] ? skipped_ : copying).push_back(std::move(files_[i]));
  }
  files_ = std::move(copying);
  verifyResumes(stale);
  if (stopping_) return;
  bytesTotal_ = 0;
  for (auto const& file : files_) bytesTotal_ += *file.size - file.resumeFrom;
  report_.skipped = skipped_.size();
  for (auto& folder : folders_) {
    auto const there = existing_.find(folder.destination);
    if (there == existing_.end()) continue;
    folder.existed = there->second.type == modebits::kDirectory;
    // Below a root only: a destination the caller named may be a link.
    folder.linkInTheWay = folder.fromSource && there->second.type == modebits::kSymlink &&
                          folder.destination != withoutTrailingSlashes(destinations_[folder.item]);
  }
  if (options.dryRun) return;
  removeStale(stale);
  fixAttributes();
}

// Temporaries made for this transfer's destinations by earlier runs: the one
// that fits a file's unchanged source is continued (once verified), the
// others are returned to be removed. Those of other names stay untouched.
std::vector<std::string> Engine::claimTemporaries() {
  std::vector<std::string> stale;
  if (temporaries_.empty()) return stale;
  auto const key = [](std::string const& destination) {
    auto [folder, name] = temporaryOwner(destination);
    return folder + name;
  };
  std::unordered_map<std::string, std::size_t> owners;  // a file's index; kNone: a link
  for (std::size_t i = 0; i < files_.size(); ++i) owners.emplace(key(files_[i].destination), i);
  for (auto const& link : links_) owners.emplace(key(link.destination), kNone);
  for (auto const& temporary : temporaries_) {
    auto const owner = owners.find(temporary.owner);
    if (owner == owners.end()) continue;
    existing_.erase(temporary.path);
    if (owner->second != kNone && resuming()) {
      auto& file = files_[owner->second];
      if (file.resumeTemp.empty() && temporary.type == modebits::kRegular && temporary.size > 0 &&
          temporary.size <= *file.size &&
          temporary.path == resumeNameFor(file.destination, *file.size, file.listedMtime)) {
        file.resumeTemp = temporary.path;
        file.resumeFrom = temporary.size;
        continue;
      }
    }
    stale.push_back(temporary.path);
  }
  return stale;
}

std::string Engine::remoteOutput(std::string const& command) {
  if (shell_ == nullptr || !*shell_) throw SSHError(SSHError::Kind::Transfer, "no remote shell to hash files with");
  return (*shell_)(command);
}

// Equal sizes are compared by SHA-256: the remote side's by sha256sum, many
// files a line; the local side's here. A file either side cannot hash is
// taken as changed.
void Engine::compareChecksums(std::vector<std::size_t> const& candidates, std::vector<bool>& unchanged) {
  if (candidates.empty()) return;
  std::vector<std::string> remotePaths;
  remotePaths.reserve(candidates.size());
  for (auto const i : candidates) remotePaths.push_back(upload_ ? files_[i].destination : files_[i].source);
  std::vector<std::optional<std::string>> remoteHashes;
  remoteHashes.reserve(candidates.size());
  for (auto const& batch : remoteHashCommands(remotePaths)) {
    auto const output = remoteOutput(batch.command);
    std::vector<std::optional<std::string>> hashes(batch.count);
    try {
      hashes = parseRemoteHashes(output, std::span(remotePaths).subspan(batch.first, batch.count));
    } catch (std::runtime_error const&) {
      // Not an answer (no sha256sum there): every file of the line is sent.
    }
    remoteHashes.insert(remoteHashes.end(), hashes.begin(), hashes.end());
    reportProgress(false);
    if (stopping_) return;
  }
  for (std::size_t k = 0; k < candidates.size() && !stopping_; ++k) {
    auto const& file = files_[candidates[k]];
    if (!remoteHashes[k]) continue;
    try {
      unchanged[candidates[k]] = sha256OfLocalFile(upload_ ? file.source : file.destination) == *remoteHashes[k];
    } catch (SSHError const&) {
      // Unreadable here: copied, and the copy names the cause if it fails.
    }
    reportProgress(false);
  }
}

// A temporary continues only when its bytes are the source's first bytes:
// SHA-256 of that prefix on both sides. Otherwise it goes and the file
// starts over.
void Engine::verifyResumes(std::vector<std::string>& stale) {
  for (auto& file : files_) {
    if (file.resumeTemp.empty() || stopping_) continue;
    auto const& remotePath = upload_ ? file.resumeTemp : file.source;
    auto const& localPath = upload_ ? file.source : file.resumeTemp;
    auto const output = remoteOutput(remotePrefixHashCommand(remotePath, file.resumeFrom));
    std::optional<std::string> remote;
    std::optional<std::string> local;
    try {
      remote = parseRemotePrefixHash(output);
      local = sha256OfLocalFile(localPath, file.resumeFrom);
    } catch (std::runtime_error const&) {
      // Either side unreadable or not an answer: start over.
    }
    reportProgress(false);
    if (remote && local && *remote == *local) continue;
    stale.push_back(std::exchange(file.resumeTemp, std::string()));
    file.resumeFrom = 0;
  }
}

// A temporary that cannot be removed is left; it harms nothing.
void Engine::removeStale(std::vector<std::string> const& paths) {
  for (auto const& path : paths) {
    if (upload_) {
      connection_.writer().remove(track(nullptr, Op::Cleanup), path);
    } else {
      ::unlink(path.c_str());
    }
    changedFolders_.insert(folderOf(path));
  }
  drain();
}

// Whether an existing entry lacks the mode to keep (none to keep: never).
bool Engine::modeDiffers(Existing const& entry, std::optional<std::uint32_t> mode) const {
  auto const mask = trees_->getOptions().keepSpecialBits ? kModeBits : kPermissionBits;
  return mode && (!entry.permissions || (*entry.permissions & mask) != *mode);
}

bool timeDiffers(Existing const& entry, std::optional<std::uint32_t> mtime) { return mtime && entry.mtime != mtime; }

// Unchanged files get the source's mode and time where theirs differ.
void Engine::fixAttributes() {
  for (std::size_t k = 0; k < skipped_.size(); ++k) {
    auto const& file = skipped_[k];
    auto const& there = existing_.at(file.destination);
    if (!modeDiffers(there, file.mode) && !timeDiffers(there, file.mtime)) continue;
    if (upload_) {
      connection_.writer().setstat(track(nullptr, Op::FixAttributes, k), file.destination,
                                   modeAndTimes(file.mode, file.atime, file.mtime));
    } else if (auto const failure = setLocalModeAndTimes(file.destination, file.mode, file.atime, file.mtime);
               !failure.empty()) {
      return planFailure(file.item, failure);
    }
  }
  drain();
}

// Entries below a folder source's destination that the source does not
// have: files and links first, then folders deepest first. The roots stay.
std::vector<std::string> Engine::extraneous() const {
  std::vector<std::string> entries;
  std::vector<std::string> folders;
  if (!trees_->getOptions().deleteExtraneous || !suspects_.empty()) return entries;
  for (auto const& [path, entry] : existing_) {
    if (!sourceIsFolder_[entry.item] || sourceNames_.contains(path)) continue;
    if (!transfer::strictlyBelow(destinations_[entry.item], path)) continue;
    (entry.type == modebits::kDirectory ? folders : entries).push_back(path);
  }
  std::sort(entries.begin(), entries.end());
  auto const depth = [](std::string const& path) { return std::count(path.begin(), path.end(), '/'); };
  std::sort(folders.begin(), folders.end(), [&](std::string const& a, std::string const& b) {
    auto const da = depth(a);
    auto const db = depth(b);
    return da != db ? da > db : a < b;
  });
  entries.insert(entries.end(), folders.begin(), folders.end());
  return entries;
}

// Only after every file arrived. Remote folders are removed one depth at a
// time, each once what was inside it is gone.
void Engine::deleteExtraneous() {
  deletions_ = extraneous();
  std::size_t depth = SIZE_MAX;
  for (std::size_t i = 0; i < deletions_.size() && !stopping_; ++i) {
    auto const& path = deletions_[i];
    auto const& entry = existing_.at(path);
    bool const folder = entry.type == modebits::kDirectory;
    if (!upload_) {
      if ((folder ? ::rmdir(path.c_str()) : ::unlink(path.c_str())) != 0 && errno != ENOENT) {
        return planFailure(entry.item, "cannot delete " + quoted(path) + ": " + errnoText(errno));
      }
      ++report_.deleted;
      changedFolders_.insert(folderOf(path));
      continue;
    }
    if (folder) {
      auto const level = static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'));
      if (level != depth) drain();
      depth = level;
      if (stopping_) break;
      connection_.writer().rmdir(track(nullptr, Op::Delete, i), path);
    } else {
      connection_.writer().remove(track(nullptr, Op::Delete, i), path);
    }
    if (connection_.queued() >= kOutboundLimit) connection_.pump([this](ByteView packet) { onPacket(packet); });
  }
  drain();
}

void Engine::onDeleted(Pending const& pending, Reply const& reply) {
  auto const& path = deletions_[static_cast<std::size_t>(pending.offset)];
  if (reply.type == PacketType::Status && reply.status == StatusCode::Ok) {
    ++report_.deleted;
    changedFolders_.insert(folderOf(path));
  } else if (reply.status != StatusCode::NoSuchFile) {
    planFailure(existing_.at(path).item,
                "cannot delete " + quoted(path) + " on " + peer_ + ": " + describeStatus(reply.status, reply.message));
  }
}

// The dry run's report: what would be made, sent, left and removed.
void Engine::planDryRun() {
  using Action = PlannedChange::Action;
  auto const add = [this](Action action, std::string const& path, std::uint64_t bytes) {
    report_.plan.push_back({action, fl::i18n::utf8_to_ustring(path), bytes});
  };
  for (auto const& folder : folders_) {
    if (!folder.fromSource || folder.existed) continue;
    add(Action::Folder, folder.destination, 0);
    ++report_.folders;
  }
  for (auto const& link : links_) add(Action::Link, link.destination, 0);
  report_.links = links_.size();
  for (auto const& file : files_) {
    add(file.resumeTemp.empty() ? Action::Copy : Action::Resume, file.destination, *file.size - file.resumeFrom);
    if (!file.resumeTemp.empty()) ++report_.resumed;
  }
  report_.files = files_.size();
  report_.bytes = bytesTotal_;
  for (auto const& file : skipped_) add(Action::Skip, file.destination, *file.size);
  auto const extras = extraneous();
  for (auto const& path : extras) add(Action::Delete, path, 0);
  report_.deleted = extras.size();
  // Listings come in the servers' order; a plan reads best by name.
  auto const rank = [](PlannedChange const& change) {
    return change.action == Action::Resume ? static_cast<int>(Action::Copy) : static_cast<int>(change.action);
  };
  std::stable_sort(report_.plan.begin(), report_.plan.end(), [&](PlannedChange const& a, PlannedChange const& b) {
    return rank(a) != rank(b) ? rank(a) < rank(b) : a.path < b.path;
  });
  files_.clear();
  links_.clear();
}

// A folder that was there with the source's mode and time, and whose entries
// did not change, needs neither set again.
bool Engine::unchangedFolder(FolderWork const& folder) const {
  if (!folder.existed || changedFolders_.contains(folder.destination)) return false;
  auto const there = existing_.find(folder.destination);
  return there != existing_.end() && !modeDiffers(there->second, folder.mode) &&
         !timeDiffers(there->second, folder.mtime);
}

// Every folder once, parents first, all requests in flight together; each
// MKDIR is followed by a STAT that tells a folder already there from a file
// in the way.
void Engine::makeFolders() {
  if (upload_) {
    for (std::size_t i = 0; i < folders_.size(); ++i) {
      if (folders_[i].existed) {
        folders_[i].isFolder = true;
        continue;
      }
      if (folders_[i].linkInTheWay) connection_.writer().remove(track(nullptr, Op::Cleanup), folders_[i].destination);
      connection_.writer().mkdir(track(nullptr, Op::MakeFolder, i), folders_[i].destination, Attributes{});
      connection_.writer().stat(track(nullptr, Op::CheckFolder, i), folders_[i].destination);
      if (connection_.queued() >= kOutboundLimit) connection_.pump([this](ByteView packet) { onPacket(packet); });
    }
    drain();
  } else {
    for (auto& folder : folders_) {
      mode_t const mode = trees_->getOptions().keepPermissions ? 0700 : 0777;
      if (folder.existed) {
        folder.isFolder = true;
        continue;
      }
      if (folder.linkInTheWay) ::unlink(folder.destination.c_str());
      if (::mkdir(folder.destination.c_str(), mode) == 0) {
        folder.made = folder.isFolder = true;
        changedFolders_.insert(folderOf(folder.destination));
        continue;
      }
      folder.error = errnoText(errno);
      struct stat st {};
      if (::stat(folder.destination.c_str(), &st) == 0) {
        folder.isFolder = S_ISDIR(st.st_mode);
        folder.inTheWay = !folder.isFolder;
      }
    }
  }
  judgeFolders();
}

void Engine::onFolder(Pending const& pending, Reply const& reply) {
  auto& folder = folders_[static_cast<std::size_t>(pending.offset)];
  if (pending.op == Op::MakeFolder) {
    if (reply.type == PacketType::Status && reply.status == StatusCode::Ok) {
      folder.made = true;
      changedFolders_.insert(folderOf(folder.destination));
    } else {
      folder.error = describeStatus(reply.status, reply.message);
    }
  } else if (pending.op == Op::CheckFolder) {
    folder.isFolder = reply.type == PacketType::Attrs && reply.attributes.isDirectory();
    folder.inTheWay = reply.type == PacketType::Attrs && !folder.isFolder;
  } else if (reply.type != PacketType::Status || reply.status != StatusCode::Ok) {
    planFailure(folder.item, "cannot set the mode and time of " + quoted(folder.destination) + ": " +
                                 describeStatus(reply.status, reply.message));
  }
}

// A folder that could not be made is named once: what lies below it fails
// for the same reason and is not named again.
void Engine::judgeFolders() {
  std::vector<std::string const*> failed;
  for (auto const& folder : folders_) {
    if (folder.made && folder.isFolder) ++report_.folders;
    if (folder.isFolder) continue;
    bool const below = std::any_of(failed.begin(), failed.end(), [&](std::string const* above) {
      return folder.destination.starts_with(*above) &&
             (above->ends_with('/') || folder.destination[above->size()] == '/');
    });
    if (below) continue;
    failed.push_back(&folder.destination);
    std::string const where = quoted(folder.destination) + (upload_ ? " on " + peer_ : "");
    planFailure(folder.item, "cannot make folder " + where + ": " +
                                 (folder.inTheWay ? std::string("a file is in the way") : folder.error));
  }
}

// Links are made under a temporary name and renamed over the destination.
void Engine::makeLinks() {
  for (std::size_t i = 0; i < links_.size(); ++i) {
    auto& link = links_[i];
    link.temp = tempNameFor(link.destination);
    if (upload_) {
      connection_.writer().symlink(track(nullptr, Op::MakeLink, i), link.target, link.temp);
      if (posixRename_) {
        connection_.writer().posixRename(track(nullptr, Op::PlaceLink, i), link.temp, link.destination);
      } else {
        connection_.writer().rename(track(nullptr, Op::PlaceLink, i), link.temp, link.destination);
      }
      continue;
    }
    if (::symlink(link.target.c_str(), link.temp.c_str()) != 0) {
      return planFailure(link.item, "cannot make the link " + quoted(link.destination) + ": " + errnoText(errno));
    }
    if (::rename(link.temp.c_str(), link.destination.c_str()) != 0) {
      auto const error = errno;
      ::unlink(link.temp.c_str());
      return planFailure(link.item, "cannot replace " + quoted(link.destination) + ": " + errnoText(error));
    }
    ++report_.links;
    changedFolders_.insert(folderOf(link.destination));
  }
}

void Engine::onLink(Pending const& pending, Reply const& reply) {
  auto& link = links_[static_cast<std::size_t>(pending.offset)];
  if (link.failed) return;
  bool const ok = reply.type == PacketType::Status && reply.status == StatusCode::Ok;
  if (pending.op == Op::MakeLink) {
    if (ok) return;
    link.failed = true;
    return planFailure(link.item, "cannot make the link " + quoted(link.destination) + " on " + peer_ + ": " +
                                      describeStatus(reply.status, reply.message));
  }
  if (ok) {
    ++report_.links;
    changedFolders_.insert(folderOf(link.destination));
    return;
  }
  link.failed = true;
  connection_.writer().remove(track(nullptr, Op::Cleanup), link.temp);
  planFailure(link.item,
              "cannot replace " + quoted(link.destination) + ": " + describeStatus(reply.status, reply.message));
}

// Folders get their modes and times last: files written into them would
// change the times, and a read-only mode would keep the files out. Deepest
// first, so that a closed folder never hides one below it.
void Engine::finishFolders() {
  for (std::size_t i = folders_.size(); i-- > 0;) {
    auto const& folder = folders_[i];
    if (!folder.fromSource || (!folder.mode && !folder.mtime) || unchangedFolder(folder)) continue;
    if (upload_) {
      connection_.writer().setstat(track(nullptr, Op::FolderAttributes, i), folder.destination,
                                   modeAndTimes(folder.mode, folder.atime, folder.mtime));
    } else if (auto const failure = setLocalModeAndTimes(folder.destination, folder.mode, folder.atime, folder.mtime);
               !failure.empty()) {
      return planFailure(folder.item, failure);
    }
  }
  drain();
}

// The server's generic failure hides the cause; its file system state names
// it. Asked before the temporary is removed, which would free space.
void Engine::diagnose(Job& job, StatusCode status, std::string_view message) {
  if (!statvfs_ || status != StatusCode::Failure || job.failed || cancelled_) return;
  job.diagnosed = describeStatus(status, message);
  connection_.writer().statvfs(track(&job, Op::Statvfs), folderOf(job.destination));
}

void Engine::onStatvfs(Job& job, Reply const& reply) {
  if (reply.type != PacketType::ExtendedReply) return;
  auto const state = decodeStatvfs(reply.data);
  std::string cause;
  if (state.readOnly) {
    cause = "read-only file system";
  } else if (state.bytesAvailable < chunk_) {
    cause = "no space left on device";
  } else {
    return;
  }
  for (auto& [index, text] : failures_) {
    if (index == job.index && text.ends_with(job.diagnosed)) {
      text.replace(text.size() - job.diagnosed.size(), job.diagnosed.size(), cause);
    }
  }
}

void Engine::onSetAttributes(Job& job, Reply const& reply) {
  if (job.failed) return;
  if (reply.type != PacketType::Status) throw ProtocolError("unexpected reply to FSETSTAT");
  if (reply.status != StatusCode::Ok) {
    fail(job,
         "cannot set the mode and time of " + quoted(job.temp) + ": " + describeStatus(reply.status, reply.message));
  }
}

// Size and time as when the file was opened, or the file fails.
bool Engine::changedWhileRead(Job& job) {
  struct stat st {};
  if (::fstat(job.fd.get(), &st) == 0 && static_cast<std::uint64_t>(st.st_size) == job.size &&
      st.st_mtim.tv_sec == job.sourceMtime.tv_sec && st.st_mtim.tv_nsec == job.sourceMtime.tv_nsec) {
    return false;
  }
  fail(job, quoted(job.source) + " changed while being read");
  return true;
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
  job.sourceMtime = st.st_mtim;
  auto const& work = *job.work;
  // What the listing counted; the file may have changed since.
  auto const counted = work.size.value_or(0) - work.resumeFrom;
  if (!work.resumeTemp.empty()) {
    if (job.size == work.size && static_cast<std::uint32_t>(st.st_mtim.tv_sec) == work.listedMtime) {
      job.resumed = job.resumable = true;
      job.next = work.resumeFrom;
      job.opening = work.resumeTemp;
      connection_.writer().open(track(&job, Op::Open), job.opening, openflags::kWrite, Attributes{});
    } else {
      // Made for the source as it was.
      connection_.writer().remove(track(&job, Op::Cleanup), work.resumeTemp);
    }
  }
  bytesTotal_ = bytesTotal_ - counted + (job.size - job.next);
  if (!job.resumed) openRemoteTemp(job);
}

void Engine::openRemoteTemp(Job& job) {
  ++job.tempAttempts;
  // The first try bears the resumable name; a clash falls back to a random one.
  job.resumable = resuming() && job.tempAttempts == 1;
  job.opening = job.resumable
                    ? resumeNameFor(job.destination, job.size, static_cast<std::uint32_t>(job.sourceMtime.tv_sec))
                    : tempNameFor(job.destination);
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
    if (job.next >= job.size) finishUpload(job);
    return;
  }
  if (reply.type != PacketType::Status) throw ProtocolError("unexpected reply to OPEN");
  auto const temp = std::exchange(job.opening, std::string());
  if (job.failed) return;
  if (job.resumed) {
    // The earlier temporary went meanwhile: start over.
    job.resumed = false;
    bytesTotal_ += job.next;
    job.next = 0;
    return openRemoteTemp(job);
  }
  // In this protocol version an existing name shows only as a generic failure.
  if (reply.status == StatusCode::Failure && job.tempAttempts < kTempAttempts) return openRemoteTemp(job);
  if (reply.status == StatusCode::NoSuchFile) {
    return fail(job, "destination folder " + quoted(folderOf(job.destination)) + " does not exist");
  }
  diagnose(job, reply.status, reply.message);
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
    fail(job, quoted(job.source) + " changed while being read");
    return false;
  }
  return true;
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
    diagnose(job, reply.status, reply.message);
    return fail(job, "cannot write " + quoted(job.temp) + ": " + describeStatus(reply.status, reply.message));
  }
  bytesDone_ += pending.length;
  if (job.next >= job.size && job.dataInFlight == 0) finishUpload(job);
}

void Engine::finishUpload(Job& job) {
  if (changedWhileRead(job)) return;
  job.phase = Job::Phase::Finishing;
  job.fd.reset();
  job.block.release();
  auto const& work = *job.work;
  if (work.mode || work.mtime) {
    // On the open file, after the last write: the rename then shows it whole.
    Attributes attributes;
    attributes.permissions = work.mode;
    attributes.atime = work.atime;
    attributes.mtime = work.mtime;
    connection_.writer().fsetstat(track(&job, Op::SetAttributes), job.handle, attributes);
  }
  connection_.writer().close(track(&job, Op::Close), job.handle);
  job.handle.clear();
}

void Engine::onUploadClose(Job& job, Reply const& reply) {
  if (job.failed) return;
  if (reply.type != PacketType::Status) throw ProtocolError("unexpected reply to CLOSE");
  if (reply.status != StatusCode::Ok) {
    diagnose(job, reply.status, reply.message);
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
  auto const& work = *job.work;
  if (!work.resumeTemp.empty()) {
    job.fd = UniqueFd(::open(work.resumeTemp.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    if (job.fd.valid()) {
      job.temp = work.resumeTemp;
      job.resumed = job.resumable = true;
      job.next = work.resumeFrom;
    } else {
      bytesTotal_ += work.resumeFrom;
    }
  }
  while (!job.fd.valid()) {
    // The first try bears the resumable name; a clash falls back to a random one.
    job.resumable = resuming() && job.tempAttempts == 0;
    job.temp = job.resumable ? resumeNameFor(job.destination, work.size.value_or(0), work.listedMtime)
                             : tempNameFor(job.destination);
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
  if (job.work->size) {
    // Listed: the size is known.
    job.statAnswered = true;
    job.attributes = Attributes{};
    job.attributes->size = job.work->size;
  } else {
    // The size and the handle in one round trip.
    connection_.writer().stat(track(&job, Op::Stat), job.source);
  }
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
  if (job.attributes->size && !job.work->size) bytesTotal_ += job.size;
  job.phase = Job::Phase::Transferring;
  // A listed file is probed past its end before it finishes, also when empty.
  if (job.size == 0 && !job.work->size) finishDownload(job);
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
  if (job.work->size && !job.probed && job.next >= job.size && job.end == UINT64_MAX) {
    // A file that grew since it was listed answers with data here.
    connection_.writer().read(track(&job, Op::Probe), job.handle, job.size, 1);
    job.probed = true;
    ++job.dataInFlight;
  }
}

void Engine::onProbe(Job& job, Reply const& reply) {
  --job.dataInFlight;
  if (job.failed) return;
  if (reply.type == PacketType::Data) return fail(job, quoted(job.source) + " changed while being read");
  if (reply.type != PacketType::Status) throw ProtocolError("unexpected reply to READ");
  if (reply.status != StatusCode::Eof) {
    return fail(job, "cannot read " + quoted(job.source) + ": " + describeStatus(reply.status, reply.message));
  }
  if (job.dataInFlight == 0) finishDownload(job);
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
  bool const probing = job.work->size && job.end == UINT64_MAX;
  if (job.dataInFlight == 0 && (job.next >= job.size || job.end != UINT64_MAX) && (!probing || job.probed)) {
    finishDownload(job);
  }
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
  job.wrote = job.wrote || block.length > 0;
  block.length = 0;
  return true;
}

void Engine::finishDownload(Job& job) {
  // A listed size not reached: the file shrank while it was read.
  if (job.work->size && job.end < *job.work->size) return fail(job, quoted(job.source) + " changed while being read");
  job.phase = Job::Phase::Finishing;
  closeRemote(job);
  if (!flush(job)) return;
  job.block.release();
  auto const& work = *job.work;
  if (work.mode && ::fchmod(job.fd.get(), static_cast<mode_t>(*work.mode)) != 0) {
    return fail(job, "cannot set the mode of " + quoted(job.temp) + ": " + errnoText(errno));
  }
  if (work.mtime) {
    struct timespec const times[2] = {{static_cast<time_t>(work.atime.value_or(*work.mtime)), 0},
                                      {static_cast<time_t>(*work.mtime), 0}};
    if (::futimens(job.fd.get(), times) != 0) {
      return fail(job, "cannot set the time of " + quoted(job.temp) + ": " + errnoText(errno));
    }
  }
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

TreeTransferReport transferTrees(Transport& transport, std::string const& peer, CopyTreesCommand const& command,
                                 ProgressCallback const& progress, RemoteShell const& shell,
                                 EngineOptions const& options) {
  Engine engine(transport, peer, command, progress, shell, options);
  engine.run();
  return engine.report();
}

}  // namespace foundation::sshclient::internal::sftp
