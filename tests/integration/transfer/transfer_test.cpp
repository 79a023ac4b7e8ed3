// SSHClient::copyFiles against the real sshd, both ways: contents byte for
// byte, many files, odd names, replacing, modes, and failures that must leave
// old destinations intact and never hang.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/SshTestHelpers.hpp"
#include "tests/unit/sftp/TransferFiles.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using ssh::TransferDirection;

constexpr std::size_t kServerMaxLength = 261120;  // OpenSSH's largest READ/WRITE

struct Pair {
  fs::path source;
  fs::path destination;
};

bool isTemporary(std::string const& name) { return name.find(".sshfa-") != std::string::npos; }

std::string quotedPath(fs::path const& path) { return "'" + path.string() + "'"; }

ssh::CopyFilesCommand commandFor(TransferDirection direction, std::vector<Pair> const& pairs) {
  std::vector<ssh::FileLocations> items;
  for (auto const& p : pairs) {
    auto const source = u(p.source.string());
    auto const destination = u(p.destination.string());
    items.push_back(direction == TransferDirection::LocalToRemote ? ssh::FileLocations{source, destination}
                                                                  : ssh::FileLocations{destination, source});
  }
  return ssh::CopyFilesCommand(std::move(items), direction, ssh::TransferProtocol::SFTP, 0744);
}

class Transfer : public ::testing::TestWithParam<TransferDirection> {
 protected:
  static void SetUpTestSuite() { client_ = TestSshd::instance().connect(); }
  static void TearDownTestSuite() { client_.reset(); }

  void SetUp() override {
    fs::create_directory(src());
    fs::create_directory(dst());
  }

  [[nodiscard]] bool upload() const { return GetParam() == TransferDirection::LocalToRemote; }
  [[nodiscard]] fs::path src() const { return scratch_ / "src"; }
  [[nodiscard]] fs::path dst() const { return scratch_ / "dst"; }

  void copy(std::vector<Pair> const& pairs, ssh::SSHClient& client = *client_) {
    client.copyFiles(commandFor(GetParam(), pairs));
  }

  Pair source(std::string const& name, std::string const& contents) {
    writeFile(src() / name, contents);
    return {src() / name, dst() / name};
  }

  [[nodiscard]] std::string prefix(Pair const& p, TestSshd const& server = TestSshd::instance()) const {
    auto const peer = server.user() + "@" + server.host() + ":" + std::to_string(server.port());
    if (upload()) {
      return "cannot upload " + quotedPath(p.source) + " to " + quotedPath(p.destination) + " on " + peer + ": ";
    }
    return "cannot download " + quotedPath(p.source) + " from " + peer + " to " + quotedPath(p.destination) + ": ";
  }

  static std::unique_ptr<ssh::SSHClient> client_;
  ScratchDir scratch_;
};

std::unique_ptr<ssh::SSHClient> Transfer::client_;

std::string directionName(::testing::TestParamInfo<TransferDirection> const& direction) {
  return direction.param == TransferDirection::LocalToRemote ? "Upload" : "Download";
}

INSTANTIATE_TEST_SUITE_P(BothWays, Transfer,
                         ::testing::Values(TransferDirection::LocalToRemote, TransferDirection::RemoteToLocal),
                         directionName);

TEST_P(Transfer, ContentsAtEverySizeBoundary) {
  std::vector<std::size_t> const sizes{0, 1, 32767, 32768, 32769, kServerMaxLength, kServerMaxLength + 1, 10 * 1048576};
  std::vector<Pair> pairs;
  std::vector<std::string> contents;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    contents.push_back(randomBytes(sizes[i], 100 + i));
    pairs.push_back(source("f" + std::to_string(sizes[i]), contents.back()));
  }
  copy(pairs);
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    EXPECT_TRUE(readFile(pairs[i].destination) == contents[i]) << pairs[i].destination;
  }
  EXPECT_EQ(listNames(dst()).size(), sizes.size());
}

TEST_P(Transfer, OneGibibyte) {
  if (std::getenv("SSHFA_LONG_TESTS") == nullptr) GTEST_SKIP() << "set SSHFA_LONG_TESTS=1 to run";
  auto const contents = randomBytes(std::size_t{1} << 30, 7);
  auto const pair = source("big", contents);
  copy({pair});
  EXPECT_TRUE(readFile(pair.destination) == contents);
}

TEST_P(Transfer, FiveThousandSmallFilesInOneCommand) {
  std::vector<Pair> pairs;
  std::vector<std::string> contents;
  for (int i = 0; i < 5000; ++i) {
    contents.push_back(randomBytes(static_cast<std::size_t>(i * 131 % 4096), static_cast<std::uint64_t>(i)));
    pairs.push_back(source("small" + std::to_string(i), contents.back()));
  }
  copy(pairs);
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    ASSERT_TRUE(readFile(pairs[i].destination) == contents[i]) << pairs[i].destination;
  }
  EXPECT_EQ(listNames(dst()).size(), pairs.size());
}

TEST_P(Transfer, NamesWithBlanksQuotesNewlinesAndInvalidUtf8) {
  std::vector<std::string> const names{"with blank", "it's",     "two\nlines", std::string("bad\xff\xfeutf8"),
                                       "Grüße €",    "$(echo x)"};
  std::vector<Pair> pairs;
  for (auto const& name : names) pairs.push_back(source(name, "contents of " + name));
  copy(pairs);
  for (auto const& name : names) EXPECT_EQ(readFile(dst() / name), "contents of " + name);
  EXPECT_EQ(listNames(dst()).size(), names.size());
}

TEST_P(Transfer, ReplacesAnExistingDestination) {
  auto const pair = source("f", "new");
  writeFile(pair.destination, "old and longer");
  copy({pair});
  EXPECT_EQ(readFile(pair.destination), "new");
  EXPECT_EQ(listNames(dst()), std::vector<std::string>{"f"});
}

TEST_P(Transfer, LeavesFilesNamedLikeItsTemporariesAlone) {
  auto const pair = source("f", "new");
  writeFile(dst() / ".f.sshfa-00000000", "not mine");
  copy({pair});
  EXPECT_EQ(readFile(pair.destination), "new");
  EXPECT_EQ(readFile(dst() / ".f.sshfa-00000000"), "not mine");
  EXPECT_EQ(listNames(dst()).size(), 2U);
}

TEST_P(Transfer, CreatedFilesGetMode0744LessTheUmask) {
  auto const pair = source("f", "x");
  auto const umaskNow = ::umask(022);
  ::umask(umaskNow);
  copy({pair});
  // The server's umask is the one it inherited from this process.
  EXPECT_EQ(permissionsOf(pair.destination), 0744U & ~umaskNow);
}

TEST_P(Transfer, MissingSourceAmongGoodOnes) {
  std::vector<Pair> const pairs{
      source("a", "A"), source("b", "B"), {src() / "missing", dst() / "missing"}, source("c", "C")};
  auto const error = catchSSHError([&] { copy(pairs); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), ssh::SSHError::Kind::Transfer);
  EXPECT_EQ(std::string(error->what()), prefix(pairs[2]) + "cannot open " + quotedPath(pairs[2].source) + ": " +
                                            (upload() ? "No such file or directory" : "No such file"));
  EXPECT_EQ(readFile(dst() / "a"), "A");
  EXPECT_EQ(readFile(dst() / "b"), "B");
  for (auto const& name : listNames(dst())) EXPECT_FALSE(isTemporary(name)) << name;
  // The session is still good.
  copy({pairs[3]});
  EXPECT_EQ(readFile(dst() / "c"), "C");
}

TEST_P(Transfer, DestinationFolderMissing) {
  writeFile(src() / "f", "x");
  Pair const pair{src() / "f", dst() / "nope" / "f"};
  auto const error = catchSSHError([&] { copy({pair}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), ssh::SSHError::Kind::Transfer);
  EXPECT_EQ(std::string(error->what()),
            prefix(pair) + "destination folder " + quotedPath(dst() / "nope") + " does not exist");
}

TEST_P(Transfer, SourceIsAFolder) {
  fs::create_directory(src() / "dir");
  Pair const pair{src() / "dir", dst() / "dir"};
  auto const error = catchSSHError([&] { copy({pair}); });
  ASSERT_TRUE(error);
  EXPECT_EQ(std::string(error->what()), prefix(pair) + quotedPath(pair.source) + " is a folder");
}

TEST_P(Transfer, ProgressReachesTheTotal) {
  auto options = TestSshd::instance().options();
  std::vector<ssh::TransferProgress> reports;
  options.progress = [&](ssh::TransferProgress const& p) { reports.push_back(p); };
  auto const client = TestSshd::instance().connect(options);
  auto const pair = source("f", randomBytes(5 * 1048576, 1));
  copy({pair, source("g", "12345")}, *client);
  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(reports.back().bytesDone, 5U * 1048576U + 5U);
  EXPECT_EQ(reports.back().bytesTotal, 5U * 1048576U + 5U);
  EXPECT_EQ(reports.back().filesDone, 2U);
  EXPECT_EQ(reports.back().filesTotal, 2U);
}

// A long transfer (a sparse source of 2 GiB) whose server the first progress
// report disturbs, so the fault always strikes mid-transfer.
class DisturbedTransfer : public Transfer {
 protected:
  template <class Disturb>
  std::optional<ssh::SSHError> copyDisturbed(TestSshd& server, ssh::SSHClientOptions options, Pair const& pair,
                                             Disturb disturb) {
    bool disturbed = false;
    options.progress = [&](ssh::TransferProgress const&) {
      if (!std::exchange(disturbed, true)) disturb();
    };
    auto const client = server.connect(options);
    return catchSSHError([&] { copy({pair}, *client); });
  }

  Pair sparseSource() {
    auto const pair = source("big", "head");
    fs::resize_file(pair.source, std::uint64_t{2} << 30U);
    writeFile(pair.destination, "old");
    return pair;
  }
};

INSTANTIATE_TEST_SUITE_P(BothWays, DisturbedTransfer,
                         ::testing::Values(TransferDirection::LocalToRemote, TransferDirection::RemoteToLocal),
                         directionName);

TEST_P(DisturbedTransfer, AKilledServerFailsTheCallAndKeepsTheOldDestination) {
  TestSshd server;
  auto const pair = sparseSource();
  auto const error = copyDisturbed(server, server.options(), pair, [&] { server.killConnections(); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), ssh::SSHError::Kind::ConnectionLost) << error->what();
  EXPECT_TRUE(std::string(error->what()).starts_with(prefix(pair, server))) << error->what();
  EXPECT_EQ(readFile(pair.destination), "old");
  if (!upload()) {
    EXPECT_EQ(listNames(dst()), std::vector<std::string>{"big"});
  }
}

TEST_P(DisturbedTransfer, ASilentServerFailsWithinTheKeepAliveDeadline) {
  TestSshd server;
  auto options = server.options();
  options.keepaliveInterval = std::chrono::seconds(1);
  auto const pair = sparseSource();
  std::chrono::steady_clock::time_point silentSince;
  auto const error = copyDisturbed(server, options, pair, [&] {
    server.stopConnections();
    silentSince = std::chrono::steady_clock::now();
  });
  auto const seconds = secondsSince(silentSince);
  server.continueConnections();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), ssh::SSHError::Kind::ConnectionLost) << error->what();
  // Three unanswered intervals of 1 s, plus the one in which it fell silent.
  EXPECT_LE(seconds, 5.5);
  EXPECT_EQ(readFile(pair.destination), "old");
  if (!upload()) {
    EXPECT_EQ(listNames(dst()), std::vector<std::string>{"big"});
  }
}

}  // namespace
}  // namespace sshfa::testing
