#pragma once
// FileAccessInterface on a remote host over SFTP alone, for servers that run
// no shell for the account (ForceCommand internal-sftp, often with a
// ChrootDirectory), or by choice. It gives the answers of UnixSSHFileAccess,
// found with SFTP requests on the client's persistent SFTP channel instead
// of command lines, every name as its bytes. Each list form sends the
// requests of all its paths at once, so n paths cost about one round trip
// (trees: one per folder level).
//
// Where SFTP makes it differ:
//  - tar, zip, untar and unzip fail: no program runs on the server;
//  - list of a path that is no folder gives the path itself (ls -1 prints a
//    file so), names that are not plain names are left out (and noted in
//    the log at severity 16);
//  - copy writes each file to a temporary beside its destination and
//    renames it into place: an existing destination file takes the source's
//    permissions, and a link there is replaced, not written through;
//  - remove refuses "/" and paths whose last name is "." or "..".
// getFileInfo reads a link's own size and time, as the remote stat does;
// exists, isFile and isDir follow links, as test does.
//
// Errors: FileAccessException(RemoteError) naming every path that failed
// and its cause, one per line ("cannot remove '/x': Permission denied");
// a list operation does all its paths (copy and move: the pairs before one
// that cannot be done) before it throws. Exceptions of the SSH client (the
// connection) pass unchanged. Move-only; one object must not be used from
// two threads at once.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sshfileaccess/SSHFileAccess.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

class SSHFA_EXPORT SftpFileAccess : public SSHFileAccess {
 public:
  SftpFileAccess(ustring host, int port, AuthMethods authMethods);
  explicit SftpFileAccess(std::unique_ptr<foundation::sshclient::SSHClient> client);
  // Takes over the connection of another remote backend.
  explicit SftpFileAccess(SSHFileAccess&& other) noexcept;
  SftpFileAccess(SftpFileAccess&& other) noexcept;
  SftpFileAccess& operator=(SftpFileAccess&& other) noexcept;
  SftpFileAccess(SftpFileAccess const&) = delete;
  SftpFileAccess& operator=(SftpFileAccess const&) = delete;
  ~SftpFileAccess() override;

  using SSHFileAccess::copy;

  void copy(ustring const& source, ustring const& destination) override;
  void copy(PathPairs const& pairs) override;
  bool exists(ustring const& path) override;
  std::vector<bool> exists(PathList const& paths) override;
  bool isFile(ustring const& path) override;
  std::vector<bool> isFile(PathList const& paths) override;
  bool isDir(ustring const& path) override;
  std::vector<bool> isDir(PathList const& paths) override;
  ustring parent(ustring const& path) override;
  std::vector<ustring> parent(PathList const& paths) override;
  void touch(ustring const& path) override;
  void touch(PathList const& paths) override;
  void remove(ustring const& path) override;
  void remove(PathList const& paths) override;
  void makeDir(ustring const& path) override;
  void makeDir(PathList const& paths) override;
  void move(ustring const& source, ustring const& destination) override;
  void move(PathPairs const& pairs) override;
  void tar(ustring const& source, ustring const& archivePath) override;
  void untar(ustring const& archivePath, ustring const& destinationFolder) override;
  void zip(ustring const& source, ustring const& archivePath) override;
  void unzip(ustring const& archivePath, ustring const& destinationFolder) override;
  std::vector<ustring> list(ustring const& path) override;
  std::vector<ustring> list(PathList const& paths) override;
  std::vector<ustring> listRecursively(ustring const& path) override;
  std::vector<ustring> listRecursively(PathList const& paths) override;
  std::optional<FileInfo> getFileInfo(ustring const& path) override;
  std::vector<std::optional<FileInfo>> getFileInfo(PathList const& paths) override;

 private:
  [[noreturn]] void refuseProgram(char const* program);
};

}  // namespace nimbal::remoteaccess::sshfileaccess
