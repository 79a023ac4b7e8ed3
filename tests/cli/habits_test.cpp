// The tool's habits against the test sshd: host:path operands, answers a
// user expects from ls and stat, the SSH configuration with private -F
// files and jump hosts, usage errors, -q, --json failures, archive names,
// and the completion scripts and manual page that are installed with it.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/cli/CliFiles.hpp"
#include "tests/cli/ToolProcess.hpp"
#include "tests/support/SshTestHelpers.hpp"

namespace sshfa::testing {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kConnection = 3;

class HabitsTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = TestSshd::makeTempDir(); }

  static TestSshd& server() { return TestSshd::instance(); }

  // Everything but the host: it comes from a HOST:PATH operand or -H.
  static std::vector<std::string> withoutHost(std::vector<std::string> const& args) {
    std::vector<std::string> all{"-p",
                                 std::to_string(server().port()),
                                 "-i",
                                 server().identityFile(),
                                 "--known-hosts",
                                 server().knownHostsFile(),
                                 "-F",
                                 "/dev/null",
                                 "--batch"};
    all.insert(all.end(), args.begin(), args.end());
    return all;
  }

  static ToolResult remote(std::vector<std::string> const& args, ToolOptions const& options = {}) {
    std::vector<std::string> all{"-H", server().host(), "-u", server().user()};
    auto const rest = withoutHost(args);
    all.insert(all.end(), rest.begin(), rest.end());
    return runTool(all, options);
  }

  [[nodiscard]] std::string at(std::string const& name) const { return (dir_ / name).string(); }

  // A private configuration file.
  [[nodiscard]] std::string config(std::string const& text) const {
    std::string const path = at("ssh_config");
    writeFile(path, text);
    return path;
  }

  fs::path dir_;
};

// ---- host:path ----------------------------------------------------------------------

TEST_F(HabitsTest, PutAndGetTakeTheHostFromTheRemoteOperand) {
  writeFile(at("up.txt"), "up");
  auto const put = runTool(withoutHost({"-u", server().user(), "put", at("up.txt"), "127.0.0.1:" + at("r/up.txt")}));
  EXPECT_EQ(put.status, 0) << put.err;
  EXPECT_EQ(readFile(at("r/up.txt")), "up");

  auto const get = runTool(withoutHost({"get", server().user() + "@127.0.0.1:" + at("r/up.txt"), at("back.txt")}));
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_EQ(readFile(at("back.txt")), "up");

  // Brackets around the host, as for an IPv6 address; -H naming the same host is fine.
  auto const bracketed = runTool(withoutHost(
      {"-H", "127.0.0.1", "-u", server().user(), "get", "[127.0.0.1]:" + at("r/up.txt"), at("bracketed.txt")}));
  EXPECT_EQ(bracketed.status, 0) << bracketed.err;
  EXPECT_EQ(readFile(at("bracketed.txt")), "up");
}

TEST_F(HabitsTest, LocalNamesWithAColonStayLocal) {
  fs::path const previous = fs::current_path();
  fs::current_path(dir_);
  writeFile(at("a:b"), "colon");
  auto const put = runTool(withoutHost({"-u", server().user(), "put", "./a:b", "127.0.0.1:" + at("r/a:b")}));
  EXPECT_EQ(put.status, 0) << put.err;
  EXPECT_EQ(readFile(at("r/a:b")), "colon");
  // With -H, a plain remote name with a colon is written with a slash before it.
  auto const get = remote({"get", at("r/a:b"), "./c:d"});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_EQ(readFile(at("c:d")), "colon");
  fs::current_path(previous);
}

TEST_F(HabitsTest, AmbiguousOperandsAreUsageErrorsWithAHint) {
  auto const wrongSide = runTool(withoutHost({"put", "box:/a", "/b"}));
  EXPECT_EQ(wrongSide.status, kUsage);
  EXPECT_EQ(wrongSide.err,
            "sshfa: put: 'box:/a' is on the remote host, but put copies from this machine; use get to copy from the "
            "remote host, or write './box:/a' for a local name with a colon\n");
  EXPECT_EQ(wrongSide.out, "");

  auto const getTo = runTool(withoutHost({"get", "box:/a", "box:/b"}));
  EXPECT_EQ(getTo.status, kUsage);
  EXPECT_EQ(getTo.err,
            "sshfa: get: 'box:/b' is on the remote host, but get copies to this machine; use put to copy to the remote "
            "host, or write './box:/b' for a local name with a colon\n");

  auto const otherHost = runTool(withoutHost({"-H", "devbox", "put", "/a", "box:/b"}));
  EXPECT_EQ(otherHost.status, kUsage);
  EXPECT_EQ(otherHost.err,
            "sshfa: put: 'box:/b' names the host 'box', but -H names 'devbox'; leave out -H, or name the same host\n");

  auto const otherUser = runTool(withoutHost({"-u", "carol", "put", "/a", "alice@box:/b"}));
  EXPECT_EQ(otherUser.status, kUsage);
  EXPECT_EQ(otherUser.err,
            "sshfa: put: 'alice@box:/b' names the user 'alice', but -u names 'carol'; leave out -u, or name the same "
            "user\n");

  auto const twoHosts = runTool(withoutHost({"get", "box:/a", "other:/b", "/c"}));
  EXPECT_EQ(twoHosts.status, kUsage);
  EXPECT_EQ(twoHosts.err,
            "sshfa: get: 'box:/a' and 'other:/b' name different remote hosts; one command reaches one "
            "host\n");

  auto const copy = runTool({"--local", "cp", "/a", "box:/b"});
  EXPECT_EQ(copy.status, kUsage);
  EXPECT_EQ(copy.err,
            "sshfa: cp: 'box:/b' names a remote host, but cp works on one side; use put or get to copy between this "
            "machine and the remote host, or write './box:/b' for a local name with a colon\n");

  auto const noHost = runTool({"put", "/a", "/b"});
  EXPECT_EQ(noHost.status, kUsage);
  EXPECT_EQ(noHost.err, "sshfa: put needs the remote host: -H HOST, or HOST:PATH on the remote side\n");
}

// ---- ls and stat ----------------------------------------------------------------------

TEST_F(HabitsTest, LsShowsAFileOnceAndNamesAMissingPath) {
  writeFile(at("d/x.txt"), "x");
  writeFile(at("f.txt"), "f");
  for (bool const onTheRemoteHost : {true, false}) {
    auto const run = [&](std::vector<std::string> const& args) {
      if (onTheRemoteHost) return remote(args);
      std::vector<std::string> local{"--local"};
      local.insert(local.end(), args.begin(), args.end());
      return runTool(local);
    };
    auto const file = run({"ls", at("f.txt")});
    EXPECT_EQ(file.status, 0) << file.err;
    EXPECT_EQ(file.out, at("f.txt") + "\n");

    auto const missing = run({"ls", at("missing")});
    EXPECT_EQ(missing.status, kFailed);
    EXPECT_EQ(missing.out, "");
    EXPECT_EQ(missing.err, "sshfa: cannot access '" + at("missing") + "': No such file or directory\n");

    // Files first, then the folders' entries, as ls does.
    auto const mixed = run({"ls", at("d"), at("missing"), at("f.txt")});
    EXPECT_EQ(mixed.status, kFailed);
    EXPECT_EQ(mixed.out, at("f.txt") + "\n" + at("d") + "/x.txt\n");
    EXPECT_EQ(mixed.err, "sshfa: cannot access '" + at("missing") + "': No such file or directory\n");

    auto const recursive = run({"--json", "ls", "-R", at("f.txt"), at("d")});
    EXPECT_EQ(recursive.status, 0) << recursive.err;
    EXPECT_EQ(json::parse(recursive.out), json::parse(R"({"entries": [")" + at("f.txt") + "\", \"" + at("d/x.txt") +
                                                      R"("], "missing": [], "warnings": []})"));

    // The missing path is in the answer too.
    auto const partly = run({"--json", "ls", at("missing"), at("f.txt")});
    EXPECT_EQ(partly.status, kFailed);
    EXPECT_EQ(json::parse(partly.out), json::parse(R"({"entries": [")" + at("f.txt") + R"("], "missing": [")" +
                                                   at("missing") + R"("], "warnings": []})"));
    EXPECT_EQ(partly.err, "sshfa: cannot access '" + at("missing") + "': No such file or directory\n");
  }
}

TEST_F(HabitsTest, StatOfANameWithALineFeedIsAnswered) {
  writeFile(at("plain"), "12345");
  std::string const fed = at("line\nfeed");
  writeFile(fed, "x");
  auto const result = remote({"stat", at("plain"), fed});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, StartsWith("5\t"));
  EXPECT_THAT(result.out, HasSubstr("\t" + at("plain") + "\n1\t"));
  EXPECT_THAT(result.out, ::testing::EndsWith("\t" + fed + "\n"));
  EXPECT_EQ(result.err, "");
}

// ---- usage ------------------------------------------------------------------------------

TEST_F(HabitsTest, UnknownCommandSuggestsTheNearestOne) {
  auto const typo = runTool({"lst", "/tmp"});
  EXPECT_EQ(typo.status, kUsage);
  EXPECT_EQ(typo.err,
            "sshfa: unknown command 'lst'; did you mean 'ls'?\n"
            "sshfa: run 'sshfa --help' (or 'sshfa COMMAND --help') for usage\n");
  EXPECT_THAT(runTool({"-H", "box", "mkdri", "/x"}).err, StartsWith("sshfa: unknown command 'mkdri'; did you mean "
                                                                    "'mkdir'?\n"));
  EXPECT_THAT(runTool({"frobnicate"}).err,
              StartsWith("sshfa: unknown command 'frobnicate'; run 'sshfa --help' for the list of commands\n"));
  auto const none = runTool({"--local", "--json"});
  EXPECT_EQ(none.status, kUsage);
  EXPECT_THAT(none.err, StartsWith("sshfa: no command given; run 'sshfa --help' for the list of commands\n"));
  EXPECT_EQ(
      json::parse(none.out),
      json::parse(R"({"error": "no command given; run 'sshfa --help' for the list of commands", "exitCode": 2})"));
}

TEST_F(HabitsTest, MissingOperandsAreNamedAsTheHelpNamesThem) {
  auto const stat = runTool({"--local", "stat"});
  EXPECT_EQ(stat.status, kUsage);
  EXPECT_THAT(stat.err, StartsWith("sshfa: stat: missing PATH (usage: sshfa stat [OPTIONS] PATH...)\n"));
  EXPECT_THAT(runTool({"stat", "--help"}).out, HasSubstr("Usage: sshfa stat [OPTIONS] PATH..."));

  auto const tar = runTool({"--local", "tar", "only-one"});
  EXPECT_EQ(tar.status, kUsage);
  EXPECT_THAT(tar.err, StartsWith("sshfa: tar: missing ARCHIVE (usage: sshfa tar [OPTIONS] SOURCE ARCHIVE)\n"));
  EXPECT_THAT(runTool({"--local", "mkdir"}).err, StartsWith("sshfa: mkdir: missing FOLDER (usage: sshfa mkdir"));
}

TEST_F(HabitsTest, JsonFailuresAreOneObjectOnStandardOutput) {
  auto const usage = runTool({"--json", "lst"});
  EXPECT_EQ(usage.status, kUsage);
  EXPECT_EQ(json::parse(usage.out),
            json::parse(R"({"error": "unknown command 'lst'; did you mean 'ls'?", "exitCode": 2})"));
  EXPECT_THAT(usage.err, StartsWith("sshfa: unknown command 'lst'"));

  writeFile(at("file"), "");
  auto const failed = remote({"--json", "mkdir", at("file/sub")});
  EXPECT_EQ(failed.status, kFailed);
  json const answer = json::parse(failed.out);
  EXPECT_EQ(answer["exitCode"], 1);
  EXPECT_EQ(answer["error"], failed.err.substr(7, failed.err.size() - 8));

  auto const refused = runTool({"--json", "-H", "127.0.0.1", "-p", std::to_string(closedPort()), "-u", "nobody", "-F",
                                "/dev/null", "--batch", "exists", "/"});
  EXPECT_EQ(refused.status, kConnection);
  EXPECT_EQ(json::parse(refused.out)["exitCode"], kConnection);
}

TEST_F(HabitsTest, MessagesNameTheCommandOnceAndNoShellInternals) {
  writeFile(at("file"), "");
  auto const made = remote({"mkdir", at("file/sub")});
  EXPECT_EQ(made.status, kFailed);
  // mkdir names the file in the way, quoted as the remote locale quotes.
  EXPECT_THAT(made.err, StartsWith("sshfa: mkdir: cannot create directory "));
  EXPECT_THAT(made.err, HasSubstr(at("file")));
  EXPECT_THAT(made.err, ::testing::EndsWith(": Not a directory\n"));
  EXPECT_THAT(made.err, Not(HasSubstr("mkdir: mkdir:")));

  writeFile(at("a.tar"), "not a tar archive at all, not even close to one. ");
  auto const nowhere = remote({"untar", at("a.tar"), at("nodir")});
  EXPECT_EQ(nowhere.status, kFailed);
  EXPECT_EQ(nowhere.err, "sshfa: untar: cannot unpack '" + at("a.tar") + "' into '" + at("nodir") +
                             "': no such "
                             "folder\n");
  fs::create_directory(at("out"));
  auto const garbage = remote({"untar", at("a.tar"), at("out")});
  EXPECT_EQ(garbage.status, kFailed);
  EXPECT_EQ(garbage.err, "sshfa: untar: This does not look like a tar archive\n");

  auto const noSource = remote({"tar", at("absent"), at("x.tar")});
  EXPECT_EQ(noSource.status, kFailed);
  EXPECT_EQ(noSource.err, "sshfa: tar: cannot pack '" + at("absent") + "': No such file or directory\n");
}

TEST_F(HabitsTest, CompressedArchiveNamesAreRefused) {
  writeFile(at("src/a.txt"), "a");
  for (std::string const name : {"x.tar.gz", "x.tgz", "x.tar.xz", "x.tar.bz2", "x.tar.zst", "X.TAR.GZ"}) {
    auto const result = remote({"tar", at("src"), at(name)});
    EXPECT_EQ(result.status, kUsage) << name;
    EXPECT_EQ(result.err, "sshfa: tar: '" + at(name) +
                              "' names a compressed archive, but tar writes it uncompressed; give a name ending in "
                              ".tar and compress it afterwards (for example: sshfa exec gzip FILE)\n");
    EXPECT_FALSE(fs::exists(at(name))) << name;
  }
  EXPECT_EQ(runTool({"--local", "zip", at("src"), at("x.zip.gz")}).status, kUsage);
  EXPECT_EQ(runTool({"--local", "zip", at("src"), at("x.tar")}).err,
            "sshfa: zip: '" + at("x.tar") + "' names a tar archive, but zip writes zip archives; use tar\n");
  EXPECT_EQ(runTool({"--local", "tar", at("src"), at("x.tar")}).status, 0);
}

TEST_F(HabitsTest, QuietLeavesOnlyFailures) {
  writeFile(at("q.txt"), "quiet");
  auto const quiet = remote({"-q", "put", at("q.txt"), at("r/q.txt")});
  EXPECT_EQ(quiet.status, 0) << quiet.err;
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(quiet.out, "");
  EXPECT_EQ(readFile(at("r/q.txt")), "quiet");
  EXPECT_THAT(remote({"put", at("q.txt"), at("r/q2.txt")}).err, StartsWith("put: copied 1 file"));

  auto const failed = remote({"--quiet", "get", at("absent"), at("l/absent")});
  EXPECT_EQ(failed.status, kFailed);
  EXPECT_THAT(failed.err, StartsWith("sshfa: cannot download '" + at("absent") + "' from "));
  EXPECT_THAT(failed.err, ::testing::EndsWith(": cannot read '" + at("absent") + "': No such file\n"));
}

// ---- the SSH configuration -------------------------------------------------------------

class ConfigTest : public HabitsTest {
 protected:
  static TestSshd& firstJump() {
    static TestSshd server;
    return server;
  }
  static TestSshd& secondJump() {
    static TestSshd server;
    return server;
  }

  // The tool with nothing but the configuration file to go by.
  static ToolResult configured(std::string const& file, std::vector<std::string> const& args,
                               ToolOptions const& options = {}) {
    std::vector<std::string> all{"-F", file, "--batch"};
    all.insert(all.end(), args.begin(), args.end());
    return runTool(all, options);
  }
};

TEST_F(ConfigTest, TwoHostBlocksAreMerged) {
  std::string const file =
      config("Host box.lan\n  HostName 127.0.0.1\n  Port " + std::to_string(server().port()) + "\nHost *.lan\n  User " +
             server().user() + "\n  IdentityFile " + server().identityFile() + "\n  UserKnownHostsFile " +
             server().knownHostsFile() + "\n  Port 1\n");
  auto const result = configured(file, {"-H", "box.lan", "exec", "id", "-un"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, server().user() + "\n");
}

TEST_F(ConfigTest, UserKnownHostsFileIsHonoured) {
  writeFile(at("empty_known_hosts"), "");
  std::string const file = config("Host box\n  HostName 127.0.0.1\n  Port " + std::to_string(server().port()) +
                                  "\n  IdentityFile " + server().identityFile() + "\n  UserKnownHostsFile " +
                                  at("empty_known_hosts") + "\n  GlobalKnownHostsFile /dev/null\n");
  auto const refused = configured(file, {"-H", "box", "exists", "/"});
  EXPECT_EQ(refused.status, kConnection);
  EXPECT_THAT(refused.err, HasSubstr("is unknown: it is in none of " + at("empty_known_hosts") + ", /dev/null"));

  auto const accepted = configured(file, {"-H", "box", "--accept-new", "exists", "/"});
  EXPECT_EQ(accepted.status, 0) << accepted.err;
  EXPECT_THAT(readFile(at("empty_known_hosts")), HasSubstr(server().hostPublicKey()));
}

TEST_F(ConfigTest, ThroughOneAndTwoJumpHosts) {
  std::string const file = config(sshConfigHostBlock("target", server()) + "  ProxyJump jump1\n" +
                                  sshConfigHostBlock("far", server()) + "  ProxyJump jump1,jump2\n" +
                                  sshConfigHostBlock("jump1", firstJump()) + sshConfigHostBlock("jump2", secondJump()));
  std::size_t const first = acceptedLogins(firstJump());
  std::size_t const second = acceptedLogins(secondJump());
  auto const one = configured(file, {"-H", "target", "exec", "echo", "one"});
  EXPECT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(one.out, "one\n");
  EXPECT_EQ(acceptedLogins(firstJump()), first + 1);
  EXPECT_EQ(acceptedLogins(secondJump()), second);

  auto const two = configured(file, {"-H", "far", "exec", "echo", "two"});
  EXPECT_EQ(two.status, 0) << two.err;
  EXPECT_EQ(two.out, "two\n");
  EXPECT_EQ(acceptedLogins(firstJump()), first + 2);
  EXPECT_EQ(acceptedLogins(secondJump()), second + 1);

  // -J names the jump hosts on the command line.
  auto const flag = configured(file, {"-J", "jump2", "-H", "target", "exec", "echo", "flag"});
  EXPECT_EQ(flag.status, 0) << flag.err;
  EXPECT_EQ(acceptedLogins(secondJump()), second + 2);
  EXPECT_EQ(acceptedLogins(firstJump()), first + 2);
}

TEST_F(ConfigTest, MissingConfigurationFileIsAnError) {
  auto const result = configured(at("no-such-config"), {"-H", "box", "exists", "/"});
  EXPECT_EQ(result.status, kConnection);
  EXPECT_THAT(result.err, StartsWith("sshfa: "));
  EXPECT_THAT(result.err, HasSubstr("cannot read the SSH configuration '" + at("no-such-config") +
                                    "': No such file or directory\n"));
}

TEST_F(ConfigTest, WithoutTheSshProgramLibsshReadsTheFile) {
  std::string const file = config(sshConfigHostBlock("box", server()));
  ToolOptions noSsh;
  noSsh.environment = {"PATH=" + at("empty-bin")};
  fs::create_directory(at("empty-bin"));
  auto const result = configured(file, {"-H", "box", "exec", "echo", "parsed"}, noSsh);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "parsed\n");
}

TEST_F(ConfigTest, WithoutAUserMessagesNameTheLoginName) {
  std::string const file = config("Host box\n  HostName 127.0.0.1\n  Port " + std::to_string(closedPort()) + "\n");
  auto const result = configured(file, {"-H", "box", "exists", "/"});
  EXPECT_EQ(result.status, kConnection);
  EXPECT_THAT(result.err, StartsWith("sshfa: " + server().user() + "@box:"));
}

// ---- completion and manual ----------------------------------------------------------------

// The generated file of `kind`: next to an installed tool as installed,
// else as built.
std::string generatedFile(std::string const& kind) {
  if (char const* installed = std::getenv("SSHFA_TOOL"); installed != nullptr && *installed != '\0') {
    fs::path const share = fs::path(installed).parent_path().parent_path() / "share";
    if (kind == "bash") return (share / "bash-completion/completions/sshfa").string();
    if (kind == "zsh") return (share / "zsh/site-functions/_sshfa").string();
    return (share / "man/man1/sshfa.1").string();
  }
  fs::path const built = SSHFA_BUILT_GENERATED;
  if (kind == "bash") return (built / "sshfa.bash").string();
  if (kind == "zsh") return (built / "_sshfa").string();
  return (built / "sshfa.1").string();
}

// What bash's completion function offers for the words (the last one being
// completed).
std::string completions(std::string const& words) {
  ToolOptions options;
  options.program = "/bin/bash";
  return runTool({"-c",
                  "source \"$1\"; eval \"COMP_WORDS=($2)\"; COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
                  "[[ $2 == *' ' ]] && COMP_WORDS+=('') && COMP_CWORD=${#COMP_WORDS[@]}-1; _sshfa; "
                  "printf '%s\\n' \"${COMPREPLY[@]}\"",
                  "bash", generatedFile("bash"), words},
                 options)
      .out;
}

TEST(Completion, BashCompletesCommandsAndOptions) {
  EXPECT_EQ(completions("sshfa l"), "ls\n");
  EXPECT_EQ(completions("sshfa -H box un"), "untar\nunzip\n");
  EXPECT_EQ(completions("sshfa -p 22 mk"), "mkdir\n");
  EXPECT_EQ(completions("sshfa --ver"), "--version\n--verbose\n");
  EXPECT_EQ(completions("sshfa ls --rec"), "--recursive\n");
  EXPECT_EQ(completions("sshfa ls --qu"), "--quiet\n");
  EXPECT_EQ(completions("sshfa mkdir -"),
            "-p\n--parents\n-h\n--help\n--version\n-H\n--host\n-p\n-P\n--port\n-u\n--user\n"
            "-i\n--identity\n--agent\n--password-stdin\n--known-hosts\n--accept-new\n"
            "--keepalive\n--connect-timeout\n-F\n--ssh-config\n-J\n--jump\n--batch\n-z\n--compress\n"
            "--local\n--json\n-v\n--verbose\n-q\n--quiet\n--no-remote-completion\n");
  // Files after a file option and as operands.
  std::string const script = generatedFile("bash");
  std::string const folder = fs::path(script).parent_path().string();
  EXPECT_EQ(completions("sshfa -F " + script), script + "\n");
  EXPECT_EQ(completions("sshfa --local stat " + script), script + "\n");
  EXPECT_THAT(completions("sshfa --local stat " + folder + "/"), HasSubstr(script + "\n"));
}

// Names with blanks stay one word; Host aliases of the SSH configuration are
// offered after -H and, with a colon to go on, as transfer operands; after
// exec's command word nothing of ours is offered.
TEST(Completion, BashQuotesNamesAndOffersHostAliases) {
  fs::path const folder = TestSshd::makeTempDir();
  writeFile(folder / "with space.txt", "x");
  EXPECT_EQ(completions("sshfa --local stat " + folder.string() + "/wi"), folder.string() + "/with space.txt\n");

  std::string const config = (folder / "config").string();
  writeFile(config, "Host zzbox zzweb *.zzpattern\n  HostName 127.0.0.1\nhost zzother\n  Port 2222\n");
  EXPECT_EQ(completions("sshfa -F " + config + " -H zz"), "zzbox\nzzweb\nzzother\n");
  EXPECT_EQ(completions("sshfa -F " + config + " put x zz"), "zzbox:\nzzweb:\nzzother:\n");
  EXPECT_EQ(completions("sshfa -F " + config + " sync zzw"), "zzweb:\n");
  // Remote names only when asked for (and when the host answers within a second).
  EXPECT_EQ(completions("sshfa --no-remote-completion -F " + config + " put x zzbox:/"), "\n");  // no candidate

  EXPECT_EQ(completions("sshfa exec -"), "\n");                              // no candidate
  EXPECT_EQ(completions("sshfa -H box exec ls -"), "\n");                    // no candidate
  EXPECT_EQ(completions("sshfa exec ls " + folder.string() + "/wi"), "\n");  // no candidate
}

TEST(Completion, ZshScriptIsValidAndRegistersItself) {
  ToolOptions options;
  options.program = "/usr/bin/zsh";
  std::string const script = generatedFile("zsh");
  auto const syntax = runTool({"-n", script}, options);
  EXPECT_EQ(syntax.status, 0) << syntax.err;
  options.environment = {"HOME=" + TestSshd::makeTempDir().string()};
  auto const registered =
      runTool({"-fc", "fpath=(" + fs::path(script).parent_path().string() +
                          " $fpath); autoload -Uz compinit; compinit -u -D; print -r -- ${_comps[sshfa]}"},
              options);
  EXPECT_EQ(registered.status, 0) << registered.err;
  EXPECT_EQ(registered.out, "_sshfa\n");
  std::string const text = readFile(script);
  EXPECT_THAT(text, StartsWith("#compdef sshfa\n"));
  EXPECT_THAT(text, HasSubstr("'ls:Entries of folders"));
  EXPECT_THAT(text, HasSubstr("'(-R --recursive)'{-R,--recursive}'[Regular files at any depth"));
}

TEST(Manual, ManRendersThePage) {
  std::string const page = generatedFile("man");
  ToolOptions options;
  options.program = "/usr/bin/man";
  options.environment = {"MANWIDTH=100"};
  ToolResult shown;
  if (std::getenv("SSHFA_TOOL") != nullptr && *std::getenv("SSHFA_TOOL") != '\0') {
    // As a user finds it: by name, below the installed prefix.
    options.environment.push_back("MANPATH=" + fs::path(page).parent_path().parent_path().string());
    shown = runTool({"-P", "cat", "sshfa"}, options);
  } else {
    shown = runTool({"-l", "-P", "cat", page}, options);
  }
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_THAT(shown.out, HasSubstr("SSHFA(1)"));
  EXPECT_THAT(shown.out, HasSubstr("sshfa - Files on this machine and on one remote Unix host over SSH."));
  EXPECT_THAT(shown.out, HasSubstr("sshfa ls [OPTIONS] PATH..."));
  EXPECT_THAT(shown.out, HasSubstr("-J, --jump HOST"));
  EXPECT_THAT(shown.out, HasSubstr("Exit status: 0 success"));
  // The hand-written sections, between the generated ones.
  for (std::string const section : {"\nOPTIONS\n", "\nCOMMANDS\n", "\nCHOOSING FILES\n", "\nEXAMPLES\n", "\nFILES\n",
                                    "\nEXIT STATUS\n", "\nNOTES\n", "\nSEE ALSO\n"}) {
    EXPECT_THAT(shown.out, HasSubstr(section)) << section;
  }
  auto const at = [&](std::string const& text) { return shown.out.find(text); };
  EXPECT_LT(at("\nCOMMANDS\n"), at("\nCHOOSING FILES\n"));
  EXPECT_LT(at("\nCHOOSING FILES\n"), at("\nEXAMPLES\n"));
  EXPECT_LT(at("\nEXAMPLES\n"), at("\nFILES\n"));
  EXPECT_LT(at("\nFILES\n"), at("\nEXIT STATUS\n"));
  EXPECT_LT(at("\nEXIT STATUS\n"), at("\nSEE ALSO\n"));
  EXPECT_THAT(shown.out, HasSubstr("sshfa sync ./site build01:/srv/www/site\n"));
  EXPECT_THAT(shown.out, HasSubstr("DEST/.NAME.sshfa-partial-SIZE-MTIME\n"));
  for (std::string const status : {"0", "1", "2", "3", "130", "143"}) {
    EXPECT_THAT(shown.out, ::testing::ContainsRegex("\n       " + status + " +[A-Z]")) << status;
  }
  EXPECT_THAT(shown.out, HasSubstr("ssh(1), ssh_config(5), scp(1), sftp(1), rsync(1), test(1)"));
  // Every command and option of the definition is there.
  EXPECT_THAT(shown.out, HasSubstr("sshfa sync [OPTIONS] OPERANDS...\n       Make DESTINATION a copy of SOURCE"));
  EXPECT_THAT(shown.out, HasSubstr("Usage: sshfa [OPTIONS] sync [OPTIONS] SOURCE DESTINATION\n"));
  EXPECT_THAT(shown.out, HasSubstr("--bwlimit RATE"));
}

// ---- put and get into folders, with what they keep ---------------------------------

unsigned modeOf(std::string const& path) { return static_cast<unsigned>(fs::status(path).permissions()); }

std::int64_t mtimeOf(std::string const& path) {
  struct stat st {};
  ::lstat(path.c_str(), &st);
  return st.st_mtim.tv_sec;
}

void makeOld(std::string const& path) {
  struct timespec const times[2] = {{1'500'000'000, 0}, {1'500'000'000, 0}};
  ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

TEST_F(HabitsTest, ADestinationFolderReceivesTheSourceUnderItsOwnName) {
  writeFile(at("f.txt"), "f");
  fs::create_directories(at("r/existing"));
  EXPECT_EQ(remote({"put", at("f.txt"), at("r/existing")}).status, 0);
  EXPECT_EQ(readFile(at("r/existing/f.txt")), "f");
  // A trailing slash means a folder, made when missing.
  EXPECT_EQ(remote({"put", at("f.txt"), at("r/new/")}).status, 0);
  EXPECT_EQ(readFile(at("r/new/f.txt")), "f");
  // get into the current folder.
  fs::create_directories(at("here"));
  ToolOptions inHere;
  inHere.workingDirectory = at("here");
  auto const get = remote({"get", at("r/existing/f.txt"), "."}, inHere);
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_EQ(readFile(at("here/f.txt")), "f");
  // A folder source lands below an existing folder under its own name.
  fs::create_directories(at("back"));
  EXPECT_EQ(remote({"get", at("r/existing"), at("back")}).status, 0);
  EXPECT_EQ(readFile(at("back/existing/f.txt")), "f");
}

TEST_F(HabitsTest, SeveralSourcesGoIntoOneFolder) {
  writeFile(at("a"), "a");
  writeFile(at("tree/b"), "b");
  auto const put = remote({"put", "-r", at("a"), at("tree"), at("r/dest")});
  EXPECT_EQ(put.status, 0) << put.err;
  EXPECT_EQ(readFile(at("r/dest/a")), "a");
  EXPECT_EQ(readFile(at("r/dest/tree/b")), "b");
  auto const get = remote({"get", "-R", at("r/dest/a"), at("r/dest/tree"), at("l/")});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_EQ(readFile(at("l/a")), "a");
  EXPECT_EQ(readFile(at("l/tree/b")), "b");
  // Several sources and a file as the destination: the file is named.
  auto const blocked = remote({"put", at("a"), at("tree"), at("r/dest/a")});
  EXPECT_EQ(blocked.status, kFailed);
  EXPECT_THAT(blocked.err, HasSubstr("cannot make folder '" + at("r/dest/a") + "'"));
  EXPECT_THAT(blocked.err, HasSubstr("a file is in the way"));
}

TEST_F(HabitsTest, PutAndGetKeepModesTimesAndLinksUnlessTold) {
  writeFile(at("src/private"), "p");
  fs::permissions(at("src/private"), fs::perms::owner_read | fs::perms::owner_write);
  makeOld(at("src/private"));
  fs::create_symlink("private", at("src/link"));
  EXPECT_EQ(remote({"put", at("src"), at("kept")}).status, 0);
  EXPECT_EQ(modeOf(at("kept/private")), 0600U);
  EXPECT_EQ(mtimeOf(at("kept/private")), 1'500'000'000);
  EXPECT_EQ(fs::read_symlink(at("kept/link")), "private");

  auto const plain = remote({"get", "--no-perms", "--no-times", "-L", at("kept"), at("plain")});
  EXPECT_EQ(plain.status, 0) << plain.err;
  auto const mask = ::umask(0);
  ::umask(mask);
  EXPECT_EQ(modeOf(at("plain/private")), 0666U & ~static_cast<unsigned>(mask));
  EXPECT_NE(mtimeOf(at("plain/private")), 1'500'000'000);
  EXPECT_FALSE(fs::is_symlink(at("plain/link")));
  EXPECT_EQ(readFile(at("plain/link")), "p");
}

TEST_F(HabitsTest, PutReportsFoldersLinksAndSpecialFiles) {
  writeFile(at("src/a"), "abc");
  fs::create_directories(at("src/empty"));
  fs::create_symlink("a", at("src/link"));
  ASSERT_EQ(::mkfifo(at("src/pipe").c_str(), 0600), 0);
  auto const put = remote({"--json", "put", at("src"), at("r/copy")});
  EXPECT_EQ(put.status, 0) << put.err;
  json const totals = json::parse(put.out);
  EXPECT_EQ(totals["copied"], 1);
  EXPECT_EQ(totals["bytes"], 3);
  EXPECT_EQ(totals["folders"], 3);  // r, r/copy, r/copy/empty
  EXPECT_EQ(totals["links"], 1);
  EXPECT_EQ(totals["special"], 1);
  EXPECT_TRUE(totals.contains("seconds"));
  EXPECT_EQ(put.err, "sshfa: put: skipped '" + at("src/pipe") + "': a FIFO\n");
  EXPECT_TRUE(fs::is_directory(at("r/copy/empty")));

  auto const summary = remote({"put", at("src"), at("r/again")});
  EXPECT_THAT(summary.err, HasSubstr("put: copied 1 file, 3 B in "));
  EXPECT_THAT(summary.err, HasSubstr(", 1 link, 1 special file left out\n"));
}

}  // namespace
}  // namespace sshfa::testing
