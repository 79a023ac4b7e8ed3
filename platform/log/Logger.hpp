#pragma once
// Diagnostic logging on Boost.Log (foundation::log, nimbal::logging).
//
// A basic_diagnostic_logger is a thread-safe severity logger bound to one
// channel. Severities are single-bit values; a mask says which are enabled
// and is tested before any record text is built (isEnabled()). The mask
// starts empty: nothing is logged until the host application enables
// severities and adds a Boost.Log sink. Creating a logger also installs a
// sink that accepts nothing, so Boost.Log's default console output never
// appears by surprise.
//
// write() throws only what Boost.Log or allocation throws.

#include <atomic>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <memory>
#include <string>
#include <string_view>

#include "sshfileaccess/export.hpp"

namespace foundation::log {

template <class CharT>
class SSHFA_EXPORT basic_diagnostic_logger {
 public:
  using severity_type = unsigned int;

  explicit basic_diagnostic_logger(std::string const& channel);

  [[nodiscard]] bool isEnabled(severity_type severity) const noexcept {
    return (mask_.load(std::memory_order_relaxed) & severity) != 0;
  }
  void setEnabledSeverities(severity_type mask) noexcept { mask_.store(mask, std::memory_order_relaxed); }
  [[nodiscard]] severity_type enabledSeverities() const noexcept { return mask_.load(std::memory_order_relaxed); }
  [[nodiscard]] std::string const& channel() const noexcept { return channel_; }

  // Opens a record at `severity` (when the logging core accepts it) and
  // pushes `text`. Callers test isEnabled() first.
  void write(severity_type severity, std::basic_string_view<CharT> text);

 private:
  std::string channel_;
  std::atomic<severity_type> mask_{0};
  boost::log::sources::severity_channel_logger_mt<severity_type, std::string> source_;
};

extern template class basic_diagnostic_logger<char>;

}  // namespace foundation::log

namespace nimbal::logging {

// Creates a logger for `channel`. Throws what Boost.Log or allocation throws.
SSHFA_EXPORT std::unique_ptr<foundation::log::basic_diagnostic_logger<char>> createChannelLogger(
    std::string const& channel);

}  // namespace nimbal::logging
