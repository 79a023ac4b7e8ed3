#include "tools/sshfa/Cli.hpp"

#include <unistd.h>

#include <fcntl.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <set>

#include "sshfileaccess/FileAccessException.hpp"
#include "tools/sshfa/Commands.hpp"
#include "tools/sshfa/Completion.hpp"
#include "tools/sshfa/Connection.hpp"
#include "tools/sshfa/Demo.hpp"
#include "tools/sshfa/Generate.hpp"
#include "tools/sshfa/Interrupt.hpp"
#include "tools/sshfa/Json.hpp"
#include "tools/sshfa/Messages.hpp"
#include "tools/sshfa/RemoteOperand.hpp"
#include "tools/sshfa/Text.hpp"
#include "tools/sshfa/Trace.hpp"
#include "tools/sshfa/Transfer.hpp"
#include "tools/sshfa/TransferRules.hpp"

namespace sshfa::cli {
namespace {

namespace sfa = nimbal::remoteaccess::sshfileaccess;
namespace ssh = foundation::sshclient;

constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kConnection = 3;

constexpr char const* kFooter = R"(Exit status: 0 success; 1 an operation failed, or exists, isfile or isdir
answered false; 2 usage error; 3 connection, host key or authentication
failure; 130, 143 interrupted (SIGINT, SIGTERM); exec: the command's own status.

Paths are taken as they are written (no globbing on either side). Commands
that take paths take many and send them in few round trips:
  sshfa -H host stat a b c
cp and mv take pairs: SOURCE DESTINATION [SOURCE DESTINATION ...].
sync SOURCE DESTINATION makes the destination a copy of the source, whether
or not it exists, so the same command repeats exactly (and resumes):
  sshfa sync ./site host:/srv/www/site
put and get take SOURCE... DESTINATION, as cp and scp do: a destination that
is an existing folder or ends with / receives each source under its own
name. They copy folder trees whole (empty folders too) and keep modes and
times (--no-perms, --no-times) and symbolic links as links (-L follows them).
put, get and sync take the remote side as [USER@]HOST:PATH, as scp does
(sshfa put notes.txt box:/srv/notes.txt); HOST: alone and HOST:~/ are the
login folder, a relative PATH starts there, and a local name with a colon is
written ./a:b. Names that begin with - follow --.

Output is one entry per line; on a terminal, control characters and bytes
that are not UTF-8 in names are shown escaped (\n, \x1b, \xff, \u202e).
--json prints one JSON document for every command, also when it succeeds;
bytes that are not UTF-8 appear there as \udc80..\udcff (Python's
surrogateescape convention). A failure prints {"error": MESSAGE, "exitCode":
STATUS} on standard output as well.)";

struct Invocation {
  ConnectionSettings connection;
  bool local = false;
  bool json = false;
  bool verbose = false;
  bool quiet = false;
  std::string generate;        // bash, zsh or man: print that file instead of running a command
  std::string completeRemote;  // HOST:PREFIX: print the remote names that complete it
  bool noRemoteCompletion = false;
  FileCommand file;
  std::string firstOperand;  // of the commands that take two
  std::string secondOperand;
  bool recursive = false;
  bool parents = false;
  std::vector<std::string> pairs;
  TransferFlags transfer;
  std::string bwlimit;
  bool archive = false;
  std::vector<std::string> words;
  bool noInput = false;  // exec: standard input not read
  DemoSettings demo;
};

std::string lowered(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

void say(std::string const& text) {
  std::string const line = "sshfa: " + forStream(STDERR_FILENO, text) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

// Ends the command: the message and the hint on standard error (each line
// prefixed) and, with --json, one object {"error": MESSAGE, "exitCode": ...}
// on standard output.
int failWith(bool json, int status, std::string const& message, std::string const& hint = {}) {
  std::size_t start = 0;
  while (start <= message.size()) {
    std::size_t const end = std::min(message.find('\n', start), message.size());
    say(message.substr(start, end - start));
    start = end + 1;
  }
  if (!hint.empty()) say(hint);
  if (json) writeTo(stdout, document({{"error", message}, {"exitCode", status}}));
  return status;
}

// Whether --json was asked for, read from the words themselves: a command
// line that failed to parse has set nothing.
bool wantsJson(std::vector<char*> const& args) {
  for (std::size_t i = 1; i < args.size(); ++i) {
    if (std::string(args[i]) == "--") break;
    if (std::string(args[i]) == "--json") return true;
  }
  return false;
}

bool isConnectionFailure(ssh::SSHError::Kind kind) {
  switch (kind) {
    case ssh::SSHError::Kind::Connect:
    case ssh::SSHError::Kind::HostKeyUnknown:
    case ssh::SSHError::Kind::HostKeyChanged:
    case ssh::SSHError::Kind::Authentication:
    case ssh::SSHError::Kind::Timeout:
    case ssh::SSHError::Kind::ConnectionLost:
      return true;
    case ssh::SSHError::Kind::Channel:
    case ssh::SSHError::Kind::Transfer:
    case ssh::SSHError::Kind::NoShell:
      return false;
  }
  return false;
}

// The client's messages speak of its options; name the tool's flag.
std::string hintFor(ssh::SSHError::Kind kind) {
  return kind == ssh::SSHError::Kind::HostKeyUnknown ? " [sshfa: --accept-new]" : std::string();
}

int interruptedStatus(bool json, int signalNumber) { return failWith(json, 128 + signalNumber, "interrupted"); }

void addConnectionOptions(CLI::App& app, Invocation& inv) {
  auto* group = "Connection";
  app.add_option("-H,--host", inv.connection.host,
                 "Remote host: name, address or ~/.ssh/config alias ([USER@]HOST); put and get also take "
                 "HOST:PATH")
      ->group(group);
  app.add_option("-p,-P,--port", inv.connection.port,
                 "SSH port (default: from the SSH configuration, else 22); -P as scp has it")
      ->check(CLI::Range(1, 65535))
      ->group(group);
  app.add_option("-u,--user", inv.connection.user, "Login name (default: from the SSH configuration, else yours)")
      ->group(group);
  app.add_option("-i,--identity", inv.connection.identityFile, "Private key file; asks for its passphrase if needed")
      ->group(group);
  app.add_flag("--agent", inv.connection.agent, "Authenticate through the SSH agent ($SSH_AUTH_SOCK)")->group(group);
  app.add_flag("--password-stdin", inv.connection.passwordFromStdin,
               "Read the password from the first line of standard input")
      ->group(group);
  app.add_option("--known-hosts", inv.connection.knownHostsFile,
                 "known_hosts file to check the host key against (default: ~/.ssh/known_hosts)")
      ->group(group);
  app.add_flag("--accept-new", inv.connection.acceptNewHostKey,
               "Add an unknown host's key to known_hosts (a changed key is still refused)")
      ->group(group);
  app.add_option_function<long>(
         "--keepalive", [&inv](long seconds) { inv.connection.keepalive = std::chrono::seconds(seconds); },
         "Keep-alive interval in seconds while waiting on the server (default 30; 0: none, and a frozen server is "
         "waited for forever)")
      ->check(CLI::Range(0L, 86400L))
      ->group(group);
  app.add_option_function<long>(
         "--connect-timeout", [&inv](long seconds) { inv.connection.connectTimeout = std::chrono::seconds(seconds); },
         "Seconds to wait for the connection (default 30)")
      ->check(CLI::Range(1L, 3600L))
      ->group(group);
  app.add_option("-F,--ssh-config", inv.connection.sshConfigFile,
                 "SSH configuration file instead of ~/.ssh/config (resolved by ssh -G when ssh is installed)")
      ->group(group);
  app.add_option("-J,--jump", inv.connection.proxyJump,
                 "Jump hosts to reach the host through ([USER@]HOST[:PORT][,...]), like ssh -J")
      ->group(group);
  app.add_flag("--batch", inv.connection.batch, "Never ask anything on the terminal")->group(group);
  app.add_flag("-z,--compress", inv.connection.compression,
               "Compress the connection (zlib, as ssh -C); -v shows what the server agreed to")
      ->group(group);
}

CLI::App* addPathCommand(CLI::App& app, Invocation& inv, std::string const& name, std::string const& description,
                         std::string const& operandName) {
  auto* sub = app.add_subcommand(name, description);
  sub->add_option(operandName, inv.file.args, "Paths")->required();
  return sub;
}

CLI::App* addPairCommand(CLI::App& app, std::vector<std::string>& target, std::string const& name,
                         std::string const& description) {
  auto* sub = app.add_subcommand(name, description);
  sub->add_option("PAIRS", target, "SOURCE DESTINATION [SOURCE DESTINATION ...]")->required();
  return sub;
}

CLI::App* addTransferCommand(CLI::App& app, Invocation& inv, std::string const& name, std::string const& description,
                             std::string const& operands) {
  auto* sub = app.add_subcommand(name, description);
  sub->add_option("OPERANDS", inv.pairs, operands)->required();
  sub->add_flag("--no-perms", inv.transfer.noPermissions,
                "Do not keep modes: new files get 0666 and folders 0777, less the umask");
  sub->add_flag("--no-times", inv.transfer.noTimes, "Do not keep modification times");
  sub->add_flag("--keep-special-bits", inv.transfer.keepSpecialBits, "Keep setuid, setgid and sticky too");
  sub->add_flag("-L,--follow-links", inv.transfer.followLinks,
                "Copy what symbolic links point to instead of the links");
  sub->add_flag("-r,-R,--recursive", inv.recursive, "Accepted for habit; folders are always copied whole");
  sub->add_flag("-I,--ignore-times", inv.transfer.ignoreTimes,
                "Copy every file, also those of the same size and modification time as their source");
  sub->add_flag("-c,--checksum", inv.transfer.checksum,
                "Leave a file alone only when its size and SHA-256 equal the source's");
  sub->add_flag("-u,--update", inv.transfer.update,
                "Leave destination files that are newer than their source alone, as rsync -u does (after the "
                "command, -u is this; name the user with --user, or -u before the command)");
  sub->add_flag("--delete", inv.transfer.deleteExtraneous,
                "Remove what a destination folder holds beyond its source, after every copy succeeded");
  sub->add_flag("-n,--dry-run", inv.transfer.dryRun, "Print what would be copied, skipped and deleted; change nothing");
  sub->add_flag("--no-resume", inv.transfer.noResume,
                "Start interrupted files over, and keep nothing of a file when interrupted");
  auto* const delta = sub->add_flag("--delta", inv.transfer.delta,
                                    "Send a changed file as the blocks that differ from its old version, "
                                    "also where the link is fast (default: where that is measured to pay)");
  sub->add_flag("-W,--whole-file", inv.transfer.wholeFile, "Send changed files whole, never as deltas")
      ->excludes(delta);
  sub->add_flag("--progress", inv.transfer.progress, "Draw the progress line also when standard error is no terminal");
  sub->add_option("--bwlimit", inv.bwlimit,
                  "Send (or fetch) at most RATE bytes of file data a second: 1M, 512K, 2.5M, 100000 (K, M, G: "
                  "powers of 1024)")
      ->type_name("RATE");
  sub->add_option("--channels", inv.transfer.channels,
                  "Carry the files over N SFTP channels of the one connection (1 to 16; fewer when the server "
                  "refuses more). Default: chosen from the round trip, 2 on a short link, up to 4")
      ->type_name("N")
      ->check(CLI::Range(1, 16));
  sub->add_flag("-a,--archive", inv.archive,
                "Accepted for habit: modes, times and links are always kept, folders copied whole");
  auto const* const choosing = "Choosing files (rsync's rules; the first that matches decides)";
  auto const repeatable = [&](std::string const& option, std::vector<std::string>& values, std::string const& what,
                              std::string const& type) {
    sub->add_option(option, values, what)->type_name(type)->allow_extra_args(false)->group(choosing);
  };
  repeatable("--exclude", inv.transfer.excludes, "Leave out what PATTERN matches", "PATTERN");
  repeatable("--include", inv.transfer.includes, "Take what PATTERN matches", "PATTERN");
  repeatable("--exclude-from", inv.transfer.excludesFrom, "--exclude each pattern of FILE ('#' comments)", "FILE");
  repeatable("--include-from", inv.transfer.includesFrom, "--include each pattern of FILE ('#' comments)", "FILE");
  repeatable("--filter", inv.transfer.filterRules, "One rule: '- PATTERN', '+ PATTERN', 'P PATTERN', ...", "RULE");
  sub->add_flag("--gitignore", inv.transfer.gitignore,
                "Leave out what the source tree's .gitignore files ignore, and .git itself")
      ->group(choosing);
  sub->add_flag("--delete-excluded", inv.transfer.deleteExcluded, "--delete, also removing what the rules leave out")
      ->group(choosing);
  sub->add_flag("--ignore-suspect-names", inv.transfer.ignoreSuspectNames,
                "Skip names a server lists that are not plain names (\"..\", \"a/b\") with a warning, "
                "instead of failing");
  return sub;
}

CLI::App* addTwoOperandCommand(CLI::App& app, Invocation& inv, std::string const& name, std::string const& description,
                               std::string const& first, std::string const& second) {
  auto* sub = app.add_subcommand(name, description);
  sub->add_option(first, inv.firstOperand, "The " + lowered(first))->required();
  sub->add_option(second, inv.secondOperand, "The " + lowered(second))->required();
  return sub;
}

// The option `arg` names ("--x=1" names "--x"), among the command's own
// options first, then the tool's; null when neither has it.
CLI::Option const* optionNamed(CLI::App const& app, CLI::App const* command, std::string const& arg) {
  auto const name = arg.substr(0, arg.find('='));
  if (command != nullptr) {
    if (auto const* option = command->get_option_no_throw(name)) return option;
  }
  return app.get_option_no_throw(name);
}

// The words of the command line up to "--" that are neither options nor
// their values: the command (the first, when it names one) and its operands.
struct Words {
  std::size_t command = 0;  // its position in args; 0: none
  CLI::App const* sub = nullptr;
  std::vector<std::size_t> operands;  // positions in args
  std::vector<std::size_t> unknown;   // options that neither the command nor the tool has
  std::size_t end = 0;                // the position of "--", or args.size()
};

Words wordsOf(CLI::App const& app, std::vector<char*> const& args) {
  Words words;
  words.end = args.size();
  for (std::size_t i = 1; i < args.size(); ++i) {
    std::string const arg = args[i];
    if (arg == "--") {
      words.end = i;
      break;
    }
    if (arg.size() > 1 && arg.front() == '-') {
      CLI::Option const* option = optionNamed(app, words.sub, arg);
      // A cluster of short flags (-rL) or a short option with its value (-p22).
      if (option == nullptr && arg[1] != '-') option = optionNamed(app, words.sub, arg.substr(0, 2));
      if (option == nullptr) {
        words.unknown.push_back(i);
        continue;
      }
      // An option that takes a value consumes the next argument.
      bool const valueAttached = arg.find('=') != std::string::npos || (arg[1] != '-' && arg.size() > 2);
      if (option->get_items_expected_min() > 0 && !valueAttached) ++i;
      continue;
    }
    if (words.command == 0 && words.operands.empty()) {
      words.command = i;
      for (auto const* sub : app.get_subcommands({})) {
        if (sub->get_name() == arg) words.sub = sub;
      }
      continue;
    }
    words.operands.push_back(i);
  }
  return words;
}

// "--" ends the options for every command: the operands before it move
// behind it, so that the parser hands all of them to the command (it would
// take the ones behind "--" for the tool's own once the command had enough).
std::vector<char*> operandsBehindDoubleDash(CLI::App const& app, std::vector<char*> args) {
  auto const words = wordsOf(app, args);
  if (words.sub == nullptr || words.end == args.size()) return args;
  std::set<std::size_t> const moved(words.operands.begin(), words.operands.end());
  std::vector<char*> out;
  for (std::size_t i = 0; i < words.end; ++i) {
    if (moved.count(i) == 0) out.push_back(args[i]);
  }
  out.push_back(args[words.end]);
  for (auto const i : words.operands) out.push_back(args[i]);
  out.insert(out.end(), args.begin() + static_cast<std::ptrdiff_t>(words.end) + 1, args.end());
  return out;
}

// "unknown option '--recusive'; did you mean '--recursive'?": among the
// command's options and the tool's, long ones for "--x", all for "-x".
std::string unknownOption(CLI::App const& app, CLI::App const* command, std::string const& arg) {
  auto const name = arg.substr(0, arg.find('='));
  std::vector<std::string> names;
  for (auto const* owner : {command, &app}) {
    if (owner == nullptr) continue;
    for (auto const* option : owner->get_options()) {
      if (option->get_positional()) continue;
      for (auto const& longName : option->get_lnames()) names.push_back("--" + longName);
      if (!name.starts_with("--")) {
        for (auto const& shortName : option->get_snames()) names.push_back("-" + shortName);
      }
    }
  }
  // A short option is one letter: any other is near it; only its other case is a slip worth naming.
  std::string nearest;
  if (name.starts_with("--")) {
    nearest = nearestName(name, names);
  } else if (name.size() == 2) {
    auto const other = static_cast<char>(std::isupper(static_cast<unsigned char>(name[1])) != 0
                                             ? std::tolower(static_cast<unsigned char>(name[1]))
                                             : std::toupper(static_cast<unsigned char>(name[1])));
    if (std::find(names.begin(), names.end(), std::string{'-', other}) != names.end())
      nearest = std::string{'-', other};
  }
  std::string const where = command != nullptr ? command->get_name() + ": " : std::string();
  // The command's own option, typed before the command.
  if (command != nullptr && nearest == name) {
    return where + "'" + name + "' is an option of " + command->get_name() + " and goes after it (sshfa " +
           command->get_name() + " " + name + " ...)";
  }
  return where + "unknown option '" + name + "'" + (nearest.empty() ? "" : "; did you mean '" + nearest + "'?");
}

// The parser's complaint in the tool's words: an unknown command or option
// with the nearest known one, a missing operand by the name the help gives
// it.
std::string describeParseError(CLI::App const& app, CLI::ParseError const& error, std::vector<char*> const& args) {
  auto const words = wordsOf(app, args);
  if (!words.unknown.empty()) return unknownOption(app, words.sub, args[words.unknown.front()]);
  auto const chosen = app.get_subcommands();
  if (chosen.empty()) {
    if (words.command == 0) return "no command given; run 'sshfa --help' for the list of commands";
    std::string const word = args[words.command];
    std::vector<std::string> names;
    for (auto const* sub : app.get_subcommands({})) names.push_back(sub->get_name());
    std::string const nearest = nearestName(word, names);
    return "unknown command '" + word + "'" +
           (nearest.empty() ? "; run 'sshfa --help' for the list of commands" : "; did you mean '" + nearest + "'?");
  }
  CLI::App const* sub = chosen.front();
  std::string const name = sub->get_name();
  for (auto const* option : sub->get_options()) {
    if (option->get_positional() && option->get_required() && option->count() == 0) {
      std::string usage = usageLine(*sub);
      if (usage.rfind("Usage: ", 0) == 0) usage.replace(0, 1, "u");
      return name + ": missing " + option->get_name() + " (" + usage + ")";
    }
  }
  return name + ": " + error.what();
}

// The remote side's operands of a transfer, relative to the login folder
// ("~/x" is "x"); sync's destination must name the copy.
std::vector<std::string> transferPaths(std::string const& name, bool upload, std::vector<std::string> const& typed,
                                       ConnectionSettings& connection) {
  auto paths = takeRemoteOperands(name, upload, typed, connection);
  for (std::size_t i = 0; i < paths.size(); ++i) {
    bool const last = i + 1 == paths.size();
    if (upload == last) paths[i] = homeRelative(name, paths[i]);
  }
  if (name == "sync") refuseWholeFolderDestination(paths[1], typed[1], typed[0], upload);
  return paths;
}

int dispatch(CLI::App const& app, Invocation& inv) {
  CLI::App const* chosen = app.get_subcommands().front();
  std::string const name = chosen->get_name();
  inv.file.name = name;
  inv.file.json = inv.json;
  inv.file.recursive = inv.recursive;
  if (name == "cp" || name == "mv") {
    refuseRemoteOperands(name, inv.pairs);
    inv.file.args = inv.pairs;
  }
  if (name == "tar" || name == "untar" || name == "zip" || name == "unzip") {
    inv.file.args = {inv.firstOperand, inv.secondOperand};
  }
  if (inv.verbose) enableTrace();
  inv.connection.verbose = inv.verbose;

  if (name == "demo") {
    if (inv.local) throw UsageError("demo starts its own server; --local does not apply");
    inv.demo.json = inv.json;
    return runDemo(inv.demo);
  }
  bool const transfer = name == "put" || name == "get" || name == "sync";
  if (inv.local) {
    if (transfer || name == "exec") throw UsageError(name + " works on the remote host; --local does not apply");
    sfa::LocalFileAccess local;
    return runFileCommand(local, inv.file);
  }
  TransferCommand command;
  if (transfer) {
    command.name = name;
    command.json = inv.json;
    command.typed = inv.pairs;
    command.upload = name == "sync" ? syncUploads(inv.pairs) : name == "put";
    command.paths = transferPaths(name, command.upload, inv.pairs, inv.connection);
    if (!inv.bwlimit.empty()) {
      auto const rate = parseRate(inv.bwlimit);
      if (!rate) {
        throw UsageError(name + ": --bwlimit '" + inv.bwlimit +
                         "' is no rate; give bytes per second: 1M, 512K, 2.5M, 100000 (K, M, G: powers of 1024)");
      }
      inv.transfer.bytesPerSecond = *rate;
    }
    std::vector<std::string> order;
    for (auto const* option : chosen->parse_order()) order.push_back(option->get_name());
    inv.transfer.verbose = inv.verbose;
    inv.transfer.quiet = inv.quiet;
    inv.transfer.filter = buildFilter(inv.transfer, order);
    command.flags = inv.transfer;
  }
  if (inv.connection.host.empty()) {
    throw UsageError(transfer ? name + " needs the remote host: -H HOST, or HOST:PATH on the remote side"
                              : "-H/--host is required (or --local for the local machine)");
  }
  if (name == "exec" && inv.words.empty()) throw UsageError("exec needs a command");

  ProgressRouter progress;
  auto const access = connect(inv.connection, progress);
  if (transfer) return runTransfer(*access, progress, command);
  if (name == "exec") return runExec(*access, inv.words, inv.json, inv.noInput);
  return runRemoteFileCommand(*access, inv.file);
}

// Everything after "exec" is the remote command, in order and options
// included (sshfa -H host exec ls -la /tmp), so it is taken out before the
// parser sees it. Returns the arguments left for the parser.
std::vector<char*> splitOffExecWords(CLI::App const& app, int argc, char** argv, std::vector<std::string>& words) {
  std::vector<char*> kept(argv, argv + argc);
  auto const found = wordsOf(app, kept);
  if (found.command == 0 || std::string(argv[found.command]) != "exec") return kept;
  auto const i = static_cast<int>(found.command);
  int first = i + 1;
  if (first < argc && (std::string(argv[first]) == "-h" || std::string(argv[first]) == "--help")) return kept;
  // exec's own flag -n comes first; the words after it are the command's.
  bool const noInput = first < argc && std::string(argv[first]) == "-n";
  if (noInput) ++first;
  if (first < argc && std::string(argv[first]) == "--") ++first;
  words.assign(argv + first, argv + argc);
  kept.resize(static_cast<std::size_t>(i) + 1);
  if (noInput) kept.push_back(argv[i + 1]);
  return kept;
}

// A closed standard descriptor would be taken by the next file or socket the
// tool opens (exec would take the SSH connection for its standard input):
// /dev/null holds its place instead.
void holdStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF) ::open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);
  }
}

}  // namespace

int run(int argc, char** argv) {
  holdStandardDescriptors();
  Invocation inv;
  CLI::App app{"Files on this machine and on one remote Unix host over SSH.", "sshfa"};
  app.set_version_flag("--version", "sshfa " SSHFA_VERSION);
  app.require_subcommand(1);
  // Options of the tool may also follow the command: sshfa ls -H host /tmp
  app.fallthrough();
  addConnectionOptions(app, inv);
  app.add_flag("--local", inv.local, "Work on the local machine instead (needs no connection)");
  app.add_flag("--json", inv.json, "Print answers as JSON");
  app.add_flag("-v,--verbose", inv.verbose, "Trace commands and transfers on standard error");
  app.add_flag("-q,--quiet", inv.quiet, "No progress and no summary; failures are still reported");
  // The completion scripts and the manual page, made from this definition.
  app.add_option("--generate", inv.generate)->check(CLI::IsMember({"bash", "zsh", "man"}))->group("");
  // The completion scripts ask for remote names with it.
  app.add_option("--complete-remote", inv.completeRemote)->group("");
  app.add_flag("--no-remote-completion", inv.noRemoteCompletion,
               "Completion: never connect to complete HOST:PATH (otherwise tried for at most a second)")
      ->group("Completion");

  addPathCommand(app, inv, "exists",
                 "Whether something exists at each path (true/false); exit status 1 when any does not, as test does",
                 "PATH");
  addPathCommand(app, inv, "isfile", "Whether each path is a regular file; exit status 1 when any is not", "PATH");
  addPathCommand(app, inv, "isdir", "Whether each path is a folder; exit status 1 when any is not", "PATH");
  addPathCommand(app, inv, "parent", "The parent folder of each path, computed from its text", "PATH");
  addPathCommand(app, inv, "ls",
                 "Entries of folders (remote: without hidden ones), a file as itself; -R: files below, any depth",
                 "PATH")
      ->add_flag("-R,--recursive", inv.recursive, "Regular files at any depth instead of the entries");
  addPathCommand(app, inv, "stat", "Size and modification time (UTC) of each path", "PATH");
  addPathCommand(app, inv, "touch", "Create missing files and set the modification time to now", "PATH");
  addPathCommand(app, inv, "rm",
                 "Remove files and folders with everything in them; a missing path is no failure (exit status 0), "
                 "as with rm -f",
                 "PATH");
  addPathCommand(app, inv, "mkdir", "Create folders with every missing folder above them", "FOLDER")
      ->add_flag("-p,--parents", inv.parents, "Accepted for habit; missing parents are always created");
  addPairCommand(app, inv.pairs, "cp", "Copy files or folders, on one side");
  addPairCommand(app, inv.pairs, "mv", "Move or rename files or folders, on one side");
  addTwoOperandCommand(app, inv, "tar", "Pack a file or folder into an uncompressed tar archive", "SOURCE", "ARCHIVE");
  addTwoOperandCommand(app, inv, "untar", "Unpack a tar archive (plain or compressed) into an existing folder",
                       "ARCHIVE", "FOLDER");
  addTwoOperandCommand(app, inv, "zip", "Pack a file or folder into a zip archive", "SOURCE", "ARCHIVE");
  addTwoOperandCommand(app, inv, "unzip", "Unpack a zip archive into a folder", "ARCHIVE", "FOLDER");
  addTransferCommand(app, inv, "put", "Copy local files or folder trees to the remote host (LOCAL... REMOTE)",
                     "SOURCE... DESTINATION");
  addTransferCommand(app, inv, "get", "Copy remote files or folder trees to this machine (REMOTE... LOCAL)",
                     "SOURCE... DESTINATION");
  addTransferCommand(app, inv, "sync",
                     "Make DESTINATION a copy of SOURCE, one of them HOST:PATH; the same command repeats exactly",
                     "SOURCE DESTINATION")
      ->footer(
          "Usage: sshfa [OPTIONS] sync [OPTIONS] SOURCE DESTINATION\n"
          "One of SOURCE and DESTINATION is on this machine, the other [USER@]HOST:PATH. DESTINATION becomes the "
          "copy of SOURCE whether or not it exists (put and get would copy into an existing folder), so running "
          "the same command again sends only what changed, continues what an interrupted run began, and with "
          "--delete removes what SOURCE no longer has. A trailing / on either changes nothing.");
  auto* exec = app.add_subcommand("exec",
                                  "Run a command with the remote shell; prints its output, exits with its "
                                  "status");
  exec->add_flag("-n,--no-stdin", inv.noInput,
                 "Do not read standard input (the command reads end-of-file); must follow exec directly");
  exec->footer(
      "Usage: sshfa [OPTIONS] exec [-n] [--] COMMAND [ARGUMENTS...]\n"
      "Everything after exec is the remote command, options included; the words are joined with blanks and run by "
      "the remote POSIX shell, so quote what that shell should see as one word. Output is shown as it arrives, "
      "standard input is passed on until its end, Ctrl-C stops the command (exit status 130).");
  auto* demo = app.add_subcommand("demo", "A tour of the library against a private sshd on 127.0.0.1");
  demo->add_option("--files", inv.demo.files, "Files in the demo tree")->check(CLI::Range(10, 100000));

  app.footer(kFooter);  // set last: subcommands would inherit it

  std::vector<char*> parsed = operandsBehindDoubleDash(app, splitOffExecWords(app, argc, argv, inv.words));
  bool const json = wantsJson(parsed);
  // The generator and the completion's helper need no command.
  if (std::any_of(parsed.begin(), parsed.end(), [](char const* arg) {
        return std::string(arg) == "--generate" || std::string(arg) == "--complete-remote";
      })) {
    app.require_subcommand(0, 1);
  }
  try {
    app.parse(static_cast<int>(parsed.size()), parsed.data());
  } catch (CLI::Success const& e) {
    return app.exit(e);
  } catch (CLI::ParseError const& e) {
    return failWith(json, kUsage, describeParseError(app, e, parsed),
                    "run 'sshfa --help' (or 'sshfa COMMAND --help') for usage");
  }
  if (!inv.generate.empty()) {
    writeTo(stdout, generated(app, inv.generate));
    return 0;
  }
  if (!inv.completeRemote.empty()) {
    try {
      return completeRemote(inv.connection, inv.completeRemote);
    } catch (std::exception const&) {
      return 1;  // nothing to offer; the line being typed is no place for messages
    }
  }

  try {
    return dispatch(app, inv);
  } catch (UsageError const& e) {
    return failWith(json, kUsage, e.what());
  } catch (Interrupted const& e) {
    return interruptedStatus(json, e.signalNumber());
  } catch (ssh::SSHError const& e) {
    if (int const signalNumber = pendingInterrupt(); signalNumber != 0) return interruptedStatus(json, signalNumber);
    return failWith(json, isConnectionFailure(e.kind()) ? kConnection : kFailed, trimmed(e.what()) + hintFor(e.kind()));
  } catch (sfa::FileAccessException const& e) {
    return failWith(json, kFailed, inTheToolsWords(inv.file.name, e.what()));
  } catch (std::exception const& e) {
    if (int const signalNumber = pendingInterrupt(); signalNumber != 0) return interruptedStatus(json, signalNumber);
    return failWith(json, kFailed, inTheToolsWords(inv.file.name, e.what()));
  }
}

}  // namespace sshfa::cli
