#pragma once
// Files on the server over SFTP, many paths per call (foundation::sshclient).
//
// SSHClient::sftp() hands out the client's one instance. Its SFTP channel is
// opened on first use and kept for the client's life; a channel that failed
// is opened again by the next call. Every operation takes a list and sends
// the requests of all its paths at once (as many as the server allows in
// flight), so n paths cost about as many round trips as one path: one for a
// query, one per folder level for trees. Answers come in input order; an
// empty list asks nothing (and opens no channel).
//
// Paths and names are bytes exactly as the server has them; nothing is
// decoded, normalised or quoted. A relative path is taken from the login
// folder. A name a folder listing holds that is not a plain name (empty,
// ".", "..", or holding '/' or NUL), or that it holds twice, is never joined
// to a path (the second time): it is handed back apart (the one "." and the
// one ".." of a folder are dropped).
//
// Errors: queries answer a missing path, or one the server will not show,
// in their result. Mutations do all they can, then throw SftpError listing
// every path that failed with its cause ("cannot remove '/x': Permission
// denied"), in input order; what succeeded stays done. A failing connection
// or server throws SSHError (ConnectionLost, Timeout, Transfer) at once.
//
// Thread-safety: none; one thread at a time, as for the client.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

namespace foundation::sshclient {

enum class FileKind { Missing, File, Folder, Link, Other };

// What LSTAT or STAT (or a folder listing) says of one path.
struct FileStatus {
  FileKind kind = FileKind::Missing;
  std::uint32_t permissions = 0;  // the mode's 07777 bits
  std::uint64_t size = 0;
  std::int64_t modified = 0;  // seconds since 1970-01-01 UTC
  std::int64_t accessed = 0;
  // With Missing: why the server could not tell ("Permission denied");
  // empty when the path does not exist.
  std::string error;

  [[nodiscard]] bool exists() const noexcept { return kind != FileKind::Missing; }
};

struct FolderEntry {
  std::string name;   // a plain name
  FileStatus status;  // a link's own attributes
};

struct SuspectName {
  std::string folder;
  std::string name;
};

struct FolderListing {
  std::vector<FolderEntry> entries;  // in the server's order
  std::vector<std::string> suspectNames;
  // Non-empty when the folder could not be listed: "cannot open directory
  // '/x': No such file or directory".
  std::string error;
};

struct TreeEntry {
  std::string path;  // the root, '/' and the names below it
  FileStatus status;
};

struct Tree {
  FileStatus root;
  // Everything below a root that is a folder, links not followed: each folder
  // before what it holds, the entries of a folder in the order of their name
  // bytes.
  std::vector<TreeEntry> entries;
  std::vector<SuspectName> suspectNames;
  // Folders that could not be listed, one line each with the cause.
  std::vector<std::string> unreadable;
};

// A root that is a symbolic link: its own status (as find and rm see it), or
// the status of what it points to, listed like a folder (as ls -R does).
enum class RootLinks { Kept, Followed };

// Where a pair's destination that is an existing folder (or a link to one)
// puts the source: the destination names the result itself (Exact), or the
// folder receives the source under the source's own name, as cp and mv do
// (IntoFolder).
enum class Destination { Exact, IntoFolder };

// A mutation that failed for some paths: failures() holds one line per path
// and cause, in input order; what() joins them with line feeds.
class SSHFA_EXPORT SftpError : public SSHError {
 public:
  explicit SftpError(std::vector<std::string> failures);
  [[nodiscard]] std::vector<std::string> const& failures() const noexcept { return failures_; }

 private:
  std::vector<std::string> failures_;
};

class SSHFA_EXPORT SftpFiles {
 public:
  using Paths = std::vector<std::string>;
  using PathPairs = std::vector<std::pair<std::string, std::string>>;

  virtual ~SftpFiles();

  // ---- queries
  [[nodiscard]] virtual std::vector<FileStatus> lstat(Paths const& paths) = 0;
  [[nodiscard]] virtual std::vector<FileStatus> stat(Paths const& paths) = 0;
  [[nodiscard]] virtual std::vector<FolderListing> list(Paths const& folders) = 0;
  [[nodiscard]] virtual std::vector<Tree> walk(Paths const& roots, RootLinks rootLinks) = 0;
  // nullopt where the server gives no answer (missing, not a link, ...).
  [[nodiscard]] virtual std::vector<std::optional<std::string>> readlink(Paths const& paths) = 0;
  [[nodiscard]] virtual std::vector<std::optional<std::string>> realpath(Paths const& paths) = 0;

  // ---- mutations (SftpError, see above)
  // Each folder with every missing folder above it; an existing folder (or
  // a link to one) is no error.
  virtual void makeFolders(Paths const& paths) = 0;
  // Files, links and whole folder trees; links are removed, never followed.
  // A missing path is no error. Refused, and ending the list before them:
  // "/", paths whose last name is "." or "..", and a path ending in '/' that
  // names no folder (a link: nothing is removed through it, "Not a
  // directory").
  virtual void remove(Paths const& paths) = 0;
  // Each pair (from, to) in order; with posix-rename@openssh.com (where
  // offered) an existing file at `to` is replaced, else the server refuses.
  virtual void rename(PathPairs const& pairs, Destination destination) = 0;
  // Sets the modification and access times of each path (links followed) to
  // `seconds` since the epoch (nullopt: now, by this machine's clock); a
  // missing file is created empty first.
  virtual void touch(Paths const& paths, std::optional<std::int64_t> seconds) = 0;
  // Copies each pair's file, link (as a link) or folder tree to its
  // destination, on the server: with copy-data where the server offers it,
  // else read and written through this client. A file goes to a temporary
  // beside its destination, renamed into place when complete; new files and
  // folders get the source's permissions less the server's umask, and the
  // time of the copy. A folder merges into an existing folder. Pairs go in
  // order: a pair whose source is missing, or a folder copied into itself,
  // ends the list before it.
  virtual void copy(PathPairs const& pairs, Destination destination) = 0;

 protected:
  SftpFiles() = default;
  SftpFiles(SftpFiles const&) = default;
  SftpFiles& operator=(SftpFiles const&) = default;
};

}  // namespace foundation::sshclient
