// Trees worked one folder at a time against the real sshd, both ways: a
// folder wider than anything held ahead arrives whole, is mirrored exactly
// and stops cleanly; more folders and files than the process may hold open
// arrive, or go; a mirror across many folders removes exactly the extras,
// and a folder whose listing could not be trusted loses nothing while the
// others are mirrored.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/HostileSftpServer.hpp"
#include "tests/support/SshTestHelpers.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using ssh::TransferDirection;

// Makes the missing folders above `path` too.
void writeAt(fs::path const& path, std::string const& text) {
  fs::create_directories(path.parent_path());
  writeFile(path, text);
}

class Streaming : public ::testing::TestWithParam<TransferDirection> {
 protected:
  [[nodiscard]] bool upload() const { return GetParam() == TransferDirection::LocalToRemote; }
  [[nodiscard]] fs::path src() const { return scratch_ / "src"; }
  [[nodiscard]] fs::path dst() const { return scratch_ / "dst"; }

  ssh::TreeTransferReport copyTree(ssh::SSHClient& client, ssh::TreeTransferOptions const& options) {
    auto const from = u(src().string());
    auto const to = u(dst().string());
    std::vector<ssh::FileLocations> items{upload() ? ssh::FileLocations{from, to} : ssh::FileLocations{to, from}};
    return client.copyTrees(ssh::CopyTreesCommand(std::move(items), GetParam(), options));
  }

  // Names and contents of every file below `root`, sorted.
  static std::vector<std::string> filesBelow(fs::path const& root) {
    std::vector<std::string> files;
    for (auto const& entry : fs::recursive_directory_iterator(root)) {
      if (entry.is_regular_file()) files.push_back(fs::relative(entry.path(), root).string() + "=" + readFile(entry));
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  ScratchDir scratch_;
};

TEST_P(Streaming, AFolderOf50000FilesArrivesWhole) {
  fs::create_directories(src() / "wide");
  for (int i = 0; i < 50'000; ++i) writeFile(src() / "wide" / ("f" + std::to_string(i)), std::to_string(i));
  writeAt(src() / "after", "after the wide folder");
  auto const client = TestSshd::instance().connect();
  auto const report = copyTree(*client, {});
  EXPECT_EQ(report.files, 50'001U);
  EXPECT_EQ(report.folders, 2U);
  EXPECT_EQ(filesBelow(dst()), filesBelow(src()));
}

TEST_P(Streaming, AMirrorAcrossManyFoldersRemovesExactlyTheExtras) {
  for (int d = 0; d < 300; ++d) {
    for (int f = 0; f < 5; ++f) {
      writeAt(src() / ("d" + std::to_string(d)) / ("f" + std::to_string(f)), "x");
    }
  }
  auto const client = TestSshd::instance().connect();
  copyTree(*client, {});
  // Extras in every tenth folder, and three folders of extras with contents.
  std::size_t extras = 0;
  for (int d = 0; d < 300; d += 10) {
    writeAt(dst() / ("d" + std::to_string(d)) / "extra", "e");
    ++extras;
  }
  for (int d = 0; d < 3; ++d) {
    writeAt(dst() / ("gone" + std::to_string(d)) / "deeper" / "g", "g");
    extras += 3;
  }
  auto const report = copyTree(*client, {.skipUnchanged = ssh::UnchangedTest::SizeAndTime, .deleteExtraneous = true});
  EXPECT_EQ(report.deleted, extras);
  EXPECT_EQ(report.files, 0U);
  EXPECT_EQ(report.skipped, 1500U);
  EXPECT_EQ(filesBelow(dst()), filesBelow(src()));
}

// More files than wait queued at once: the folder's extras go only once all
// of its files are in, and only they.
TEST_P(Streaming, AMirrorOfAWideFolderRemovesItsExtrasOnce) {
  for (int i = 0; i < 5'000; ++i) writeAt(src() / "wide" / ("f" + std::to_string(i)), std::to_string(i));
  writeAt(dst() / "wide" / "extra", "e");
  writeAt(dst() / "wide" / "f7", "old");
  auto const client = TestSshd::instance().connect();
  auto const report = copyTree(*client, {.skipUnchanged = ssh::UnchangedTest::SizeAndTime, .deleteExtraneous = true});
  EXPECT_EQ(report.files, 5'000U);
  EXPECT_EQ(report.deleted, 1U);
  EXPECT_EQ(filesBelow(dst()), filesBelow(src()));
}

// A stop while a folder's copies still wait to be queued ends the run at
// once: what arrived is whole and under its name, nothing else is there.
TEST_P(Streaming, AStopWhileCopiesWaitLeavesOnlyWholeFiles) {
  for (int i = 0; i < 5'000; ++i) writeAt(src() / "wide" / ("f" + std::to_string(i)), std::to_string(i));
  struct Stopped {};
  ssh::TreeTransferOptions options;
  std::size_t copied = 0;
  options.onChange = [&](ssh::PlannedChange const& change) {
    if (change.action == ssh::PlannedChange::Action::Copy && ++copied == 100) throw Stopped{};
  };
  auto const client = TestSshd::instance().connect();
  EXPECT_THROW(copyTree(*client, options), Stopped);
  std::size_t arrived = 0;
  for (auto const& entry : fs::directory_iterator(dst() / "wide")) {
    auto const name = entry.path().filename().string();
    ASSERT_EQ(name.front(), 'f') << name;
    EXPECT_EQ(readFile(entry.path()), name.substr(1));
    ++arrived;
  }
  EXPECT_GE(arrived, 100U);
  EXPECT_LT(arrived, 5'000U);
}

// A folder of more folders, and one of more files, than the process may
// hold open at once: everything arrives.
TEST_P(Streaming, MoreFoldersAndFilesThanOpenFilesAllowedArrive) {
  for (int i = 0; i < 600; ++i) writeAt(src() / "folders" / ("d" + std::to_string(i)) / "f", std::to_string(i));
  for (int i = 0; i < 1'500; ++i) writeAt(src() / "files" / ("f" + std::to_string(i)), std::to_string(i));
  auto const client = TestSshd::instance().connect();
  OpenFileLimit const limit(256);
  auto const report = copyTree(*client, {});
  EXPECT_EQ(report.files, 2'100U);
  EXPECT_EQ(filesBelow(dst()), filesBelow(src()));
}

// A folder of more folders than either side may hold open, gone from the
// source: a mirror removes all of it (a server lists what it removes a
// folder at a time, each holding a handle).
TEST_P(Streaming, AMirrorRemovesMoreFoldersThanOpenFilesAllow) {
  writeAt(src() / "keep", "k");
  for (int i = 0; i < 600; ++i) writeAt(dst() / "gone" / ("d" + std::to_string(i)) / "f", std::to_string(i));
  // What lies beside the destination must stay as it is.
  writeAt(scratch_ / "beside" / "d0" / "f", "b");
  auto const before = filesBelow(scratch_.path());
  std::unique_ptr<TestSshd> server;
  {
    OpenFileLimit const limit(256);
    server = std::make_unique<TestSshd>();
  }
  auto const client = server->connect();
  OpenFileLimit const limit(256);
  auto const report = copyTree(*client, {.deleteExtraneous = true});
  EXPECT_EQ(report.deleted, 1'201U);
  EXPECT_EQ(filesBelow(dst()), filesBelow(src()));
  EXPECT_FALSE(fs::exists(dst() / "gone"));
  auto outside = before;
  std::erase_if(outside, [](std::string const& file) { return file.starts_with("dst/"); });
  auto after = filesBelow(scratch_.path());
  std::erase_if(after, [](std::string const& file) { return file.starts_with("dst/"); });
  EXPECT_EQ(after, outside);
  EXPECT_THAT(outside, ::testing::ElementsAre("beside/d0/f=b", "src/keep=k"));
}

// The server's listing of one folder holds a name that cannot be trusted:
// nothing in that folder is removed, the other folders are mirrored.
TEST_P(Streaming, AFolderWhoseListingLiedLosesNothing) {
  for (auto const* folder : {"a", "b", "c"}) writeAt(src() / folder / "f", "x");
  fs::create_directories(dst());
  for (auto const* folder : {"a", "b", "c"}) writeAt(dst() / folder / "extra", "e");
  // The lie is in the remote side's listing: the source for downloads, the
  // destination for uploads.
  hostile::Rule rule;
  rule.folder = ((upload() ? dst() : src()) / "b").string();
  rule.name = "../f";
  rule.mode = std::uint64_t{0644};
  rule.size = std::uint64_t{1};
  rule.mtime = std::uint64_t{1'500'000'000};
  HostileSftpServer server({rule});
  auto const client = server.sshd().connect();
  auto const error = catchSSHError([&] { copyTree(*client, {.deleteExtraneous = true}); });
  ASSERT_TRUE(error);
  EXPECT_THAT(error->what(), ::testing::HasSubstr("suspect name '../f' listed in '" + rule.folder + "'"));
  EXPECT_FALSE(fs::exists(dst() / "a" / "extra"));
  EXPECT_TRUE(fs::exists(dst() / "b" / "extra"));
  EXPECT_FALSE(fs::exists(dst() / "c" / "extra"));
  EXPECT_EQ(readFile(dst() / "b" / "f"), "x");
}

INSTANTIATE_TEST_SUITE_P(BothWays, Streaming,
                         ::testing::Values(TransferDirection::LocalToRemote, TransferDirection::RemoteToLocal),
                         [](auto const& param) {
                           return param.param == TransferDirection::LocalToRemote ? "Upload" : "Download";
                         });

}  // namespace
}  // namespace sshfa::testing
