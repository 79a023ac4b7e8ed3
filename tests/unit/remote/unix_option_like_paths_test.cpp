// Relative paths that begin with '-': every tool gets them as "./" + path,
// so that none reads one as an option, and every answer names them as the
// caller wrote them. Other paths keep their command lines byte for byte.

#include "sshfileaccess/UnixSSHFileAccess.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/remote/RecordingRemote.hpp"

namespace {

using namespace nimbal::remoteaccess::sshfileaccess;  // NOLINT(google-build-using-namespace)
using sshfa::testing::RecordingRemoteTest;
using ::testing::ElementsAre;

using Paths = FileAccessInterface::PathList;
using Pairs = FileAccessInterface::PathPairs;
using OptionLikePaths = RecordingRemoteTest<>;

TEST_F(OptionLikePaths, TestsGetTheDotSlashForm) {
  reply(u"1\n");
  reply(u"");
  reply(u"1\n");
  EXPECT_TRUE(remote_->exists(u"-rf"));
  EXPECT_FALSE(remote_->isFile(u"-"));
  EXPECT_TRUE(remote_->isDir(u"--help"));
  EXPECT_THAT(sent(),
              ElementsAre(u"test -e './-rf' && echo 1", u"test -f './-' && echo 1", u"test -d './--help' && echo 1"));
}

TEST_F(OptionLikePaths, OtherPathsKeepTheirLines) {
  reply(u"1\n");
  reply(u"1\n");
  reply(u"1\n");
  reply(u"1\n");
  remote_->exists(u"/-rf");
  remote_->exists(u"./-rf");
  remote_->exists(u"a/-rf");
  remote_->exists(u" -rf");
  remote_->exists(u"");
  EXPECT_THAT(sent(), ElementsAre(u"test -e '/-rf' && echo 1", u"test -e './-rf' && echo 1",
                                  u"test -e 'a/-rf' && echo 1", u"test -e ' -rf' && echo 1", u"test -e '' && echo 1"));
}

TEST_F(OptionLikePaths, ListPrefixesTheCallersPath) {
  reply(u"-a\nb\n");
  EXPECT_THAT(remote_->list(u"-d"), ElementsAre(u"-d/-a", u"-d/b"));
  EXPECT_THAT(sent(), ElementsAre(u"ls -1 './-d'"));
}

TEST_F(OptionLikePaths, ListOfAFileRepeatsTheCallersPath) {
  // ls echoes a file operand as it was given.
  reply(u"./-f\n");
  reply(u"./-f\n");
  EXPECT_THAT(remote_->list(u"-f"), ElementsAre(u"-f/-f"));
  EXPECT_THAT(remote_->list(u"./-f"), ElementsAre(u"./-f/./-f"));
  EXPECT_THAT(sent(), ElementsAre(u"ls -1 './-f'", u"ls -1 './-f'"));
}

TEST_F(OptionLikePaths, FindLinesComeBackInTheCallersForm) {
  reply(u"./-delete/a\n./-delete/-x/b\n/abs/c\n-plain/d\n./-\n");
  EXPECT_THAT(remote_->listRecursively(Paths{u"-delete", u"/abs", u"-"}),
              ElementsAre(u"-delete/a", u"-delete/-x/b", u"/abs/c", u"-plain/d", u"-"));
  EXPECT_THAT(sent(), ElementsAre(u"find './-delete' '/abs' './-' -type f"));
}

TEST_F(OptionLikePaths, FindLinesOfAPathTheCallerWroteWithDotSlashStayAsTheyAre) {
  reply(u"./-x/a\n./-y/b\n");
  EXPECT_THAT(remote_->listRecursively(Paths{u"./-x", u"-y"}), ElementsAre(u"./-x/a", u"-y/b"));
  EXPECT_THAT(sent(), ElementsAre(u"find './-x' './-y' -type f"));
}

TEST_F(OptionLikePaths, FindOfAStartPathWithATrailingSlash) {
  reply(u"./-exec/a\n");
  EXPECT_THAT(remote_->listRecursively(u"-exec/"), ElementsAre(u"-exec/a"));
  EXPECT_THAT(sent(), ElementsAre(u"find './-exec/' -type f"));
}

TEST_F(OptionLikePaths, FindLinesOfOtherPathsAreUntouched) {
  reply(u"./-x/a\n");
  EXPECT_THAT(remote_->listRecursively(u"."), ElementsAre(u"./-x/a"));
  EXPECT_THAT(sent(), ElementsAre(u"find '.' -type f"));
}

TEST_F(OptionLikePaths, StatNamesPairWithTheRequestedPaths) {
  reply(u"3 100 ./-rf\n4 200 /abs\n5 300 ./-\n");
  auto const infos = remote_->getFileInfo(Paths{u"-rf", u"/abs", u"-missing", u"-"});
  EXPECT_THAT(sent(), ElementsAre(u"stat -c '%s %Y %n' './-rf' '/abs' './-missing' './-'"));
  ASSERT_EQ(infos.size(), 4U);
  ASSERT_TRUE(infos[0]);
  EXPECT_EQ(infos[0]->path, u"-rf");
  EXPECT_EQ(infos[0]->size, 3U);
  ASSERT_TRUE(infos[1]);
  EXPECT_EQ(infos[1]->path, u"/abs");
  EXPECT_FALSE(infos[2]);
  ASSERT_TRUE(infos[3]);
  EXPECT_EQ(infos[3]->path, u"-");
  EXPECT_EQ(infos[3]->size, 5U);
}

TEST_F(OptionLikePaths, AStatNameWithoutTheDotSlashIsNotTheRequestedPath) {
  reply(u"3 100 -rf\n");
  EXPECT_FALSE(remote_->getFileInfo(u"-rf"));
}

TEST_F(OptionLikePaths, PathListMutations) {
  remote_->touch(Paths{u"-rf", u"/a"});
  remote_->remove(u"-rf");
  remote_->makeDir(Paths{u"--help", u"-"});
  EXPECT_THAT(sent(), ElementsAre(u"touch './-rf' '/a'", u"rm -rf './-rf'", u"mkdir -p './--help' './-'"));
}

TEST_F(OptionLikePaths, CopyAndMoveProtectSourceDestinationAndParents) {
  remote_->copy(Pairs{{u"-exec", u"-delete/-x"}, {u"a", u"-b"}});
  remote_->move(Pairs{{u"-s", u"/d"}, {u"/e", u"-t"}});
  EXPECT_THAT(sent(), ElementsAre(u"mkdir -p './-delete' ''", u"cp -r './-exec' './-delete/-x' && cp -r 'a' './-b'",
                                  u"mv './-s' '/d' && mv '/e' './-t'"));
}

TEST_F(OptionLikePaths, PackingProtectsTheFolderTheArchiveAndTheName) {
  remote_->tar(u"-src/-data", u"-out.tar");
  remote_->zip(u"-data", u"-out.zip");
  remote_->tar(u"/abs/-data", u"/abs/o.tar");
  EXPECT_THAT(sent(),
              ElementsAre(u"cd './-src' && tar -cf './-out.tar' './-data'", u"cd '' && zip -r './-out.zip' './-data'",
                          u"cd '/abs' && tar -cf '/abs/o.tar' './-data'"));
}

TEST_F(OptionLikePaths, UnpackingProtectsTheArchiveAndTheFolder) {
  remote_->untar(u"-in.tar", u"-out");
  remote_->unzip(u"-in.zip", u"-out");
  EXPECT_THAT(sent(), ElementsAre(u"cd './-out' && tar -xf './-in.tar'", u"unzip './-in.zip' -d './-out'"));
}

}  // namespace
