// The decisions of SftpFiles on path text, batching, refusals and the
// server's answers, without a server.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/files/Plans.hpp"

namespace sshfa::testing {
namespace {

namespace files = foundation::sshclient::internal::files;
namespace sftp = foundation::sshclient::internal::sftp;
using foundation::sshclient::FileKind;
using Strings = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using namespace std::string_literals;

TEST(Plans, TrailingSlashesGoButTheRootStays) {
  EXPECT_EQ(files::withoutTrailingSlashes("a/b//"), "a/b");
  EXPECT_EQ(files::withoutTrailingSlashes("/a/"), "/a");
  EXPECT_EQ(files::withoutTrailingSlashes("//"), "/");
  EXPECT_EQ(files::withoutTrailingSlashes("/"), "/");
  EXPECT_EQ(files::withoutTrailingSlashes(""), "");
}

TEST(Plans, FoldersAboveAPathOutermostFirst) {
  EXPECT_EQ(files::foldersAbove("/a/b/c"), (Strings{"/a", "/a/b"}));
  EXPECT_EQ(files::foldersAbove("a/b/"), (Strings{"a"}));
  EXPECT_EQ(files::foldersAbove("//a//b"), (Strings{"//a"}));
  EXPECT_EQ(files::foldersAbove("a\nb/c"), (Strings{"a\nb"}));
  EXPECT_TRUE(files::foldersAbove("/a").empty());
  EXPECT_TRUE(files::foldersAbove("a").empty());
  EXPECT_TRUE(files::foldersAbove("/").empty());
}

TEST(Plans, DepthCountsNames) {
  EXPECT_EQ(files::depth("/a/b/"), 2U);
  EXPECT_EQ(files::depth("a//b/c"), 3U);
  EXPECT_EQ(files::depth("a"), 1U);
  EXPECT_EQ(files::depth("/"), 0U);
}

TEST(Plans, TreeOrderPutsAFolderRightBeforeWhatItHolds) {
  Strings paths{"t/a b", "t/a/z", "t/a-", "t/a", "t/a/b", "t/\xff", "t/A"};
  std::sort(paths.begin(), paths.end(), [](auto const& a, auto const& b) { return files::treeOrder(a, b); });
  EXPECT_EQ(paths, (Strings{"t/A", "t/a", "t/a/b", "t/a/z", "t/a b", "t/a-", "t/\xff"}));
}

TEST(Plans, BelowIsThePartUnderTheRoot) {
  EXPECT_EQ(files::below("/r", "/r/a/b"), "a/b");
  EXPECT_EQ(files::below("/r/", "/r/a"), "a");
  EXPECT_EQ(files::below("/r", "/r"), "");
}

TEST(Plans, WithinComparesNormalizedText) {
  EXPECT_TRUE(files::within("/a", "/a/b"));
  EXPECT_TRUE(files::within("/a/", "/a"));
  EXPECT_TRUE(files::within("/a/b/..", "/a/c"));
  EXPECT_TRUE(files::within("a", "a/./b"));
  EXPECT_FALSE(files::within("/a", "/ab"));
  EXPECT_FALSE(files::within("a", "/a"));
  EXPECT_FALSE(files::within("/a/b", "/a"));
}

TEST(Plans, PairsThatTouchEachOtherGoInLaterRuns) {
  EXPECT_EQ(files::independentRuns(Pairs{{"a", "b"}, {"c", "d"}}), (std::vector<std::size_t>{0}));
  EXPECT_EQ(files::independentRuns(Pairs{{"a", "b"}, {"b", "c"}, {"x", "y"}}), (std::vector<std::size_t>{0, 1}));
  EXPECT_EQ(files::independentRuns(Pairs{{"a", "b"}, {"c", "a/x"}}), (std::vector<std::size_t>{0, 1}));
  EXPECT_EQ(files::independentRuns(Pairs{{"d/x", "y"}, {"d", "z"}}), (std::vector<std::size_t>{0, 1}));
  EXPECT_EQ(files::independentRuns(Pairs{{"/s/a", "/d/a"}, {"/s/b", "/d/b"}, {"/s/./a", "/e"}}),
            (std::vector<std::size_t>{0, 2}));
  EXPECT_EQ(files::independentRuns(Pairs{}), (std::vector<std::size_t>{0}));
}

TEST(Plans, IntoAFolderUnderTheSourcesOwnName) {
  EXPECT_EQ(files::intoFolder("/s/a.txt", "/d"), "/d/a.txt");
  EXPECT_EQ(files::intoFolder("s/tree/", "/d/"), "/d/tree");
  EXPECT_EQ(files::intoFolder("a", "d"), "d/a");
}

TEST(Plans, RemovalRefusesTheRootAndDotNames) {
  EXPECT_EQ(files::refusedRemoval("/"), "cannot remove '/': it is the root folder");
  EXPECT_EQ(files::refusedRemoval("///"), "cannot remove '///': it is the root folder");
  EXPECT_EQ(files::refusedRemoval("x/.."), "cannot remove 'x/..': '.' and '..' are never removed");
  EXPECT_EQ(files::refusedRemoval("x/./"), "cannot remove 'x/./': '.' and '..' are never removed");
  EXPECT_EQ(files::refusedRemoval("."), "cannot remove '.': '.' and '..' are never removed");
  for (auto const& path : {"x"s, ".x"s, "x/..y"s, "/a/b/"s, "..."s, ""s}) {
    EXPECT_EQ(files::refusedRemoval(path), std::nullopt) << path;
  }
}

TEST(Plans, CopyTemporaryLiesBesideItsDestination) {
  EXPECT_EQ(files::copyTemporary("/d/f.txt", "0a"), "/d/.f.txt.sshfa-copy-0a");
  EXPECT_EQ(files::copyTemporary("f", "0a"), ".f.sshfa-copy-0a");
  EXPECT_EQ(files::copyTemporary("/d/" + std::string(300, 'n'), "0a"),
            "/d/." + std::string(200, 'n') + ".sshfa-copy-0a");
}

TEST(Plans, AttributesTellTheKind) {
  sftp::Attributes attributes;
  attributes.permissions = 040750;
  attributes.size = 4096;
  attributes.mtime = 1000;
  attributes.atime = 2000;
  auto const folder = files::statusOf(attributes);
  EXPECT_EQ(folder.kind, FileKind::Folder);
  EXPECT_EQ(folder.permissions, 0750U);
  EXPECT_EQ(folder.size, 4096U);
  EXPECT_EQ(folder.modified, 1000);
  EXPECT_EQ(folder.accessed, 2000);
  attributes.permissions = 0120777;
  EXPECT_EQ(files::statusOf(attributes).kind, FileKind::Link);
  attributes.permissions = 010644;
  EXPECT_EQ(files::statusOf(attributes).kind, FileKind::Other);
  attributes.permissions = 0104755;
  EXPECT_EQ(files::statusOf(attributes).kind, FileKind::File);
  EXPECT_EQ(files::statusOf(attributes).permissions, 04755U);
  EXPECT_EQ(files::statusOf(sftp::Attributes{}).kind, FileKind::File);
}

TEST(Plans, CausesInTheWordsOfTheSystemsTools) {
  EXPECT_EQ(files::causeOf(sftp::StatusCode::NoSuchFile, "No such file"), "No such file or directory");
  EXPECT_EQ(files::causeOf(sftp::StatusCode::PermissionDenied, "Permission denied"), "Permission denied");
  EXPECT_EQ(files::causeOf(sftp::StatusCode::Failure, "Failure"), "Failure");
  EXPECT_EQ(files::causeOf(sftp::StatusCode::Failure, "disk on fire"), "Failure (disk on fire)");
}

}  // namespace
}  // namespace sshfa::testing
