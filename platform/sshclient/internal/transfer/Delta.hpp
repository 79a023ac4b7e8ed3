#pragma once
// Delta updates of files that exist on both sides: the pure pieces.
//
// Both versions are cut into blocks of one size, chosen from the larger
// size. The old version's blocks are hashed where it lives, the source's
// where the source lives (BLAKE2b-512 where the remote host has b2sum, else
// SHA-256; the host says which), and only the source's blocks whose
// hash differs go over the link into a copy of the old version. The source's
// bytes over the old version's last, short block are hashed too: when they
// match, the old version is the source's beginning (a log that grew) and
// only the new tail is sent. A change that shifts the rest of the file (an
// insertion) changes every block after it: the rest is sent.
//
// Also here: the command line that hashes a remote file's blocks with what a
// GNU host has (split --filter into b2sum or sha256sum), its answer, and the cost
// rule that tells when hashing both sides beats sending the whole file.
//
// Pure functions; parsing throws std::runtime_error for output that is not
// such an answer.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"

namespace foundation::sshclient::internal::transfer {

// Bytes [begin, end) of a file.
struct ByteRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  friend bool operator==(ByteRange const&, ByteRange const&) = default;
};

// One version's blocks: its size and the hex hash of each block, in order;
// the last block may be shorter than the others.
struct BlockHashes {
  std::uint64_t size = 0;
  std::vector<std::string> hashes;
};

// The block size for a source of `sourceSize` bytes over an old version of
// `oldSize`: about 64 blocks of the larger, a power of two from 128 KiB to
// 4 MiB (the remote side starts a process per block).
[[nodiscard]] std::uint64_t deltaBlockSize(std::uint64_t sourceSize, std::uint64_t oldSize);

// The number of blocks of a version of `size` bytes.
[[nodiscard]] std::uint64_t blockCount(std::uint64_t size, std::uint64_t blockSize);

// The source's bytes over the old version's last block when that block is
// short and the source goes on past it; nullopt otherwise. Their hash equal
// to that block's says the old version is the source's beginning.
[[nodiscard]] std::optional<ByteRange> tailOverOld(std::uint64_t blockSize, std::uint64_t sourceSize,
                                                   std::uint64_t oldSize);

struct DeltaRanges {
  std::vector<ByteRange> send;  // in order, apart, within the source
  std::uint64_t reused = 0;     // source bytes taken from the old version
};

// What of the source must be sent into a copy of the old version (cut to the
// source's size afterwards) to make it the source. `sourceOverOldTail` is
// the hash of the source's bytes over tailOverOld(), when there is such a
// range. Hashes that do not fit their version's size count as differing.
[[nodiscard]] DeltaRanges changedRanges(std::uint64_t blockSize, BlockHashes const& source, BlockHashes const& old,
                                        std::optional<std::string> const& sourceOverOldTail);

// A remote file's blocks, hashed on the remote host.
struct RemoteBlockRequest {
  std::string path;
  std::uint64_t blockSize = 0;
  // First made a copy of this file (by dd, into the file as it exists):
  // the temporary of an upload.
  std::optional<std::string> copyFrom;
  // Also hashed: these bytes of the file (tailOverOld of a download).
  std::optional<ByteRange> tail;
};

// One sh command line. Its standard output: the tool it hashes with
// ("b2sum" or "sha256sum", see Digest.hpp), the file's size, a line
// "INDEX HASH" per block in any order (the blocks are hashed in parts at
// once, a part per processor of the host), "tail HASH" when asked, then
// "end"; or, in place of "end", a word telling what was missing (see
// RemoteBlockStatus). A part that failed prints "INDEX failed".
[[nodiscard]] std::string remoteBlockHashCommand(RemoteBlockRequest const& request);

enum class RemoteBlockStatus : std::uint8_t {
  Hashed,
  NoSplit,     // no split with --filter (not GNU coreutils)
  NoCopy,      // dd could not copy the old version into the file
  Unreadable,  // the file cannot be read
  Failed,      // hashing stopped part way (no sha256sum, a read error)
};

struct RemoteBlockAnswer {
  RemoteBlockStatus status = RemoteBlockStatus::Failed;
  HashKind hash = HashKind::Sha256;  // Hashed only
  BlockHashes blocks;                // Hashed only
  std::optional<std::string> tail;   // Hashed, when asked for
};

[[nodiscard]] RemoteBlockAnswer parseRemoteBlockHashes(std::string_view output, std::uint64_t blockSize, bool withTail);

// The answer's lines one at a time, as they come: its second line's size,
// and a block's line "INDEX HASH" (of a hash made with `kind`); nullopt for
// any other line, which parseRemoteBlockHashes judges with the whole answer.
[[nodiscard]] std::optional<std::uint64_t> remoteSizeLine(std::string_view line);
struct BlockHashLine {
  std::uint64_t index = 0;
  std::string_view hash;
};
[[nodiscard]] std::optional<BlockHashLine> blockHashLine(std::string_view line, HashKind kind);

// Why a file went whole after all, for a verbose reader.
[[nodiscard]] std::string_view describeStatus(RemoteBlockStatus status);

// What the link was measured to do.
struct LinkSpeed {
  double bytesPerSecond = 0;
  double roundTripSeconds = 0;
};

// The rate one transfer reaches over `link` with at most `bytesInFlight` of
// file data under way: over a long round trip that, not the link, bounds a
// whole file (a short probe fits in any window and sees the link's rate).
[[nodiscard]] LinkSpeed withinWindow(LinkSpeed link, std::uint64_t bytesInFlight);

// What a delta costs beyond the data it sends, measured on a Debian host
// (GNU coreutils 9.1, 2 cores) as one part: b2sum over split's blocks (64
// MiB in 0.09 s), a process per block (2.2 ms with nothing to hash), the
// copy of the old version on its side, and the round trips of the
// temporary's copy and the hashing command's answer. Hashing on this side
// runs at the same time. A host with sha256sum only hashes at half this
// rate, and one of more processors hashes its parts at once: the rule errs
// toward deltas on the one and toward whole files on the other.
struct DeltaCosts {
  double hashBytesPerSecond = 700e6;
  double secondsPerBlock = 0.0025;
  double copyBytesPerSecond = 600e6;
  double roundTrips = 3;
};

// Whether hashing both sides costs less time than the old version can save
// over `link` (at most its bytes, or the source's, need not be sent): the
// rule that picks a delta by itself. Nothing pays over a link that moves
// nothing measurable (a rate of 0: not measured).
[[nodiscard]] bool deltaPays(std::uint64_t sourceSize, std::uint64_t oldSize, LinkSpeed const& link,
                             DeltaCosts const& costs = {});

}  // namespace foundation::sshclient::internal::transfer
