#pragma once
// Where the tool's queries (exists, isfile, isdir, stat, ls) find their
// answers: the list forms of a FileAccessInterface (the local side), or the
// remote host's SFTP files, where every query of a command is one batch of
// pipelined requests and every name travels as its bytes (a name with a line
// feed stays one name).
//
// Failures of the library propagate as exceptions; what a query finds
// wrong with one path is in its answer.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sshfileaccess/FileAccess.hpp"

namespace sshfa::cli {

using PathList = nimbal::remoteaccess::sshfileaccess::FileAccessInterface::PathList;

// Sizes and times: infos[i] answers paths[i]; without one, errors[i] says
// why when the path is not simply missing.
struct StatAnswer {
  std::vector<std::optional<nimbal::remoteaccess::sshfileaccess::FileInfo>> infos;
  std::vector<std::string> errors;
};

// ls: files as themselves, then the folders' entries (-R: the files below
// them), each in the order given.
struct ListAnswer {
  std::vector<fl::ustring> entries;
  std::vector<fl::ustring> missing;
  // What was left out, one line each ("'/R' lists a name that is not a plain
  // name, left out: '../x'").
  std::vector<std::string> warnings;
};

class Queries {
 public:
  virtual ~Queries() = default;
  // Links followed, as test does.
  virtual std::vector<bool> exists(PathList const& paths) = 0;
  virtual std::vector<bool> isFile(PathList const& paths) = 0;
  virtual std::vector<bool> isDir(PathList const& paths) = 0;
  // Whether anything is there, a link itself too (dangling or not).
  virtual std::vector<bool> present(PathList const& paths) = 0;
  virtual StatAnswer stat(PathList const& paths) = 0;
  // A folder by its entries: without hidden ones on the remote side, in the
  // order of their names; recursive: every regular file below it.
  virtual ListAnswer list(PathList const& paths, bool recursive) = 0;

 protected:
  Queries() = default;
  Queries(Queries const&) = default;
  Queries& operator=(Queries const&) = default;
};

std::unique_ptr<Queries> queriesOf(nimbal::remoteaccess::sshfileaccess::FileAccessInterface& side);
std::unique_ptr<Queries> queriesOf(foundation::sshclient::SftpFiles& files);

}  // namespace sshfa::cli
