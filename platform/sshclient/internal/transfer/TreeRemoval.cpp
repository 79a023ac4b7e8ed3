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

using sftp::PacketType;
using sftp::Reply;
using sftp::StatusCode;
using sftp::Ticket;
using Change = PlannedChange::Action;

void TreeTransfer::removeExtras(Folder& folder) {
  for (std::size_t i = 0; i < folder.plan.actions.size(); ++i) {
    auto const& action = folder.plan.actions[i];
    if (action.step != Step::Delete) continue;
    auto const path = destinationPathOf(folder, action.name);
    bool const isFolder = action.existing->type == EntryType::Folder;
    if (upload_) {
      if (isFolder) {
        removeTree(folder, path);
      } else if (dryRun_) {
        ++report_.deleted;
        plan(Change::Delete, path, 0);
      } else {
        ++folder.outstanding;
        session_.remove({this, kDelete, &folder, i}, path);
      }
      continue;
    }
    if (dryRun_) {
      std::vector<std::string> paths;
      if (isFolder && folder.local) {
        folder.local->treeBelow(action.name, paths);
      } else {
        paths.push_back(path);
      }
      for (auto const& gone : paths) plan(Change::Delete, gone, 0);
      report_.deleted += paths.size();
      continue;
    }
    std::size_t removed = 0;
    int const error = isFolder ? folder.local->removeTree(action.name, removed) : folder.local->removeFile(action.name);
    if (!isFolder && error == 0) removed = 1;
    report_.deleted += removed;
    if (removed > 0) folder.changed = true;
    if (error != 0 && error != ENOENT) {
      fail(folder, describePair(folder.item) + "cannot delete " + quoted(path) + ": " + errnoText(error));
    }
  }
}

// A folder where the source has a file or link goes first, with all it
// holds; then the action goes on.
void TreeTransfer::replaceFolder(Folder& folder, std::size_t index) {
  auto const& action = folder.plan.actions[index];
  folder.replaced.insert(index);
  if (upload_) return removeTree(folder, destinationPathOf(folder, action.name), index);
  std::size_t removed = 0;
  if (auto const error = folder.local->removeTree(action.name, removed); error != 0 && error != ENOENT) {
    return fail(folder, describePair(folder.item) + "cannot replace " + quoted(destinationPathOf(folder, action.name)) +
                            ": " + errnoText(error));
  }
  report_.deleted += removed;
  act(folder, index);
}

void TreeTransfer::removeTree(Folder& folder, std::string const& path, std::optional<std::size_t> then) {
  auto removal = std::make_unique<Removal>();
  removal->folder = &folder;
  removal->path = path;
  removal->then = then;
  removal->outstanding = 1;
  ++folder.outstanding;
  auto* const raw = removal.get();
  removals_.emplace(raw, std::move(removal));
  lister_.list(path, &raw->cookie);
}

void TreeTransfer::removalListed(Removal& removal, Listing const& listing) {
  auto& folder = *removal.folder;
  --removal.outstanding;
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
    auto const path = joined(removal.path, entry.name);
    if (entry.type == EntryType::Folder) {
      auto child = std::make_unique<Removal>();
      child->folder = &folder;
      child->parent = &removal;
      child->path = path;
      child->outstanding = 1;
      ++removal.outstanding;
      auto* const raw = child.get();
      removals_.emplace(raw, std::move(child));
      lister_.list(path, &raw->cookie);
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
  } else if (reply.status != StatusCode::NoSuchFile) {
    removal.failed = true;
    fail(folder, describePair(folder.item) + "cannot delete " + where(path) + ": " +
                     sftp::describeStatus(reply.status, reply.message));
  }
  removalDone(removal);
}

void TreeTransfer::removalDone(Removal& removal) {
  if (removal.outstanding > 0) return;
  if (!removal.removing && !removal.failed) {
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
  auto const then = removal.then;
  removals_.erase(&removal);
  if (parent != nullptr) {
    --parent->outstanding;
    parent->failed = parent->failed || failed;
    return removalDone(*parent);
  }
  --folder.outstanding;
  if (then && !failed) act(folder, *then);
  tryFinish(folder);
}

}  // namespace foundation::sshclient::internal::transfer
