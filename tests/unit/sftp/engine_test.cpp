#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "tests/unit/sftp/FakeServer.hpp"
#include "tests/unit/sftp/SftpServerProcess.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace foundation::sshclient::internal::sftp {
namespace {

namespace fs = std::filesystem;
using sshfa::testing::Body;
using sshfa::testing::FakeServer;
using sshfa::testing::listNames;
using sshfa::testing::OpenFileLimit;
using sshfa::testing::randomBytes;
using sshfa::testing::readFile;
using sshfa::testing::RecordingTransport;
using sshfa::testing::Request;
using sshfa::testing::ScratchDir;
using sshfa::testing::SftpServerProcess;
using sshfa::testing::writeFile;

constexpr char const* kPeer = "tester@local:0";
constexpr std::uint32_t kServerMaxLength = 261120;  // OpenSSH's sftp-server

struct Pair {
  fs::path source;
  fs::path destination;
};

bool isTemporary(std::string const& name) { return name.find(".sshfa-") != std::string::npos; }

std::string quotedPath(fs::path const& path) { return "'" + path.string() + "'"; }

class EngineTest : public ::testing::TestWithParam<TransferDirection> {
 protected:
  void SetUp() override {
    fs::create_directory(src());
    fs::create_directory(dst());
  }

  [[nodiscard]] bool upload() const { return GetParam() == TransferDirection::LocalToRemote; }
  [[nodiscard]] fs::path src() const { return scratch_ / "src"; }
  [[nodiscard]] fs::path dst() const { return scratch_ / "dst"; }

  [[nodiscard]] CopyFilesCommand commandFor(std::vector<Pair> const& pairs) const {
    std::vector<FileLocations> items;
    for (auto const& p : pairs) {
      auto const source = fl::i18n::utf8_to_ustring(p.source.string());
      auto const destination = fl::i18n::utf8_to_ustring(p.destination.string());
      items.push_back(upload() ? FileLocations{source, destination} : FileLocations{destination, source});
    }
    return CopyFilesCommand(std::move(items), GetParam(), TransferProtocol::SFTP, 0744);
  }

  // Runs the pairs through a fresh sftp-server started with `serverArguments`.
  void copy(std::vector<Pair> const& pairs, EngineOptions const& options = {}, ProgressCallback const& progress = {},
            std::vector<std::string> const& serverArguments = {}) {
    server_.emplace(serverArguments);
    recorder_.emplace(*server_);
    transfer(*recorder_, kPeer, commandFor(pairs), progress, options);
  }

  // The message of the SSHError that copy() throws, with its kind checked.
  std::string failureOf(std::vector<Pair> const& pairs, SSHError::Kind kind = SSHError::Kind::Transfer,
                        EngineOptions const& options = {}, ProgressCallback const& progress = {}) {
    try {
      copy(pairs, options, progress);
    } catch (SSHError const& e) {
      EXPECT_EQ(e.kind(), kind) << e.what();
      return e.what();
    }
    return "no error";
  }

  [[nodiscard]] std::string prefix(Pair const& p) const {
    if (upload()) {
      return "cannot upload " + quotedPath(p.source) + " to " + quotedPath(p.destination) + " on " + kPeer + ": ";
    }
    return "cannot download " + quotedPath(p.source) + " from " + kPeer + " to " + quotedPath(p.destination) + ": ";
  }

  [[nodiscard]] std::string noSuchFile() const { return upload() ? "No such file or directory" : "No such file"; }

  // Writes `contents` as src/<name> and returns the pair to dst/<name>.
  Pair source(std::string const& name, std::string const& contents) {
    writeFile(src() / name, contents);
    return {src() / name, dst() / name};
  }

  ScratchDir scratch_;
  std::optional<SftpServerProcess> server_;
  std::optional<RecordingTransport> recorder_;
};

std::string directionName(::testing::TestParamInfo<TransferDirection> const& direction) {
  return direction.param == TransferDirection::LocalToRemote ? "Upload" : "Download";
}

INSTANTIATE_TEST_SUITE_P(BothWays, EngineTest,
                         ::testing::Values(TransferDirection::LocalToRemote, TransferDirection::RemoteToLocal),
                         directionName);

TEST_P(EngineTest, SizesAroundEveryBoundary) {
  std::vector<std::size_t> const sizes{
      0, 1, 32767, 32768, 32769, kServerMaxLength, kServerMaxLength + 1, 1048576, 10 * 1048576 + 3};
  std::vector<Pair> pairs;
  std::vector<std::string> contents;
  std::vector<std::string> names;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    contents.push_back(randomBytes(sizes[i], i));
    names.push_back("f" + std::to_string(sizes[i]));
    pairs.push_back(source(names.back(), contents.back()));
  }
  copy(pairs);
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    EXPECT_TRUE(readFile(dst() / names[i]) == contents[i]) << names[i];
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(listNames(dst()), names);
}

TEST_P(EngineTest, ChunksFollowTheServerLimits) {
  copy({source("big", randomBytes(3 * kServerMaxLength + 5, 1))});
  auto const lengths = recorder_->lengthsOf(upload() ? PacketType::Write : PacketType::Read);
  EXPECT_EQ(lengths, (std::vector<std::uint32_t>{kServerMaxLength, kServerMaxLength, kServerMaxLength, 5}));
}

TEST_P(EngineTest, WithoutLimitsChunksAre32KiB) {
  auto const contents = randomBytes(100000, 2);
  copy({source("f", contents)}, {}, {}, {"-P", "limits"});
  EXPECT_TRUE(readFile(dst() / "f") == contents);
  auto const lengths = recorder_->lengthsOf(upload() ? PacketType::Write : PacketType::Read);
  EXPECT_EQ(lengths, (std::vector<std::uint32_t>{32768, 32768, 32768, 1696}));
}

TEST_P(EngineTest, TinyChunksWithinAByteWindow) {
  EngineOptions options;
  options.chunkSize = 7;
  options.windowBytes = 50;
  options.windowCap = 50;  // a fast link would grow it
  std::vector<Pair> pairs;
  std::vector<std::string> contents;
  for (int i = 0; i < 3; ++i) {
    contents.push_back(randomBytes(1000 + static_cast<std::size_t>(i), static_cast<std::uint64_t>(i)));
    pairs.push_back(source("f" + std::to_string(i), contents.back()));
  }
  copy(pairs, options);
  for (std::size_t i = 0; i < pairs.size(); ++i) EXPECT_TRUE(readFile(pairs[i].destination) == contents[i]);
  auto const type = upload() ? PacketType::Write : PacketType::Read;
  auto const lengths = recorder_->lengthsOf(type);
  EXPECT_EQ(*std::max_element(lengths.begin(), lengths.end()), 7U);
  // The window holds 50 bytes: 8 requests of 7, never more.
  EXPECT_LE(recorder_->maxInFlight[type], 8U);
  EXPECT_GE(recorder_->maxInFlight[type], 2U);
}

TEST_P(EngineTest, ManySmallFilesAreOpenedWhileOthersAreInFlight) {
  std::vector<Pair> pairs;
  std::vector<std::string> contents;
  for (int i = 0; i < 2000; ++i) {
    contents.push_back(randomBytes(static_cast<std::size_t>(i * 37 % 4097), static_cast<std::uint64_t>(i)));
    pairs.push_back(source("small" + std::to_string(i), contents.back()));
  }
  copy(pairs);
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    ASSERT_TRUE(readFile(pairs[i].destination) == contents[i]) << pairs[i].destination;
  }
  EXPECT_EQ(listNames(dst()).size(), pairs.size());
  EXPECT_GE(recorder_->maxInFlight[PacketType::Open], 32U);
}

TEST_P(EngineTest, OverwritesAnExistingDestination) {
  auto const pair = source("f", "new contents");
  writeFile(pair.destination, "old contents, longer than the new ones");
  copy({pair});
  EXPECT_EQ(readFile(pair.destination), "new contents");
  EXPECT_EQ(listNames(dst()), std::vector<std::string>{"f"});
}

TEST_P(EngineTest, OverwritesWithoutPosixRename) {
  auto const pair = source("f", "new contents");
  writeFile(pair.destination, "old contents");
  auto const fresh = source("g", "fresh");
  EngineOptions options;
  options.usePosixRename = false;
  copy({pair, fresh}, options);
  EXPECT_EQ(readFile(pair.destination), "new contents");
  EXPECT_EQ(readFile(fresh.destination), "fresh");
  EXPECT_EQ(listNames(dst()), (std::vector<std::string>{"f", "g"}));
}

TEST_P(EngineTest, FilesNamedLikeTemporariesAreLeftAlone) {
  auto const pair = source("f", "contents");
  writeFile(dst() / ".f.sshfa-00000000", "stranger 1");
  writeFile(dst() / ".f.sshfa-", "stranger 2");
  copy({pair});
  EXPECT_EQ(readFile(pair.destination), "contents");
  EXPECT_EQ(readFile(dst() / ".f.sshfa-00000000"), "stranger 1");
  EXPECT_EQ(readFile(dst() / ".f.sshfa-"), "stranger 2");
  EXPECT_EQ(listNames(dst()).size(), 3U);
}

TEST_P(EngineTest, OfTwoItemsWithOneDestinationTheLaterStays) {
  auto const big = source("big", randomBytes(4 * 1048576, 6));
  auto const small = source("small", "the later one");
  copy({{big.source, dst() / "same"}, {small.source, dst() / "same"}, source("other", "x")});
  EXPECT_EQ(readFile(dst() / "same"), "the later one");
  EXPECT_EQ(listNames(dst()), (std::vector<std::string>{"other", "same"}));
}

TEST_P(EngineTest, OddNames) {
  std::vector<std::string> const names{
      "with blank", "it's", "new\nline", std::string("bad\xff\xfeutf8"), "-dash", std::string(250, 'L')};
  std::vector<Pair> pairs;
  for (auto const& name : names) pairs.push_back(source(name, "contents of " + name));
  copy(pairs);
  for (auto const& name : names) EXPECT_EQ(readFile(dst() / name), "contents of " + name);
  auto sorted = names;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(listNames(dst()), sorted);
}

TEST_P(EngineTest, CreatedFilesGetTheCommandMode) {
  auto const pair = source("f", "x");
  auto const old = ::umask(022);
  copy({pair}, {}, {}, {"-u", "022"});
  ::umask(old);
  EXPECT_EQ(sshfa::testing::permissionsOf(pair.destination), 0744U);
}

TEST_P(EngineTest, TheCreatorsUmaskNarrowsTheMode) {
  auto const pair = source("f", "x");
  auto const old = ::umask(077);
  copy({pair}, {}, {}, {"-u", "077"});
  ::umask(old);
  EXPECT_EQ(sshfa::testing::permissionsOf(pair.destination), 0700U);
}

TEST_P(EngineTest, MissingSourceAmongGoodOnes) {
  std::vector<Pair> pairs{source("a", "A"), source("b", "B"), {src() / "missing", dst() / "missing"}, source("c", "C")};
  EXPECT_EQ(failureOf(pairs), prefix(pairs[2]) + "cannot open " + quotedPath(pairs[2].source) + ": " + noSuchFile());
  EXPECT_EQ(readFile(dst() / "a"), "A");
  EXPECT_EQ(readFile(dst() / "b"), "B");
  for (auto const& name : listNames(dst())) EXPECT_FALSE(isTemporary(name)) << name;
  EXPECT_FALSE(fs::exists(dst() / "missing"));
}

TEST_P(EngineTest, TheFirstFailureInCommandOrderIsReported) {
  std::vector<Pair> pairs{source("a", "A"), {src() / "gone1", dst() / "gone1"}, {src() / "gone2", dst() / "gone2"}};
  auto const message = failureOf(pairs);
  EXPECT_TRUE(message.starts_with(prefix(pairs[1]))) << message;
  EXPECT_EQ(readFile(dst() / "a"), "A");
}

TEST_P(EngineTest, DestinationFolderMissing) {
  writeFile(src() / "f", "x");
  Pair const pair{src() / "f", dst() / "nope" / "f"};
  EXPECT_EQ(failureOf({pair}), prefix(pair) + "destination folder " + quotedPath(dst() / "nope") + " does not exist");
  EXPECT_TRUE(listNames(dst()).empty());
}

TEST_P(EngineTest, SourceIsAFolder) {
  fs::create_directory(src() / "dir");
  Pair const pair{src() / "dir", dst() / "dir"};
  EXPECT_EQ(failureOf({pair}), prefix(pair) + quotedPath(pair.source) + " is a folder");
  EXPECT_TRUE(listNames(dst()).empty());
}

TEST_P(EngineTest, DestinationIsAFolder) {
  auto const pair = source("f", "x");
  fs::create_directory(pair.destination);
  writeFile(pair.destination / "inside", "kept");
  for (bool const posixRename : {true, false}) {
    EngineOptions options;
    options.usePosixRename = posixRename;
    EXPECT_EQ(failureOf({pair}, SSHError::Kind::Transfer, options),
              prefix(pair) + "cannot replace " + quotedPath(pair.destination) +
                  (upload() ? ": it is a folder" : ": Is a directory"));
    EXPECT_EQ(listNames(dst()), std::vector<std::string>{"f"});
    EXPECT_EQ(readFile(pair.destination / "inside"), "kept");
  }
}

TEST_P(EngineTest, PermissionDenied) {
  if (::geteuid() == 0) GTEST_SKIP() << "root is never denied";
  auto const pair = source("f", "x");
  fs::permissions(dst(), fs::perms::owner_read | fs::perms::owner_exec);
  auto const message = failureOf({pair});
  EXPECT_TRUE(message.starts_with(prefix(pair) + "cannot create '" + dst().string() + "/.f.sshfa-")) << message;
  EXPECT_TRUE(message.ends_with("': Permission denied")) << message;
}

TEST_P(EngineTest, TheServerRefusingAccess) {
  auto const pair = source("f", "x");
  writeFile(pair.destination, "old");
  std::string message = "no error";
  try {
    copy({pair}, {}, {}, {"-P", "open"});
  } catch (SSHError const& e) {
    message = e.what();
  }
  if (upload()) {
    EXPECT_TRUE(message.starts_with(prefix(pair) + "cannot create '" + dst().string() + "/.f.sshfa-")) << message;
    EXPECT_TRUE(message.ends_with("': Permission denied")) << message;
  } else {
    EXPECT_EQ(message, prefix(pair) + "cannot open " + quotedPath(pair.source) + ": Permission denied");
  }
  EXPECT_EQ(readFile(pair.destination), "old");
  EXPECT_EQ(listNames(dst()), std::vector<std::string>{"f"});
}

TEST_P(EngineTest, FullDiskKeepsTheOldDestination) {
  auto const pair = source("f", randomBytes(3 * 1048576, 3));
  writeFile(pair.destination, "old");
  // A file size limit fails writes the way a full disk does; the server
  // process inherits it.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  ::getrlimit(RLIMIT_FSIZE, &old);
  rlimit limited = old;
  limited.rlim_cur = 1048576;
  ::setrlimit(RLIMIT_FSIZE, &limited);
  auto const message = failureOf({pair});
  ::setrlimit(RLIMIT_FSIZE, &old);
  EXPECT_TRUE(message.starts_with(prefix(pair) + "cannot write '" + dst().string() + "/.f.sshfa-")) << message;
  EXPECT_TRUE(message.ends_with(upload() ? "': Failure" : "': File too large")) << message;
  EXPECT_EQ(readFile(pair.destination), "old");
  EXPECT_EQ(listNames(dst()), std::vector<std::string>{"f"});
}

TEST_P(EngineTest, ServerKilledMidTransfer) {
  auto const pair = source("big", randomBytes(64 * 1048576, 4));
  writeFile(pair.destination, "old");
  EngineOptions options;
  options.progressInterval = std::chrono::milliseconds(0);
  auto const message = failureOf({pair}, SSHError::Kind::ConnectionLost, options, [&](TransferProgress const& p) {
    if (p.bytesDone > 0) server_->kill();
  });
  EXPECT_EQ(message, prefix(pair) + "connection lost");
  EXPECT_EQ(readFile(pair.destination), "old");
  // Only the remote side may keep a temporary: there was no one left to remove it.
  if (!upload()) {
    EXPECT_EQ(listNames(dst()), std::vector<std::string>{"big"});
  }
}

TEST_P(EngineTest, AThrowingProgressCallbackCancelsCleanly) {
  auto const pair = source("big", randomBytes(16 * 1048576, 5));
  auto const other = source("other", "x");
  EngineOptions options;
  options.progressInterval = std::chrono::milliseconds(0);
  options.chunkSize = 4096;
  try {
    copy({pair, other}, options, [](TransferProgress const&) { throw std::runtime_error("stop"); });
    FAIL() << "no exception";
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "stop");
  }
  EXPECT_TRUE(listNames(dst()).empty());
}

TEST_P(EngineTest, ProgressIsReportedUpToTheTotal) {
  std::vector<Pair> pairs;
  std::uint64_t total = 0;
  for (int i = 0; i < 5; ++i) {
    pairs.push_back(source("f" + std::to_string(i), randomBytes(300000, static_cast<std::uint64_t>(i))));
    total += 300000;
  }
  EngineOptions options;
  options.progressInterval = std::chrono::milliseconds(0);
  std::vector<TransferProgress> reports;
  copy(pairs, options, [&](TransferProgress const& p) { reports.push_back(p); });
  ASSERT_GE(reports.size(), 2U);
  for (std::size_t i = 1; i < reports.size(); ++i) {
    EXPECT_GE(reports[i].bytesDone, reports[i - 1].bytesDone);
    EXPECT_GE(reports[i].filesDone, reports[i - 1].filesDone);
    EXPECT_LE(reports[i].bytesDone, reports[i].bytesTotal);
    EXPECT_EQ(reports[i].filesTotal, 5U);
  }
  EXPECT_EQ(reports.back().bytesDone, total);
  EXPECT_EQ(reports.back().bytesTotal, total);
  EXPECT_EQ(reports.back().filesDone, 5U);
  EXPECT_EQ(reports.front().currentFile, fl::i18n::utf8_to_ustring(pairs[0].source.string()));
}

TEST_P(EngineTest, ProgressIsThrottled) {
  std::vector<Pair> pairs;
  for (int i = 0; i < 50; ++i) pairs.push_back(source("f" + std::to_string(i), randomBytes(100000, 1)));
  int calls = 0;
  auto const started = std::chrono::steady_clock::now();
  copy(pairs, {}, [&](TransferProgress const&) { ++calls; });
  auto const elapsed = std::chrono::steady_clock::now() - started;
  // One report per 250 ms at most, and the final one.
  EXPECT_GE(calls, 1);
  EXPECT_LE(calls, 1 + elapsed / std::chrono::milliseconds(250));
}

TEST_P(EngineTest, AnEmptyCommandSendsNothing) {
  copy({});
  EXPECT_TRUE(recorder_->requests.empty());
}

TEST_P(EngineTest, HugeSparseFile) {
  if (std::getenv("SSHFA_LONG_TESTS") == nullptr) GTEST_SKIP() << "set SSHFA_LONG_TESTS=1 to run";
  // On disk: the copy is not sparse, and 5 GiB do not belong in memory.
  ScratchDir const disk(fs::temp_directory_path());
  Pair const pair{disk / "sparse", disk / "copy"};
  writeFile(pair.source, "head");
  std::uint64_t const size = 5ULL * 1024 * 1024 * 1024 + 17;
  fs::resize_file(pair.source, size);
  {
    std::fstream out(pair.source, std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(static_cast<std::streamoff>(size - 4));
    out.write("tail", 4);
  }
  copy({pair});
  EXPECT_EQ(fs::file_size(pair.destination), size);
  std::ifstream a(pair.source, std::ios::binary);
  std::ifstream b(pair.destination, std::ios::binary);
  std::vector<char> x(1 << 20);
  std::vector<char> y(1 << 20);
  while (a.read(x.data(), static_cast<std::streamsize>(x.size())), a.gcount() > 0) {
    b.read(y.data(), static_cast<std::streamsize>(y.size()));
    ASSERT_EQ(a.gcount(), b.gcount());
    ASSERT_TRUE(std::equal(x.begin(), x.begin() + a.gcount(), y.begin()));
  }
}

// ---- against scripted servers ------------------------------------------------------

// READs as the server saw them: offset and length.
using Reads = std::vector<std::pair<std::uint64_t, std::uint32_t>>;

// Serves one file "/file" for download; the test shapes the answers.
struct ScriptedDownload {
  std::string contents;
  std::optional<std::uint64_t> statSize;  // what STAT claims
  std::uint32_t maxData = UINT32_MAX;     // longest DATA reply
  std::uint32_t limitsRead = 0;           // 0: no limits extension
  Reads reads;

  void operator()(Request const& r, std::vector<Bytes>& out) {
    switch (r.type) {
      case PacketType::Init: {
        Body version(PacketType::Version);
        version.u32(3);
        if (limitsRead > 0) version.str("limits@openssh.com").str("1");
        out.push_back(version.framed());
        break;
      }
      case PacketType::Extended:
        if (limitsRead == 0) {
          out.push_back(sshfa::testing::status(r.id, StatusCode::OpUnsupported).framed());
          break;
        }
        out.push_back(
            Body(PacketType::ExtendedReply).u32(r.id).u64(1 << 20).u64(limitsRead).u64(limitsRead).u64(64).framed());
        break;
      case PacketType::Stat:
      case PacketType::Lstat: {
        Body attrs(PacketType::Attrs);
        attrs.u32(r.id);
        if (statSize) {
          attrs.u32(attrflags::kSize | attrflags::kPermissions).u64(*statSize).u32(0100644);
        } else {
          attrs.u32(0);
        }
        out.push_back(attrs.framed());
        break;
      }
      case PacketType::Open:
        out.push_back(Body(PacketType::Handle).u32(r.id).str("H").framed());
        break;
      case PacketType::Read: {
        auto const [offset, length] = r.offsetAndLength();
        reads.emplace_back(offset, length);
        if (offset >= contents.size()) {
          out.push_back(sshfa::testing::status(r.id, StatusCode::Eof).framed());
          break;
        }
        auto const n = std::min<std::uint64_t>({length, maxData, contents.size() - offset});
        out.push_back(Body(PacketType::Data).u32(r.id).str(contents.substr(offset, n)).framed());
        break;
      }
      default:
        out.push_back(sshfa::testing::status(r.id, StatusCode::Ok).framed());
    }
  }
};

class ScriptedTest : public ::testing::Test {
 protected:
  CopyFilesCommand download(std::string const& name = "f") {
    return CopyFilesCommand({FileLocations{fl::i18n::utf8_to_ustring((scratch_ / name).string()), u"/file"}},
                            TransferDirection::RemoteToLocal, TransferProtocol::SFTP, 0744);
  }
  std::string failureOf(FakeServer& server, CopyFilesCommand const& command, EngineOptions const& options = {}) {
    try {
      transfer(server, kPeer, command, {}, options);
    } catch (SSHError const& e) {
      EXPECT_EQ(e.kind(), SSHError::Kind::Transfer);
      return e.what();
    }
    return "no error";
  }
  CopyTreesCommand treeDownload() {
    return CopyTreesCommand({FileLocations{fl::i18n::utf8_to_ustring((scratch_ / "f").string()), u"/file"}},
                            TransferDirection::RemoteToLocal);
  }
  std::string treeFailureOf(FakeServer& server) {
    try {
      transferTrees(server, kPeer, treeDownload(), {}, {});
    } catch (SSHError const& e) {
      return e.what();
    }
    return "no error";
  }
  // A file listed at 3 bytes whose server holds `contents`: its download
  // fails as changed after exactly `reads` and leaves nothing behind.
  void expectChangedWhileRead(std::string contents, std::uint32_t limitsRead, Reads const& reads) {
    ScriptedDownload script;
    script.contents = std::move(contents);
    script.statSize = 3;
    script.limitsRead = limitsRead;
    FakeServer server(std::ref(script));
    EXPECT_EQ(treeFailureOf(server), "cannot download '/file' from " + std::string(kPeer) + " to '" +
                                         (scratch_ / "f").string() + "': '/file' changed while being read");
    EXPECT_EQ(script.reads, reads);
    EXPECT_TRUE(listNames(scratch_.path()).empty());
  }
  std::string downloadPrefix() const {
    return "cannot download '/file' from tester@local:0 to '" + (scratch_ / "f").string() + "': ";
  }

  ScratchDir scratch_;
};

TEST_F(ScriptedTest, RepliesInAnyOrderAndShortReads) {
  ScriptedDownload script;
  script.contents = randomBytes(100000, 9);
  script.statSize = script.contents.size();
  script.maxData = 700;
  script.limitsRead = 1000;
  FakeServer server(std::ref(script));
  server.reverseBatches = true;
  transfer(server, kPeer, download(), {}, {});
  EXPECT_TRUE(readFile(scratch_ / "f") == script.contents);
  // Every short answer was followed by a request for the rest.
  EXPECT_EQ(script.reads[0], (std::pair<std::uint64_t, std::uint32_t>{0, 1000}));
  EXPECT_NE(std::find(script.reads.begin(), script.reads.end(), std::pair<std::uint64_t, std::uint32_t>{700, 300}),
            script.reads.end());
}

TEST_F(ScriptedTest, AFileThatShrankEndsAtTheEndOfFile) {
  ScriptedDownload script;
  script.contents = "only this";
  script.statSize = 100000;
  FakeServer server(std::ref(script));
  transfer(server, kPeer, download(), {}, {});
  EXPECT_EQ(readFile(scratch_ / "f"), "only this");
}

// Trees: a listed file is asked for one byte past its listed size.
TEST_F(ScriptedTest, AListedFileOfItsListedSizeArrives) {
  ScriptedDownload script;
  script.contents = "abc";
  script.statSize = 3;
  FakeServer server(std::ref(script));
  EXPECT_EQ(transferTrees(server, kPeer, treeDownload(), {}, {}).files, 1U);
  EXPECT_EQ(readFile(scratch_ / "f"), "abc");
  EXPECT_EQ(script.reads, (Reads{{0, 3}, {3, 1}}));
}

TEST_F(ScriptedTest, AListedFileThatGrewFailsAndLeavesNothing) {
  expectChangedWhileRead("abc and more", 0, {{0, 3}, {3, 1}});
}

// A server that states its limits answers a READ with one read(): the last
// READ of a listed file asks for the byte past its size as well.
TEST_F(ScriptedTest, AListedFileIsProbedWithinItsLastReadWhenTheServerStatesItsLimits) {
  ScriptedDownload script;
  script.contents = "abc";
  script.statSize = 3;
  script.limitsRead = 1000;
  FakeServer server(std::ref(script));
  EXPECT_EQ(transferTrees(server, kPeer, treeDownload(), {}, {}).files, 1U);
  EXPECT_EQ(readFile(scratch_ / "f"), "abc");
  EXPECT_EQ(script.reads, (Reads{{0, 4}}));
}

TEST_F(ScriptedTest, ShortReadsOfAListedFileStillReachItsProbe) {
  ScriptedDownload script;
  script.contents = randomBytes(2500, 11);
  script.statSize = 2500;
  script.limitsRead = 1000;
  script.maxData = 700;
  FakeServer server(std::ref(script));
  EXPECT_EQ(transferTrees(server, kPeer, treeDownload(), {}, {}).files, 1U);
  EXPECT_TRUE(readFile(scratch_ / "f") == script.contents);
  // The last READ's 500 bytes end at the listed size: that is its end.
  std::sort(script.reads.begin(), script.reads.end());
  EXPECT_EQ(script.reads, (Reads{{0, 1000}, {700, 300}, {1000, 1000}, {1700, 300}, {2000, 501}}));
}

TEST_F(ScriptedTest, AListedFileThatGrewFailsWithinItsLastRead) {
  expectChangedWhileRead("abc and more", 1000, {{0, 4}});
}

TEST_F(ScriptedTest, AListedFileThatShrankFailsAndLeavesNothing) {
  expectChangedWhileRead("ab", 1000, {{0, 4}, {2, 2}});
}

TEST_F(ScriptedTest, ACallbackThatThrowsWhileListingStopsBeforeAnyFile) {
  ScriptedDownload script;
  script.contents = "abc";
  script.statSize = 3;
  FakeServer server(std::ref(script));
  std::vector<TransferProgress> seen;
  auto const stop = [&](TransferProgress const& progress) {
    seen.push_back(progress);
    throw std::runtime_error("stop");
  };
  EngineOptions options;
  options.progressInterval = std::chrono::milliseconds(0);
  EXPECT_THROW(transferTrees(server, kPeer, treeDownload(), stop, {}, options), std::runtime_error);
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].filesTotal, 0U);  // no totals while listing
  EXPECT_TRUE(script.reads.empty());
  EXPECT_TRUE(listNames(scratch_.path()).empty());
}

TEST_F(ScriptedTest, FilesOpenWhileTheLimitsAreAskedFor) {
  ScriptedDownload script;
  script.contents = "abc";
  script.statSize = 3;
  script.limitsRead = 1000;
  std::vector<PacketType> types;
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) {
    types.push_back(r.type);
    script(r, out);
  });
  transfer(server, kPeer, download(), {}, {});
  EXPECT_EQ(types, (std::vector<PacketType>{PacketType::Init, PacketType::Extended, PacketType::Stat, PacketType::Open,
                                            PacketType::Read, PacketType::Close}));
  EXPECT_EQ(readFile(scratch_ / "f"), "abc");
}

TEST_F(ScriptedTest, AnUnknownSizeIsReadUntilTheEndOfFile) {
  ScriptedDownload script;
  script.contents = randomBytes(200000, 10);
  FakeServer server(std::ref(script));
  transfer(server, kPeer, download(), {}, {});
  EXPECT_TRUE(readFile(scratch_ / "f") == script.contents);
}

TEST_F(ScriptedTest, MalformedReplyRemovesTheTemporary) {
  ScriptedDownload script;
  script.statSize = 10;
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) {
    if (r.type == PacketType::Open) {
      out.push_back(Body(PacketType::Handle).u32(r.id).str("H").u8(0).framed());
    } else {
      script(r, out);
    }
  });
  EXPECT_EQ(failureOf(server, download()), downloadPrefix() + "malformed SFTP reply: 1 unexpected bytes after HANDLE");
  EXPECT_TRUE(listNames(scratch_.path()).empty());
}

TEST_F(ScriptedTest, ReplyToAnUnknownRequest) {
  ScriptedDownload script;
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) {
    if (r.type == PacketType::Stat) {
      out.push_back(sshfa::testing::status(r.id + 1000, StatusCode::Ok).framed());
    } else {
      script(r, out);
    }
  });
  // The STAT is request 1, after the limits.
  EXPECT_EQ(failureOf(server, download()), downloadPrefix() + "malformed SFTP reply: reply to unknown request 1001");
  EXPECT_TRUE(listNames(scratch_.path()).empty());
}

TEST_F(ScriptedTest, DataLongerThanRequested) {
  ScriptedDownload script;
  script.statSize = 4;
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) {
    if (r.type == PacketType::Read) {
      out.push_back(Body(PacketType::Data).u32(r.id).str("12345").framed());
    } else {
      script(r, out);
    }
  });
  EXPECT_EQ(failureOf(server, download()),
            downloadPrefix() + "malformed SFTP reply: DATA reply of 5 bytes to a READ of 4");
}

TEST_F(ScriptedTest, WrongProtocolVersion) {
  FakeServer server(
      [](Request const&, std::vector<Bytes>& out) { out.push_back(Body(PacketType::Version).u32(4).framed()); });
  EXPECT_EQ(failureOf(server, download()),
            "SFTP session with tester@local:0: malformed SFTP reply: the server speaks SFTP version 4, not 3");
}

TEST_F(ScriptedTest, AFailedUploadClosesAndRemovesItsTemporary) {
  writeFile(scratch_ / "local", randomBytes(100, 1));
  std::vector<Request> seen;
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) {
    seen.push_back(r);
    if (r.type == PacketType::Init) {
      out.push_back(Body(PacketType::Version).u32(3).framed());
    } else if (r.type == PacketType::Open) {
      out.push_back(Body(PacketType::Handle).u32(r.id).str("H").framed());
    } else if (r.type == PacketType::Write) {
      out.push_back(Body(PacketType::Status).u32(r.id).u32(4).str("Disk quota exceeded").str("").framed());
    } else {
      out.push_back(sshfa::testing::status(r.id, StatusCode::Ok).framed());
    }
  });
  CopyFilesCommand const command({FileLocations{fl::i18n::utf8_to_ustring((scratch_ / "local").string()), u"/r/f"}},
                                 TransferDirection::LocalToRemote, TransferProtocol::SFTP, 0744);
  auto const message = failureOf(server, command);
  EXPECT_TRUE(message.starts_with("cannot upload '" + (scratch_ / "local").string() +
                                  "' to '/r/f' on tester@local:0: cannot write '/r/.f.sshfa-"))
      << message;
  EXPECT_TRUE(message.ends_with("': Failure (Disk quota exceeded)")) << message;
  ASSERT_EQ(seen.size(), 6U);
  EXPECT_EQ(seen[1].type, PacketType::Extended);  // the limits
  EXPECT_EQ(seen[2].type, PacketType::Open);
  EXPECT_EQ(seen[4].type, PacketType::Close);
  EXPECT_EQ(seen[5].type, PacketType::Remove);
  EXPECT_EQ(seen[5].firstString(), seen[2].firstString());
}

TEST_F(ScriptedTest, FilesThatAllCompleteAtOnceMakeRoomForTheNext) {
  std::vector<FileLocations> items;
  for (int i = 0; i < 300; ++i) {
    auto const name = "local" + std::to_string(i);
    writeFile(scratch_ / name, "x");
    items.push_back({fl::i18n::utf8_to_ustring((scratch_ / name).string()), u"/r/" + fl::i18n::utf8_to_ustring(name)});
  }
  std::size_t renames = 0;
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) {
    if (r.type == PacketType::Init) {
      out.push_back(Body(PacketType::Version).u32(3).str("posix-rename@openssh.com").str("1").framed());
    } else if (r.type == PacketType::Open) {
      out.push_back(Body(PacketType::Handle).u32(r.id).str("H").framed());
    } else {
      renames += r.type == PacketType::Extended && r.firstString() == "posix-rename@openssh.com" ? 1U : 0U;
      out.push_back(sshfa::testing::status(r.id, StatusCode::Ok).framed());
    }
  });
  transfer(server, kPeer,
           CopyFilesCommand(std::move(items), TransferDirection::LocalToRemote, TransferProtocol::SFTP, 0744), {}, {});
  EXPECT_EQ(renames, 300U);
}

// Downloads of `count` files f0, f1, ... from /r into `scratch`.
CopyFilesCommand downloadsOf(ScratchDir const& scratch, int count) {
  std::vector<FileLocations> items;
  for (int i = 0; i < count; ++i) {
    auto const name = "f" + std::to_string(i);
    items.push_back({fl::i18n::utf8_to_ustring((scratch / name).string()), u"/r/" + fl::i18n::utf8_to_ustring(name)});
  }
  return CopyFilesCommand(std::move(items), TransferDirection::RemoteToLocal, TransferProtocol::SFTP, 0644);
}

// A server whose files each hold "x", stating `handles` as its limit; it
// counts the handles open at once.
struct OneByteFiles {
  std::uint64_t handles = 0;
  std::set<std::string> open;
  std::size_t mostOpen = 0;
  int opens = 0;

  void answer(Request const& r, std::vector<Bytes>& out) {
    switch (r.type) {
      case PacketType::Init:
        out.push_back(Body(PacketType::Version).u32(3).str("limits@openssh.com").str("1").framed());
        return;
      case PacketType::Extended:
        out.push_back(
            Body(PacketType::ExtendedReply).u32(r.id).u64(1 << 20).u64(1 << 15).u64(1 << 15).u64(handles).framed());
        return;
      case PacketType::Stat:
        out.push_back(Body(PacketType::Attrs)
                          .u32(r.id)
                          .u32(attrflags::kSize | attrflags::kPermissions)
                          .u64(1)
                          .u32(0100644)
                          .framed());
        return;
      case PacketType::Open: {
        auto const handle = "H" + std::to_string(opens++);
        open.insert(handle);
        mostOpen = std::max(mostOpen, open.size());
        out.push_back(Body(PacketType::Handle).u32(r.id).str(handle).framed());
        return;
      }
      case PacketType::Read: {
        auto const [offset, length] = r.offsetAndLength();
        out.push_back(offset == 0 ? Body(PacketType::Data).u32(r.id).str("x").framed()
                                  : sshfa::testing::status(r.id, StatusCode::Eof).framed());
        return;
      }
      case PacketType::Close:
        open.erase(r.firstString());
        out.push_back(sshfa::testing::status(r.id, StatusCode::Ok).framed());
        return;
      default:
        out.push_back(sshfa::testing::status(r.id, StatusCode::Ok).framed());
    }
  }
};

void expectOneByteFiles(ScratchDir const& scratch, int count) {
  for (int i = 0; i < count; ++i) EXPECT_EQ(readFile(scratch / ("f" + std::to_string(i))), "x") << i;
  EXPECT_EQ(listNames(scratch.path()).size(), static_cast<std::size_t>(count));
}

// A download holds its handle until its CLOSE is sent: the next file opens
// without waiting for the CLOSE's answer (a round trip on a long link), and
// the server never holds more handles than its limit.
TEST_F(ScriptedTest, ADownloadsSlotIsFreeOnceItsCloseIsSent) {
  constexpr int kFiles = 40;
  OneByteFiles files;
  files.handles = 8;
  std::vector<Bytes> heldCloses;  // answered only once every file was opened
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) {
    if (r.type == PacketType::Close && files.opens < kFiles) {
      files.open.erase(r.firstString());
      heldCloses.push_back(sshfa::testing::status(r.id, StatusCode::Ok).framed());
      return;
    }
    files.answer(r, out);
    if (r.type == PacketType::Open && files.opens == kFiles) {
      std::move(heldCloses.begin(), heldCloses.end(), std::back_inserter(out));
    }
  });
  transfer(server, kPeer, downloadsOf(scratch_, kFiles), {}, {});
  EXPECT_EQ(files.opens, kFiles);
  EXPECT_LE(files.mostOpen, 8U);
  EXPECT_TRUE(files.open.empty());
  expectOneByteFiles(scratch_, kFiles);
}

// A download holds a descriptor here only while it writes: under a low limit
// of open files it keeps as many files in flight as the server lets it, not
// the 32 a channel that the limit leaves for descriptors.
TEST_F(ScriptedTest, DownloadsKeepMoreFilesInFlightThanTheOpenFileLimitLeaves) {
  constexpr int kFiles = 100;
  OneByteFiles files;
  files.handles = 1000;
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) { files.answer(r, out); });
  {
    // (128 - 64 reserved) / 2: 32 descriptors for the files of the one channel.
    OpenFileLimit const limit(128);
    transfer(server, kPeer, downloadsOf(scratch_, kFiles), {}, {});
  }
  EXPECT_EQ(files.opens, kFiles);
  EXPECT_GT(files.mostOpen, 32U);
  EXPECT_TRUE(files.open.empty());
  expectOneByteFiles(scratch_, kFiles);
}

// Strings of a request body in order (what follows them is not read).
std::vector<std::string> stringsOf(Bytes const& body, std::size_t count, std::size_t skipAfterFirst = 0) {
  std::vector<std::string> strings;
  std::size_t at = 0;
  for (std::size_t i = 0; i < count; ++i) {
    auto const length = (std::uint32_t{body[at]} << 24U) | (std::uint32_t{body[at + 1]} << 16U) |
                        (std::uint32_t{body[at + 2]} << 8U) | body[at + 3];
    strings.emplace_back(body.begin() + static_cast<long>(at + 4), body.begin() + static_cast<long>(at + 4 + length));
    at += 4 + length + (i == 0 ? skipAfterFirst : 0);
  }
  return strings;
}

// Takes uploads of a tree into "/r" (a folder not there yet) and keeps what
// arrived; counts the handles open at once.
struct TreeUploads {
  std::set<std::string> open;
  std::size_t mostOpen = 0;
  int opens = 0;
  std::map<std::string, std::string> pathOfHandle;
  std::map<std::string, std::string> written;  // by temporary
  std::map<std::string, std::string> renamed;  // by destination
  std::set<std::string> removed;
  std::function<void()> beforeFirstOpen;  // runs as the first OPEN arrives

  void operator()(Request const& r, std::vector<Bytes>& out) {
    switch (r.type) {
      case PacketType::Init:
        out.push_back(Body(PacketType::Version)
                          .u32(3)
                          .str("posix-rename@openssh.com")
                          .str("1")
                          .str("limits@openssh.com")
                          .str("1")
                          .framed());
        return;
      case PacketType::Extended:
        if (r.firstString() == "limits@openssh.com") {
          out.push_back(
              Body(PacketType::ExtendedReply).u32(r.id).u64(1 << 20).u64(1 << 15).u64(1 << 15).u64(1000).framed());
          return;
        } else {
          auto const paths = stringsOf(r.body, 3);
          renamed[paths[2]] = written[paths[1]];
        }
        break;
      case PacketType::Stat:
      case PacketType::Lstat:
        out.push_back(sshfa::testing::status(r.id, StatusCode::NoSuchFile).framed());
        return;
      case PacketType::Open: {
        if (opens == 0 && beforeFirstOpen) beforeFirstOpen();
        auto const handle = "H" + std::to_string(opens++);
        pathOfHandle[handle] = r.firstString();
        open.insert(handle);
        mostOpen = std::max(mostOpen, open.size());
        out.push_back(Body(PacketType::Handle).u32(r.id).str(handle).framed());
        return;
      }
      case PacketType::Write: {
        auto const strings = stringsOf(r.body, 2, 8);
        written[pathOfHandle[strings[0]]] = strings[1];
        break;
      }
      case PacketType::Close:
        open.erase(r.firstString());
        break;
      case PacketType::Remove:
        removed.insert(r.firstString());
        break;
      default:
        break;
    }
    out.push_back(sshfa::testing::status(r.id, StatusCode::Ok).framed());
  }
};

// Files f0 ... f99 (holding "file N") in `folder`, uploaded to "/r" under a
// limit of 128 open files: (128 - 64 reserved) / 2 leaves 32 descriptors for
// the files of the one channel, and the files start by name (f0, f1, f10,
// ...), so f97-f99 are among those opened only when their data is to go.
constexpr int kTreeFiles = 100;
std::string uploadTreeUnderALowLimit(fs::path const& folder, TreeUploads& uploads) {
  fs::create_directory(folder);
  for (int i = 0; i < kTreeFiles; ++i) writeFile(folder / ("f" + std::to_string(i)), "file " + std::to_string(i));
  FakeServer server(std::ref(uploads));
  CopyTreesCommand const command({FileLocations{fl::i18n::utf8_to_ustring(folder.string()), u"/r"}},
                                 TransferDirection::LocalToRemote);
  OpenFileLimit const limit(128);
  try {
    EXPECT_EQ(transferTrees(server, kPeer, command, {}, {}).files, std::size_t{kTreeFiles});
  } catch (SSHError const& e) {
    return e.what();
  }
  return "no error";
}

// An upload of a listed file that starts while no descriptor is free opens
// it here only when its data is to go: under a low limit of open files a
// tree's files in flight are not bound to the descriptors the limit leaves.
TEST_F(ScriptedTest, UploadsKeepMoreFilesInFlightThanTheOpenFileLimitLeaves) {
  TreeUploads uploads;
  EXPECT_EQ(uploadTreeUnderALowLimit(scratch_ / "tree", uploads), "no error");
  EXPECT_EQ(uploads.opens, kTreeFiles);
  EXPECT_GT(uploads.mostOpen, 32U);
  EXPECT_TRUE(uploads.open.empty());
  ASSERT_EQ(uploads.renamed.size(), std::size_t{kTreeFiles});
  for (int i = 0; i < kTreeFiles; ++i) {
    EXPECT_EQ(uploads.renamed["/r/f" + std::to_string(i)], "file " + std::to_string(i)) << i;
  }
  EXPECT_TRUE(uploads.removed.empty());
}

// Sources changed between their listing and their opening: each as it is
// when opened; one gone or turned into a folder fails, and its temporary goes.
TEST_F(ScriptedTest, AnUploadOpenedLateTakesItsSourceAsItIsThen) {
  auto const tree = scratch_ / "tree";
  TreeUploads uploads;
  uploads.beforeFirstOpen = [&] {
    writeFile(tree / "f98", "grown since it was listed");
    fs::remove(tree / "f99");
    fs::remove(tree / "f97");
    fs::create_directory(tree / "f97");
  };
  auto const failure = uploadTreeUnderALowLimit(tree, uploads);
  EXPECT_EQ(failure, "cannot upload " + quotedPath(tree / "f97") + " to '/r/f97' on " + kPeer + ": " +
                         quotedPath(tree / "f97") + " is a folder (and 1 more file failed)");
  EXPECT_EQ(uploads.renamed.size(), std::size_t{kTreeFiles - 2});
  EXPECT_EQ(uploads.renamed["/r/f98"], "grown since it was listed");
  EXPECT_EQ(uploads.renamed.count("/r/f97") + uploads.renamed.count("/r/f99"), 0U);
  // The two temporaries made for them, removed.
  ASSERT_EQ(uploads.removed.size(), 2U);
  for (auto const& temp : uploads.removed) {
    EXPECT_TRUE(temp.starts_with("/r/.f97.sshfa-") || temp.starts_with("/r/.f99.sshfa-")) << temp;
  }
  EXPECT_TRUE(uploads.open.empty());
}

// Uploads of 1,000 bytes each, through a server that states its limits;
// the most OPENs sent before the WRITE of their file was.
std::size_t mostOpenedAhead(ScratchDir const& scratch, EngineOptions const& options) {
  std::vector<FileLocations> items;
  for (int i = 0; i < 40; ++i) {
    auto const name = "local" + std::to_string(i);
    writeFile(scratch / name, std::string(1000, 'x'));
    items.push_back({fl::i18n::utf8_to_ustring((scratch / name).string()), u"/r/" + fl::i18n::utf8_to_ustring(name)});
  }
  std::size_t ahead = 0;
  std::size_t most = 0;
  std::size_t writes = 0;
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) {
    if (r.type == PacketType::Init) {
      out.push_back(Body(PacketType::Version).u32(3).str("limits@openssh.com").str("1").framed());
    } else if (r.type == PacketType::Extended && r.firstString() == "limits@openssh.com") {
      out.push_back(
          Body(PacketType::ExtendedReply).u32(r.id).u64(1 << 20).u64(1 << 15).u64(1 << 15).u64(1000).framed());
    } else if (r.type == PacketType::Open) {
      most = std::max(most, ++ahead);
      out.push_back(Body(PacketType::Handle).u32(r.id).str("H").framed());
    } else {
      if (r.type == PacketType::Write) {
        --ahead;
        ++writes;
      }
      out.push_back(sshfa::testing::status(r.id, StatusCode::Ok).framed());
    }
  });
  transfer(server, kPeer,
           CopyFilesCommand(std::move(items), TransferDirection::LocalToRemote, TransferProtocol::SFTP, 0744), {},
           options);
  EXPECT_EQ(writes, 40U);
  return most;
}

// An upload opens files only as far ahead of their data as the options let
// it (on a short round trip); without that bound, as many as it may hold.
TEST_F(ScriptedTest, UploadsOpenFilesOnlyAsFarAheadAsTheirDataCanGo) {
  EngineOptions bounded;
  bounded.uploadOpenAheadBytes = 4000;
  EXPECT_EQ(mostOpenedAhead(scratch_, bounded), 4U);
  EngineOptions unbounded;
  unbounded.uploadOpenAheadBytes = 0;
  EXPECT_GE(mostOpenedAhead(scratch_, unbounded), 8U);
}

TEST_F(ScriptedTest, OfTwoUploadsToOnePlaceTheLaterStaysEvenWhenTheEarlierIsDelayed) {
  writeFile(scratch_ / "earlier", "earlier");
  writeFile(scratch_ / "later", "later");
  std::map<std::string, std::string> pathOfHandle;
  std::map<std::string, std::string> contentsOfPath;
  std::string lastRenamed;
  int opens = 0;
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) {
    if (r.type == PacketType::Init) {
      out.push_back(Body(PacketType::Version).u32(3).str("posix-rename@openssh.com").str("1").framed());
    } else if (r.type == PacketType::Open && ++opens == 1) {
      // The first temporary name is taken: the earlier file needs a second try.
      out.push_back(sshfa::testing::status(r.id, StatusCode::Failure).framed());
    } else if (r.type == PacketType::Open) {
      auto const handle = "H" + std::to_string(opens);
      pathOfHandle[handle] = r.firstString();
      out.push_back(Body(PacketType::Handle).u32(r.id).str(handle).framed());
    } else {
      if (r.type == PacketType::Write) {
        auto const strings = stringsOf(r.body, 2, 8);
        contentsOfPath[pathOfHandle[strings[0]]] = strings[1];
      }
      if (r.type == PacketType::Extended && r.firstString() == "posix-rename@openssh.com") {
        lastRenamed = stringsOf(r.body, 3)[1];
      }
      out.push_back(sshfa::testing::status(r.id, StatusCode::Ok).framed());
    }
  });
  std::vector<FileLocations> items;
  for (auto const* name : {"earlier", "later"}) {
    items.push_back({fl::i18n::utf8_to_ustring((scratch_ / name).string()), u"/r/same"});
  }
  transfer(server, kPeer,
           CopyFilesCommand(std::move(items), TransferDirection::LocalToRemote, TransferProtocol::SFTP, 0744), {}, {});
  EXPECT_EQ(contentsOfPath[lastRenamed], "later");
}

TEST_F(ScriptedTest, ATakenTemporaryNameIsRetriedAndNeverRemoved) {
  writeFile(scratch_ / "local", "x");
  std::vector<Request> seen;
  FakeServer server([&](Request const& r, std::vector<Bytes>& out) {
    seen.push_back(r);
    if (r.type == PacketType::Init) {
      out.push_back(Body(PacketType::Version).u32(3).str("posix-rename@openssh.com").str("1").framed());
    } else if (r.type == PacketType::Open &&
               std::count_if(seen.begin(), seen.end(), [](auto const& s) { return s.type == PacketType::Open; }) == 1) {
      out.push_back(sshfa::testing::status(r.id, StatusCode::Failure).framed());
    } else if (r.type == PacketType::Open) {
      out.push_back(Body(PacketType::Handle).u32(r.id).str("H").framed());
    } else {
      out.push_back(sshfa::testing::status(r.id, StatusCode::Ok).framed());
    }
  });
  CopyFilesCommand const command({FileLocations{fl::i18n::utf8_to_ustring((scratch_ / "local").string()), u"/r/f"}},
                                 TransferDirection::LocalToRemote, TransferProtocol::SFTP, 0744);
  transfer(server, kPeer, command, {}, {});
  std::vector<PacketType> types;
  for (auto const& r : seen) types.push_back(r.type);
  // The limits, then the two OPENs.
  EXPECT_EQ(types, (std::vector<PacketType>{PacketType::Init, PacketType::Extended, PacketType::Open, PacketType::Open,
                                            PacketType::Write, PacketType::Close, PacketType::Extended}));
  EXPECT_NE(seen[2].firstString(), seen[3].firstString());
}

}  // namespace
}  // namespace foundation::sshclient::internal::sftp
