#include "tools/sshfa/Transfer.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include "sshfileaccess/FileAccessException.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "tools/sshfa/Commands.hpp"
#include "tools/sshfa/Interrupt.hpp"
#include "tools/sshfa/Text.hpp"

namespace sshfa::cli {
namespace {

namespace sfa = nimbal::remoteaccess::sshfileaccess;
using PathList = sfa::FileAccessInterface::PathList;
using PathPairs = sfa::FileAccessInterface::PathPairs;

// Clears the router's reporter however the transfer ends.
class ReporterScope {
 public:
  ReporterScope(ProgressRouter& router, TransferReporter& reporter) : router_(router) {
    router_.setReporter(&reporter);
  }
  ~ReporterScope() { router_.setReporter(nullptr); }
  ReporterScope(ReporterScope const&) = delete;
  ReporterScope& operator=(ReporterScope const&) = delete;

 private:
  ProgressRouter& router_;
};

}  // namespace

int runTransfer(sfa::FileAccess& access, ProgressRouter& progress, bool upload, std::vector<std::string> const& args,
                bool json) {
  PathPairs const pairs = toPairs(upload ? "put" : "get", args);
  // The library copies nothing, silently, for a missing source; a user who
  // typed the name wants to hear about it.
  PathList sources;
  sources.reserve(pairs.size());
  for (auto const& pair : pairs) sources.push_back(pair.first);
  sfa::FileAccessInterface& sourceSide = upload ? static_cast<sfa::FileAccessInterface&>(*access.local())
                                                : static_cast<sfa::FileAccessInterface&>(*access.remote());
  std::vector<bool> const present = sourceSide.exists(sources);
  for (std::size_t i = 0; i < sources.size(); ++i) {
    if (!present[i]) {
      throw sfa::FileAccessException(
          fmt::format("cannot copy '{}': No such file or directory", fl::i18n::ustring_to_utf8(sources[i])),
          upload ? sfa::FileAccessException::Code::LocalError : sfa::FileAccessException::Code::RemoteError);
    }
  }

  InterruptGuard const interruptible;
  TransferReporter reporter(isTerminal(STDERR_FILENO));
  {
    ReporterScope const scope(progress, reporter);
    if (upload) {
      access.localToRemoteCopy(pairs);
    } else {
      access.remoteToLocalCopy(pairs);
    }
  }
  TransferTotals const totals = reporter.finish();
  if (json) {
    writeTo(stdout, fmt::format("{{\"files\": {}, \"bytes\": {}, \"seconds\": {:.3f}}}\n", totals.files, totals.bytes,
                                totals.seconds));
  } else {
    writeTo(stderr, fmt::format("{}: copied {}\n", upload ? "put" : "get", describeTotals(totals)));
  }
  return 0;
}

}  // namespace sshfa::cli
