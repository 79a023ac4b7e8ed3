#include "tools/sshfa/Progress.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tools/sshfa/Interrupt.hpp"
#include "tools/sshfa/Terminal.hpp"

namespace sshfa::cli {
namespace {

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

std::string describeTotals(TransferTotals const& totals) {
  return fmt::format("{} file{}, {} in {:.2f} s ({})", totals.files, totals.files == 1 ? "" : "s",
                     formatBytes(totals.bytes), totals.seconds, formatRate(totals.bytes, totals.seconds));
}

TransferReporter::TransferReporter(bool drawBar) : drawBar_(drawBar), start_(std::chrono::steady_clock::now()) {}

TransferReporter::~TransferReporter() {
  if (drawn_) writeStderr("\r\x1b[K");
}

void TransferReporter::update(foundation::sshclient::TransferProgress const& progress) {
  last_ = progress;
  if (drawBar_) draw();
  throwIfInterrupted();
}

void TransferReporter::draw() {
  double const elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  std::uint64_t const total = std::max(last_.bytesTotal, last_.bytesDone);
  double const fraction = total == 0 ? 1.0 : static_cast<double>(last_.bytesDone) / static_cast<double>(total);
  std::string eta = "-:--";
  if (last_.bytesDone > 0 && elapsed > 0) {
    double const rate = static_cast<double>(last_.bytesDone) / elapsed;
    eta = formatDuration(static_cast<double>(total - last_.bytesDone) / rate);
  }
  std::string const tail =
      fmt::format(" {} / {}  {}  {}/{} files  ETA {}", formatBytes(last_.bytesDone), formatBytes(total),
                  formatRate(last_.bytesDone, elapsed), last_.filesDone, last_.filesTotal, eta);
  std::string const head = fmt::format("{:3.0f}% ", fraction * 100.0);
  // Room is left at the end for the terminal's "^C", so that it cannot wrap
  // the line and leave a stale bar behind.
  int const columns = terminalColumns(STDERR_FILENO) - 3;
  int const barWidth = columns - static_cast<int>(head.size() + tail.size()) - 2;
  std::string line = head;
  if (barWidth >= 10) {
    auto const filled = static_cast<std::size_t>(fraction * barWidth);
    line += "[" + std::string(filled, '#') + std::string(static_cast<std::size_t>(barWidth) - filled, '.') + "]";
  }
  line += tail;
  if (static_cast<int>(line.size()) > columns) line.resize(static_cast<std::size_t>(std::max(columns, 0)));
  writeStderr("\r" + line + "\x1b[K");
  drawn_ = true;
}

TransferTotals TransferReporter::finish() {
  if (drawn_) {
    writeStderr("\r\x1b[K");
    drawn_ = false;
  }
  double const elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  return {last_.filesDone, last_.bytesDone, elapsed};
}

std::function<void(foundation::sshclient::TransferProgress const&)> ProgressRouter::callback() {
  return [current = current_](foundation::sshclient::TransferProgress const& progress) {
    if (*current != nullptr) (*current)->update(progress);
  };
}

}  // namespace sshfa::cli
