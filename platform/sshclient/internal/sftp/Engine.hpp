#pragma once
// The transfer engine's entry points: SSHClient::copyFiles and copyTrees
// over one SFTP stream.
//
// The engine is built in rooms, each with its own contract:
// - sftp/SftpSession: the only code that speaks SFTP (packets, request ids,
//   replies to handlers, data in flight, the server's limits);
// - transfer/LocalFiles and transfer/RemoteListing: both sides listed into
//   the same entry record, names checked before any is joined to a path;
// - transfer/Plan: what to do with each name of a folder, a pure function;
// - transfer/FileCopy: files sent through temporaries and renamed into place;
// - transfer/TreeTransfer: trees walked one folder at a time, each folder's
//   plan carried out; transfer/FileTransfer: the flat copies of copyFiles.
//
// Errors: SSHError(Transfer) naming the first failed item (TransferError
// with the report, for trees), the transport's kinds (ConnectionLost,
// Timeout) when the stream breaks; a progress callback's exception stops the
// transfer cleanly and propagates. Not thread-safe.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Transport.hpp"

namespace foundation::sshclient::internal::sftp {

struct EngineOptions {
  // File data sent or requested and not yet acknowledged.
  std::uint64_t windowBytes = 8U * 1024U * 1024U;
  // Files open at once (also bounded by the server's handle limit). Many
  // small files go faster the more the server has queued (200,000 files of
  // 100 B on loopback: get 3.05-3.31 s with 512 against 3.59-3.76 s with 128,
  // put 3.96-4.24 s against 4.38-4.64 s with 48); 1,024 made 10,000 files
  // of 1-4 KiB 5 % slower to download here, but a long round trip starts
  // there (Copiers.hpp).
  std::size_t maxOpenFiles = 512;
  // Uploads keep less data in flight: measured against OpenSSH's sshd and
  // sftp-server, more makes them slower (one file of 256 MiB: 150-190 MiB/s
  // with 8 MiB, 270 MiB/s with 1 MiB).
  std::uint64_t uploadWindowBytes = 1024U * 1024U;
  // An upload opens a file only while the files open hold less unsent data
  // than this (0: no such bound): a file opened long before its data can go
  // only delays the ones ahead (3,000 files of 12 KB on loopback: 0.14-0.15 s
  // with 256 KiB, 0.16-0.18 s without). On a long round trip there is none:
  // opening ahead hides the OPEN's round trip.
  std::uint64_t uploadOpenAheadBytes = 256U * 1024U;
  // A transfer starts at the window and the files above and grows them up to
  // these while the link carries more.
  std::uint64_t windowCap = 32U * 1024U * 1024U;
  std::size_t maxOpenFilesCap = 1024;
  // Bytes per READ/WRITE; unset: the server's limits, else 32 KiB.
  std::optional<std::uint32_t> chunkSize;
  // Off: always the plain-rename path, as with a server without the extension.
  bool usePosixRename = true;
  std::chrono::milliseconds progressInterval{250};
};

using ProgressCallback = std::function<void(TransferProgress const&)>;

// A command line running on the remote host, moved on from the transfer's
// own loop while its SFTP requests fly: poll() never sleeps; the loop sleeps
// only when nothing moved and news() is false. One opened without its
// command (openCommand) gets it by run(), once; its channel opens meanwhile.
// Throws SSHError as the command runners do (NoShell: no shell ran it).
// Destroying it unfinished abandons it.
class RemoteCommand {
 public:
  virtual ~RemoteCommand() = default;
  virtual void run(std::string const& command) = 0;
  // True once the command has ended and its output is complete.
  virtual bool poll() = 0;
  // Its data was taken in by some other read since the last poll().
  [[nodiscard]] virtual bool news() const = 0;
  // Sleeps until the server sends anything (or pending output can go).
  virtual void wait() = 0;
  [[nodiscard]] virtual std::string const& output() const = 0;

 protected:
  RemoteCommand() = default;
  RemoteCommand(RemoteCommand const&) = default;
  RemoteCommand& operator=(RemoteCommand const&) = default;
};

// How trees run command lines on the remote host: to hash remote files
// (comparing by checksum, resuming, deltas).
struct RemoteShell {
  // Runs one and returns its standard output.
  std::function<std::string(std::string const& command)> run;
  // Opens a channel of its own for a command and returns at once; where
  // the server refuses the channel, the command runs in place by `run`.
  // Unset: `run` runs every command in place.
  std::function<std::unique_ptr<RemoteCommand>()> open;
};

// A command to come, through `shell`: its channel opens while the caller
// prepares it (in place, once given, without `open`).
std::unique_ptr<RemoteCommand> openCommand(RemoteShell const& shell);
// Starts `command` through `shell`.
std::unique_ptr<RemoteCommand> startCommand(RemoteShell const& shell, std::string const& command);
// Moves a command on until it ends; its output.
std::string finishCommand(RemoteCommand& command);
// Why no remote command can run in this transfer, when `error` says so: the
// server allows SFTP only, or it refused a command its channel (a
// MaxSessions that the SFTP channels already fill); nullopt for any other
// error. Hashing on the server is optional: the caller goes without.
[[nodiscard]] std::optional<std::string> commandsRefused(SSHError const& error);
// Called while `error` is being handled: keeps in `why` why no command can
// run, or rethrows `error` when it says something else.
void recordRefusal(SSHError const& error, std::optional<std::string>& why);

// Flat copies (copyFiles): each item's file to exactly its destination,
// created with the command's mode less the creator's umask; the first failed
// file stops new ones. `peer` ("user@host:port") names the server.
void transfer(Transport& transport, std::string const& peer, CopyFilesCommand const& command,
              ProgressCallback const& progress, EngineOptions const& options = {});

// The further streams to the same server that a transfer over several
// channels was given: `open` opens the next of `count` (throws
// SSHError(Channel) when the server refused it). Big uploads are shared out
// among them.
struct MoreStreams {
  std::size_t count = 0;
  std::function<std::unique_ptr<Transport>()> open;
};

// Trees (copyTrees): see transfer/TreeTransfer.hpp. `shell` runs the command
// lines that hash remote files (checksums, resumed prefixes); `more` opens
// the further channels (none: one only).
TreeTransferReport transferTrees(Transport& transport, std::string const& peer, CopyTreesCommand const& command,
                                 ProgressCallback const& progress, RemoteShell const& shell,
                                 EngineOptions const& options = {}, MoreStreams more = {});

}  // namespace foundation::sshclient::internal::sftp
