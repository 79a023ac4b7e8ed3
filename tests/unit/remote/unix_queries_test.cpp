#include "sshfileaccess/UnixSSHFileAccess.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
using Queries = RecordingRemoteTest<>;

// ---- test commands ---------------------------------------------------------------

TEST_F(Queries, ExistsSendsTheTestLineAndIsTrueOnAnEchoedOne) {
  reply(u"1\n");
  EXPECT_TRUE(remote_->exists(u"/home/u/a b"));
  EXPECT_THAT(sent(), ElementsAre(u"test -e '/home/u/a b' && echo 1"));
}

TEST_F(Queries, ExistsOfAMissingPathIsFalseWithoutException) {
  reply(u"", u"", 1);
  EXPECT_FALSE(remote_->exists(u"/missing"));
  EXPECT_THAT(sent(), ElementsAre(u"test -e '/missing' && echo 1"));
}

TEST_F(Queries, ExistsWritesASingleQuoteAsQuoteBackslashQuoteQuote) {
  reply(u"1\n");
  EXPECT_TRUE(remote_->exists(u"/x/it's"));
  EXPECT_THAT(sent(), ElementsAre(u"test -e '/x/it'\\''s' && echo 1"));
}

TEST_F(Queries, IsFileAndIsDirUseTheirOwnFlags) {
  reply(u"1\n");
  reply(u"");
  EXPECT_TRUE(remote_->isFile(u"/f"));
  EXPECT_FALSE(remote_->isDir(u"/f"));
  EXPECT_THAT(sent(), ElementsAre(u"test -f '/f' && echo 1", u"test -d '/f' && echo 1"));
}

TEST_F(Queries, TestIsTrueOnlyWhenOutputStartsWithOne) {
  reply(u"Welcome to the host\n1\n");
  reply(u" 1\n");
  reply(u"1");
  reply(u"10");
  EXPECT_FALSE(remote_->exists(u"/a"));
  EXPECT_FALSE(remote_->exists(u"/a"));
  EXPECT_TRUE(remote_->exists(u"/a"));
  EXPECT_TRUE(remote_->exists(u"/a"));
}

TEST_F(Queries, TestIgnoresTheExitCodeButNotStandardError) {
  reply(u"1\n", u" \r\n", 7);
  EXPECT_TRUE(remote_->isDir(u"/a"));
  reply(u"1\n", u"sh: 1: test: unexpected operator\n", 2);
  expectRemoteError([&] { remote_->isDir(u"/a"); }, "sh: 1: test: unexpected operator\n");
}

TEST_F(Queries, RunTestCmdComposesFlagAndQuotedPath) {
  reply(u"1\n");
  EXPECT_TRUE(remote_->runTestCmd(u"-L", u"/l ink"));
  EXPECT_THAT(sent(), ElementsAre(u"test -L '/l ink' && echo 1"));
}

TEST_F(Queries, ListFormsOfTestsOfAnEmptyListSendNothing) {
  EXPECT_THAT(remote_->exists(Paths{}), IsEmpty());
  EXPECT_THAT(remote_->isFile(Paths{}), IsEmpty());
  EXPECT_THAT(remote_->isDir(Paths{}), IsEmpty());
  EXPECT_THAT(remote_->parent(Paths{}), IsEmpty());
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(Queries, ListFormsOfTestsSendOneLinePerPathInOrder) {
  reply(u"1\n");
  reply(u"");
  reply(u"1\n");
  EXPECT_THAT(remote_->isFile(Paths{u"/a", u"/b", u"/c"}), ElementsAre(true, false, true));
  EXPECT_THAT(sent(), ElementsAre(u"test -f '/a' && echo 1", u"test -f '/b' && echo 1", u"test -f '/c' && echo 1"));
}

TEST_F(Queries, ListFormOfTestsStopsAtTheFirstFailure) {
  reply(u"1\n");
  reply(u"", u"boom");
  expectRemoteError([&] { remote_->exists(Paths{u"/a", u"/b", u"/c"}); }, "boom");
  EXPECT_EQ(sent().size(), 2U);
}

// ---- parent ----------------------------------------------------------------------

TEST_F(Queries, ParentIsComputedFromTheTextAlone) {
  EXPECT_EQ(remote_->parent(u"/a/b"), u"/a");
  EXPECT_EQ(remote_->parent(u"name"), u"");
  EXPECT_EQ(remote_->parent(u"/a/b/"), u"/a");
  EXPECT_EQ(remote_->parent(u"/a//b"), u"/a");
  EXPECT_EQ(remote_->parent(u"/a"), u"/");
  EXPECT_EQ(remote_->parent(u"/"), u"");
  EXPECT_EQ(remote_->parent(u""), u"");
  EXPECT_EQ(remote_->parent(u"rel/x y"), u"rel");
  EXPECT_THAT(remote_->parent(Paths{u"/a/b", u"c", u"/d/e/f"}), ElementsAre(u"/a", u"", u"/d/e"));
  EXPECT_THAT(sent(), IsEmpty());
}

// ---- list ----------------------------------------------------------------------

TEST_F(Queries, ListWithAndWithoutTrailingSlashGiveTheSameEntries) {
  reply(u"a\nb c\n");
  reply(u"a\nb c\n");
  EXPECT_THAT(remote_->list(ustring(u"/d/")), ElementsAre(u"/d/a", u"/d/b c"));
  EXPECT_THAT(remote_->list(ustring(u"/d")), ElementsAre(u"/d/a", u"/d/b c"));
  EXPECT_THAT(sent(), ElementsAre(u"ls -1 '/d/'", u"ls -1 '/d'"));
}

TEST_F(Queries, ListOfAMissingDirectoryIsEmptyWithoutException) {
  reply(u"", u"ls: cannot access '/nope': No such file or directory\n", 2);
  EXPECT_THAT(remote_->list(ustring(u"/nope")), IsEmpty());
}

TEST_F(Queries, ListOfARegularFileRepeatsThePath) {
  reply(u"/d/f\n");
  EXPECT_THAT(remote_->list(ustring(u"/d/f")), ElementsAre(u"/d/f//d/f"));
}

TEST_F(Queries, ListOfADirectoryWithOnlyHiddenEntriesIsEmpty) {
  reply(u"");
  EXPECT_THAT(remote_->list(ustring(u"/d")), IsEmpty());
}

TEST_F(Queries, ANameWithALineFeedShowsAsTwoEntries) {
  reply(u"a\nb\n");
  EXPECT_THAT(remote_->list(ustring(u"/d")), ElementsAre(u"/d/a", u"/d/b"));
  reply(u"/d/a\nb\n");
  EXPECT_THAT(remote_->listRecursively(ustring(u"/d")), ElementsAre(u"/d/a", u"b"));
}

TEST_F(Queries, CarriageReturnsStayOnEveryEntryButTheLast) {
  reply(u"a\r\nb\r\nc\r\n");
  EXPECT_THAT(remote_->list(ustring(u"/d")), ElementsAre(u"/d/a\r", u"/d/b\r", u"/d/c"));
  reply(u"/d/a\r\n/d/b\r\n");
  EXPECT_THAT(remote_->listRecursively(ustring(u"/d")), ElementsAre(u"/d/a\r", u"/d/b"));
}

TEST_F(Queries, ListKeepsBlanksAndEmptyLinesInsideTheOutput) {
  reply(u"\n a \n\nb\n\n");
  EXPECT_THAT(remote_->list(ustring(u"/d")), ElementsAre(u"/d/ a ", u"/d/", u"/d/b"));
}

TEST_F(Queries, ListOfSeveralDirectoriesConcatenatesInOrder) {
  reply(u"x\ny\n");
  reply(u"");
  reply(u"z\n");
  EXPECT_THAT(remote_->list(Paths{u"/a", u"/b", u"/c/"}), ElementsAre(u"/a/x", u"/a/y", u"/c/z"));
  EXPECT_THAT(sent(), ElementsAre(u"ls -1 '/a'", u"ls -1 '/b'", u"ls -1 '/c/'"));
  EXPECT_THAT(remote_->list(Paths{}), IsEmpty());
  EXPECT_EQ(sent().size(), 3U);
}

TEST_F(Queries, NonVirtualListAppendsWithoutClearing) {
  reply(u"b\n");
  std::vector<ustring> out{u"kept"};
  remote_->list(u"/d", out);
  EXPECT_THAT(out, ElementsAre(u"kept", u"/d/b"));
}

// ---- listRecursively -------------------------------------------------------------

TEST_F(Queries, ListRecursivelyPacksAllPathsIntoOneFindLine) {
  reply(u"/a/1\n/a/2\n/b c/3\n", u"find: '/b c/x': Permission denied\n", 1);
  EXPECT_THAT(remote_->listRecursively(Paths{u"/a", u"/b c"}), ElementsAre(u"/a/1", u"/a/2", u"/b c/3"));
  EXPECT_THAT(sent(), ElementsAre(u"find '/a' '/b c' -type f"));
}

TEST_F(Queries, ListRecursivelyOfAnEmptyDirectoryIsEmpty) {
  reply(u"");
  EXPECT_THAT(remote_->listRecursively(ustring(u"/empty")), IsEmpty());
  EXPECT_THAT(sent(), ElementsAre(u"find '/empty' -type f"));
}

TEST_F(Queries, ListRecursivelyOfAnEmptyListSendsNothing) {
  EXPECT_THAT(remote_->listRecursively(Paths{}), IsEmpty());
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(Queries, ListRecursivelySpreadsManyPathsOverSeveralLinesKeepingOrder) {
  std::vector<ustring> paths;
  for (std::size_t i = 0; i < 3000; ++i) paths.push_back(u"/data/dir-" + number(i) + u"-" + repeated(20, u'q'));
  client_->responder = [](ustring const& command) {
    // Echo each operand as one found file, as find would for a file operand.
    ustring out;
    std::size_t open = command.find(u'\'');
    while (open != ustring::npos) {
      const std::size_t close = command.find(u'\'', open + 1);
      out += command.substr(open + 1, close - open - 1) + u"\n";
      open = command.find(u'\'', close + 1);
    }
    return foundation::sshclient::ExecuteCommandResult(0, out, {});
  };
  EXPECT_EQ(remote_->listRecursively(paths), paths);
  ASSERT_GT(sent().size(), 1U);
  for (auto const& line : sent()) {
    EXPECT_TRUE(line.starts_with(u"find '"));
    EXPECT_TRUE(line.ends_with(u"' -type f"));
    EXPECT_LE(line.size(), 32768U + 4U);
  }
}

TEST_F(Queries, ListRecursivelyOfAPathLongerThanTheLimitSendsTheSuffixAloneFirst) {
  const ustring longPath = u"/" + repeated(32800, u'p');
  reply(u"");
  reply(longPath + u"/f\n");
  EXPECT_THAT(remote_->listRecursively(longPath), ElementsAre(longPath + u"/f"));
  EXPECT_THAT(sent(), ElementsAre(u" -type f", u"find '" + longPath + u"' -type f"));
}

// ---- ownership -------------------------------------------------------------------------

TEST_F(Queries, MovingHandsTheClientOver) {
  UnixSSHFileAccess moved(std::move(*remote_));
  reply(u"1\n");
  EXPECT_TRUE(moved.exists(ustring(u"/m")));
  UnixSSHFileAccess assigned(std::make_unique<sshfa::testing::RecordingSSHClient>());
  assigned = std::move(moved);
  reply(u"");
  EXPECT_FALSE(assigned.isDir(ustring(u"/m")));
  EXPECT_THAT(sent(), ElementsAre(u"test -e '/m' && echo 1", u"test -d '/m' && echo 1"));
}

// ---- virtual dispatch between single and list forms ------------------------------

class OverridingSingles : public UnixSSHFileAccess {
 public:
  using UnixSSHFileAccess::exists;
  using UnixSSHFileAccess::isDir;
  using UnixSSHFileAccess::isFile;
  using UnixSSHFileAccess::listRecursively;
  using UnixSSHFileAccess::parent;
  using UnixSSHFileAccess::UnixSSHFileAccess;
  bool exists(ustring const& path) override { return path == u"yes"; }
  bool isFile(ustring const& path) override { return path == u"file"; }
  bool isDir(ustring const& path) override { return path == u"dir"; }
  ustring parent(ustring const& path) override { return u"parent of " + path; }
  std::vector<ustring> listRecursively(PathList const& paths) override {
    return {u"listed " + number(paths.size()) + u" " + paths.front()};
  }
};

using Dispatch = RecordingRemoteTest<OverridingSingles>;

TEST_F(Dispatch, ListFormsCallTheSingleFormsThroughTheVirtualSlot) {
  EXPECT_THAT(remote_->exists(Paths{u"yes", u"no"}), ElementsAre(true, false));
  EXPECT_THAT(remote_->isFile(Paths{u"file", u"dir"}), ElementsAre(true, false));
  EXPECT_THAT(remote_->isDir(Paths{u"file", u"dir"}), ElementsAre(false, true));
  EXPECT_THAT(remote_->parent(Paths{u"/a/b"}), ElementsAre(u"parent of /a/b"));
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(Dispatch, SingleListRecursivelyCallsTheListFormThroughTheVirtualSlot) {
  EXPECT_THAT(remote_->listRecursively(ustring(u"/x")), ElementsAre(u"listed 1 /x"));
  EXPECT_THAT(sent(), IsEmpty());
}

}  // namespace
