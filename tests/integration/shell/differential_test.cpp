// Every command here runs once on an exec channel and once in the persistent
// shell: standard output, standard error and exit status must be identical,
// byte for byte. The exit status expected from the exec channel guards
// against both sides being wrong alike. The same holds under a login that
// talks on both streams every time it starts: what it says is no command's.

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/integration/shell/ShellTestHelpers.hpp"

namespace sshfa::testing {
namespace {

struct Case {
  Case(std::string caseName, ustring text, int status = 0, std::optional<ustring> stdoutText = std::nullopt)
      : name(std::move(caseName)), command(std::move(text)), exitcode(status), out(std::move(stdoutText)) {}
  std::string name;
  ustring command;
  int exitcode;
  std::optional<ustring> out;  // checked when given
};

void PrintTo(Case const& c, std::ostream* os) { *os << c.name; }

// printf with one octal escape per byte from `first` to `last`.
ustring printfBytes(int first, int last, char const* redirection) {
  std::string command = "printf '";
  for (int byte = first; byte <= last; ++byte) {
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\%03o", byte);
    command += escape;
  }
  return u(command + "'" + redirection);
}

// A command line of exactly 32768 UTF-16 code units: printf of a quoted
// payload of non-ASCII characters and apostrophes ('\'' when quoted).
ustring line32768() {
  ustring const prefix = u"printf '%s' '";
  ustring line;
  for (std::size_t i = 0; prefix.size() + line.size() + 5 <= 32768; ++i) line += i % 5 == 4 ? u"'\\''" : u"€";
  while (prefix.size() + line.size() + 1 < 32768) line += u"ä";
  return prefix + line + u"'";
}

std::vector<Case> cases() {
  std::vector<Case> list = {
      // Output and exit status.
      {"Echo", u"echo hello", 0, u"hello\n"},
      {"OutputWithoutTrailingNewline", u"printf 'no newline'", 0, u"no newline"},
      {"EmptyCommand", u"", 0, u""},
      {"OnlyNewlines", u"\n\n\n", 0, u""},
      {"OnlyBlanks", u"   \t ", 0, u""},
      {"OnlyAComment", u"# a comment with ' and \" unbalanced", 0, u""},
      {"TrailingComment", u"echo a # ' \" ( `", 0, u"a\n"},
      {"True", u"true", 0, u""},
      {"False", u"false", 1, u""},
      {"Exit3", u"exit 3", 3, u""},
      {"Exit255", u"exit 255", 255},
      {"Exit256WrapsToZero", u"exit 256", 0},
      {"ExitNegativeIsAnError", u"exit -1", 2},
      {"ExitAfterOutputOnBothStreams", u"echo out; echo err >&2; exit 7", 7, u"out\n"},
      {"ExitWithoutArgumentKeepsLastStatus", u"false; exit", 1},
      {"ReturnAtTopLevel", u"return 4; echo after", 4},
      {"StderrOnly", u"echo oops >&2", 0, u""},
      {"StderrBlanksAndCarriageReturn", u"printf '  \\r\\n' >&2"},
      {"StderrTab", u"printf '\\t' >&2"},
      {"InterleavedStreams", u"for i in 1 2 3; do echo o$i; echo e$i >&2; done", 0, u"o1\no2\no3\n"},
      {"CarriageReturns", u"printf 'a\\rb\\r\\n'", 0, u"a\rb\r\n"},
      {"SeqOfManyLines", u"seq 1 100000 | tail -n 2", 0, u"99999\n100000\n"},
      {"LongLineWithoutNewline", u"head -c 100000 /dev/zero | tr '\\0' x"},
      {"StatusOfLastPipelineElement", u"false | true; echo $?", 0, u"0\n"},
      {"SubshellExitStatus", u"(exit 9); echo $?", 0, u"9\n"},

      // exec and file descriptors.
      {"ExecReplacesTheShell", u"exec printf 'via exec'", 0, u"via exec"},
      {"ExecRedirectsStdout", u"exec >/dev/null; echo hidden; echo shown >&2", 0, u""},
      {"ExecClosesStdout", u"exec >&-; echo gone; echo still >&2; exit 4", 4, u""},
      {"ExecClosesBothStreams", u"exec >&- 2>&-; echo x; echo y >&2; exit 5", 5, u""},
      {"ExecSwapsStreams", u"exec 3>&1 1>&2 2>&3 3>&-; echo to-err; echo to-out >&2", 0, u"to-out\n"},
      {"ExecOfAMissingProgram", u"exec /nonexistent/program", 127},
      {"ExecWithoutCommand", u"exec; echo still here", 0, u"still here\n"},
      {"HighDescriptorsAreFree", u"exec 9>&1; echo via9 >&9; exec 8>&2; echo err8 >&8", 0, u"via9\n"},
      {"OpenDescriptors", u"ls /proc/self/fd", 0, u"0\n1\n2\n3\n"},
      {"StdinIsDevNull", u"readlink /proc/self/fd/0", 0, u"/dev/null\n"},
      {"StreamsArePipes", u"[ -p /dev/stdout ] && [ -p /dev/stderr ] && echo pipes", 0, u"pipes\n"},
      {"NoTerminal", u"[ -t 0 ] || [ -t 1 ] || [ -t 2 ] || echo none", 0, u"none\n"},
      {"WriteToDevStdout", u"echo direct >/dev/stdout; echo direct-err >/dev/stderr", 0, u"direct\n"},

      // Commands that try to read standard input.
      {"CatReadsNothing", u"cat; echo \"rc=$?\"", 0, u"rc=0\n"},
      {"ReadBuiltinSeesEndOfFile", u"read x; echo \"rc=$? [$x]\"", 0, u"rc=1 []\n"},
      {"HeadOfDevStdin", u"head -c 5 /dev/stdin | wc -c", 0, u"0\n"},
      {"DdFromStdin", u"dd bs=1 count=1 2>/dev/null | wc -c", 0, u"0\n"},
      {"CatOfDescriptorZero", u"cat <&0 | wc -c", 0, u"0\n"},

      // Errors the shell reports itself.
      {"CommandNotFound", u"no_such_command_xyz", 127, u""},
      {"CommandNotFoundAfterOutput", u"echo before\nno_such_command_xyz arg\necho after", 0, u"before\nafter\n"},
      {"NotExecutable", u"/etc/passwd", 126},
      {"NonAsciiCommandNotFound", u"grüße_€", 127},
      {"UnbalancedSingleQuote", u"echo 'unbalanced", 2, u""},
      {"UnbalancedDoubleQuote", u"echo \"unbalanced", 2, u""},
      {"UnbalancedBacktick", u"echo `unbalanced", 2},
      {"UnbalancedParenthesis", u"echo (", 2},
      {"StrayFi", u"fi", 2},
      {"SyntaxErrorOnLineTwo", u"echo first\nif then\necho third", 2, u"first\n"},
      {"SyntaxErrorOnLineThree", u"echo a\necho b\n)", 2, u"a\nb\n"},
      {"LeadingSemicolon", u"; echo x", 2},
      {"DoubleSemicolon", u"echo a;; echo b", 2},
      {"LeadingAmpersand", u"& echo x", 2},
      {"LeadingPipe", u"| cat", 2},
      {"UnterminatedIf", u"if true; then echo x", 2},
      {"NestedEvalSyntaxError", u"eval 'echo \"'; echo after", 2},
      {"DotOfAMissingFile", u". /nonexistent/file; echo after", 2},
      {"ShiftTooFar", u"shift; echo after", 2},
      {"SetUnknownOption", u"set -o pipefail; echo after", 2},
      {"ReadonlyAssignment", u"readonly r=1; r=2; echo after", 2},
      {"UnsetVariableUnderSetU", u"set -u; echo \"$undefined_variable\"; echo after", 2},
      {"ArithmeticDivisionByZero", u"echo $((1/0))", 2},
      {"ArithmeticSyntaxError", u"echo $((2**3))", 2},
      {"CdToAMissingFolder", u"cd /nonexistent_folder_xyz; echo \"rc=$?\"", 0},
      {"CdDashWithoutOldpwd", u"cd -; echo \"rc=$?\"", 0},

      // Multi-line text, comments, quoting.
      {"SeveralLines", u"echo one\necho two\n\necho three", 0, u"one\ntwo\nthree\n"},
      {"CrLfLines", u"echo a\r\necho b\r\n", 0, u"a\r\nb\r\n"},
      {"BackslashNewline", u"echo con\\\ntinued", 0, u"continued\n"},
      {"TrailingNewlinesAreDropped", u"echo x\n\n\n\n", 0, u"x\n"},
      {"TrailingBackslash", u"echo x\\", 0, u"x\\\n"},
      {"Apostrophes", u"echo \"it's\"; echo 'a'\\''b'", 0, u"it's\na'b\n"},
      {"QuotesAndEscapes", u"printf '%s\\n' \"a\\\"b\" 'c\\d' \"e\\\\f\" \"\\$g\"", 0, u"a\"b\nc\\d\ne\\f\n$g\n"},
      {"DollarSingleQuote", u"echo $'x'"},
      {"CommentsBetweenLines", u"# first\necho a # inline\n  # indented\necho b", 0, u"a\nb\n"},
      {"NonAsciiText", u"printf '%s' 'Grüße € 😀 日本'", 0, u"Grüße € 😀 日本"},
      {"NulInTheCommandText", ustring(u"echo a") + u'\0' + u"b; echo c", 0},

      // Here-documents.
      {"HereDocument", u"cat <<EOF\nline 1\n  line $((1+1))\nEOF", 0, u"line 1\n  line 2\n"},
      {"QuotedHereDocument", u"cat <<'EOF'\n$HOME `x` \\\nEOF", 0, u"$HOME `x` \\\n"},
      {"HereDocumentWithTabsStripped", u"cat <<-EOF\n\tindented\n\tEOF", 0, u"indented\n"},
      {"UnterminatedHereDocument", u"cat <<EOF\nno end"},
      {"HereDocumentBeforeTrailingNewlines", u"cat <<EOF\nx\nEOF\n\n\n", 0, u"x\n"},
      {"TwoHereDocumentsOnOneLine", u"cat <<A; cat <<B\na\nA\nb\nB", 0, u"a\nb\n"},
      {"HereDocumentWithNonAscii", u"cat <<'EOF'\n€ ' \"\nEOF", 0, u"€ ' \"\n"},

      // Shell state inside the command.
      {"ShellParameters", u"echo \"[$#] [$*] [$0]\"", 0, u"[0] [] [sh]\n"},
      {"ShellFlags", u"echo \"[$-]\""},
      {"StatusAtStart", u"echo \"[$?]\"", 0, u"[0]\n"},
      {"NoBackgroundPidAtStart", u"echo \"[$!]\"", 0, u"[]\n"},
      {"Lineno", u"echo \"[$LINENO]\"\necho \"[$LINENO]\""},
      {"SetPositionalParameters", u"set -- a 'b c'; echo \"$# $2\"", 0, u"2 b c\n"},
      {"Variables", u"x=1; echo \"$x\"; unset x; echo \"[${x-unset}]\"", 0, u"1\n[unset]\n"},
      {"FieldSplittingWithIfs", u"IFS=:; set -- $(echo a:b:c); echo $#", 0, u"3\n"},
      {"Functions", u"f() { echo \"in f $1\"; return 3; }; f arg; echo $?", 0, u"in f arg\n3\n"},
      {"ExitInsideAFunction", u"f() { exit 2; }; f; echo not reached", 2, u""},
      {"AliasUsedOnTheNextLine", u"alias hi='echo alias-hi'\nhi", 0, u"alias-hi\n"},
      {"AliasOnTheSameLineIsNotExpanded", u"alias hi2='echo x'; hi2", 127},
      {"TrapOnExit", u"trap 'echo bye' EXIT; echo hi", 0, u"hi\nbye\n"},
      {"TrapOnExitSeesTheStatus", u"trap 'echo \"bye $?\"' EXIT; exit 4", 4, u"bye 4\n"},
      {"ExitInsideTheExitTrap", u"trap 'exit 8' EXIT; true", 8},
      {"TrapListing", u"trap 'echo t' INT; trap", 0},
      {"NoTrapsAtStart", u"trap", 0, u""},
      {"NoAliasesAtStart", u"alias", 0, u""},
      {"NoHashedCommandsAtStart", u"hash", 0, u""},
      {"SetE", u"set -e; false; echo not reached", 1, u""},
      {"SetEInASubshell", u"set -e; (false); echo not reached", 1, u""},
      {"SetEIgnoredInAnAndOrList", u"set -e; false || true; echo reached", 0, u"reached\n"},
      {"SetX", u"set -x; echo traced", 0, u"traced\n"},
      {"OptionListing", u"set -o"},
      {"OptionListingAsCommands", u"set +o"},
      {"Umask", u"umask", 0},
      {"UmaskChanged", u"umask 077; umask; touch /dev/null", 0, u"0077\n"},
      {"UlimitOpenFiles", u"ulimit -n"},
      {"UlimitLowered", u"ulimit -n 64; ulimit -n", 0, u"64\n"},
      {"UlimitCore", u"ulimit -c"},
      {"WorkingFolder", u"pwd; echo \"$PWD\""},
      {"CdInsideTheCommand", u"cd /tmp && pwd", 0, u"/tmp\n"},
      {"Home", u"echo ~; echo \"$HOME\""},
      {"ExportToAChild", u"export FOO=bar; sh -c 'echo $FOO'", 0, u"bar\n"},
      // Less what names the connection: the two modes use two of them.
      {"Environment", u"env | grep -v '^SSH_C' | sort"},
      {"ExportedVariables", u"export -p | grep -v ' SSH_C'"},
      {"ShellVariables", u"set | grep -v '^PPID=\\|^SSH_C'"},
      {"ParentIsTheSameKindOfProcess", u"ps -o comm= -p $PPID"},
      {"OwnPidIsAlive", u"kill -0 $$ && echo alive", 0, u"alive\n"},
      {"CommandV", u"command -v sh; type cd", 0},
      {"NestedEval", u"eval 'echo nested'", 0, u"nested\n"},
      {"CommandSubstitution", u"echo \"$(echo inner; echo err >&2)\"", 0, u"inner\n"},
      {"CommandSubstitutionDropsTrailingNewlines", u"printf '[%s]' \"$(printf 'a\\n\\n\\n')\"", 0, u"[a]"},
      {"GlobWithoutMatch", u"echo /nonexistent*", 0, u"/nonexistent*\n"},
      {"Getopts", u"set -- -a -b x; while getopts ab: o; do echo \"$o $OPTARG\"; done", 0, u"a \nb x\n"},

      // Jobs and signals.
      {"BackgroundJobWaitedFor", u"sleep 0.2 & wait; echo done", 0, u"done\n"},
      {"WaitWithoutJobs", u"wait; echo $?", 0, u"0\n"},
      {"WaitForTheStatusOfAJob", u"(exit 6) & wait $!; echo $?", 0, u"6\n"},
      {"BackgroundOutputAfterTheShellEnds", u"(sleep 0.3; echo late) & echo early", 0, u"early\nlate\n"},
      {"BackgroundStderrAfterTheShellEnds", u"(sleep 0.3; echo late-err >&2) &", 0, u""},
      {"BackgroundJobThatLetGoOfTheStreams", u"sleep 3 >/dev/null 2>&1 & echo at once", 0, u"at once\n"},
      {"QuickBackgroundJobWithoutWait", u"echo a & echo b >&2", 0, u"a\n"},
      {"ChildKilledBySignal", u"sh -c 'kill -TERM $$'; echo \"status $?\"", 0, u"status 143\n"},
      {"LastCommandKilledBySignal", u"sh -c 'kill -KILL $$'", 137, u""},
      {"ChildKillingTheCommandsShell", u"(sh -c 'kill -9 $PPID'); echo \"st=$?\"", 137, u""},
      {"SleepThenOutput", u"sleep 0.3; echo slept", 0, u"slept\n"},

      // Binary and non-UTF-8 output, markers.
      {"EveryByteOnStdout", printfBytes(0, 255, ""), 0},
      {"EveryByteOnStderr", printfBytes(0, 255, " >&2"), 0},
      {"InvalidUtf8", u"printf 'a\\377\\376b\\303'; printf '\\200' >&2", 0},
      {"OutputIsAMarkerPrefix", u"printf sshfa; printf sshfa >&2", 0, u"sshfa"},
      {"OutputIsAMarkerPrefixWithNewline", u"printf 'sshfa\\n'; printf 'sshfa\\n' >&2", 0, u"sshfa\n"},
      {"OutputLooksLikeAMarkerLine",
       u"printf 'sshfa0123456789abcdef0123456789abcdef0\\n'; printf 'sshfa0123456789abcdef0123456789abcdef\\n' >&2", 0,
       u"sshfa0123456789abcdef0123456789abcdef0\n"},
      {"OutputLooksLikeANotRunNotice", u"printf 'sshfa0123456789abcdef0123456789abcdef-\\n'", 0,
       u"sshfa0123456789abcdef0123456789abcdef-\n"},
      {"OutputIsAStatusDigit", u"printf '0\\n'; printf '\\n' >&2", 0, u"0\n"},

      // Lists of builtins that the shell evaluates without a subshell.
      {"QueryOfAnExistingPath", u"test -e '/tmp' && echo 1", 0, u"1\n"},
      {"QueryOfAMissingPath", u"test -e '/nonexistent' && echo 1", 1, u""},
      {"QueryOfAFolderAsFile", u"test -f '/tmp' && echo 1", 1, u""},
      {"QueryWithAnApostropheAndANewline", u"test -d '/no/it'\\''s\nhere' && echo 1", 1, u""},
      {"BracketTest", u"[ -d /tmp ] && echo yes || echo no", 0, u"yes\n"},
      {"BracketWithoutItsClosingBracket", u"[ -e /tmp", 2, u""},
      {"TestOfABadNumber", u"test 1 -eq a", 2, u""},
      {"TestWithTooManyArguments", u"test a b c d", 2, u""},
      {"PrintfOfABadNumber", u"printf '%d\\n' x", 1},
      {"PrintfOfABadConversion", u"printf '%z'", 2},
      {"EchoWithEscapes", u"echo 'a\\tb\\c' after", 0, u"a\tb"},
      {"EscapedSpecialCharacters", u"echo \\$HOME \\* \\' \\;", 0, u"$HOME * ' ;\n"},
      {"ErrorsInTheMiddleOfAList", u"echo a; test 1 -eq x; echo b; false || echo c; printf '%d' y", 1, u"a\nb\nc\n0"},
      {"ColonAndTrailingSemicolon", u": 'ignored $(x)' && echo ok;", 0, u"ok\n"},
      {"ListWithoutBlanks", u"true&&false||echo x", 0, u"x\n"},
      {"MegabyteFromPrintf", u"printf '%01048576d' 0", 0},

      // Size.
      {"CommandLineOf32768CodeUnits", line32768(), 0},
      {"CommandOfOneMegabyte", u"printf '%s' '" + ustring(1u << 20, u'x') + u"' | wc -c", 0, u"1048576\n"},
      {"StderrBeforeStdout", u"head -c 8388608 /dev/zero | tr '\\0' e >&2; echo out", 0, u"out\n"},
      {"TwentyMegabytesOnBothStreams",
       u"head -c 20971520 /dev/zero | tr '\\0' a & head -c 20971521 /dev/zero | tr '\\0' b >&2; wait", 0},
  };
  return list;
}

class ShellMatchesExec : public ::testing::TestWithParam<Case> {
 protected:
  static void SetUpTestSuite() {
    exec_ = connectIn(ssh::CommandMode::ExecChannel);
    shell_ = connectIn(ssh::CommandMode::PersistentShell);
  }
  static void TearDownTestSuite() {
    exec_.reset();
    shell_.reset();
  }

  static std::unique_ptr<ssh::SSHClient> exec_;
  static std::unique_ptr<ssh::SSHClient> shell_;
};

std::unique_ptr<ssh::SSHClient> ShellMatchesExec::exec_;
std::unique_ptr<ssh::SSHClient> ShellMatchesExec::shell_;

void expectShellMatchesExec(Case const& c, ssh::SSHClient& exec, ssh::SSHClient& shell) {
  auto const viaExec = run(exec, c.command);
  auto const viaShell = run(shell, c.command);
  EXPECT_EQ(viaExec.getExitcode(), c.exitcode) << "exit status on the exec channel";
  if (c.out) {
    EXPECT_TRUE(sameText(viaExec.getStdout(), *c.out)) << "stdout on the exec channel";
  }
  EXPECT_EQ(viaShell.getExitcode(), viaExec.getExitcode()) << "exit status";
  EXPECT_TRUE(sameText(viaShell.getStdout(), viaExec.getStdout())) << "stdout";
  EXPECT_TRUE(sameText(viaShell.getStderr(), viaExec.getStderr())) << "stderr";
}

TEST_P(ShellMatchesExec, SameOutputAndExitStatus) { expectShellMatchesExec(GetParam(), *exec_, *shell_); }

INSTANTIATE_TEST_SUITE_P(Commands, ShellMatchesExec, ::testing::ValuesIn(cases()),
                         [](::testing::TestParamInfo<Case> const& param) { return param.param.name; });

// The account's bash reads $BASH_ENV whenever it starts, as a ~/.bashrc is
// read: a banner on standard output, a warning on standard error, and a line
// in a file that shows the script ran.
class ShellMatchesExecUnderATalkativeLogin : public ::testing::TestWithParam<Case> {
 protected:
  static void SetUpTestSuite() {
    std::filesystem::path const dir = TestSshd::makeTempDir();
    std::ofstream(dir / "login.sh") << "echo 'Welcome to the test host'\n"
                                       "echo 'warning: setlocale: LC_ALL: cannot change locale' >&2\n"
                                       "echo started >>'"
                                    << (dir / "starts").string() << "'\n";
    // At shell level 1 bash would read the start-up files of sshd's commands
    // (~/.bashrc) instead; level 2 makes it read $BASH_ENV.
    server_ = std::make_unique<TestSshd>("SetEnv BASH_ENV=" + (dir / "login.sh").string() + " SHLVL=1\n");
    exec_ = connectIn(ssh::CommandMode::ExecChannel, *server_);
    shell_ = connectIn(ssh::CommandMode::PersistentShell, *server_);
    run(*exec_, u"true");
    run(*shell_, u"true");
    // Both logins talked: the exec channel's and the persistent shell's.
    std::ostringstream starts;
    starts << std::ifstream(dir / "starts").rdbuf();
    talked_ = starts.str() == "started\nstarted\n";
  }
  static void TearDownTestSuite() {
    exec_.reset();
    shell_.reset();
    server_.reset();
  }
  void SetUp() override {
    if (!talked_) GTEST_SKIP() << "the login shell of " << server_->user() << " is not bash, which reads $BASH_ENV";
  }

  static std::unique_ptr<TestSshd> server_;
  static std::unique_ptr<ssh::SSHClient> exec_;
  static std::unique_ptr<ssh::SSHClient> shell_;
  static bool talked_;
};

std::unique_ptr<TestSshd> ShellMatchesExecUnderATalkativeLogin::server_;
std::unique_ptr<ssh::SSHClient> ShellMatchesExecUnderATalkativeLogin::exec_;
std::unique_ptr<ssh::SSHClient> ShellMatchesExecUnderATalkativeLogin::shell_;
bool ShellMatchesExecUnderATalkativeLogin::talked_ = false;

TEST_P(ShellMatchesExecUnderATalkativeLogin, SameOutputAndExitStatus) {
  expectShellMatchesExec(GetParam(), *exec_, *shell_);
}

INSTANTIATE_TEST_SUITE_P(Commands, ShellMatchesExecUnderATalkativeLogin, ::testing::ValuesIn(cases()),
                         [](::testing::TestParamInfo<Case> const& param) { return param.param.name; });

TEST(ShellMatchesExecList, HasAtLeastAHundredCommands) { EXPECT_GE(cases().size(), 100u); }

}  // namespace
}  // namespace sshfa::testing
