#pragma once
// The timing of one direction of an emulated link, with no sockets: a
// bottleneck that serialises bytes at a fixed rate behind a queue of bounded
// size, followed by a fixed one-way delay. The relay (LinkEmulator) feeds it
// the bytes it reads and delivers them when admit() says.
//
// A byte admitted at `now` waits until the bytes before it have left the
// bottleneck, takes its own serialisation time, then the delay. Bytes move
// in chunks: a chunk is delivered whole when its last byte arrives, as a
// packet would be. room() tells how much may enter: what the queue has free
// and what the memory bound (queue, wire and bytes the receiver has not taken
// yet) leaves; the rest waits in the sender's socket.
//
// Values only; no thread-safety of its own. The parse functions throw
// std::invalid_argument with a message naming the text.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace sshfa::linkemu {

using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::nanoseconds;

struct LinkShape {
  Nanoseconds delay{0};             // one way
  std::uint64_t bitsPerSecond = 0;  // 0: no rate limit
  std::size_t bufferBytes = 0;      // the bottleneck queue
};

class LinkDirection {
 public:
  // `opensAt`: nothing leaves the bottleneck before then (a connection's
  // first bytes wait for its handshake).
  LinkDirection(LinkShape shape, Clock::time_point opensAt);

  // Bytes that may enter at `now`: at most one chunk, and 0 while less than
  // threshold() is free (smaller reads would only cost system calls).
  [[nodiscard]] std::size_t room(Clock::time_point now) const noexcept;
  // When room() is no longer 0, if only the queue holds it back
  // (time_point::max() when only deliveries can make room).
  [[nodiscard]] Clock::time_point roomAt(Clock::time_point now) const noexcept;
  // `bytes` (at most room(now)) enter at `now`; returns when they arrive.
  Clock::time_point admit(Clock::time_point now, std::size_t bytes) noexcept;
  // The receiver took `bytes`: they no longer count against the memory bound.
  void delivered(std::size_t bytes) noexcept;

  [[nodiscard]] std::size_t held() const noexcept { return held_; }
  [[nodiscard]] std::size_t chunkBytes() const noexcept { return chunk_; }
  [[nodiscard]] std::size_t threshold() const noexcept { return std::min(chunk_, shape_.bufferBytes); }
  // Most bytes ever held at once: queue, wire, not yet taken by the receiver.
  [[nodiscard]] std::size_t memoryBound() const noexcept { return capacity_; }

 private:
  [[nodiscard]] std::size_t queued(Clock::time_point now) const noexcept;

  LinkShape shape_;
  std::size_t chunk_;
  std::size_t capacity_;
  Clock::time_point linkFree_;  // when the bottleneck has sent everything admitted
  std::size_t held_ = 0;
};

// Time to serialise `bytes` at `bitsPerSecond`, rounded up (never faster
// than the rate); 0 for no limit.
Nanoseconds serialisation(std::size_t bytes, std::uint64_t bitsPerSecond) noexcept;

// The chunk a link moves at once: about 1 ms of its rate, between 1500 bytes
// and 64 KiB (64 KiB without a rate limit).
std::size_t chunkFor(std::uint64_t bitsPerSecond) noexcept;

// One bandwidth-delay product of a round trip, at least 64 KiB; 16 MiB
// without a rate limit.
std::size_t defaultBuffer(std::uint64_t bitsPerSecond, Nanoseconds roundTrip) noexcept;

// "1G", "100M", "250k", "1000000" (bits/s, powers of 1000); "0" for none.
std::uint64_t parseRate(std::string_view text);
// "4M", "512K", "1G", "65536" (bytes, powers of 1024).
std::size_t parseBytes(std::string_view text);

}  // namespace sshfa::linkemu
