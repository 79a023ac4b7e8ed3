#pragma once
// A big file's bytes shared out among the channels of a transfer: a channel
// that has nothing else to do opens the same temporary and writes ranges of
// it, so that the file is not held to one channel's window.
//
// Ranges (grants) go out in order from one cursor, and only within
// kUnorderedReach of the prefix that has wholly arrived: a file interrupted
// anywhere holds every byte below its size less that reach. A resumed copy
// trusts no more than that (trustedPrefix), and the prefix is hashed on
// both sides before it is trusted at all.
//
// The copier that opened the temporary owns the file: it sets the
// attributes, closes and renames once every byte arrived. Helpers only write
// and close. A failure of any of them ends the file (failure()); the owner
// reports it. Pure records; not thread-safe.

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace foundation::sshclient::internal::transfer {

inline constexpr std::uint64_t kUnorderedReach = std::uint64_t{16} << 20U;
// Files from this size up are shared out when channels are free.
inline constexpr std::uint64_t kStripedFrom = std::uint64_t{32} << 20U;
inline constexpr std::uint64_t kGrantSize = std::uint64_t{1} << 20U;

// Of a resumable temporary `held` bytes long for a source of `size` bytes:
// the part a resume may trust, when copies of that size may be shared out.
[[nodiscard]] constexpr std::uint64_t trustedPrefix(std::uint64_t held, std::uint64_t size) noexcept {
  if (size < kStripedFrom) return held;
  return held > kUnorderedReach ? held - kUnorderedReach : 0;
}

struct Grant {
  std::uint64_t offset = 0;
  std::uint64_t end = 0;
};

class Stripe {
 public:
  // Bytes from `from` to `size` of `source` go to the remote `temp`, which
  // becomes `destination`.
  Stripe(std::string source, std::string destination, std::string temp, std::uint64_t from, std::uint64_t size)
      : source_(std::move(source)),
        destination_(std::move(destination)),
        temp_(std::move(temp)),
        cursor_(from),
        prefix_(from),
        size_(size) {}

  // The next range of at most `length` bytes; nullopt when all was handed
  // out, when it would reach beyond kUnorderedReach past the prefix, or once
  // the file ended.
  [[nodiscard]] std::optional<Grant> take(std::uint64_t length) {
    if (ended() || cursor_ >= size_ || length == 0) return std::nullopt;
    auto const end = cursor_ + std::min(length, size_ - cursor_);
    if (end > prefix_ + kUnorderedReach) return std::nullopt;
    Grant const grant{cursor_, end};
    cursor_ = end;
    return grant;
  }
  // Bytes [offset, offset + length) arrived.
  void arrived(std::uint64_t offset, std::uint64_t length) {
    if (length == 0) return;
    if (offset > prefix_) {
      auto& end = ahead_[offset];
      end = std::max(end, offset + length);
      return;
    }
    prefix_ = std::max(prefix_, offset + length);
    for (auto next = ahead_.begin(); next != ahead_.end() && next->first <= prefix_; next = ahead_.erase(next)) {
      prefix_ = std::max(prefix_, next->second);
    }
  }
  // The first failure ends the file; later ones add nothing.
  void fail(std::string const& message) {
    if (!failure_) failure_ = message;
  }
  // The owner is done with it (renamed, failed or cancelled): helpers stop.
  void end() noexcept { ended_ = true; }

  [[nodiscard]] bool handedOut() const noexcept { return cursor_ >= size_; }
  [[nodiscard]] bool complete() const noexcept { return prefix_ >= size_; }
  [[nodiscard]] bool ended() const noexcept { return ended_ || failure_.has_value(); }
  [[nodiscard]] std::optional<std::string> const& failure() const noexcept { return failure_; }
  [[nodiscard]] std::uint64_t prefix() const noexcept { return prefix_; }
  [[nodiscard]] std::uint64_t size() const noexcept { return size_; }
  [[nodiscard]] std::string const& source() const noexcept { return source_; }
  [[nodiscard]] std::string const& destination() const noexcept { return destination_; }
  [[nodiscard]] std::string const& temp() const noexcept { return temp_; }

 private:
  std::string source_;
  std::string destination_;
  std::string temp_;
  std::uint64_t cursor_;
  std::uint64_t prefix_;
  std::uint64_t size_;
  std::map<std::uint64_t, std::uint64_t> ahead_;  // arrived beyond the prefix: offset to end
  std::optional<std::string> failure_;
  bool ended_ = false;
};

// The files of a transfer open to helpers.
class StripeBoard {
 public:
  void post(std::shared_ptr<Stripe> stripe) { open_.push_back(std::move(stripe)); }
  // A file with ranges left to hand out, or null.
  [[nodiscard]] std::shared_ptr<Stripe> next() {
    std::erase_if(open_, [](auto const& stripe) { return stripe->ended() || stripe->handedOut(); });
    return open_.empty() ? nullptr : open_.front();
  }

 private:
  std::vector<std::shared_ptr<Stripe>> open_;
};

}  // namespace foundation::sshclient::internal::transfer
