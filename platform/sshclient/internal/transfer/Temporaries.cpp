#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"

#include <charconv>

namespace foundation::sshclient::internal::transfer {

namespace {

// Keeps temporary names within NAME_MAX.
constexpr std::size_t kBaseLength = 200;
constexpr std::string_view kMark = ".sshfa-";
constexpr std::string_view kResumeMark = "partial-";

}  // namespace

std::string_view ownerKey(std::string_view name) noexcept { return name.substr(0, kBaseLength); }

std::string temporaryName(std::string_view name, std::string_view suffix) {
  auto const base = ownerKey(name);
  std::string temp;
  temp.reserve(1 + base.size() + kMark.size() + suffix.size());
  temp.append(1, '.').append(base).append(kMark).append(suffix);
  return temp;
}

std::string resumableName(std::string_view name, std::uint64_t size, std::optional<std::uint32_t> mtime) {
  // Built in place: this runs once for every file a transfer sends.
  char numbers[48];
  auto* end = std::to_chars(numbers, numbers + 20, size).ptr;
  *end++ = '-';
  end = std::to_chars(end, numbers + sizeof numbers, mtime.value_or(0)).ptr;
  auto const base = ownerKey(name);
  std::string temp;
  temp.reserve(1 + base.size() + kMark.size() + kResumeMark.size() + static_cast<std::size_t>(end - numbers));
  temp.append(1, '.').append(base).append(kMark).append(kResumeMark).append(numbers, end);
  return temp;
}

std::string randomTemporaryName(std::string_view name, std::mt19937_64& random) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string suffix(8, '0');
  auto bits = random();
  for (auto& c : suffix) {
    c = kHex[bits & 15U];
    bits >>= 4U;
  }
  return temporaryName(name, suffix);
}

std::optional<std::string_view> temporaryOwner(std::string_view name) noexcept {
  auto const mark = name.rfind(kMark);
  if (name.size() < 2 || name.front() != '.' || mark == std::string_view::npos || mark < 2) return std::nullopt;
  return name.substr(1, mark - 1);
}

}  // namespace foundation::sshclient::internal::transfer
