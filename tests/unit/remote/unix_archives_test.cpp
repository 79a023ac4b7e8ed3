#include "sshfileaccess/UnixSSHFileAccess.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/remote/RecordingRemote.hpp"

namespace {

using namespace nimbal::remoteaccess::sshfileaccess;  // NOLINT(google-build-using-namespace)
using sshfa::testing::expectRemoteError;
using sshfa::testing::RecordingRemoteTest;
using ::testing::ElementsAre;

using Archives = RecordingRemoteTest<>;

TEST_F(Archives, TarChangesIntoTheParentAndPacksTheFinalName) {
  remote_->tar(u"/home/u/data", u"/tmp/d.tar");
  EXPECT_THAT(sent(), ElementsAre(u"cd '/home/u' && tar -cf '/tmp/d.tar' 'data'"));
}

TEST_F(Archives, ZipChangesIntoTheParentAndPacksTheFinalName) {
  remote_->zip(u"/home/u/data", u"/tmp/d.zip");
  EXPECT_THAT(sent(), ElementsAre(u"cd '/home/u' && zip -r '/tmp/d.zip' 'data'"));
}

TEST_F(Archives, UntarChangesIntoTheDestination) {
  remote_->untar(u"/tmp/d.tar", u"/srv/out");
  EXPECT_THAT(sent(), ElementsAre(u"cd '/srv/out' && tar -xf '/tmp/d.tar'"));
}

TEST_F(Archives, UnzipHasNoCdAndNoOverwriteFlag) {
  remote_->unzip(u"/tmp/d.zip", u"/srv/out");
  remote_->unzip(u"rel.zip", u"out");
  EXPECT_THAT(sent(), ElementsAre(u"unzip '/tmp/d.zip' -d '/srv/out'", u"unzip 'rel.zip' -d 'out'"));
}

TEST_F(Archives, BlanksAndQuotesAreQuotedInParentAndName) {
  remote_->tar(u"/home/u/my data", u"/tmp/d.tar");
  remote_->zip(u"/it's/it's", u"/tmp/it's.zip");
  EXPECT_THAT(sent(), ElementsAre(u"cd '/home/u' && tar -cf '/tmp/d.tar' 'my data'",
                                  u"cd '/it'\\''s' && zip -r '/tmp/it'\\''s.zip' 'it'\\''s'"));
}

TEST_F(Archives, SourceWithTrailingSlashOrWithoutFolderPart) {
  remote_->tar(u"/home/u/data/", u"d.tar");
  remote_->tar(u"data", u"d.tar");
  remote_->zip(u"", u"d.zip");
  remote_->tar(u"/data", u"/d.tar");
  EXPECT_THAT(sent(), ElementsAre(u"cd '/home/u' && tar -cf 'd.tar' 'data'", u"cd '' && tar -cf 'd.tar' 'data'",
                                  u"cd '' && zip -r 'd.zip' ''", u"cd '/' && tar -cf '/d.tar' 'data'"));
}

TEST_F(Archives, UntarIgnoresWarningsWhenTheExitCodeIsZero) {
  reply(u"", u"tar: a: time stamp 2099-01-01 00:00:00 is in the future\n", 0);
  remote_->untar(u"/tmp/d.tar", u"/srv/out");
}

TEST_F(Archives, TarFailsOnAWarningEvenWithExitCodeZero) {
  reply(u"", u"tar: Removing leading `/' from member names\n", 0);
  expectRemoteError([&] { remote_->tar(u"/home/u/data", u"/tmp/d.tar"); },
                    "tar: Removing leading `/' from member names\n");
}

TEST_F(Archives, ZipAndUnzipFailOnStandardErrorAndIgnoreTheExitCode) {
  reply(u"", u"\tzip warning: name not matched: data\n", 0);
  expectRemoteError([&] { remote_->zip(u"/home/u/data", u"/tmp/d.zip"); }, "\tzip warning: name not matched: data\n");
  reply(u"Archive:  /tmp/d.zip\n", u" \n", 11);
  remote_->unzip(u"/tmp/d.zip", u"/srv/out");
  reply(u"", u"unzip:  cannot find or open /tmp/none.zip\n", 9);
  expectRemoteError([&] { remote_->unzip(u"/tmp/none.zip", u"/srv/out"); },
                    "unzip:  cannot find or open /tmp/none.zip\n");
}

TEST_F(Archives, UntarIntoAMissingFolderThrowsTheShellMessage) {
  reply(u"", u"sh: 1: cd: can't cd to /srv/none\n", 2);
  expectRemoteError([&] { remote_->untar(u"/tmp/d.tar", u"/srv/none"); }, "sh: 1: cd: can't cd to /srv/none\n");
}

TEST_F(Archives, UntarWithANonZeroExitCodeThrowsEvenWithoutMessage) {
  reply(u"", u"", 2);
  expectRemoteError([&] { remote_->untar(u"/tmp/d.tar", u"/srv/out"); }, "");
}

TEST_F(Archives, UnzipOverExistingFilesSendsNoOverwriteFlagAndFailsOnItsMessage) {
  reply(u"Archive:  /tmp/d.zip\nreplace /srv/out/a? [y]es, [n]o, [A]ll, [N]one, [r]ename: ",
        u"(EOF or read error, treating as \"[N]one\" ...)\n", 0);
  expectRemoteError([&] { remote_->unzip(u"/tmp/d.zip", u"/srv/out"); },
                    "(EOF or read error, treating as \"[N]one\" ...)\n");
  EXPECT_THAT(sent(), ElementsAre(u"unzip '/tmp/d.zip' -d '/srv/out'"));
}

TEST_F(Archives, EachOperationSendsExactlyOneLine) {
  remote_->tar(u"/a/b", u"/c.tar");
  remote_->zip(u"/a/b", u"/c.zip");
  remote_->untar(u"/c.tar", u"/o");
  remote_->unzip(u"/c.zip", u"/o");
  EXPECT_EQ(sent().size(), 4U);
}

class OverridingParent : public UnixSSHFileAccess {
 public:
  using UnixSSHFileAccess::parent;
  using UnixSSHFileAccess::UnixSSHFileAccess;
  ustring parent(ustring const& path) override { return u"/elsewhere" + path; }
};

using ArchiveDispatch = RecordingRemoteTest<OverridingParent>;

TEST_F(ArchiveDispatch, PackingAsksParentThroughTheVirtualSlot) {
  remote_->tar(u"/a/b", u"/c.tar");
  remote_->zip(u"/a/b", u"/c.zip");
  EXPECT_THAT(sent(), ElementsAre(u"cd '/elsewhere/a/b' && tar -cf '/c.tar' 'b'",
                                  u"cd '/elsewhere/a/b' && zip -r '/c.zip' 'b'"));
}

}  // namespace
