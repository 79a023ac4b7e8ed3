#include "sshfileaccess/platform/sshclient/internal/transfer/TreeTransfer.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/LocalFiles.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/TreeTransferParts.hpp"

namespace foundation::sshclient::internal::transfer {

using sftp::PacketType;
using sftp::Reply;
using sftp::StatusCode;
using sftp::Ticket;
using Change = PlannedChange::Action;

namespace {

// Folders whose listings are in flight at once, at most; fewer when the
// folders are wide or files wait for the copies, so that the files queued
// and the entries being listed stay near kEntriesAhead together, whatever
// the width of the tree's folders. No more than kFilesAhead files wait for
// the copies (a folder's further copies wait in its plan), and no folder
// starts while they do.
constexpr std::size_t kFoldersListed = 64;
constexpr std::size_t kEntriesAhead = 8192;
constexpr std::size_t kAssumedWidth = 1024;
constexpr std::size_t kFilesAhead = 2048;
// OpenSSH's sshd grants a channel this much: the most an upload has under
// way per round trip, however far its own window grows.
constexpr std::uint64_t kServerChannelWindow = 2U * 1024U * 1024U;

bool ok(Reply const& reply) { return reply.type == PacketType::Status && reply.status == StatusCode::Ok; }

std::string statusOf(Reply const& reply) { return sftp::describeStatus(reply.status, reply.message); }

char const* specialKind(EntryType type) {
  switch (type) {
    case EntryType::Fifo:
      return "a FIFO";
    case EntryType::Socket:
      return "a socket";
    case EntryType::Device:
      return "a device";
    default:
      return "a special file";
  }
}

sftp::Attributes attributesOf(Kept const& wanted) {
  sftp::Attributes attributes;
  attributes.permissions = wanted.mode;
  attributes.atime = wanted.atime;
  attributes.mtime = wanted.mtime;
  return attributes;
}

}  // namespace

TreeTransfer::TreeTransfer(sftp::SftpSession& session, CopyTreesCommand const& command,
                           sftp::ProgressCallback const& progress, sftp::RemoteShell const& shell,
                           sftp::EngineOptions const& options, sftp::MoreStreams more)
    : session_(session),
      command_(command),
      options_(command.getOptions()),
      settings_(PlanSettings::from(command.getOptions())),
      upload_(command.getDirection() == TransferDirection::LocalToRemote),
      dryRun_(command.getOptions().dryRun),
      progress_(progress),
      shell_(shell),
      progressInterval_(options.progressInterval),
      lastReport_(std::chrono::steady_clock::now()),
      random_(std::random_device{}()),
      probe_(session),
      lister_(session, *this, command.getOptions().followLinks) {
  CopySettings copy = copySettings(options, upload_, 1 + more.count);
  // Private until the final mode is set.
  copy.createMode = options_.keepPermissions ? 0600U : 0666U;
  copy.resume = options_.resume;
  inFlight_ = upload_ ? std::min(copy.windowCap, kServerChannelWindow) : copy.windowCap;
  copy.bytesPerSecond = options_.bytesPerSecond;
  foldersOpen_ = foldersOpen(openFileLimit());
  copier_ = std::make_unique<FileCopier>(session, copy, *this, counters_);
  copiers_.attach(*copier_);
  copySettings_ = copy;
  posixRename_ = options.usePosixRename;
  more_ = std::move(more);
  // Uploads over several channels may share big files out among them.
  settings_.sharedOut = upload_ && more_.count > 0;
  deltas_ = std::make_unique<DeltaCopier>(session, shell, copy, *copier_, *this, counters_);
  session_.usePosixRename(options.usePosixRename);
}

struct TreeTransfer::Lane {
  std::unique_ptr<sftp::Transport> transport;
  std::unique_ptr<sftp::SftpSession> session;
  std::unique_ptr<RemoteLister> lister;
  std::unique_ptr<FileCopier> copier;
};

TreeTransfer::~TreeTransfer() = default;

TreeTransferReport TreeTransfer::run() {
  try {
    session_.begin();
    openChannels();
    expectDeltas();
    prepareRoots();
    rootsReady_ = true;
    walk();
  } catch (SSHError const& e) {
    abandon();
    std::string cause = e.what();
    if (cause.starts_with(session_.peer() + ": ")) cause.erase(0, session_.peer().size() + 2);
    throw SSHError(e.kind(), streamContext() + cause);
  } catch (sftp::ProtocolError const& e) {
    abandon();
    throw SSHError(SSHError::Kind::Transfer, streamContext() + e.what());
  } catch (...) {
    abandon();
    throw;
  }
  if (cancelled_) std::rethrow_exception(cancelled_);
  reportProgress(true);
  for (auto& line : deltas_->takeDetails()) report_.details.push_back(fl::i18n::utf8_to_ustring(line));
  if (!dryRun_) {
    report_.files = counters_.filesDone;
    report_.bytes = counters_.bytesDone;
    report_.resumed = counters_.resumed;
    report_.reused = counters_.reused;
  } else {
    // Listings come in the servers' order; a plan reads best by name.
    auto const rank = [](PlannedChange const& change) {
      bool const copies = change.action == Change::Resume || change.action == Change::Delta;
      return copies ? static_cast<int>(Change::Copy) : static_cast<int>(change.action);
    };
    std::stable_sort(report_.plan.begin(), report_.plan.end(), [&](PlannedChange const& a, PlannedChange const& b) {
      return rank(a) != rank(b) ? rank(a) < rank(b) : a.path < b.path;
    });
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
  return report_;
}

// ---- channels ------------------------------------------------------------------

// Each further channel costs a round trip to open; they open while the
// first session's start is under way.
void TreeTransfer::openChannels() {
  auto const wanted = 1 + more_.count;
  if (more_.count == 0 || !more_.open || dryRun_) return;
  while (lanes_.size() + 1 < wanted) {
    auto lane = std::make_unique<Lane>();
    try {
      lane->transport = more_.open();
    } catch (SSHError const& e) {
      if (e.kind() != SSHError::Kind::Channel) throw;
      report_.details.push_back(fl::i18n::utf8_to_ustring("files went over " + std::to_string(lanes_.size() + 1) +
                                                          " of " + std::to_string(wanted) +
                                                          " channels: the server refused another (" + e.what() + ")"));
      break;
    }
    lane->session = std::make_unique<sftp::SftpSession>(*lane->transport, session_.peer());
    lane->session->usePosixRename(posixRename_);
    lane->session->begin();
    lane->lister = std::make_unique<RemoteLister>(*lane->session, *this, options_.followLinks);
    lane->copier = std::make_unique<FileCopier>(*lane->session, copySettings_, *this, counters_, &copier_->rateLimit());
    copiers_.attach(*lane->copier);
    lanes_.push_back(std::move(lane));
    report_.channels = 1 + lanes_.size();
  }
  copiers_.shareOut();
}

// Folders are listed over every channel: each has a server process of its
// own, so the server's file system is read by several at once.
RemoteLister& TreeTransfer::listerFor() {
  auto* lister = &lister_;
  for (auto const& lane : lanes_) {
    if (lane->lister->busy() < lister->busy()) lister = lane->lister.get();
  }
  return *lister;
}

bool TreeTransfer::pumpAll() {
  bool moved = session_.pump(false);
  for (auto& lane : lanes_) moved |= lane->session->pump(false);
  return moved;
}

bool TreeTransfer::quietStreams() const noexcept {
  auto const quiet = [](sftp::SftpSession const& session) {
    return session.awaited() == 0 && session.queuedBytes() == 0;
  };
  return quiet(session_) &&
         std::all_of(lanes_.begin(), lanes_.end(), [&](auto const& lane) { return quiet(*lane->session); });
}

// ---- the walk ------------------------------------------------------------------

void TreeTransfer::walk() {
  for (;;) {
    planMeasured();
    feedCopies();
    startFolders();
    deltas_->poll();
    copiers_.poll();
    bool const quiet = quietStreams();
    // A stop leaves its folders unfinished: it ends once nothing is under way.
    bool const finished = waiting_.empty() && folders_.empty() && removals_.empty();
    if (quiet && (finished || cancelled_) && copiers_.idle() && deltas_->idle()) return;
    bool const copying = !copiers_.idle() && !copiers_.awaitsDeltas();
    if (deltas_->busy() || (quiet && (!waiting_.empty() || !feeding_.empty() || copying))) {
      // Work that needs no answer: go round without sleeping, taking in
      // what came meanwhile (hashing a large file takes a while).
      if (!quiet) pumpAll();
      reportProgress(false);
      continue;
    }
    if (deltas_->running()) {
      // A command's news may come in with the SFTP replies: sleep only after
      // the pump, and only when neither has anything.
      if (!pumpAll() && !deltas_->news()) session_.wait();
    } else {
      if (quiet) throw std::logic_error("tree transfer stalled");
      // The channels share one arrival flag: this sleeps only when none has news.
      if (!pumpAll()) session_.wait();
    }
    reportProgress(false);
  }
}

// How many folders may be in their listing at once: asked again after each
// folder started, since a folder listed here at once queues its files.
std::size_t TreeTransfer::listingRoom() const {
  // The width of the folders listed so far says what a listing brings; one
  // of kAssumedWidth counts among them, so that the first few (the root's
  // width says nothing of its children's) do not start a tree's worth.
  auto const width = std::max<std::size_t>(1, (entriesListed_ + kAssumedWidth) / (foldersListed_ + 1));
  auto const queued = copiers_.waiting();
  if (queued >= kFilesAhead || !feeding_.empty()) return 0;
  // A download's folders hold their local folders open until done: within
  // the process's limit, unless nothing else moves (a deep tree's chain).
  bool const idle = listing_ == 0 && copiers_.idle();
  if (!upload_ && started_ >= foldersOpen_ && !idle) return 0;
  // One at least: a folder wider than the rest still goes.
  return std::clamp<std::size_t>((kEntriesAhead - queued) / width, 1, kFoldersListed);
}

void TreeTransfer::startFolders() {
  while (!waiting_.empty() && !stopping_ && listing_ < listingRoom()) {
    auto* const folder = waiting_.back();
    waiting_.pop_back();
    beginFolder(*folder);
  }
  if (stopping_) {
    for (auto* folder : waiting_) release(*folder);
    waiting_.clear();
  }
}

void TreeTransfer::beginFolder(Folder& folder) {
  folder.state = Folder::State::Listing;
  ++started_;
  if (!folder.aboveRoot && options_.followLinks && loops(folder)) {
    fail(folder.item, describePair(folder.item) + quoted(folder.source) +
                          " leads back into a folder above it (a symbolic link loop)");
    folder.parent->broken = true;
    return release(folder);
  }
  if (!openLocal(folder)) return release(folder);
  if (!folder.sourceListed) {
    if (upload_) {
      folder.sourceListing = listLocalFolder(folder.source, options_.followLinks);
      folder.sourceListed = true;
    } else {
      ++folder.listings;
      listerFor().list(folder.source, &folder.sourceCookie);
    }
  }
  if (!folder.destinationKnown && !folder.fresh) {
    if (upload_) {
      ++folder.listings;
      listerFor().list(folder.destination, &folder.destinationCookie);
    } else if (folder.local) {
      folder.destinationListing = folder.local->list();
      folder.destinationKnown = true;
      if (folder.aboveRoot) keepRootEntries(folder.destinationListing, folder.rootName);
    }
  }
  if (folder.listings > 0) {
    ++listing_;
    return;
  }
  folderListed(folder);
}

// A small local file whole (a .gitignore); nullopt when it cannot be read.
std::optional<std::string> TreeTransfer::readLocalFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return text.str();
}

void TreeTransfer::listed(void* cookie, Listing listing) {
  auto& request = *static_cast<Cookie*>(cookie);
  if (request.kind == Cookie::Kind::Removal) return removalListed(*static_cast<Removal*>(request.owner), listing);
  auto& folder = *static_cast<Folder*>(request.owner);
  if (request.kind == Cookie::Kind::Source) {
    folder.sourceListing = std::move(listing);
    folder.sourceListed = true;
  } else {
    folder.destinationListing = std::move(listing);
    folder.destinationKnown = true;
    if (folder.aboveRoot) {
      keepRootEntries(folder.destinationListing, folder.rootName);
      // Only a root's delta begins before its folder is listed (measureEarly):
      // its temporary is no earlier run's.
      std::erase_if(folder.destinationListing.entries,
                    [&](Entry const& entry) { return deltas_->makes(joined(folder.destination, entry.name)); });
    }
  }
  if (--folder.listings > 0) return;
  --listing_;
  folderListed(folder);
}

void TreeTransfer::folderListed(Folder& folder) {
  if (stopping_) return release(folder);
  ++foldersListed_;
  entriesListed_ += std::max(folder.sourceListing.entries.size(), folder.destinationListing.entries.size());
  if (!folder.aboveRoot && !options_.filter.empty()) {
    // A folder's .gitignore decides for its own entries: it is read first.
    auto const* rules = options_.filter.readsGitignore() ? folder.sourceListing.find(".gitignore") : nullptr;
    if (rules != nullptr && rules->type == EntryType::File && !rules->followed && !folder.rules) {
      auto const path = joined(folder.source, rules->name);
      if (!upload_) {
        folder.state = Folder::State::Rules;
        ++listing_;
        return lister_.readFile(path, &folder.rulesCookie);
      }
      folder.rules = readLocalFile(path);
      if (!folder.rules) fail(folder, describePair(folder.item) + "cannot read " + quoted(path));
    }
    filterListing(folder);
  }
  decide(folder);
}

void TreeTransfer::read(void* cookie, std::optional<std::string> text) {
  auto const& request = *static_cast<Cookie*>(cookie);
  if (request.kind == Cookie::Kind::Prefix) {
    prefix_ = std::move(text);
    prefixRead_ = true;
    return;
  }
  auto& folder = *static_cast<Folder*>(request.owner);
  --listing_;
  if (!text) fail(folder, describePair(folder.item) + "cannot read " + quoted(joined(folder.source, ".gitignore")));
  folder.rules = std::move(text).value_or(std::string());
  if (stopping_) return release(folder);
  filterListing(folder);
  decide(folder);
}

// The entries a filter leaves out go from the source's listing (a folder
// left out is never read), and the destination's entries it protects are
// kept from any removal.
void TreeTransfer::filterListing(Folder& folder) {
  auto const text = folder.rules.value_or(std::string());
  folder.filter =
      folder.parent->aboveRoot ? options_.filter.root(text) : folder.parent->filter.enter(folder.self.name, text);
  auto& entries = folder.sourceListing.entries;
  std::erase_if(entries, [&](Entry const& entry) {
    if (folder.filter.takes(entry.name, entry.type == EntryType::Folder)) return false;
    if (dryRun_) plan(Change::Exclude, sourcePathOf(folder, entry.name), 0);
    return true;
  });
  if (!settings_.deleteExtraneous || !folder.destinationKnown) return;
  for (auto const& entry : folder.destinationListing.entries) {
    if (folder.sourceListing.find(entry.name) == nullptr &&
        folder.filter.protects(entry.name, entry.type == EntryType::Folder)) {
      folder.kept.insert(entry.name);
    }
  }
}

void TreeTransfer::decide(Folder& folder) {
  auto& source = folder.sourceListing;
  auto& destination = folder.destinationListing;
  for (auto const& listing : {&source, &destination}) {
    for (auto const& where : listing->suspects) {
      report_.notes.push_back(
          fl::i18n::utf8_to_ustring("skipped the suspect name " + where + " by " + session_.peer()));
      if (!options_.ignoreSuspectNames)
        fail(folder, describePair(folder.item) + "suspect name " + where + " (skipped)");
    }
  }
  if (!source.error.empty()) fail(folder, describePair(folder.item) + source.error);
  for (auto const& problem : source.problems) fail(folder, describePair(folder.item) + problem);
  // A destination that cannot be read is only not known: nothing there is removed.
  if (!destination.error.empty() || !destination.problems.empty()) folder.broken = true;
  auto const* existing = folder.destinationKnown ? &destination : nullptr;
  if (auto const names = checksumCandidates(source, existing, settings_); !names.empty()) {
    folder.checksums = compareChecksums(folder, names);
  }
  if (auto const* candidate = linkSpeedNeededFor(source, existing, settings_, folder.checksums)) {
    return measureLink(folder, *candidate);
  }
  planAndAct(folder);
}

// The link is measured once, on the first file that could go as a delta;
// folders that need it wait for the answer.
void TreeTransfer::measureLink(Folder& folder, Entry const& candidate) {
  folder.state = Folder::State::Measuring;
  measuring_.push_back(&folder);
  measureOn(folder, candidate, folder.destinationListing.find(candidate.name)->size);
}

// An upload of a file over an old version the roots' first look found: the
// link is measured at once, while the destination's folder is listed for
// temporaries (two round trips the measurement would otherwise wait for).
// Should the plan send it otherwise after all, a read of 1 MiB was spent.
void TreeTransfer::measureEarly(Root const& root, Folder& folder) {
  if (!upload_ || root.into || !root.destinationFound || settings_.skipUnchanged == UnchangedTest::Checksum) return;
  Listing source;
  Listing destination;
  source.entries.push_back(*root.sourceEntry);
  source.entries.back().name = folder.rootName;
  destination.entries.push_back(*root.destinationFound);
  destination.entries.back().name = folder.rootName;
  if (auto const* candidate = linkSpeedNeededFor(source, &destination, settings_, {})) {
    measureOn(folder, *candidate, root.destinationFound->size);
  }
}

// The link is measured by reading the candidate's remote side, and over a
// round trip long enough to be worth it its delta begins meanwhile (on a
// short one the measurement takes little time, and the file mostly goes
// whole: the hashing begun would only compete with its copy).
void TreeTransfer::measureOn(Folder& folder, Entry const& candidate, std::uint64_t oldSize) {
  constexpr auto kSpeculativeRoundTrip = std::chrono::milliseconds(2);
  if (probe_.started()) return;
  deltas_->prepare();
  auto task = fileTask(folder, candidate.name, candidate);
  probe_.start(upload_ ? task.destination : task.source, upload_ ? oldSize : candidate.size);
  if (!dryRun_ && session_.roundTrip() >= kSpeculativeRoundTrip) deltas_->speculate(std::move(task), oldSize);
}

void TreeTransfer::planMeasured() {
  if (measuring_.empty() || !probe_.done()) return;
  if (!settings_.link) {
    auto const& speed = probe_.speed();
    settings_.link = withinWindow(speed, inFlight_);
    std::array<char, 200> line{};
    std::snprintf(line.data(), line.size(),  // NOLINT
                  "the link moved %.1f MB/s with a round trip of %.1f ms (%.1f MB/s with a copy's data in flight)",
                  speed.bytesPerSecond / 1e6, speed.roundTripSeconds * 1e3, settings_.link->bytesPerSecond / 1e6);
    report_.details.push_back(fl::i18n::utf8_to_ustring(
        std::string(line.data()) +
        ": changed files go as deltas where hashing both sides takes less time than sending them"));
  }
  for (auto* folder : std::exchange(measuring_, {})) {
    if (stopping_) {
      release(*folder);
    } else {
      planAndAct(*folder);
    }
  }
}

void TreeTransfer::planAndAct(Folder& folder) {
  auto const* existing = folder.destinationKnown ? &folder.destinationListing : nullptr;
  FolderScope const scope{.deletes = !folder.aboveRoot, .aboveRoots = folder.aboveRoot};
  folder.plan = planFolder(folder.sourceListing, existing, settings_, scope, folder.checksums, folder.kept);
  folder.state = Folder::State::Working;
  carryOut(folder);
  tryFinish(folder);
}

void TreeTransfer::carryOut(Folder& folder) {
  // The folder stays while its actions run, or wait: they hold on to it.
  ++folder.outstanding;
  auto const& actions = folder.plan.actions;
  while (folder.next < actions.size() && !stopping_) {
    auto const step = actions[folder.next].step;
    // A listing's entry costs less than a queued file: the rest of the
    // folder waits as its plan until the copiers take more.
    if ((step == Step::Copy || step == Step::Delta) && !dryRun_ && copiers_.waiting() >= kFilesAhead) {
      feeding_.push_back(&folder);
      return;
    }
    act(folder, folder.next++);
  }
  // Its plan carried out: a delta begun for one of its files that the plan
  // did not choose goes.
  deltas_->settle(&folder);
  --folder.outstanding;
}

void TreeTransfer::feedCopies() {
  while (!feeding_.empty() && (stopping_ || copiers_.waiting() < kFilesAhead)) {
    auto& folder = *feeding_.front();
    feeding_.pop_front();
    --folder.outstanding;  // carryOut holds it again
    carryOut(folder);
    tryFinish(folder);
  }
}

void TreeTransfer::act(Folder& folder, std::size_t index) {
  auto const& action = folder.plan.actions[index];
  auto const path = target(folder, action.name);
  switch (action.step) {
    case Step::RemoveTemporary:
      if (dryRun_) return;
      folder.changed = true;
      if (upload_) {
        session_.remove(sftp::SftpSession::ignored(), path);
      } else if (folder.local) {
        folder.local->removeFile(action.name);
      }
      return;
    case Step::Fail:
      return fail(folder,
                  describePair(folder.item) + (action.problem == Problem::FileInTheWay
                                                   ? "cannot make folder " + where(path) + ": a file is in the way"
                                                   : "cannot replace " + quoted(path) + ": it is a folder"));
    case Step::Special:
      ++report_.special;
      report_.notes.push_back(fl::i18n::utf8_to_ustring("skipped " + quoted(sourcePathOf(folder, action.name)) + ": " +
                                                        specialKind(action.source->type)));
      return;
    case Step::MakeFolder:
      return makeFolder(folder, index);
    case Step::EnterFolder:
      return addChild(folder, index, false);
    case Step::Link:
      return placeLink(folder, index);
    case Step::FixAttributes:
      return fixAttributes(folder, index);
    case Step::Copy:
    case Step::Delta:
      return copyFile(folder, index);
    case Step::Skip:
      if (action.source->type != EntryType::File) return;
      ++(action.newer ? report_.newer : report_.skipped);
      if (dryRun_) plan(Change::Skip, path, action.source->size);
      return;
    case Step::Delete:
      return;  // once the folder's files are in
  }
}

void TreeTransfer::addChild(Folder& parent, std::size_t index, bool fresh) {
  auto const& action = parent.plan.actions[index];
  auto child = std::make_unique<Folder>();
  child->item = parent.item;
  child->parent = &parent;
  child->source = sourcePathOf(parent, action.name);
  child->destination = target(parent, action.name);
  child->self = *action.source;
  if (!fresh && action.existing != nullptr && action.existing->type == EntryType::Folder) {
    child->existing = *action.existing;
  }
  child->fresh = fresh;
  child->real = options_.followLinks && !upload_ && !parent.aboveRoot && !action.source->followed
                    ? joined(parent.real, action.name)
                    : std::string();
  child->name = action.name;
  ++parent.outstanding;
  auto* const raw = child.get();
  folders_.emplace(raw, std::move(child));
  if (options_.followLinks && !upload_ && raw->real.empty()) {
    // Reached through a link: its canonical path tells a loop.
    raw->state = Folder::State::Resolving;
    return session_.realpath({this, kResolveFolder, raw}, raw->source);
  }
  waiting_.push_back(raw);
}

// A download's folder is opened when it starts, not when its parent lists
// it: a folder of many folders would hold them all open.
bool TreeTransfer::openLocal(Folder& folder) {
  if (upload_ || folder.local || (dryRun_ && folder.fresh) || folder.parent == nullptr) return true;
  auto& parent = *folder.parent;
  int error = 0;
  // A root's destination is the caller's: a link there is followed.
  if (parent.aboveRoot) {
    folder.local = LocalDir::open(folder.destination, error);
  } else if (parent.local) {
    folder.local = parent.local->child(folder.name, error);
  } else {
    return true;
  }
  if (folder.local) return true;
  // Something other than a folder came in its way meanwhile.
  fail(parent, describePair(parent.item) + "cannot make folder " + quoted(folder.destination) + ": " +
                   (error == ENOTDIR || error == ELOOP ? "a file is in the way" : errnoText(error)));
  return false;
}

bool TreeTransfer::loops(Folder& folder) {
  if (!upload_) {
    for (auto const* above = folder.parent; above != nullptr && !above->aboveRoot; above = above->parent) {
      if (above->real == folder.real) return true;
    }
    return false;
  }
  auto const identity = folderIdentity(folder.source);
  if (!identity) return false;
  folder.identity = identity;
  for (auto const* above = folder.parent; above != nullptr && !above->aboveRoot; above = above->parent) {
    if (above->identity == identity) return true;
  }
  return false;
}

void TreeTransfer::makeFolder(Folder& folder, std::size_t index) {
  auto const& action = folder.plan.actions[index];
  auto const path = target(folder, action.name);
  if (action.replace) {
    ++report_.replaced;
    if (dryRun_) {
      plan(Change::Replace, path, 0);
    } else {
      changed(Change::Replace, path);
    }
  }
  if (dryRun_) {
    plan(Change::Folder, path, 0);
    ++report_.folders;
    return addChild(folder, index, true);
  }
  if (upload_) {
    // What is in the way goes first; the server answers in order.
    if (action.replace) session_.remove(sftp::SftpSession::ignored(), path);
    ++folder.outstanding;
    session_.mkdir({this, kMakeFolder, &folder, index}, path, sftp::Attributes{});
    return;
  }
  if (action.replace) folder.local->removeFile(action.name);
  auto const error = folder.local->makeFolder(action.name, options_.keepPermissions ? 0700 : 0777);
  if (error == 0) {
    ++report_.folders;
    folder.changed = true;
    changed(Change::Folder, path);
    return addChild(folder, index, true);
  }
  if (error == EEXIST) return addChild(folder, index, false);
  fail(folder, describePair(folder.item) + "cannot make folder " + quoted(path) + ": " + errnoText(error));
}

// A folder in the way of a file or link goes first (in a dry run it is only
// named); true while the action waits for that.
bool TreeTransfer::waitsForTheWay(Folder& folder, std::size_t index, std::string const& path) {
  if (!folder.plan.actions[index].replace || folder.replaced.contains(index)) return false;
  ++report_.replaced;
  if (dryRun_) {
    plan(Change::Replace, path, 0);
    return false;
  }
  changed(Change::Replace, path);
  replaceFolder(folder, index);
  return true;
}

void TreeTransfer::placeLink(Folder& folder, std::size_t index) {
  auto const& action = folder.plan.actions[index];
  auto const path = target(folder, action.name);
  if (waitsForTheWay(folder, index, path)) return;
  ++report_.links;
  if (dryRun_) return plan(Change::Link, path, 0);
  auto const temp = randomTemporaryName(action.name, random_);
  auto const& text = *action.source->linkTarget;
  if (upload_) {
    auto const tempPath = target(folder, temp);
    folder.outstanding += 2;
    folder.temporaries[index] = tempPath;
    session_.symlink({this, kMakeLink, &folder, index}, text, tempPath);
    session_.rename({this, kPlaceLink, &folder, index}, tempPath, path);
    return;
  }
  if (auto const error = folder.local->makeLink(text, temp); error != 0) {
    --report_.links;
    return fail(folder, describePair(folder.item) + "cannot make the link " + quoted(path) + ": " + errnoText(error));
  }
  if (auto const error = folder.local->rename(temp, action.name); error != 0) {
    folder.local->removeFile(temp);
    --report_.links;
    return fail(folder, describePair(folder.item) + "cannot replace " + quoted(path) + ": " + errnoText(error));
  }
  folder.changed = true;
  changed(Change::Link, path);
}

void TreeTransfer::fixAttributes(Folder& folder, std::size_t index) {
  auto const& action = folder.plan.actions[index];
  auto const path = target(folder, action.name);
  ++report_.skipped;
  if (dryRun_) return plan(Change::Fix, path, action.source->size);
  auto const wanted = kept(*action.source, settings_);
  if (upload_) {
    ++folder.outstanding;
    session_.setstat({this, kFixAttributes, &folder, index}, path, attributesOf(wanted));
    return;
  }
  if (auto const error = folder.local->setAttributes(action.name, wanted); error != 0) {
    return fail(folder, describePair(folder.item) + "cannot set the mode and time of " + quoted(path) + ": " +
                            errnoText(error));
  }
  changed(Change::Fix, path);
}

FileTask TreeTransfer::fileTask(Folder& folder, std::string const& name, Entry const& source) const {
  FileTask task;
  task.item = folder.item;
  task.source = sourcePathOf(folder, name);
  task.destination = target(folder, name);
  task.folder = folder.local;
  task.name = name;
  task.size = source.size;
  task.listedMtime = source.mtime;
  task.kept = kept(source, settings_);
  task.owner = &folder;
  return task;
}

void TreeTransfer::copyFile(Folder& folder, std::size_t index) {
  auto const& action = folder.plan.actions[index];
  auto const path = target(folder, action.name);
  auto const& source = *action.source;
  if (waitsForTheWay(folder, index, path)) return;
  auto task = fileTask(folder, action.name, source);
  if (!action.temporary.empty()) {
    if (verifyResume(folder, action)) {
      task.resumeTemp = action.temporary;
      task.resumeFrom = action.resumeFrom;
    } else if (!dryRun_) {
      // Not the source's beginning: it goes, and the file starts over.
      if (upload_) {
        session_.remove(sftp::SftpSession::ignored(), target(folder, action.temporary));
      } else {
        folder.local->removeFile(action.temporary);
      }
    }
  }
  ++filesTotal_;
  counters_.bytesTotal += source.size - task.resumeFrom;
  bool const delta = action.step == Step::Delta;
  if (dryRun_) {
    ++report_.files;
    report_.bytes += source.size - task.resumeFrom;
    if (task.resumeFrom > 0) ++report_.resumed;
    auto const change = delta ? Change::Delta : task.resumeFrom > 0 ? Change::Resume : Change::Copy;
    return plan(change, path, source.size - task.resumeFrom);
  }
  ++folder.outstanding;
  if (delta) return deltas_->add(std::move(task), action.existing->size);
  copiers_.add(std::move(task));
}

void TreeTransfer::fileDone(FileTask const& task) {
  auto& folder = *static_cast<Folder*>(task.owner);
  folder.changed = true;
  auto const action = task.delta ? Change::Delta : task.resumeFrom > 0 ? Change::Resume : Change::Copy;
  changed(action, task.destination, task.size.value_or(0) - task.resumeFrom - (task.delta ? task.feed->reused : 0));
  --folder.outstanding;
  tryFinish(folder);
}

void TreeTransfer::fileFailed(FileTask const& task, std::string const& message) {
  auto& folder = *static_cast<Folder*>(task.owner);
  fail(folder, message);
  --folder.outstanding;
  tryFinish(folder);
}

void TreeTransfer::onReply(Ticket const& ticket, Reply const& reply) {
  switch (ticket.kind) {
    case kRemoveEntry:
    case kRemoveFolder:
      return onRemovalReply(*static_cast<Removal*>(ticket.subject), ticket, reply);
    case kResolve:
    case kInto:
    case kRootStat:
    case kParent:
    case kParentCheck:
      return onRootReply(ticket, reply);
    default:
      break;
  }
  auto& folder = *static_cast<Folder*>(ticket.subject);
  onFolderReply(folder, ticket, reply);
}

void TreeTransfer::onFolderReply(Folder& folder, Ticket const& ticket, Reply const& reply) {
  auto const index = static_cast<std::size_t>(ticket.offset);
  auto const pathOf = [&] { return target(folder, folder.plan.actions[index].name); };
  switch (ticket.kind) {
    case kResolveFolder:
      if (reply.type != PacketType::Name || reply.names.size() != 1) {
        fail(*folder.parent,
             describePair(folder.item) + "cannot resolve " + quoted(folder.source) + ": " + statusOf(reply));
        return release(folder);
      }
      folder.real = std::string(reply.names.front().filename);
      folder.state = Folder::State::Waiting;
      waiting_.push_back(&folder);
      return;
    case kMakeFolder:
      if (ok(reply)) {
        ++report_.folders;
        folder.changed = true;
        changed(Change::Folder, pathOf());
        addChild(folder, index, true);
        break;
      }
      // Made meanwhile by someone else, or something in the way: look.
      folder.errors[index] = statusOf(reply);
      session_.lstat({this, kCheckFolder, &folder, index}, pathOf());
      return;
    case kCheckFolder:
      if (reply.type == PacketType::Attrs && reply.attributes.isDirectory()) {
        addChild(folder, index, false);
      } else {
        fail(folder,
             describePair(folder.item) + "cannot make folder " + where(pathOf()) + ": " +
                 (reply.type == PacketType::Attrs ? std::string("a file is in the way") : folder.errors[index]));
      }
      break;
    case kMakeLink:
      if (!ok(reply)) {
        folder.linkFailed.insert(index);
        --report_.links;
        fail(folder, describePair(folder.item) + "cannot make the link " + where(pathOf()) + ": " + statusOf(reply));
      }
      break;
    case kPlaceLink:
      if (folder.linkFailed.contains(index)) break;
      if (ok(reply)) {
        folder.changed = true;
        changed(Change::Link, pathOf());
      } else {
        --report_.links;
        session_.remove(sftp::SftpSession::ignored(), folder.temporaries[index]);
        fail(folder, describePair(folder.item) + "cannot replace " + quoted(pathOf()) + ": " + statusOf(reply));
      }
      break;
    case kFixAttributes:
    case kFolderAttributes:
      if (!ok(reply)) {
        auto const path = ticket.kind == kFixAttributes ? pathOf() : folder.destination;
        fail(folder,
             describePair(folder.item) + "cannot set the mode and time of " + quoted(path) + ": " + statusOf(reply));
      } else if (ticket.kind == kFixAttributes) {
        changed(Change::Fix, pathOf());
      }
      break;
    case kDelete:
      if (ok(reply)) {
        ++report_.deleted;
        folder.changed = true;
        changed(Change::Delete, pathOf());
      } else if (reply.status != StatusCode::NoSuchFile) {
        fail(folder, describePair(folder.item) + "cannot delete " + where(pathOf()) + ": " + statusOf(reply));
      }
      break;
    default:
      return;
  }
  --folder.outstanding;
  tryFinish(folder);
}

// A folder is done once its files are in and every folder below it is done;
// then what its source lacks goes, then its own mode and times are set.
void TreeTransfer::tryFinish(Folder& folder) {
  if (folder.outstanding > 0) return;
  if (folder.state == Folder::State::Working) {
    folder.state = Folder::State::Removing;
    if (!folder.broken && !stopping_) removeExtras(folder);
    if (folder.outstanding > 0) return;
  }
  if (folder.state == Folder::State::Removing) {
    folder.state = Folder::State::Closing;
    if (!stopping_) finish(folder);
    if (folder.outstanding > 0) return;
  }
  if (folder.state == Folder::State::Closing) release(folder);
}

// Folders get their modes and times last: files written into them would
// change the times, and a read-only mode would keep the files out. One that
// was there with the source's mode and time, and whose entries did not
// change, needs neither set again.
void TreeTransfer::finish(Folder& folder) {
  if (folder.aboveRoot || dryRun_) return;
  auto const wanted = kept(folder.self, settings_);
  if (!wanted.mode && !wanted.mtime) return;
  if (folder.existing && !folder.changed && !modeDiffers(*folder.existing, wanted, settings_) &&
      !timeDiffers(*folder.existing, wanted)) {
    return;
  }
  if (upload_) {
    ++folder.outstanding;
    session_.setstat({this, kFolderAttributes, &folder}, folder.destination, attributesOf(wanted));
    return;
  }
  bool modeFailed = false;
  if (!folder.local) return;
  if (auto const error = setAttributesOf(folder.local->fd(), wanted, modeFailed); error != 0) {
    fail(folder, describePair(folder.item) + (modeFailed ? "cannot set the mode of " : "cannot set the time of ") +
                     quoted(folder.destination) + ": " + errnoText(error));
  }
}

void TreeTransfer::release(Folder& folder) {
  deltas_->settle(&folder);
  if (folder.state != Folder::State::Waiting && folder.state != Folder::State::Resolving) --started_;
  folder.state = Folder::State::Done;
  auto* const parent = folder.parent;
  folders_.erase(&folder);
  if (parent == nullptr) return;
  --parent->outstanding;
  tryFinish(*parent);
}

// ---- report --------------------------------------------------------------------

void TreeTransfer::fail(std::size_t item, std::string const& message) { failures_.emplace_back(item, message); }

void TreeTransfer::fail(Folder& folder, std::string const& message) {
  folder.broken = true;
  fail(folder.item, message);
}

void TreeTransfer::plan(Change action, std::string const& path, std::uint64_t bytes) {
  report_.plan.push_back({action, fl::i18n::utf8_to_ustring(path), bytes});
}

void TreeTransfer::changed(Change action, std::string const& path, std::uint64_t bytes) {
  if (!options_.onChange || cancelled_) return;
  try {
    options_.onChange({action, fl::i18n::utf8_to_ustring(path), bytes});
  } catch (...) {
    stop(std::current_exception());
  }
}

// Everything in flight ends at once; resumable temporaries stay.
void TreeTransfer::stop(std::exception_ptr why) {
  cancelled_ = std::move(why);
  stopping_ = true;
  deltas_->cancel();
  copiers_.cancel();
}

std::string TreeTransfer::target(Folder const& folder, std::string const& name) const {
  auto path = folder.destination.empty() ? name : joined(folder.destination, name);
  // Beside a root only the root's own temporaries are ever touched.
  if (folder.aboveRoot && name != folder.rootName && temporaryOwner(name) == ownerKey(folder.rootName)) return path;
  return inside(folder.item, path);
}

std::string const& TreeTransfer::inside(std::size_t item, std::string const& path) const {
  auto const& root = roots_[item].destination;
  if (path != root && !strictlyBelow(root, path)) {
    throw std::logic_error("refusing to change " + quoted(path) + ": outside the destination " + quoted(root));
  }
  return path;
}

std::string TreeTransfer::where(std::string const& path) const {
  return quoted(path) + (upload_ ? " on " + session_.peer() : std::string());
}

void TreeTransfer::reportProgress(bool final) {
  if (!progress_ || cancelled_) return;
  auto const now = std::chrono::steady_clock::now();
  if (!final && now - lastReport_ < progressInterval_) return;
  lastReport_ = now;
  TransferProgress progress;
  // While the roots are looked at nothing is known yet; afterwards the
  // totals grow with every folder listed.
  if (rootsReady_) {
    progress.bytesDone = counters_.bytesDone;
    progress.bytesTotal = counters_.bytesTotal;
    progress.filesDone = counters_.filesDone;
    progress.filesTotal = filesTotal_;
    progress.listing = !waiting_.empty() || listing_ > 0;
    auto current = copiers_.current();
    if (!current) current = deltas_->current();
    if (current) progress.currentFile = fl::i18n::utf8_to_ustring(*current);
  }
  try {
    progress_(progress);
  } catch (...) {
    stop(std::current_exception());
  }
}

// What a failure of the whole stream names: the file under way, else the session.
std::string TreeTransfer::streamContext() const {
  auto context = copiers_.context();
  if (context.empty()) context = deltas_->context();
  if (context.empty()) context = "SFTP session with " + session_.peer() + ": ";
  return context;
}

void TreeTransfer::abandon() noexcept {
  deltas_->abandon();
  copiers_.abandon();
}

}  // namespace foundation::sshclient::internal::transfer
