#pragma once
// SHA-256 of files on both sides of a transfer, to tell equal files from
// different ones without moving them and to check the prefix of a partial
// file before resuming it.
//
// Local files are hashed in this process. Remote files are hashed by the
// host's `sha256sum`, many files per command line and process: the caller
// runs the lines (through the command channel) and hands each line's standard
// output back. Names follow "--" or are redirections, so a name that looks
// like an option is read as a name.
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

inline constexpr std::size_t kSha256HexLength = 64;

// Lower-case hex SHA-256 of the first `length` bytes of a local file (all of
// it when unset; a file shorter than `length` is hashed whole).
std::string sha256OfLocalFile(std::string const& path, std::optional<std::uint64_t> length = std::nullopt);

// Lower-case hex SHA-256 of a byte string.
std::string sha256Of(std::string_view bytes);
// Lower-case hex BLAKE2b-512 of a byte string (GNU b2sum's hash).
std::string blake2b512Of(std::string_view bytes);

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
std::vector<std::optional<std::string>> parseRemoteHashes(std::string_view output, std::span<std::string const> paths);

// A command line that prints the hash of the first `length` bytes of `path`,
// and its answer: nullopt when it is not a regular file that can be read.
std::string remotePrefixHashCommand(std::string const& path, std::uint64_t length);
std::optional<std::string> parseRemotePrefixHash(std::string_view output);

}  // namespace foundation::sshclient::internal
