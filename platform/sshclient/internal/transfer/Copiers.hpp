#pragma once
// Files spread over the FileCopiers of several SFTP sessions (one per
// channel of a connection), fed from one queue.
//
// Each file's whole life (open, data, close, rename) stays with the copier
// it was handed to. A file goes to the copier already holding its
// destination, so that the later of two files to one place still waits for
// the earlier and is the one that stays; any other to the least loaded
// copier, each holding at most a bounded queue of its own so that a slow
// channel does not hoard files. With one copier every file goes to it at
// once, exactly as without this room.
//
// A copier with nothing queued and nothing under way helps with a big
// upload of another (Stripes.hpp), so that the last big file of a tree, or
// the only one, still goes over every channel.
//
// Holds the copiers, not their sessions; the first is the one deltas use.
// Not thread-safe.

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/sftp/Engine.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/FileCopy.hpp"

namespace foundation::sshclient::internal::transfer {

struct CopierLoad {
  std::size_t queued = 0;  // handed over, not started
  std::size_t active = 0;  // started, not finished
  bool holds = false;      // has the file's destination in hand
};

// The copier a file goes to, or nullopt while it must wait: the one that
// holds its destination (when that one has room), else the least loaded
// with fewer than `queueBound` queued.
[[nodiscard]] std::optional<std::size_t> copierFor(std::span<CopierLoad const> loads, std::size_t queueBound);

// Channels for a transfer whose caller left the count to us, from the round
// trip: one channel carries at most the server's channel window per round
// trip (OpenSSH's 2 MiB), the connection about kConnectionRate in all (one
// core's cipher); beyond kMostChannels none measured faster here. Never
// fewer than kLeastChannels: each channel is a server process of its own,
// and one sftp-server does one thing at a time, so a second one lets the
// server's file system work in parallel (100,000 files of 100 B on disk on
// loopback: put 9-37 % and get 34-38 % faster; on tmpfs no change), and a
// big upload shared out over two is faster even there (1 GiB: 1.5-1.8 s
// against 2.0-2.2 s over one).
inline constexpr double kConnectionRate = 300e6;  // bytes a second
inline constexpr std::size_t kLeastChannels = 2;
inline constexpr std::size_t kMostChannels = 4;
[[nodiscard]] std::size_t channelsFor(std::chrono::nanoseconds roundTrip);

// Where a transfer's amounts in flight start, from the round trip. On a
// short one an upload opens files only as far ahead as their data can soon
// go, since one sftp-server slows with more on loopback. From kLongRoundTrip
// on, each round of files is worth more (a round is three round trips: 300
// files of 2-6 KiB at 50 ms go in one round instead of two), so files start
// at their cap and uploads open as many as downloads do (10,000 files of
// 1-4 KiB at 50 ms: get 1.40 s against 1.63 s, put 1.32 s against 1.76 s).
inline constexpr std::chrono::milliseconds kLongRoundTrip{10};
[[nodiscard]] sftp::EngineOptions startingOptions(std::chrono::nanoseconds roundTrip);

// What a transfer may keep open here under the process's limit of open
// files `limit`. A file holds a descriptor while it is read or written
// here: an upload's source from its start while descriptors are free, else
// from when the window lets its data go until its last byte is read; a
// download's temporary from its first write (with replies in order, one or
// two files a channel at a time); a delta's or a resumed file's from its
// start. Each folder a download works in holds one. Half of what is left
// after kReservedFiles (sockets, libraries, the caller's own) goes to the
// files of all `channels`, at most `cap` a channel and at least
// kFewestFiles; a quarter to the folders, at least kFewestFolders.
inline constexpr std::size_t kReservedFiles = 64;
inline constexpr std::size_t kFewestFiles = 8;
inline constexpr std::size_t kFewestFolders = 16;
[[nodiscard]] std::size_t filesOpenPerChannel(std::size_t limit, std::size_t channels, std::size_t cap);
[[nodiscard]] std::size_t foldersOpen(std::size_t limit);

class Copiers {
 public:
  // Files each copier may hold queued beyond several.
  static constexpr std::size_t kQueuedEach = 64;

  void attach(FileCopier& copier) { copiers_.push_back(&copier); }
  // Lets the copiers share big uploads out among themselves.
  void shareOut();
  [[nodiscard]] std::size_t size() const noexcept { return copiers_.size(); }

  void add(FileTask task);
  // Hands queued files over, then polls every copier.
  void poll();
  [[nodiscard]] bool idle() const noexcept;
  // Nothing to do but deltas whose next ranges are still being found.
  [[nodiscard]] bool awaitsDeltas() const noexcept;
  [[nodiscard]] std::size_t waiting() const noexcept;
  [[nodiscard]] std::optional<std::string> current() const;
  [[nodiscard]] std::string context() const;
  void cancel();
  void abandon() noexcept;

 private:
  void feed();

  std::vector<FileCopier*> copiers_;
  StripeBoard board_;
  std::deque<FileTask> queue_;
  bool cancelled_ = false;
};

}  // namespace foundation::sshclient::internal::transfer
