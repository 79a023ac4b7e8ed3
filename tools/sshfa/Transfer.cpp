#include "tools/sshfa/Transfer.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "tools/sshfa/Commands.hpp"
#include "tools/sshfa/Interrupt.hpp"
#include "tools/sshfa/Text.hpp"

namespace sshfa::cli {
namespace {

namespace sfa = nimbal::remoteaccess::sshfileaccess;
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

std::string counted(std::size_t count, char const* singular, char const* plural) {
  return fmt::format("{} {}", count, count == 1 ? singular : plural);
}

}  // namespace

int runTransfer(sfa::FileAccess& access, ProgressRouter& progress, bool upload,
                std::vector<std::string> const& operands, TransferFlags const& flags, bool json) {
  char const* const name = upload ? "put" : "get";
  if (operands.size() < 2) throw UsageError(fmt::format("{} takes SOURCE... DESTINATION", name));
  std::string destination = operands.back();
  // Several sources go into one folder, made when missing.
  if (operands.size() > 2 && !destination.ends_with('/')) destination += '/';
  PathPairs pairs;
  pairs.reserve(operands.size() - 1);
  auto const to = fl::i18n::utf8_to_ustring(destination);
  for (std::size_t i = 0; i + 1 < operands.size(); ++i) pairs.emplace_back(fl::i18n::utf8_to_ustring(operands[i]), to);

  sfa::TransferOptions options;
  options.keepPermissions = !flags.noPermissions;
  options.keepSpecialBits = flags.keepSpecialBits;
  options.keepTimes = !flags.noTimes;
  options.followLinks = flags.followLinks;
  options.intoFolders = true;

  InterruptGuard const interruptible;
  TransferReporter reporter(isTerminal(STDERR_FILENO));
  sfa::TransferReport report;
  {
    ReporterScope const scope(progress, reporter);
    report = upload ? access.upload(pairs, options) : access.download(pairs, options);
  }
  TransferTotals totals = reporter.finish();
  totals.files = report.files;
  totals.bytes = report.bytes;
  for (auto const& note : report.notes) {
    writeTo(stderr, fmt::format("sshfa: {}: {}\n", name, forStream(STDERR_FILENO, note)));
  }
  if (json) {
    writeTo(stdout,
            fmt::format("{{\"files\": {}, \"bytes\": {}, \"seconds\": {:.3f}, \"folders\": {}, \"links\": {}, "
                        "\"special\": {}}}\n",
                        totals.files, totals.bytes, totals.seconds, report.folders, report.links, report.special));
    return 0;
  }
  std::string extra;
  if (report.links > 0) extra += ", " + counted(report.links, "link", "links");
  if (report.special > 0) extra += ", " + counted(report.special, "special file", "special files") + " left out";
  writeTo(stderr, fmt::format("{}: copied {}{}\n", name, describeTotals(totals), extra));
  return 0;
}

}  // namespace sshfa::cli
