#pragma once
// A tree that archives must keep as it is, and a snapshot to compare trees
// by: made and read with plain POSIX calls, so that the code under test is
// not used to check itself.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

namespace sshfa::testing {

namespace tree_detail {

inline void check(bool ok, std::string const& what, std::filesystem::path const& path) {
  if (!ok) throw std::runtime_error(what + " " + path.string() + " failed");
}

inline void setTimeAndMode(std::filesystem::path const& path, std::time_t seconds, mode_t mode) {
  check(::chmod(path.c_str(), mode) == 0, "chmod", path);
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  check(::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0, "utimensat", path);
}

inline std::string contentsOf(std::filesystem::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace tree_detail

// Makes `root` (which must not exist; its parent must) holding:
//   sub/ 0750 with f 0640, empty/ 0750 (empty), a.txt 0640,
//   lnk -> sub/f, dlnk -> sub (a link to a folder), dangling -> missing,
// each file and folder with a time of its own in 2001, `root` itself 0755.
inline void makeArchivableTree(std::filesystem::path const& root) {
  using tree_detail::check;
  using tree_detail::setTimeAndMode;
  for (auto const* folder : {"", "sub", "empty"}) {
    check(::mkdir((root / folder).c_str(), 0700) == 0, "mkdir", root / folder);
  }
  std::ofstream(root / "sub/f", std::ios::binary) << "sub file\n";
  std::ofstream(root / "a.txt", std::ios::binary) << "alpha\n";
  check(::symlink("sub/f", (root / "lnk").c_str()) == 0, "symlink", root / "lnk");
  check(::symlink("sub", (root / "dlnk").c_str()) == 0, "symlink", root / "dlnk");
  check(::symlink("missing", (root / "dangling").c_str()) == 0, "symlink", root / "dangling");
  // Files first, then folders from the bottom up: each write changes the time of its folder.
  setTimeAndMode(root / "sub/f", 981173106, 0640);
  setTimeAndMode(root / "a.txt", 981173107, 0640);
  setTimeAndMode(root / "sub", 981173108, 0750);
  setTimeAndMode(root / "empty", 981173109, 0750);
  setTimeAndMode(root, 981173110, 0755);
}

// What an archive must keep of every path at or below `root` (the root
// itself as "."), in name order: "dir MODE MTIME", "file MODE MTIME BYTES" or
// "link -> TARGET". Unlike treeSnapshot (TestFiles.hpp), times are in whole
// seconds, which is what tar and zip keep, a link's own time is left out,
// since unzip does not restore it, and the root is included.
inline std::map<std::string, std::string> archiveSnapshot(std::filesystem::path const& root) {
  std::map<std::string, std::string> entries;
  auto describe = [&](std::filesystem::path const& path) {
    struct stat st {};
    tree_detail::check(::lstat(path.c_str(), &st) == 0, "lstat", path);
    std::ostringstream what;
    if (S_ISLNK(st.st_mode)) {
      what << "link -> " << std::filesystem::read_symlink(path).string();
    } else {
      what << (S_ISDIR(st.st_mode)   ? "dir "
               : S_ISREG(st.st_mode) ? "file "
                                     : "other ")
           << std::oct << (st.st_mode & 07777) << std::dec << ' ' << st.st_mtim.tv_sec;
      if (S_ISREG(st.st_mode)) what << ' ' << tree_detail::contentsOf(path);
    }
    entries[path.lexically_relative(root).string()] = what.str();
  };
  describe(root);
  if (std::filesystem::is_directory(std::filesystem::symlink_status(root))) {
    for (auto const& entry : std::filesystem::recursive_directory_iterator(root)) describe(entry.path());
  }
  return entries;
}

}  // namespace sshfa::testing
