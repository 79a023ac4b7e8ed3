// Large lists: one answer per path, in order, over many packed command lines.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "tests/integration/remote/RemoteHost.hpp"

namespace sshfa::testing {
namespace {

ustring number(std::size_t value) { return str2ustr(std::to_string(value)); }

using Scale = RemoteHostTest;

// 10,000 files f0, f2, ..., f19998 whose content is their number; the odd
// numbers are missing.
TEST_F(Scale, GetFileInfoOf20000PathsHalfMissing) {
  run(u"cd " + hostWord(dir_) +
      u" && i=0 && while [ $i -lt 20000 ]; do printf %s $i > \"file $i\"; i=$((i + 2)); done");
  const auto mtime = boost::posix_time::from_time_t(static_cast<std::time_t>(hostMtime(at(u"file 0"))));

  Paths paths;
  for (std::size_t i = 0; i < 20000; ++i) paths.push_back(at(u"file " + number(i)));
  const auto infos = remote_->getFileInfo(paths);

  ASSERT_EQ(infos.size(), paths.size());
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (i % 2 == 1) {
      ASSERT_FALSE(infos[i].has_value()) << i;
      continue;
    }
    ASSERT_TRUE(infos[i].has_value()) << i;
    EXPECT_EQ(infos[i]->path, paths[i]);
    EXPECT_EQ(infos[i]->size, std::to_string(i).size()) << i;
    // Written within a few seconds of the first one.
    EXPECT_LE((infos[i]->lastWriteTime - mtime).total_seconds(), 30) << i;
  }
}

// 50 folders of 1,000 files, plus one empty folder and one hidden file.
TEST_F(Scale, ListRecursivelyOfA50000FileTreeReturnsEveryFileOnce) {
  run(u"cd " + hostWord(dir_) +
      u" && mkdir tree && cd tree && mkdir empty && : > .hidden && for d in $(seq 0 49); do mkdir \"d $d\" && "
      u"(cd \"d $d\" && seq -f 'f%g' 0 999 | xargs touch); done && rm \"d 0/f0\"");

  const auto files = remote_->listRecursively(at(u"tree"));
  EXPECT_EQ(files.size(), 50000U);

  std::set<ustring> expected{at(u"tree/.hidden")};
  for (std::size_t d = 0; d < 50; ++d) {
    for (std::size_t i = 0; i < 1000; ++i) {
      if (d != 0 || i != 0) expected.insert(at(u"tree/d " + number(d) + u"/f" + number(i)));
    }
  }
  const std::set<ustring> seen(files.begin(), files.end());
  EXPECT_EQ(seen.size(), files.size()) << "an entry was repeated";
  EXPECT_TRUE(seen == expected);

  // File operands come back as themselves, in operand order, over many lines.
  Paths operands;
  for (std::size_t d = 1; d < 21; ++d) {
    for (std::size_t i = 0; i < 1000; ++i) operands.push_back(at(u"tree/d " + number(d) + u"/f" + number(i)));
  }
  EXPECT_TRUE(remote_->listRecursively(operands) == operands);
}

}  // namespace
}  // namespace sshfa::testing
