#include "sshfileaccess/platform/log/Logger.hpp"

#include <boost/core/null_deleter.hpp>
#include <boost/log/core.hpp>
#include <boost/log/keywords/channel.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/unlocked_frontend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/make_shared.hpp>
#include <mutex>

namespace foundation::log {
namespace {

// Accepts no record. Its only job is to exist: Boost.Log prints every record
// to the console while the core has no sink at all.
class DiscardBackend : public boost::log::sinks::basic_sink_backend<boost::log::sinks::concurrent_feeding> {
 public:
  void consume(boost::log::record_view const& /*unused*/) {}
};

void installDiscardSinkOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    auto sink = boost::make_shared<boost::log::sinks::unlocked_sink<DiscardBackend>>();
    sink->set_filter([](boost::log::attribute_value_set const& /*unused*/) { return false; });
    boost::log::core::get()->add_sink(sink);
  });
}

}  // namespace

template <class CharT>
basic_diagnostic_logger<CharT>::basic_diagnostic_logger(std::string const& channel)
    : channel_(channel), source_(boost::log::keywords::channel = channel) {
  installDiscardSinkOnce();
}

template <class CharT>
void basic_diagnostic_logger<CharT>::write(severity_type severity, std::basic_string_view<CharT> text) {
  if (!boost::log::core::get()->get_logging_enabled()) return;
  // severity_channel_logger_mt locks internally while it opens the record.
  boost::log::record rec = source_.open_record(boost::log::keywords::severity = severity);
  if (!rec) return;
  boost::log::record_ostream strm(rec);
  strm << text;
  strm.flush();
  source_.push_record(std::move(rec));
}

template class basic_diagnostic_logger<char>;

}  // namespace foundation::log

namespace nimbal::logging {

std::unique_ptr<foundation::log::basic_diagnostic_logger<char>> createChannelLogger(std::string const& channel) {
  return std::make_unique<foundation::log::basic_diagnostic_logger<char>>(channel);
}

}  // namespace nimbal::logging
