#include "sshfileaccess/platform/archive/Archive.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "sshfileaccess/platform/except/Exception.hpp"
#include "tests/unit/local/ArchiveTestSupport.hpp"
#include "tests/unit/local/LocalTestSupport.hpp"

using foundation::core::except::RuntimeError;
using velmar::io::archive::core::createArchive;
using velmar::io::archive::core::extractArchive;
using namespace sshfa::testing::local;

namespace {

std::string uniqueName(std::string const& stem) {
  std::random_device random;
  return stem + "-" + std::to_string(random()) + "-" + std::to_string(::getpid());
}

class ArchiveTest : public ::testing::Test {
 protected:
  TempDir dir;
  std::string dest() const { return dir.at("dest"); }
  std::string outside() const { return dir.at("outside"); }
  void SetUp() override {
    makeFolders(dest());
    makeFolders(outside());
  }
  // The refusal of `entries`, with the assurance that nothing arrived outside.
  std::string refusal(std::vector<CraftedEntry> const& entries) {
    craftArchive(dir.at("evil.tar"), CraftedFormat::GnuTar, entries);
    std::string message = messageOf([&] { extractArchive(dir.uat("evil.tar"), u(dest()), u"", u""); });
    EXPECT_TRUE(std::filesystem::is_empty(outside()));
    return message;
  }
};

// ---- createArchive ---------------------------------------------------------------------------

TEST_F(ArchiveTest, TarHoldsEachFileUnderItsEntryNameAsGiven) {
  writeBytes(dir.at("in/a.txt"), "alpha");
  writeBytes(dir.at("in/sub/b.txt"), "beta");
  const auto written = createArchive(dir.uat("out.tar"), {dir.uat("in/a.txt"), dir.uat("in/sub/b.txt")},
                                     {u"top/a.txt", u"./odd//name"}, u"tar");
  EXPECT_EQ(written, (std::vector<ustring>{u"top/a.txt", u"./odd//name"}));
  const ReadArchive read = readArchive(dir.at("out.tar"));
  EXPECT_EQ(read.formatName, "GNU tar format");
  EXPECT_EQ(read.names, (std::vector<std::string>{"top/a.txt", "./odd//name"}));
  EXPECT_EQ(read.contents.at("top/a.txt"), "alpha");
  EXPECT_EQ(read.contents.at("./odd//name"), "beta");
}

TEST_F(ArchiveTest, ZipHoldsEachFileUnderItsEntryName) {
  writeBytes(dir.at("a"), std::string(100'000, 'z'));
  createArchive(dir.uat("out.zip"), {dir.uat("a")}, {u"x/a"}, u"zip");
  const ReadArchive read = readArchive(dir.at("out.zip"));
  EXPECT_EQ(read.formatName, "ZIP 2.0 (deflation)");
  EXPECT_EQ(read.names, (std::vector<std::string>{"x/a"}));
  EXPECT_EQ(read.contents.at("x/a"), std::string(100'000, 'z'));
}

TEST_F(ArchiveTest, EmptyListsGiveAnEmptyArchive) {
  createArchive(dir.uat("empty.tar"), {}, {}, u"tar");
  EXPECT_TRUE(readArchive(dir.at("empty.tar")).names.empty());
  EXPECT_TRUE(extractArchive(dir.uat("empty.tar"), u(dest()), u"", u"").empty());
}

TEST_F(ArchiveTest, OnlyRegularFilesAreAdded) {
  makeFolders(dir.at("folder"));
  EXPECT_EQ(messageOf([&] { createArchive(dir.uat("out.tar"), {dir.uat("folder")}, {u"folder"}, u"tar"); }),
            "cannot add '" + dir.at("folder") + "' to archive '" + dir.at("out.tar") + "': not a regular file");
}

TEST_F(ArchiveTest, MissingFileIsNamed) {
  EXPECT_EQ(messageOf([&] { createArchive(dir.uat("out.tar"), {dir.uat("missing")}, {u"m"}, u"tar"); }),
            "cannot add '" + dir.at("missing") + "' to archive '" + dir.at("out.tar") + "': No such file or directory");
}

TEST_F(ArchiveTest, ListsOfDifferentLengthAreRefused) {
  EXPECT_EQ(messageOf([&] {
              createArchive(dir.uat("out.tar"), {dir.uat("a"), dir.uat("b")}, {u"a"}, u"tar");
            }),
            "cannot write archive '" + dir.at("out.tar") + "': 2 files but 1 entry names");
}

TEST_F(ArchiveTest, UnknownFormatIsRefused) {
  EXPECT_EQ(messageOf([&] { createArchive(dir.uat("out.rar"), {}, {}, u"rar"); }),
            "cannot write archive '" + dir.at("out.rar") + "': unknown format 'rar'");
  EXPECT_EQ(messageOf([&] { extractArchive(dir.uat("out.rar"), u(dest()), u"rar", u""); }),
            "cannot extract archive '" + dir.at("out.rar") + "': unknown format 'rar'");
}

TEST_F(ArchiveTest, ArchiveInMissingFolderCarriesTheLibraryMessageAndPath) {
  EXPECT_EQ(messageOf([&] { createArchive(dir.uat("no/out.tar"), {}, {}, u"tar"); }),
            "cannot write archive '" + dir.at("no/out.tar") + "': Failed to open '" + dir.at("no/out.tar") +
                "': No such file or directory");
}

// ---- extractArchive ---------------------------------------------------------------------------

TEST_F(ArchiveTest, ReadsPlainTarCompressedTarAndZipWithoutBeingTold) {
  const std::vector<CraftedEntry> entries{folderEntry("top/"), fileEntry("top/a.txt", "alpha"),
                                          fileEntry("top/sub/b.txt", "beta")};
  int n = 0;
  for (const auto format : {CraftedFormat::GnuTar, CraftedFormat::PaxTarGzip, CraftedFormat::Zip}) {
    const std::string archive = dir.at("in" + std::to_string(n));
    const std::string target = dir.at("out" + std::to_string(n++));
    craftArchive(archive, format, entries);
    const auto written = extractArchive(u(archive), u(target), u"", u"");
    EXPECT_EQ(bytesOf(written),
              (std::vector<std::string>{target + "/top/", target + "/top/a.txt", target + "/top/sub/b.txt"}));
    EXPECT_EQ(readBytes(target + "/top/a.txt"), "alpha");
    EXPECT_EQ(readBytes(target + "/top/sub/b.txt"), "beta");
  }
}

TEST_F(ArchiveTest, ExtractionRestoresTheModificationTime) {
  craftArchive(dir.at("in.tar"), CraftedFormat::GnuTar, {fileEntry("a", "a")});
  extractArchive(dir.uat("in.tar"), u(dest()), u"", u"");
  EXPECT_EQ(modificationTime(dest() + "/a").tv_sec, 1'000'000'000);
}

TEST_F(ArchiveTest, MissingDestinationIsCreatedAndExistingFilesReplaced) {
  craftArchive(dir.at("in.tar"), CraftedFormat::GnuTar, {fileEntry("a", "new")});
  extractArchive(dir.uat("in.tar"), dir.uat("new/dest"), u"", u"");
  EXPECT_EQ(readBytes(dir.at("new/dest/a")), "new");
  writeBytes(dest() + "/a", "old contents");
  extractArchive(dir.uat("in.tar"), u(dest()), u"", u"");
  EXPECT_EQ(readBytes(dest() + "/a"), "new");
}

TEST_F(ArchiveTest, FormatRestrictsWhatIsRead) {
  craftArchive(dir.at("in.tar"), CraftedFormat::GnuTar, {fileEntry("a", "a")});
  EXPECT_EQ(messageOf([&] { extractArchive(dir.uat("in.tar"), u(dest()), u"zip", u""); }),
            "cannot extract archive '" + dir.at("in.tar") + "': Unrecognized archive format");
  EXPECT_EQ(extractArchive(dir.uat("in.tar"), u(dest()), u"tar", u"").size(), 1U);
}

TEST_F(ArchiveTest, PassphraseOpensEncryptedZipEntries) {
  craftArchive(dir.at("secret.zip"), CraftedFormat::Zip, {fileEntry("s.txt", "secret")}, "open sesame");
  EXPECT_EQ(messageOf([&] { extractArchive(dir.uat("secret.zip"), u(dest()), u"", u""); }),
            "cannot extract 's.txt' from archive '" + dir.at("secret.zip") + "': Passphrase required for this entry");
  extractArchive(dir.uat("secret.zip"), u(dest()), u"", u"open sesame");
  EXPECT_EQ(readBytes(dest() + "/s.txt"), "secret");
}

TEST_F(ArchiveTest, MissingArchiveCarriesTheLibraryMessage) {
  EXPECT_EQ(messageOf([&] { extractArchive(dir.uat("missing.tar"), u(dest()), u"", u""); }),
            "cannot extract archive '" + dir.at("missing.tar") + "': Failed to open '" + dir.at("missing.tar") +
                "': No such file or directory");
  EXPECT_FALSE(present(dir.at("missing.tar")));
}

TEST_F(ArchiveTest, NotAnArchiveIsRefused) {
  writeBytes(dir.at("plain.txt"), std::string(2000, 'p'));
  EXPECT_EQ(messageOf([&] { extractArchive(dir.uat("plain.txt"), u(dest()), u"", u""); }),
            "cannot extract archive '" + dir.at("plain.txt") + "': Unrecognized archive format");
}

TEST_F(ArchiveTest, NamesThatAreNotUtf8AndHoldNewlinesRoundTrip) {
  const std::string name = "d\xff\xc3\xa9\nx.txt";
  writeBytes(dir.at("in/" + name), "payload");
  for (const auto* format : {u"tar", u"zip"}) {
    const ustring archive = dir.uat("names." + b(format));
    createArchive(archive, {dir.uat("in/" + name)}, {u("top/" + name)}, format);
    EXPECT_EQ(readArchive(b(archive)).names, (std::vector<std::string>{"top/" + name}));
    const std::string target = dir.at("out-" + b(format));
    EXPECT_EQ(bytesOf(extractArchive(archive, u(target), u"", u"")),
              (std::vector<std::string>{target + "/top/" + name}));
    EXPECT_EQ(readBytes(target + "/top/" + name), "payload");
  }
}

// ---- extraction never writes outside the destination -------------------------------------------

TEST_F(ArchiveTest, DotDotEntryIsRefused) {
  EXPECT_EQ(refusal({fileEntry("../outside/evil", "EVIL")}),
            "cannot extract '../outside/evil' from archive '" + dir.at("evil.tar") + "': Path contains '..'");
  EXPECT_FALSE(present(dir.at("outside/evil")));
}

TEST_F(ArchiveTest, DotDotInsideTheNameIsRefused) {
  EXPECT_EQ(refusal({fileEntry("a/../../outside/evil", "EVIL")}),
            "cannot extract 'a/../../outside/evil' from archive '" + dir.at("evil.tar") + "': Path contains '..'");
}

TEST_F(ArchiveTest, AbsoluteEntryIsRefused) {
  const std::string evil = "/tmp/" + uniqueName("sshfa-evil");
  EXPECT_EQ(refusal({fileEntry(evil, "EVIL")}),
            "cannot extract '" + evil + "' from archive '" + dir.at("evil.tar") + "': Path is absolute");
  EXPECT_FALSE(present(evil));
  EXPECT_TRUE(std::filesystem::is_empty(dest()));
}

TEST_F(ArchiveTest, WriteThroughSymlinkToOutsideIsRefused) {
  EXPECT_EQ(refusal({symlinkEntry("link", outside()), fileEntry("link/evil", "EVIL")}),
            "cannot extract 'link/evil' from archive '" + dir.at("evil.tar") + "': Cannot extract through symlink " +
                dest() + "/link/evil");
  EXPECT_FALSE(present(dir.at("outside/evil")));
}

TEST_F(ArchiveTest, FileOverASymlinkToOutsideReplacesTheLinkNotTheTarget) {
  writeBytes(dir.at("outside/victim"), "original");
  craftArchive(dir.at("evil.tar"), CraftedFormat::GnuTar,
               {symlinkEntry("f", dir.at("outside/victim")), fileEntry("f", "EVIL")});
  extractArchive(dir.uat("evil.tar"), u(dest()), u"", u"");
  EXPECT_EQ(readBytes(dir.at("outside/victim")), "original");
  EXPECT_FALSE(std::filesystem::is_symlink(dest() + "/f"));
  EXPECT_EQ(readBytes(dest() + "/f"), "EVIL");
}

TEST_F(ArchiveTest, HardlinkToOutsideIsRefused) {
  writeBytes(dir.at("outside/victim"), "original");
  craftArchive(dir.at("evil.tar"), CraftedFormat::GnuTar, {hardlinkEntry("h", "../outside/victim")});
  EXPECT_EQ(messageOf([&] { extractArchive(dir.uat("evil.tar"), u(dest()), u"", u""); }),
            "cannot extract 'h' from archive '" + dir.at("evil.tar") + "': Path contains '..'");
  EXPECT_EQ(std::filesystem::hard_link_count(dir.at("outside/victim")), 1U);
  EXPECT_FALSE(present(dest() + "/h"));
}

TEST_F(ArchiveTest, HardlinkToAbsoluteTargetIsRefused) {
  writeBytes(dir.at("outside/victim"), "original");
  craftArchive(dir.at("evil.tar"), CraftedFormat::GnuTar, {hardlinkEntry("h", dir.at("outside/victim"))});
  EXPECT_EQ(messageOf([&] { extractArchive(dir.uat("evil.tar"), u(dest()), u"", u""); }),
            "cannot extract 'h' from archive '" + dir.at("evil.tar") + "': Hard link target '" +
                dir.at("outside/victim") + "' is absolute");
  EXPECT_EQ(std::filesystem::hard_link_count(dir.at("outside/victim")), 1U);
}

TEST_F(ArchiveTest, HardlinkThroughSymlinkToOutsideIsRefused) {
  writeBytes(dir.at("outside/victim"), "original");
  craftArchive(dir.at("evil.tar"), CraftedFormat::GnuTar,
               {symlinkEntry("l", outside()), hardlinkEntry("h", "l/victim"), fileEntry("h", "EVIL")});
  EXPECT_EQ(messageOf([&] { extractArchive(dir.uat("evil.tar"), u(dest()), u"", u""); }),
            "cannot extract 'h' from archive '" + dir.at("evil.tar") + "': Cannot extract through symlink " + dest() +
                "/l/victim");
  EXPECT_EQ(readBytes(dir.at("outside/victim")), "original");
  EXPECT_EQ(std::filesystem::hard_link_count(dir.at("outside/victim")), 1U);
}

TEST_F(ArchiveTest, EntriesBeforeARefusalStayExtracted) {
  EXPECT_EQ(refusal({fileEntry("good", "g"), fileEntry("../outside/evil", "EVIL"), fileEntry("later", "l")}),
            "cannot extract '../outside/evil' from archive '" + dir.at("evil.tar") + "': Path contains '..'");
  EXPECT_EQ(readBytes(dest() + "/good"), "g");
  EXPECT_FALSE(present(dest() + "/later"));
}

TEST_F(ArchiveTest, DeviceEntryIsRefused) {
  EXPECT_EQ(refusal({charDeviceEntry("null")}),
            "cannot extract 'null' from archive '" + dir.at("evil.tar") + "': device entries are not extracted");
  EXPECT_FALSE(present(dest() + "/null"));
}

TEST_F(ArchiveTest, ZipWithDotDotEntryIsRefused) {
  craftArchive(dir.at("evil.zip"), CraftedFormat::Zip, {fileEntry("../outside/evil", "EVIL")});
  EXPECT_EQ(messageOf([&] { extractArchive(dir.uat("evil.zip"), u(dest()), u"", u""); }),
            "cannot extract '../outside/evil' from archive '" + dir.at("evil.zip") + "': Path contains '..'");
  EXPECT_TRUE(std::filesystem::is_empty(outside()));
}

TEST_F(ArchiveTest, ZipWriteThroughItsOwnSymlinkIsRefused) {
  craftArchive(dir.at("evil.zip"), CraftedFormat::Zip, {symlinkEntry("zl", outside()), fileEntry("zl/evil", "EVIL")});
  EXPECT_EQ(messageOf([&] { extractArchive(dir.uat("evil.zip"), u(dest()), u"", u""); }),
            "cannot extract 'zl/evil' from archive '" + dir.at("evil.zip") + "': Cannot extract through symlink " +
                dest() + "/zl/evil");
  EXPECT_TRUE(std::filesystem::is_empty(outside()));
}

TEST_F(ArchiveTest, WriteThroughALinkAlreadyInTheDestinationIsRefused) {
  makeSymlink(outside(), dest() + "/pre");
  EXPECT_EQ(refusal({fileEntry("pre/evil", "EVIL")}), "cannot extract 'pre/evil' from archive '" + dir.at("evil.tar") +
                                                          "': Cannot extract through symlink " + dest() + "/pre/evil");
}

TEST_F(ArchiveTest, AFolderEntryReplacesALinkInItsPlace) {
  makeSymlink(outside(), dest() + "/pre");
  craftArchive(dir.at("in.tar"), CraftedFormat::GnuTar, {folderEntry("pre/"), fileEntry("pre/x", "x")});
  extractArchive(dir.uat("in.tar"), u(dest()), u"", u"");
  EXPECT_FALSE(std::filesystem::is_symlink(dest() + "/pre"));
  EXPECT_EQ(readBytes(dest() + "/pre/x"), "x");
  EXPECT_TRUE(std::filesystem::is_empty(outside()));
}

// The folder's mode and time are set once everything is written; by then a
// link to the outside holds its name, and neither reaches through it.
TEST_F(ArchiveTest, ALinkThatTakesAFolderPlaceLaterPassesNoModeOrTimeOutside) {
  ASSERT_EQ(::chmod(outside().c_str(), 0700), 0);
  setModificationTime(outside(), 12345, 0);
  craftArchive(dir.at("evil.tar"), CraftedFormat::GnuTar,
               {folderEntry("d/"), fileEntry("d/a", "a"), symlinkEntry("d", outside())});
  try {
    extractArchive(dir.uat("evil.tar"), u(dest()), u"", u"");
  } catch (RuntimeError const&) {
    // Refusing the link is as good as replacing the folder with it.
  }
  struct stat st {};
  ASSERT_EQ(::stat(outside().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700U);
  EXPECT_EQ(st.st_mtim.tv_sec, 12345);
  EXPECT_TRUE(std::filesystem::is_empty(outside()));
}

TEST_F(ArchiveTest, AnExistingFolderGetsItsTimeAfterTheEntriesWrittenIntoIt) {
  makeFolders(dest() + "/top");
  writeBytes(dest() + "/top/old", "replaced by a folder's entries");
  craftArchive(dir.at("in.tar"), CraftedFormat::GnuTar,
               {folderEntry("top/"), fileEntry("top/new", "n"), fileEntry("./top/deeper/f", "f")});
  for (int round = 0; round < 2; ++round) {
    std::filesystem::remove(dest() + "/top/new");
    extractArchive(dir.uat("in.tar"), u(dest()), u"", u"");
    EXPECT_EQ(modificationTime(dest() + "/top").tv_sec, 1'000'000'000) << round;
  }
}

TEST_F(ArchiveTest, DestinationReachedThroughALinkIsUsable) {
  makeSymlink(dest(), dir.at("via-link"));
  craftArchive(dir.at("in.tar"), CraftedFormat::GnuTar, {fileEntry("sub/a", "a")});
  extractArchive(dir.uat("in.tar"), dir.uat("via-link"), u"", u"");
  EXPECT_EQ(readBytes(dest() + "/sub/a"), "a");
}

}  // namespace
