#include "sshfileaccess/platform/sshclient/internal/CommandRunner.hpp"

#include <cstdint>

namespace foundation::sshclient::internal {

void appendQuoted(std::string& line, std::string_view text) {
  line += '\'';
  for (std::size_t quote; (quote = text.find('\'')) != std::string_view::npos; text.remove_prefix(quote + 1)) {
    line.append(text.data(), quote);
    line += "'\\''";
  }
  line += text;
  line += '\'';
}

std::string shellQuoted(std::string_view text) {
  std::string quoted;
  quoted.reserve(text.size() + 2);
  appendQuoted(quoted, text);
  return quoted;
}

std::string randomMarker(std::random_device& random) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string marker = "sshfa";
  for (int word = 0; word < 4; ++word) {
    auto bits = static_cast<std::uint32_t>(random());
    for (int digit = 0; digit < 8; ++digit, bits >>= 4) marker += kDigits[bits & 0xFU];
  }
  return marker;
}

std::string markerPrint(std::string_view marker) {
  std::size_t const half = marker.size() / 2;
  return "printf \"%s%s\\n\" " + std::string(marker.substr(0, half)) + " " + std::string(marker.substr(half));
}

LoginNoiseFilter::LoginNoiseFilter(std::string_view marker) : line_(std::string(marker) + "\n") {}

void LoginNoiseFilter::drop(std::string& text) {
  if (passed_) return;
  // Nothing is dropped before the marker: the stream's first byte is first.
  if (!text.empty() && text.front() == '\0') foreign_ = true;
  // Only the new bytes, and the tail a marker split across reads may start in.
  std::size_t const from = searched_ >= line_.size() ? searched_ - line_.size() + 1 : 0;
  std::size_t const at = text.find(line_, from);
  if (at == std::string::npos) {
    searched_ = text.size();
    return;
  }
  text.erase(0, at + line_.size());
  passed_ = true;
}

}  // namespace foundation::sshclient::internal
