// Behaviour of every operation against the real host: what the tools do with
// the exact command lines, and how their complaints reach the caller.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/integration/remote/RemoteHost.hpp"

namespace sshfa::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

TEST(Construction, TheHostConstructorPassesTheClientsExceptionThrough) {
  // Nothing listens on port 1.
  EXPECT_THROW(UnixSSHFileAccess(u"127.0.0.1", 1, TestSshd::instance().auth()), foundation::sshclient::SSHError);
}

using Queries = RemoteHostTest;

TEST_F(Queries, ExistsOfAMissingPathIsFalse) {
  EXPECT_FALSE(remote_->exists(at(u"missing")));
  EXPECT_FALSE(remote_->isFile(at(u"missing")));
  EXPECT_FALSE(remote_->isDir(at(u"missing")));
}

TEST_F(Queries, IsDirFollowsASymbolicLinkAndIsFileOfAFolderIsFalse) {
  hostMakeDir(at(u"real dir"));
  hostWrite(at(u"real file"), "x");
  run(u"ln -s " + hostWord(at(u"real dir")) + u" " + hostWord(at(u"dir link")));
  run(u"ln -s " + hostWord(at(u"nowhere")) + u" " + hostWord(at(u"dangling")));
  EXPECT_TRUE(remote_->isDir(at(u"dir link")));
  EXPECT_FALSE(remote_->isFile(at(u"dir link")));
  EXPECT_FALSE(remote_->isFile(at(u"real dir")));
  EXPECT_TRUE(remote_->isFile(at(u"real file")));
  EXPECT_FALSE(remote_->exists(at(u"dangling")));
  EXPECT_THAT(remote_->isDir(Paths{at(u"real dir"), at(u"real file"), at(u"dir link"), at(u"x")}),
              ElementsAre(true, false, true, false));
}

TEST_F(Queries, ListOfAFolderWithAndWithoutTrailingSlash) {
  hostWrite(at(u"b"), "");
  hostWrite(at(u"a"), "");
  hostMakeDir(at(u"c"));
  EXPECT_THAT(remote_->list(dir_), ElementsAre(at(u"a"), at(u"b"), at(u"c")));
  EXPECT_THAT(remote_->list(dir_ + u"/"), ElementsAre(at(u"a"), at(u"b"), at(u"c")));
}

TEST_F(Queries, ListOfAMissingFolderIsEmpty) { EXPECT_THAT(remote_->list(at(u"missing")), IsEmpty()); }

TEST_F(Queries, ListOfARegularFileRepeatsThePath) {
  hostWrite(at(u"f"), "");
  EXPECT_THAT(remote_->list(at(u"f")), ElementsAre(at(u"f") + u"/" + at(u"f")));
}

TEST_F(Queries, ListLeavesOutHiddenEntries) {
  hostWrite(at(u".hidden"), "");
  hostMakeDir(at(u".hidden dir"));
  EXPECT_THAT(remote_->list(dir_), IsEmpty());
  EXPECT_THAT(remote_->listRecursively(dir_), ElementsAre(at(u".hidden")));
}

TEST_F(Queries, ListOfSeveralFoldersConcatenatesInOrder) {
  hostMakeDir(at(u"one"));
  hostWrite(at(u"one/x"), "");
  hostMakeDir(at(u"two"));
  hostWrite(at(u"two/y"), "");
  EXPECT_THAT(remote_->list(Paths{at(u"two"), at(u"missing"), at(u"one")}), ElementsAre(at(u"two/y"), at(u"one/x")));
}

TEST_F(Queries, ListRecursivelyListsFilesOnlyAndKeepsThePathsOrder) {
  run(u"cd " + hostWord(dir_) + u" && mkdir -p a/b/c empty z && : > a/1 && : > a/b/2 && : > a/b/c/3 && : > z/4");
  EXPECT_THAT(remote_->listRecursively(at(u"empty")), IsEmpty());
  EXPECT_THAT(remote_->listRecursively(at(u"missing")), IsEmpty());
  EXPECT_THAT(remote_->listRecursively(at(u"a")), UnorderedElementsAre(at(u"a/1"), at(u"a/b/2"), at(u"a/b/c/3")));
  const auto both = remote_->listRecursively(Paths{at(u"z"), at(u"a")});
  ASSERT_EQ(both.size(), 4U);
  EXPECT_EQ(both[0], at(u"z/4"));
  // Entries start with the path as written.
  EXPECT_THAT(remote_->listRecursively(at(u"a/../a/b")), UnorderedElementsAre(at(u"a/../a/b/2"), at(u"a/../a/b/c/3")));
}

TEST_F(Queries, ParentSendsNothing) {
  EXPECT_EQ(remote_->parent(at(u"x/y")), at(u"x"));
  EXPECT_EQ(remote_->parent(u"noslash"), u"");
}

using FileInfoOnHost = RemoteHostTest;

TEST_F(FileInfoOnHost, ExistingMissingExisting) {
  hostWrite(at(u"a"), "123");
  hostWrite(at(u"a b  c"), "1234567");
  run(u"touch -d @0 " + hostWord(at(u"a")) + u" && touch -d @-86400 " + hostWord(at(u"a b  c")));
  const auto infos = remote_->getFileInfo(Paths{at(u"a"), at(u"missing"), at(u"a b  c"), at(u"a")});
  ASSERT_EQ(infos.size(), 4U);
  ASSERT_TRUE(infos[0].has_value());
  EXPECT_EQ(infos[0]->size, 3U);
  EXPECT_EQ(infos[0]->lastWriteTime, boost::posix_time::ptime(boost::gregorian::date(1970, 1, 1)));
  EXPECT_FALSE(infos[1].has_value());
  ASSERT_TRUE(infos[2].has_value());
  EXPECT_EQ(infos[2]->path, at(u"a b  c"));
  EXPECT_EQ(infos[2]->size, 7U);
  EXPECT_EQ(infos[2]->lastWriteTime, boost::posix_time::ptime(boost::gregorian::date(1969, 12, 31)));
  ASSERT_TRUE(infos[3].has_value());
  EXPECT_EQ(infos[3]->size, 3U);
}

TEST_F(FileInfoOnHost, OneMissingPathIsEmpty) { EXPECT_FALSE(remote_->getFileInfo(at(u"missing")).has_value()); }

TEST_F(FileInfoOnHost, AFolderHasInfoToo) {
  hostMakeDir(at(u"d"));
  const auto info = remote_->getFileInfo(at(u"d"));
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->lastWriteTime, boost::posix_time::from_time_t(static_cast<std::time_t>(hostMtime(at(u"d")))));
}

using Mutations = RemoteHostTest;

TEST_F(Mutations, RemoveOfAMissingPathAndMakeDirOfAnExistingFolderSucceedSilently) {
  hostMakeDir(at(u"d"));
  hostWrite(at(u"d/keep"), "k");
  remote_->remove(at(u"missing"));
  remote_->remove(Paths{at(u"missing"), at(u"missing/deeper")});
  remote_->makeDir(at(u"d"));
  EXPECT_EQ(hostRead(at(u"d/keep")), u"k");
}

TEST_F(Mutations, MakeDirCreatesEveryMissingFolderAbove) {
  remote_->makeDir(Paths{at(u"a/b/c"), at(u"x y/z")});
  EXPECT_TRUE(hostIsDir(at(u"a/b/c")));
  EXPECT_TRUE(hostIsDir(at(u"x y/z")));
}

TEST_F(Mutations, RemoveDeletesFoldersWithTheirContents) {
  run(u"cd " + hostWord(dir_) + u" && mkdir -p t/u && : > t/u/f && : > g");
  remote_->remove(Paths{at(u"t"), at(u"g")});
  EXPECT_EQ(hostCount(dir_), 0U);
}

TEST_F(Mutations, TouchCreatesEmptyFilesAndKeepsContents) {
  hostWrite(at(u"old"), "content");
  run(u"touch -d @1000 " + hostWord(at(u"old")));
  remote_->touch(Paths{at(u"old"), at(u"new")});
  EXPECT_EQ(hostRead(at(u"old")), u"content");
  EXPECT_GT(hostMtime(at(u"old")), 1000);
  EXPECT_TRUE(hostIsFile(at(u"new")));
}

TEST_F(Mutations, TouchIntoAMissingFolderFailsWithTouchsMessage) {
  const std::string message = remoteErrorOf([&] { remote_->touch(at(u"missing/f")); });
  EXPECT_THAT(message, StartsWith("touch: "));
  EXPECT_THAT(message, HasSubstr(ustr2str(at(u"missing/f"))));
}

TEST_F(Mutations, ABadPathAmongGoodOnesStillLetsTheGoodOnesTakeEffect) {
  const std::string message = remoteErrorOf([&] { remote_->touch(Paths{at(u"a"), at(u"missing/f"), at(u"b")}); });
  EXPECT_THAT(message, HasSubstr(ustr2str(at(u"missing/f"))));
  EXPECT_TRUE(hostIsFile(at(u"a")));
  EXPECT_TRUE(hostIsFile(at(u"b")));
}

TEST_F(Mutations, MoveIntoAMissingFolderFailsButCopyMakesIt) {
  hostWrite(at(u"s"), "data");
  const std::string message = remoteErrorOf([&] { remote_->move(at(u"s"), at(u"new/s")); });
  EXPECT_THAT(message, StartsWith("mv: "));
  EXPECT_THAT(message, HasSubstr(ustr2str(at(u"new/s"))));
  EXPECT_FALSE(hostExists(at(u"new")));
  remote_->copy(at(u"s"), at(u"new/s"));
  EXPECT_EQ(hostRead(at(u"new/s")), u"data");
  EXPECT_EQ(hostRead(at(u"s")), u"data");
}

TEST_F(Mutations, CopyOfAMissingSourceFailsWithCpsMessage) {
  const std::string message = remoteErrorOf([&] { remote_->copy(at(u"none"), at(u"d/none")); });
  EXPECT_THAT(message, StartsWith("cp: "));
  EXPECT_THAT(message, HasSubstr(ustr2str(at(u"none"))));
  EXPECT_TRUE(hostIsDir(at(u"d")));  // the folder was made before cp ran
}

TEST_F(Mutations, CopyOfAFolderIsRecursiveAndIntoAnExistingFolderNestsIt) {
  run(u"cd " + hostWord(dir_) + u" && mkdir -p src/in dst && echo 1 > src/in/f");
  remote_->copy(at(u"src"), at(u"copy"));
  EXPECT_EQ(hostRead(at(u"copy/in/f")), u"1\n");
  remote_->copy(at(u"src"), at(u"dst"));
  EXPECT_EQ(hostRead(at(u"dst/src/in/f")), u"1\n");
}

TEST_F(Mutations, AFailingChainStopsAtTheFailingJob) {
  hostWrite(at(u"a"), "a");
  hostWrite(at(u"c"), "c");
  const std::string message = remoteErrorOf([&] {
    remote_->move(Pairs{{at(u"a"), at(u"a2")}, {at(u"b"), at(u"b2")}, {at(u"c"), at(u"c2")}});
  });
  EXPECT_THAT(message, StartsWith("mv: "));
  EXPECT_TRUE(hostExists(at(u"a2")));
  EXPECT_TRUE(hostExists(at(u"c")));
  EXPECT_FALSE(hostExists(at(u"c2")));
}

TEST_F(Mutations, DependentMovesWorkOnOneLineAndOverConsecutiveLines) {
  hostWrite(at(u"a"), "moved");
  remote_->move(Pairs{{at(u"a"), at(u"b")}, {at(u"b"), at(u"c")}});
  EXPECT_EQ(hostRead(at(u"c")), u"moved");

  // 1200 jobs of ~80 code units each need several lines; the chain a0 -> a1 ->
  // ... -> a1199 only works if every job runs after the one before it.
  Pairs chain;
  const ustring longName = at(u"chain-" + ustring(40, u'n') + u"-");
  hostWrite(longName + u"0", "chained");
  for (int i = 0; i < 1200; ++i) {
    chain.emplace_back(longName + str2ustr(std::to_string(i)), longName + str2ustr(std::to_string(i + 1)));
  }
  remote_->move(chain);
  EXPECT_EQ(hostRead(longName + u"1200"), u"chained");
  EXPECT_EQ(hostCount(dir_), 2U);
}

TEST_F(Mutations, ManyPathsOverSeveralLinesAreAllHandled) {
  Paths paths;
  for (int i = 0; i < 3000; ++i) paths.push_back(at(u"many-" + ustring(20, u'm') + str2ustr(std::to_string(i))));
  remote_->touch(paths);
  EXPECT_EQ(hostCount(dir_), 3000U);
  EXPECT_THAT(remote_->isFile(Paths{paths.front(), paths.back()}), ElementsAre(true, true));

  Pairs copies;
  for (auto const& path : paths) copies.emplace_back(path, at(u"copies/" + path.substr(dir_.size() + 1)));
  remote_->copy(copies);
  EXPECT_EQ(hostCount(at(u"copies")), 3000U);

  remote_->remove(paths);
  EXPECT_EQ(hostCount(dir_), 3001U);
}

using Archives = RemoteHostTest;

TEST_F(Archives, TarAndUntarRoundTripAFolderUnderItsOwnName) {
  run(u"cd " + hostWord(dir_) +
      u" && mkdir -p 'my data/sub' && echo a > 'my data/a.txt' && echo b > 'my data/sub/b.txt'");
  remote_->tar(at(u"my data"), at(u"d.tar"));
  EXPECT_EQ(run(u"tar -tf " + hostWord(at(u"d.tar")) + u" | sort"),
            u"my data/\nmy data/a.txt\nmy data/sub/\nmy data/sub/b.txt\n");
  remote_->makeDir(at(u"out"));
  remote_->untar(at(u"d.tar"), at(u"out"));
  EXPECT_EQ(hostRead(at(u"out/my data/sub/b.txt")), u"b\n");
}

TEST_F(Archives, ZipAndUnzipRoundTripAFolderUnderItsOwnName) {
  run(u"cd " + hostWord(dir_) + u" && mkdir -p 'it'\\''s/sub' && echo b > 'it'\\''s/sub/b.txt'");
  remote_->zip(at(u"it's"), at(u"d.zip"));
  remote_->unzip(at(u"d.zip"), at(u"out"));
  EXPECT_EQ(hostRead(at(u"out/it's/sub/b.txt")), u"b\n");
}

TEST_F(Archives, ARelativeArchivePathIsTakenFromTheSourcesParent) {
  hostMakeDir(at(u"p/src"));
  hostWrite(at(u"p/src/f"), "f");
  remote_->tar(at(u"p/src"), u"rel.tar");
  EXPECT_TRUE(hostIsFile(at(u"p/rel.tar")));
}

TEST_F(Archives, UntarOfAnArchiveWithAWarningSucceeds) {
  hostMakeDir(at(u"src"));
  hostWrite(at(u"src/future"), "f");
  run(u"touch -d 2099-01-01 " + hostWord(at(u"src/future")));
  remote_->tar(at(u"src"), at(u"f.tar"));
  remote_->makeDir(at(u"out"));
  // tar warns about the time stamp in the future and exits 0.
  const auto direct = remote_->execute(u"cd " + hostWord(at(u"out")) + u" && tar -xf " + hostWord(at(u"f.tar")));
  ASSERT_THAT(ustr2str(direct.getStderr()), HasSubstr("in the future"));
  ASSERT_EQ(direct.getExitcode(), 0);
  remote_->untar(at(u"f.tar"), at(u"out"));
  EXPECT_EQ(hostRead(at(u"out/src/future")), u"f");
}

TEST_F(Archives, TarThatWarnsFailsWithTheWarning) {
  hostMakeDir(at(u"src"));
  run(u"perl -MIO::Socket::UNIX -e 'IO::Socket::UNIX->new(Type => SOCK_STREAM(), Local => $ARGV[0], Listen => 1) "
      u"or die' " +
      hostWord(at(u"src/sock")));
  const std::string message = remoteErrorOf([&] { remote_->tar(at(u"src"), at(u"s.tar")); });
  EXPECT_EQ(message, "tar: src/sock: socket ignored\n");
  EXPECT_TRUE(hostIsFile(at(u"s.tar")));  // written all the same
}

TEST_F(Archives, TarOfAMissingSourceFailsWithTarsMessage) {
  const std::string message = remoteErrorOf([&] { remote_->tar(at(u"none"), at(u"n.tar")); });
  EXPECT_THAT(message, HasSubstr("tar: none: Cannot stat: No such file or directory"));
}

TEST_F(Archives, TarIntoAMissingFolderFailsWithTarsMessage) {
  hostMakeDir(at(u"src"));
  const std::string message = remoteErrorOf([&] { remote_->tar(at(u"src"), at(u"missing/n.tar")); });
  EXPECT_THAT(message, StartsWith("tar: "));
  EXPECT_THAT(message, HasSubstr("missing/n.tar"));
}

TEST_F(Archives, PackingFromAMissingParentFailsWithTheShellsCdMessage) {
  const std::string message = remoteErrorOf([&] { remote_->zip(at(u"missing/src"), at(u"n.zip")); });
  EXPECT_THAT(message, HasSubstr("cd"));
  EXPECT_THAT(message, HasSubstr(ustr2str(at(u"missing"))));
}

// zip reports a missing source on standard output (and exits 12), so the
// operation, which judges standard error alone, returns without an archive.
TEST_F(Archives, ZipOfAMissingSourceWritesNothingAndReportsOnStandardOutputOnly) {
  remote_->zip(at(u"none"), at(u"n.zip"));
  EXPECT_FALSE(hostExists(at(u"n.zip")));
  const auto direct = remote_->execute(u"cd " + hostWord(dir_) + u" && zip -r n.zip none");
  EXPECT_EQ(direct.getExitcode(), 12);
  EXPECT_THAT(ustr2str(direct.getStdout()), HasSubstr("name not matched: none"));
  EXPECT_EQ(direct.getStderr(), u"");
}

TEST_F(Archives, ZipOfAnUnreadableFileFailsWithZipsWarning) {
  hostMakeDir(at(u"src"));
  run(u"perl -MIO::Socket::UNIX -e 'IO::Socket::UNIX->new(Type => SOCK_STREAM(), Local => $ARGV[0], Listen => 1) "
      u"or die' " +
      hostWord(at(u"src/sock")));
  EXPECT_THAT(remoteErrorOf([&] { remote_->zip(at(u"src"), at(u"s.zip")); }), StartsWith("zip warning: "));
}

TEST_F(Archives, UntarIntoAMissingFolderFailsWithTheCdMessageAndMakesNothing) {
  hostMakeDir(at(u"src"));
  remote_->tar(at(u"src"), at(u"s.tar"));
  const std::string message = remoteErrorOf([&] { remote_->untar(at(u"s.tar"), at(u"missing")); });
  EXPECT_THAT(message, HasSubstr("cd"));
  EXPECT_THAT(message, HasSubstr(ustr2str(at(u"missing"))));
  EXPECT_FALSE(hostExists(at(u"missing")));
}

TEST_F(Archives, UntarOfAMissingArchiveFailsWithTarsMessage) {
  const std::string message = remoteErrorOf([&] { remote_->untar(at(u"none.tar"), dir_); });
  EXPECT_THAT(message, HasSubstr("tar: "));
  EXPECT_THAT(message, HasSubstr("none.tar"));
}

TEST_F(Archives, UnzipIntoAMissingFolderCreatesIt) {
  hostMakeDir(at(u"src"));
  hostWrite(at(u"src/f"), "f");
  remote_->zip(at(u"src"), at(u"s.zip"));
  remote_->unzip(at(u"s.zip"), at(u"new"));
  EXPECT_EQ(hostRead(at(u"new/src/f")), u"f");
  // Only the last folder is made.
  EXPECT_THAT(remoteErrorOf([&] { remote_->unzip(at(u"s.zip"), at(u"none/deeper")); }),
              HasSubstr("cannot create extraction directory"));
}

TEST_F(Archives, UnzipOfAMissingOrBrokenArchiveFailsWithUnzipsMessage) {
  EXPECT_THAT(remoteErrorOf([&] { remote_->unzip(at(u"none.zip"), at(u"out")); }), HasSubstr("cannot find or open"));
  hostWrite(at(u"broken.zip"), "not a zip archive");
  EXPECT_THAT(remoteErrorOf([&] { remote_->unzip(at(u"broken.zip"), at(u"out")); }), StartsWith("  End-of-central"));
}

TEST_F(Archives, UnzipOverAnExistingFileFailsWithoutInput) {
  hostMakeDir(at(u"src"));
  hostWrite(at(u"src/f"), "new");
  remote_->zip(at(u"src"), at(u"s.zip"));
  hostMakeDir(at(u"out/src"));
  hostWrite(at(u"out/src/f"), "old");
  const std::string message = remoteErrorOf([&] { remote_->unzip(at(u"s.zip"), at(u"out")); });
  EXPECT_THAT(message, HasSubstr("replace"));
  EXPECT_EQ(hostRead(at(u"out/src/f")), u"old");
  // The connection is still usable afterwards: unzip did not eat later input.
  EXPECT_TRUE(remote_->isFile(at(u"out/src/f")));
}

// Commands run in the login folder: a source without a folder part is packed
// from there (its parent is empty, and "cd ''" stays put), unzip reads a
// relative archive path from there, and untar reads it from the destination.
class RelativePaths : public RemoteHostTest {
 protected:
  void SetUp() override {
    RemoteHostTest::SetUp();
    inHome_ = u"sshfa-remote-test-" + dir_.substr(dir_.rfind(u'/') + 1);
  }
  void TearDown() override { remote_->remove(Paths{inHome_, inHome_ + u".zip"}); }
  ustring inHome_;
};

TEST_F(RelativePaths, PackingASourceWithoutFolderPartWorksFromTheLoginFolder) {
  remote_->makeDir(inHome_ + u"/sub");
  remote_->touch(inHome_ + u"/sub/f");
  EXPECT_EQ(remote_->parent(inHome_), u"");
  remote_->tar(inHome_, at(u"home.tar"));
  EXPECT_EQ(run(u"tar -tf " + hostWord(at(u"home.tar")) + u" | sort"),
            inHome_ + u"/\n" + inHome_ + u"/sub/\n" + inHome_ + u"/sub/f\n");

  remote_->zip(inHome_, inHome_ + u".zip");
  remote_->unzip(inHome_ + u".zip", at(u"unzipped"));
  EXPECT_TRUE(hostIsFile(at(u"unzipped/" + inHome_ + u"/sub/f")));

  remote_->makeDir(at(u"untarred"));
  remote_->untar(u"../home.tar", at(u"untarred"));
  EXPECT_TRUE(hostIsFile(at(u"untarred/" + inHome_ + u"/sub/f")));

  EXPECT_TRUE(remote_->isDir(inHome_));
  EXPECT_THAT(remote_->list(inHome_), ElementsAre(inHome_ + u"/sub"));
}

}  // namespace
}  // namespace sshfa::testing
