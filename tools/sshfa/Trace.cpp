#include "tools/sshfa/Trace.hpp"

#include <unistd.h>

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>
#include <cstdio>
#include <string>

#include "sshfileaccess/Utils.hpp"
#include "tools/sshfa/Text.hpp"

namespace sshfa::cli {
namespace {

namespace sfa = nimbal::remoteaccess::sshfileaccess;

void writeLine(char const* prefix, std::string const& message) {
  std::string line = prefix;
  line += forStream(STDERR_FILENO, message);
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

class StderrBackend : public boost::log::sinks::basic_sink_backend<boost::log::sinks::synchronized_feeding> {
 public:
  void consume(boost::log::record_view const& record) {
    auto const severity = boost::log::extract<sfa::Logger::severity_type>("Severity", record);
    auto const message = boost::log::extract<std::string>("Message", record);
    writeLine(severity && *severity == sfa::kSwallowedErrorSeverity ? "sshfa: note: " : "sshfa: trace: ",
              message ? *message : std::string());
  }
};

}  // namespace

void enableTrace() {
  sfa::Logger& logger = sfa::getLogger();
  auto sink = boost::make_shared<boost::log::sinks::synchronous_sink<StderrBackend>>();
  sink->set_filter([channel = logger.channel()](boost::log::attribute_value_set const& values) {
    auto const recordChannel = boost::log::extract<std::string>("Channel", values);
    return recordChannel && *recordChannel == channel;
  });
  boost::log::core::get()->add_sink(sink);
  logger.setEnabledSeverities(sfa::kTraceSeverity | sfa::kSwallowedErrorSeverity);
}

void trace(std::string const& message) { writeLine("sshfa: trace: ", message); }

}  // namespace sshfa::cli
