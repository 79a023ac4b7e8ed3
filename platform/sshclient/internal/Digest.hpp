#pragma once
// Hashes of files on both sides of a transfer, to tell equal files from
// different ones without moving them and to check the prefix of a partial
// file before resuming it.
//
// Remote files are hashed by the host's `b2sum` (BLAKE2b-512), or by its
// `sha256sum` where b2sum is missing (coreutils before 8.26): every command
// line names the tool it chose on its first line, and this side hashes its
// files in the same way, in this process. Many remote files go in one
// command line and process: the caller runs the lines (through the command
// channel) and hands each line's standard output back. Names follow "--" or
// are redirections, so a name that looks like an option is read as a name.
//
// Free functions; no state. Local hashing throws SSHError(Transfer) naming the
// path and the cause.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace foundation::sshclient::internal {

// How files are hashed: as the remote host's b2sum or sha256sum does.
enum class HashKind : std::uint8_t { Sha256, Blake2b512 };

// Lower-case hex hash of the first `length` bytes of a local file (all of
// it when unset; a file shorter than `length` is hashed whole).
std::string hashOfLocalFile(HashKind kind, std::string const& path,
                            std::optional<std::uint64_t> length = std::nullopt);
inline std::string sha256OfLocalFile(std::string const& path, std::optional<std::uint64_t> length = std::nullopt) {
  return hashOfLocalFile(HashKind::Sha256, path, length);
}

// Lower-case hex hash of a byte string.
std::string hashOf(HashKind kind, std::string_view bytes);
inline std::string sha256Of(std::string_view bytes) { return hashOf(HashKind::Sha256, bytes); }

// sh words that set $h to the remote host's hash tool (b2sum where it
// runs, else sha256sum) and print its name on a line of its own.
inline constexpr std::string_view kChooseHashTool = "h=sha256sum; b2sum </dev/null >/dev/null 2>&1 && h=b2sum; echo $h; ";
// The kind a tool's name stands for; nullopt for any other word.
std::optional<HashKind> hashToolNamed(std::string_view name);
// Hex digits of a hash of that kind.
std::size_t hexLengthOf(HashKind kind);
// The kind the first line of a command's output names, once that line is
// whole; nullopt before, and when it names no tool.
std::optional<HashKind> announcedHash(std::string_view output);

// One command line of remoteHashCommands and the paths it hashes:
// paths[first, first + count).
struct RemoteHashBatch {
  std::string command;
  std::size_t first = 0;
  std::size_t count = 0;
};

// Command lines, none longer than `maxLength` bytes (one path per line when a
// single path is longer), each hashing many paths in one process.
std::vector<RemoteHashBatch> remoteHashCommands(std::vector<std::string> const& paths, std::size_t maxLength = 32768);

// The hashes in the standard output of a batch's line, one per path of the
// batch (`paths` are exactly the batch's): nullopt for a path that could not
// be read. Throws std::runtime_error when the output is not such an answer.
struct RemoteHashes {
  HashKind kind = HashKind::Sha256;
  std::vector<std::optional<std::string>> hashes;
};
RemoteHashes parseRemoteHashes(std::string_view output, std::span<std::string const> paths);

// A command line that prints the hash of the first `length` bytes of `path`,
// and its answer: nullopt when it is not a regular file that can be read.
struct RemotePrefixHash {
  HashKind kind = HashKind::Sha256;
  std::optional<std::string> hash;
};
std::string remotePrefixHashCommand(std::string const& path, std::uint64_t length);
RemotePrefixHash parseRemotePrefixHash(std::string_view output);

}  // namespace foundation::sshclient::internal
