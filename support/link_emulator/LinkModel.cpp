#include "support/link_emulator/LinkModel.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <stdexcept>
#include <string>

namespace sshfa::linkemu {
namespace {

constexpr std::size_t kMinChunk = 1500;  // an Ethernet frame
constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMaxChunk = 64 * kKiB;
constexpr std::size_t kMinBuffer = 64 * kKiB;
constexpr std::size_t kUnlimitedBuffer = 16 * kKiB * kKiB;
constexpr double kNanosPerSecond = 1e9;
constexpr double kBitsPerByte = 8;

// Bytes the link serialises in `time`.
double bytesIn(Nanoseconds time, std::uint64_t bitsPerSecond) {
  return static_cast<double>(time.count()) * static_cast<double>(bitsPerSecond) / kBitsPerByte / kNanosPerSecond;
}

// A count with an optional one-letter suffix, each step `base` times the one before.
std::uint64_t parseScaled(std::string_view text, std::uint64_t base, char const* what) {
  auto bad = [&] { return std::invalid_argument("invalid " + std::string(what) + " '" + std::string(text) + "'"); };
  std::uint64_t value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end == text.data()) throw bad();
  std::string_view const suffix(end, static_cast<std::size_t>(text.data() + text.size() - end));
  if (suffix.empty()) return value;
  auto const steps =
      suffix.size() == 1
          ? std::string_view("kmg").find(static_cast<char>(std::tolower(static_cast<unsigned char>(suffix[0]))))
          : std::string_view::npos;
  if (steps == std::string_view::npos) throw bad();
  std::uint64_t scale = base;
  for (std::size_t i = 0; i < steps; ++i) scale *= base;
  if (value > UINT64_MAX / scale) throw bad();
  return value * scale;
}

}  // namespace

Nanoseconds serialisation(std::size_t bytes, std::uint64_t bitsPerSecond) noexcept {
  if (bitsPerSecond == 0) return Nanoseconds(0);
  std::uint64_t const bits = static_cast<std::uint64_t>(bytes) * 8U;
  std::uint64_t const nanos = (bits * 1'000'000'000U + bitsPerSecond - 1) / bitsPerSecond;
  return Nanoseconds(static_cast<Nanoseconds::rep>(nanos));
}

std::size_t chunkFor(std::uint64_t bitsPerSecond) noexcept {
  if (bitsPerSecond == 0) return kMaxChunk;
  return std::clamp<std::size_t>(static_cast<std::size_t>(bitsPerSecond / 8U / 1000U), kMinChunk, kMaxChunk);
}

std::size_t defaultBuffer(std::uint64_t bitsPerSecond, Nanoseconds roundTrip) noexcept {
  if (bitsPerSecond == 0) return kUnlimitedBuffer;
  return std::max(kMinBuffer, static_cast<std::size_t>(bytesIn(roundTrip, bitsPerSecond)));
}

LinkDirection::LinkDirection(LinkShape shape, Clock::time_point opensAt)
    : shape_(shape),
      chunk_(chunkFor(shape.bitsPerSecond)),
      capacity_(shape.bufferBytes + static_cast<std::size_t>(bytesIn(shape.delay, shape.bitsPerSecond)) + chunk_),
      linkFree_(opensAt) {
  // Without a rate nothing queues: the buffer bounds what is on the wire.
  if (shape.bitsPerSecond == 0) capacity_ = shape.bufferBytes;
}

std::size_t LinkDirection::queued(Clock::time_point now) const noexcept {
  if (shape_.bitsPerSecond == 0 || linkFree_ <= now) return 0;
  return static_cast<std::size_t>(bytesIn(linkFree_ - now, shape_.bitsPerSecond));
}

std::size_t LinkDirection::room(Clock::time_point now) const noexcept {
  std::size_t const queue = queued(now);
  std::size_t const queueRoom = queue >= shape_.bufferBytes ? 0 : shape_.bufferBytes - queue;
  std::size_t const memoryRoom = held_ >= capacity_ ? 0 : capacity_ - held_;
  std::size_t const room = std::min({chunk_, queueRoom, memoryRoom});
  return room < threshold() ? 0 : room;
}

Clock::time_point LinkDirection::roomAt(Clock::time_point now) const noexcept {
  if (capacity_ - std::min(held_, capacity_) < threshold() || shape_.bitsPerSecond == 0) {
    return Clock::time_point::max();
  }
  // The queue holds at most bufferBytes - threshold() from then on.
  std::size_t const keep = shape_.bufferBytes - threshold();
  return std::max(now, linkFree_ - serialisation(keep, shape_.bitsPerSecond));
}

Clock::time_point LinkDirection::admit(Clock::time_point now, std::size_t bytes) noexcept {
  linkFree_ = std::max(now, linkFree_) + serialisation(bytes, shape_.bitsPerSecond);
  held_ += bytes;
  return linkFree_ + shape_.delay;
}

void LinkDirection::delivered(std::size_t bytes) noexcept { held_ -= std::min(bytes, held_); }

std::uint64_t parseRate(std::string_view text) { return parseScaled(text, 1000, "rate"); }

std::size_t parseBytes(std::string_view text) {
  return static_cast<std::size_t>(parseScaled(text, 1024, "byte count"));
}

}  // namespace sshfa::linkemu
