// Removals of a tree transfer: what a folder's source lacks, once the
// folder's files are in, and a folder in the way of a file or link. Remote
// folders are listed (never through a link) and emptied before they go;
// local ones through their folders' descriptors. Every entry removed is
// counted; a dry run only lists and names them.

#include <cerrno>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/LocalFiles.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/TreeTransferParts.hpp"

namespace foundation::sshclient::internal::transfer {

namespace {

// Folders being removed whose listings are in flight at once, at most: each
// holds a handle, a descriptor of the server's process, while it is listed,
// and a server often may hold no more than 1,024.
constexpr std::size_t kRemovalsListed = 64;

}  // namespace

using sftp::PacketType;
using sftp::Reply;
using sftp::StatusCode;
using sftp::Ticket;
using Change = PlannedChange::Action;

void TreeTransfer::removeExtras(Folder& folder) {
  for (std::size_t i = 0; i < folder.plan.actions.size(); ++i) {
    auto const& action = folder.plan.actions[i];
    if (action.step != Step::Delete) continue;
    auto const path = target(folder, action.name);
    bool const isFolder = action.existing->type == EntryType::Folder;
    if (isFolder) {
      removeTree(folder, action.name);
    } else if (dryRun_) {
      ++report_.deleted;
      plan(Change::Delete, path, 0);
    } else if (upload_) {
      ++folder.outstanding;
      session_.remove({this, kDelete, &folder, i}, path);
    } else if (auto const error = folder.local->removeFile(action.name); error == 0) {
      ++report_.deleted;
      folder.changed = true;
      changed(Change::Delete, path);
    } else if (error != ENOENT) {
      fail(folder, describePair(folder.item) + "cannot delete " + quoted(path) + ": " + errnoText(error));
    }
  }
}

// A folder where the source has a file or link goes first, with all it
// holds; then the action goes on.
void TreeTransfer::replaceFolder(Folder& folder, std::size_t index) {
  folder.replaced.insert(index);
  removeTree(folder, folder.plan.actions[index].name, index);
}

// Removes (in a dry run: names) the local folder `name` in `parent` with
// what it holds, but what `filter` protects; a folder that holds a
// protected entry stays (`kept`). 0 or the first errno.
int TreeTransfer::removeLocalTree(LocalDir const& parent, std::string const& name, FilterFolder const& filter,
                                  bool& kept) {
  int error = 0;
  auto const folder = parent.child(name, error);
  if (!folder) return error;
  kept = false;
  for (auto const& entry : folder->list().entries) {
    bool const isFolder = entry.type == EntryType::Folder;
    if (filter.protects(entry.name, isFolder)) {
      kept = true;
      continue;
    }
    bool keptBelow = false;
    if (isFolder) {
      error = removeLocalTree(*folder, entry.name, filter.enter(entry.name), keptBelow);
    } else if (dryRun_) {
      plan(Change::Delete, folder->pathOf(entry.name), 0);
      ++report_.deleted;
    } else if (error = folder->removeFile(entry.name); error == 0) {
      ++report_.deleted;
      changed(Change::Delete, folder->pathOf(entry.name));
    }
    kept = kept || keptBelow;
    if (error != 0 && error != ENOENT) return error;
  }
  if (kept) return 0;
  if (dryRun_) {
    plan(Change::Delete, parent.pathOf(name), 0);
  } else {
    if (error = parent.removeFolder(name); error != 0) return error == ENOENT ? 0 : error;
    changed(Change::Delete, parent.pathOf(name));
  }
  ++report_.deleted;
  return 0;
}

void TreeTransfer::removeTree(Folder& folder, std::string const& name, std::optional<std::size_t> then) {
  auto const path = target(folder, name);
  auto filter = folder.filter.enter(name);
  if (!upload_) {
    bool kept = false;
    int const error = folder.local ? removeLocalTree(*folder.local, name, filter, kept) : 0;
    folder.changed = folder.changed || !dryRun_;
    if (error != 0) {
      return fail(folder, describePair(folder.item) + (then ? "cannot replace " : "cannot delete ") + quoted(path) +
                              ": " + errnoText(error));
    }
    if (then && !kept) act(folder, *then);
    return;
  }
  auto removal = std::make_unique<Removal>();
  removal->folder = &folder;
  removal->path = path;
  removal->then = then;
  removal->filter = std::move(filter);
  removal->outstanding = 1;
  ++folder.outstanding;
  auto* const raw = removal.get();
  removals_.emplace(raw, std::move(removal));
  listRemoval(*raw);
}

void TreeTransfer::listRemoval(Removal& removal) {
  if (removalsListed_ >= kRemovalsListed) return removalsWaiting_.push_back(&removal);
  ++removalsListed_;
  lister_.list(removal.path, &removal.cookie);
}

void TreeTransfer::removalListed(Removal& removal, Listing const& listing) {
  auto& folder = *removal.folder;
  --removal.outstanding;
  --removalsListed_;
  if (!removalsWaiting_.empty()) {
    auto* const next = removalsWaiting_.front();
    removalsWaiting_.pop_front();
    listRemoval(*next);
  }
  if (!listing.error.empty()) {
    removal.failed = true;
    fail(folder, describePair(folder.item) + listing.error);
  }
  for (auto const& where : listing.suspects) {
    // Never joined, so never removed: the folder stays.
    removal.failed = true;
    report_.notes.push_back(fl::i18n::utf8_to_ustring("skipped the suspect name " + where + " by " + session_.peer()));
    fail(folder, describePair(folder.item) + "suspect name " + where + " (skipped)");
  }
  for (auto const& entry : listing.entries) {
    auto const path = inside(folder.item, joined(removal.path, entry.name));
    if (removal.filter.protects(entry.name, entry.type == EntryType::Folder)) {
      removal.kept = true;
      continue;
    }
    if (entry.type == EntryType::Folder) {
      auto child = std::make_unique<Removal>();
      child->folder = &folder;
      child->parent = &removal;
      child->path = path;
      child->filter = removal.filter.enter(entry.name);
      child->outstanding = 1;
      ++removal.outstanding;
      auto* const raw = child.get();
      removals_.emplace(raw, std::move(child));
      listRemoval(*raw);
    } else if (dryRun_) {
      ++report_.deleted;
      plan(Change::Delete, path, 0);
    } else {
      ++removal.outstanding;
      session_.remove({this, kRemoveEntry, &removal, removal.files.size()}, path);
      removal.files.push_back(path);
    }
  }
  removalDone(removal);
}

void TreeTransfer::onRemovalReply(Removal& removal, Ticket const& ticket, Reply const& reply) {
  auto& folder = *removal.folder;
  --removal.outstanding;
  auto const& path =
      ticket.kind == kRemoveEntry ? removal.files[static_cast<std::size_t>(ticket.offset)] : removal.path;
  if (reply.type == PacketType::Status && reply.status == StatusCode::Ok) {
    ++report_.deleted;
    folder.changed = true;
    changed(Change::Delete, path);
  } else if (reply.status != StatusCode::NoSuchFile) {
    removal.failed = true;
    fail(folder, describePair(folder.item) + "cannot delete " + where(path) + ": " +
                     sftp::describeStatus(reply.status, reply.message));
  }
  removalDone(removal);
}

void TreeTransfer::removalDone(Removal& removal) {
  if (removal.outstanding > 0) return;
  if (!removal.removing && !removal.failed && !removal.kept) {
    removal.removing = true;
    if (dryRun_) {
      ++report_.deleted;
      plan(Change::Delete, removal.path, 0);
    } else {
      ++removal.outstanding;
      session_.rmdir({this, kRemoveFolder, &removal}, removal.path);
      return;
    }
  }
  auto* const parent = removal.parent;
  auto& folder = *removal.folder;
  bool const failed = removal.failed;
  bool const kept = removal.kept;
  auto const then = removal.then;
  removals_.erase(&removal);
  if (parent != nullptr) {
    --parent->outstanding;
    parent->failed = parent->failed || failed;
    parent->kept = parent->kept || kept;
    return removalDone(*parent);
  }
  --folder.outstanding;
  if (then && !failed && !kept) act(folder, *then);
  tryFinish(folder);
}

}  // namespace foundation::sshclient::internal::transfer
