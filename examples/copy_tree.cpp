// Copies a local folder tree to a remote host and back, then checks that
// every file came back with its size.
//
//   copy_tree HOST PORT USER PRIVATE_KEY KNOWN_HOSTS LOCAL_FOLDER REMOTE_FOLDER
//
// The copy that comes back lands in LOCAL_FOLDER.back; both copies stay.

#include <sshfileaccess/FileAccess.hpp>
#include <sshfileaccess/Utils.hpp>

#include <cstdio>
#include <exception>
#include <map>

#include "Connect.hpp"

namespace sfa = nimbal::remoteaccess::sshfileaccess;

namespace {

// Size of every regular file below `root`, by its path relative to `root`.
std::map<sfa::ustring, std::uint64_t> sizesBelow(sfa::FileAccessInterface& side, sfa::ustring const& root) {
  auto const files = side.listRecursively(root);
  auto const infos = side.getFileInfo(files);  // one call for all of them
  std::map<sfa::ustring, std::uint64_t> sizes;
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (infos[i]) sizes[files[i].substr(root.size())] = infos[i]->size;
  }
  return sizes;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 1 + examples::kConnectionArguments + 2) {
    std::fprintf(stderr, "usage: copy_tree %s LOCAL_FOLDER REMOTE_FOLDER\n", examples::kConnectionUsage);
    return 2;
  }
  try {
    auto access = examples::connect(argv + 1);
    sfa::ustring const local = sfa::str2ustr(argv[6]);
    sfa::ustring const remote = sfa::str2ustr(argv[7]);
    sfa::ustring const back = local + u".back";

    // The destination names the copy itself; missing folders are made.
    access->localToRemoteCopy(local, remote);
    access->remoteToLocalCopy(remote, back);

    auto const original = sizesBelow(*access->local(), local);
    auto const onRemote = sizesBelow(*access->remote(), remote);
    auto const returned = sizesBelow(*access->local(), back);
    std::printf("%zu files: %zu on the remote host, %zu back\n", original.size(), onRemote.size(), returned.size());
    if (original != onRemote || original != returned) {
      std::fprintf(stderr, "copy_tree: the copies differ from the original\n");
      return 1;
    }
    std::printf("all sizes match\n");
    return 0;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "copy_tree: %s\n", error.what());
    return 1;
  }
}
