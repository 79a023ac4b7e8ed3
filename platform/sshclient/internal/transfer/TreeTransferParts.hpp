#pragma once
// The pieces a tree transfer's walk is made of, shared by its sources
// (TreeTransfer.cpp, TreeRoots.cpp, TreeRemoval.cpp); not for anyone else.

#include <sys/types.h>

#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/TreeTransfer.hpp"

namespace foundation::sshclient::internal::transfer {

// What the walk's own requests are for (Ticket::kind).
enum TreeRequest : std::uint32_t {
  kResolve,           // REALPATH of a caller's path with "." or "..", or of a batch (subject: the answer's slot)
  kInto,              // STAT of a destination that may be a folder to copy into
  kRootStat,          // STAT of the server's root folder: is it this machine's?
  kParent,            // MKDIR of a missing parent of a destination
  kParentCheck,       // STAT after it
  kResolveFolder,     // REALPATH of a folder reached through a link
  kMakeFolder,        // MKDIR of a folder of the source
  kCheckFolder,       // LSTAT after a MKDIR that failed
  kMakeLink,          // SYMLINK to a temporary name
  kPlaceLink,         // its rename into place
  kFixAttributes,     // SETSTAT of an unchanged file
  kFolderAttributes,  // SETSTAT of a finished folder
  kDelete,            // REMOVE of a file or link the source lacks
  kRemoveEntry,       // REMOVE inside a folder being removed
  kRemoveFolder,      // RMDIR of a folder being removed
};

struct TreeTransfer::Cookie {
  enum class Kind { Source, Destination, Rules, Prefix, Removal, RootSource, RootDestination };
  Kind kind;
  void* owner;
};

// A folder pair being worked through. The level above a root (the
// destination's own folder) is one too: its only source entry is the root,
// under the destination's name.
struct TreeTransfer::Folder {
  enum class State { Waiting, Resolving, Listing, Rules, Measuring, Working, Removing, Closing, Done };

  std::size_t item = 0;
  Folder* parent = nullptr;
  std::string source;       // the source folder's path
  std::string destination;  // the destination folder's path ("" : the working folder)
  std::string name;         // below a folder: its name there
  bool aboveRoot = false;
  std::string rootName;                             // above a root: the root's name in `destination`
  std::string rootSource;                           // above a root: the root's source path
  Entry self;                                       // its source entry: the mode and times to end with
  std::optional<Entry> existing;                    // the destination folder as it was, when it was there
  bool fresh = false;                               // made now: known to be empty
  std::shared_ptr<LocalDir> local;                  // downloads: the destination folder, open
  std::string real;                                 // following links: the remote source's canonical path
  std::optional<std::pair<dev_t, ino_t>> identity;  // following links: the local source's
  Cookie sourceCookie{Cookie::Kind::Source, this};
  Cookie destinationCookie{Cookie::Kind::Destination, this};
  Cookie rulesCookie{Cookie::Kind::Rules, this};
  FilterFolder filter;               // what the filter says of this folder's entries
  std::optional<std::string> rules;  // its .gitignore, once read
  KeptNames kept;                    // destination names the filter protects
  Listing sourceListing;
  Listing destinationListing;
  bool sourceListed = false;
  bool destinationKnown = false;  // listed; else known to be empty
  std::size_t listings = 0;       // in flight
  ChecksumAnswers checksums;      // kept while the link is measured
  FolderPlan plan;
  std::size_t next = 0;  // the first action of the plan not carried out yet
  State state = State::Waiting;
  std::size_t outstanding = 0;                               // requests, copies and folders below it, unfinished
  bool changed = false;                                      // entries made, replaced or removed in it
  bool broken = false;                                       // a listing or a change in it failed: nothing is removed
  std::unordered_set<std::size_t> replaced;                  // actions whose obstacle is gone
  std::unordered_set<std::size_t> linkFailed;                // links whose SYMLINK failed
  std::unordered_map<std::size_t, std::string> temporaries;  // links' temporaries
  std::unordered_map<std::size_t, std::string> errors;       // MKDIR failures being looked into
};

// A remote folder being removed with all it holds.
struct TreeTransfer::Removal {
  Folder* folder = nullptr;  // whose count it is in
  Removal* parent = nullptr;
  std::string path;
  std::vector<std::string> files;  // REMOVEs in flight, by the ticket's offset
  std::size_t outstanding = 0;
  bool failed = false;
  bool removing = false;  // its own RMDIR sent
  std::optional<std::size_t> then;
  FilterFolder filter;  // of the folder being removed
  bool kept = false;    // it holds what the filter protects: it stays
  Cookie cookie{Cookie::Kind::Removal, this};
};

struct TreeTransfer::Root {
  std::size_t item = 0;
  std::string source;       // "." and ".." resolved
  std::string destination;  // resolved, and joined with the source's name when copied into a folder
  bool into = false;
  bool failed = false;
  std::optional<Entry> sourceEntry;
  int sourceError = 0;  // uploads: why the source could not be looked at
  std::optional<Entry> destinationEntry;
  std::optional<Entry> destinationFound;  // uploads: what the first look at the destination found (links followed)
  Cookie sourceCookie{Cookie::Kind::RootSource, this};
  Cookie destinationCookie{Cookie::Kind::RootDestination, this};
};

// A missing parent of a destination, being made.
struct TreeTransfer::Parent {
  std::string path;
  std::size_t item = 0;
  bool made = false;
  bool isFolder = false;
  bool inTheWay = false;
  std::string error;
};

inline std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

inline std::string sourcePathOf(TreeTransfer::Folder const& folder, std::string const& name) {
  return folder.aboveRoot ? folder.rootSource : joined(folder.source, name);
}

// Above a root only the root's own name and its temporaries count.
inline void keepRootEntries(Listing& listing, std::string const& rootName) {
  auto const key = ownerKey(rootName);
  std::erase_if(listing.entries, [&](Entry const& entry) {
    auto const owner = temporaryOwner(entry.name);
    return entry.name != rootName && (!owner || *owner != key);
  });
  listing.suspects.clear();
  listing.problems.clear();
  listing.error.clear();
}

}  // namespace foundation::sshclient::internal::transfer
