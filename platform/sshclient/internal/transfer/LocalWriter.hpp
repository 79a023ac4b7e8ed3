#pragma once
// Small downloaded files made on this side by threads of their own.
//
// Making a file costs this side more than its bytes (a temporary created,
// written, its mode and times set, renamed: about 50 us of the file
// system's work for 100 B), and the thread that drives the channels did it
// for every file, one at a time, while the servers waited. A file whose
// bytes have all arrived is handed over whole instead; a worker makes it
// exactly as that thread would, with the same messages, and its outcome
// comes back to the copier that handed it over.
//
// Files posted wait until flush() hands them over together: a worker woken
// for every file cost more than it made (a context switch per file).
// post(), flush(), take(), await() and inHand() are for the driving thread;
// the workers touch nothing but the files they are given. Destroying the
// writer finishes what was posted first.

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/transfer/LocalFiles.hpp"

namespace foundation::sshclient::internal::transfer {

class LocalWriter {
 public:
  // Files of at most this many bytes are handed over: more would hold too
  // much memory while they wait.
  static constexpr std::uint64_t kLargest = 64U * 1024U;

  struct File {
    std::shared_ptr<LocalDir> folder;
    std::string name;         // the destination's, in `folder`
    std::string destination;  // its path, for messages
    std::unique_ptr<std::uint8_t[]> bytes;
    std::size_t length = 0;
    Kept kept;
    mode_t createMode = 0600;
    void* owner = nullptr;  // handed back with the outcome
    void* key = nullptr;
  };
  struct Outcome {
    void* owner = nullptr;
    void* key = nullptr;
    std::string failure;  // empty: the file is in place
  };

  explicit LocalWriter(std::size_t threads);
  ~LocalWriter();
  LocalWriter(LocalWriter const&) = delete;
  LocalWriter& operator=(LocalWriter const&) = delete;

  void post(File file);
  // Hands the files posted since the last flush to the workers.
  void flush();
  // The outcomes so far; never sleeps.
  [[nodiscard]] std::vector<Outcome> take();
  // Flushes, then sleeps until an outcome is there to take, or nothing is
  // in hand.
  void await();
  // Files posted whose outcome was not taken yet.
  [[nodiscard]] std::size_t inHand() const noexcept { return inHand_; }

 private:
  void work();

  std::mutex mutex_;
  std::condition_variable handed_;
  std::condition_variable finished_;
  std::vector<File> posted_;  // not flushed yet
  std::deque<File> files_;
  std::vector<Outcome> outcomes_;
  bool ending_ = false;
  std::size_t inHand_ = 0;  // the driving thread's own count
  std::vector<std::thread> threads_;
};

// Makes `file` in its folder as a download's last steps do: a temporary
// created exclusively, its bytes, mode and times, then the rename over the
// destination; a failure removes the temporary. The message of a failure,
// or an empty one.
[[nodiscard]] std::string makeFile(LocalWriter::File const& file, std::mt19937_64& random);

}  // namespace foundation::sshclient::internal::transfer
