#pragma once
// The pipelined SFTP transfer engine behind SSHClient::copyFiles.
//
// Speed comes from never waiting for one reply before sending the next
// request: many READ/WRITE requests of a file are in flight at once (bounded
// by a window of outstanding bytes, not by a request count), and the next
// files are opened while earlier ones are still moving, so a batch of small
// files costs about as many round trips as one file.
//
// Safety: each file is written to a temporary name beside its destination
// (".<name>.sshfa-<random>", created exclusively) and renamed over the
// destination only once complete, so an existing destination is either
// untouched or wholly replaced. Remote renames use posix-rename@openssh.com
// when the server offers it, else a plain rename and, where that refuses to
// replace an existing regular file, a move-aside-and-back sequence (a short
// window in which the destination name is absent). A folder in the
// destination's place is never replaced.
//
// Created files get the command's mode (usually 0744), narrowed by the umask
// of whoever creates them: the remote sftp-server's for uploads, this
// process's for downloads. The temporary file's mode is what the destination
// ends up with, also when it replaces an existing file.
//
// Failures: a file that fails (missing or unreadable source, source is a
// folder, destination folder missing, permission denied, disk full, ...)
// stops new files from starting; files already in flight complete, the failed
// file's temporary is removed, and transfer() throws SSHError(Transfer)
// naming the first failed item (in command order) and the cause. A broken
// stream (connection lost, malformed reply) aborts everything: local
// temporaries are removed, remote ones cannot be, and the transport's error
// kind is kept. Files completed before a failure stay.
//
// Progress: `progress` is called at most every progressInterval and once at
// the end. For downloads bytesTotal grows as the remote sizes become known;
// for trees every total is known from the listing, and while the sources are
// listed the callback gets no totals (all zero) but can still stop.
// If it throws, the transfer is wound down cleanly (temporaries removed,
// nothing further started) and its exception propagates.
//
// Not thread-safe; drives `transport` until every request is answered.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Transport.hpp"

namespace foundation::sshclient::internal::sftp {

struct EngineOptions {
  // File data sent or requested and not yet acknowledged.
  std::uint64_t windowBytes = 8U * 1024U * 1024U;
  // Files open at once (also bounded by the server's handle limit).
  std::size_t maxOpenFiles = 128;
  // Uploads keep less in flight: measured against OpenSSH's sshd and
  // sftp-server, more makes them slower (300 files of 12 KB: 0.31 s with
  // 128 files and 8 MiB in flight, 0.17 s with 48 and 1 MiB; one file of
  // 256 MiB: 150-190 MiB/s with 8 MiB, 270 MiB/s with 1 MiB).
  std::uint64_t uploadWindowBytes = 1024U * 1024U;
  std::size_t maxOpenUploads = 48;
  // Bytes per READ/WRITE; unset: the server's limits, else 32 KiB.
  std::optional<std::uint32_t> chunkSize;
  // Off: always the plain-rename path, as with a server without the extension.
  bool usePosixRename = true;
  std::chrono::milliseconds progressInterval{250};
};

using ProgressCallback = std::function<void(TransferProgress const&)>;
// Runs a command line on the remote host and returns its standard output:
// trees hash remote files with it (comparing by checksum, resuming).
using RemoteShell = std::function<std::string(std::string const& command)>;

// `peer` ("user@host:port") names the server in messages.
void transfer(Transport& transport, std::string const& peer, CopyFilesCommand const& command,
              ProgressCallback const& progress, EngineOptions const& options = {});

// Trees (SSHClient::copyTrees): the sources are listed first (remote ones
// with LSTAT/OPENDIR/READDIR/READLINK on this stream, many folders at once),
// then every destination folder is made with MKDIR (all in flight, parents
// first, each checked with a STAT), then links (SYMLINK to a temporary, then
// a rename) and files as above, each file's mode and times set on the
// temporary (FSETSTAT, or fchmod/futimens) before its rename; folders get
// theirs last. A failure while listing or making folders stops everything
// before the first file.
//
// Skipping unchanged files, mirroring, dry runs and resuming list the
// destination in the same pass as the sources (READDIR answers carry every
// entry's attributes: no request per file); then the decisions are taken,
// hashing through `shell` where checksums are asked for, before anything
// changes. Extraneous entries go after every file arrived, before the
// folders get their modes and times.
TreeTransferReport transferTrees(Transport& transport, std::string const& peer, CopyTreesCommand const& command,
                                 ProgressCallback const& progress, RemoteShell const& shell,
                                 EngineOptions const& options = {});

}  // namespace foundation::sshclient::internal::sftp
