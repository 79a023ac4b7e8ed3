// SftpFiles over a local sftp-server (pipes, no SSH): every operation's
// answers and errors, the requests of a batch in flight together, copies with
// and without copy-data, names a listing must not join, and a link that is
// opened again after it failed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"
#include "sshfileaccess/platform/sshclient/internal/files/SessionFiles.hpp"
#include "tests/unit/sftp/FakeServer.hpp"
#include "tests/unit/sftp/SftpServerProcess.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
namespace ssh = foundation::sshclient;
namespace files = foundation::sshclient::internal::files;
using ssh::FileKind;
using ssh::FileStatus;
using ssh::RootLinks;
using ssh::SftpError;
constexpr auto Exact = ssh::Destination::Exact;
constexpr auto IntoFolder = ssh::Destination::IntoFolder;
using Strings = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;
using ::testing::HasSubstr;

constexpr char const* kPeer = "tester@local:0";

// A local sftp-server whose requests and replies are recorded.
class RecordedLink final : public files::SftpLink {
 public:
  explicit RecordedLink(Strings const& serverArguments) : server(serverArguments), recorder(server) {
    session_.start();
  }
  ssh::internal::sftp::SftpSession& session() override { return session_; }

  SftpServerProcess server;
  RecordingTransport recorder;

 private:
  ssh::internal::sftp::SftpSession session_{recorder, kPeer};
};

void setTimes(fs::path const& path, std::time_t seconds) {
  timespec const times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

struct stat lstatOf(fs::path const& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st;
}

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

// Every path below `root` (relative, links not followed) with what it is:
// "f:<bytes>", "d:<mode>" or "l:<target>".
std::set<std::string> snapshot(fs::path const& root) {
  std::set<std::string> out;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
    auto const name = fs::relative(it->path(), root).string();
    if (it->is_symlink()) {
      out.insert(name + "=l:" + fs::read_symlink(it->path()).string());
    } else if (it->is_directory()) {
      out.insert(name + "=d");
    } else {
      out.insert(name + "=f:" + readFile(it->path()));
    }
  }
  return out;
}

std::vector<std::string> failuresOf(std::function<void()> const& call) {
  try {
    call();
  } catch (SftpError const& e) {
    EXPECT_EQ(e.kind(), ssh::SSHError::Kind::Transfer);
    return e.failures();
  }
  ADD_FAILURE() << "no SftpError";
  return {};
}

class SessionFilesTest : public ::testing::Test {
 protected:
  // The server's extra arguments (a deny list); the options of the files.
  void open(Strings serverArguments = {}, files::FilesOptions options = {}) {
    files_ = std::make_unique<files::SessionFiles>(
        [this, serverArguments] {
          ++links_;
          auto link = std::make_unique<RecordedLink>(serverArguments);
          link_ = link.get();
          return link;
        },
        options);
  }

  void SetUp() override { open(); }

  [[nodiscard]] std::string at(std::string const& relative) const { return (scratch_ / relative).string(); }
  void write(std::string const& relative, std::string const& bytes) const {
    fs::create_directories((scratch_ / relative).parent_path());
    writeFile(scratch_ / relative, bytes);
  }
  // Requests of one type sent, and how many of them were in flight at most.
  [[nodiscard]] std::size_t sent(PacketType type) const { return link_->recorder.count(type); }
  [[nodiscard]] std::size_t mostInFlight(PacketType type) const { return link_->recorder.maxInFlight[type]; }

  ScratchDir scratch_;
  std::unique_ptr<files::SessionFiles> files_;
  RecordedLink* link_ = nullptr;
  int links_ = 0;
};

// ---- queries --------------------------------------------------------------------------------

TEST_F(SessionFilesTest, StatusOfFilesFoldersLinksAndMissingPaths) {
  write("f", "hello");
  fs::permissions(at("f"), fs::perms(0640));
  setTimes(at("f"), 1000000000);
  fs::create_directory(at("d"));
  fs::create_directory_symlink(at("d"), at("link"));

  auto const own = files_->lstat({at("f"), at("d"), at("link"), at("missing")});
  ASSERT_EQ(own.size(), 4U);
  EXPECT_EQ(own[0].kind, FileKind::File);
  EXPECT_EQ(own[0].size, 5U);
  EXPECT_EQ(own[0].permissions, 0640U);
  EXPECT_EQ(own[0].modified, 1000000000);
  EXPECT_EQ(own[0].accessed, 1000000000);
  EXPECT_EQ(own[1].kind, FileKind::Folder);
  EXPECT_EQ(own[2].kind, FileKind::Link);
  EXPECT_EQ(own[3].kind, FileKind::Missing);
  EXPECT_EQ(own[3].error, "");
  EXPECT_FALSE(own[3].exists());

  auto const followed = files_->stat({at("link"), at("missing")});
  EXPECT_EQ(followed[0].kind, FileKind::Folder);
  EXPECT_EQ(followed[1].kind, FileKind::Missing);
  EXPECT_TRUE(files_->stat({}).empty());
}

TEST_F(SessionFilesTest, TheQueriesOfABatchAreInFlightTogether) {
  Strings paths;
  for (int i = 0; i < 300; ++i) paths.push_back(at("p" + std::to_string(i)));
  write("p7", "x");
  auto const answers = files_->lstat(paths);
  EXPECT_EQ(answers[7].kind, FileKind::File);
  EXPECT_EQ(answers[8].kind, FileKind::Missing);
  EXPECT_EQ(sent(PacketType::Lstat), 300U);
  EXPECT_EQ(mostInFlight(PacketType::Lstat), 300U);

  files::FilesOptions narrow;
  narrow.requestsInFlight = 40;
  open({}, narrow);
  EXPECT_EQ(files_->stat(paths).size(), 300U);
  EXPECT_EQ(mostInFlight(PacketType::Stat), 40U);
}

TEST_F(SessionFilesTest, ListingsCarryEveryNameAsItsBytesWithItsAttributes) {
  Strings const names{"a\nb", "tab\there", "cr\r", "\xff\xfe", ".hidden", "plain"};
  for (auto const& name : names) write("d/" + name, name);
  fs::create_directory(at("d/sub"));

  auto const listings = files_->list({at("d"), at("missing"), at("d/plain")});
  ASSERT_EQ(listings.size(), 3U);
  std::set<std::string> found;
  for (auto const& entry : listings[0].entries) {
    found.insert(entry.name);
    if (entry.name == "sub") {
      EXPECT_EQ(entry.status.kind, FileKind::Folder);
    } else {
      EXPECT_EQ(entry.status.kind, FileKind::File);
      EXPECT_EQ(entry.status.size, entry.name.size()) << entry.name;
    }
  }
  std::set<std::string> expected(names.begin(), names.end());
  expected.insert("sub");
  EXPECT_EQ(found, expected);
  EXPECT_TRUE(listings[0].suspectNames.empty());
  EXPECT_EQ(listings[0].error, "");
  EXPECT_TRUE(listings[1].entries.empty());
  EXPECT_EQ(listings[1].error, "cannot open directory '" + at("missing") + "': No such file or directory");
  EXPECT_THAT(listings[2].error, HasSubstr("cannot open directory '" + at("d/plain") + "': "));
}

TEST_F(SessionFilesTest, WalkListsATreeInOrderWithoutFollowingLinks) {
  write("t/b/d/e", "e");
  write("t/a", "a");
  write("t/b/c", "c");
  write("t/x y", "");
  write("elsewhere/secret", "s");
  fs::create_directory_symlink(at("elsewhere"), at("t/link"));
  fs::create_directory(at("t/empty"));

  auto const trees = files_->walk({at("t"), at("t/a"), at("missing")}, RootLinks::Kept);
  ASSERT_EQ(trees.size(), 3U);
  Strings paths;
  for (auto const& entry : trees[0].entries) paths.push_back(entry.path);
  EXPECT_EQ(paths, (Strings{at("t/a"), at("t/b"), at("t/b/c"), at("t/b/d"), at("t/b/d/e"), at("t/empty"), at("t/link"),
                            at("t/x y")}));
  EXPECT_EQ(trees[0].root.kind, FileKind::Folder);
  EXPECT_EQ(trees[0].entries[6].status.kind, FileKind::Link);
  EXPECT_EQ(trees[1].root.kind, FileKind::File);
  EXPECT_TRUE(trees[1].entries.empty());
  EXPECT_FALSE(trees[2].root.exists());

  // A root that is a link: its own entry (as find sees it), or listed (as ls -R does).
  EXPECT_TRUE(files_->walk({at("t/link")}, RootLinks::Kept)[0].entries.empty());
  auto const followed = files_->walk({at("t/link")}, RootLinks::Followed);
  ASSERT_EQ(followed[0].entries.size(), 1U);
  EXPECT_EQ(followed[0].entries[0].path, at("t/link/secret"));
}

TEST_F(SessionFilesTest, AWideTreeIsListedManyFoldersAtOnce) {
  for (int i = 0; i < 20; ++i) write("w/d" + std::to_string(i) + "/f", "");
  auto const trees = files_->walk({at("w")}, RootLinks::Kept);
  EXPECT_EQ(trees[0].entries.size(), 40U);
  EXPECT_EQ(mostInFlight(PacketType::Opendir), 20U);
}

TEST_F(SessionFilesTest, LinkTargetsAndRealPaths) {
  write("f", "");
  fs::create_directory(at("sub"));
  fs::create_symlink("f", at("l"));
  auto const targets = files_->readlink({at("l"), at("f"), at("missing")});
  EXPECT_EQ(targets, (std::vector<std::optional<std::string>>{"f", std::nullopt, std::nullopt}));
  auto const real = files_->realpath({at("sub/../l")});
  ASSERT_TRUE(real[0].has_value());
  EXPECT_EQ(*real[0], fs::canonical(at("f")).string());
}

// ---- names a server must not make us join -------------------------------------------------

TEST(SessionFilesNames, NamesThatAreNotPlainAreHandedBackApart) {
  auto const entry = [](Body& body, std::string const& name, std::uint32_t mode) {
    body.str(name).str(name).u32(0x4).u32(mode);
  };
  files::SessionFiles fake([&] {
    return std::make_unique<files::LinkOver<FakeServer>>(kPeer, [&](Request const& r, std::vector<Bytes>& out) {
      switch (r.type) {
        case PacketType::Init:
          out.push_back(Body(PacketType::Version).u32(3).framed());
          break;
        case PacketType::Lstat:
          out.push_back(Body(PacketType::Attrs).u32(r.id).u32(0x4).u32(040755).framed());
          break;
        case PacketType::Opendir:
          out.push_back(Body(PacketType::Handle).u32(r.id).str("h").framed());
          break;
        case PacketType::Readdir: {
          static bool listed = false;
          if (listed) {
            out.push_back(status(r.id, StatusCode::Eof).framed());
          } else {
            Body names(PacketType::Name);
            names.u32(r.id).u32(9);
            entry(names, ".", 040755);
            entry(names, "..", 040755);
            entry(names, "good", 0120777);
            entry(names, "..", 040755);
            entry(names, "../outside", 0100644);
            entry(names, "a/b", 040755);
            entry(names, "", 0100644);
            entry(names, ".", 040755);
            entry(names, "good", 040755);
            out.push_back(names.framed());
          }
          listed = !listed;
          break;
        }
        default:
          out.push_back(status(r.id, StatusCode::Ok).framed());
      }
    });
  });
  auto const listing = fake.list({"/R/tree"});
  ASSERT_EQ(listing[0].entries.size(), 1U);
  EXPECT_EQ(listing[0].entries[0].name, "good");
  EXPECT_EQ(listing[0].entries[0].status.kind, FileKind::Link);
  EXPECT_EQ(listing[0].suspectNames, (Strings{"..", "../outside", "a/b", "", ".", "good"}));

  auto const trees = fake.walk({"/R/tree"}, RootLinks::Kept);
  ASSERT_EQ(trees[0].entries.size(), 1U);
  EXPECT_EQ(trees[0].entries[0].path, "/R/tree/good");
  ASSERT_EQ(trees[0].suspectNames.size(), 6U);
  EXPECT_EQ(trees[0].suspectNames[1].folder, "/R/tree");
  EXPECT_EQ(trees[0].suspectNames[1].name, "../outside");
}

TEST(SessionFilesNames, AReplyThatDoesNotFitItsRequestFailsTheCallAndTheLink) {
  int links = 0;
  files::SessionFiles fake([&] {
    ++links;
    return std::make_unique<files::LinkOver<FakeServer>>(kPeer, [](Request const& r, std::vector<Bytes>& out) {
      if (r.type == PacketType::Init) return out.push_back(Body(PacketType::Version).u32(3).framed());
      out.push_back(Body(PacketType::Handle).u32(r.id).str("h").framed());
    });
  });
  try {
    (void)fake.lstat({"/x"});
    ADD_FAILURE() << "no SSHError";
  } catch (ssh::SSHError const& e) {
    EXPECT_EQ(e.kind(), ssh::SSHError::Kind::Transfer);
    EXPECT_STREQ(e.what(), "tester@local:0: malformed SFTP reply: unexpected reply to LSTAT");
  }
  EXPECT_FALSE(fake.linked());
  EXPECT_THROW((void)fake.lstat({"/x"}), ssh::SSHError);
  EXPECT_EQ(links, 2);
}

TEST_F(SessionFilesTest, ALinkThatFailedIsOpenedAgainByTheNextCall) {
  write("f", "x");
  EXPECT_EQ(files_->lstat({at("f")})[0].kind, FileKind::File);
  link_->server.kill();
  EXPECT_THROW((void)files_->lstat({at("f")}), ssh::SSHError);
  EXPECT_FALSE(files_->linked());
  EXPECT_EQ(files_->lstat({at("f")})[0].kind, FileKind::File);
  EXPECT_EQ(links_, 2);
}

// ---- mutations ------------------------------------------------------------------------------

TEST_F(SessionFilesTest, MakeFoldersMakesEveryMissingLevelAndSaysWhatIsInTheWay) {
  write("file", "");
  fs::create_directory(at("there"));
  auto const failures = failuresOf([&] {
    files_->makeFolders({at("a/b/c"), at("file/x"), at("there"), at("a/b/d/"), at("file")});
  });
  EXPECT_EQ(failures, (Strings{"cannot create directory '" + at("file") + "': Not a directory",
                               "cannot create directory '" + at("file") + "': File exists"}));
  EXPECT_TRUE(fs::is_directory(at("a/b/c")));
  EXPECT_TRUE(fs::is_directory(at("a/b/d")));
  EXPECT_TRUE(fs::is_regular_file(at("file")));
  // One round trip per missing level, all of a level at once.
  EXPECT_EQ(sent(PacketType::Mkdir), 4U);
  EXPECT_EQ(mostInFlight(PacketType::Mkdir), 2U);

  files_->makeFolders({at("a/b/c"), at("there")});
  files_->makeFolders({at("no/such")});
  EXPECT_TRUE(fs::is_directory(at("no/such")));
}

TEST_F(SessionFilesTest, RemoveTakesTreesButNeverFollowsALink) {
  write("t/a", "a");
  write("t/sub/deeper/b", "b");
  write("keep/precious", "p");
  fs::create_directory_symlink(at("keep"), at("t/sub/link"));
  fs::create_directory_symlink(at("keep"), at("dirlink"));
  write("f", "");

  files_->remove({at("t"), at("f"), at("missing"), at("dirlink")});
  EXPECT_FALSE(fs::exists(at("t")));
  EXPECT_FALSE(fs::exists(at("f")));
  EXPECT_FALSE(fs::is_symlink(at("dirlink")));
  EXPECT_EQ(readFile(at("keep/precious")), "p");

  // "link/" names the folder behind the link: nothing goes through it.
  fs::create_directory_symlink(at("keep"), at("dirlink"));
  EXPECT_EQ(failuresOf([&] { files_->remove({at("dirlink") + "/"}); }),
            (Strings{"cannot remove '" + at("dirlink") + "/': Not a directory"}));
  EXPECT_EQ(readFile(at("keep/precious")), "p");
  EXPECT_TRUE(fs::is_symlink(at("dirlink")));
  files_->remove({at("keep/")});
  EXPECT_FALSE(fs::exists(at("keep")));
}

TEST_F(SessionFilesTest, RenameKeepsTheOrderOfDependentPairsAndReplacesAFile) {
  write("a", "payload");
  write("old", "old");
  write("new", "new");
  files_->rename({{at("a"), at("b")}, {at("b"), at("c")}, {at("new"), at("old")}}, Exact);
  EXPECT_FALSE(fs::exists(at("a")));
  EXPECT_FALSE(fs::exists(at("b")));
  EXPECT_EQ(readFile(at("c")), "payload");
  EXPECT_EQ(readFile(at("old")), "new");

  write("x", "x");
  EXPECT_EQ(failuresOf([&] {
              files_->rename({{at("x"), at("nowhere/x")}, {at("nowhere/x"), at("y")}}, Exact);
            }),
            (Strings{"cannot move '" + at("x") + "' to '" + at("nowhere/x") + "': No such file or directory"}));
  EXPECT_TRUE(fs::exists(at("x")));
}

TEST_F(SessionFilesTest, IntoAnExistingFolderTheSourceGoesUnderItsOwnName) {
  write("a", "a");
  write("t/x", "x");
  fs::create_directory(at("d"));
  fs::create_directory_symlink(at("d"), at("dl"));
  files_->rename({{at("a"), at("d")}}, IntoFolder);
  EXPECT_EQ(readFile(at("d/a")), "a");
  files_->copy({{at("t/"), at("dl")}, {at("d/a"), at("new")}}, IntoFolder);
  EXPECT_EQ(readFile(at("d/t/x")), "x");
  EXPECT_EQ(readFile(at("new")), "a");
  files_->rename({{at("new"), at("d/")}}, IntoFolder);
  EXPECT_EQ(readFile(at("d/new")), "a");
}

TEST_F(SessionFilesTest, TouchSetsTimesAndMakesMissingFilesEmpty) {
  write("old", "contents");
  setTimes(at("old"), 1000);
  ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
  files_->touch({at("old"), at("new"), at("fifo")}, 1600000000);
  EXPECT_EQ(lstatOf(at("old")).st_mtime, 1600000000);
  EXPECT_EQ(lstatOf(at("old")).st_atime, 1600000000);
  EXPECT_EQ(lstatOf(at("new")).st_mtime, 1600000000);
  EXPECT_EQ(lstatOf(at("fifo")).st_mtime, 1600000000);
  EXPECT_EQ(readFile(at("old")), "contents");
  EXPECT_EQ(readFile(at("new")), "");

  auto const before = std::time(nullptr);
  files_->touch({at("old"), at("now")}, std::nullopt);
  EXPECT_GE(lstatOf(at("old")).st_mtime, before);
  EXPECT_LE(lstatOf(at("old")).st_mtime, std::time(nullptr));
  EXPECT_GE(lstatOf(at("now")).st_mtime, before);

  EXPECT_EQ(failuresOf([&] {
              files_->touch({at("no/f"), at("fine")}, std::nullopt);
            }),
            (Strings{"cannot touch '" + at("no/f") + "': No such file or directory"}));
  EXPECT_TRUE(fs::exists(at("fine")));
  EXPECT_FALSE(fs::exists(at("no")));
}

// ---- copies on the server -------------------------------------------------------------------

// Copies with copy-data, without it by choice, and with a server that does
// not offer it (its deny list names it).
struct CopyWay {
  std::string name;
  Strings serverArguments;
  bool useCopyData = true;
};

class SessionFilesCopyTest : public SessionFilesTest, public ::testing::WithParamInterface<CopyWay> {
 protected:
  void SetUp() override {
    files::FilesOptions options;
    options.useCopyData = GetParam().useCopyData;
    open(GetParam().serverArguments, options);
  }

  [[nodiscard]] std::size_t copyDataRequests() const {
    std::size_t n = 0;
    for (auto const& request : link_->recorder.requests) {
      if (request.type == PacketType::Extended && request.firstString() == "copy-data") ++n;
    }
    return n;
  }
};

TEST_P(SessionFilesCopyTest, CopiesFilesLinksAndTreesOnTheServer) {
  write("src/empty.bin", "");
  write("src/one", "1");
  write("src/sub/mid.bin", randomBytes(100 * 1024 + 7, 1));
  write("src/sub/deep/big.bin", randomBytes(3 * 1024 * 1024 + 5, 2));
  fs::permissions(at("src/one"), fs::perms(0640));
  fs::create_directory(at("src/hollow"));
  fs::create_symlink("sub/mid.bin", at("src/link"));
  write("dst/old", "old");

  files_->copy({{at("src"), at("dst/tree")}, {at("src/one"), at("dst/old")}, {at("src/link"), at("dst/link")}}, Exact);
  EXPECT_EQ(snapshot(at("dst/tree")), snapshot(at("src")));
  EXPECT_EQ(readFile(at("dst/old")), "1");
  EXPECT_EQ(permissionsOf(at("dst/tree/one")), 0640U);
  EXPECT_EQ(fs::read_symlink(at("dst/link")), "sub/mid.bin");
  for (auto const& entry : fs::recursive_directory_iterator(at("dst"))) {
    EXPECT_THAT(entry.path().filename().string(), ::testing::Not(HasSubstr(".sshfa-copy-")));
  }
  if (GetParam().useCopyData && GetParam().serverArguments.empty()) {
    EXPECT_EQ(copyDataRequests(), 5U);
    EXPECT_EQ(sent(PacketType::Read), 0U);
  } else {
    EXPECT_EQ(copyDataRequests(), 0U);
    EXPECT_GT(sent(PacketType::Read), 10U);
  }

  // Into an existing folder the tree merges.
  write("more/extra", "e");
  files_->copy({{at("more"), at("dst/tree")}}, Exact);
  EXPECT_EQ(readFile(at("dst/tree/extra")), "e");
  EXPECT_EQ(readFile(at("dst/tree/one")), "1");
}

TEST_P(SessionFilesCopyTest, AListStopsBeforeAPairThatCannotBeCopied) {
  write("one", "1");
  write("three", "3");
  write("t/in", "i");
  EXPECT_EQ(failuresOf([&] {
              files_->copy({{at("one"), at("out1")}, {at("missing"), at("out2")}, {at("three"), at("out3")}}, Exact);
            }),
            (Strings{"cannot stat '" + at("missing") + "': No such file or directory"}));
  EXPECT_EQ(readFile(at("out1")), "1");
  EXPECT_FALSE(fs::exists(at("out3")));

  EXPECT_EQ(failuresOf([&] {
              files_->copy({{at("t"), at("t/sub")}}, Exact);
            }),
            (Strings{"cannot copy a directory, '" + at("t") + "', into itself, '" + at("t/sub") + "'"}));
  EXPECT_FALSE(fs::exists(at("t/sub")));
  EXPECT_EQ(failuresOf([&] {
              files_->copy({{at("one"), at("./one")}}, Exact);
            }),
            (Strings{"'" + at("one") + "' and '" + at("./one") + "' are the same file"}));
  EXPECT_EQ(readFile(at("one")), "1");
  EXPECT_EQ(failuresOf([&] {
              files_->copy({{at("t"), at("one")}}, Exact);
            }),
            (Strings{"cannot overwrite non-directory '" + at("one") + "' with directory '" + at("t") + "'"}));
  EXPECT_EQ(failuresOf([&] {
              files_->copy({{at("one"), at("t")}}, Exact);
            }),
            (Strings{"cannot overwrite directory '" + at("t") + "' with non-directory"}));
}

TEST_P(SessionFilesCopyTest, AFileThatCannotBeWrittenIsNamedWithTheCause) {
  write("src", "data");
  EXPECT_EQ(failuresOf([&] {
              files_->copy({{at("src"), at("nofolder/f")}}, Exact);
            }),
            (Strings{"cannot create regular file '" + at("nofolder/f") + "': No such file or directory"}));
  EXPECT_FALSE(fs::exists(at("nofolder")));
}

INSTANTIATE_TEST_SUITE_P(Ways, SessionFilesCopyTest,
                         ::testing::Values(CopyWay{"CopyData", {}, true}, CopyWay{"ReadAndWrite", {}, false},
                                           CopyWay{"NotOffered", {"-P", "copy-data"}, true}),
                         [](auto const& way) { return way.param.name; });

}  // namespace
}  // namespace sshfa::testing
