#pragma once
// The plan of one folder of a tree transfer: what to do with each name,
// decided from the source's listing, the destination's listing (when it was
// listed) and the options. A pure function: no I/O, no clock, no randomness;
// every decision rule of a transfer lives here and is tested without a
// server.
//
// The plan names actions by destination name only; the execution forms the
// paths, and never joins a name that a listing did not give (listings drop
// suspect names). Removals are planned only where the caller's scope allows
// them: below the destination of a folder source, never beside a root.

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Delta.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Entry.hpp"

namespace foundation::sshclient::internal::transfer {

struct PlanSettings {
  UnchangedTest skipUnchanged = UnchangedTest::None;
  bool deleteExtraneous = false;
  bool resume = false;
  bool keepPermissions = true;
  bool keepSpecialBits = false;
  bool keepTimes = true;
  // A file in the way of a folder is replaced by it; with deleteExtraneous
  // also a folder in the way of a file or link (with all it holds).
  bool replaceInTheWay = false;
  DeltaMode delta = DeltaMode::Off;
  // Under DeltaMode::Auto: the link as measured before the folder was
  // planned (see linkSpeedNeededFor), and what a delta costs beyond its data.
  std::optional<LinkSpeed> link;
  DeltaCosts deltaCosts;
  // A destination file with a later modification time than its source file
  // is left alone (Skip, marked `newer`).
  bool update = false;
  // Big files may have been shared out among channels (Stripes.hpp): a
  // resumable temporary of one is trusted only up to trustedPrefix().
  bool sharedOut = false;

  static PlanSettings from(TreeTransferOptions const& options);
};

// Where a folder lies: whether what its destination holds beyond the source
// may be removed (below a folder source's destination), or whether it is the
// level above the roots (the destination's own folder: only the roots' names
// and their temporaries count, nothing else is looked at).
struct FolderScope {
  bool deletes = false;
  bool aboveRoots = false;
};

enum class Step : std::uint8_t {
  RemoveTemporary,  // a temporary of ours that no file continues
  Fail,             // cannot be done; nothing changes for this name
  Special,          // a FIFO, socket or device: left out, with a note
  MakeFolder,       // made (after what is in the way, when `replace`)
  EnterFolder,      // a folder already: listed and worked through
  Link,             // made under a temporary name and renamed into place
  FixAttributes,    // unchanged data: mode and times put right
  Copy,             // sent (from `resumeFrom` of `temporary` when set)
  Delta,            // the blocks that differ from `existing` sent into a copy of it
  Skip,             // unchanged (or newer, with update): left alone
  Delete,           // not in the source: removed once the folder's files are in
};

enum class Problem : std::uint8_t {
  None,
  FileInTheWay,    // of a folder: "cannot make folder ...: a file is in the way"
  FolderInTheWay,  // of a file or link: "cannot replace ...: it is a folder"
};

struct Action {
  Step step = Step::Skip;
  std::string name;                 // in the destination folder
  Entry const* source = nullptr;    // into the source listing
  Entry const* existing = nullptr;  // into the destination listing
  bool replace = false;             // what is in the way goes first
  bool newer = false;               // Skip: the destination file is newer (update)
  Problem problem = Problem::None;  // Fail
  // Copy: an earlier run's resumable temporary, continued once its prefix
  // is verified, else removed and the file sent whole.
  std::string temporary;
  std::uint64_t resumeFrom = 0;
};

// Actions in the order they are carried out: temporaries removed first,
// then failures and left-out names, folders, links, attribute fixes, copies,
// deltas, skips, and removals last.
struct FolderPlan {
  std::vector<Action> actions;
};

// The mode and times a destination entry should end with.
struct Kept {
  std::optional<std::uint32_t> mode;
  std::optional<std::uint32_t> atime;
  std::optional<std::uint32_t> mtime;
};
[[nodiscard]] Kept kept(Entry const& source, PlanSettings const& settings);
// Whether an existing entry lacks the mode or the time to keep.
[[nodiscard]] bool modeDiffers(Entry const& existing, Kept const& wanted, PlanSettings const& settings);
[[nodiscard]] bool timeDiffers(Entry const& existing, Kept const& wanted);

// Files whose data must be compared by checksum before planning: regular
// files of equal size on both sides, under UnchangedTest::Checksum.
[[nodiscard]] std::vector<std::string> checksumCandidates(Listing const& source, Listing const* destination,
                                                          PlanSettings const& settings);
// Per candidate name: whether both sides hashed and the hashes are equal.
using ChecksumAnswers = std::unordered_map<std::string, bool>;

// Whether a source file whose destination holds `existing` goes as a
// Below this a delta's round trips cost more than the data it can save.
inline constexpr std::uint64_t kAutoDeltaMinimum = 1024U * 1024U;

// delta: asked for, or under DeltaMode::Auto a file of at least 1 MiB over an
// old version of at least 1 MiB where the measured link makes it pay
// (deltaPays).
[[nodiscard]] bool sendsDelta(Entry const& source, Entry const& existing, PlanSettings const& settings);
// Under DeltaMode::Auto, before the link is measured: the first changed
// file of the folder that could go as a delta, for which the link must be
// measured before the folder is planned (its remote side read, say). Null
// when there is none, or nothing to wait for.
[[nodiscard]] Entry const* linkSpeedNeededFor(Listing const& source, Listing const* destination,
                                              PlanSettings const& settings, ChecksumAnswers const& checksums = {});

// Destination names that a removal keeps (a filter protects them).
using KeptNames = std::unordered_set<std::string>;

// `destination` null: the destination folder is new (known empty). The
// plan's pointers point into the two listings, which must outlive it.
[[nodiscard]] FolderPlan planFolder(Listing const& source, Listing const* destination, PlanSettings const& settings,
                                    FolderScope scope, ChecksumAnswers const& checksums = {},
                                    KeptNames const& kept = {});

}  // namespace foundation::sshclient::internal::transfer
