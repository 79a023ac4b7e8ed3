#pragma once
// A user-space TCP relay that behaves like a long link, for benchmarks and
// tests on one machine (no kernel traffic shaping needed).
//
// It listens on 127.0.0.1 and connects every accepted connection to a target;
// each direction's bytes go through a LinkDirection: a bottleneck queue of
// bufferBytes at bitsPerSecond, then the one-way delay. When the queue is
// full the relay stops reading, so the rest waits in the sender's socket as
// behind a real bottleneck. A new connection costs one round trip as a TCP
// handshake would: the relay connects to the target one upward delay after
// accepting, and the client's first bytes leave the bottleneck no earlier
// than one round trip after accepting. TCP's own congestion control is not
// emulated (no slow start, no loss): a loss-free, well-tuned long link.
// TCP_NODELAY is set on both sides. Per connection and direction at most
// LinkDirection::memoryBound() bytes are held, in at most 4096 chunks.
//
// The constructor listens and starts the relay thread; it throws
// std::runtime_error naming the address and the cause when it cannot listen
// or resolve the target. A connection whose target refuses or fails is reset.
// killConnections() and stats() may be called from any thread;
// killConnections() is also async-signal-safe. The destructor stops the
// thread and resets the live connections.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "support/link_emulator/LinkModel.hpp"

namespace sshfa::linkemu {

struct EmulatorSettings {
  std::string targetHost = "127.0.0.1";
  int targetPort = 0;
  int listenPort = 0;               // 0: a free port, see port()
  Nanoseconds delayUp{0};           // client to target, one way
  Nanoseconds delayDown{0};         // target to client, one way
  std::uint64_t bitsPerSecond = 0;  // each direction; 0: no limit
  std::size_t bufferBytes = 0;      // 0: defaultBuffer() of the round trip
  // Reset a connection once it has carried this many bytes (both directions
  // together); 0: never.
  std::uint64_t killAfterBytes = 0;
  // A line per chunk, "seconds connection up|down in|out bytes": in when it
  // enters the link, out when the receiver takes it. Empty: no trace.
  std::filesystem::path tracePath;
};

struct EmulatorStats {
  std::uint64_t accepted = 0;
  std::uint64_t killed = 0;     // by killConnections() or killAfterBytes
  std::uint64_t bytesUp = 0;    // delivered to the target
  std::uint64_t bytesDown = 0;  // delivered to clients
  // Most bytes one direction of one connection held at once (queue, wire,
  // not yet taken by the receiver).
  std::uint64_t mostHeld = 0;
};

class LinkEmulator {
 public:
  explicit LinkEmulator(EmulatorSettings settings);
  ~LinkEmulator();
  LinkEmulator(LinkEmulator const&) = delete;
  LinkEmulator& operator=(LinkEmulator const&) = delete;

  [[nodiscard]] int port() const noexcept { return port_; }
  [[nodiscard]] EmulatorSettings const& settings() const noexcept { return settings_; }

  // Resets every live connection (both ends see a reset); new connections
  // are still accepted.
  void killConnections() noexcept;
  [[nodiscard]] EmulatorStats stats() const noexcept;

 private:
  class Relay;

  EmulatorSettings settings_;
  int port_ = 0;
  std::unique_ptr<Relay> relay_;
  std::thread thread_;
};

}  // namespace sshfa::linkemu
