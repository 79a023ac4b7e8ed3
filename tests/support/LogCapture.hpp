#pragma once
// Captures the records of the library's log channel while in scope, and
// enables the given severities for that time.

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>
#include <mutex>
#include <string>
#include <vector>

#include "sshfileaccess/Utils.hpp"

namespace sshfa::testing {

struct CapturedRecord {
  unsigned severity = 0;
  std::string channel;
  std::string text;
};

class LogCapture {
 public:
  explicit LogCapture(unsigned enabledSeverities)
      : previousMask_(nimbal::remoteaccess::sshfileaccess::getLogger().enabledSeverities()),
        sink_(boost::make_shared<Sink>(boost::make_shared<Backend>())) {
    nimbal::remoteaccess::sshfileaccess::getLogger().setEnabledSeverities(enabledSeverities);
    boost::log::core::get()->add_sink(sink_);
  }
  ~LogCapture() {
    boost::log::core::get()->remove_sink(sink_);
    nimbal::remoteaccess::sshfileaccess::getLogger().setEnabledSeverities(previousMask_);
  }
  LogCapture(LogCapture const&) = delete;
  LogCapture& operator=(LogCapture const&) = delete;

  [[nodiscard]] std::vector<CapturedRecord> records() const { return sink_->locked_backend()->records(); }

 private:
  class Backend : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
   public:
    void consume(boost::log::record_view const& rec) {
      CapturedRecord r;
      if (auto sev = boost::log::extract<unsigned>("Severity", rec)) r.severity = *sev;
      if (auto ch = boost::log::extract<std::string>("Channel", rec)) r.channel = *ch;
      if (auto msg = boost::log::extract<std::string>("Message", rec)) r.text = *msg;
      records_.push_back(std::move(r));
    }
    [[nodiscard]] std::vector<CapturedRecord> records() const { return records_; }

   private:
    std::vector<CapturedRecord> records_;
  };
  using Sink = boost::log::sinks::synchronous_sink<Backend>;

  unsigned previousMask_;
  boost::shared_ptr<Sink> sink_;
};

}  // namespace sshfa::testing
