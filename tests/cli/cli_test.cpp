// The sshfa binary against the test sshd: every command, plain and JSON
// output, exit statuses, names that a terminal would act on, --local, the
// terminal prompts and the demo.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/cli/CliFiles.hpp"
#include "tests/cli/ToolConnection.hpp"
#include "tests/cli/ToolProcess.hpp"
#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kConnection = 3;

std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

std::set<std::string> filesBelow(fs::path const& root) {
  std::set<std::string> files;
  for (auto const& entry : fs::recursive_directory_iterator(root)) {
    if (entry.is_regular_file()) files.insert(fs::relative(entry.path(), root).string() + "=" + readFile(entry));
  }
  return files;
}

bool processAlive(pid_t pid) { return ::kill(pid, 0) == 0 || errno != ESRCH; }

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = TestSshd::makeTempDir(); }

  static TestSshd& server() { return TestSshd::instance(); }

  // Connection options for the test server, without ~/.ssh/config.
  static std::vector<std::string> connection() { return connectionArgs(server()); }

  static ToolResult remote(std::vector<std::string> const& args, ToolOptions const& options = {}) {
    std::vector<std::string> all = connection();
    all.insert(all.end(), args.begin(), args.end());
    return runTool(all, options);
  }

  static ToolResult local(std::vector<std::string> args) {
    args.insert(args.begin(), "--local");
    return runTool(args);
  }

  [[nodiscard]] std::string at(std::string const& name) const { return (dir_ / name).string(); }

  static json parsed(ToolResult const& result) {
    EXPECT_EQ(result.status, 0) << result.err;
    return json::parse(result.out);
  }

  fs::path dir_;
};

// ---- help and usage --------------------------------------------------------------

TEST_F(CliTest, HelpForTheToolAndEveryCommand) {
  auto const top = runTool({"--help"});
  EXPECT_EQ(top.status, 0);
  EXPECT_THAT(top.out, HasSubstr("Usage: sshfa [OPTIONS] SUBCOMMAND"));
  EXPECT_THAT(top.out, HasSubstr("Exit status: 0 success; 1 an operation failed, or exists, isfile or isdir\n"
                                 "answered false; 2 usage error; 3 connection, host key or authentication\n"
                                 "failure; 130, 143 interrupted (SIGINT, SIGTERM);"));
  for (std::string const command :
       {"exists", "isfile", "isdir", "parent", "ls",    "stat", "touch", "rm",   "mkdir", "cp",
        "mv",     "tar",    "untar", "zip",    "unzip", "put",  "get",   "sync", "exec",  "demo"}) {
    auto const help = runTool({command, "--help"});
    EXPECT_EQ(help.status, 0) << command << ": " << help.err;
    EXPECT_THAT(help.out, HasSubstr("Usage: sshfa " + command)) << command;
  }
  EXPECT_THAT(runTool({"ls", "--help"}).out, HasSubstr("-R,--recursive"));
  auto const version = runTool({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.out, ::testing::MatchesRegex("sshfa [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(CliTest, UsageErrorsExitWithTwo) {
  std::vector<std::vector<std::string>> const cases{
      {},                                             // no command
      {"frobnicate"},                                 // unknown command
      {"--no-such-option", "ls", "/"},                // unknown option
      {"--local", "ls"},                              // no path
      {"--local", "cp", "a", "b", "c"},               // pairs incomplete
      {"--local", "tar", "only-one"},                 // two operands
      {"ls", "/tmp"},                                 // no host and no --local
      {"--local", "put", "a", "b"},                   // crosses sides
      {"--local", "exec", "true"},                    // crosses sides
      {"-H", "127.0.0.1", "exec"},                    // no command
      {"-H", "127.0.0.1", "-p", "70000", "ls", "/"},  // port out of range
  };
  for (auto const& args : cases) {
    auto const result = runTool(args);
    std::string shown;
    for (auto const& arg : args) shown += arg + " ";
    EXPECT_EQ(result.status, kUsage) << shown << "\n" << result.err;
    EXPECT_THAT(result.err, StartsWith("sshfa: ")) << shown;
    EXPECT_EQ(result.out, "") << shown;
  }
}

TEST_F(CliTest, UsageErrorNamesWhatIsWrong) {
  EXPECT_EQ(runTool({"--local", "cp", "a", "b", "c"}).err,
            "sshfa: cp takes pairs: SOURCE DESTINATION [SOURCE DESTINATION ...]\n");
  EXPECT_EQ(runTool({"ls", "/tmp"}).err, "sshfa: -H/--host is required (or --local for the local machine)\n");
  EXPECT_EQ(runTool({"--local", "put", "a", "b"}).err, "sshfa: put works on the remote host; --local does not apply\n");
}

// ---- connection failures -------------------------------------------------------------

TEST_F(CliTest, RefusedConnectionExitsWithThree) {
  int const port = closedPort();
  auto const result =
      runTool({"-H", "127.0.0.1", "-p", std::to_string(port), "-u", server().user(), "-i", server().identityFile(),
               "--known-hosts", server().knownHostsFile(), "-F", "/dev/null", "--batch", "exists", "/"});
  EXPECT_EQ(result.status, kConnection) << result.err;
  EXPECT_THAT(result.err, StartsWith("sshfa: "));
  EXPECT_THAT(result.err, HasSubstr("127.0.0.1:" + std::to_string(port)));
  EXPECT_THAT(result.err, HasSubstr("Connection refused"));
}

TEST_F(CliTest, UnknownHostKeyExitsWithThreeAndAcceptNewAddsIt) {
  std::string const knownHosts = at("known_hosts");
  writeFile(knownHosts, "");
  std::vector<std::string> args{"-H",
                                server().host(),
                                "-p",
                                std::to_string(server().port()),
                                "-u",
                                server().user(),
                                "-i",
                                server().identityFile(),
                                "--known-hosts",
                                knownHosts,
                                "-F",
                                "/dev/null",
                                "--batch",
                                "exists",
                                "/"};
  auto const refused = runTool(args);
  EXPECT_EQ(refused.status, kConnection) << refused.err;
  EXPECT_THAT(refused.err, HasSubstr("unknown"));
  EXPECT_THAT(refused.err, HasSubstr("--accept-new"));
  EXPECT_EQ(readFile(knownHosts), "");

  args.insert(args.begin(), "--accept-new");
  auto const accepted = runTool(args);
  EXPECT_EQ(accepted.status, 0) << accepted.err;
  EXPECT_EQ(accepted.out, "true\n");
  EXPECT_THAT(readFile(knownHosts), HasSubstr(server().hostPublicKey()));
}

TEST_F(CliTest, ChangedHostKeyExitsWithThreeEvenWithAcceptNew) {
  std::string const otherKey = at("other_host_key");
  TestSshd::shell("ssh-keygen -q -t ed25519 -N '' -f '" + otherKey + "'");
  std::istringstream publicKey(readFile(otherKey + ".pub"));
  std::string type;
  std::string blob;
  publicKey >> type >> blob;
  std::string const knownHosts = at("known_hosts");
  writeFile(knownHosts, "[127.0.0.1]:" + std::to_string(server().port()) + " " + type + " " + blob + "\n");
  auto const result = runTool({"--accept-new", "-H", server().host(), "-p", std::to_string(server().port()), "-u",
                               server().user(), "-i", server().identityFile(), "--known-hosts", knownHosts, "-F",
                               "/dev/null", "--batch", "exists", "/"});
  EXPECT_EQ(result.status, kConnection) << result.err;
  EXPECT_THAT(result.err, StartsWith("sshfa: "));
}

TEST_F(CliTest, RefusedKeyExitsWithThree) {
  std::string const otherKey = at("stranger_key");
  TestSshd::shell("ssh-keygen -q -t ed25519 -N '' -f '" + otherKey + "'");
  auto const result =
      runTool({"-H", server().host(), "-p", std::to_string(server().port()), "-u", server().user(), "-i", otherKey,
               "--known-hosts", server().knownHostsFile(), "-F", "/dev/null", "--batch", "exists", "/"});
  EXPECT_EQ(result.status, kConnection) << result.err;
  EXPECT_THAT(result.err, HasSubstr("authentication failed"));
}

// ---- queries -------------------------------------------------------------------------

TEST_F(CliTest, ExistsIsFileIsDirAnswerPerPathInOrder) {
  writeFile(at("f.txt"), "x");
  fs::create_directory(at("d"));
  std::vector<std::string> const paths{at("f.txt"), at("d"), at("missing")};

  std::vector<std::string> args{"exists"};
  args.insert(args.end(), paths.begin(), paths.end());
  // As test(1): the status is 1 when any answer is false.
  auto const plain = remote(args);
  EXPECT_EQ(plain.status, kFailed) << plain.err;
  EXPECT_EQ(plain.out, "true\t" + paths[0] + "\ntrue\t" + paths[1] + "\nfalse\t" + paths[2] + "\n");
  EXPECT_EQ(plain.err, "");

  auto const folder = remote({"isdir", at("d")});
  EXPECT_EQ(folder.out, "true\n");
  EXPECT_EQ(folder.status, 0);
  auto const notAFile = remote({"isfile", at("d")});
  EXPECT_EQ(notAFile.out, "false\n");
  EXPECT_EQ(notAFile.status, kFailed);
  auto const both = remote({"exists", at("f.txt"), at("d")});
  EXPECT_EQ(both.status, 0);
  EXPECT_EQ(remote({"isfile", at("f.txt"), at("d")}).status, kFailed);
  EXPECT_EQ(remote({"isdir", at("missing")}).status, kFailed);

  for (auto const& [command, key, expected] :
       std::vector<std::tuple<std::string, std::string, std::vector<bool>>>{{"exists", "exists", {true, true, false}},
                                                                            {"isfile", "isFile", {true, false, false}},
                                                                            {"isdir", "isDir", {false, true, false}}}) {
    std::vector<std::string> jsonArgs{"--json", command};
    jsonArgs.insert(jsonArgs.end(), paths.begin(), paths.end());
    auto const result = remote(jsonArgs);
    EXPECT_EQ(result.status, kFailed) << command;
    json const answer = json::parse(result.out);
    ASSERT_EQ(answer.size(), 3U) << command;
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(answer[i]["path"], paths[i]) << command;
      EXPECT_EQ(answer[i][key], expected[i]) << command << " " << paths[i];
    }
  }
}

TEST_F(CliTest, ParentOfEachPath) {
  auto const plain = remote({"parent", "/srv/data/a.txt", "/srv/data/"});
  EXPECT_EQ(plain.status, 0) << plain.err;
  EXPECT_EQ(plain.out, "/srv/data\n/srv\n");
  EXPECT_EQ(parsed(remote({"--json", "parent", "/srv/data/a.txt"})),
            json::parse(R"([{"path": "/srv/data/a.txt", "parent": "/srv/data"}])"));
}

TEST_F(CliTest, ListFlatAndRecursive) {
  writeFile(at("tree/a.txt"), "a");
  writeFile(at("tree/b c.txt"), "b");
  writeFile(at("tree/sub/d.txt"), "d");
  writeFile(at("tree/.hidden"), "h");

  auto const flat = remote({"ls", at("tree")});
  EXPECT_EQ(flat.status, 0) << flat.err;
  EXPECT_EQ(lines(flat.out),
            (std::vector<std::string>{at("tree") + "/a.txt", at("tree") + "/b c.txt", at("tree") + "/sub"}));

  json const recursive = parsed(remote({"--json", "ls", "-R", at("tree")}));
  EXPECT_EQ(recursive["missing"], json::array());
  EXPECT_EQ(recursive["warnings"], json::array());
  std::set<std::string> const found(recursive["entries"].begin(), recursive["entries"].end());
  EXPECT_EQ(found,
            (std::set<std::string>{at("tree/a.txt"), at("tree/b c.txt"), at("tree/sub/d.txt"), at("tree/.hidden")}));

  // Two folders in one call: the first one's entries come first.
  writeFile(at("other/z.txt"), "z");
  EXPECT_EQ(lines(remote({"ls", at("other"), at("tree/sub")}).out),
            (std::vector<std::string>{at("other") + "/z.txt", at("tree/sub") + "/d.txt"}));
}

TEST_F(CliTest, StatGivesSizeAndTimeAndReportsMissingPaths) {
  writeFile(at("f.txt"), "hello");
  setTime(at("f.txt"), 1614834367);  // 2021-03-04T05:06:07Z
  writeFile(at("empty"), "");
  setTime(at("empty"), 0);

  auto const plain = remote({"stat", at("f.txt"), at("missing"), at("empty")});
  EXPECT_EQ(plain.status, kFailed);
  EXPECT_EQ(plain.out, "5\t2021-03-04T05:06:07Z\t" + at("f.txt") + "\n0\t1970-01-01T00:00:00Z\t" + at("empty") + "\n");
  EXPECT_EQ(plain.err, "sshfa: cannot stat '" + at("missing") + "': No such file or directory\n");

  auto const result = remote({"--json", "stat", at("f.txt"), at("missing")});
  EXPECT_EQ(result.status, kFailed);
  json const answer = json::parse(result.out);
  EXPECT_EQ(answer, json::parse(R"([{"path": ")" + at("f.txt") +
                                R"(", "exists": true, "size": 5, "mtime": "2021-03-04T05:06:07Z",
                                   "mtimeEpoch": 1614834367},
                                  {"path": ")" +
                                at("missing") + R"(", "exists": false}])"));

  EXPECT_EQ(remote({"stat", at("f.txt")}).status, 0);
}

// ---- mutations -------------------------------------------------------------------------

TEST_F(CliTest, TouchMkdirCopyMoveRemove) {
  auto const made = remote({"mkdir", at("a/b/c"), at("x")});
  EXPECT_EQ(made.status, 0) << made.err;
  EXPECT_EQ(made.out, "");
  EXPECT_TRUE(fs::is_directory(at("a/b/c")));
  EXPECT_TRUE(fs::is_directory(at("x")));
  EXPECT_EQ(remote({"mkdir", "-p", at("a/b/c")}).status, 0);

  writeFile(at("old.txt"), "old contents");
  setTime(at("old.txt"), 1000);
  EXPECT_EQ(remote({"touch", at("old.txt"), at("new it's.txt")}).status, 0);
  EXPECT_EQ(readFile(at("old.txt")), "old contents");
  struct stat touched {};
  ASSERT_EQ(::stat(at("old.txt").c_str(), &touched), 0);
  EXPECT_GT(touched.st_mtime, std::time(nullptr) - 3600);
  EXPECT_TRUE(fs::is_regular_file(at("new it's.txt")));

  EXPECT_EQ(remote({"cp", at("old.txt"), at("copy1.txt"), at("a"), at("a-copy")}).status, 0);
  EXPECT_EQ(readFile(at("copy1.txt")), "old contents");
  EXPECT_TRUE(fs::is_directory(at("a-copy/b/c")));

  EXPECT_EQ(remote({"mv", at("copy1.txt"), at("moved.txt")}).status, 0);
  EXPECT_FALSE(fs::exists(at("copy1.txt")));
  EXPECT_EQ(readFile(at("moved.txt")), "old contents");

  EXPECT_EQ(remote({"rm", at("a"), at("moved.txt")}).status, 0);
  EXPECT_FALSE(fs::exists(at("a")));
  EXPECT_FALSE(fs::exists(at("moved.txt")));
}

TEST_F(CliTest, FailedOperationExitsWithOneAndNamesPathAndCause) {
  auto const result = remote({"cp", at("missing.txt"), at("to.txt")});
  EXPECT_EQ(result.status, kFailed);
  EXPECT_THAT(result.err, StartsWith("sshfa: cp: "));
  EXPECT_THAT(result.err, HasSubstr(at("missing.txt")));
  EXPECT_THAT(result.err, HasSubstr("No such file or directory"));
}

TEST_F(CliTest, TarAndZipRoundTrips) {
  writeFile(at("src/one.txt"), "1");
  writeFile(at("src/deep/two.txt"), "22");

  EXPECT_EQ(remote({"tar", at("src"), at("src.tar")}).status, 0);
  fs::create_directory(at("untarred"));
  EXPECT_EQ(remote({"untar", at("src.tar"), at("untarred")}).status, 0);
  EXPECT_EQ(filesBelow(at("untarred/src")), filesBelow(at("src")));

  auto const zipped = remote({"zip", at("src"), at("src.zip")});
  EXPECT_EQ(zipped.status, 0) << zipped.err;
  EXPECT_EQ(remote({"unzip", at("src.zip"), at("unzipped")}).status, 0);
  EXPECT_EQ(filesBelow(at("unzipped/src")), filesBelow(at("src")));

  // untar does not create its destination.
  auto const missing = remote({"untar", at("src.tar"), at("nowhere")});
  EXPECT_EQ(missing.status, kFailed);
  EXPECT_THAT(missing.err, StartsWith("sshfa: untar: "));
  EXPECT_THAT(missing.err, HasSubstr(at("nowhere")));
}

// ---- transfers -------------------------------------------------------------------------

TEST_F(CliTest, PutAndGetCopyTreesAndReportTotals) {
  writeFile(at("local/tree/a.txt"), "alpha");
  writeFile(at("local/tree/sub dir/b's.txt"), "beta!");
  writeFile(at("local/single.bin"), std::string(3000, 'z'));

  json const totals = parsed(remote({"--json", "put", at("local/tree"), at("remote/tree")}));
  EXPECT_EQ(totals["copied"], 2);
  EXPECT_EQ(totals["bytes"], 10);
  EXPECT_GE(totals["seconds"].get<double>(), 0.0);
  EXPECT_EQ(parsed(remote({"--json", "put", at("local/single.bin"), at("remote/one.bin")}))["bytes"], 3000);
  EXPECT_EQ(filesBelow(at("remote/tree")), filesBelow(at("local/tree")));
  EXPECT_EQ(readFile(at("remote/one.bin")), std::string(3000, 'z'));

  auto const get = remote({"get", at("remote/tree"), at("back/tree")});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_EQ(get.out, "");
  EXPECT_THAT(get.err, ::testing::MatchesRegex(R"(get: copied 2 files, 10 B in [0-9.]+ s \(.*/s\)
)"));
  EXPECT_EQ(filesBelow(at("back/tree")), filesBelow(at("local/tree")));
}

TEST_F(CliTest, PutOfAMissingSourceFailsBeforeCopying) {
  writeFile(at("there.txt"), "t");
  auto const result = remote({"put", at("there.txt"), at("absent"), at("r/")});
  EXPECT_EQ(result.status, kFailed);
  EXPECT_THAT(result.err, StartsWith("sshfa: cannot upload '" + at("absent") + "' to '" + at("r/absent") + "' on "));
  EXPECT_THAT(result.err, HasSubstr(": cannot read '" + at("absent") + "': No such file or directory\n"));
  EXPECT_FALSE(fs::exists(at("r")));

  auto const get = remote({"get", at("absent"), at("l/absent")});
  EXPECT_EQ(get.status, kFailed);
  EXPECT_THAT(get.err, StartsWith("sshfa: cannot download '" + at("absent") + "' from "));
  EXPECT_THAT(get.err, HasSubstr(": cannot read '" + at("absent") + "': No such file\n"));
  EXPECT_FALSE(fs::exists(at("l")));
}

TEST_F(CliTest, PutAndGetTakeSourcesAndADestination) {
  EXPECT_EQ(remote({"put", "a"}).status, kUsage);
  EXPECT_EQ(remote({"get", "a"}).status, kUsage);
}

// Each stop signal ends the transfer at once; what arrived stays in the one
// resumable temporary, which the next run continues and leaves nothing of.
TEST_F(CliTest, EachStopSignalEndsAGetAndLeavesOnlyWhatTheNextRunResumes) {
  fs::create_directories(at("back"));
  writeFile(at("big"), "");
  fs::resize_file(at("big"), 1ULL << 30U);  // sparse: quick to read, long to send
  setTime(at("big"), 1'500'000'000);
  std::string const resumable = ".big.sshfa-partial-1073741824-1500000000";
  for (int const signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
    std::vector<std::string> args = connection();
    args.insert(args.end(), {"get", at("big"), at("back/big")});
    std::error_code error;
    auto const before = fs::exists(at("back/" + resumable)) ? fs::file_size(at("back/" + resumable)) : 0;
    ToolProcess tool(args, {});
    // Signal once the temporary grew, so the transfer itself is stopped.
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while ((!fs::exists(at("back/" + resumable)) || fs::file_size(at("back/" + resumable), error) <= before) &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_GT(fs::file_size(at("back/" + resumable), error), before) << "the transfer never started";
    tool.signal(signalNumber);
    auto const result = tool.finish();
    EXPECT_EQ(result.status, 128 + signalNumber) << result.err;
    EXPECT_THAT(result.err, ::testing::HasSubstr("sshfa: interrupted\n"));
    EXPECT_EQ(listNames(at("back")), std::vector<std::string>{resumable});
  }
  auto const kept = fs::file_size(at("back/" + resumable));
  json const finished = parsed(remote({"--json", "get", at("big"), at("back/big")}));
  EXPECT_EQ(finished["resumed"], 1);
  EXPECT_EQ(finished["bytes"], (1ULL << 30U) - kept);
  EXPECT_EQ(listNames(at("back")), std::vector<std::string>{"big"});
  EXPECT_EQ(fs::file_size(at("back/big")), 1ULL << 30U);
}

// ---- exec --------------------------------------------------------------------------------

TEST_F(CliTest, ExecPassesOutputAndStatusThrough) {
  auto const result = remote({"exec", "printf", "'out %s'", "-n", ";", "echo", "err", ">&2", ";", "exit", "7"});
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(result.out, "out -n");
  EXPECT_EQ(result.err, "err\n");

  auto const dashDash = remote({"exec", "--", "echo", "-n", "x"});
  EXPECT_EQ(dashDash.status, 0);
  EXPECT_EQ(dashDash.out, "x");

  EXPECT_EQ(parsed(remote({"--json", "exec", "echo out; echo err >&2"})),
            json::parse(R"({"exitCode": 0, "stdout": "out\n", "stderr": "err\n"})"));
  EXPECT_EQ(remote({"--json", "exec", "exit 3"}).status, 3);
}

TEST_F(CliTest, ExecForwardsStandardInputUntilItsEnd) {
  ToolOptions options;
  options.input = "hello\n";
  auto const echoed = remote({"exec", "cat"}, options);
  EXPECT_EQ(echoed.status, 0);
  EXPECT_EQ(echoed.out, "hello\n");
  EXPECT_EQ(echoed.err, "");

  // -n: not read at all; the command reads end-of-file.
  auto const unread = remote({"exec", "-n", "cat; echo done"}, options);
  EXPECT_EQ(unread.status, 0);
  EXPECT_EQ(unread.out, "done\n");
}

TEST_F(CliTest, ExecWithStandardInputClosedReadsEndOfFile) {
  std::vector<std::string> args = {"-c", "exec \"$@\" <&-", "sh", toolPath()};
  for (auto const& word : connection()) args.push_back(word);
  args.insert(args.end(), {"exec", "cat; echo done"});
  ToolOptions options;
  options.program = "/bin/sh";
  auto const result = runTool(args, options);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "done\n");
}

TEST_F(CliTest, ExecShowsOutputAsItArrives) {
  // The command ends only after this test has seen its first line: the
  // sshd runs on this machine, so it sees the flag file the test creates.
  std::string const flag = at("go");
  std::vector<std::string> args = connection();
  args.insert(args.end(), {"exec", "echo a; while [ ! -e '" + flag + "' ]; do sleep 0.05; done; echo b"});
  ToolProcess process(args, {});
  ASSERT_TRUE(process.waitForOutput("a\n", std::chrono::seconds(60)));
  EXPECT_EQ(process.outputSoFar(), "a\n");
  writeFile(flag, "");
  auto const result = process.finish();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "a\nb\n");
}

TEST_F(CliTest, ExecCtrlCStopsTheRemoteCommandWith130) {
  std::vector<std::string> args = connection();
  args.insert(args.end(), {"exec", "echo started; exec sleep 4712"});
  ToolProcess process(args, {});
  ASSERT_TRUE(process.waitForOutput("started\n", std::chrono::seconds(60)));
  process.signal(SIGINT);
  auto const result = process.finish();
  EXPECT_EQ(result.status, 130);
  EXPECT_EQ(result.out, "started\n");
  EXPECT_THAT(result.err, HasSubstr("sshfa: interrupted\n"));
  EXPECT_EQ(remote({"exec", "ps -eo args | grep -c '^sleep 4712$'"}).out, "0\n");
}

// ---- names a terminal would act on -----------------------------------------------------

TEST_F(CliTest, ControlCharactersInNamesAreEscapedOnATerminalOnly) {
  std::string const red = "esc\x1b[31mred";
  std::string const bad = "bad\xff byte";
  writeFile(dir_ / "names" / red, "");
  writeFile(dir_ / "names" / bad, "");
  std::string const folder = at("names");

  ToolOptions onTerminal;
  onTerminal.terminal = true;
  auto const shown = remote({"ls", folder}, onTerminal);
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_EQ(shown.out, folder + "/bad\\xff byte\n" + folder + "/esc\\x1b[31mred\n");
  EXPECT_EQ(shown.out.find('\x1b'), std::string::npos);

  auto const piped = remote({"ls", folder});
  EXPECT_EQ(piped.out, folder + "/" + bad + "\n" + folder + "/" + red + "\n");

  auto const asJson = remote({"--json", "ls", folder});
  EXPECT_EQ(asJson.out, "{\n  \"entries\": [\"" + folder + "/bad\\udcff byte\", \"" + folder +
                            "/esc\\u001b[31mred\"],\n  \"missing\": [],\n  \"warnings\": []\n}\n");

  // Messages on a terminal are escaped as well.
  auto const missing = remote({"stat", folder + "/" + red + "-gone"}, onTerminal);
  EXPECT_EQ(missing.err, "sshfa: cannot stat '" + folder + "/" + red + "-gone': No such file or directory\n");
}

// ---- --local ---------------------------------------------------------------------------

TEST_F(CliTest, LocalModeNeedsNoConnection) {
  writeFile(at("l/a.txt"), "abc");
  setTime(at("l/a.txt"), 1614834367);
  // A host that cannot be reached is never contacted.
  auto const result = runTool({"-H", "host.invalid", "--local", "--json", "stat", at("l/a.txt"), at("l/none")});
  EXPECT_EQ(result.status, kFailed);
  EXPECT_EQ(json::parse(result.out), json::parse(R"([{"path": ")" + at("l/a.txt") +
                                                 R"(", "exists": true, "size": 3, "mtime": "2021-03-04T05:06:07Z",
                                                    "mtimeEpoch": 1614834367},
                                                   {"path": ")" +
                                                 at("l/none") + R"(", "exists": false}])"));

  EXPECT_EQ(local({"exists", at("l/a.txt"), at("l/none")}).out,
            "true\t" + at("l/a.txt") + "\nfalse\t" + at("l/none") + "\n");
  EXPECT_EQ(local({"isdir", at("l")}).out, "true\n");
  EXPECT_EQ(local({"parent", at("l/a.txt")}).out, at("l") + "\n");
  EXPECT_EQ(local({"mkdir", at("l/m/n")}).status, 0);
  EXPECT_TRUE(fs::is_directory(at("l/m/n")));
  EXPECT_EQ(local({"touch", at("l/m/t.txt")}).status, 0);
  EXPECT_EQ(local({"cp", at("l/a.txt"), at("l/m/n/a.txt")}).status, 0);
  EXPECT_EQ(local({"mv", at("l/m/t.txt"), at("l/t.txt")}).status, 0);
  auto const listed = lines(local({"ls", "-R", at("l")}).out);
  EXPECT_EQ(std::set<std::string>(listed.begin(), listed.end()),
            (std::set<std::string>{at("l/a.txt"), at("l/m/n/a.txt"), at("l/t.txt")}));
  EXPECT_EQ(local({"tar", at("l/m"), at("m.tar")}).status, 0);
  EXPECT_EQ(local({"untar", at("m.tar"), at("out")}).status, 0);
  EXPECT_EQ(readFile(at("out/m/n/a.txt")), "abc");
  EXPECT_EQ(local({"zip", at("l/m"), at("m.zip")}).status, 0);
  EXPECT_EQ(local({"unzip", at("m.zip"), at("zout")}).status, 0);
  EXPECT_EQ(readFile(at("zout/m/n/a.txt")), "abc");
  EXPECT_EQ(local({"rm", at("l")}).status, 0);
  EXPECT_FALSE(fs::exists(at("l")));

  auto const failed = local({"untar", at("no.tar"), at("out2")});
  EXPECT_EQ(failed.status, kFailed);
  EXPECT_THAT(failed.err, StartsWith("sshfa: untar: "));
  EXPECT_THAT(failed.err, HasSubstr(at("no.tar")));
}

// ---- tracing -------------------------------------------------------------------------

TEST_F(CliTest, VerboseTracesTheRequestsAndCommandsSent) {
  auto const result = remote({"-v", "isdir", at("it's")});
  EXPECT_EQ(result.status, kFailed);
  EXPECT_EQ(result.out, "false\n");
  EXPECT_THAT(result.err, ::testing::MatchesRegex(
                              "sshfa: trace: negotiated kex [^ ]+, host key [^ ]+, cipher aes128-gcm@openssh.com, MAC "
                              "[^ ]+, compression none\n(.|\n)*"));
  EXPECT_THAT(result.err, HasSubstr("sshfa: trace: SFTP stat: '" + at("it") + "'\\''s'\n"));
  auto const made = remote({"-v", "mkdir", at("it's")});
  EXPECT_EQ(made.status, 0) << made.err;
  EXPECT_THAT(made.err, HasSubstr("sshfa: trace: Executing command: mkdir -p '" + at("it") + "'\\''s'\n"));
  EXPECT_EQ(remote({"isdir", at("it's")}).err, "");
}

// ---- questions on the terminal -------------------------------------------------------

TEST_F(CliTest, AsksForThePassphraseOfAnEncryptedKeyWithoutEcho) {
  std::string const key = at("locked_key");
  TestSshd::shell("ssh-keygen -q -t ed25519 -N 'open sesame' -f '" + key + "'");
  server().authorizeKey(key + ".pub");

  ToolOptions options;
  options.terminal = true;
  options.timeout = std::chrono::seconds(60);
  ToolProcess tool({"-H", server().host(), "-p", std::to_string(server().port()), "-u", server().user(), "-i", key,
                    "--known-hosts", server().knownHostsFile(), "-F", "/dev/null", "exec", "echo", "unlocked"},
                   options);
  ASSERT_TRUE(tool.waitForOutput("Enter passphrase for key '" + key + "': ", std::chrono::seconds(30)))
      << tool.outputSoFar();
  tool.type("open sesame\n");
  auto const result = tool.finish();
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("unlocked\n"));
  EXPECT_EQ(result.out.find("open sesame"), std::string::npos);
}

TEST_F(CliTest, PasswordFromStandardInput) {
  auto const account = server().passwordAccount();
  if (!account) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  std::vector<std::string> const args{"-H",
                                      server().host(),
                                      "-p",
                                      std::to_string(server().port()),
                                      "-u",
                                      account->user,
                                      "--known-hosts",
                                      server().knownHostsFile(),
                                      "-F",
                                      "/dev/null",
                                      "--batch",
                                      "--password-stdin",
                                      "exec",
                                      "id",
                                      "-un"};
  ToolOptions right;
  right.input = account->password + "\n";
  auto const ok = runTool(args, right);
  EXPECT_EQ(ok.status, 0) << ok.err;
  EXPECT_EQ(ok.out, account->user + "\n");

  ToolOptions wrong;
  wrong.input = "not-" + account->password + "\n";
  EXPECT_EQ(runTool(args, wrong).status, kConnection);
}

TEST_F(CliTest, KeyboardInteractivePromptsOnTheTerminal) {
  auto const account = server().passwordAccount();
  if (!account) GTEST_SKIP() << TestSshd::accountsUnavailableReason();
  ToolOptions options;
  options.terminal = true;
  options.timeout = std::chrono::seconds(60);
  ToolProcess tool({"-H", server().host(), "-p", std::to_string(server().port()), "-u", account->user, "--known-hosts",
                    server().knownHostsFile(), "-F", "/dev/null", "exec", "id", "-un"},
                   options);
  ASSERT_TRUE(tool.waitForOutput("assword", std::chrono::seconds(30))) << tool.outputSoFar();
  tool.type(account->password + "\n");
  auto const result = tool.finish();
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr(account->user + "\n"));
  EXPECT_EQ(result.out.find(account->password), std::string::npos);
}

// ---- the examples --------------------------------------------------------------------

class ExamplesTest : public CliTest {
 protected:
  static ToolResult runExample(std::string const& name, std::vector<std::string> const& extra) {
    std::vector<std::string> args{server().host(), std::to_string(server().port()), server().user(),
                                  server().identityFile(), server().knownHostsFile()};
    args.insert(args.end(), extra.begin(), extra.end());
    ToolOptions options;
    options.program = examplesDirectory() + "/" + name;
    return runTool(args, options);
  }
};

TEST_F(ExamplesTest, CopyTreeUpAndBack) {
  writeFile(at("tree/a.txt"), "alpha");
  writeFile(at("tree/sub/b c.txt"), "beta beta");
  auto const result = runExample("copy_tree", {at("tree"), at("remote/tree")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "2 files: 2 on the remote host, 2 back\nall sizes match\n");
  EXPECT_EQ(filesBelow(at("remote/tree")), filesBelow(at("tree")));
  EXPECT_EQ(filesBelow(at("tree.back")), filesBelow(at("tree")));
}

TEST_F(ExamplesTest, StatManyPathsInOneCall) {
  writeFile(at("one"), "1");
  setTime(at("one"), 1614834367);
  writeFile(at("three"), "333");
  setTime(at("three"), 0);
  auto const result = runExample("stat_many", {at("one"), at("two"), at("three")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "           1  2021-03-04T05:06:07Z  " + at("one") + "\n" +
                            "           -  missing               " + at("two") + "\n" +
                            "           3  1970-01-01T00:00:00Z  " + at("three") + "\n" + "3 paths, 1 missing\n");
  EXPECT_EQ(runExample("stat_many", {}).status, kUsage);
}

// ---- the demo --------------------------------------------------------------------------

class DemoTest : public CliTest {
 protected:
  // The demo's temporary folders go below dir_, where the test can see them.
  [[nodiscard]] ToolOptions demoOptions() const {
    ToolOptions options;
    options.environment = {"TMPDIR=" + dir_.string()};
    options.timeout = std::chrono::seconds(300);
    return options;
  }

  static pid_t serverPid(std::string const& output) {
    std::smatch match;
    std::regex const pattern(R"(listening on 127\.0\.0\.1:[0-9]+ \(pid ([0-9]+)\))");
    if (!std::regex_search(output, match, pattern)) return -1;
    return static_cast<pid_t>(std::stol(match[1]));
  }
};

TEST_F(DemoTest, RunsTheTourAndLeavesNothingBehind) {
  auto const result = runTool({"demo", "--files", "40"}, demoOptions());
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  for (int step = 1; step <= 9; ++step) EXPECT_THAT(result.out, HasSubstr("[" + std::to_string(step) + "/9] "));
  EXPECT_THAT(result.out, HasSubstr("40 files"));
  EXPECT_THAT(result.out, HasSubstr("listRecursively -> 40 files"));
  EXPECT_THAT(result.out, HasSubstr("40 of 40 files identical"));
  EXPECT_THAT(result.out, HasSubstr("exists after remove -> 0 of 4 still there"));
  EXPECT_THAT(result.out, HasSubstr("The tree came back unchanged."));
  EXPECT_THAT(result.out, HasSubstr("Timings"));
  EXPECT_THAT(result.out, HasSubstr("Closed the connection, stopped the server, removed " + dir_.string()));
  pid_t const pid = serverPid(result.out);
  ASSERT_GT(pid, 0) << result.out;
  EXPECT_FALSE(processAlive(pid));
  EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(DemoTest, CleansUpWhenInterrupted) {
  for (int const signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
    ToolProcess tool({"demo", "--files", "2000"}, demoOptions());
    ASSERT_TRUE(tool.waitForOutput("[3/9] ", std::chrono::seconds(60))) << tool.outputSoFar();
    pid_t const pid = serverPid(tool.outputSoFar());
    tool.signal(signalNumber);
    auto const result = tool.finish();
    EXPECT_EQ(result.status, 128 + signalNumber) << result.out << result.err;
    EXPECT_THAT(result.err, HasSubstr("sshfa: interrupted"));
    EXPECT_THAT(result.out, HasSubstr("Closed the connection, stopped the server, removed"));
    ASSERT_GT(pid, 0) << result.out;
    EXPECT_FALSE(processAlive(pid));
    EXPECT_TRUE(fs::is_empty(dir_)) << fs::directory_iterator(dir_)->path();
  }
}

TEST_F(DemoTest, LeavesNothingBehindWhenKilled) {
  ToolProcess tool({"demo", "--files", "2000"}, demoOptions());
  ASSERT_TRUE(tool.waitForOutput("[3/9] ", std::chrono::seconds(60))) << tool.outputSoFar();
  pid_t const pid = serverPid(tool.outputSoFar());
  tool.signal(SIGKILL);
  auto const result = tool.finish();
  EXPECT_EQ(result.status, 128 + SIGKILL);
  ASSERT_GT(pid, 0) << result.out;
  // The server dies with the tool; the scratch folder goes a moment later.
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while ((processAlive(pid) || !fs::is_empty(dir_)) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_FALSE(processAlive(pid));
  EXPECT_TRUE(fs::is_empty(dir_));
}

}  // namespace
}  // namespace sshfa::testing
