// The tool's pure parts: host:path operands, messages in its words, the
// progress line and its own remote zip and unzip lines.

#include <gtest/gtest.h>

#include "tools/sshfa/Commands.hpp"
#include "tools/sshfa/Messages.hpp"
#include "tools/sshfa/Progress.hpp"
#include "tools/sshfa/RemoteArchive.hpp"
#include "tools/sshfa/RemoteOperand.hpp"

namespace sshfa::cli {
namespace {

void expectRemote(std::string const& operand, std::string const& user, std::string const& host,
                  std::string const& path) {
  auto const remote = parseRemoteOperand(operand);
  ASSERT_TRUE(remote) << operand;
  EXPECT_EQ(remote->user, user) << operand;
  EXPECT_EQ(remote->host, host) << operand;
  EXPECT_EQ(remote->path, path) << operand;
}

TEST(RemoteOperand, ScpsRule) {
  expectRemote("box:/srv/a", "", "box", "/srv/a");
  expectRemote("box:notes/a:b", "", "box", "notes/a:b");
  expectRemote("alice@box:x", "alice", "box", "x");
  expectRemote("box:", "", "box", ".");
  expectRemote("alice@box:", "alice", "box", ".");
  expectRemote("[::1]:/srv/a", "", "::1", "/srv/a");
  expectRemote("alice@[fe80::1%eth0]:a", "alice", "fe80::1%eth0", "a");
  expectRemote("a@b@box:x", "a@b", "box", "x");
  for (std::string const local : {"./a:b", "/abs/a:b", "dir/a:b", ":leading", "plain", "", "[::1", "@:x"}) {
    EXPECT_FALSE(parseRemoteOperand(local)) << local;
  }
}

TEST(RemoteOperand, PutTakesTheDestination) {
  ConnectionSettings connection;
  connection.user = "alice";
  EXPECT_EQ(takeRemoteOperands("put", true, {"a", "./b:c", "box:/dst/"}, connection),
            (std::vector<std::string>{"a", "./b:c", "/dst/"}));
  EXPECT_EQ(connection.host, "box");
  EXPECT_EQ(connection.user, "alice");
}

TEST(RemoteOperand, GetTakesTheSourcesOfOneHost) {
  ConnectionSettings connection;
  connection.host = "bob@box";
  EXPECT_EQ(takeRemoteOperands("get", false, {"box:/a", "bob@box:b", "/plain", "dst"}, connection),
            (std::vector<std::string>{"/a", "b", "/plain", "dst"}));
  EXPECT_EQ(connection.host, "box");
  EXPECT_EQ(connection.user, "bob");
}

TEST(RemoteOperand, PlainOperandsLeaveTheConnectionAlone) {
  ConnectionSettings connection;
  connection.host = "h";
  EXPECT_EQ(takeRemoteOperands("get", false, {"/a", "/b"}, connection), (std::vector<std::string>{"/a", "/b"}));
  EXPECT_EQ(connection.host, "h");
}

TEST(RemoteOperand, AmbiguitiesAreUsageErrors) {
  ConnectionSettings connection;
  EXPECT_THROW(takeRemoteOperands("put", true, {"box:/a", "/b"}, connection), UsageError);
  EXPECT_THROW(takeRemoteOperands("put", true, {"box:/a", "box:/b"}, connection), UsageError);
  EXPECT_THROW(takeRemoteOperands("get", false, {"box:/a", "box:/b"}, connection), UsageError);
  EXPECT_THROW(takeRemoteOperands("get", false, {"box:/a", "alice@box:/b", "/c"}, connection), UsageError);
  connection.host = "other";
  EXPECT_THROW(takeRemoteOperands("put", true, {"/a", "box:/b"}, connection), UsageError);
  connection.host = "box";
  connection.user = "carol";
  EXPECT_THROW(takeRemoteOperands("put", true, {"/a", "alice@box:/b"}, connection), UsageError);
  EXPECT_THROW(refuseRemoteOperands("mv", {"/a", "box:/b"}), UsageError);
  EXPECT_NO_THROW(refuseRemoteOperands("mv", {"/a", "./box:/b"}));
}

TEST(Messages, RemoteProgramsAndShellsAreNotRepeated) {
  EXPECT_EQ(inTheToolsWords("mkdir", "mkdir: cannot create directory '/x': Permission denied\n"),
            "mkdir: cannot create directory '/x': Permission denied");
  EXPECT_EQ(inTheToolsWords("untar", "sh: 1: cd: can't cd to /tmp/nodir\n"),
            "untar: cannot enter the folder '/tmp/nodir'");
  EXPECT_EQ(inTheToolsWords("untar", "bash: line 1: cd: /x: No such file or directory\n"),
            "untar: cannot enter the folder /x: No such file or directory");
  EXPECT_EQ(inTheToolsWords("untar",
                            "tar: This does not look like a tar archive\ntar: Exiting with failure status due to "
                            "previous errors\n"),
            "untar: This does not look like a tar archive");
  EXPECT_EQ(inTheToolsWords("rm", "rm: cannot remove 'a': Permission denied\nrm: cannot remove 'b': Busy\n"),
            "rm: cannot remove 'a': Permission denied\nrm: cannot remove 'b': Busy");
  EXPECT_EQ(inTheToolsWords("cp", "cannot open '/x': Permission denied"), "cp: cannot open '/x': Permission denied");
  EXPECT_EQ(inTheToolsWords("rm", "\n  \n"), "rm: failed");
}

TEST(Messages, NearestName) {
  std::vector<std::string> const names{"ls", "stat", "mkdir", "untar", "unzip", "exists", "exec"};
  EXPECT_EQ(nearestName("lst", names), "ls");
  EXPECT_EQ(nearestName("sl", names), "ls");
  EXPECT_EQ(nearestName("mkdri", names), "mkdir");
  EXPECT_EQ(nearestName("stats", names), "stat");
  EXPECT_EQ(nearestName("exsits", names), "exists");
  EXPECT_EQ(nearestName("frobnicate", names), "");
  EXPECT_EQ(nearestName("xyz", names), "");
}

foundation::sshclient::TransferProgress halfway() {
  foundation::sshclient::TransferProgress progress;
  progress.bytesDone = 1024 * 1024;
  progress.bytesTotal = 2 * 1024 * 1024;
  progress.filesDone = 150;
  progress.filesTotal = 300;
  return progress;
}

TEST(ProgressLine, AllFieldsAndABarWhenWide) {
  EXPECT_EQ(progressLine(halfway(), 512 * 1024, 80),
            " 50% [########........]  1.0 MiB / 2.0 MiB  512.0 KiB/s  150/300 files  ETA 0:02");
}

TEST(ProgressLine, NarrowTerminalsDropWholeFieldsFromTheRight) {
  EXPECT_EQ(progressLine(halfway(), 512 * 1024, 61), " 50%  1.0 MiB / 2.0 MiB  512.0 KiB/s  150/300 files  ETA 0:02");
  EXPECT_EQ(progressLine(halfway(), 512 * 1024, 60), " 50%  1.0 MiB / 2.0 MiB  512.0 KiB/s  150/300 files");
  // The bar comes back where a dropped field leaves room for it.
  EXPECT_EQ(progressLine(halfway(), 512 * 1024, 50), " 50% [#####......]  1.0 MiB / 2.0 MiB  512.0 KiB/s");
  EXPECT_EQ(progressLine(halfway(), 512 * 1024, 30), " 50%  1.0 MiB / 2.0 MiB");
  EXPECT_EQ(progressLine(halfway(), 512 * 1024, 5), " 50%");
}

TEST(ProgressLine, NoRateYetMeansNoEstimate) {
  EXPECT_EQ(progressLine(halfway(), 0, 60), " 50%  1.0 MiB / 2.0 MiB  -  150/300 files  ETA -:--");
}

TEST(RemoteArchive, ZipStoresLinksAsLinksFromTheSourcesParent) {
  EXPECT_EQ(zipLine(u"/r/src", u"t", u"/r/t.zip"), u"cd '/r/src' && zip -q -r -y '/r/t.zip' 't' >&2");
  EXPECT_EQ(zipLine(u"", u"it's", u"a b.zip"), u"cd '' && zip -q -r -y 'a b.zip' 'it'\\''s' >&2");
}

TEST(RemoteArchive, UnzipReplacesWhatTheFolderHolds) {
  EXPECT_EQ(unzipLine(u"/r/t.zip", u"/r/out dir"), u"unzip -o '/r/t.zip' -d '/r/out dir'");
}

TEST(RemoteArchive, RelativePathsThatReadAsOptionsGetTheDotSlashForm) {
  EXPECT_EQ(zipLine(u"-p", u"-n", u"-a.zip"), u"cd './-p' && zip -q -r -y './-a.zip' './-n' >&2");
  EXPECT_EQ(unzipLine(u"-a.zip", u"-d"), u"unzip -o './-a.zip' -d './-d'");
  EXPECT_EQ(unzipLine(u"/-a.zip", u"x/-d"), u"unzip -o '/-a.zip' -d 'x/-d'");
}

}  // namespace
}  // namespace sshfa::cli
