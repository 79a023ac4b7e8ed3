// remove of a path that ends in '/': such a path names the folder behind a
// link, and "rm -rf 'dir/link/'" would empty that folder. It gets a guarded
// line of its own; every other path keeps its batched "rm -rf" line.

#include "sshfileaccess/UnixSSHFileAccess.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/remote/RecordingRemote.hpp"

namespace {

using namespace nimbal::remoteaccess::sshfileaccess;  // NOLINT(google-build-using-namespace)
using sshfa::testing::expectRemoteError;
using sshfa::testing::RecordingRemoteTest;
using ::testing::ElementsAre;

using Paths = FileAccessInterface::PathList;
using RemoveFolderOnly = RecordingRemoteTest<>;

TEST_F(RemoveFolderOnly, PathsWithoutATrailingSlashKeepTheirLine) {
  remote_->remove(Paths{u"/a", u"b c", u"dir/link"});
  EXPECT_THAT(sent(), ElementsAre(u"rm -rf '/a' 'b c' 'dir/link'"));
}

TEST_F(RemoveFolderOnly, ATrailingSlashGetsTheGuardedLine) {
  remote_->remove(ustring(u"/r/dir/link/"));
  EXPECT_THAT(sent(), ElementsAre(u"if test -L '/r/dir/link'; then printf '%s' 'cannot remove '\\''/r/dir/link/'\\'': "
                                  u"Not a directory' >&2; else rm -rf '/r/dir/link/'; fi"));
}

TEST_F(RemoveFolderOnly, EveryTrailingSlashIsLeftOutOfTheLinkTest) {
  remote_->remove(ustring(u"d//"));
  EXPECT_THAT(sent(), ElementsAre(u"if test -L 'd'; then printf '%s' 'cannot remove '\\''d//'\\'': Not a directory' "
                                  u">&2; else rm -rf 'd//'; fi"));
}

TEST_F(RemoveFolderOnly, OrderIsKeptAroundAGuardedPath) {
  remote_->remove(Paths{u"/a", u"/b", u"/l/", u"/c"});
  EXPECT_THAT(sent(), ElementsAre(u"rm -rf '/a' '/b'",
                                  u"if test -L '/l'; then printf '%s' 'cannot remove '\\''/l/'\\'': Not a directory' "
                                  u">&2; else rm -rf '/l/'; fi",
                                  u"rm -rf '/c'"));
}

TEST_F(RemoveFolderOnly, OptionLikeNamesGetTheDotSlashFormButTheMessageNamesThePathAsWritten) {
  remote_->remove(ustring(u"-rf/"));
  EXPECT_THAT(sent(), ElementsAre(u"if test -L './-rf'; then printf '%s' 'cannot remove '\\''-rf/'\\'': Not a "
                                  u"directory' >&2; else rm -rf './-rf/'; fi"));
}

TEST_F(RemoveFolderOnly, TheGuardsMessageIsTheFailureAndLaterLinesAreNotSent) {
  reply(u"");
  reply(u"", u"cannot remove '/l/': Not a directory", 0);
  expectRemoteError([&] { remote_->remove(Paths{u"/a", u"/l/", u"/c"}); }, "cannot remove '/l/': Not a directory");
  EXPECT_EQ(sent().size(), 2U);
}

}  // namespace
