#include "sshfileaccess/platform/filesystem/FileSystem.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <set>
#include <vector>

#include "sshfileaccess/platform/except/Exception.hpp"
#include "sshfileaccess/platform/filesystem/Path.hpp"
#include "tests/unit/local/LocalTestSupport.hpp"

namespace fs = fl::filesystem;
using boost::posix_time::ptime;
using boost::posix_time::time_from_string;
using foundation::core::except::RuntimeError;
using namespace sshfa::testing::local;

namespace {

fs::file_status::bits_type typeOf(fs::file_status const& status) {
  return status.bits() & fs::file_status::file_type_mask;
}

std::vector<ustring> namesOf(fs::upath_directory_iterator it) {
  std::vector<ustring> names;
  for (const fs::upath_directory_iterator end; it != end; ++it) names.push_back(it->file_name());
  std::sort(names.begin(), names.end());
  return names;
}

std::set<std::string> recursivePaths(std::string const& root) {
  std::set<std::string> paths;
  for (fs::upath_recursive_directory_iterator it(u(root)), end; it != end; ++it) paths.insert(b(it->path_name()));
  return paths;
}

class FileSystemTest : public ::testing::Test {
 protected:
  TempDir dir;
};

// ---- status and exists -------------------------------------------------------------------

TEST_F(FileSystemTest, StatusOfRegularFileCarriesSizeAndMicrosecondTime) {
  writeBytes(dir.at("f"), "12345");
  setModificationTime(dir.at("f"), 946728000, 750'123'456);  // 2000-01-01 12:00:00.750123456
  const fs::file_status st = fs::status(dir.uat("f"));
  EXPECT_EQ(st.bits(), fs::file_status::regular_file);
  EXPECT_EQ(st.size(), 5U);
  EXPECT_EQ(st.last_write_time(), time_from_string("2000-01-01 12:00:00.750123"));
}

TEST_F(FileSystemTest, StatusOfFolderIsDirectoryFile) {
  EXPECT_EQ(typeOf(fs::status(u(dir.path()))), fs::file_status::directory_file);
}

TEST_F(FileSystemTest, StatusOfMissingPathCarriesOnlyFileNotFound) {
  const fs::file_status st = fs::status(dir.uat("missing"));
  EXPECT_EQ(st.bits(), fs::file_status::file_not_found);
  EXPECT_EQ(typeOf(st), fs::file_status::type_unknown);
  EXPECT_TRUE(st.last_write_time().is_not_a_date_time());
}

TEST_F(FileSystemTest, StatusBelowARegularFileIsNotFound) {
  writeBytes(dir.at("f"), "x");
  EXPECT_EQ(fs::status(dir.uat("f/below")).bits(), fs::file_status::file_not_found);
}

TEST_F(FileSystemTest, StatusOfEmptyPathIsNotFound) {
  EXPECT_EQ(fs::status(u"").bits(), fs::file_status::file_not_found);
}

TEST_F(FileSystemTest, StatusFollowsSymbolicLinks) {
  writeBytes(dir.at("f"), "abc");
  makeSymlink(dir.at("f"), dir.at("link"));
  const fs::file_status st = fs::status(dir.uat("link"));
  EXPECT_EQ(st.bits(), fs::file_status::regular_file);
  EXPECT_EQ(st.size(), 3U);
}

TEST_F(FileSystemTest, StatusOfNameTooLongThrowsWithPathAndOsText) {
  const std::string path = tooLongName(dir.path());
  EXPECT_EQ(messageOf([&] { (void)fs::status(u(path)); }),
            "cannot get the status of '" + path + "': File name too long");
}

TEST_F(FileSystemTest, StatusOfLinkLoopThrows) {
  makeSymlink(dir.at("b"), dir.at("a"));
  makeSymlink(dir.at("a"), dir.at("b"));
  EXPECT_EQ(messageOf([&] { (void)fs::status(dir.uat("a")); }),
            "cannot get the status of '" + dir.at("a") + "': Too many levels of symbolic links");
}

TEST_F(FileSystemTest, PathWithNulIsRefused) {
  const ustring path = u(dir.path()) + ustring(1, u'\0') + u"x";
  EXPECT_EQ(messageOf([&] { (void)fs::status(path); }),
            "cannot use the path '" + dir.path() + "?x' holding a NUL character: Invalid argument");
  EXPECT_EQ(messageOf([&] { (void)fs::detail::make_native_access_form_with_cleanup_i18n(path); }),
            "cannot use the path '" + dir.path() + "?x' holding a NUL character: Invalid argument");
}

TEST_F(FileSystemTest, ExistsAnswersForFilesFoldersAndMissingPaths) {
  writeBytes(dir.at("f"), "");
  EXPECT_TRUE(fs::exists(dir.uat("f")));
  EXPECT_TRUE(fs::exists(u(dir.path())));
  EXPECT_FALSE(fs::exists(dir.uat("missing")));
  EXPECT_FALSE(fs::exists(u""));
}

TEST_F(FileSystemTest, NameThatIsNotUtf8IsExamined) {
  writeBytes(dir.at("bad\xff\xfe"), "xy");
  const ustring path = dir.uat("bad\xff\xfe");
  EXPECT_EQ(path.substr(path.size() - 2), (ustring{0xDCFF, 0xDCFE}));
  EXPECT_EQ(fs::status(path).size(), 2U);
}

// ---- copy ---------------------------------------------------------------------------------

TEST_F(FileSystemTest, RecursiveOverwritingCopyOptionIsNine) {
  EXPECT_EQ(static_cast<unsigned>(fs::copy_option::recursive | fs::copy_option::overwrite_existing), 9U);
}

TEST_F(FileSystemTest, CopiesAFile) {
  writeBytes(dir.at("a"), "content");
  fs::copy(dir.uat("a"), dir.uat("b"), fs::copy_option::none);
  EXPECT_EQ(readBytes(dir.at("b")), "content");
}

TEST_F(FileSystemTest, CopyOntoExistingFileFailsWithoutAChoice) {
  writeBytes(dir.at("a"), "new");
  writeBytes(dir.at("b"), "old");
  EXPECT_EQ(messageOf([&] { fs::copy(dir.uat("a"), dir.uat("b"), fs::copy_option::none); }),
            "cannot copy '" + dir.at("a") + "' to '" + dir.at("b") + "': File exists");
  EXPECT_EQ(readBytes(dir.at("b")), "old");
}

TEST_F(FileSystemTest, CopyOptionsDecideAboutAnExistingFile) {
  writeBytes(dir.at("a"), "new");
  writeBytes(dir.at("b"), "old");
  fs::copy(dir.uat("a"), dir.uat("b"), fs::copy_option::skip_existing);
  EXPECT_EQ(readBytes(dir.at("b")), "old");
  setModificationTime(dir.at("a"), 1000, 0);
  fs::copy(dir.uat("a"), dir.uat("b"), fs::copy_option::update_existing);
  EXPECT_EQ(readBytes(dir.at("b")), "old");
  fs::copy(dir.uat("a"), dir.uat("b"), fs::copy_option::overwrite_existing);
  EXPECT_EQ(readBytes(dir.at("b")), "new");
}

TEST_F(FileSystemTest, FolderNeedsRecursiveCopy) {
  makeFolders(dir.at("src"));
  EXPECT_EQ(messageOf([&] { fs::copy(dir.uat("src"), dir.uat("dst"), fs::copy_option::none); }),
            "cannot copy '" + dir.at("src") + "' to '" + dir.at("dst") + "': Is a directory");
  EXPECT_FALSE(present(dir.at("dst")));
}

TEST_F(FileSystemTest, RecursiveCopyCopiesTheTreeAndLinksAsLinks) {
  writeBytes(dir.at("src/a.txt"), "a");
  writeBytes(dir.at("src/sub/b.txt"), "b");
  makeFolders(dir.at("src/empty"));
  writeBytes(dir.at("outside/secret"), "s");
  makeSymlink(dir.at("outside"), dir.at("src/link"));
  makeSymlink("..", dir.at("src/sub/up"));  // a loop if it were followed
  fs::copy(dir.uat("src"), dir.uat("dst"), fs::copy_option::recursive);
  EXPECT_EQ(readBytes(dir.at("dst/a.txt")), "a");
  EXPECT_EQ(readBytes(dir.at("dst/sub/b.txt")), "b");
  EXPECT_TRUE(std::filesystem::is_directory(dir.at("dst/empty")));
  EXPECT_TRUE(std::filesystem::is_symlink(dir.at("dst/link")));
  EXPECT_EQ(std::filesystem::read_symlink(dir.at("dst/link")).string(), dir.at("outside"));
  EXPECT_EQ(std::filesystem::read_symlink(dir.at("dst/sub/up")).string(), "..");
}

TEST_F(FileSystemTest, RecursiveOverwritingCopyMergesIntoAnExistingTree) {
  writeBytes(dir.at("src/a.txt"), "new");
  makeSymlink("a.txt", dir.at("src/l"));
  writeBytes(dir.at("dst/a.txt"), "old");
  writeBytes(dir.at("dst/keep.txt"), "keep");
  makeSymlink("keep.txt", dir.at("dst/l"));
  fs::copy(dir.uat("src"), dir.uat("dst"), fs::copy_option::recursive | fs::copy_option::overwrite_existing);
  EXPECT_EQ(readBytes(dir.at("dst/a.txt")), "new");
  EXPECT_EQ(readBytes(dir.at("dst/keep.txt")), "keep");
  EXPECT_EQ(std::filesystem::read_symlink(dir.at("dst/l")).string(), "a.txt");
}

TEST_F(FileSystemTest, FolderIsNotCopiedIntoItself) {
  writeBytes(dir.at("src/a"), "a");
  EXPECT_EQ(
      messageOf([&] { fs::copy(dir.uat("src"), dir.uat("src/inner"), fs::copy_option::recursive); }),
      "cannot copy '" + dir.at("src") + "' to '" + dir.at("src/inner") + "', a folder into itself: Invalid argument");
  EXPECT_FALSE(present(dir.at("src/inner")));
}

TEST_F(FileSystemTest, CopyOfMissingSourceNamesIt) {
  EXPECT_EQ(messageOf([&] { fs::copy(dir.uat("missing"), dir.uat("b"), fs::copy_option::recursive); }),
            "cannot copy '" + dir.at("missing") + "' to '" + dir.at("b") + "': No such file or directory");
}

TEST_F(FileSystemTest, CopyFailureNamesTheEntryThatFailed) {
  writeBytes(dir.at("src/sub/f"), "f");
  writeBytes(dir.at("dst/sub"), "a file where the folder goes");
  EXPECT_EQ(messageOf([&] {
              fs::copy(dir.uat("src"), dir.uat("dst"),
                       fs::copy_option::recursive | fs::copy_option::overwrite_existing);
            }),
            "cannot copy '" + dir.at("src/sub") + "' to '" + dir.at("dst/sub") + "': File exists");
}

// ---- rename ---------------------------------------------------------------------------------

TEST_F(FileSystemTest, RenameReplacesAnExistingFileByDefault) {
  writeBytes(dir.at("a"), "a");
  writeBytes(dir.at("b"), "b");
  fs::rename(dir.uat("a"), dir.uat("b"), fs::rename_options{});
  EXPECT_FALSE(present(dir.at("a")));
  EXPECT_EQ(readBytes(dir.at("b")), "a");
}

TEST_F(FileSystemTest, RenameWithNoReplaceKeepsAnExistingFile) {
  writeBytes(dir.at("a"), "a");
  writeBytes(dir.at("b"), "b");
  EXPECT_EQ(messageOf([&] { fs::rename(dir.uat("a"), dir.uat("b"), fs::rename_options{true}); }),
            "cannot rename '" + dir.at("a") + "' to '" + dir.at("b") + "': File exists");
  EXPECT_EQ(readBytes(dir.at("b")), "b");
}

TEST_F(FileSystemTest, RenameIntoMissingFolderFails) {
  writeBytes(dir.at("a"), "a");
  EXPECT_EQ(messageOf([&] { fs::rename(dir.uat("a"), dir.uat("new/a"), fs::rename_options{}); }),
            "cannot rename '" + dir.at("a") + "' to '" + dir.at("new/a") + "': No such file or directory");
}

// ---- remove_all -------------------------------------------------------------------------------

TEST_F(FileSystemTest, RemoveAllRemovesATreeAndCountsEntries) {
  writeBytes(dir.at("t/a"), "a");
  writeBytes(dir.at("t/sub/b"), "b");
  EXPECT_EQ(fs::remove_all(dir.uat("t")), 4U);
  EXPECT_FALSE(present(dir.at("t")));
}

TEST_F(FileSystemTest, RemoveAllOfMissingPathRemovesNothing) { EXPECT_EQ(fs::remove_all(dir.uat("missing")), 0U); }

TEST_F(FileSystemTest, RemoveAllDoesNotFollowLinks) {
  writeBytes(dir.at("outside/keep"), "k");
  writeBytes(dir.at("t/f"), "f");
  makeSymlink(dir.at("outside"), dir.at("t/link"));
  EXPECT_EQ(fs::remove_all(dir.uat("t")), 3U);
  EXPECT_EQ(readBytes(dir.at("outside/keep")), "k");
}

TEST_F(FileSystemTest, RemoveAllNamesTheEntryItCannotRemove) {
  writeBytes(dir.at("t/locked/f"), "f");
  const ImmutableGuard guard(dir.at("t/locked"));
  if (!guard.active()) GTEST_SKIP() << "immutable flag not available here";
  EXPECT_EQ(messageOf([&] { fs::remove_all(dir.uat("t")); }),
            "cannot remove '" + dir.at("t/locked/f") + "': Operation not permitted");
}

TEST_F(FileSystemTest, RemoveAllOfALinkWithATrailingSlashRemovesNothingThroughIt) {
  writeBytes(dir.at("real/keep"), "k");
  makeSymlink(dir.at("real"), dir.at("link"));
  EXPECT_EQ(messageOf([&] { fs::remove_all(dir.uat("link/")); }),
            "cannot remove '" + dir.at("link/") + "': Not a directory");
  EXPECT_EQ(readBytes(dir.at("link/keep")), "k");
}

TEST_F(FileSystemTest, RemoveAllWithATrailingSlashTakesAFolderOnly) {
  writeBytes(dir.at("t/sub/f"), "f");
  writeBytes(dir.at("file"), "f");
  EXPECT_EQ(fs::remove_all(dir.uat("t//")), 3U);
  EXPECT_FALSE(present(dir.at("t")));
  EXPECT_EQ(fs::remove_all(dir.uat("file/")), 0U);
  EXPECT_EQ(readBytes(dir.at("file")), "f");
}

TEST_F(FileSystemTest, RemoveAllRefusesAPathEndingInDotOrDotDot) {
  writeBytes(dir.at("t/sub/f"), "f");
  makeSymlink(dir.at("t"), dir.at("link"));
  for (std::string const name : {"t/.", "t/sub/..", "link/.", "t/./"}) {
    EXPECT_EQ(messageOf([&] { fs::remove_all(dir.uat(name)); }),
              "cannot remove '" + dir.at(name) + "': it ends in '.' or '..'");
  }
  EXPECT_EQ(readBytes(dir.at("t/sub/f")), "f");
}

TEST_F(FileSystemTest, RemovalRefusalIsDecidedByTheTextAlone) {
  using fs::detail::removal_refusal;
  EXPECT_STREQ(removal_refusal("/"), "it is the root folder");
  EXPECT_STREQ(removal_refusal("///"), "it is the root folder");
  for (char const* dots : {".", "..", "./", "a/.", "/a/..", "a/..//"}) {
    EXPECT_STREQ(removal_refusal(dots), "it ends in '.' or '..'") << dots;
  }
  for (char const* fine : {"", "a", "a/", ".a", "a.", "...", "./a", "../a", "/a/.b/"}) {
    EXPECT_EQ(removal_refusal(fine), nullptr) << fine;
  }
}

TEST_F(FileSystemTest, RemoveAllNamesNestedEntriesBelowAPathWithATrailingSlash) {
  writeBytes(dir.at("t/locked/f"), "f");
  const ImmutableGuard guard(dir.at("t/locked"));
  if (!guard.active()) GTEST_SKIP() << "immutable flag not available here";
  EXPECT_EQ(messageOf([&] { fs::remove_all(dir.uat("t/")); }),
            "cannot remove '" + dir.at("t/locked/f") + "': Operation not permitted");
}

// ---- create_directories, last_write_time, ofstream ------------------------------------------------

TEST_F(FileSystemTest, CreateDirectoriesMakesEveryLevel) {
  EXPECT_TRUE(fs::create_directories(dir.uat("x/y/z")));
  EXPECT_TRUE(std::filesystem::is_directory(dir.at("x/y/z")));
  EXPECT_FALSE(fs::create_directories(dir.uat("x/y/z")));
}

TEST_F(FileSystemTest, CreateDirectoriesOfEmptyPathNeedsNothing) { EXPECT_FALSE(fs::create_directories(u"")); }

TEST_F(FileSystemTest, CreateDirectoriesOverAFileFails) {
  writeBytes(dir.at("f"), "f");
  EXPECT_EQ(messageOf([&] { fs::create_directories(dir.uat("f")); }),
            "cannot create folder '" + dir.at("f") + "': Not a directory");
  EXPECT_EQ(messageOf([&] { fs::create_directories(dir.uat("f/sub")); }),
            "cannot create folder '" + dir.at("f/sub") + "': Not a directory");
}

TEST_F(FileSystemTest, LastWriteTimeSetsTheModificationTimeToTheMicrosecond) {
  writeBytes(dir.at("f"), "f");
  fs::last_write_time(dir.uat("f"), time_from_string("2001-02-03 04:05:06.250000"));
  const timespec t = modificationTime(dir.at("f"));
  EXPECT_EQ(t.tv_sec, 981173106);
  EXPECT_EQ(t.tv_nsec, 250'000'000);
}

TEST_F(FileSystemTest, LastWriteTimeBeforeTheEpochKeepsTheFraction) {
  writeBytes(dir.at("f"), "f");
  fs::last_write_time(dir.uat("f"), time_from_string("1969-12-31 23:59:59.250000"));
  const timespec t = modificationTime(dir.at("f"));
  EXPECT_EQ(t.tv_sec, -1);
  EXPECT_EQ(t.tv_nsec, 250'000'000);
}

TEST_F(FileSystemTest, LastWriteTimeOfMissingFileFails) {
  EXPECT_EQ(messageOf([&] { fs::last_write_time(dir.uat("missing"), time_from_string("2001-02-03 04:05:06")); }),
            "cannot set the modification time of '" + dir.at("missing") + "': No such file or directory");
}

TEST_F(FileSystemTest, LastWriteTimeRefusesSpecialValues) {
  writeBytes(dir.at("f"), "f");
  EXPECT_EQ(messageOf([&] { fs::last_write_time(dir.uat("f"), ptime()); }),
            "cannot set the modification time of '" + dir.at("f") + "': Invalid argument");
}

TEST_F(FileSystemTest, OfstreamOpensByTheNativeAccessForm) {
  writeBytes(dir.at("bad\xff"), "old");
  {
    fs::basic_ofstream<char> out(fs::detail::make_native_access_form_with_cleanup_i18n(dir.uat("bad\xff")),
                                 std::ios_base::app | std::ios_base::out);
    ASSERT_TRUE(out.is_open());
    out << "+new";
  }
  EXPECT_EQ(readBytes(dir.at("bad\xff")), "old+new");
  const fs::basic_ofstream<char> missing(fs::detail::make_native_access_form_with_cleanup_i18n(dir.uat("no/f")),
                                         std::ios_base::app | std::ios_base::out);
  EXPECT_FALSE(missing.is_open());
}

// ---- iteration ---------------------------------------------------------------------------------

TEST_F(FileSystemTest, DirectoryIterationDeliversDotsUnlessSkipped) {
  writeBytes(dir.at("d/a"), "");
  makeFolders(dir.at("d/sub"));
  EXPECT_EQ(namesOf(fs::upath_directory_iterator(dir.uat("d"), fs::report_open_errors, false)),
            (std::vector<ustring>{u".", u"..", u"a", u"sub"}));
  EXPECT_EQ(namesOf(fs::upath_directory_iterator(dir.uat("d"), fs::report_open_errors, true)),
            (std::vector<ustring>{u"a", u"sub"}));
}

TEST_F(FileSystemTest, DirectoryEntryJoinsTheFolderPathAndGivesItsOwnStatus) {
  writeBytes(dir.at("d/f"), "abc");
  makeSymlink("f", dir.at("d/l"));
  std::vector<std::pair<std::string, fs::file_status::bits_type>> entries;
  for (fs::upath_directory_iterator it(dir.uat("d"), fs::report_open_errors, true), end; it != end; ++it) {
    entries.emplace_back(b(it->path_name()), it->status().bits());
  }
  std::sort(entries.begin(), entries.end());
  EXPECT_EQ(entries,
            (std::vector<std::pair<std::string, fs::file_status::bits_type>>{
                {dir.at("d/f"), fs::file_status::regular_file}, {dir.at("d/l"), fs::file_status::symlink_file}}));
}

TEST_F(FileSystemTest, DirectoryIterationOpenModes) {
  const std::string missing = dir.at("missing");
  EXPECT_EQ(messageOf([&] { fs::upath_directory_iterator it(u(missing), fs::report_open_errors, false); }),
            "cannot open folder '" + missing + "': No such file or directory");
  EXPECT_EQ(fs::upath_directory_iterator(u(missing), fs::skip_unopenable, false), fs::upath_directory_iterator());
}

TEST_F(FileSystemTest, RecursiveIterationWalksEverythingWithoutFollowingLinks) {
  writeBytes(dir.at("t/a"), "");
  writeBytes(dir.at("t/sub/b"), "");
  writeBytes(dir.at("outside/c"), "");
  makeSymlink(dir.at("outside"), dir.at("t/sub/link"));
  makeSymlink("..", dir.at("t/sub/up"));
  EXPECT_EQ(recursivePaths(dir.at("t")), (std::set<std::string>{dir.at("t/a"), dir.at("t/sub"), dir.at("t/sub/b"),
                                                                dir.at("t/sub/link"), dir.at("t/sub/up")}));
}

TEST_F(FileSystemTest, RecursiveIterationGivesEachEntryItsOwnStatusAndAFolderBeforeItsContents) {
  writeBytes(dir.at("t/sub/b"), "12");
  makeSymlink("sub", dir.at("t/l"));
  std::vector<std::pair<std::string, fs::file_status::bits_type>> order;
  for (fs::upath_recursive_directory_iterator it(dir.uat("t")), end; it != end; ++it) {
    order.emplace_back(b(it->file_name()), typeOf(it->status()));
    if (it->file_name() == u"b") {
      EXPECT_EQ(it->status().size(), 2U);
    }
  }
  const auto sub = std::find(order.begin(), order.end(), std::pair<std::string, unsigned>{"sub", 2});
  ASSERT_NE(sub, order.end());
  EXPECT_EQ(*(sub + 1), (std::pair<std::string, unsigned>{"b", fs::file_status::regular_file}));
  EXPECT_NE(std::find(order.begin(), order.end(), std::pair<std::string, unsigned>{"l", fs::file_status::symlink_file}),
            order.end());
  EXPECT_EQ(order.size(), 3U);
}

TEST_F(FileSystemTest, RecursiveIterationOfEmptyFolderIsTheEnd) {
  EXPECT_EQ(fs::upath_recursive_directory_iterator(u(dir.path())), fs::upath_recursive_directory_iterator());
}

TEST_F(FileSystemTest, RecursiveIterationOfMissingFolderThrows) {
  EXPECT_EQ(messageOf([&] { fs::upath_recursive_directory_iterator it(dir.uat("missing")); }),
            "cannot open folder '" + dir.at("missing") + "': No such file or directory");
}

TEST_F(FileSystemTest, NamesThatAreNotUtf8AndHoldNewlinesAreListedLosslessly) {
  const std::string name = "x\xff\ny";
  writeBytes(dir.at("t/" + name), "");
  const std::set<std::string> paths = recursivePaths(dir.at("t"));
  EXPECT_EQ(paths, (std::set<std::string>{dir.at("t/" + name)}));
  EXPECT_EQ(fs::remove_all(dir.uat("t/" + name)), 1U);
  EXPECT_FALSE(present(dir.at("t/" + name)));
}

}  // namespace
