#include "sshfileaccess/SftpFileAccess.hpp"

#include <algorithm>
#include <boost/date_time/posix_time/conversion.hpp>
#include <ctime>

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/RemotePath.hpp"
#include "sshfileaccess/Utils.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

namespace ssh = foundation::sshclient;

namespace {

using ssh::FileKind;

std::string bytes(ustring const& text) { return fl::i18n::ustring_to_utf8(text); }
ustring text(std::string const& bytes) { return fl::i18n::utf8_to_ustring(bytes); }

ssh::SftpFiles::Paths bytesOf(FileAccessInterface::PathList const& paths) {
  ssh::SftpFiles::Paths out;
  out.reserve(paths.size());
  for (auto const& path : paths) out.push_back(bytes(path));
  return out;
}

ssh::SftpFiles::PathPairs bytesOf(FileAccessInterface::PathPairs const& pairs) {
  ssh::SftpFiles::PathPairs out;
  out.reserve(pairs.size());
  for (auto const& [source, destination] : pairs) out.emplace_back(bytes(source), bytes(destination));
  return out;
}

void trace(char const* operation, FileAccessInterface::PathList const& paths) {
  logRecord(kTraceSeverity, [&] { return std::string("SFTP ") + operation + ":" + ustr2str(quoted(paths)); });
}

void trace(char const* operation, FileAccessInterface::PathPairs const& pairs) {
  logRecord(kTraceSeverity, [&] { return std::string("SFTP ") + operation + ": " + formatCopiedPaths(pairs); });
}

// Runs a mutation; the paths that failed reach the caller in the library's
// exception, with the client's words.
template <class Mutation>
void changing(Mutation&& mutation) {
  try {
    mutation();
  } catch (ssh::SftpError const& e) {
    throw FileAccessException(std::string(e.what()), FileAccessException::Code::RemoteError);
  }
}

template <class Result, class Single>
std::vector<Result> eachPath(FileAccessInterface::PathList const& paths, Single single) {
  std::vector<Result> results;
  results.reserve(paths.size());
  for (auto const& path : paths) results.push_back(single(path));
  return results;
}

// Whether each path is of `wanted` kind by STAT (links followed, as test
// does); Missing asks whether it exists at all.
std::vector<bool> whether(SSHFileAccess& access, FileAccessInterface::PathList const& paths, FileKind wanted) {
  if (paths.empty()) return {};
  trace("stat", paths);
  std::vector<bool> answers;
  answers.reserve(paths.size());
  for (auto const& status : access.sftp().stat(bytesOf(paths))) {
    answers.push_back(wanted == FileKind::Missing ? status.exists() : status.kind == wanted);
  }
  return answers;
}

void noteSuspectNames(std::string const& folder, std::vector<std::string> const& names) {
  for (auto const& name : names) {
    logRecord(kSwallowedErrorSeverity, [&] {
      std::string text = "Left out a name that is not a plain name in '";
      text.append(folder).append("': '").append(name).append("'");
      return text;
    });
  }
}

}  // namespace

SftpFileAccess::SftpFileAccess(ustring host, int port, AuthMethods authMethods)
    : SSHFileAccess(std::move(host), port, std::move(authMethods)) {}

SftpFileAccess::SftpFileAccess(std::unique_ptr<ssh::SSHClient> client) : SSHFileAccess(std::move(client)) {}

SftpFileAccess::SftpFileAccess(SSHFileAccess&& other) noexcept : SSHFileAccess(std::move(other)) {}

SftpFileAccess::SftpFileAccess(SftpFileAccess&& other) noexcept = default;
SftpFileAccess& SftpFileAccess::operator=(SftpFileAccess&& other) noexcept = default;
SftpFileAccess::~SftpFileAccess() = default;

// ---- queries -----------------------------------------------------------------------

bool SftpFileAccess::exists(ustring const& path) { return exists(PathList{path}).at(0); }

std::vector<bool> SftpFileAccess::exists(PathList const& paths) { return whether(*this, paths, FileKind::Missing); }

bool SftpFileAccess::isFile(ustring const& path) { return isFile(PathList{path}).at(0); }

std::vector<bool> SftpFileAccess::isFile(PathList const& paths) { return whether(*this, paths, FileKind::File); }

bool SftpFileAccess::isDir(ustring const& path) { return isDir(PathList{path}).at(0); }

std::vector<bool> SftpFileAccess::isDir(PathList const& paths) { return whether(*this, paths, FileKind::Folder); }

ustring SftpFileAccess::parent(ustring const& path) { return remoteParent(path); }

std::vector<ustring> SftpFileAccess::parent(PathList const& paths) {
  return eachPath<ustring>(paths, [this](ustring const& path) { return parent(path); });
}

std::vector<ustring> SftpFileAccess::list(ustring const& path) { return list(PathList{path}); }

// As "ls -1": the entries of a folder without the hidden ones, in the order
// of their names; a path that is no folder, as itself.
std::vector<ustring> SftpFileAccess::list(PathList const& paths) {
  if (paths.empty()) return {};
  trace("list", paths);
  auto const names = bytesOf(paths);
  auto const listings = sftp().list(names);
  ssh::SftpFiles::Paths unlisted;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (!listings[i].error.empty()) unlisted.push_back(names[i]);
  }
  auto const others = unlisted.empty() ? std::vector<ssh::FileStatus>() : sftp().lstat(unlisted);
  std::vector<ustring> out;
  auto other = others.begin();
  for (std::size_t i = 0; i < paths.size(); ++i) {
    auto const& listing = listings[i];
    if (!listing.error.empty()) {
      if (other->exists()) out.push_back(paths[i]);
      ++other;
      continue;
    }
    noteSuspectNames(names[i], listing.suspectNames);
    std::vector<std::string> shown;
    for (auto const& entry : listing.entries) {
      if (!entry.name.starts_with('.')) shown.push_back(entry.name);
    }
    std::sort(shown.begin(), shown.end());
    const ustring prefix = !paths[i].empty() && paths[i].back() == u'/' ? paths[i] : paths[i] + u'/';
    for (auto const& name : shown) out.push_back(prefix + text(name));
  }
  return out;
}

std::vector<ustring> SftpFileAccess::listRecursively(ustring const& path) { return listRecursively(PathList{path}); }

// As "find -type f": the regular files below each path, hidden ones too,
// links not followed (a path that is a link gives nothing).
std::vector<ustring> SftpFileAccess::listRecursively(PathList const& paths) {
  if (paths.empty()) return {};
  trace("walk", paths);
  auto const roots = bytesOf(paths);
  auto const trees = sftp().walk(roots, ssh::RootLinks::Kept);
  std::vector<ustring> out;
  for (std::size_t i = 0; i < trees.size(); ++i) {
    if (trees[i].root.kind == FileKind::File) out.push_back(paths[i]);
    for (auto const& suspect : trees[i].suspectNames) noteSuspectNames(suspect.folder, {suspect.name});
    for (auto const& entry : trees[i].entries) {
      if (entry.status.kind == FileKind::File) out.push_back(text(entry.path));
    }
  }
  return out;
}

std::optional<FileInfo> SftpFileAccess::getFileInfo(ustring const& path) { return getFileInfo(PathList{path}).at(0); }

std::vector<std::optional<FileInfo>> SftpFileAccess::getFileInfo(PathList const& paths) {
  if (paths.empty()) return {};
  trace("lstat", paths);
  auto const statuses = sftp().lstat(bytesOf(paths));
  std::vector<std::optional<FileInfo>> infos;
  infos.reserve(paths.size());
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (!statuses[i].exists()) {
      infos.emplace_back();
      continue;
    }
    infos.emplace_back(FileInfo{paths[i], statuses[i].size,
                                boost::posix_time::from_time_t(static_cast<std::time_t>(statuses[i].modified))});
  }
  return infos;
}

// ---- mutations -------------------------------------------------------------------------

void SftpFileAccess::copy(ustring const& source, ustring const& destination) { copy(PathPairs{{source, destination}}); }

// As "cp -r" after "mkdir -p" of every destination's parent.
void SftpFileAccess::copy(PathPairs const& pairs) {
  if (pairs.empty()) return;
  PathList destinations;
  destinations.reserve(pairs.size());
  for (auto const& pair : pairs) destinations.push_back(pair.second);
  makeDir(parent(destinations));
  trace("copy", pairs);
  changing([&] { sftp().copy(bytesOf(pairs), ssh::Destination::IntoFolder); });
}

void SftpFileAccess::touch(ustring const& path) { touch(PathList{path}); }

void SftpFileAccess::touch(PathList const& paths) {
  if (paths.empty()) return;
  trace("touch", paths);
  changing([&] { sftp().touch(bytesOf(paths), std::nullopt); });
}

void SftpFileAccess::remove(ustring const& path) { remove(PathList{path}); }

void SftpFileAccess::remove(PathList const& paths) {
  if (paths.empty()) return;
  trace("remove", paths);
  changing([&] { sftp().remove(bytesOf(paths)); });
}

void SftpFileAccess::makeDir(ustring const& path) { makeDir(PathList{path}); }

void SftpFileAccess::makeDir(PathList const& paths) {
  if (paths.empty()) return;
  trace("mkdir", paths);
  changing([&] { sftp().makeFolders(bytesOf(paths)); });
}

void SftpFileAccess::move(ustring const& source, ustring const& destination) { move(PathPairs{{source, destination}}); }

// As "mv": no destination folders are made.
void SftpFileAccess::move(PathPairs const& pairs) {
  if (pairs.empty()) return;
  trace("rename", pairs);
  changing([&] { sftp().rename(bytesOf(pairs), ssh::Destination::IntoFolder); });
}

// ---- archives --------------------------------------------------------------------------

void SftpFileAccess::refuseProgram(char const* program) {
  std::string const why = shellAvailable() ? "this connection works over SFTP only" : "the server allows SFTP only";
  throw FileAccessException(why + ", so there is no " + program + " to run", FileAccessException::Code::RemoteError);
}

void SftpFileAccess::tar(ustring const& /*source*/, ustring const& /*archivePath*/) { refuseProgram("tar"); }

void SftpFileAccess::untar(ustring const& /*archivePath*/, ustring const& /*destinationFolder*/) {
  refuseProgram("tar");
}

void SftpFileAccess::zip(ustring const& /*source*/, ustring const& /*archivePath*/) { refuseProgram("zip"); }

void SftpFileAccess::unzip(ustring const& /*archivePath*/, ustring const& /*destinationFolder*/) {
  refuseProgram("unzip");
}

}  // namespace nimbal::remoteaccess::sshfileaccess
