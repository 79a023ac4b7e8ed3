#pragma once
// A tree transfer (SSHClient::copyTrees), one folder at a time.
//
// For each folder pair the source and the destination are listed side by
// side (the remote side over the SFTP sessions of every channel, many
// folders at once), the folder's plan is made (Plan.hpp decides
// everything), and its actions run:
// folders made, links placed, unchanged files' modes and times put right,
// copies handed to the FileCopier (deltas to the DeltaCopier first, which
// hashes both sides, and under DeltaMode::Auto the link is measured once,
// before the first folder that could use one is planned). Once a folder's
// files are in and every
// folder below it is done, what its source lacks is removed (never when a
// listing or a copy in it failed) and its own mode and times are set.
// Folders are worked depth first with a bounded number listed ahead and a
// bounded queue of files ahead of the copies, so memory follows the widest
// folder and the window, not the size of the tree.
//
// Before anything is planned, "." and ".." in every caller's path are
// resolved, a destination that is a folder (or ends with '/') receives its
// source under the source's own name when asked, and missing parents of the
// destinations are made. A failure of one entry is one failure; everything
// else goes on. The transfer then throws TransferError naming the first
// failure (in the order of the command's items); a broken stream throws the
// stream's SSHError. A stop (the progress callback throws) ends everything
// at once, keeping resumable temporaries, and its exception propagates.
//
// Owns the walk, its folders and the report; speaks SFTP only through the
// session, and hashes remote files through `shell`: checksums on its
// persistent runner, resumed prefixes and deltas' blocks by commands that
// run while this side hashes its own. Not thread-safe.

#include <sys/stat.h>

#include <cstddef>
#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/SftpSession.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Copiers.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/DeltaCopy.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopy.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/LinkProbe.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Plan.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/RemoteListing.hpp"

namespace foundation::sshclient::internal::transfer {

class TreeTransfer final : public ListingSink, public FileObserver, public sftp::ReplyHandler {
 public:
  // `more` opens the further channels the options ask for (unset: one only).
  TreeTransfer(sftp::SftpSession& session, CopyTreesCommand const& command, sftp::ProgressCallback const& progress,
               sftp::RemoteShell const& shell, sftp::EngineOptions const& options, sftp::MoreStreams more = {});
  ~TreeTransfer();
  TreeTransfer(TreeTransfer const&) = delete;
  TreeTransfer& operator=(TreeTransfer const&) = delete;

  TreeTransferReport run();

  void listed(void* cookie, Listing listing) override;
  void examined(void* cookie, std::optional<Entry> entry, std::string const& error) override;
  void read(void* cookie, std::optional<std::string> text) override;
  void fileDone(FileTask const& task) override;
  void fileFailed(FileTask const& task, std::string const& message) override;
  void onReply(sftp::Ticket const& ticket, sftp::Reply const& reply) override;

 public:
  // The walk's pieces, defined in TreeTransferParts.hpp.
  struct Folder;
  struct Removal;
  struct Root;
  struct Parent;
  struct Cookie;
  struct Lane;

 private:
  // ---- roots (TreeRoots.cpp)
  void prepareRoots();
  void resolvePaths();
  void askAboutThisMachine();
  // Runs the session until the roots' own questions are answered.
  void awaitRootAnswers();
  void refuseOverlaps();
  std::optional<std::string> localRealPath(std::string const& path);
  std::optional<std::string> remoteRealPath(std::string const& path);
  void placeIntoFolders();
  void sendParents();
  void collectParents();
  bool lookAtSource(Root& root);
  void examineSources();
  void examineDestinations();
  [[nodiscard]] bool listsTemporaries(Root const& root) const;
  // The level above the root, waiting to be listed; null when it cannot be.
  Folder* startRoot(Root& root);
  void await();

  // ---- channels: the further sessions that carry files
  void openChannels();
  // Every session pumped without sleeping; whether anything moved.
  bool pumpAll();
  RemoteLister& listerFor();
  [[nodiscard]] bool quietStreams() const noexcept;

  // ---- the walk
  void walk();
  [[nodiscard]] std::size_t listingRoom() const;
  void startFolders();
  void beginFolder(Folder& folder);
  void folderListed(Folder& folder);
  void filterListing(Folder& folder);
  void decide(Folder& folder);
  void expectDeltas();
  void measureLink(Folder& folder, Entry const& candidate);
  void measureEarly(Root const& root, Folder& folder);
  void measureOn(Folder& folder, Entry const& candidate, std::uint64_t oldSize);
  void planMeasured();
  void planAndAct(Folder& folder);
  static std::optional<std::string> readLocalFile(std::string const& path);
  // Acts on the folder's plan from where it stopped; copies wait, the folder
  // in `feeding_`, while the copiers have kFilesAhead files queued.
  void carryOut(Folder& folder);
  void feedCopies();
  void act(Folder& folder, std::size_t index);
  void makeFolder(Folder& folder, std::size_t index);
  bool waitsForTheWay(Folder& folder, std::size_t index, std::string const& path);
  void placeLink(Folder& folder, std::size_t index);
  void copyFile(Folder& folder, std::size_t index);
  // A file of `folder` as the copiers take it.
  [[nodiscard]] FileTask fileTask(Folder& folder, std::string const& name, Entry const& source) const;
  void fixAttributes(Folder& folder, std::size_t index);
  void addChild(Folder& parent, std::size_t index, bool fresh);
  void onFolderReply(Folder& folder, sftp::Ticket const& ticket, sftp::Reply const& reply);
  void onRootReply(sftp::Ticket const& ticket, sftp::Reply const& reply);
  void tryFinish(Folder& folder);
  void finish(Folder& folder);
  void release(Folder& folder);
  // A download's local folder opened; false (failed, told) when it cannot be.
  bool openLocal(Folder& folder);
  [[nodiscard]] bool loops(Folder& folder);

  // ---- removals: what a source lacks, and what is in the way (TreeRemoval.cpp)
  void removeExtras(Folder& folder);
  // The folder `name` of `folder` with all it holds but what the filter
  // protects; `then` (an action of `folder`) goes on once it is gone.
  void removeTree(Folder& folder, std::string const& name, std::optional<std::size_t> then = std::nullopt);
  int removeLocalTree(LocalDir const& parent, std::string const& name, FilterFolder const& filter, bool& kept);
  void replaceFolder(Folder& folder, std::size_t index);
  // Lists a folder to remove, or queues it while kRemovalsListed are listed.
  void listRemoval(Removal& removal);
  void removalListed(Removal& removal, Listing const& listing);
  void onRemovalReply(Removal& removal, sftp::Ticket const& ticket, sftp::Reply const& reply);
  void removalDone(Removal& removal);

  // ---- checks that read
  ChecksumAnswers compareChecksums(Folder const& folder, std::vector<std::string> const& names);
  bool verifyResume(Folder const& folder, Action const& action);
  std::optional<std::string> remoteOutput(std::string const& command);
  std::unique_ptr<sftp::RemoteCommand> startRemote(std::string const& command);
  std::optional<std::string> awaitRemote(std::unique_ptr<sftp::RemoteCommand> command);
  std::optional<HashKind> awaitAnnouncedHash(std::unique_ptr<sftp::RemoteCommand>& command);
  ChecksumAnswers bySizeAndTime(Folder const& folder, std::vector<std::string> const& names);
  // A remote file read over SFTP (its first `prefix` bytes, when given).
  std::optional<std::string> readRemoteFile(std::string const& path, std::optional<std::uint64_t> prefix = {});
  // readRemoteFile in two halves, so that other requests fly meanwhile.
  void startRemoteRead(std::string const& path, std::optional<std::uint64_t> prefix = {});
  std::optional<std::string> finishRemoteRead();

  // ---- report
  void fail(std::size_t item, std::string const& message);
  void fail(Folder& folder, std::string const& message);
  void plan(PlannedChange::Action action, std::string const& path, std::uint64_t bytes);
  // A change done, for the caller's onChange (a stop when it throws).
  void changed(PlannedChange::Action action, std::string const& path, std::uint64_t bytes = 0);
  void stop(std::exception_ptr why);
  void reportProgress(bool final);
  void abandon() noexcept;
  [[nodiscard]] std::string streamContext() const;
  [[nodiscard]] std::string describePair(std::size_t item) const;
  [[nodiscard]] std::string where(std::string const& path) const;
  // The destination path of a name in a folder, which every change in the
  // destination goes through: it must be the item's root or lie below it,
  // or be one of the root's own temporaries beside it.
  [[nodiscard]] std::string target(Folder const& folder, std::string const& name) const;
  [[nodiscard]] std::string const& inside(std::size_t item, std::string const& path) const;

  sftp::SftpSession& session_;
  CopyTreesCommand const& command_;
  TreeTransferOptions const& options_;
  PlanSettings settings_;
  bool upload_;
  bool dryRun_;
  sftp::ProgressCallback const& progress_;
  sftp::RemoteShell const& shell_;
  std::chrono::milliseconds progressInterval_;
  std::chrono::steady_clock::time_point lastReport_;
  std::mt19937_64 random_;

  TransferCounters counters_;
  std::size_t filesTotal_ = 0;
  std::unique_ptr<FileCopier> copier_;  // the first session's
  CopySettings copySettings_;
  bool posixRename_ = true;
  sftp::MoreStreams more_;
  std::vector<std::unique_ptr<Lane>> lanes_;
  Copiers copiers_;  // copier_ and those of the lanes
  std::unique_ptr<DeltaCopier> deltas_;
  LinkProbe probe_;
  std::vector<Folder*> measuring_;  // to plan once the link is measured
  std::uint64_t inFlight_ = 0;      // file data a copy keeps under way
  RemoteLister lister_;
  TreeTransferReport report_;
  std::vector<std::pair<std::size_t, std::string>> failures_;
  std::exception_ptr cancelled_;
  bool stopping_ = false;
  bool rootsReady_ = false;

  std::vector<Root> roots_;
  std::optional<std::string> resolved_;  // the answer to the last REALPATH of a root
  int localError_ = 0;                   // of the last local realpath
  std::optional<sftp::Attributes> remoteRoot_;
  // What tells whether a loopback peer is this very machine, asked early.
  struct ThisMachine {
    std::string boot;
    struct stat root {};
    std::map<std::string, std::optional<std::string>> realPaths;  // remote leading parts
  };
  std::unique_ptr<ThisMachine> thisMachine_;
  std::size_t rootQuestions_ = 0;          // about the roots and this machine, unanswered
  std::vector<Parent> parents_;            // of the destinations, being made
  std::optional<std::string> noCommands_;  // why no command can run there
  bool checksumNoted_ = false;
  std::optional<std::string> prefix_;  // the answer to readRemoteFile
  bool prefixRead_ = false;
  std::unique_ptr<Cookie> prefixCookie_;
  std::unordered_map<Folder*, std::unique_ptr<Folder>> folders_;
  std::vector<Folder*> waiting_;   // not started yet; the last is next (depth first)
  std::deque<Folder*> feeding_;    // planned, with copies still to queue; the first is next
  std::size_t listing_ = 0;        // folders whose listings are in flight
  std::size_t started_ = 0;        // folders begun and not released
  std::size_t foldersOpen_ = 0;    // of a download, at most, started at once
  std::size_t foldersListed_ = 0;  // so far, and their entries: the tree's width
  std::size_t entriesListed_ = 0;
  std::unordered_map<Removal*, std::unique_ptr<Removal>> removals_;
  std::size_t removalsListed_ = 0;        // removals whose listings are in flight
  std::deque<Removal*> removalsWaiting_;  // to list once fewer are
};

}  // namespace foundation::sshclient::internal::transfer
