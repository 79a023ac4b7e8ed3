#pragma once
// Progress of a transfer on standard error: a one-line bar (percentage,
// bytes, rate over the last few seconds, files, ETA) redrawn in place when
// standard error is a terminal (or when asked for), and a summary afterwards. The totals are
// known from the listing before the first byte moves.

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

namespace sshfa::cli {

struct TransferTotals {
  std::size_t files = 0;
  std::uint64_t bytes = 0;
  double seconds = 0;
};

class TransferReporter {
 public:
  explicit TransferReporter(bool drawBar);
  ~TransferReporter();
  TransferReporter(TransferReporter const&) = delete;
  TransferReporter& operator=(TransferReporter const&) = delete;

  // Throws Interrupted when a Ctrl-C is pending, so that the transfer winds
  // down cleanly.
  void update(foundation::sshclient::TransferProgress const& progress);
  // Takes the bar off the line, so that a line of text can go there; the
  // next update draws it again.
  void clearBar();
  // Removes the bar and returns what was transferred.
  TransferTotals finish();

 private:
  void draw();
  [[nodiscard]] double recentRate() const;

  bool drawBar_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point start_;
  foundation::sshclient::TransferProgress last_;
  // (when, bytes done) over the last few seconds, for the rate.
  std::deque<std::pair<std::chrono::steady_clock::time_point, std::uint64_t>> samples_;
};

// The progress line for `columns` columns: "42% [###...] 1.0 MiB / 2.4 MiB
// 3.1 MiB/s 12/300 files ETA 0:01"; the bar only where there is room for it,
// and on a narrow terminal whole fields dropped from the right.
std::string progressLine(foundation::sshclient::TransferProgress const& progress, double bytesPerSecond, int columns);

// Routes the SSH client's progress callback (fixed when the client is built)
// to whichever reporter is current; none by default.
class ProgressRouter {
 public:
  [[nodiscard]] std::function<void(foundation::sshclient::TransferProgress const&)> callback();
  void setReporter(TransferReporter* reporter) noexcept { *current_ = reporter; }

 private:
  std::shared_ptr<TransferReporter*> current_ = std::make_shared<TransferReporter*>(nullptr);
};

std::string formatBytes(std::uint64_t bytes);
std::string formatRate(std::uint64_t bytes, double seconds);
// "300 files, 3.1 MiB in 0.42 s (7.4 MiB/s)"
std::string describeTotals(TransferTotals const& totals);
// "300 files, 3.1 MiB": what a dry run would move, which takes no time.
std::string describeAmount(TransferTotals const& totals);

}  // namespace sshfa::cli
