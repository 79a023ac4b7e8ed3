// The tool in scripts and in rsync users' hands, against the test sshd: sync
// that repeats and resumes, the note put and get give before DEST/NAME/NAME,
// one JSON document for every command (read by Python's json), exec --json
// with standard input, option suggestions, "--" everywhere, and the flags
// taken from scp and rsync.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
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
using ::testing::MatchesRegex;
using ::testing::Not;

constexpr int kUsage = 2;
constexpr int kInterrupted = 130;
constexpr std::time_t kOldTime = 1'500'000'000;

class ScriptsTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = TestSshd::makeTempDir(); }

  static TestSshd& server() { return TestSshd::instance(); }

  static std::vector<std::string> withConnection(std::vector<std::string> const& args) {
    return testing::withConnection(server(), args);
  }
  static ToolResult remote(std::vector<std::string> const& args, ToolOptions const& options = {}) {
    return runTool(withConnection(args), options);
  }

  [[nodiscard]] std::string at(std::string const& name) const { return (dir_ / name).string(); }
  // The same path as a remote operand.
  [[nodiscard]] std::string there(std::string const& name) const { return server().host() + ":" + at(name); }

  fs::path dir_;
};

// ---- sync ------------------------------------------------------------------------------

class SyncCommand : public ScriptsTest, public ::testing::WithParamInterface<bool> {
 protected:
  [[nodiscard]] static bool upload() { return GetParam(); }
  // sync SOURCE DESTINATION with the remote side written HOST:PATH.
  [[nodiscard]] std::vector<std::string> syncArgs(std::string const& from, std::string const& to) const {
    return {"sync", upload() ? at(from) : there(from), upload() ? there(to) : at(to)};
  }
  json synced(std::vector<std::string> const& options, std::string const& from, std::string const& to) const {
    auto args = syncArgs(from, to);
    args.insert(args.begin() + 1, options.begin(), options.end());
    args.insert(args.begin(), "--json");
    auto const result = remote(args);
    EXPECT_EQ(result.status, 0) << result.err;
    return json::parse(result.out);
  }

  void makeTree() {
    writeFile(at("src/a"), "alpha");
    writeFile(at("src/sub/b"), "bravo");
    setTime(at("src/a"), kOldTime);
    setTime(at("src/sub/b"), kOldTime);
  }
};

TEST_P(SyncCommand, TheDestinationIsTheCopyAndASecondRunCopiesNothing) {
  makeTree();
  auto const first = synced({}, "src", "dst");
  EXPECT_EQ(first["copied"], 2);
  EXPECT_EQ(readFile(at("dst/a")), "alpha");
  EXPECT_EQ(readFile(at("dst/sub/b")), "bravo");

  auto const second = synced({}, "src", "dst");
  EXPECT_EQ(second["copied"], 0);
  EXPECT_EQ(second["unchanged"], 2);
  EXPECT_EQ(second["bytes"], 0);
  EXPECT_FALSE(fs::exists(at("dst/src")));

  // The summary of a plain run says the same.
  auto const plain = remote(syncArgs("src", "dst"));
  EXPECT_EQ(plain.status, 0) << plain.err;
  EXPECT_EQ(plain.out, "");
  EXPECT_THAT(plain.err, MatchesRegex(R"(sync: copied 0 files, 0 B in [0-9.]+ s \(.*\), 2 unchanged
)"));

  // A trailing slash on either side changes nothing; --delete mirrors.
  writeFile(at("dst/stale"), "s");
  auto const mirrored = synced({"--delete"}, "src/", "dst/");
  EXPECT_EQ(mirrored["copied"], 0);
  EXPECT_EQ(mirrored["deleted"], 1);
  EXPECT_FALSE(fs::exists(at("dst/stale")));
  EXPECT_FALSE(fs::exists(at("dst/src")));
}

TEST_P(SyncCommand, AnExistingEmptyDestinationFolderBecomesTheCopy) {
  makeTree();
  fs::create_directories(at("dst"));
  EXPECT_EQ(synced({}, "src", "dst")["copied"], 2);
  EXPECT_EQ(readFile(at("dst/a")), "alpha");
  EXPECT_FALSE(fs::exists(at("dst/src")));
}

TEST_P(SyncCommand, AFolderIsNotPutInAFilesPlace) {
  makeTree();
  writeFile(at("file"), "keep");
  auto const result = remote(syncArgs("src", "file"));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "sshfa: sync: '" + (upload() ? at("src") : there("src")) + "' is a folder and '" +
                            (upload() ? there("file") : at("file")) +
                            "' is not; sync makes the destination a copy of the source and will not put a folder "
                            "in its place: remove it first, or name another destination\n");
  EXPECT_EQ(readFile(at("file")), "keep");
}

constexpr std::size_t kBigSize = 16U << 20U;

// Ctrl-C a quarter of the way through, then the same command line again: the
// rest of the bytes, and nothing left behind. The limit keeps the first run
// going long enough to be stopped.
TEST_P(SyncCommand, ARunStoppedWithCtrlCResumesWithTheSameCommand) {
  auto const contents = randomBytes(kBigSize, 29);
  writeFile(at("src/big"), contents);
  writeFile(at("src/small"), "small");
  setTime(at("src/big"), kOldTime);
  std::vector<std::string> const limit{"--bwlimit", "8M"};
  auto args = syncArgs("src", "dst");
  args.insert(args.begin() + 1, limit.begin(), limit.end());
  ToolProcess tool(withConnection(args), {});
  auto const temporary = at("dst/.big.sshfa-partial-" + std::to_string(kBigSize) + "-" + std::to_string(kOldTime));
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  bool begun = false;
  while (!begun && std::chrono::steady_clock::now() < deadline) {
    std::error_code error;
    begun = fs::file_size(temporary, error) >= kBigSize / 4 && !error;
    if (!begun) std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  ASSERT_TRUE(begun) << "the temporary never reached a quarter of the file";
  tool.signal(SIGINT);
  auto const stopped = tool.finish();
  EXPECT_EQ(stopped.status, kInterrupted) << stopped.err;
  EXPECT_THAT(stopped.err, HasSubstr("sshfa: interrupted\n"));
  EXPECT_THAT(stopped.err, ::testing::Not(HasSubstr("a second")));
  EXPECT_FALSE(fs::exists(at("dst/big")));
  ASSERT_TRUE(fs::exists(temporary));
  auto const kept = fs::file_size(temporary);
  EXPECT_LT(kept, kBigSize);

  auto const again = synced(limit, "src", "dst");
  EXPECT_EQ(again["resumed"], 1);
  EXPECT_EQ(again["bytes"].get<std::uint64_t>() + kept, kBigSize + (again["copied"] == 2 ? 5 : 0));
  EXPECT_TRUE(readFile(at("dst/big")) == contents);
  EXPECT_EQ(readFile(at("dst/small")), "small");
  EXPECT_FALSE(fs::exists(temporary));
  EXPECT_FALSE(fs::exists(at("dst/src")));
  EXPECT_EQ(synced(limit, "src", "dst")["copied"], 0);
}

std::string directionName(::testing::TestParamInfo<bool> const& param) { return param.param ? "Up" : "Down"; }

INSTANTIATE_TEST_SUITE_P(BothWays, SyncCommand, ::testing::Values(true, false), directionName);

TEST_F(ScriptsTest, SyncRefusesTheLoginFolderItselfAndTwoLocalOperands) {
  writeFile(at("src/a"), "a");
  auto const home = remote({"sync", "--delete", at("src"), server().host() + ":"});
  EXPECT_EQ(home.status, kUsage);
  EXPECT_EQ(home.err, "sshfa: sync: '" + server().host() +
                          ":' names the login folder itself, which sync would make a copy of '" + at("src") +
                          "' (removing, with --delete, all else in it); name the copy: '" + server().host() +
                          ":src'\n");
  auto const local = remote({"sync", at("src"), at("dst")});
  EXPECT_EQ(local.status, kUsage);
  EXPECT_EQ(local.err,
            "sshfa: sync: name the remote side as HOST:PATH (sshfa sync ./site host:/srv/www/site); a local name "
            "with a colon is written ./a:b\n");
  EXPECT_FALSE(fs::exists(at("dst")));
}

// ---- the note before DEST/NAME/NAME -----------------------------------------------------

TEST_F(ScriptsTest, PutIntoAFolderOfItsOwnNameSaysSoOnce) {
  writeFile(at("local/site/index.html"), "hi");
  fs::create_directories(at("www/site"));
  auto const put = remote({"--json", "put", at("local/site"), there("www/site")});
  EXPECT_EQ(put.status, 0) << put.err;
  EXPECT_EQ(put.err, "sshfa: put: '" + there("www/site") + "' is a folder already, so 'site' goes into it as '" +
                         at("www/site") + "/site', as cp and scp do; to update '" + there("www/site") +
                         "' itself, run 'sshfa sync " + at("local/site") + " " + there("www/site") +
                         "' or 'sshfa put " + at("local/site") + " " + there("www/") +
                         "' (its parent, with a trailing /); either repeats "
                         "exactly\n");
  EXPECT_EQ(readFile(at("www/site/site/index.html")), "hi");

  // Both forms it names repeat, and say nothing more.
  auto const parent = remote({"--json", "put", at("local/site"), there("www/")});
  EXPECT_EQ(parent.status, 0);
  EXPECT_EQ(parent.err, "");
  EXPECT_EQ(readFile(at("www/site/index.html")), "hi");
  EXPECT_EQ(json::parse(remote({"--json", "put", at("local/site"), there("www/")}).out)["copied"], 0);

  // get the other way: said once as well.
  fs::create_directories(at("back/site"));
  auto const get = remote({"--json", "get", there("www/site"), at("back/site")});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_EQ(get.err, "sshfa: get: '" + at("back/site") + "' is a folder already, so 'site' goes into it as '" +
                         at("back/site") + "/site', as cp and scp do; to update '" + at("back/site") +
                         "' itself, run 'sshfa sync " + there("www/site") + " " + at("back/site") + "' or 'sshfa get " +
                         there("www/site") + " " + at("back/") +
                         "' (its parent, with a trailing /); either repeats "
                         "exactly\n");
  // A destination that does not exist yet names the copy: nothing to say.
  auto const fresh = remote({"--json", "put", at("local/site"), there("new/site")});
  EXPECT_EQ(fresh.err, "");
  EXPECT_EQ(readFile(at("new/site/index.html")), "hi");
}

// ---- JSON ------------------------------------------------------------------------------

// Python's json reads the whole of standard output as one document.
void expectOneJsonDocument(ToolResult const& result, std::string const& what) {
  ToolOptions options;
  options.program = "/usr/bin/python3";
  options.input = result.out;
  auto const checked =
      runTool({"-c", "import json, sys; value = json.loads(sys.stdin.read()); print(type(value).__name__)"}, options);
  EXPECT_EQ(checked.status, 0) << what << ": " << result.out << checked.err;
  EXPECT_THAT(checked.out, ::testing::AnyOf("dict\n", "list\n")) << what;
}

TEST_F(ScriptsTest, EveryCommandPrintsOneJsonDocumentOnSuccessAndOnFailure) {
  writeFile(at("f.txt"), "text");
  writeFile(at("tree/x.txt"), "x");
  fs::create_directories(at("dst"));
  std::vector<std::pair<std::string, std::vector<std::string>>> const succeeding{
      {"exists", {"exists", at("f.txt")}},
      {"isfile", {"isfile", at("f.txt")}},
      {"isdir", {"isdir", at("tree")}},
      {"parent", {"parent", at("f.txt")}},
      {"ls", {"ls", at("tree")}},
      {"stat", {"stat", at("f.txt")}},
      {"touch", {"touch", at("t.txt")}},
      {"mkdir", {"mkdir", at("made")}},
      {"cp", {"cp", at("f.txt"), at("copy.txt")}},
      {"mv", {"mv", at("copy.txt"), at("moved.txt")}},
      {"rm", {"rm", at("moved.txt"), at("missing")}},
      {"tar", {"tar", at("tree"), at("tree.tar")}},
      {"untar", {"untar", at("tree.tar"), at("dst")}},
      {"zip", {"zip", at("tree"), at("tree.zip")}},
      {"unzip", {"unzip", at("tree.zip"), at("dst")}},
      {"put", {"put", at("tree"), at("up")}},
      {"get", {"get", at("up"), at("down")}},
      {"sync", {"sync", at("tree"), there("mirror")}},
      {"exec", {"exec", "true"}},
      {"demo", {"demo", "--files", "10"}},
  };
  for (auto const& [command, args] : succeeding) {
    std::vector<std::string> all{"--json"};
    all.insert(all.end(), args.begin(), args.end());
    auto const result = remote(all);
    EXPECT_EQ(result.status, 0) << command << ": " << result.err;
    expectOneJsonDocument(result, command);
  }
  std::vector<std::pair<std::string, std::vector<std::string>>> const failing{
      {"exists", {"exists", at("missing")}},
      {"isfile", {"isfile", at("tree")}},
      {"isdir", {"isdir", at("f.txt")}},
      {"parent", {"parent"}},
      {"ls", {"ls", at("missing"), at("tree")}},
      {"stat", {"stat", at("missing")}},
      {"touch", {"touch", at("nodir/t.txt")}},
      {"mkdir", {"mkdir", at("f.txt/sub")}},
      {"cp", {"cp", at("missing"), at("copy.txt")}},
      {"mv", {"mv", at("missing"), at("moved.txt")}},
      {"rm", {"rm"}},
      {"tar", {"tar", at("missing"), at("m.tar")}},
      {"untar", {"untar", at("missing.tar"), at("dst")}},
      {"zip", {"zip", at("missing"), at("m.zip")}},
      {"unzip", {"unzip", at("missing.zip"), at("dst")}},
      {"put", {"put", at("missing"), at("up2")}},
      {"get", {"get", at("missing"), at("down2")}},
      {"sync", {"sync", at("missing"), there("mirror2")}},
      {"exec", {"exec", "exit 3"}},
      {"demo", {"demo", "--local"}},
  };
  for (auto const& [command, args] : failing) {
    std::vector<std::string> all{"--json"};
    all.insert(all.end(), args.begin(), args.end());
    auto const result = remote(all);
    EXPECT_NE(result.status, 0) << command;
    expectOneJsonDocument(result, command);
  }
}

TEST_F(ScriptsTest, MutationsReportWhatTheyDid) {
  writeFile(at("f.txt"), "text");
  fs::create_directories(at("old"));
  auto answer = [](ToolResult const& result) {
    EXPECT_EQ(result.status, 0) << result.err;
    return json::parse(result.out);
  };
  EXPECT_EQ(answer(remote({"--json", "mkdir", at("old"), at("new")})),
            json::parse(R"({"made": [")" + at("new") + R"("], "existing": [")" + at("old") + R"("]})"));
  EXPECT_EQ(answer(remote({"--json", "touch", at("t")})), json::parse(R"({"touched": [")" + at("t") + R"("]})"));
  EXPECT_EQ(
      answer(remote({"--json", "cp", at("f.txt"), at("g.txt")})),
      json::parse(R"({"copied": [{"source": ")" + at("f.txt") + R"(", "destination": ")" + at("g.txt") + R"("}]})"));
  EXPECT_EQ(
      answer(remote({"--json", "mv", at("g.txt"), at("h.txt")})),
      json::parse(R"({"moved": [{"source": ")" + at("g.txt") + R"(", "destination": ")" + at("h.txt") + R"("}]})"));
  EXPECT_EQ(answer(remote({"--json", "rm", at("h.txt"), at("missing")})),
            json::parse(R"({"removed": [")" + at("h.txt") + R"("], "missing": [")" + at("missing") + R"("]})"));
  EXPECT_EQ(answer(remote({"--json", "tar", at("old"), at("o.tar")})),
            json::parse(R"({"packed": ")" + at("old") + R"(", "archive": ")" + at("o.tar") + R"("})"));
  // zip of a source it cannot find fails, and nothing is reported as packed.
  auto const nothing = remote({"--json", "zip", at("missing"), at("m.zip")});
  EXPECT_EQ(nothing.status, 1);
  EXPECT_EQ(json::parse(nothing.out)["exitCode"], 1);
  EXPECT_EQ(nothing.err, "sshfa: zip: cannot pack '" + at("missing") + "': No such file or directory\n");
  EXPECT_FALSE(fs::exists(at("m.zip")));
  // rm of a missing path succeeds, as rm -f does, and says nothing.
  auto const plain = remote({"rm", at("missing")});
  EXPECT_EQ(plain.status, 0);
  EXPECT_EQ(plain.out, "");
  EXPECT_EQ(plain.err, "");
}

TEST_F(ScriptsTest, ExecWithJsonPassesStandardInput) {
  ToolOptions options;
  options.input = "hello\n";
  auto const result = remote({"--json", "exec", "wc -c; echo oops >&2; exit 4"}, options);
  EXPECT_EQ(result.status, 4);
  EXPECT_EQ(result.out, "{\n  \"exitCode\": 4,\n  \"stdout\": \"6\\n\",\n  \"stderr\": \"oops\\n\"\n}\n");
}

// ---- completion of remote names ---------------------------------------------------------

// What the completion scripts ask the tool for HOST:PATH.
TEST_F(ScriptsTest, RemoteNamesCompleteInTheOperandsOwnForm) {
  writeFile(at("d/with space.txt"), "x");
  writeFile(at("d/wide/x"), "x");
  writeFile(at("d/.hidden"), "x");
  writeFile(at("d/other"), "x");
  auto const found = remote({"--complete-remote", there("d/wi")});
  EXPECT_EQ(found.status, 0) << found.err;
  EXPECT_EQ(found.out, there("d/wide/") + "\n" + there("d/with space.txt") + "\n");
  EXPECT_EQ(remote({"--complete-remote", there("d/.")}).out, there("d/.hidden") + "\n");
  // Nothing to offer, and nothing said, when the folder is not there.
  auto const none = remote({"--complete-remote", there("nothing/x")});
  EXPECT_EQ(none.out, "");
  EXPECT_EQ(none.err, "");
}

// A remote command that ignores SIGINT gets SIGTERM after the grace, and
// the tool says each signal it sends.
TEST_F(ScriptsTest, AStoppedExecEscalatesAndSaysSo) {
  ToolProcess tool(withConnection({"exec", "trap '' INT; echo started; while :; do sleep 4714; done"}), {});
  ASSERT_TRUE(tool.waitForOutput("started\n", std::chrono::seconds(30))) << tool.outputSoFar();
  tool.signal(SIGINT);
  auto const result = tool.finish();
  EXPECT_EQ(result.status, kInterrupted);
  EXPECT_EQ(result.out, "started\n");
  EXPECT_EQ(result.err,
            "sshfa: exec: stopping the remote command: SIGINT\n"
            "\nsshfa: still stopping; a second Ctrl-C (or signal) quits at once\n"
            "sshfa: exec: the remote command still runs 2 s after SIGINT: SIGTERM\n"
            "sshfa: interrupted\n");
  auto const left = remote({"exec", "ps -eo args | grep -c '^sleep 4714$'"});
  EXPECT_EQ(left.out, "0\n");
}

// ---- habits ----------------------------------------------------------------------------

TEST_F(ScriptsTest, MistypedOptionsGetASuggestion) {
  std::string const hint = "sshfa: run 'sshfa --help' (or 'sshfa COMMAND --help') for usage\n";
  auto const command = remote({"ls", "--recusive", at(".")});
  EXPECT_EQ(command.status, kUsage);
  EXPECT_EQ(command.err, "sshfa: ls: unknown option '--recusive'; did you mean '--recursive'?\n" + hint);
  auto const global = runTool({"--jsno", "ls", "/"});
  EXPECT_EQ(global.status, kUsage);
  EXPECT_EQ(global.err, "sshfa: ls: unknown option '--jsno'; did you mean '--json'?\n" + hint);
  auto const transfer = runTool({"put", "--dleete", "a", "h:b"});
  EXPECT_EQ(transfer.status, kUsage);
  EXPECT_EQ(transfer.err, "sshfa: put: unknown option '--dleete'; did you mean '--delete'?\n" + hint);
  auto const shortOne = runTool({"put", "-R", "-l", "a", "h:b"});
  EXPECT_EQ(shortOne.status, kUsage);
  EXPECT_EQ(shortOne.err, "sshfa: put: unknown option '-l'; did you mean '-L'?\n" + hint);
  auto const far = runTool({"--local", "ls", "--zzzzzzzz", "/"});
  EXPECT_EQ(far.status, kUsage);
  EXPECT_EQ(far.err, "sshfa: ls: unknown option '--zzzzzzzz'\n" + hint);
  // A command's option before the command.
  auto const early = runTool({"--delete", "sync", "a", "h:b"});
  EXPECT_EQ(early.status, kUsage);
  EXPECT_EQ(early.err,
            "sshfa: sync: '--delete' is an option of sync and goes after it (sshfa sync --delete ...)\n" + hint);
  auto const asJson = runTool({"--json", "ls", "--recusive", "/"});
  EXPECT_EQ(asJson.status, kUsage);
  EXPECT_EQ(json::parse(asJson.out),
            json::parse(R"({"error": "ls: unknown option '--recusive'; did you mean '--recursive'?", "exitCode": 2})"));
}

TEST_F(ScriptsTest, DoubleDashEndsTheOptionsOfEveryCommand) {
  auto const made = runTool({"--local", "mkdir", at("a"), "--", at("-dash"), at("-p")});
  EXPECT_EQ(made.status, 0) << made.err;
  EXPECT_TRUE(fs::is_directory(at("a")));
  EXPECT_TRUE(fs::is_directory(at("-dash")));
  EXPECT_TRUE(fs::is_directory(at("-p")));
  auto const removed = remote({"rm", "--", at("a"), at("-dash")});
  EXPECT_EQ(removed.status, 0) << removed.err;
  EXPECT_FALSE(fs::exists(at("a")));
  EXPECT_FALSE(fs::exists(at("-dash")));
  writeFile(at("-f"), "x");
  auto const stat = remote({"stat", "--", at("-f")});
  EXPECT_EQ(stat.status, 0) << stat.err;
  EXPECT_THAT(stat.out, HasSubstr("\t" + at("-f") + "\n"));
}

TEST_F(ScriptsTest, UpdateLeavesNewerDestinationFilesAlone) {
  writeFile(at("src/a"), "source");
  writeFile(at("src/b"), "source");
  setTime(at("src/a"), kOldTime);
  setTime(at("src/b"), kOldTime);
  writeFile(at("dst/a"), "newer here");
  setTime(at("dst/a"), kOldTime + 60);
  writeFile(at("dst/b"), "older");
  setTime(at("dst/b"), kOldTime - 60);
  for (auto const& flag : {"-u", "--update"}) {
    auto const result = remote({"--json", "sync", flag, at("src"), there("dst")});
    EXPECT_EQ(result.status, 0) << result.err;
    auto const totals = json::parse(result.out);
    EXPECT_EQ(totals["newer"], 1) << flag;
    EXPECT_EQ(readFile(at("dst/a")), "newer here");
    EXPECT_EQ(readFile(at("dst/b")), "source");
  }
  auto const summary = remote({"sync", "-u", at("src"), there("dst")});
  EXPECT_THAT(summary.err, MatchesRegex(R"(sync: copied 0 files, 0 B in [0-9.]+ s \(.*\), 1 unchanged, 1 newer
)"));
}

TEST_F(ScriptsTest, BandwidthLimitHoldsTheRate) {
  writeFile(at("src/four"), std::string(4U << 20U, 'b'));
  auto const start = std::chrono::steady_clock::now();
  auto const result = remote({"--json", "put", "--bwlimit", "1M", at("src/four"), at("dst/four")});
  double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(json::parse(result.out)["bytes"], 4U << 20U);
  EXPECT_GE(seconds, 3.5);
  EXPECT_EQ(fs::file_size(at("dst/four")), 4U << 20U);

  auto const bad = remote({"put", "--bwlimit", "fast", at("src/four"), at("dst/x")});
  EXPECT_EQ(bad.status, kUsage);
  EXPECT_EQ(bad.err,
            "sshfa: put: --bwlimit 'fast' is no rate; give bytes per second: 1M, 512K, 2.5M, 100000 (K, M, G: "
            "powers of 1024)\n");
  EXPECT_FALSE(fs::exists(at("dst/x")));
}

TEST_F(ScriptsTest, ChannelsCarryTheFilesAndFewerOpenedAreSaidUnderVerbose) {
  for (int i = 0; i < 40; ++i) writeFile(at("src/f" + std::to_string(i)), "file " + std::to_string(i));
  auto const result = remote({"--json", "put", "--channels", "3", at("src"), at("dst")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(json::parse(result.out)["copied"], 40);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(readFile(at("dst/f" + std::to_string(i))), "file " + std::to_string(i));
  auto const verbose = remote({"-v", "put", "--channels", "2", at("src"), at("two")});
  EXPECT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_THAT(verbose.err, HasSubstr("sshfa: trace: put: files went over 2 channels\n"));

  // The tool's own shell takes one of the two sessions.
  TestSshd const two("MaxSessions 2");
  auto const limited = runTool(testing::withConnection(two, {"-v", "put", "--channels", "3", at("src"), at("one")}));
  EXPECT_EQ(limited.status, 0) << limited.err;
  EXPECT_THAT(limited.err,
              HasSubstr("sshfa: trace: put: files went over 1 of 3 channels: the server refused another ("));
  EXPECT_EQ(readFile(at("one/f39")), "file 39");

  auto const bad = remote({"put", "--channels", "0", at("src"), at("dst/x")});
  EXPECT_EQ(bad.status, kUsage);
  EXPECT_THAT(bad.err, ::testing::StartsWith("sshfa: put: --channels: Value 0 not in range 1 to 16\n"));
  EXPECT_FALSE(fs::exists(at("dst/x")));
}

// A transfer raises the soft limit of open files to 16,384 where the hard
// limit allows, up to the hard limit where it is lower; one already there
// stays. (The hard limits here stay within this process's own.)
TEST_F(ScriptsTest, TransfersRaiseTheOpenFileLimitWhereTheHardLimitAllows) {
  struct rlimit own {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &own), 0);
  ASSERT_GE(own.rlim_max, 2048U) << "the test needs a hard limit of 2,048 open files or more";
  auto const hard = [&](rlim_t wanted) { return std::to_string(std::min(wanted, own.rlim_max)); };
  writeFile(at("src/f"), "file");
  auto const limited = [&](std::string const& limits, std::string const& into) {
    ToolOptions options;
    options.program = "/usr/bin/prlimit";
    auto args = withConnection({"-v", "put", at("src"), at(into)});
    args.insert(args.begin(), {"--nofile=" + limits, toolPath()});
    auto result = runTool(args, options);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(readFile(at(into + "/f")), "file");
    return result.err;
  };
  EXPECT_THAT(limited("1024:" + hard(8192), "a"),
              HasSubstr("sshfa: trace: put: open files: up to " + hard(8192) + " (was 1024)\n"));
  EXPECT_THAT(limited("256:2048", "b"), HasSubstr("sshfa: trace: put: open files: up to 2048 (was 256)\n"));
  EXPECT_THAT(limited(hard(16384) + ":" + hard(16384), "c"), Not(HasSubstr("open files")));
  EXPECT_THAT(limited("1024:1024", "d"), Not(HasSubstr("open files")));
}

TEST_F(ScriptsTest, CompressionIsShownInTheNegotiatedAlgorithms) {
  auto const compressed = remote({"-v", "-z", "isdir", at(".")});
  EXPECT_EQ(compressed.status, 0) << compressed.err;
  EXPECT_THAT(compressed.err, MatchesRegex("sshfa: trace: negotiated kex [^ ]+, host key [^ ]+, cipher [^ ]+, MAC "
                                           "[^ ]+, compression zlib(@openssh.com)?\n(.|\n)*"));
  auto const plain = remote({"-v", "isdir", at(".")});
  EXPECT_THAT(plain.err, HasSubstr(", compression none\n"));
  // A compressed transfer arrives whole.
  writeFile(at("src/z"), std::string(1U << 20U, 'z'));
  auto const put = remote({"--compress", "put", at("src/z"), at("dst/z")});
  EXPECT_EQ(put.status, 0) << put.err;
  EXPECT_EQ(readFile(at("dst/z")), std::string(1U << 20U, 'z'));
}

TEST_F(ScriptsTest, ScpAndRsyncFlagsAreTaken) {
  writeFile(at("src/a"), "a");
  // -P is the port, as scp has it; -a changes nothing.
  auto args = withConnection({"--json", "put", "-a", at("src"), at("dst")});
  auto const port = std::find(args.begin(), args.end(), "-p");
  ASSERT_NE(port, args.end());
  *port = "-P";
  auto const put = runTool(args);
  EXPECT_EQ(put.status, 0) << put.err;
  EXPECT_EQ(json::parse(put.out)["copied"], 1);
  EXPECT_EQ(readFile(at("dst/a")), "a");

  // --progress draws the bar also into a pipe.
  writeFile(at("src/b"), std::string(1U << 20U, 'b'));
  auto const shown = remote({"put", "--progress", at("src"), at("dst2")});
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_THAT(shown.err, HasSubstr("100%"));
  EXPECT_THAT(shown.err, HasSubstr("\r\x1b[K"));
  auto const quiet = remote({"put", at("src"), at("dst3")});
  EXPECT_THAT(quiet.err, ::testing::Not(HasSubstr("\r")));

  // --keepalive 0 turns keep-alives off, as the help says.
  auto const noKeepalive = remote({"--keepalive", "0", "exists", at("src")});
  EXPECT_EQ(noKeepalive.status, 0) << noKeepalive.err;
  EXPECT_EQ(noKeepalive.out, "true\n");
}

}  // namespace
}  // namespace sshfa::testing
