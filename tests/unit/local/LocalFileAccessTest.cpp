#include "sshfileaccess/LocalFileAccess.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/exception/diagnostic_information.hpp>
#include <ctime>
#include <filesystem>
#include <functional>
#include <set>

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/platform/except/Exception.hpp"
#include "sshfileaccess/platform/filesystem/FileSystem.hpp"
#include "tests/support/ArchivableTree.hpp"
#include "tests/support/LogCapture.hpp"
#include "tests/unit/local/ArchiveTestSupport.hpp"
#include "tests/unit/local/LocalTestSupport.hpp"

using boost::posix_time::ptime;
using boost::posix_time::time_from_string;
using foundation::core::except::RuntimeError;
using nimbal::remoteaccess::sshfileaccess::FileAccessException;
using nimbal::remoteaccess::sshfileaccess::FileInfo;
using nimbal::remoteaccess::sshfileaccess::LocalFileAccess;
using sshfa::testing::archiveSnapshot;
using sshfa::testing::LogCapture;
using sshfa::testing::makeArchivableTree;
using namespace sshfa::testing::local;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

using PathListOf = std::vector<ustring>;

// The message of the FileAccessException that `call` raises; it must carry
// LocalError.
template <class Call>
std::string localErrorOf(Call&& call) {
  try {
    call();
  } catch (FileAccessException const& e) {
    EXPECT_EQ(e.code(), FileAccessException::Code::LocalError);
    return e.what();
  }
  ADD_FAILURE() << "no FileAccessException";
  return {};
}

// The message of the file-system layer's own exception, unconverted.
template <class Call>
std::string layerErrorOf(Call&& call) {
  try {
    call();
  } catch (FileAccessException const&) {
    ADD_FAILURE() << "converted to FileAccessException";
  } catch (RuntimeError const& e) {
    return e.what();
  }
  ADD_FAILURE() << "no RuntimeError";
  return {};
}

std::set<std::string> setOf(std::vector<ustring> const& texts) {
  const auto bytes = bytesOf(texts);
  return {bytes.begin(), bytes.end()};
}

ptime nowSecond() { return boost::posix_time::from_time_t(std::time(nullptr)); }

class LocalFileAccessTest : public ::testing::Test {
 protected:
  TempDir dir;
  LocalFileAccess local;
};

// ---- exists, isFile, isDir, parent ------------------------------------------------------------

TEST_F(LocalFileAccessTest, QueriesAnswerForFilesFoldersAndMissingPaths) {
  writeBytes(dir.at("f"), "x");
  makeFolders(dir.at("d"));
  EXPECT_EQ(local.exists(PathListOf{dir.uat("f"), dir.uat("d"), dir.uat("missing")}),
            (std::vector<bool>{true, true, false}));
  EXPECT_EQ(local.isFile(PathListOf{dir.uat("f"), dir.uat("d"), dir.uat("missing")}),
            (std::vector<bool>{true, false, false}));
  EXPECT_EQ(local.isDir(PathListOf{dir.uat("f"), dir.uat("d"), dir.uat("missing")}),
            (std::vector<bool>{false, true, false}));
}

TEST_F(LocalFileAccessTest, MissingPathIsNeitherFolderNorFile) {
  EXPECT_FALSE(local.isDir(dir.uat("missing")));
  EXPECT_FALSE(local.isFile(dir.uat("missing")));
}

TEST_F(LocalFileAccessTest, QueriesOfEmptyListsAreEmpty) {
  EXPECT_TRUE(local.exists(std::vector<ustring>{}).empty());
  EXPECT_TRUE(local.isFile(std::vector<ustring>{}).empty());
  EXPECT_TRUE(local.isDir(std::vector<ustring>{}).empty());
  EXPECT_TRUE(local.parent(std::vector<ustring>{}).empty());
  EXPECT_TRUE(local.getFileInfo(std::vector<ustring>{}).empty());
  EXPECT_TRUE(local.list(std::vector<ustring>{}).empty());
  EXPECT_TRUE(local.listRecursively(std::vector<ustring>{}).empty());
}

TEST_F(LocalFileAccessTest, QueriesFollowLinks) {
  makeFolders(dir.at("d"));
  makeSymlink(dir.at("d"), dir.at("link"));
  EXPECT_TRUE(local.isDir(dir.uat("link")));
}

TEST_F(LocalFileAccessTest, QueryFailureBecomesLocalErrorWithTheLayerText) {
  const std::string path = tooLongName(dir.path());
  const std::string expected = "cannot get the status of '" + path + "': File name too long";
  EXPECT_EQ(localErrorOf([&] { local.exists(u(path)); }), expected);
  EXPECT_EQ(localErrorOf([&] { local.isFile(u(path)); }), expected);
  EXPECT_EQ(localErrorOf([&] { local.isDir(u(path)); }), expected);
}

TEST_F(LocalFileAccessTest, ParentIsComputedFromTheText) {
  EXPECT_EQ(local.parent(PathListOf{u"/a/b/c.txt", u"/a/b/", u"/a//b", u"/a", u"a", u"/", u""}),
            (std::vector<ustring>{u"/a/b", u"/a", u"/a", u"/", u"", u"", u""}));
}

TEST_F(LocalFileAccessTest, ParentNeverLooksAtTheFileSystem) {
  EXPECT_EQ(local.parent(ustring(u"/a\0b/c", 6)), ustring(u"/a\0b", 4));
  EXPECT_EQ(local.parent(u(tooLongName("/x") + "/f")), u(tooLongName("/x")));
}

// ---- list ---------------------------------------------------------------------------------------

TEST_F(LocalFileAccessTest, ListOfRegularFileReturnsTheArgumentUnchanged) {
  writeBytes(dir.at("f.txt"), "x");
  const ustring asPassed = u(dir.path() + "//f.txt");
  EXPECT_THAT(local.list(asPassed), ElementsAre(asPassed));
}

TEST_F(LocalFileAccessTest, ListOfFolderReturnsGenericFullPathsOfEveryEntry) {
  writeBytes(dir.at("d/a.txt"), "a");
  writeBytes(dir.at("d/.hidden"), "h");
  makeFolders(dir.at("d/sub"));
  EXPECT_EQ(setOf(local.list(u(dir.path() + "//d//"))),
            (std::set<std::string>{dir.at("d/a.txt"), dir.at("d/.hidden"), dir.at("d/sub")}));
}

TEST_F(LocalFileAccessTest, ListOfEmptyOrMissingFolderIsEmpty) {
  makeFolders(dir.at("empty"));
  EXPECT_TRUE(local.list(dir.uat("empty")).empty());
  EXPECT_TRUE(local.list(dir.uat("missing")).empty());
  EXPECT_TRUE(local.list(u"").empty());
}

TEST_F(LocalFileAccessTest, ListOverFoldersConcatenatesAndSkipsMissingOnes) {
  writeBytes(dir.at("one/a"), "");
  writeBytes(dir.at("one/b"), "");
  writeBytes(dir.at("two/c"), "");
  const auto entries = bytesOf(local.list(PathListOf{dir.uat("one"), dir.uat("missing"), dir.uat("two")}));
  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ((std::set<std::string>{entries[0], entries[1]}), (std::set<std::string>{dir.at("one/a"), dir.at("one/b")}));
  EXPECT_EQ(entries[2], dir.at("two/c"));
}

TEST_F(LocalFileAccessTest, AppendingListKeepsWhatIsThere) {
  writeBytes(dir.at("d/a"), "");
  std::vector<ustring> out{u"kept"};
  local.list(dir.uat("d"), out);
  local.listRecursively(dir.uat("d"), out);
  EXPECT_EQ(bytesOf(out), (std::vector<std::string>{"kept", dir.at("d/a"), dir.at("d/a")}));
}

TEST_F(LocalFileAccessTest, ListFailuresPassUnconverted) {
  const std::string path = tooLongName(dir.path());
  EXPECT_EQ(layerErrorOf([&] { local.list(u(path)); }), "cannot get the status of '" + path + "': File name too long");
  EXPECT_EQ(layerErrorOf([&] { local.listRecursively(u(path)); }),
            "cannot get the status of '" + path + "': File name too long");
}

// ---- listRecursively ----------------------------------------------------------------------------

TEST_F(LocalFileAccessTest, ListRecursivelyGivesRegularFilesAtAnyDepth) {
  writeBytes(dir.at("t/a"), "");
  writeBytes(dir.at("t/.h"), "");
  writeBytes(dir.at("t/x/y/z/deep"), "");
  makeFolders(dir.at("t/empty"));
  makeSymlink(dir.at("t/a"), dir.at("t/link-to-file"));
  makeSymlink(dir.at("t"), dir.at("t/x/loop"));
  EXPECT_EQ(setOf(local.listRecursively(u(dir.path() + "//t/"))),
            (std::set<std::string>{dir.at("t/a"), dir.at("t/.h"), dir.at("t/x/y/z/deep")}));
}

TEST_F(LocalFileAccessTest, ListRecursivelyOfFolderWithOnlyEmptySubfoldersIsEmpty) {
  makeFolders(dir.at("t/a/b"));
  makeFolders(dir.at("t/c"));
  EXPECT_TRUE(local.listRecursively(dir.uat("t")).empty());
}

TEST_F(LocalFileAccessTest, ListRecursivelyOfFileOrMissingPath) {
  writeBytes(dir.at("f"), "");
  const ustring asPassed = u(dir.path() + "//f");
  EXPECT_THAT(local.listRecursively(asPassed), ElementsAre(asPassed));
  EXPECT_TRUE(local.listRecursively(dir.uat("missing")).empty());
}

TEST_F(LocalFileAccessTest, ListRecursivelyOverFoldersConcatenates) {
  writeBytes(dir.at("one/a"), "");
  writeBytes(dir.at("two/b"), "");
  EXPECT_EQ(bytesOf(local.listRecursively(PathListOf{dir.uat("one"), dir.uat("missing"), dir.uat("two")})),
            (std::vector<std::string>{dir.at("one/a"), dir.at("two/b")}));
}

// ---- getFileInfo --------------------------------------------------------------------------------

TEST_F(LocalFileAccessTest, FileInfoCarriesPathAsPassedSizeAndWholeSeconds) {
  writeBytes(dir.at("f"), "123456789");
  setModificationTime(dir.at("f"), 946728000, 750'000'000);  // 2000-01-01 12:00:00.75 UTC
  const ustring asPassed = u(dir.path() + "//f");
  const auto info = local.getFileInfo(asPassed);
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->path, asPassed);
  EXPECT_EQ(info->size, 9U);
  EXPECT_EQ(info->lastWriteTime, time_from_string("2000-01-01 12:00:00"));
}

TEST_F(LocalFileAccessTest, FileInfoOfFolderCarriesItsOwnSize) {
  makeFolders(dir.at("d"));
  const auto info = local.getFileInfo(dir.uat("d"));
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->size, sizeOf(dir.at("d")));
}

TEST_F(LocalFileAccessTest, FileInfoOfMissingPathIsEmptyAndLogsNothing) {
  const LogCapture capture(16);
  EXPECT_FALSE(local.getFileInfo(dir.uat("missing")).has_value());
  EXPECT_TRUE(capture.records().empty());
}

TEST_F(LocalFileAccessTest, FileInfoOverThreePathsWithTheSecondMissing) {
  writeBytes(dir.at("a"), "a");
  writeBytes(dir.at("c"), "cc");
  const auto infos = local.getFileInfo(PathListOf{dir.uat("a"), dir.uat("missing"), dir.uat("c")});
  ASSERT_EQ(infos.size(), 3U);
  ASSERT_TRUE(infos[0].has_value());
  EXPECT_EQ(infos[0]->size, 1U);
  EXPECT_FALSE(infos[1].has_value());
  ASSERT_TRUE(infos[2].has_value());
  EXPECT_EQ(infos[2]->size, 2U);
}

TEST_F(LocalFileAccessTest, SwallowedFileInfoFailureIsLoggedAtSeverity16) {
  const std::string path = tooLongName(dir.path());
  std::string expected;
  try {
    (void)fl::filesystem::status(u(path));
  } catch (...) {
    expected = "Exception caught: " + boost::current_exception_diagnostic_information(true);
  }
  const LogCapture capture(16);
  EXPECT_FALSE(local.getFileInfo(u(path)).has_value());
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].severity, 16U);
  EXPECT_EQ(records[0].channel, "nimbal::remoteaccess::sshfileaccess");
  EXPECT_EQ(records[0].text, expected);
  EXPECT_THAT(records[0].text, StartsWith("Exception caught: "));
  EXPECT_THAT(records[0].text, HasSubstr("cannot get the status of '" + path + "': File name too long"));
}

TEST_F(LocalFileAccessTest, SwallowedFileInfoFailureIsNotLoggedWhenSeverity16IsOff) {
  const LogCapture capture(4);
  EXPECT_FALSE(local.getFileInfo(u(tooLongName(dir.path()))).has_value());
  EXPECT_TRUE(capture.records().empty());
}

TEST_F(LocalFileAccessTest, TimeOutsideTheCalendarIsASwallowedFailure) {
  // tmpfs keeps times far beyond the year 9999, which Boost's calendar refuses.
  const std::string path = "/dev/shm/sshfa-future-" + std::to_string(::getpid());
  writeBytes(path, "x");
  setModificationTime(path, 316'516'204'800, 0);  // 12000-01-01
  const bool kept = modificationTime(path).tv_sec == 316'516'204'800;
  const LogCapture capture(16);
  const auto info = local.getFileInfo(u(path));
  std::filesystem::remove(path);
  if (!kept) GTEST_SKIP() << "/dev/shm does not keep such times";
  EXPECT_FALSE(info.has_value());
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_THAT(records[0].text, StartsWith("Exception caught: "));
  EXPECT_THAT(records[0].text, HasSubstr("Year is out of valid range: 1400..9999"));
}

// ---- copy ---------------------------------------------------------------------------------------

TEST_F(LocalFileAccessTest, CopyIntoMissingTreeMakesTheFoldersFirst) {
  writeBytes(dir.at("src.txt"), "content");
  local.copy(dir.uat("src.txt"), dir.uat("a/b/c.txt"));
  EXPECT_EQ(readBytes(dir.at("a/b/c.txt")), "content");
}

TEST_F(LocalFileAccessTest, CopyOfFolderCopiesTheTreeAndOverwritesFiles) {
  writeBytes(dir.at("src/a"), "new");
  writeBytes(dir.at("src/sub/b"), "b");
  writeBytes(dir.at("dst/a"), "old");
  local.copy(dir.uat("src"), dir.uat("dst"));
  EXPECT_EQ(readBytes(dir.at("dst/a")), "new");
  EXPECT_EQ(readBytes(dir.at("dst/sub/b")), "b");
}

TEST_F(LocalFileAccessTest, RelativeCopyNeedsNoFolder) {
  writeBytes(dir.at("a"), "a");
  const auto previous = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  EXPECT_NO_THROW(local.copy(u"a", u"b"));
  std::filesystem::current_path(previous);
  EXPECT_EQ(readBytes(dir.at("b")), "a");
}

TEST_F(LocalFileAccessTest, VectorCopyStopsAtTheFailingPair) {
  writeBytes(dir.at("one"), "1");
  writeBytes(dir.at("three"), "3");
  const std::vector<std::pair<ustring, ustring>> pairs{{dir.uat("one"), dir.uat("out/one")},
                                                       {dir.uat("missing"), dir.uat("out/two")},
                                                       {dir.uat("three"), dir.uat("out/three")}};
  EXPECT_EQ(localErrorOf([&] { local.copy(pairs); }),
            "cannot copy '" + dir.at("missing") + "' to '" + dir.at("out/two") + "': No such file or directory");
  EXPECT_EQ(readBytes(dir.at("out/one")), "1");
  EXPECT_FALSE(present(dir.at("out/three")));
}

// ---- touch --------------------------------------------------------------------------------------

TEST_F(LocalFileAccessTest, TouchCreatesAMissingFileEmpty) {
  const ptime before = nowSecond();
  local.touch(dir.uat("new"));
  const ptime after = nowSecond();
  EXPECT_EQ(readBytes(dir.at("new")), "");
  const timespec t = modificationTime(dir.at("new"));
  EXPECT_EQ(t.tv_nsec, 0);
  EXPECT_GE(boost::posix_time::from_time_t(t.tv_sec), before);
  EXPECT_LE(boost::posix_time::from_time_t(t.tv_sec), after);
}

TEST_F(LocalFileAccessTest, TouchKeepsContentsAndMovesTheTimeToTheCurrentSecond) {
  writeBytes(dir.at("f"), "contents");
  setModificationTime(dir.at("f"), 946728000, 500'000'000);
  const ptime before = nowSecond();
  local.touch(dir.uat("f"));
  const ptime after = nowSecond();
  EXPECT_EQ(readBytes(dir.at("f")), "contents");
  const auto info = local.getFileInfo(dir.uat("f"));
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->size, 8U);
  EXPECT_GE(info->lastWriteTime, before);
  EXPECT_LE(info->lastWriteTime, after);
  EXPECT_EQ(modificationTime(dir.at("f")).tv_nsec, 0);
}

TEST_F(LocalFileAccessTest, TouchInMissingFolderFailsAndCreatesNothing) {
  EXPECT_EQ(localErrorOf([&] { local.touch(dir.uat("no/f")); }),
            "cannot set the modification time of '" + dir.at("no/f") + "': No such file or directory");
  EXPECT_FALSE(present(dir.at("no")));
}

TEST_F(LocalFileAccessTest, TouchOverAListStopsAtTheFirstFailure) {
  EXPECT_THROW(local.touch(PathListOf{dir.uat("a"), dir.uat("no/b"), dir.uat("c")}), FileAccessException);
  EXPECT_TRUE(present(dir.at("a")));
  EXPECT_FALSE(present(dir.at("c")));
}

// ---- remove -------------------------------------------------------------------------------------

TEST_F(LocalFileAccessTest, RemoveOfFolderRemovesEverythingBeneath) {
  writeBytes(dir.at("t/a"), "");
  writeBytes(dir.at("t/sub/deeper/b"), "");
  local.remove(dir.uat("t"));
  EXPECT_FALSE(present(dir.at("t")));
}

TEST_F(LocalFileAccessTest, RemoveOfMissingPathIsNoError) { EXPECT_NO_THROW(local.remove(dir.uat("missing"))); }

TEST_F(LocalFileAccessTest, RemoveConvertsAndRemoveImplDoesNot) {
  writeBytes(dir.at("t/locked/f"), "");
  const ImmutableGuard guard(dir.at("t/locked"));
  if (!guard.active()) GTEST_SKIP() << "immutable flag not available here";
  const std::string expected = "cannot remove '" + dir.at("t/locked/f") + "': Operation not permitted";
  EXPECT_EQ(localErrorOf([&] { local.remove(dir.uat("t")); }), expected);
  EXPECT_EQ(layerErrorOf([&] { local.removeImpl(dir.uat("t")); }), expected);
}

TEST_F(LocalFileAccessTest, RemoveImplRemovesLikeRemove) {
  writeBytes(dir.at("t/a"), "");
  local.removeImpl(dir.uat("t"));
  EXPECT_FALSE(present(dir.at("t")));
}

// ---- makeDir ------------------------------------------------------------------------------------

TEST_F(LocalFileAccessTest, MakeDirCreatesEveryLevel) {
  local.makeDir(dir.uat("x/y/z"));
  EXPECT_TRUE(std::filesystem::is_directory(dir.at("x/y/z")));
}

TEST_F(LocalFileAccessTest, MakeDirOfExistingFolderDoesNothing) {
  writeBytes(dir.at("d/keep"), "k");
  EXPECT_NO_THROW(local.makeDir(dir.uat("d")));
  EXPECT_EQ(readBytes(dir.at("d/keep")), "k");
}

TEST_F(LocalFileAccessTest, MakeDirOverAFileIsConverted) {
  writeBytes(dir.at("f"), "");
  EXPECT_EQ(localErrorOf([&] { local.makeDir(dir.uat("f")); }),
            "cannot create folder '" + dir.at("f") + "': Not a directory");
}

TEST_F(LocalFileAccessTest, MakeDirExistenceCheckIsNotConverted) {
  const std::string path = tooLongName(dir.path());
  EXPECT_EQ(layerErrorOf([&] { local.makeDir(u(path)); }),
            "cannot get the status of '" + path + "': File name too long");
}

// ---- move ---------------------------------------------------------------------------------------

TEST_F(LocalFileAccessTest, MoveOverAListRenamesInListOrder) {
  writeBytes(dir.at("a"), "payload");
  local.move(std::vector<std::pair<ustring, ustring>>{{dir.uat("a"), dir.uat("b")}, {dir.uat("b"), dir.uat("c")}});
  EXPECT_FALSE(present(dir.at("a")));
  EXPECT_FALSE(present(dir.at("b")));
  EXPECT_EQ(readBytes(dir.at("c")), "payload");
}

TEST_F(LocalFileAccessTest, MoveIntoMissingFolderFails) {
  writeBytes(dir.at("a"), "a");
  EXPECT_EQ(localErrorOf([&] { local.move(dir.uat("a"), dir.uat("new/a")); }),
            "cannot rename '" + dir.at("a") + "' to '" + dir.at("new/a") + "': No such file or directory");
  EXPECT_TRUE(present(dir.at("a")));
}

TEST_F(LocalFileAccessTest, MoveOfFolder) {
  writeBytes(dir.at("src/sub/f"), "f");
  local.move(dir.uat("src"), dir.uat("dst"));
  EXPECT_EQ(readBytes(dir.at("dst/sub/f")), "f");
  EXPECT_FALSE(present(dir.at("src")));
}

// ---- archives -----------------------------------------------------------------------------------

TEST_F(LocalFileAccessTest, TarOfSingleFileStoresItUnderItsName) {
  writeBytes(dir.at("x.txt"), "x");
  local.tar(dir.uat("x.txt"), dir.uat("x.tar"));
  const ReadArchive read = readArchive(dir.at("x.tar"));
  EXPECT_EQ(read.names, (std::vector<std::string>{"x.txt"}));
  EXPECT_EQ(read.contents.at("x.txt"), "x");
}

TEST_F(LocalFileAccessTest, ArchiveHoldsTheSourceFolderAsItsTopLevel) {
  writeBytes(dir.at("data/run1/out/a.txt"), "a");
  local.tar(u(dir.path() + "/data//run1/"), dir.uat("run1.tar"));
  EXPECT_EQ(readArchive(dir.at("run1.tar")).names, (std::vector<std::string>{"run1/out/a.txt"}));
}

TEST_F(LocalFileAccessTest, ZipOfFolderStoresNoEntryForEmptySubfolders) {
  writeBytes(dir.at("run1/a.txt"), "a");
  makeFolders(dir.at("run1/empty"));
  local.zip(dir.uat("run1"), dir.uat("run1.zip"));
  const ReadArchive read = readArchive(dir.at("run1.zip"));
  EXPECT_EQ(read.formatName, "ZIP 2.0 (deflation)");
  EXPECT_EQ(read.names, (std::vector<std::string>{"run1/a.txt"}));
}

TEST_F(LocalFileAccessTest, RelativeSourceGivesEntriesBeginningWithItsName) {
  writeBytes(dir.at("run1/sub/b.txt"), "b");
  const auto previous = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  EXPECT_EQ(local.parent(u"run1"), u"");
  local.tar(u"run1", u"run1.tar");
  std::filesystem::current_path(previous);
  EXPECT_EQ(readArchive(dir.at("run1.tar")).names, (std::vector<std::string>{"run1/sub/b.txt"}));
}

TEST_F(LocalFileAccessTest, TarOfMissingSourceWritesAnEmptyArchive) {
  local.tar(dir.uat("missing"), dir.uat("empty.tar"));
  EXPECT_TRUE(present(dir.at("empty.tar")));
  EXPECT_TRUE(readArchive(dir.at("empty.tar")).names.empty());
}

TEST_F(LocalFileAccessTest, ArchiveFailureIsConverted) {
  writeBytes(dir.at("f"), "f");
  EXPECT_EQ(localErrorOf([&] { local.tar(dir.uat("f"), dir.uat("no/f.tar")); }),
            "cannot write archive '" + dir.at("no/f.tar") + "': Failed to open '" + dir.at("no/f.tar") +
                "': No such file or directory");
}

TEST_F(LocalFileAccessTest, UntarAndUnzipReadBothFormatsAlike) {
  writeBytes(dir.at("src/a.txt"), "a");
  writeBytes(dir.at("src/sub/b.txt"), "b");
  local.tar(dir.uat("src"), dir.uat("s.tar"));
  local.zip(dir.uat("src"), dir.uat("s.zip"));
  local.untar(dir.uat("s.zip"), dir.uat("from-zip"));
  local.unzip(dir.uat("s.tar"), dir.uat("from-tar"));
  for (auto const* out : {"from-zip", "from-tar"}) {
    EXPECT_EQ(
        setOf(local.listRecursively(dir.uat(out))),
        (std::set<std::string>{dir.at(std::string(out) + "/src/a.txt"), dir.at(std::string(out) + "/src/sub/b.txt")}));
    EXPECT_EQ(readBytes(dir.at(std::string(out) + "/src/sub/b.txt")), "b");
  }
}

TEST_F(LocalFileAccessTest, UnpackingIntoMissingFolderCreatesIt) {
  writeBytes(dir.at("src/a"), "a");
  local.tar(dir.uat("src"), dir.uat("s.tar"));
  local.untar(dir.uat("s.tar"), dir.uat("new/dest"));
  EXPECT_EQ(readBytes(dir.at("new/dest/src/a")), "a");
}

TEST_F(LocalFileAccessTest, UnpackingRefusalIsConvertedAndWritesNothingOutside) {
  makeFolders(dir.at("dest"));
  craftArchive(dir.at("evil.tar"), CraftedFormat::GnuTar, {fileEntry("../evil", "EVIL")});
  EXPECT_EQ(localErrorOf([&] { local.untar(dir.uat("evil.tar"), dir.uat("dest")); }),
            "cannot extract '../evil' from archive '" + dir.at("evil.tar") + "': Path contains '..'");
  EXPECT_EQ(localErrorOf([&] { local.unzip(dir.uat("evil.tar"), dir.uat("dest")); }),
            "cannot extract '../evil' from archive '" + dir.at("evil.tar") + "': Path contains '..'");
  EXPECT_FALSE(present(dir.at("evil")));
}

TEST_F(LocalFileAccessTest, UnpackingMissingArchiveFails) {
  EXPECT_EQ(localErrorOf([&] { local.untar(dir.uat("missing.tar"), dir.uat("dest")); }),
            "cannot extract archive '" + dir.at("missing.tar") + "': Failed to open '" + dir.at("missing.tar") +
                "': No such file or directory");
}

// ---- archiveTree -----------------------------------------------------------------------------------

class ArchiveTreeTest : public LocalFileAccessTest {
 protected:
  void SetUp() override {
    makeFolders(dir.at("src"));
    makeArchivableTree(dir.at("src/t"));
  }
  // Unpacks `archive` with the operation of its own format.
  void unpack(std::string const& format, std::string const& archive, std::string const& folder) {
    if (format == "tar") {
      local.untar(dir.uat(archive), dir.uat(folder));
    } else {
      local.unzip(dir.uat(archive), dir.uat(folder));
    }
  }
};

TEST_F(ArchiveTreeTest, RoundTripKeepsLinksEmptyFoldersModesAndTimes) {
  for (std::string const format : {"tar", "zip"}) {
    local.archiveTree(dir.uat("src/t"), dir.uat("t." + format), u(format));
    unpack(format, "t." + format, "out-" + format);
    EXPECT_EQ(archiveSnapshot(dir.at("out-" + format + "/t")), archiveSnapshot(dir.at("src/t"))) << format;
  }
}

TEST_F(ArchiveTreeTest, EveryEntryIsStoredUnderTheSourcesNameTheSourceFirst) {
  local.archiveTree(u(dir.at("src//t/")), dir.uat("t.tar"), u"tar");
  const ReadArchive read = readArchive(dir.at("t.tar"));
  EXPECT_EQ(read.formatName, "GNU tar format");
  ASSERT_FALSE(read.names.empty());
  EXPECT_EQ(read.names.front(), "t/");
  EXPECT_EQ(std::set<std::string>(read.names.begin(), read.names.end()),
            (std::set<std::string>{"t/", "t/a.txt", "t/sub/", "t/sub/f", "t/empty/", "t/lnk", "t/dlnk", "t/dangling"}));
  EXPECT_EQ(read.contents.at("t/sub/f"), "sub file\n");
}

TEST_F(ArchiveTreeTest, ALinkIsStoredAsALinkAlsoWithATrailingSlash) {
  local.archiveTree(dir.uat("src/t/dlnk"), dir.uat("link.tar"), u"tar");
  local.archiveTree(dir.uat("src/t/dlnk//"), dir.uat("link.zip"), u"zip");
  EXPECT_EQ(readArchive(dir.at("link.tar")).names, (std::vector<std::string>{"dlnk"}));
  EXPECT_EQ(readArchive(dir.at("link.zip")).names, (std::vector<std::string>{"dlnk"}));
  local.unzip(dir.uat("link.zip"), dir.uat("out"));
  EXPECT_EQ(std::filesystem::read_symlink(dir.at("out/dlnk")), "sub");
}

TEST_F(ArchiveTreeTest, ASingleFileIsStoredWithItsModeAndTime) {
  local.archiveTree(dir.uat("src/t/sub/f"), dir.uat("f.zip"), u"zip");
  local.unzip(dir.uat("f.zip"), dir.uat("out"));
  EXPECT_EQ(archiveSnapshot(dir.at("out/f")), archiveSnapshot(dir.at("src/t/sub/f")));
}

TEST_F(ArchiveTreeTest, AMissingSourceFailsBeforeTheArchiveIsMade) {
  EXPECT_EQ(localErrorOf([&] { local.archiveTree(dir.uat("src/none"), dir.uat("none.tar"), u"tar"); }),
            "cannot pack '" + dir.at("src/none") + "': No such file or directory");
  EXPECT_FALSE(present(dir.at("none.tar")));
}

TEST_F(ArchiveTreeTest, AFifoBeneathFailsTheCallNamingIt) {
  ASSERT_EQ(::mkfifo(dir.at("src/t/sub/fifo").c_str(), 0600), 0);
  EXPECT_EQ(localErrorOf([&] { local.archiveTree(dir.uat("src/t"), dir.uat("t.tar"), u"tar"); }),
            "cannot add '" + dir.at("src/t/sub/fifo") + "' to archive '" + dir.at("t.tar") +
                "': not a regular file, folder or symbolic link");
}

TEST_F(ArchiveTreeTest, TheArchiveIsLeftOutOfItself) {
  writeBytes(dir.at("src/t/t.zip"), "an earlier archive");
  local.archiveTree(dir.uat("src/t"), dir.uat("src/t/t.zip"), u"zip");
  const auto names = readArchive(dir.at("src/t/t.zip")).names;
  EXPECT_EQ(std::count(names.begin(), names.end(), "t/t.zip"), 0);
  EXPECT_EQ(names.size(), 8U);
}

TEST_F(ArchiveTreeTest, UnpackingAgainOverwritesWhatChanged) {
  for (std::string const format : {"tar", "zip"}) {
    const std::string out = "again-" + format;
    local.archiveTree(dir.uat("src/t"), dir.uat("t." + format), u(format));
    unpack(format, "t." + format, out);
    writeBytes(dir.at(out + "/t/a.txt"), "changed");
    ASSERT_EQ(::chmod(dir.at(out + "/t/sub/f").c_str(), 0600), 0);
    ASSERT_EQ(::chmod(dir.at(out + "/t/sub").c_str(), 0700), 0);
    std::filesystem::remove(dir.at(out + "/t/lnk"));
    writeBytes(dir.at(out + "/t/lnk"), "a file where the link was");
    unpack(format, "t." + format, out);
    EXPECT_EQ(archiveSnapshot(dir.at(out + "/t")), archiveSnapshot(dir.at("src/t"))) << format;
  }
}

// ---- names that are not valid UTF-8 or hold newlines ---------------------------------------------

TEST_F(LocalFileAccessTest, AwkwardNamesRoundTripThroughEveryOperation) {
  const std::string name = "bad\xff\xfe name\nwith newline";
  writeBytes(dir.at("t/" + name), "payload");
  const std::vector<ustring> listed = local.list(dir.uat("t"));
  ASSERT_EQ(listed.size(), 1U);
  EXPECT_EQ(b(listed[0]), dir.at("t/" + name));
  EXPECT_EQ(local.listRecursively(dir.uat("t")), listed);
  const ustring file = listed[0];
  const auto info = local.getFileInfo(file);
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->size, 7U);

  local.copy(file, dir.uat("copy/" + name));
  EXPECT_EQ(readBytes(dir.at("copy/" + name)), "payload");
  local.move(dir.uat("copy/" + name), dir.uat("copy/" + name + ".moved"));
  EXPECT_EQ(readBytes(dir.at("copy/" + name + ".moved")), "payload");

  local.tar(dir.uat("t"), dir.uat("t.tar"));
  EXPECT_EQ(readArchive(dir.at("t.tar")).names, (std::vector<std::string>{"t/" + name}));
  local.untar(dir.uat("t.tar"), dir.uat("out"));
  EXPECT_EQ(readBytes(dir.at("out/t/" + name)), "payload");
  local.zip(dir.uat("t"), dir.uat("t.zip"));
  local.unzip(dir.uat("t.zip"), dir.uat("zout"));
  EXPECT_EQ(readBytes(dir.at("zout/t/" + name)), "payload");

  local.remove(file);
  local.remove(dir.uat("copy/" + name + ".moved"));
  EXPECT_FALSE(present(dir.at("t/" + name)));
  EXPECT_FALSE(present(dir.at("copy/" + name + ".moved")));
}

// ---- the conversion guard and virtual dispatch ------------------------------------------------------

// Records the calls that other operations make through the virtual slots.
class RecordingLocal : public LocalFileAccess {
 public:
  using LocalFileAccess::exists;
  using LocalFileAccess::getFileInfo;
  using LocalFileAccess::listRecursively;
  using LocalFileAccess::makeDir;
  using LocalFileAccess::parent;

  std::vector<std::string> calls;
  std::optional<ustring> parentAnswer;
  std::function<void()> listRecursivelyThrows;

  bool exists(ustring const& path) override {
    calls.push_back("exists " + b(path));
    return LocalFileAccess::exists(path);
  }
  ustring parent(ustring const& path) override {
    calls.push_back("parent " + b(path));
    return parentAnswer ? *parentAnswer : LocalFileAccess::parent(path);
  }
  void makeDir(ustring const& path) override {
    calls.push_back("makeDir " + b(path));
    LocalFileAccess::makeDir(path);
  }
  std::vector<ustring> listRecursively(ustring const& path) override {
    calls.push_back("listRecursively " + b(path));
    if (listRecursivelyThrows) listRecursivelyThrows();
    return LocalFileAccess::listRecursively(path);
  }
  std::optional<FileInfo> getFileInfo(ustring const& path) override {
    calls.push_back("getFileInfo " + b(path));
    return LocalFileAccess::getFileInfo(path);
  }
};

class LocalDispatchTest : public LocalFileAccessTest {
 protected:
  RecordingLocal recording;
};

TEST_F(LocalDispatchTest, CopyMakesTheParentThroughTheVirtualSlots) {
  writeBytes(dir.at("f"), "f");
  recording.copy(dir.uat("f"), dir.uat("a/b/f"));
  EXPECT_EQ(recording.calls, (std::vector<std::string>{"parent " + dir.at("a/b/f"), "makeDir " + dir.at("a/b")}));
}

TEST_F(LocalDispatchTest, ListFormsCallTheSingleOperation) {
  recording.exists(PathListOf{u"/x", u"/y"});
  recording.getFileInfo(PathListOf{u"/x", u"/y"});
  recording.parent(PathListOf{u"/x/a"});
  EXPECT_EQ(recording.calls,
            (std::vector<std::string>{"exists /x", "exists /y", "getFileInfo /x", "getFileInfo /y", "parent /x/a"}));
}

TEST_F(LocalDispatchTest, ArchiveAsksTheVirtualSlotsForFilesAndBase) {
  writeBytes(dir.at("src/a"), "a");
  recording.tar(dir.uat("src"), dir.uat("s.tar"));
  EXPECT_EQ(recording.calls, (std::vector<std::string>{"listRecursively " + dir.at("src"), "parent " + dir.at("src")}));
}

TEST_F(LocalDispatchTest, EntryNameBeyondTheFileIsTheBasicStringFailure) {
  writeBytes(dir.at("src/a"), "a");
  recording.parentAnswer = u(dir.at("src/a") + "/far/beyond");
  EXPECT_EQ(localErrorOf([&] { recording.tar(dir.uat("src"), dir.uat("s.tar")); }), "basic_string");
  EXPECT_FALSE(present(dir.at("s.tar")));
}

TEST_F(LocalDispatchTest, EntryNameOfOnlySeparatorsIsTheBasicStringFailure) {
  writeBytes(dir.at("src/a"), "a");
  recording.parentAnswer = u(dir.at("src/"));
  // The base covers the folder up to its trailing separator; the file's name follows it.
  recording.tar(dir.uat("src"), dir.uat("ok.tar"));
  EXPECT_EQ(readArchive(dir.at("ok.tar")).names, (std::vector<std::string>{"a"}));
  recording.parentAnswer = u(dir.at("src/a"));
  EXPECT_EQ(localErrorOf([&] { recording.tar(dir.uat("src"), dir.uat("s.tar")); }), "basic_string");
}

TEST_F(LocalDispatchTest, FrameworkExceptionsAreRewrappedAsLocalErrors) {
  recording.listRecursivelyThrows = [] {
    throw FileAccessException(std::string("remote said no"), FileAccessException::Code::RemoteError);
  };
  EXPECT_EQ(localErrorOf([&] { recording.zip(dir.uat("src"), dir.uat("s.zip")); }), "remote said no");
}

TEST_F(LocalDispatchTest, StandardExceptionsAreConvertedWithTheirText) {
  recording.listRecursivelyThrows = [] { throw std::length_error("too long by far"); };
  EXPECT_EQ(localErrorOf([&] { recording.tar(dir.uat("src"), dir.uat("s.tar")); }), "too long by far");
}

TEST_F(LocalDispatchTest, OtherExceptionsPassUnchanged) {
  recording.listRecursivelyThrows = [] { throw 42; };
  EXPECT_THROW(recording.tar(dir.uat("src"), dir.uat("s.tar")), int);
}

}  // namespace
