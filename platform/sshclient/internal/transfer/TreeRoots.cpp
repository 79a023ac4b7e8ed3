// The roots of a tree transfer: the caller's paths resolved, destinations
// that receive their source under its own name, missing parents made, and
// each source and destination looked at, before the walk begins.

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/internal/files/Plans.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/LocalFiles.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/TreeTransferParts.hpp"

namespace foundation::sshclient::internal::transfer {

using sftp::PacketType;
using sftp::Reply;
using sftp::StatusCode;
using sftp::Ticket;

using files::withoutTrailingSlashes;

namespace {

// The last name of a path ("a" for "x/a/").
std::string baseName(std::string const& path) {
  auto const trimmed = withoutTrailingSlashes(path);
  auto const slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

}  // namespace

std::string TreeTransfer::describePair(std::size_t item) const {
  auto const& root = roots_[item];
  if (upload_)
    return "cannot upload " + quoted(root.source) + " to " + quoted(root.destination) + " on " + session_.peer() + ": ";
  return "cannot download " + quoted(root.source) + " from " + session_.peer() + " to " + quoted(root.destination) +
         ": ";
}

// A source that cannot be read stops everything before anything changes:
// the caller named something that is not there.
//
// An upload's missing parents go in the first flight, with the questions
// whether its destinations are folders (their parents are the same either
// way), unless a question about this machine may yet refuse the pair.
void TreeTransfer::prepareRoots() {
  resolvePaths();
  askAboutThisMachine();
  bool early = upload_ && !thisMachine_ && !dryRun_ && failures_.empty();
  for (auto& root : roots_) {
    if (upload_ && !root.failed) early = lookAtSource(root) && early;
  }
  if (early) sendParents();
  placeIntoFolders();
  examineSources();
  refuseOverlaps();
  if (!failures_.empty()) return;
  if (!dryRun_ && !early) sendParents();
  examineDestinations();
  if (!dryRun_) collectParents();
  for (auto& root : roots_) {
    if (root.failed) continue;
    if (auto* const folder = startRoot(root)) measureEarly(root, *folder);
  }
}

// A file of this machine that may go as a delta (an upload's source, or a
// download's old version, large enough): the command channel that hashes
// opens with the SFTP channels, not two round trips after the roots.
void TreeTransfer::expectDeltas() {
  if (settings_.delta == DeltaMode::Off || dryRun_) return;
  for (auto const& item : command_.getItems()) {
    auto local = fl::i18n::ustring_to_utf8(item.localPath);
    struct stat st {};
    if (!upload_ && ::stat(local.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && options_.intoFolders) {
      local = joined(local, baseName(fl::i18n::ustring_to_utf8(item.remotePath)));
    }
    if (::stat(local.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        static_cast<std::uint64_t>(st.st_size) >= kAutoDeltaMinimum) {
      return deltas_->prepare();
    }
  }
}

void TreeTransfer::awaitRootAnswers() {
  while (rootQuestions_ > 0) session_.pump();
}

// Runs the session until every request sent so far is answered.
void TreeTransfer::await() {
  while (session_.pending() > 0 || session_.queuedBytes() > 0) {
    session_.pump();
    reportProgress(false);
  }
}

// "." and ".." in a caller's path are resolved before anything is planned,
// so that a source's own name and the root below which a mirror deletes come
// from the real folders, never from the text.
std::optional<std::string> TreeTransfer::localRealPath(std::string const& path) {
  std::unique_ptr<char, decltype(&::free)> const real(::realpath(path.c_str(), nullptr), &::free);
  if (!real) {
    localError_ = errno;
    return std::nullopt;
  }
  return std::string(real.get());
}

std::optional<std::string> TreeTransfer::remoteRealPath(std::string const& path) {
  resolved_.reset();
  session_.realpath({this, kResolve}, path);
  await();
  return std::exchange(resolved_, std::nullopt);
}

void TreeTransfer::resolvePaths() {
  auto const& items = command_.getItems();
  roots_.resize(items.size());
  auto const localReal = [this](std::string const& path) { return localRealPath(path); };
  auto const remoteReal = [this](std::string const& path) { return remoteRealPath(path); };
  for (std::size_t i = 0; i < items.size(); ++i) {
    auto& root = roots_[i];
    root.item = i;
    auto const local = fl::i18n::ustring_to_utf8(items[i].localPath);
    auto const remote = fl::i18n::ustring_to_utf8(items[i].remotePath);
    auto const localResolved = resolved(local, localReal, upload_);
    auto const remoteResolved = resolved(remote, remoteReal, !upload_);
    root.source = upload_ ? localResolved.value_or(local) : remoteResolved.value_or(remote);
    root.destination = upload_ ? remoteResolved.value_or(remote) : localResolved.value_or(local);
    if (!localResolved) fail(i, describePair(i) + "cannot resolve " + quoted(local) + ": " + errnoText(localError_));
    if (!remoteResolved) {
      fail(i, describePair(i) + "cannot resolve " + quoted(remote) + " on " + session_.peer() + ": No such file");
    }
    root.failed = !localResolved || !remoteResolved;
  }
}

// On this same machine (the peer is a loopback address, the boot and the
// root folder are the same on both sides), a source that is its own
// destination, or a folder that holds it, is refused: the copy would write
// into what it reads, and a mirror would delete from it.
//
// A loopback peer may be a port forwarded far away, so the questions go in
// the first flight, with those about the destinations: the root's
// attributes, the boot id, and the real path of every leading part of the
// remote roots (as given, and with the source's name joined, for a
// destination that turns out to be a folder) that resolving them may need.
void TreeTransfer::askAboutThisMachine() {
  constexpr char const* kBootId = "/proc/sys/kernel/random/boot_id";
  if (!loopbackPeer(session_.peer())) return;
  auto machine = std::make_unique<ThisMachine>();
  machine->boot = readLocalFile(kBootId).value_or(std::string());
  if (machine->boot.empty() || ::stat("/", &machine->root) != 0) return;
  remoteRoot_.reset();
  session_.stat({this, kRootStat}, "/");
  ++rootQuestions_;
  auto const ask = [&](std::string const& path) {
    (void)canonical(path, [&](std::string const& prefix) {
      machine->realPaths.try_emplace(prefix);
      return std::optional<std::string>();
    });
  };
  for (auto const& root : roots_) {
    if (root.failed) continue;
    if (!upload_) {
      ask(root.source);
    } else {
      ask(root.destination);
      if (options_.intoFolders) ask(joined(withoutTrailingSlashes(root.destination), baseName(root.source)));
    }
  }
  for (auto& [prefix, real] : machine->realPaths) {
    session_.realpath({this, kResolve, &real}, prefix);
    ++rootQuestions_;
  }
  // As long as ours, which ends in its line feed: no READ waits for the end.
  startRemoteRead(kBootId, machine->boot.size());
  thisMachine_ = std::move(machine);
}

void TreeTransfer::refuseOverlaps() {
  if (!thisMachine_) return;
  auto const machine = std::move(thisMachine_);
  // The server answers in order, but the answers are counted all the same.
  auto const remoteBoot = finishRemoteRead();
  awaitRootAnswers();
  auto const& local = machine->root;
  if (remoteBoot != machine->boot || !remoteRoot_ ||
      remoteRoot_->mtime != static_cast<std::uint32_t>(local.st_mtim.tv_sec) ||
      remoteRoot_->permissions != static_cast<std::uint32_t>(local.st_mode) ||
      remoteRoot_->uid != static_cast<std::uint32_t>(local.st_uid)) {
    return;
  }
  auto const localReal = [this](std::string const& path) { return localRealPath(path); };
  auto const remoteReal = [&machine](std::string const& path) {
    auto const found = machine->realPaths.find(path);
    return found != machine->realPaths.end() ? found->second : std::nullopt;
  };
  for (auto& root : roots_) {
    if (root.failed) continue;
    auto const source = canonical(root.source, upload_ ? RealPath(localReal) : RealPath(remoteReal));
    auto const destination = canonical(root.destination, upload_ ? RealPath(remoteReal) : RealPath(localReal));
    if (!source || !destination || !overlaps(*source, *destination)) continue;
    root.failed = true;
    fail(root.item, describePair(root.item) + (*source == *destination
                                                   ? "the source is its own destination on this machine"
                                                   : "the destination lies inside the source on this machine"));
  }
}

void TreeTransfer::placeIntoFolders() {
  if (options_.intoFolders) {
    for (auto& root : roots_) {
      if (root.failed) continue;
      if (root.destination.ends_with('/')) {
        root.into = true;
      } else if (upload_) {
        session_.stat({this, kInto, nullptr, root.item}, root.destination);
        ++rootQuestions_;
      } else {
        struct stat st {};
        root.into = ::stat(root.destination.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
      }
    }
    // Not for VERSION alone, nor for a file being read meanwhile: what
    // follows may go in their flight.
    awaitRootAnswers();
  }
  for (auto& root : roots_) {
    if (root.into) root.destination = joined(root.destination, baseName(root.source));
    root.destination = withoutTrailingSlashes(root.destination);
  }
}

// Every missing parent of a destination is made, as mkdir -p does; one that
// cannot be made is named once, and what lies below it is not named again.
// The destinations are examined in the same flight: the server answers in
// order, so each look comes after its parents were made.
void TreeTransfer::sendParents() {
  auto& parents = parents_;
  std::unordered_set<std::string> asked;
  for (auto const& root : roots_) {
    if (root.failed) continue;
    auto const& destination = root.destination;
    for (auto slash = destination.find('/', 1); slash != std::string::npos; slash = destination.find('/', slash + 1)) {
      auto parent = withoutTrailingSlashes(destination.substr(0, slash));
      if (parent == "/" || parent == "." || parent == ".." || parent.ends_with("/..")) continue;
      if (!asked.insert(parent).second) continue;
      Parent missing;
      missing.path = std::move(parent);
      missing.item = root.item;
      parents.push_back(std::move(missing));
    }
  }
  mode_t const mode = options_.keepPermissions ? 0700 : 0777;
  for (std::size_t i = 0; i < parents.size(); ++i) {
    auto& parent = parents[i];
    if (upload_) {
      session_.mkdir({this, kParent, &parent}, parent.path, sftp::Attributes{});
      session_.stat({this, kParentCheck, &parent}, parent.path);
      continue;
    }
    if (::mkdir(parent.path.c_str(), mode) == 0) {
      parent.made = parent.isFolder = true;
      continue;
    }
    parent.error = errnoText(errno);
    struct stat st {};
    if (::stat(parent.path.c_str(), &st) == 0) {
      parent.isFolder = S_ISDIR(st.st_mode);
      parent.inTheWay = !parent.isFolder;
    }
  }
}

// After examineDestinations(): every answer is in.
void TreeTransfer::collectParents() {
  std::vector<std::string const*> failed;
  for (auto const& parent : parents_) {
    if (parent.made && parent.isFolder) {
      ++report_.folders;
      changed(PlannedChange::Action::Folder, parent.path);
    }
    if (parent.isFolder) continue;
    bool const below = std::any_of(failed.begin(), failed.end(),
                                   [&](std::string const* above) { return strictlyBelow(*above, parent.path); });
    auto& root = roots_[parent.item];
    root.failed = true;
    if (below) continue;
    failed.push_back(&parent.path);
    fail(root.item, describePair(root.item) + "cannot make folder " + where(parent.path) + ": " +
                        (parent.inTheWay ? std::string("a file is in the way") : parent.error));
  }
  // A root below a parent that failed fails with it.
  for (auto& root : roots_) {
    if (std::any_of(failed.begin(), failed.end(),
                    [&](std::string const* above) { return strictlyBelow(*above, root.destination); })) {
      root.failed = true;
    }
  }
}

void TreeTransfer::onRootReply(Ticket const& ticket, Reply const& reply) {
  switch (ticket.kind) {
    case kResolve:
      if (reply.type == PacketType::Name && reply.names.size() == 1) {
        // One of a batch, or the one asked alone.
        auto* const slot = static_cast<std::optional<std::string>*>(ticket.subject);
        (slot != nullptr ? *slot : resolved_) = std::string(reply.names.front().filename);
      }
      if (ticket.subject != nullptr) --rootQuestions_;
      return;
    case kRootStat:
      if (reply.type == PacketType::Attrs) remoteRoot_ = reply.attributes;
      --rootQuestions_;
      return;
    case kInto: {
      --rootQuestions_;
      auto& root = roots_[static_cast<std::size_t>(ticket.offset)];
      if (reply.type != PacketType::Attrs) return;
      root.into = reply.attributes.isDirectory();
      root.destinationFound = entryFromAttributes(baseName(root.destination), reply.attributes);
      return;
    }
    case kParent: {
      auto& parent = *static_cast<Parent*>(ticket.subject);
      if (reply.type == PacketType::Status && reply.status == StatusCode::Ok) {
        parent.made = true;
      } else {
        parent.error = sftp::describeStatus(reply.status, reply.message);
      }
      return;
    }
    case kParentCheck: {
      auto& parent = *static_cast<Parent*>(ticket.subject);
      parent.isFolder = reply.type == PacketType::Attrs && reply.attributes.isDirectory();
      parent.inTheWay = reply.type == PacketType::Attrs && !parent.isFolder;
      return;
    }
    default:
      return;
  }
}

void TreeTransfer::examineSources() {
  bool const follow = options_.followLinks;
  for (auto& root : roots_) {
    if (root.failed) continue;
    if (!upload_) {
      lister_.examine(root.source, follow, &root.sourceCookie);
      continue;
    }
    if (!root.sourceEntry) {
      root.failed = true;
      fail(root.item,
           describePair(root.item) + "cannot read " + quoted(root.source) + ": " + errnoText(root.sourceError));
    }
  }
  if (!upload_) await();
}

// An upload's source, looked at before anything is sent; examineSources()
// names what is missing once the destination is known.
bool TreeTransfer::lookAtSource(Root& root) {
  int error = 0;
  root.sourceEntry = localEntry(root.source, options_.followLinks, error);
  root.sourceError = error;
  return root.sourceEntry.has_value();
}

void TreeTransfer::examineDestinations() {
  for (auto& root : roots_) {
    // A file's folder is listed for its temporaries: the listing shows it too.
    if (root.failed || (upload_ && listsTemporaries(root))) continue;
    // A destination the caller named may be a link to a folder: it is
    // followed where a folder is copied.
    bool const followDestination = root.sourceEntry->type == EntryType::Folder;
    if (upload_) {
      lister_.examine(root.destination, followDestination, &root.destinationCookie);
    } else {
      int error = 0;
      root.destinationEntry = localEntry(root.destination, followDestination, error);
      if (!root.destinationEntry && followDestination)
        root.destinationEntry = localEntry(root.destination, false, error);
    }
  }
  await();
}

void TreeTransfer::examined(void* cookie, std::optional<Entry> entry, std::string const& error) {
  auto& request = *static_cast<Cookie*>(cookie);
  auto& root = *static_cast<Root*>(request.owner);
  if (request.kind == Cookie::Kind::RootDestination) {
    root.destinationEntry = std::move(entry);
    return;
  }
  if (!entry) {
    root.failed = true;
    fail(root.item, describePair(root.item) + "cannot read " + quoted(root.source) + ": " + error);
    return;
  }
  root.sourceEntry = std::move(entry);
}

bool TreeTransfer::listsTemporaries(Root const& root) const {
  return root.sourceEntry->type == EntryType::File &&
         (settings_.skipUnchanged != UnchangedTest::None || settings_.deleteExtraneous || settings_.resume || dryRun_);
}

// The level above the root: its one source entry is the root under the
// destination's name; its destination entries are the root's own (and, for
// a file that may resume, its temporaries there).
TreeTransfer::Folder* TreeTransfer::startRoot(Root& root) {
  auto const slash = root.destination.rfind('/');
  auto folder = std::make_unique<Folder>();
  folder->item = root.item;
  folder->aboveRoot = true;
  folder->rootSource = root.source;
  folder->destination = slash == std::string::npos ? std::string() : root.destination.substr(0, slash == 0 ? 1 : slash);
  folder->rootName = slash == std::string::npos ? root.destination : root.destination.substr(slash + 1);
  if (suspectName(folder->rootName)) {
    root.failed = true;
    fail(root.item, describePair(root.item) + quoted(root.destination) + " names no entry to copy to");
    return nullptr;
  }
  auto entry = *root.sourceEntry;
  entry.name = folder->rootName;
  folder->sourceListing.entries.push_back(std::move(entry));
  folder->sourceListed = true;
  if (!upload_) {
    int error = 0;
    folder->local = LocalDir::open(folder->destination.empty() ? std::string() : folder->destination, error);
    if (!folder->local && !dryRun_) {
      root.failed = true;
      fail(root.item,
           describePair(root.item) + "cannot open folder " + quoted(folder->destination) + ": " + errnoText(error));
      return nullptr;
    }
  }
  if (!listsTemporaries(root) || (!upload_ && !folder->local)) {
    if (root.destinationEntry) {
      auto existing = *root.destinationEntry;
      existing.name = folder->rootName;
      folder->destinationListing.entries.push_back(std::move(existing));
    }
    folder->destinationKnown = true;
  }
  auto* const raw = folder.get();
  folders_.emplace(raw, std::move(folder));
  waiting_.push_back(raw);
  return raw;
}

}  // namespace foundation::sshclient::internal::transfer
