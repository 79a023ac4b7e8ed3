#include "tools/sshfa/Progress.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tools/sshfa/Interrupt.hpp"
#include "tools/sshfa/Terminal.hpp"

namespace sshfa::cli {
namespace {

// The rate shown is that of the last few seconds, not since the start.
constexpr std::chrono::seconds kRateWindow{5};

std::string formatDuration(double seconds) {
  auto const total = static_cast<long long>(seconds + 0.5);
  if (total >= 3600) return fmt::format("{}:{:02}:{:02}", total / 3600, (total / 60) % 60, total % 60);
  return fmt::format("{}:{:02}", total / 60, total % 60);
}

void writeStderr(std::string const& text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

}  // namespace

std::string formatBytes(std::uint64_t bytes) {
  static constexpr char const* kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return fmt::format("{} B", bytes);
  auto value = static_cast<double>(bytes) / 1024.0;
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < std::size(kUnits)) {
    value /= 1024.0;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string formatRate(std::uint64_t bytes, double seconds) {
  if (seconds <= 0) return "-";
  return formatBytes(static_cast<std::uint64_t>(static_cast<double>(bytes) / seconds)) + "/s";
}

std::string describeAmount(TransferTotals const& totals) {
  return fmt::format("{} file{}, {}", totals.files, totals.files == 1 ? "" : "s", formatBytes(totals.bytes));
}

std::string describeTotals(TransferTotals const& totals) {
  return fmt::format("{} in {:.2f} s ({})", describeAmount(totals), totals.seconds,
                     formatRate(totals.bytes, totals.seconds));
}

TransferReporter::TransferReporter(bool drawBar) : drawBar_(drawBar), start_(std::chrono::steady_clock::now()) {}

TransferReporter::~TransferReporter() {
  if (drawn_) writeStderr("\r\x1b[K");
}

void TransferReporter::update(foundation::sshclient::TransferProgress const& progress) {
  last_ = progress;
  auto const now = std::chrono::steady_clock::now();
  samples_.emplace_back(now, progress.bytesDone);
  while (samples_.size() > 2 && now - samples_[1].first >= kRateWindow) samples_.pop_front();
  // Nothing to show while the sources are still listed (no totals yet).
  if (drawBar_ && progress.filesTotal + progress.bytesTotal > 0) draw();
  throwIfInterrupted();
}

double TransferReporter::recentRate() const {
  if (samples_.size() < 2) {
    double const elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    return elapsed > 0 ? static_cast<double>(last_.bytesDone) / elapsed : 0.0;
  }
  double const span = std::chrono::duration<double>(samples_.back().first - samples_.front().first).count();
  if (span <= 0) return 0.0;
  return static_cast<double>(samples_.back().second - samples_.front().second) / span;
}

std::string progressLine(foundation::sshclient::TransferProgress const& progress, double bytesPerSecond, int columns) {
  std::uint64_t const total = std::max(progress.bytesTotal, progress.bytesDone);
  double const fraction = total == 0 ? 1.0 : static_cast<double>(progress.bytesDone) / static_cast<double>(total);
  std::string eta = "-:--";
  if (bytesPerSecond > 0) eta = formatDuration(static_cast<double>(total - progress.bytesDone) / bytesPerSecond);
  std::string const rate = bytesPerSecond > 0 ? formatBytes(static_cast<std::uint64_t>(bytesPerSecond)) + "/s" : "-";
  std::string const fields[] = {
      fmt::format("{:3.0f}%", fraction * 100.0),
      fmt::format("{} / {}", formatBytes(progress.bytesDone), formatBytes(total)),
      rate,
      fmt::format("{}/{} files", progress.filesDone, progress.filesTotal),
      "ETA " + eta,
  };
  // Whole fields from the left while they fit.
  std::string tail;
  std::size_t const room = static_cast<std::size_t>(std::max(columns, 0));
  std::string line = fields[0].size() <= room ? fields[0] : std::string();
  for (std::size_t i = 1; i < std::size(fields) && !line.empty(); ++i) {
    if (line.size() + tail.size() + 2 + fields[i].size() > room) break;
    tail += "  " + fields[i];
  }
  int const barWidth = columns - static_cast<int>(line.size() + tail.size()) - 3;
  if (barWidth >= 10) {
    auto const filled = static_cast<std::size_t>(fraction * barWidth);
    line += " [" + std::string(filled, '#') + std::string(static_cast<std::size_t>(barWidth) - filled, '.') + "]";
  }
  return line + tail;
}

void TransferReporter::draw() {
  // Room is left at the end for the terminal's "^C", so that it cannot wrap
  // the line and leave a stale bar behind.
  writeStderr("\r" + progressLine(last_, recentRate(), terminalColumns(STDERR_FILENO) - 3) + "\x1b[K");
  drawn_ = true;
}

void TransferReporter::clearBar() {
  if (!drawn_) return;
  writeStderr("\r\x1b[K");
  drawn_ = false;
}

TransferTotals TransferReporter::finish() {
  clearBar();
  double const elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  return {last_.filesDone, last_.bytesDone, elapsed};
}

std::function<void(foundation::sshclient::TransferProgress const&)> ProgressRouter::callback() {
  return [current = current_](foundation::sshclient::TransferProgress const& progress) {
    if (*current != nullptr) (*current)->update(progress);
  };
}

}  // namespace sshfa::cli
