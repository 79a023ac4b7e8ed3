#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

namespace {

namespace fs = std::filesystem;
namespace in = foundation::sshclient::internal;

constexpr char kEmpty[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char kAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char kAbcB2[] =
    "ba80a53f981c4d0d6a2797b69f12f6e94c212f14685ac4b74b12bb6fdbffa2d1"
    "7d87c5392aab792dc252d5de4533cc9518d38aa8dbf1925ab92386edd4009923";

class LocalDigest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("sshfa-digest-" + std::to_string(::getpid()));
    fs::create_directories(dir_);
    std::ofstream(dir_ / "abcdef", std::ios::binary) << "abcdef";
  }
  void TearDown() override { fs::remove_all(dir_); }
  fs::path dir_;
};

TEST(Digest, KnownVectors) {
  EXPECT_EQ(in::sha256Of(""), kEmpty);
  EXPECT_EQ(in::sha256Of("abc"), kAbc);
}

TEST_F(LocalDigest, WholeFileAndPrefixes) {
  auto const path = (dir_ / "abcdef").string();
  EXPECT_EQ(in::sha256OfLocalFile(path), in::sha256Of("abcdef"));
  EXPECT_EQ(in::sha256OfLocalFile(path, 3), kAbc);
  EXPECT_EQ(in::sha256OfLocalFile(path, 0), kEmpty);
  // A prefix longer than the file is the whole file.
  EXPECT_EQ(in::sha256OfLocalFile(path, 100), in::sha256Of("abcdef"));
}

TEST_F(LocalDigest, ALargeFileIsHashedAcrossReads) {
  std::string const bytes(200000, 'x');
  std::ofstream(dir_ / "big", std::ios::binary) << bytes;
  EXPECT_EQ(in::sha256OfLocalFile((dir_ / "big").string()), in::sha256Of(bytes));
  EXPECT_EQ(in::sha256OfLocalFile((dir_ / "big").string(), 70000), in::sha256Of(bytes.substr(0, 70000)));
}

TEST_F(LocalDigest, AMissingFileNamesThePathAndTheCause) {
  auto const path = (dir_ / "missing").string();
  try {
    in::sha256OfLocalFile(path);
    FAIL() << "no error";
  } catch (foundation::sshclient::SSHError const& e) {
    EXPECT_EQ(e.kind(), foundation::sshclient::SSHError::Kind::Transfer);
    EXPECT_EQ(std::string(e.what()), "cannot open '" + path + "': No such file or directory");
  }
}

TEST_F(LocalDigest, AFolderCannotBeRead) {
  EXPECT_THROW(in::sha256OfLocalFile(dir_.string()), foundation::sshclient::SSHError);
}

TEST(Digest, Blake2b512AsB2sumPrintsIt) {
  EXPECT_EQ(in::hashOf(in::HashKind::Blake2b512, "abc"), kAbcB2);
  EXPECT_EQ(in::hashOf(in::HashKind::Sha256, "abc"), kAbc);
}

TEST_F(LocalDigest, EitherKindOfAFileAndItsPrefix) {
  auto const path = (dir_ / "abcdef").string();
  EXPECT_EQ(in::hashOfLocalFile(in::HashKind::Blake2b512, path, 3), kAbcB2);
  EXPECT_EQ(in::hashOfLocalFile(in::HashKind::Blake2b512, path), in::hashOf(in::HashKind::Blake2b512, "abcdef"));
}

TEST(HashTools, NamedOnTheFirstLine) {
  EXPECT_EQ(in::hashToolNamed("b2sum"), in::HashKind::Blake2b512);
  EXPECT_EQ(in::hashToolNamed("sha256sum"), in::HashKind::Sha256);
  EXPECT_EQ(in::hashToolNamed("md5sum"), std::nullopt);
  EXPECT_EQ(in::hexLengthOf(in::HashKind::Blake2b512), 128U);
  EXPECT_EQ(in::hexLengthOf(in::HashKind::Sha256), 64U);
  EXPECT_EQ(in::announcedHash("b2sum"), std::nullopt);  // not whole yet
  EXPECT_EQ(in::announcedHash("b2sum\n"), in::HashKind::Blake2b512);
  EXPECT_EQ(in::announcedHash("sha256sum\n" + std::string(kAbc) + "  -\n"), in::HashKind::Sha256);
  EXPECT_EQ(in::announcedHash("Welcome!\n"), std::nullopt);
}

TEST(RemoteHashCommands, OneProcessPerLineWithEveryPathAfterTheOptions) {
  auto const batches = in::remoteHashCommands({"/a", "-rf", "it's"});
  ASSERT_EQ(batches.size(), 1U);
  EXPECT_EQ(batches[0].command,
            "h=sha256sum; b2sum </dev/null >/dev/null 2>&1 && h=b2sum; echo $h; "
            "$h -- '/a' '-rf' 'it'\\''s' 2>/dev/null");
  EXPECT_EQ(batches[0].first, 0U);
  EXPECT_EQ(batches[0].count, 3U);
  EXPECT_TRUE(in::remoteHashCommands({}).empty());
}

TEST(RemoteHashCommands, LinesStayWithinTheLimitAndCoverEveryPathOnce) {
  std::vector<std::string> const paths(1000, std::string(20, 'p'));
  auto const batches = in::remoteHashCommands(paths, 500);
  std::size_t next = 0;
  for (auto const& batch : batches) {
    EXPECT_LE(batch.command.size(), 500U);
    EXPECT_EQ(batch.first, next);
    EXPECT_EQ(static_cast<std::size_t>(std::count(batch.command.begin(), batch.command.end(), '\'')), 2 * batch.count);
    next += batch.count;
  }
  EXPECT_EQ(next, paths.size());
  // A path longer than the limit still gets a line of its own.
  auto const alone = in::remoteHashCommands({"a", std::string(600, 'q'), "b"}, 500);
  ASSERT_EQ(alone.size(), 3U);
  EXPECT_GT(alone[1].command.size(), 500U);
}

TEST(ParseRemoteHashes, HashesByNameAndNothingForAPathWithoutALine) {
  std::vector<std::string> const paths = {"/a", "/missing", "/x\ny\\z", "/c\rr"};
  std::string const out =
      "sha256sum\n" + std::string(kAbc) + "  /a\n\\" + kEmpty + "  /x\\ny\\\\z\n\\" + kAbc + "  /c\\rr\n";
  auto const answer = in::parseRemoteHashes(out, paths);
  EXPECT_EQ(answer.kind, in::HashKind::Sha256);
  auto const& hashes = answer.hashes;
  ASSERT_EQ(hashes.size(), 4U);
  EXPECT_EQ(hashes[0], kAbc);
  EXPECT_FALSE(hashes[1].has_value());
  EXPECT_EQ(hashes[2], kEmpty);
  EXPECT_EQ(hashes[3], kAbc);
  // Older sha256sum writes a carriage return as it is.
  EXPECT_EQ(in::parseRemoteHashes("sha256sum\n" + std::string(kAbc) + "  /c\rr\n", std::vector<std::string>{"/c\rr"})
                .hashes[0],
            kAbc);
  // The same path twice is answered twice.
  std::string const twice = "sha256sum\n" + std::string(kAbc) + "  /a\n" + kEmpty + "  /a\n";
  auto const both = in::parseRemoteHashes(twice, std::vector<std::string>{"/a", "/a"}).hashes;
  EXPECT_EQ(both[0], kAbc);
  EXPECT_EQ(both[1], kEmpty);
}

TEST(ParseRemoteHashes, B2sumLines) {
  auto const answer = in::parseRemoteHashes("b2sum\n" + std::string(kAbcB2) + "  /a\n", std::vector<std::string>{"/a"});
  EXPECT_EQ(answer.kind, in::HashKind::Blake2b512);
  ASSERT_EQ(answer.hashes.size(), 1U);
  EXPECT_EQ(answer.hashes[0], kAbcB2);
}

TEST(ParseRemoteHashes, RefusesAnythingElse) {
  std::vector<std::string> const one = {"/a"};
  std::string const good = std::string(kAbc) + "  /a\n";
  EXPECT_THROW(in::parseRemoteHashes("sha256sum\n" + good + good, one), std::runtime_error);
  EXPECT_THROW(in::parseRemoteHashes("sha256sum\n" + std::string(kAbc) + "  /a", one), std::runtime_error);
  EXPECT_THROW(in::parseRemoteHashes("sha256sum\n" + std::string(kAbc) + "  /b\n", one), std::runtime_error);
  EXPECT_THROW(in::parseRemoteHashes("sha256sum\n" + std::string(63, 'a') + "   /a\n", one), std::runtime_error);
  EXPECT_THROW(in::parseRemoteHashes("sha256sum\nnoise\n", one), std::runtime_error);
  EXPECT_THROW(in::parseRemoteHashes(good, one), std::runtime_error);               // no tool named
  EXPECT_THROW(in::parseRemoteHashes("b2sum\n" + good, one), std::runtime_error);   // not b2sum's length
  EXPECT_THROW(in::parseRemoteHashes("md5sum\n" + good, one), std::runtime_error);  // not a tool of ours
}

TEST(RemotePrefixHash, CommandAndAnswers) {
  EXPECT_EQ(in::remotePrefixHashCommand("-x y", 1048576),
            "h=sha256sum; b2sum </dev/null >/dev/null 2>&1 && h=b2sum; echo $h; "
            "test -f '-x y' && { head -c 1048576 | $h; } 2>/dev/null <'-x y' || echo -");
  auto const sha = in::parseRemotePrefixHash("sha256sum\n" + std::string(kAbc) + "  -\n");
  EXPECT_EQ(sha.kind, in::HashKind::Sha256);
  EXPECT_EQ(sha.hash, kAbc);
  auto const b2 = in::parseRemotePrefixHash("b2sum\n" + std::string(kAbcB2) + "  -\n");
  EXPECT_EQ(b2.kind, in::HashKind::Blake2b512);
  EXPECT_EQ(b2.hash, kAbcB2);
  auto const none = in::parseRemotePrefixHash("b2sum\n-\n");
  EXPECT_EQ(none.kind, in::HashKind::Blake2b512);
  EXPECT_FALSE(none.hash.has_value());
  EXPECT_THROW((void)in::parseRemotePrefixHash(""), std::runtime_error);
  EXPECT_THROW((void)in::parseRemotePrefixHash("-\n"), std::runtime_error);  // no tool named
  EXPECT_THROW((void)in::parseRemotePrefixHash("sha256sum\n" + std::string(kAbc) + "  -\n-\n"), std::runtime_error);
  EXPECT_THROW((void)in::parseRemotePrefixHash("b2sum\n" + std::string(kAbc) + "  -\n"), std::runtime_error);
}

}  // namespace
