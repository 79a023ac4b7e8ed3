#include "tools/sshfa/Cli.hpp"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "sshfileaccess/FileAccessException.hpp"
#include "tools/sshfa/Commands.hpp"
#include "tools/sshfa/Connection.hpp"
#include "tools/sshfa/Demo.hpp"
#include "tools/sshfa/Interrupt.hpp"
#include "tools/sshfa/Text.hpp"
#include "tools/sshfa/Trace.hpp"
#include "tools/sshfa/Transfer.hpp"

namespace sshfa::cli {
namespace {

namespace sfa = nimbal::remoteaccess::sshfileaccess;
namespace ssh = foundation::sshclient;

constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kConnection = 3;

constexpr char const* kFooter = R"(Exit status: 0 success; 1 an operation failed; 2 usage error;
3 connection, host key or authentication failure; exec: the command's own status.

Paths are taken as they are written (no globbing on either side). Commands
that take paths take many and send them in few round trips:
  sshfa -H host stat a b c
cp, mv, put and get take pairs: SOURCE DESTINATION [SOURCE DESTINATION ...].
A folder is copied by put and get as the regular files below it; the
destination names the copy itself, not a folder to copy into.

Output is one entry per line; on a terminal, control characters and bytes
that are not UTF-8 in names are shown escaped (\n, \x1b, \xff, \u202e).
--json prints every answer as JSON; bytes that are not UTF-8 appear there as
\udc80..\udcff (Python's surrogateescape convention).)";

struct Invocation {
  ConnectionSettings connection;
  bool local = false;
  bool json = false;
  bool verbose = false;
  FileCommand file;
  bool recursive = false;
  bool parents = false;
  std::vector<std::string> pairs;
  std::vector<std::string> words;
  DemoSettings demo;
};

void say(std::string const& text) {
  std::string const line = "sshfa: " + forStream(STDERR_FILENO, text) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

std::string trimmedMessage(std::string message) {
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r' || message.back() == ' ')) {
    message.pop_back();
  }
  return message;
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
      return false;
  }
  return false;
}

// The client's messages speak of its options; name the tool's flag.
std::string hintFor(ssh::SSHError::Kind kind) {
  return kind == ssh::SSHError::Kind::HostKeyUnknown ? " [sshfa: --accept-new]" : std::string();
}

int interruptedStatus(int signalNumber) {
  say("interrupted");
  return 128 + signalNumber;
}

void addConnectionOptions(CLI::App& app, Invocation& inv) {
  auto* group = "Connection";
  app.add_option("-H,--host", inv.connection.host, "Remote host: name, address or ~/.ssh/config alias ([USER@]HOST)")
      ->group(group);
  app.add_option("-p,--port", inv.connection.port, "SSH port (default: from the SSH configuration, else 22)")
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
         "Keep-alive interval in seconds while waiting on the server (default 30)")
      ->check(CLI::Range(1L, 86400L))
      ->group(group);
  app.add_option_function<long>(
         "--connect-timeout", [&inv](long seconds) { inv.connection.connectTimeout = std::chrono::seconds(seconds); },
         "Seconds to wait for the connection (default 30)")
      ->check(CLI::Range(1L, 3600L))
      ->group(group);
  app.add_option("-F,--ssh-config", inv.connection.sshConfigFile, "SSH configuration file instead of ~/.ssh/config")
      ->group(group);
  app.add_flag("--batch", inv.connection.batch, "Never ask anything on the terminal")->group(group);
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
  sub->add_option("pairs", target, "SOURCE DESTINATION [SOURCE DESTINATION ...]")->required();
  return sub;
}

CLI::App* addTwoOperandCommand(CLI::App& app, Invocation& inv, std::string const& name, std::string const& description,
                               std::string const& operands) {
  auto* sub = app.add_subcommand(name, description);
  sub->add_option("operands", inv.file.args, operands)->required()->expected(2);
  return sub;
}

int dispatch(CLI::App const& app, Invocation& inv) {
  CLI::App const* chosen = app.get_subcommands().front();
  std::string const name = chosen->get_name();
  inv.file.name = name;
  inv.file.json = inv.json;
  inv.file.recursive = inv.recursive;
  if (name == "cp" || name == "mv") inv.file.args = inv.pairs;
  if (inv.verbose) enableTrace();

  if (name == "demo") {
    if (inv.local) throw UsageError("demo starts its own server; --local does not apply");
    return runDemo(inv.demo);
  }
  bool const crossesSides = name == "put" || name == "get" || name == "exec";
  if (inv.local) {
    if (crossesSides) throw UsageError(name + " works on the remote host; --local does not apply");
    sfa::LocalFileAccess local;
    return runFileCommand(local, inv.file);
  }
  if (inv.connection.host.empty()) throw UsageError("-H/--host is required (or --local for the local machine)");
  if (name == "exec" && inv.words.empty()) throw UsageError("exec needs a command");

  ProgressRouter progress;
  auto const access = connect(inv.connection, progress);
  if (name == "put" || name == "get") return runTransfer(*access, progress, name == "put", inv.pairs, inv.json);
  if (name == "exec") return runExec(*access, inv.words, inv.json);
  return runFileCommand(*access->remote(), inv.file);
}

// Everything after "exec" is the remote command, in order and options
// included (sshfa -H host exec ls -la /tmp), so it is taken out before the
// parser sees it. Returns the arguments left for the parser.
std::vector<char*> splitOffExecWords(CLI::App const& app, int argc, char** argv, std::vector<std::string>& words) {
  std::vector<char*> kept(argv, argv + argc);
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--") break;
    if (arg.size() > 1 && arg.front() == '-') {
      // An option that takes a value consumes the next argument.
      CLI::Option const* option = arg.find('=') == std::string::npos ? app.get_option_no_throw(arg) : nullptr;
      if (option != nullptr && option->get_items_expected_min() > 0) ++i;
      continue;
    }
    if (arg != "exec") break;
    int first = i + 1;
    if (first < argc && (std::string(argv[first]) == "-h" || std::string(argv[first]) == "--help")) break;
    if (first < argc && std::string(argv[first]) == "--") ++first;
    words.assign(argv + first, argv + argc);
    kept.resize(static_cast<std::size_t>(i) + 1);
    break;
  }
  return kept;
}

}  // namespace

int run(int argc, char** argv) {
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

  addPathCommand(app, inv, "exists", "Whether something exists at each path (true/false)", "paths");
  addPathCommand(app, inv, "isfile", "Whether each path is a regular file", "paths");
  addPathCommand(app, inv, "isdir", "Whether each path is a folder", "paths");
  addPathCommand(app, inv, "parent", "The parent folder of each path, computed from its text", "paths");
  addPathCommand(app, inv, "ls", "Entries of folders (remote: without hidden ones); -R: files below, any depth",
                 "folders")
      ->add_flag("-R,--recursive", inv.recursive, "Regular files at any depth instead of the entries");
  addPathCommand(app, inv, "stat", "Size and modification time (UTC) of each path", "paths");
  addPathCommand(app, inv, "touch", "Create missing files and set the modification time to now", "paths");
  addPathCommand(app, inv, "rm", "Remove files and folders with everything in them", "paths");
  addPathCommand(app, inv, "mkdir", "Create folders with every missing folder above them", "paths")
      ->add_flag("-p,--parents", inv.parents, "Accepted for habit; missing parents are always created");
  addPairCommand(app, inv.pairs, "cp", "Copy files or folders, on one side");
  addPairCommand(app, inv.pairs, "mv", "Move or rename files or folders, on one side");
  addTwoOperandCommand(app, inv, "tar", "Pack a file or folder into a tar archive", "SOURCE ARCHIVE");
  addTwoOperandCommand(app, inv, "untar", "Unpack a tar archive into an existing folder", "ARCHIVE FOLDER");
  addTwoOperandCommand(app, inv, "zip", "Pack a file or folder into a zip archive", "SOURCE ARCHIVE");
  addTwoOperandCommand(app, inv, "unzip", "Unpack a zip archive into a folder", "ARCHIVE FOLDER");
  addPairCommand(app, inv.pairs, "put", "Copy local files or folder trees to the remote host (LOCAL REMOTE ...)");
  addPairCommand(app, inv.pairs, "get", "Copy remote files or folder trees to this machine (REMOTE LOCAL ...)");
  auto* exec = app.add_subcommand("exec",
                                  "Run a command with the remote shell; prints its output, exits with its "
                                  "status");
  exec->footer(
      "Usage: sshfa [OPTIONS] exec [--] COMMAND [ARGUMENTS...]\n"
      "Everything after exec is the remote command, options included; the words are joined with blanks and run by "
      "the remote POSIX shell, so quote what that shell should see as one word.");
  auto* demo = app.add_subcommand("demo", "A tour of the library against a private sshd on 127.0.0.1");
  demo->add_option("--files", inv.demo.files, "Files in the demo tree")->check(CLI::Range(10, 100000));

  app.footer(kFooter);  // set last: subcommands would inherit it

  std::vector<char*> parsed = splitOffExecWords(app, argc, argv, inv.words);
  try {
    app.parse(static_cast<int>(parsed.size()), parsed.data());
  } catch (CLI::Success const& e) {
    return app.exit(e);
  } catch (CLI::ParseError const& e) {
    say(e.what());
    say("run 'sshfa --help' (or 'sshfa COMMAND --help') for usage");
    return kUsage;
  }

  try {
    return dispatch(app, inv);
  } catch (UsageError const& e) {
    say(e.what());
    return kUsage;
  } catch (Interrupted const& e) {
    return interruptedStatus(e.signalNumber());
  } catch (ssh::SSHError const& e) {
    if (int const signalNumber = pendingInterrupt(); signalNumber != 0) return interruptedStatus(signalNumber);
    say(trimmedMessage(e.what()) + hintFor(e.kind()));
    return isConnectionFailure(e.kind()) ? kConnection : kFailed;
  } catch (sfa::FileAccessException const& e) {
    say(inv.file.name + ": " + trimmedMessage(e.what()));
    return kFailed;
  } catch (std::exception const& e) {
    if (int const signalNumber = pendingInterrupt(); signalNumber != 0) return interruptedStatus(signalNumber);
    say(inv.file.name + ": " + trimmedMessage(e.what()));
    return kFailed;
  }
}

}  // namespace sshfa::cli
