#pragma once
// SSH client (foundation::sshclient) on libssh.
//
// An SSHClient is one authenticated SSH connection. Constructing it connects:
// TCP connect (TCP_NODELAY), key exchange, host key check against known_hosts,
// then the authentication methods in the caller's order until one succeeds.
// A constructed client is ready; destroying it closes the connection.
//
// Errors: every failure is an SSHError (a std::runtime_error) with a kind and
// a message naming user@host:port and the cause. No call waits forever: while
// waiting on the server the client sends keepalive@openssh.com every
// keep-alive interval and gives up after three unanswered in a row. Once a
// command finds that the server runs no shell for the account, every later
// command fails at once with the same SSHError(NoShell), without asking the
// server again.
//
// Thread-safety: one client must not be used from two threads at once.
// executeCommand, copyFiles and the keep-alive operations are virtual so that
// a test double can be injected (see the protected constructor).

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "sshfileaccess/export.hpp"
#include "sshfileaccess/platform/i18n/ustring.hpp"
#include "sshfileaccess/platform/sshclient/Filter.hpp"

namespace foundation::sshclient {

using fl::ustring;

// ---- authentication methods (tried in the caller's order) -------------------
// An empty user means the User of the SSH configuration, else the local login
// name. A method whose user differs from the previous one's is tried on a new
// connection (servers refuse a change of user within one).

struct PasswordAuth {
  std::string user;
  std::string password;
};

struct IdentityFileAuth {
  std::string user;
  // Empty: the IdentityFile entries of the SSH configuration, else the
  // default keys ~/.ssh/id_*.
  std::string privateKeyFile;
  std::optional<std::string> passphrase;  // for an encrypted key
};

struct AgentAuth {
  std::string user;
  std::optional<std::string> agentSocket;  // default: $SSH_AUTH_SOCK
};

struct KeyboardInteractivePrompt {
  std::string text;
  bool echo = false;
};

struct KeyboardInteractiveAuth {
  std::string user;
  // Called once per server challenge (name, instruction, prompts); returns
  // one answer per prompt.
  std::function<std::vector<std::string>(std::string const& name, std::string const& instruction,
                                         std::vector<KeyboardInteractivePrompt> const& prompts)>
      respond;
};

using AuthMethod = std::variant<PasswordAuth, IdentityFileAuth, AgentAuth, KeyboardInteractiveAuth>;
using AuthMethods = std::vector<AuthMethod>;

// ---- commands and transfers --------------------------------------------------

class SSHFA_EXPORT ExecuteCommand {
 public:
  explicit ExecuteCommand(ustring command) : command_(std::move(command)) {}
  [[nodiscard]] ustring const& getCommand() const noexcept { return command_; }

 private:
  ustring command_;
};

class SSHFA_EXPORT ExecuteCommandResult {
 public:
  ExecuteCommandResult() = default;
  ExecuteCommandResult(int exitcode, ustring out, ustring err)
      : exitcode_(exitcode), stdout_(std::move(out)), stderr_(std::move(err)) {}
  [[nodiscard]] int getExitcode() const noexcept { return exitcode_; }
  [[nodiscard]] ustring getStdout() const { return stdout_; }
  [[nodiscard]] ustring getStderr() const { return stderr_; }

 private:
  int exitcode_ = 0;
  ustring stdout_;
  ustring stderr_;
};

// Where a streamed command's standard streams go and come from.
struct CommandStreams {
  // Called with each piece of standard output / error as it arrives, in
  // order per stream; null: dropped.
  std::function<void(std::string_view)> out;
  std::function<void(std::string_view)> err;
  // Read until end-of-file and sent as the command's standard input; -1:
  // none (the command reads end-of-file at once). Blocking or not; never
  // closed here.
  int inputFd = -1;
  // Asked at every wake-up and at least a few times a second; true stops
  // the command: it is sent SIGINT; while it still runs, SIGTERM 2 s later
  // and SIGKILL 2 s after that; 2 s later still, its channel is closed.
  std::function<bool()> stopRequested;
  // Told each signal sent to a stopped command (SIGINT, SIGTERM, SIGKILL);
  // null: not told.
  std::function<void(int signalNumber)> signalled;
};

struct FileLocations {
  ustring localPath;
  ustring remotePath;
};

enum class TransferDirection : int { RemoteToLocal = 0, LocalToRemote = 1 };
enum class TransferProtocol : int { SFTP = 0 };

class SSHFA_EXPORT CopyFilesCommand {
 public:
  CopyFilesCommand(std::vector<FileLocations> items, TransferDirection direction, TransferProtocol protocol, int mode)
      : items_(std::move(items)), direction_(direction), protocol_(protocol), mode_(mode) {}
  [[nodiscard]] std::vector<FileLocations> const& getItems() const noexcept { return items_; }
  [[nodiscard]] TransferDirection getDirection() const noexcept { return direction_; }
  [[nodiscard]] TransferProtocol getProtocol() const noexcept { return protocol_; }
  [[nodiscard]] int getMode() const noexcept { return mode_; }

 private:
  std::vector<FileLocations> items_;
  TransferDirection direction_;
  TransferProtocol protocol_;
  int mode_;
};

// Tree transfers (SSHClient::copyTrees). Each item's source is a file, a
// folder or a symbolic link; its destination names the copy itself.

struct PlannedChange;

// When an existing destination file is left as it is.
enum class UnchangedTest {
  None,         // never: every file is copied
  SizeAndTime,  // a regular file of the source's size and modification time (to the second)
  Checksum,     // a regular file of the source's size and content hash
};

// Whether a file that exists in the destination is sent as the blocks that
// differ (a delta) instead of whole.
enum class DeltaMode {
  Off,     // always whole
  Auto,    // a delta where the link is measured slower than hashing both sides
  Always,  // a delta for every regular file with an old version
};

struct TreeTransferOptions {
  // The source's permission bits exactly (user/group/other rwx); off: new
  // files get 0666 and folders 0777, less the creator's umask.
  bool keepPermissions = true;
  // setuid, setgid and sticky too (only with keepPermissions).
  bool keepSpecialBits = false;
  // Modification (and access) times to the second.
  bool keepTimes = true;
  // Copy what symbolic links point to instead of the links; a link that
  // leads back into a folder above it is an error naming it.
  bool followLinks = false;
  // A destination that is an existing folder, or ends with '/', receives
  // the source under its own name (as cp and scp do); off: the destination
  // always names the copy itself.
  bool intoFolders = false;
  // Unchanged files are not sent; their modes and times are still put right.
  // The destination is listed for it in the same pass as the sources.
  UnchangedTest skipUnchanged = UnchangedTest::None;
  // After every copy succeeded, what the destination folders hold beyond
  // their sources is removed. Only below a destination whose source is a
  // folder; a symbolic link is removed as a link, never followed.
  bool deleteExtraneous = false;
  // Lists and decides, changes nothing: the report counts what would be
  // done and its plan names each change.
  bool dryRun = false;
  // A file interrupted (stopped by the progress callback, a lost connection
  // or a killed process) keeps its temporary, named from its destination
  // and the source's size and time. The next transfer of the same unchanged
  // source sends only the rest, once SHA-256 of the temporary's bytes
  // equals that of the source's first as many bytes; else it starts over.
  // Temporaries of the transfer's destinations left by other runs are
  // reused or removed.
  bool resume = false;
  // A name a server lists that is not a plain name ("", ".", "..", or one
  // holding '/' or NUL) is never joined to a path: it is skipped with a note
  // in the report, no deletion runs, and the transfer fails once everything
  // else is done. On: skipped with the note only.
  bool ignoreSuspectNames = false;
  // What the destination holds in the way of the source is replaced, as
  // rsync does: a file (or special file) where the source has a folder, and
  // with deleteExtraneous also a folder (with all it holds) where the source
  // has a file or link. Off: each is one error naming it, and everything
  // else is still copied. A link where the source has a folder is always
  // replaced, never followed.
  bool replaceInTheWay = false;
  // Which entries below an item's source folder are taken (one left out is
  // not listed; a folder left out is not read), and which extraneous
  // destination entries deleteExtraneous keeps; see Filter.hpp. Patterns
  // are matched against paths relative to the item's source folder; items
  // themselves are not filtered. Default: no rules, no cost.
  Filter filter{};
  // A changed file whose destination holds an older version is built in a
  // temporary that starts as a copy of the old version (made on the
  // destination's side), with only the blocks whose SHA-256 differ sent into
  // it: both versions are hashed in blocks, the remote one by its host's GNU
  // split and sha256sum. Where those are missing, or the server allows SFTP
  // only, the file goes whole (a line in the report's details says why).
  DeltaMode delta = DeltaMode::Off;
  // A destination file whose modification time is later than its source
  // file's is left alone (counted in the report's `newer`), as rsync's
  // --update does; links and folders are unaffected.
  bool update = false;
  // File data sent (uploads) or asked for (downloads) per second, over the
  // whole transfer; 0: no limit. Waits sleep no longer than the limit needs.
  std::uint64_t bytesPerSecond = 0;
  // SFTP channels of the one connection that carry the files, each with its
  // own window and its own server process; a big upload is shared out among
  // them. 0: chosen from the round trip (2 on a short link, where big
  // uploads are not shared out, up to 4; the report says how many). When the server refuses more, the transfer goes
  // on over those that opened (the report's details say so).
  std::size_t channels = 0;
  // Called on the caller's thread as each change is done: a file copied or
  // resumed (bytes: the data sent), a link placed, a folder made, an entry
  // deleted, an entry in the way replaced, an unchanged file's mode and time
  // put right (Fix). Not called in a dry run, whose report's plan holds the
  // changes. Unset: nothing is built for it. An exception it throws stops
  // the transfer as one of the progress callback does.
  std::function<void(PlannedChange const&)> onChange{};
};

class SSHFA_EXPORT CopyTreesCommand {
 public:
  CopyTreesCommand(std::vector<FileLocations> items, TransferDirection direction, TreeTransferOptions options = {})
      : items_(std::move(items)), direction_(direction), options_(std::move(options)) {}
  [[nodiscard]] std::vector<FileLocations> const& getItems() const noexcept { return items_; }
  [[nodiscard]] TransferDirection getDirection() const noexcept { return direction_; }
  [[nodiscard]] TreeTransferOptions const& getOptions() const noexcept { return options_; }

 private:
  std::vector<FileLocations> items_;
  TransferDirection direction_;
  TreeTransferOptions options_;
};

// One change of a transfer (planned by a dry run, or done: see
// TreeTransferOptions::onChange), named by its destination path.
struct PlannedChange {
  // Replace: an entry of another type in the destination's way goes first
  // (followed by the Folder, Copy or Link that takes its place).
  // Exclude: left out by the filter (the source's path).
  // Fix: an unchanged file's mode and time put right.
  // Delta: sent as the blocks that differ from the old version (bytes: the
  // whole file's, as no block is compared in a dry run).
  enum class Action { Copy, Resume, Skip, Link, Folder, Delete, Replace, Exclude, Fix, Delta };
  Action action = Action::Copy;
  ustring path;
  std::uint64_t bytes = 0;  // file data to send (Resume: the rest only)
};

// With dryRun, the counts are what the transfer would do.
struct TreeTransferReport {
  std::size_t files = 0;            // regular files copied (resumed ones too)
  std::uint64_t bytes = 0;          // file data sent over the connection
  std::uint64_t reused = 0;         // file data taken from old versions instead (deltas)
  std::size_t folders = 0;          // destination folders made
  std::size_t links = 0;            // symbolic links made
  std::size_t special = 0;          // FIFOs, sockets and devices left out
  std::size_t skipped = 0;          // files left as they were: unchanged
  std::size_t deleted = 0;          // destination entries removed (deleteExtraneous)
  std::size_t resumed = 0;          // files continued from an earlier run's temporary
  std::size_t replaced = 0;         // destination entries of another type replaced (replaceInTheWay)
  std::size_t newer = 0;            // files left as they were: newer on the destination (update)
  std::size_t channels = 1;         // SFTP channels the files went over
  std::vector<ustring> notes;       // one line per special file left out
  std::vector<PlannedChange> plan;  // dryRun only: by action (as listed above), then path
  // For a verbose reader: how files were sent where that was not the obvious
  // way (a delta that went whole after all, and why).
  std::vector<ustring> details;
};

struct TransferProgress {
  std::uint64_t bytesDone = 0;
  std::uint64_t bytesTotal = 0;
  std::size_t filesDone = 0;
  std::size_t filesTotal = 0;
  ustring currentFile;
  // Tree transfers list and copy one folder at a time: while folders remain
  // to be listed, the totals are what was found so far and still grow.
  bool listing = false;
};

// ---- options and errors ------------------------------------------------------

enum class HostKeyPolicy {
  Strict,     // an unknown host is refused
  AcceptNew,  // an unknown host is added to the first known_hosts file
};
// A changed host key is refused under every policy.

enum class CommandMode {
  PersistentShell,  // commands run in one long-lived sh on its own channel
  ExecChannel,      // one exec channel per command
};

// Where the SSH configuration (ssh_config) has a say, the caller's explicit
// values win: a non-empty field, a port > 0, a user named in the
// authentication method. The fields with a default value of their own
// (hostKeyPolicy, connectTimeout, keepaliveInterval) take the configuration's
// value only while the caller leaves them at that default.
struct SSHClientOptions {
  // known_hosts files, searched in order; a new key is added to the first.
  // Empty: UserKnownHostsFile and GlobalKnownHostsFile of the configuration,
  // else ~/.ssh/known_hosts, then /etc/ssh/ssh_known_hosts.
  std::vector<std::string> knownHostsFiles;
  // Left at Strict, the configuration's StrictHostKeyChecking accept-new (or
  // no, which is taken as accept-new: a changed key is always refused)
  // makes it AcceptNew.
  HostKeyPolicy hostKeyPolicy = HostKeyPolicy::Strict;
  // TCP connect and key exchange. Left at 30 s, the configuration's
  // ConnectTimeout applies.
  std::chrono::seconds connectTimeout{30};
  // Keep-alive interval while waiting on the server; 0 disables keep-alives.
  // Left at 30 s, a positive ServerAliveInterval of the configuration applies.
  std::chrono::seconds keepaliveInterval{30};
  // Read the SSH configuration: HostName, User, Port, IdentityFile,
  // UserKnownHostsFile, GlobalKnownHostsFile, StrictHostKeyChecking,
  // ProxyJump, ProxyCommand, Ciphers, ConnectTimeout, ServerAliveInterval.
  // They are resolved by "ssh -G" (sshProgram) exactly as OpenSSH resolves
  // them (Host and Match blocks, Include, tokens); where that program cannot
  // be run, by libssh's own parser, which knows less (no Match, and no
  // ProxyJump without ssh).
  bool readSshConfig = true;
  // Read this file instead of ~/.ssh/config and /etc/ssh/ssh_config (like
  // ssh -F); only with readSshConfig. A file that cannot be read is an
  // SSHError(Connect) naming it.
  std::string sshConfigFile;
  // Cipher preference list ("aes128-gcm@openssh.com,..."). Empty: the
  // configuration's Ciphers, else aes128-gcm@openssh.com first.
  std::string ciphers;
  // Jump hosts "[user@]host[:port][,...]" to reach the host through (like
  // ssh -J), in place of the configuration's ProxyJump. Each hop is reached
  // by the ssh program with the same configuration file, which checks its
  // host key; the host key of the destination is checked here.
  std::string proxyJump;
  // The OpenSSH client that resolves the configuration and reaches jump
  // hosts: a path, or a name searched in PATH. Empty: never run it (libssh's
  // parser only).
  std::string sshProgram = "ssh";
  CommandMode commandMode = CommandMode::PersistentShell;
  // Called during copyFiles at most a few times a second.
  std::function<void(TransferProgress const&)> progress;
  // Offer zlib compression (zlib@openssh.com, then zlib) before none, as
  // ssh -C does; the server decides (see negotiatedAlgorithms()). Worth it
  // on slow links only: it costs processor time on both ends.
  bool compression = false;
};

// What the key exchange settled on, in the protocol's names ("Out": from
// this client to the server). An empty field was not found out.
struct NegotiatedAlgorithms {
  std::string kex;
  std::string hostKey;
  std::string cipherOut;
  std::string cipherIn;
  std::string macOut;
  std::string macIn;
  std::string compressionOut;
  std::string compressionIn;
};

class SSHFA_EXPORT SSHError : public std::runtime_error {
 public:
  enum class Kind {
    Connect,
    HostKeyUnknown,
    HostKeyChanged,
    Authentication,
    Channel,
    Transfer,
    Timeout,
    ConnectionLost,
    // The server runs no shell for this account (it allows SFTP only, say):
    // no command can run on this connection.
    NoShell,
  };

  SSHError(Kind kind, std::string const& message) : std::runtime_error(message), kind_(kind) {}
  [[nodiscard]] Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

// A tree transfer that failed: the message names the first failure (in
// the order of the command's items); the report holds what was done until
// the end, with its notes, and failures() every failure, one line each.
class SSHFA_EXPORT TransferError : public SSHError {
 public:
  TransferError(std::string const& message, TreeTransferReport report, std::vector<std::string> failures)
      : SSHError(Kind::Transfer, message), report_(std::move(report)), failures_(std::move(failures)) {}
  [[nodiscard]] TreeTransferReport const& report() const noexcept { return report_; }
  [[nodiscard]] std::vector<std::string> const& failures() const noexcept { return failures_; }

 private:
  TreeTransferReport report_;
  std::vector<std::string> failures_;
};

// ---- the client --------------------------------------------------------------

class SftpFiles;

class SSHFA_EXPORT SSHClient {
 public:
  // host: a name, an address or an alias of the SSH configuration.
  // port <= 0: the configuration's Port, else 22.
  SSHClient(ustring host, int port, AuthMethods authMethods);
  SSHClient(ustring host, int port, AuthMethods authMethods, SSHClientOptions options);
  virtual ~SSHClient();

  SSHClient(SSHClient const&) = delete;
  SSHClient& operator=(SSHClient const&) = delete;
  SSHClient(SSHClient&&) = delete;
  SSHClient& operator=(SSHClient&&) = delete;

  // Runs the line with POSIX sh semantics whatever the login shell; returns
  // exit status, standard output and standard error. A command killed by a
  // signal reports 128 + the signal number. A command is run only when a
  // shell of the server says so; anything else that answers (an SFTP server
  // forced on the account, a refusal) is SSHError(NoShell), never a result.
  virtual ExecuteCommandResult executeCommand(ExecuteCommand command);

  // Whether commands can run here (see executeCommand). Known once a command
  // has run or failed for want of a shell, which holds for the connection;
  // otherwise found out now, by starting what the next command needs (the
  // persistent shell, or one command on an exec channel). Throws SSHError
  // for other failures.
  [[nodiscard]] virtual bool shellAvailable();

  // Runs the line as executeCommand does, but on a channel of its own,
  // handing output over as it arrives and feeding standard input; returns
  // the exit status (128 + N when killed by signal N, 130 when stopped).
  // The persistent shell is not used: its standard input carries its script.
  virtual int executeStreaming(ustring const& command, CommandStreams const& streams);

  // Performs every transfer of the command over SFTP, each file written to a
  // temporary name and renamed into place when complete; or throws
  // SSHError(Transfer) naming the first failed file and the cause
  // (ConnectionLost/Timeout when the connection itself failed). Files
  // completed before a failure stay; an existing destination is replaced only
  // by a complete file. Created files get the command's mode less the
  // creator's umask.
  virtual void copyFiles(CopyFilesCommand command);

  // Copies files, folder trees and symbolic links over one SFTP session,
  // one folder at a time: each folder of a source is listed beside its
  // destination (remote ones over SFTP, every name as its bytes; a name that
  // is not a plain name is never joined to a path), planned, and carried out
  // (folders made, links placed, each file through a temporary and a rename
  // as with copyFiles). "." and ".." in the items' paths are resolved first,
  // and missing parents of the destinations are made. Modes and times follow
  // the command's options and are set on the temporary before the rename; a
  // folder gets its own once everything below it is done. FIFOs, sockets and
  // devices are left out and named in the report's notes. Memory follows the
  // widest folder, not the tree; progress totals grow while folders remain
  // to be listed (TransferProgress::listing). A source that cannot be read
  // fails the transfer before anything changes; any other failure is one
  // failure and the rest goes on: afterwards TransferError names the first
  // (a folder blocked by a file is named once), or the connection's kinds
  // are thrown. A file whose size or time changes while it is read fails
  // ("changed while being read"): its temporary goes and an old destination
  // stays. The options' re-run choices (skipUnchanged, deleteExtraneous,
  // dryRun, resume) compare with the destination's listing; checksums and
  // resumed prefixes are hashed on the remote host through executeCommand's
  // shell.
  virtual TreeTransferReport copyTrees(CopyTreesCommand command);

  // Files on the server over SFTP, many paths per call (see SftpFiles): the
  // client's one instance, whose channel is opened on first use and kept
  // for the client's life. A test double without a connection overrides it.
  virtual SftpFiles& sftp();

  virtual void setKeepaliveInterval(std::chrono::seconds interval);
  [[nodiscard]] virtual std::chrono::seconds getKeepaliveInterval() const;

  // The algorithms of the connection's first key exchange; all empty for a
  // test double without a connection.
  [[nodiscard]] NegotiatedAlgorithms negotiatedAlgorithms() const;

 protected:
  // For test doubles that override every virtual operation: no connection.
  SSHClient();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace foundation::sshclient
