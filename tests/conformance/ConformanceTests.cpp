#include "tests/conformance/ConformanceTests.hpp"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <ctime>
#include <functional>
#include <set>
#include <utility>

#include "sshfileaccess/platform/i18n/i18n.hpp"

namespace sshfa::testing::conformance {

void ConformanceTest::SetUp() {
  backend_ = GetParam().make();
  if (!backend_) GTEST_SKIP() << GetParam().name << " cannot be had here (it needs root)";
  root_ = backend_->root();
}

ustring ConformanceTest::at(std::string const& relative) const {
  return root_ + u"/" + fl::i18n::utf8_to_ustring(relative);
}

namespace {

using boost::posix_time::ptime;
using Paths = std::vector<ustring>;
using Pairs = std::vector<std::pair<ustring, ustring>>;

std::set<ustring> setOf(Paths const& paths) { return {paths.begin(), paths.end()}; }

ptime nowSecond() { return boost::posix_time::from_time_t(std::time(nullptr)); }

// Asserts that `call` fails with the backend's code and some text.
template <class Call>
void expectFailureOn(Backend& backend, Call&& call) {
  try {
    call();
    ADD_FAILURE() << "no FileAccessException";
  } catch (FileAccessException const& e) {
    EXPECT_EQ(e.code(), backend.errorCode()) << e.what();
    EXPECT_STRNE(e.what(), "");
  }
}

// ---- queries ------------------------------------------------------------------------------------

TEST_P(ConformanceTest, ExistsIsFileAndIsDirAnswerPerPathInOrder) {
  side().writeFile(at("f"), "x");
  side().makeFolder(at("d"));
  const Paths paths{at("f"), at("d"), at("missing")};
  EXPECT_EQ(fa().exists(paths), (std::vector<bool>{true, true, false}));
  EXPECT_EQ(fa().isFile(paths), (std::vector<bool>{true, false, false}));
  EXPECT_EQ(fa().isDir(paths), (std::vector<bool>{false, true, false}));
  EXPECT_TRUE(fa().exists(at("f")));
  EXPECT_FALSE(fa().isFile(at("missing")));
  EXPECT_FALSE(fa().isDir(at("missing")));
  EXPECT_TRUE(fa().exists(Paths{}).empty());
}

TEST_P(ConformanceTest, ParentIsComputedFromTheText) {
  EXPECT_EQ(fa().parent(Paths{u"/a/b/c.txt", u"/a/b/", u"/a", u"a"}), (Paths{u"/a/b", u"/a", u"/", u""}));
  EXPECT_EQ(fa().parent(at("never/created")), at("never"));
}

TEST_P(ConformanceTest, FileInfoCarriesSizeAndWholeSeconds) {
  side().writeFile(at("f"), "123456789");
  side().setModificationTime(at("f"), 946728000, 750'000'000);  // 2000-01-01 12:00:00.75 UTC
  const auto info = fa().getFileInfo(at("f"));
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->path, at("f"));
  EXPECT_EQ(info->size, 9U);
  EXPECT_EQ(info->lastWriteTime, boost::posix_time::time_from_string("2000-01-01 12:00:00"));
}

TEST_P(ConformanceTest, FileInfoOverThreePathsWithTheSecondMissing) {
  side().writeFile(at("a"), "a");
  side().writeFile(at("c"), "cc");
  const auto infos = fa().getFileInfo(Paths{at("a"), at("missing"), at("c")});
  ASSERT_EQ(infos.size(), 3U);
  ASSERT_TRUE(infos[0].has_value());
  EXPECT_EQ(infos[0]->size, 1U);
  EXPECT_FALSE(infos[1].has_value());
  ASSERT_TRUE(infos[2].has_value());
  EXPECT_EQ(infos[2]->size, 2U);
  EXPECT_FALSE(fa().getFileInfo(at("missing")).has_value());
}

// ---- listings -----------------------------------------------------------------------------------

TEST_P(ConformanceTest, ListGivesTheEntriesOfAFolder) {
  side().writeFile(at("d/a.txt"), "a");
  side().writeFile(at("d/.hidden"), "h");
  side().makeFolder(at("d/sub"));
  std::set<ustring> expected{at("d/a.txt"), at("d/sub")};
  if (side().listShowsHiddenEntries()) expected.insert(at("d/.hidden"));
  EXPECT_EQ(setOf(fa().list(at("d"))), expected);
}

TEST_P(ConformanceTest, ListOverTwoFoldersGivesTheFirstThenTheSecond) {
  side().writeFile(at("one/a"), "");
  side().writeFile(at("one/b"), "");
  side().writeFile(at("two/c"), "");
  const Paths entries = fa().list(Paths{at("one"), at("two")});
  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ((std::set<ustring>{entries[0], entries[1]}), (std::set<ustring>{at("one/a"), at("one/b")}));
  EXPECT_EQ(entries[2], at("two/c"));
}

TEST_P(ConformanceTest, ListOfEmptyOrMissingFolderIsEmpty) {
  side().makeFolder(at("empty"));
  EXPECT_TRUE(fa().list(at("empty")).empty());
  EXPECT_TRUE(fa().list(at("missing")).empty());
}

TEST_P(ConformanceTest, ListOfAFileGivesTheBackendsAnswer) {
  side().writeFile(at("f"), "");
  EXPECT_EQ(fa().list(at("f")), side().listOfFile(at("f")));
}

TEST_P(ConformanceTest, ListRecursivelyGivesEveryRegularFileBeneath) {
  side().writeFile(at("t/a"), "");
  side().writeFile(at("t/.h"), "");
  side().writeFile(at("t/x/y/deep"), "");
  side().makeFolder(at("t/empty"));
  EXPECT_EQ(setOf(fa().listRecursively(at("t"))), (std::set<ustring>{at("t/a"), at("t/.h"), at("t/x/y/deep")}));
  EXPECT_EQ(fa().listRecursively(at("t/a")), (Paths{at("t/a")}));
  EXPECT_TRUE(fa().listRecursively(at("missing")).empty());
}

TEST_P(ConformanceTest, ListRecursivelyOfOnlyEmptySubfoldersIsEmpty) {
  side().makeFolder(at("t/a/b"));
  side().makeFolder(at("t/c"));
  EXPECT_TRUE(fa().listRecursively(at("t")).empty());
}

TEST_P(ConformanceTest, ListRecursivelyOverFoldersConcatenates) {
  side().writeFile(at("one/a"), "");
  side().writeFile(at("two/b"), "");
  EXPECT_EQ(fa().listRecursively(Paths{at("one"), at("two")}), (Paths{at("one/a"), at("two/b")}));
}

// ---- mutations ----------------------------------------------------------------------------------

TEST_P(ConformanceTest, MakeDirCreatesEveryLevelAndAcceptsAnExistingFolder) {
  fa().makeDir(at("x/y/z"));
  EXPECT_TRUE(fa().isDir(at("x/y/z")));
  side().writeFile(at("x/keep"), "k");
  fa().makeDir(Paths{at("x"), at("x/y")});
  EXPECT_EQ(side().readFile(at("x/keep")), "k");
}

TEST_P(ConformanceTest, TouchCreatesEmptyFilesAndKeepsContents) {
  side().writeFile(at("old"), "contents");
  side().setModificationTime(at("old"), 946728000, 0);
  const ptime before = nowSecond();
  fa().touch(Paths{at("new"), at("old")});
  const ptime after = nowSecond();
  EXPECT_EQ(side().readFile(at("new")), "");
  EXPECT_EQ(side().readFile(at("old")), "contents");
  const auto info = fa().getFileInfo(at("old"));
  ASSERT_TRUE(info.has_value());
  EXPECT_GE(info->lastWriteTime, before);
  EXPECT_LE(info->lastWriteTime, after);
}

TEST_P(ConformanceTest, TouchInMissingFolderFailsAndCreatesNothing) {
  expectFailureOn(side(), [&] { fa().touch(at("no/f")); });
  EXPECT_FALSE(side().present(at("no")));
}

TEST_P(ConformanceTest, RemoveTakesFilesAndWholeTreesAndIgnoresMissingPaths) {
  side().writeFile(at("f"), "");
  side().writeFile(at("t/sub/deeper/b"), "");
  fa().remove(Paths{at("f"), at("t"), at("missing")});
  EXPECT_FALSE(side().present(at("f")));
  EXPECT_FALSE(side().present(at("t")));
}

// "rm dir/link/" names the folder behind the link; nothing is removed
// through it, and both sides say so in the same words.
TEST_P(ConformanceTest, RemoveOfALinkWithATrailingSlashRemovesNothingThroughIt) {
  side().writeFile(at("real/keep"), "k");
  side().writeFile(at("file"), "f");
  side().makeLink("../real", at("dir/link"));
  side().makeLink("../file", at("dir/flink"));
  for (std::string const name : {"dir/link/", "dir/link//", "dir/flink/"}) {
    try {
      fa().remove(at(name));
      ADD_FAILURE() << name << ": no FileAccessException";
    } catch (FileAccessException const& e) {
      EXPECT_EQ(e.code(), side().errorCode());
      EXPECT_EQ(std::string(e.what()), "cannot remove '" + fl::i18n::ustring_to_utf8(at(name)) + "': Not a directory");
    }
  }
  EXPECT_EQ(side().readFile(at("real/keep")), "k");
  EXPECT_EQ(side().readFile(at("dir/link/keep")), "k");
  EXPECT_EQ(side().readFile(at("file")), "f");
}

TEST_P(ConformanceTest, RemoveOverAListStopsAtALinkWithATrailingSlash) {
  side().writeFile(at("real/keep"), "k");
  side().writeFile(at("a"), "a");
  side().writeFile(at("b"), "b");
  side().makeLink(fl::i18n::ustring_to_utf8(at("real")), at("link"));
  expectFailureOn(side(), [&] { fa().remove(std::vector<ustring>{at("a"), at("link/"), at("b")}); });
  EXPECT_FALSE(side().present(at("a")));
  EXPECT_EQ(side().readFile(at("real/keep")), "k");
  EXPECT_EQ(side().readFile(at("b")), "b");
}

TEST_P(ConformanceTest, RemoveWithATrailingSlashTakesAFolderAndALinkWithoutOne) {
  side().writeFile(at("real/keep"), "k");
  side().writeFile(at("gone/sub/f"), "f");
  side().makeLink("real", at("link"));
  fa().remove(std::vector<ustring>{at("gone/"), at("link")});
  EXPECT_FALSE(side().present(at("gone")));
  EXPECT_FALSE(side().present(at("link")));
  EXPECT_EQ(side().readFile(at("real/keep")), "k");
}

TEST_P(ConformanceTest, CopyIntoMissingTreeMakesTheFoldersFirst) {
  side().writeFile(at("src.txt"), "content");
  fa().copy(at("src.txt"), at("a/b/c.txt"));
  EXPECT_EQ(side().readFile(at("a/b/c.txt")), "content");
}

TEST_P(ConformanceTest, CopyOfAFolderCopiesTheTree) {
  side().writeFile(at("src/a"), "a");
  side().writeFile(at("src/sub/b"), "b");
  fa().copy(at("src"), at("dst"));
  EXPECT_EQ(setOf(fa().listRecursively(at("dst"))), (std::set<ustring>{at("dst/a"), at("dst/sub/b")}));
  EXPECT_EQ(side().readFile(at("dst/sub/b")), "b");
  EXPECT_EQ(side().readFile(at("src/sub/b")), "b");
}

TEST_P(ConformanceTest, CopyOverAListStopsAtTheFailingPair) {
  side().writeFile(at("one"), "1");
  side().writeFile(at("three"), "3");
  expectFailureOn(side(), [&] {
    fa().copy(Pairs{{at("one"), at("out/one")}, {at("missing"), at("out/two")}, {at("three"), at("out/three")}});
  });
  EXPECT_EQ(side().readFile(at("out/one")), "1");
  EXPECT_FALSE(side().present(at("out/three")));
}

TEST_P(ConformanceTest, MoveRenamesFilesAndFoldersInListOrder) {
  side().writeFile(at("a"), "payload");
  side().writeFile(at("dir/f"), "f");
  fa().move(Pairs{{at("a"), at("b")}, {at("b"), at("c")}, {at("dir"), at("moved")}});
  EXPECT_FALSE(side().present(at("a")));
  EXPECT_FALSE(side().present(at("b")));
  EXPECT_EQ(side().readFile(at("c")), "payload");
  EXPECT_EQ(side().readFile(at("moved/f")), "f");
}

TEST_P(ConformanceTest, MoveIntoMissingFolderFails) {
  side().writeFile(at("a"), "a");
  expectFailureOn(side(), [&] { fa().move(at("a"), at("new/a")); });
  EXPECT_TRUE(side().present(at("a")));
}

TEST_P(ConformanceTest, NamesWithBlanksAndQuotesWork) {
  const std::string name = "it's a \"file\" $HOME `x`";
  side().writeFile(at("in/" + name), "q");
  EXPECT_EQ(fa().list(at("in")), (Paths{at("in/" + name)}));
  EXPECT_TRUE(fa().isFile(at("in/" + name)));
  fa().copy(at("in/" + name), at("out dir/" + name));
  fa().move(at("out dir/" + name), at("out dir/moved " + name));
  EXPECT_EQ(side().readFile(at("out dir/moved " + name)), "q");
  ASSERT_TRUE(fa().getFileInfo(at("out dir/moved " + name)).has_value());
  fa().remove(at("out dir"));
  EXPECT_FALSE(side().present(at("out dir")));
}

// ---- archives -----------------------------------------------------------------------------------

// A backend that runs no programs refuses every archive with one message and
// writes nothing; the archive tests below are for the others.
TEST_P(ConformanceTest, WithoutProgramsEveryArchiveFailsWithOneMessage) {
  const std::string why = side().whyNoPrograms();
  if (why.empty()) GTEST_SKIP() << "the backend runs programs: the round trips below test its archives";
  side().writeFile(at("data/a.txt"), "a");
  side().makeFolder(at("out"));
  const std::vector<std::pair<std::string, std::function<void()>>> calls{
      {"tar", [&] { fa().tar(at("data"), at("d.tar")); }},
      {"zip", [&] { fa().zip(at("data"), at("d.zip")); }},
      {"tar", [&] { fa().untar(at("d.tar"), at("out")); }},
      {"unzip", [&] { fa().unzip(at("d.zip"), at("out")); }},
  };
  for (auto const& [program, call] : calls) {
    try {
      call();
      ADD_FAILURE() << program << ": no FileAccessException";
    } catch (FileAccessException const& e) {
      EXPECT_EQ(e.code(), side().errorCode());
      EXPECT_EQ(std::string(e.what()), why + ", so there is no " + program + " to run");
    }
  }
  EXPECT_FALSE(side().present(at("d.tar")));
  EXPECT_FALSE(side().present(at("d.zip")));
  EXPECT_TRUE(fa().list(at("out")).empty());
}

// Skips an archive test on a backend that runs no programs.
#define SKIP_WITHOUT_PROGRAMS() \
  if (!side().whyNoPrograms().empty()) GTEST_SKIP() << side().whyNoPrograms()

TEST_P(ConformanceTest, TarAndUntarRoundTripWithTheSourceAsTopLevel) {
  SKIP_WITHOUT_PROGRAMS();
  side().writeFile(at("data/run1/a.txt"), "alpha");
  side().writeFile(at("data/run1/sub/b.txt"), "beta");
  fa().tar(at("data/run1"), at("run1.tar"));
  side().makeFolder(at("out"));
  fa().untar(at("run1.tar"), at("out"));
  EXPECT_EQ(setOf(fa().listRecursively(at("out"))),
            (std::set<ustring>{at("out/run1/a.txt"), at("out/run1/sub/b.txt")}));
  EXPECT_EQ(side().readFile(at("out/run1/sub/b.txt")), "beta");
}

TEST_P(ConformanceTest, ZipAndUnzipRoundTripWithTheSourceAsTopLevel) {
  SKIP_WITHOUT_PROGRAMS();
  side().writeFile(at("data/run1/a.txt"), "alpha");
  side().writeFile(at("data/run1/sub/b.txt"), "beta");
  fa().zip(at("data/run1"), at("run1.zip"));
  side().makeFolder(at("out"));
  fa().unzip(at("run1.zip"), at("out"));
  EXPECT_EQ(setOf(fa().listRecursively(at("out"))),
            (std::set<ustring>{at("out/run1/a.txt"), at("out/run1/sub/b.txt")}));
  EXPECT_EQ(side().readFile(at("out/run1/a.txt")), "alpha");
}

TEST_P(ConformanceTest, TarOfASingleFile) {
  SKIP_WITHOUT_PROGRAMS();
  side().writeFile(at("x.txt"), "x");
  fa().tar(at("x.txt"), at("x.tar"));
  side().makeFolder(at("out"));
  fa().untar(at("x.tar"), at("out"));
  EXPECT_EQ(fa().listRecursively(at("out")), (Paths{at("out/x.txt")}));
}

TEST_P(ConformanceTest, UntarIntoMissingFolderGivesTheBackendsAnswer) {
  SKIP_WITHOUT_PROGRAMS();
  side().writeFile(at("src/a"), "a");
  fa().tar(at("src"), at("s.tar"));
  if (side().untarCreatesMissingDestination()) {
    fa().untar(at("s.tar"), at("new"));
    EXPECT_EQ(side().readFile(at("new/src/a")), "a");
  } else {
    expectFailureOn(side(), [&] { fa().untar(at("s.tar"), at("new")); });
    EXPECT_FALSE(side().present(at("new")));
  }
}

TEST_P(ConformanceTest, UnzipIntoMissingFolderGivesTheBackendsAnswer) {
  SKIP_WITHOUT_PROGRAMS();
  side().writeFile(at("src/a"), "a");
  fa().zip(at("src"), at("s.zip"));
  if (side().unzipCreatesMissingDestination()) {
    fa().unzip(at("s.zip"), at("new"));
    EXPECT_EQ(side().readFile(at("new/src/a")), "a");
  } else {
    expectFailureOn(side(), [&] { fa().unzip(at("s.zip"), at("new")); });
    EXPECT_FALSE(side().present(at("new")));
  }
}

// ---- what unpacking keeps -----------------------------------------------------------------------

// Archives of the same tree, made by the system's own tar and zip -y.
void packWithSystemTools(Backend& side, ustring const& folder) {
  const std::string at = "'" + fl::i18n::ustring_to_utf8(folder) + "'";
  side.shell("cd " + at + "/src && tar -cf ../t.tar t && zip -qry ../t.zip t");
}

TEST_P(ConformanceTest, UntarAndUnzipRestoreLinksEmptyFoldersModesAndTimes) {
  SKIP_WITHOUT_PROGRAMS();
  side().makeFolder(at("src"));
  side().makeArchivableTree(at("src/t"));
  packWithSystemTools(side(), at(""));
  side().makeFolder(at("from-tar"));
  fa().untar(at("t.tar"), at("from-tar"));
  EXPECT_EQ(side().snapshot(at("from-tar/t")), side().snapshot(at("src/t")));
  fa().unzip(at("t.zip"), at("from-zip"));
  EXPECT_EQ(side().snapshot(at("from-zip/t")), side().snapshot(at("src/t")));
}

TEST_P(ConformanceTest, UntarIntoAFolderHoldingTheFilesReplacesThem) {
  SKIP_WITHOUT_PROGRAMS();
  side().makeFolder(at("src"));
  side().makeArchivableTree(at("src/t"));
  packWithSystemTools(side(), at(""));
  side().makeFolder(at("out"));
  fa().untar(at("t.tar"), at("out"));
  side().writeFile(at("out/t/a.txt"), "changed");
  side().writeFile(at("out/t/sub/f"), "changed too");
  fa().untar(at("t.tar"), at("out"));
  EXPECT_EQ(side().snapshot(at("out/t")), side().snapshot(at("src/t")));
}

TEST_P(ConformanceTest, UnzipIntoAFolderHoldingTheFilesGivesTheBackendsAnswer) {
  SKIP_WITHOUT_PROGRAMS();
  side().makeFolder(at("src"));
  side().makeArchivableTree(at("src/t"));
  packWithSystemTools(side(), at(""));
  fa().unzip(at("t.zip"), at("out"));
  side().writeFile(at("out/t/a.txt"), "changed");
  if (side().unzipOverwritesExistingFiles()) {
    fa().unzip(at("t.zip"), at("out"));
    EXPECT_EQ(side().snapshot(at("out/t")), side().snapshot(at("src/t")));
  } else {
    expectFailureOn(side(), [&] { fa().unzip(at("t.zip"), at("out")); });
    EXPECT_EQ(side().readFile(at("out/t/a.txt")), "changed");
  }
}

}  // namespace
}  // namespace sshfa::testing::conformance
