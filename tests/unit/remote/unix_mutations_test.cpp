#include "sshfileaccess/UnixSSHFileAccess.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "sshfileaccess/Utils.hpp"
#include "tests/unit/remote/RecordingRemote.hpp"

namespace {

using namespace nimbal::remoteaccess::sshfileaccess;  // NOLINT(google-build-using-namespace)
using sshfa::testing::expectRemoteError;
using sshfa::testing::number;
using sshfa::testing::RecordingRemoteTest;
using sshfa::testing::repeated;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Paths = FileAccessInterface::PathList;
using Pairs = FileAccessInterface::PathPairs;
using Mutations = RecordingRemoteTest<>;

// Cuts chain lines back into their jobs.
std::vector<ustring> chainItems(std::vector<ustring> const& lines) {
  std::vector<ustring> items;
  for (auto const& line : lines) {
    std::size_t begin = 0;
    for (std::size_t and_ = line.find(u" && "); and_ != ustring::npos; and_ = line.find(u" && ", begin)) {
      items.push_back(line.substr(begin, and_ - begin));
      begin = and_ + 4;
    }
    items.push_back(line.substr(begin));
  }
  return items;
}

TEST_F(Mutations, EmptyListsSendNothing) {
  remote_->touch(Paths{});
  remote_->remove(Paths{});
  remote_->makeDir(Paths{});
  remote_->move(Pairs{});
  remote_->copy(Pairs{});
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(Mutations, RemoveOfOnePathSendsExactlyOneRmLine) {
  remote_->remove(ustring(u"/tmp/a b"));
  EXPECT_THAT(sent(), ElementsAre(u"rm -rf '/tmp/a b'"));
}

TEST_F(Mutations, TouchWritesASingleQuoteEscaped) {
  remote_->touch(ustring(u"/x/it's"));
  EXPECT_THAT(sent(), ElementsAre(u"touch '/x/it'\\''s'"));
}

TEST_F(Mutations, PathListsGoIntoOneLinePerCommandWord) {
  remote_->touch(Paths{u"/a", u"/b c"});
  remote_->remove(Paths{u"/a", u"/b c"});
  remote_->makeDir(Paths{u"/a", u"/b c"});
  remote_->makeDir(ustring(u"/$HOME/`x`"));
  EXPECT_THAT(sent(), ElementsAre(u"touch '/a' '/b c'", u"rm -rf '/a' '/b c'", u"mkdir -p '/a' '/b c'",
                                  u"mkdir -p '/$HOME/`x`'"));
}

TEST_F(Mutations, MakeDirOfAnExistingFolderAndRemoveOfAMissingPathSucceedSilently) {
  reply(u"", u"", 0);
  reply(u"", u"\n", 0);
  remote_->makeDir(ustring(u"/exists"));
  remote_->remove(ustring(u"/missing"));
  EXPECT_THAT(sent(), ElementsAre(u"mkdir -p '/exists'", u"rm -rf '/missing'"));
}

TEST_F(Mutations, ExitStatusIsNotConsultedOnlyStandardError) {
  reply(u"", u"", 1);
  remote_->touch(ustring(u"/a"));
  reply(u"", u"touch: cannot touch '/no/a': No such file or directory\n", 1);
  expectRemoteError([&] { remote_->touch(ustring(u"/no/a")); },
                    "touch: cannot touch '/no/a': No such file or directory\n");
}

TEST_F(Mutations, MoveIntoAMissingFolderFailsWithTheMvMessageAndMakesNoFolder) {
  reply(u"", u"mv: cannot move '/s/a' to '/new/a': No such file or directory\n", 1);
  expectRemoteError([&] { remote_->move(u"/s/a", u"/new/a"); },
                    "mv: cannot move '/s/a' to '/new/a': No such file or directory\n");
  EXPECT_THAT(sent(), ElementsAre(u"mv '/s/a' '/new/a'"));
}

TEST_F(Mutations, CopyOfTheSamePairMakesTheFolderFirst) {
  remote_->copy(u"/s/a", u"/new/a");
  EXPECT_THAT(sent(), ElementsAre(u"mkdir -p '/new'", u"cp -r '/s/a' '/new/a'"));
}

TEST_F(Mutations, CopyListMakesAllParentsThenChainsTheCopies) {
  remote_->copy(Pairs{{u"/s/a", u"/d/x/a"}, {u"/s/b", u"/e/b"}});
  EXPECT_THAT(sent(), ElementsAre(u"mkdir -p '/d/x' '/e'", u"cp -r '/s/a' '/d/x/a' && cp -r '/s/b' '/e/b'"));
}

TEST_F(Mutations, CopyKeepsDuplicatedParents) {
  remote_->copy(Pairs{{u"/s/a", u"/d/a"}, {u"/s/b", u"/d/b"}});
  EXPECT_THAT(sent(), ElementsAre(u"mkdir -p '/d' '/d'", u"cp -r '/s/a' '/d/a' && cp -r '/s/b' '/d/b'"));
}

TEST_F(Mutations, CopyStopsBeforeAnyCpWhenTheFoldersCannotBeMade) {
  reply(u"", u"mkdir: cannot create directory '/ro': Permission denied\n", 1);
  expectRemoteError([&] { remote_->copy(u"/s/a", u"/ro/a"); },
                    "mkdir: cannot create directory '/ro': Permission denied\n");
  EXPECT_THAT(sent(), ElementsAre(u"mkdir -p '/ro'"));
}

TEST_F(Mutations, CopyOfAMissingSourceFailsWithTheCpMessage) {
  reply(u"");
  reply(u"", u"cp: cannot stat '/s/none': No such file or directory\n", 1);
  expectRemoteError([&] { remote_->copy(u"/s/none", u"/d/none"); },
                    "cp: cannot stat '/s/none': No such file or directory\n");
}

TEST_F(Mutations, MoveListChainsTheMoves) {
  remote_->move(Pairs{{u"/s/a", u"/d/a"}, {u"/s/b", u"/d/b"}});
  EXPECT_THAT(sent(), ElementsAre(u"mv '/s/a' '/d/a' && mv '/s/b' '/d/b'"));
}

TEST_F(Mutations, DependentMovesKeepTheirOrderOnOneLine) {
  remote_->move(Pairs{{u"a", u"b"}, {u"b", u"c"}});
  EXPECT_THAT(sent(), ElementsAre(u"mv 'a' 'b' && mv 'b' 'c'"));
}

TEST_F(Mutations, DependentMovesKeepTheirOrderOnConsecutiveLines) {
  const ustring filler = repeated(32768 - 20, u'f');
  remote_->move(Pairs{{filler, u"x"}, {u"a", u"b"}, {u"b", u"c"}});
  ASSERT_EQ(sent().size(), 2U);
  EXPECT_EQ(sent()[0], u"mv '" + filler + u"' 'x'");
  EXPECT_EQ(sent()[1], u"mv 'a' 'b' && mv 'b' 'c'");
}

TEST_F(Mutations, ManyJobsAreSpreadOverLinesThatNeverStartWithAnd) {
  Pairs pairs;
  std::vector<ustring> expectedJobs;
  for (std::size_t i = 0; i < 2000; ++i) {
    const ustring source = u"/src/" + number(i) + repeated(10, u's');
    const ustring destination = u"/dst/sub" + number(i % 3) + repeated(20, u'p') + u"/" + number(i);
    pairs.emplace_back(source, destination);
    expectedJobs.push_back(u"cp -r '" + source + u"' '" + destination + u"'");
  }
  remote_->copy(pairs);
  ASSERT_GE(sent().size(), 4U);
  const auto mkdirEnd =
      std::find_if(sent().begin(), sent().end(), [](ustring const& line) { return !line.starts_with(u"mkdir -p "); });
  const std::vector<ustring> copyLines(mkdirEnd, sent().end());
  ASSERT_GT(copyLines.size(), 1U);
  ASSERT_GT(mkdirEnd - sent().begin(), 1);
  for (auto const& line : copyLines) {
    EXPECT_TRUE(line.starts_with(u"cp -r '"));
    EXPECT_FALSE(line.starts_with(u" && "));
    EXPECT_FALSE(line.ends_with(u" && "));
    EXPECT_LE(line.size(), 32768U);
  }
  EXPECT_EQ(chainItems(copyLines), expectedJobs);
}

TEST_F(Mutations, MoveJobsOverSeveralLinesStartWithMv) {
  Pairs pairs;
  for (std::size_t i = 0; i < 1500; ++i)
    pairs.emplace_back(u"/a/" + number(i) + repeated(20, u'm'), u"/b/" + number(i));
  remote_->move(pairs);
  ASSERT_GT(sent().size(), 1U);
  for (auto const& line : sent()) EXPECT_TRUE(line.starts_with(u"mv '"));
  const auto jobs = chainItems(sent());
  ASSERT_EQ(jobs.size(), pairs.size());
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    EXPECT_EQ(jobs[i], u"mv '" + pairs[i].first + u"' '" + pairs[i].second + u"'");
  }
}

TEST_F(Mutations, AJobLongerThanTheLimitFollowsAnEmptyLineThatIsSentToo) {
  const ustring longSource = u"/" + repeated(32800, u'j');
  remote_->move(longSource, u"/d");
  EXPECT_THAT(sent(), ElementsAre(u"", u"mv '" + longSource + u"' '/d'"));
}

TEST_F(Mutations, APathLongerThanTheLimitFollowsAnEmptyLineThatIsSentToo) {
  const ustring longPath = u"/" + repeated(32800, u'k');
  remote_->touch(Paths{u"/a", longPath});
  remote_->remove(longPath);
  EXPECT_THAT(sent(), ElementsAre(u"touch '/a'", u"touch '" + longPath + u"'", u"", u"rm -rf '" + longPath + u"'"));
}

TEST_F(Mutations, AFailingLineLeavesTheLaterLinesUnsent) {
  Paths paths;
  for (std::size_t i = 0; i < 3000; ++i) paths.push_back(u"/t/" + number(i) + repeated(20, u'x'));
  reply(u"", u"touch: cannot touch: Read-only file system\n");
  expectRemoteError([&] { remote_->touch(paths); }, "touch: cannot touch: Read-only file system\n");
  EXPECT_EQ(sent().size(), 1U);
}

TEST_F(Mutations, PathListPackingKeepsOrderWithNothingLostOrRepeated) {
  Paths paths;
  for (std::size_t i = 0; i < 5000; ++i) paths.push_back(u"/r/" + number(i));
  remote_->remove(paths);
  ASSERT_GT(sent().size(), 1U);
  ustring all;
  for (auto const& line : sent()) {
    ASSERT_TRUE(line.starts_with(u"rm -rf '"));
    all += line.substr(6);
  }
  EXPECT_EQ(all, nimbal::remoteaccess::sshfileaccess::quoted(paths));
}

// ---- virtual dispatch ----------------------------------------------------------------

class OverridingLists : public UnixSSHFileAccess {
 public:
  using UnixSSHFileAccess::copy;
  using UnixSSHFileAccess::makeDir;
  using UnixSSHFileAccess::move;
  using UnixSSHFileAccess::parent;
  using UnixSSHFileAccess::remove;
  using UnixSSHFileAccess::touch;
  using UnixSSHFileAccess::UnixSSHFileAccess;
  void touch(PathList const& paths) override { calls.push_back(u"touch " + paths.at(0)); }
  void remove(PathList const& paths) override { calls.push_back(u"remove " + paths.at(0)); }
  void makeDir(PathList const& paths) override {
    calls.push_back(u"makeDir " + number(paths.size()) + u" " + paths.at(0));
  }
  void move(PathPairs const& pairs) override {
    calls.push_back(u"move " + pairs.at(0).first + u" " + pairs.at(0).second);
  }
  std::vector<ustring> parent(PathList const& paths) override {
    return std::vector<ustring>(paths.size(), u"/overridden");
  }
  std::vector<ustring> calls;
};

using MutationDispatch = RecordingRemoteTest<OverridingLists>;

TEST_F(MutationDispatch, SingleFormsCallTheListFormsThroughTheVirtualSlot) {
  remote_->touch(ustring(u"/t"));
  remote_->remove(ustring(u"/r"));
  remote_->makeDir(ustring(u"/m"));
  remote_->move(u"/a", u"/b");
  EXPECT_THAT(remote_->calls, ElementsAre(u"touch /t", u"remove /r", u"makeDir 1 /m", u"move /a /b"));
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(MutationDispatch, CopyUsesParentAndMakeDirListFormsThroughTheVirtualSlot) {
  remote_->copy(u"/s/a", u"/d/a");
  EXPECT_THAT(remote_->calls, ElementsAre(u"makeDir 1 /overridden"));
  EXPECT_THAT(sent(), ElementsAre(u"cp -r '/s/a' '/d/a'"));
}

class OverridingCopyList : public UnixSSHFileAccess {
 public:
  using UnixSSHFileAccess::copy;
  using UnixSSHFileAccess::UnixSSHFileAccess;
  void copy(PathPairs const& pairs) override { copied = pairs; }
  PathPairs copied;
};

using CopyDispatch = RecordingRemoteTest<OverridingCopyList>;

TEST_F(CopyDispatch, SingleCopyCallsTheListFormThroughTheVirtualSlot) {
  remote_->copy(u"/s", u"/d");
  ASSERT_EQ(remote_->copied.size(), 1U);
  EXPECT_EQ(remote_->copied[0].first, u"/s");
  EXPECT_EQ(remote_->copied[0].second, u"/d");
  EXPECT_THAT(sent(), IsEmpty());
}

}  // namespace
