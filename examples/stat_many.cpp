// Size and modification time of many remote paths, asked in one batched call
// (a few stat command lines instead of one exchange per path).
//
//   stat_many HOST PORT USER PRIVATE_KEY KNOWN_HOSTS PATH...

#include <sshfileaccess/FileAccess.hpp>
#include <sshfileaccess/Utils.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstdio>
#include <exception>
#include <vector>

#include "Connect.hpp"

namespace sfa = nimbal::remoteaccess::sshfileaccess;

int main(int argc, char** argv) {
  if (argc < 1 + examples::kConnectionArguments + 1) {
    std::fprintf(stderr, "usage: stat_many %s PATH...\n", examples::kConnectionUsage);
    return 2;
  }
  try {
    auto access = examples::connect(argv + 1);
    std::vector<sfa::ustring> paths;
    for (int i = 1 + examples::kConnectionArguments; i < argc; ++i) paths.push_back(sfa::str2ustr(argv[i]));

    auto const infos = access->remote()->getFileInfo(paths);

    int missing = 0;
    for (std::size_t i = 0; i < paths.size(); ++i) {
      std::string const path = sfa::ustr2str(paths[i]);
      if (!infos[i]) {
        std::printf("%12s  %-20s  %s\n", "-", "missing", path.c_str());
        ++missing;
        continue;
      }
      std::string const time = boost::posix_time::to_iso_extended_string(infos[i]->lastWriteTime) + "Z";
      std::printf("%12llu  %-20s  %s\n", static_cast<unsigned long long>(infos[i]->size), time.c_str(), path.c_str());
    }
    std::printf("%zu paths, %d missing\n", paths.size(), missing);
    return 0;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "stat_many: %s\n", error.what());
    return 1;
  }
}
