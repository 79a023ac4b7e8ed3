#include "sshfileaccess/platform/sshclient/internal/transfer/Delta.hpp"

#include <algorithm>
#include <charconv>
#include <span>
#include <stdexcept>
#include <utility>

#include "sshfileaccess/platform/sshclient/internal/CommandRunner.hpp"
#include "sshfileaccess/platform/sshclient/internal/Digest.hpp"

namespace foundation::sshclient::internal::transfer {

namespace {

constexpr std::uint64_t kSmallestBlock = 128U * 1024U;
constexpr std::uint64_t kLargestBlock = 4U * 1024U * 1024U;
constexpr std::uint64_t kBlocksWanted = 64;

struct Word {
  std::string_view text;
  RemoteBlockStatus status;
};
constexpr Word kWords[] = {
    {"no-split", RemoteBlockStatus::NoSplit},
    {"no-copy", RemoteBlockStatus::NoCopy},
    {"unreadable", RemoteBlockStatus::Unreadable},
    {"failed", RemoteBlockStatus::Failed},
};

bool isHexHash(std::string_view text, std::size_t length) {
  return text.size() == length &&
         std::all_of(text.begin(), text.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

// A decimal number, the whole text.
bool numberOf(std::string_view text, std::uint64_t& number) {
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

std::vector<std::string_view> linesOf(std::string_view output) {
  std::vector<std::string_view> lines;
  while (!output.empty()) {
    auto const end = output.find('\n');
    if (end == std::string_view::npos)
      throw std::runtime_error("unfinished line in the block hashes of the remote host");
    lines.push_back(output.substr(0, end));
    output.remove_prefix(end + 1);
  }
  return lines;
}

}  // namespace

std::uint64_t deltaBlockSize(std::uint64_t sourceSize, std::uint64_t oldSize) {
  auto const wanted = (std::max(sourceSize, oldSize) + kBlocksWanted - 1) / kBlocksWanted;
  auto block = kSmallestBlock;
  while (block < wanted && block < kLargestBlock) block *= 2;
  return block;
}

std::uint64_t blockCount(std::uint64_t size, std::uint64_t blockSize) { return (size + blockSize - 1) / blockSize; }

std::optional<ByteRange> tailOverOld(std::uint64_t blockSize, std::uint64_t sourceSize, std::uint64_t oldSize) {
  auto const shortBy = oldSize % blockSize;
  if (shortBy == 0 || sourceSize <= oldSize) return std::nullopt;
  return ByteRange{oldSize - shortBy, oldSize};
}

DeltaRanges changedRanges(std::uint64_t blockSize, BlockHashes const& source, BlockHashes const& old,
                          std::optional<std::string> const& sourceOverOldTail) {
  auto const blocks = blockCount(source.size, blockSize);
  bool const comparable = source.hashes.size() == blocks && old.hashes.size() == blockCount(old.size, blockSize);
  auto const tail = tailOverOld(blockSize, source.size, old.size);
  DeltaRanges out;
  auto const send = [&out](std::uint64_t begin, std::uint64_t end) {
    if (begin >= end) return;
    if (!out.send.empty() && out.send.back().end == begin) {
      out.send.back().end = end;
    } else {
      out.send.push_back({begin, end});
    }
  };
  for (std::uint64_t i = 0; i < blocks; ++i) {
    auto const begin = i * blockSize;
    auto const end = std::min(source.size, begin + blockSize);
    if (comparable && i < old.hashes.size()) {
      auto const oldEnd = std::min(old.size, begin + blockSize);
      if (oldEnd == end && source.hashes[i] == old.hashes[i]) {
        out.reused += end - begin;
        continue;
      }
      if (tail && tail->begin == begin && sourceOverOldTail && *sourceOverOldTail == old.hashes[i]) {
        out.reused += tail->end - begin;
        send(tail->end, end);
        continue;
      }
    }
    send(begin, end);
  }
  return out;
}

std::string remoteBlockHashCommand(RemoteBlockRequest const& request) {
  auto const file = shellQuoted(request.path);
  // split asks $SHELL to run its filter: sh starts fastest.
  std::string line = "if ! split -b 1 --filter=: </dev/null >/dev/null 2>&1; then echo no-split; ";
  if (request.copyFrom) {
    // Into the file only as long as it is there: a temporary removed
    // meanwhile (a stop, the plan chose the whole file) is not made again.
    line += "elif ! dd if=" + shellQuoted(*request.copyFrom) + " of=" + file +
            " bs=1048576 conv=nocreat status=none; then echo no-copy; ";
  }
  line += "elif ! s=$(wc -c <" + file + "); then echo unreadable; ";
  // A part of the blocks per processor (at most 8), hashed at once: a
  // process per block costs more than the hashing. Each line says its block.
  // dd reads a part straight from the file (tail | head copies it twice more).
  line += "else " + std::string(kChooseHashTool) + "echo $s; b=" + std::to_string(request.blockSize) +
          "; n=$(((s+b-1)/b)); p=$(nproc) || p=1; [ $p -le 8 ] || p=8; k=$(((n+p-1)/p)); i=0; "
          "while [ $i -lt $n ]; do { dd if=" +
          file +
          " bs=$b skip=$i count=$k 2>/dev/null | SHELL=/bin/sh split -a 9 -b $b --filter=$h || echo failed; } | "
          "{ j=$i; while read v w; do echo $j $v; j=$((j+1)); done; } & i=$((i+k)); done; wait; ";
  if (request.tail) {
    line += "{ tail -c +" + std::to_string(request.tail->begin + 1) + " <" + file + " | head -c " +
            std::to_string(request.tail->end - request.tail->begin) +
            " | $h || echo failed; } | { read v w; echo tail $v; }; ";
  }
  line += "echo end; fi 2>/dev/null";
  return line;
}

RemoteBlockAnswer parseRemoteBlockHashes(std::string_view output, std::uint64_t blockSize, bool withTail) {
  auto const lines = linesOf(output);
  RemoteBlockAnswer answer;
  if (lines.empty()) throw std::runtime_error("no answer from the remote host for its block hashes");
  auto const last = lines.back();
  if (last != "end") {
    auto const word = std::find_if(std::begin(kWords), std::end(kWords), [&](Word const& w) { return w.text == last; });
    if (word == std::end(kWords)) {
      throw std::runtime_error("unexpected end of the block hashes of the remote host: " + std::string(last));
    }
    answer.status = word->status;
    return answer;
  }
  auto const kind = hashToolNamed(lines.front());
  if (!kind) throw std::runtime_error("no hash tool named by the remote host: " + std::string(lines.front()));
  answer.hash = *kind;
  if (lines.size() < 3) throw std::runtime_error("no size in the block hashes of the remote host");
  auto const size = remoteSizeLine(lines[1]);
  if (!size) {
    throw std::runtime_error("unexpected size in the block hashes of the remote host: " + std::string(lines[1]));
  }
  answer.blocks.size = *size;
  auto const blocks = blockCount(answer.blocks.size, blockSize);
  if (lines.size() != 3 + blocks + (withTail ? 1U : 0U)) {
    throw std::runtime_error("the remote host hashed " + std::to_string(lines.size() - 3) + " blocks of " +
                             std::to_string(answer.blocks.size) + " bytes, not " + std::to_string(blocks));
  }
  // The parts print their lines as they go: "INDEX HASH", in any order.
  answer.blocks.hashes.resize(blocks);
  for (auto const line : std::span(lines).subspan(2, lines.size() - 3)) {
    auto const space = line.find(' ');
    auto const label = line.substr(0, space);
    auto const hash = space == std::string_view::npos ? std::string_view() : line.substr(space + 1);
    if (hash == "failed") {
      answer.blocks.hashes.clear();
      answer.status = RemoteBlockStatus::Failed;
      return answer;
    }
    std::string* slot = nullptr;
    if (withTail && label == "tail") {
      if (!answer.tail) answer.tail.emplace();
      slot = &*answer.tail;
    } else if (auto const block = blockHashLine(line, *kind); block && block->index < blocks) {
      slot = &answer.blocks.hashes[block->index];
    }
    if (slot == nullptr || !slot->empty() || !isHexHash(hash, hexLengthOf(*kind))) {
      throw std::runtime_error("unexpected line in the block hashes of the remote host: " + std::string(line));
    }
    *slot = std::string(hash);
  }
  if (withTail && !answer.tail) throw std::runtime_error("no hash of the tail from the remote host");
  answer.status = RemoteBlockStatus::Hashed;
  return answer;
}

std::optional<std::uint64_t> remoteSizeLine(std::string_view line) {
  // wc pads its number with blanks on some systems.
  while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
  std::uint64_t size = 0;
  if (!numberOf(line, size)) return std::nullopt;
  return size;
}

std::optional<BlockHashLine> blockHashLine(std::string_view line, HashKind kind) {
  auto const space = line.find(' ');
  if (space == std::string_view::npos) return std::nullopt;
  BlockHashLine block;
  block.hash = line.substr(space + 1);
  if (!numberOf(line.substr(0, space), block.index) || !isHexHash(block.hash, hexLengthOf(kind))) return std::nullopt;
  return block;
}

std::string_view describeStatus(RemoteBlockStatus status) {
  switch (status) {
    case RemoteBlockStatus::Hashed:
      return "hashed";
    case RemoteBlockStatus::NoSplit:
      return "the remote host has no GNU split with --filter to hash blocks with";
    case RemoteBlockStatus::NoCopy:
      return "the remote host cannot copy the old version (dd failed)";
    case RemoteBlockStatus::Unreadable:
      return "the remote file cannot be read to hash its blocks";
    case RemoteBlockStatus::Failed:
      return "hashing the blocks on the remote host failed (no sha256sum?)";
  }
  return "?";
}

LinkSpeed withinWindow(LinkSpeed link, std::uint64_t bytesInFlight) {
  if (link.roundTripSeconds > 0) {
    link.bytesPerSecond = std::min(link.bytesPerSecond, static_cast<double>(bytesInFlight) / link.roundTripSeconds);
  }
  return link;
}

bool deltaPays(std::uint64_t sourceSize, std::uint64_t oldSize, LinkSpeed const& link, DeltaCosts const& costs) {
  if (link.bytesPerSecond <= 0 || costs.hashBytesPerSecond <= 0) return false;
  auto const larger = std::max(sourceSize, oldSize);
  auto const blocks = blockCount(larger, deltaBlockSize(sourceSize, oldSize));
  double const saved = static_cast<double>(std::min(sourceSize, oldSize)) / link.bytesPerSecond;
  double const cost =
      static_cast<double>(larger) / costs.hashBytesPerSecond + static_cast<double>(blocks) * costs.secondsPerBlock +
      static_cast<double>(oldSize) / costs.copyBytesPerSecond + costs.roundTrips * link.roundTripSeconds;
  return cost < saved;
}

}  // namespace foundation::sshclient::internal::transfer
