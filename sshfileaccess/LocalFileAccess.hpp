#pragma once
// FileAccessInterface on the local file system.
//
// Stateless: any number of instances behave alike, and concurrent calls are
// as safe as the file-system calls they make. Failures of the file system or
// the archive library reach the caller as FileAccessException(LocalError)
// with their text, except where stated: list and listRecursively pass the
// file-system layer's exceptions through, getFileInfo never throws (it logs a
// failure at severity 16 and answers empty), and removeImpl converts nothing.
// A missing path is false for the queries, empty for getFileInfo, list and
// listRecursively, and no error for remove.
//
// List forms call the single operation through virtual dispatch, in input
// order; the first failure ends them and earlier elements stay done.

#include "sshfileaccess/FileAccessInterface.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

class SSHFA_EXPORT LocalFileAccess : public FileAccessInterface {
 public:
  LocalFileAccess() = default;

  // Makes the destination's folder first, so a copy into a missing tree
  // works; folders are copied whole, existing files overwritten.
  void copy(ustring const& source, ustring const& destination) override;
  void copy(PathPairs const& pairs) override;
  bool exists(ustring const& path) override;
  std::vector<bool> exists(PathList const& paths) override;
  bool isFile(ustring const& path) override;
  std::vector<bool> isFile(PathList const& paths) override;
  bool isDir(ustring const& path) override;
  std::vector<bool> isDir(PathList const& paths) override;
  // Computed from the text of the path.
  ustring parent(ustring const& path) override;
  std::vector<ustring> parent(PathList const& paths) override;
  // Creates a missing file empty (not its folder) and sets the modification
  // time to the current second.
  void touch(ustring const& path) override;
  void touch(PathList const& paths) override;
  void remove(ustring const& path) override;
  void remove(PathList const& paths) override;
  void makeDir(ustring const& path) override;
  void makeDir(PathList const& paths) override;
  // A plain rename: same file system, no folder made for the destination.
  void move(ustring const& source, ustring const& destination) override;
  void move(PathPairs const& pairs) override;
  // The archive holds the source under its own name: tar of /data/run1 stores
  // run1/... entries. Only regular files are stored.
  void tar(ustring const& source, ustring const& archivePath) override;
  // Reads tar (plain or compressed) and zip alike; creates a missing
  // destination; refuses entries that would land outside it.
  void untar(ustring const& archivePath, ustring const& destinationFolder) override;
  void zip(ustring const& source, ustring const& archivePath) override;
  void unzip(ustring const& archivePath, ustring const& destinationFolder) override;
  // A folder's entries (hidden ones too) as full paths in the order the file
  // system gives them; a regular file gives itself, as passed.
  std::vector<ustring> list(ustring const& path) override;
  std::vector<ustring> list(PathList const& paths) override;
  // Every regular file beneath a folder; symbolic links are not followed.
  std::vector<ustring> listRecursively(ustring const& path) override;
  std::vector<ustring> listRecursively(PathList const& paths) override;
  // Size and modification time cut to the whole second.
  std::optional<FileInfo> getFileInfo(ustring const& path) override;
  std::vector<std::optional<FileInfo>> getFileInfo(PathList const& paths) override;

  // Appending forms: the entries are added to `out`, which is never cleared.
  void list(ustring const& path, std::vector<ustring>& out);
  void listRecursively(ustring const& path, std::vector<ustring>& out);
  // Packs the regular files beneath `source` in `format` ("tar" or "zip").
  void archive(ustring const& source, ustring const& archivePath, ustring const& format);
  // Packs `source` as it is into a new archive in `format` ("tar" or "zip"),
  // as tar and zip -y do on the remote side: the source under its own name,
  // and every folder (empty ones too), symbolic link (as a link) and regular
  // file beneath it, each with its permission bits and modification time.
  // No link is followed, the source's own included (also when written with
  // a trailing '/'). A FIFO, socket or device beneath fails the call, naming
  // it; a missing source fails before the archive is made. Failures are
  // converted as for tar.
  void archiveTree(ustring const& source, ustring const& archivePath, ustring const& format);
  // remove without the conversion of failures.
  void removeImpl(ustring const& path);
};

}  // namespace nimbal::remoteaccess::sshfileaccess
