#pragma once
// The one set of file operations, implemented for the local machine
// (LocalFileAccess) and for a remote Unix host (UnixSSHFileAccess).
//
// Contract for every implementation:
//  - Every operation on one path has a twin on a list of paths. Twins answer
//    in input order, one answer per input where they answer per path; list
//    and listRecursively over a list return the listings concatenated.
//  - An empty list yields an empty result and touches nothing.
//  - Failures are FileAccessException (LocalError or RemoteError); the first
//    failure ends a list operation, and nothing is rolled back.
//  - exists/isFile/isDir answer false for a missing path; getFileInfo answers
//    an empty optional.
// Implementations keep no state between calls; one object must not be used
// from two threads at once.

#include <boost/date_time/posix_time/ptime.hpp>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "sshfileaccess/export.hpp"
#include "sshfileaccess/ustring.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

struct FileInfo {
  ustring path;                            // as the caller passed it (remote: as stat printed it)
  std::uint64_t size = 0;                  // bytes
  boost::posix_time::ptime lastWriteTime;  // UTC, whole seconds
};

class SSHFA_EXPORT FileAccessInterface {
 public:
  using PathList = std::vector<ustring>;
  using PathPairs = std::vector<std::pair<ustring, ustring>>;  // (source, destination)

  virtual ~FileAccessInterface() = default;

  virtual void copy(ustring const& source, ustring const& destination) = 0;
  virtual void copy(PathPairs const& pairs) = 0;
  virtual bool exists(ustring const& path) = 0;
  virtual std::vector<bool> exists(PathList const& paths) = 0;
  virtual bool isFile(ustring const& path) = 0;
  virtual std::vector<bool> isFile(PathList const& paths) = 0;
  virtual bool isDir(ustring const& path) = 0;
  virtual std::vector<bool> isDir(PathList const& paths) = 0;
  virtual ustring parent(ustring const& path) = 0;
  virtual std::vector<ustring> parent(PathList const& paths) = 0;
  virtual void touch(ustring const& path) = 0;
  virtual void touch(PathList const& paths) = 0;
  virtual void remove(ustring const& path) = 0;
  virtual void remove(PathList const& paths) = 0;
  virtual void makeDir(ustring const& path) = 0;
  virtual void makeDir(PathList const& paths) = 0;
  virtual void move(ustring const& source, ustring const& destination) = 0;
  virtual void move(PathPairs const& pairs) = 0;
  virtual void tar(ustring const& source, ustring const& archivePath) = 0;
  virtual void untar(ustring const& archivePath, ustring const& destinationFolder) = 0;
  virtual void zip(ustring const& source, ustring const& archivePath) = 0;
  virtual void unzip(ustring const& archivePath, ustring const& destinationFolder) = 0;
  virtual std::vector<ustring> list(ustring const& path) = 0;
  virtual std::vector<ustring> list(PathList const& paths) = 0;
  virtual std::vector<ustring> listRecursively(ustring const& path) = 0;
  virtual std::vector<ustring> listRecursively(PathList const& paths) = 0;
  virtual std::optional<FileInfo> getFileInfo(ustring const& path) = 0;
  virtual std::vector<std::optional<FileInfo>> getFileInfo(PathList const& paths) = 0;

 protected:
  FileAccessInterface() = default;
  FileAccessInterface(FileAccessInterface const&) = default;
  FileAccessInterface& operator=(FileAccessInterface const&) = default;
  FileAccessInterface(FileAccessInterface&&) = default;
  FileAccessInterface& operator=(FileAccessInterface&&) = default;
};

}  // namespace nimbal::remoteaccess::sshfileaccess
