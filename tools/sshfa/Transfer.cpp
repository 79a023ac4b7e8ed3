#include "tools/sshfa/Transfer.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "tools/sshfa/Commands.hpp"
#include "tools/sshfa/Interrupt.hpp"
#include "tools/sshfa/Text.hpp"
#include "tools/sshfa/Trace.hpp"

namespace sshfa::cli {
namespace {

namespace sfa = nimbal::remoteaccess::sshfileaccess;
namespace ssh = foundation::sshclient;
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

char const* actionName(ssh::PlannedChange::Action action) {
  switch (action) {
    case ssh::PlannedChange::Action::Copy:
      return "copy";
    case ssh::PlannedChange::Action::Resume:
      return "resume";
    case ssh::PlannedChange::Action::Skip:
      return "skip";
    case ssh::PlannedChange::Action::Link:
      return "link";
    case ssh::PlannedChange::Action::Folder:
      return "mkdir";
    case ssh::PlannedChange::Action::Delete:
      return "delete";
    case ssh::PlannedChange::Action::Replace:
      return "replace";
    case ssh::PlannedChange::Action::Exclude:
      return "exclude";
    case ssh::PlannedChange::Action::Delta:
      return "delta";
  }
  return "?";
}

// "copy PATH (SIZE)": one line of a dry run's plan; sizes for file data.
std::string describeChange(ssh::PlannedChange const& change) {
  using Action = ssh::PlannedChange::Action;
  bool const data = change.action == Action::Copy || change.action == Action::Resume ||
                    change.action == Action::Delta || change.action == Action::Skip;
  auto const size = data ? fmt::format(" ({})", formatBytes(change.bytes)) : std::string();
  return fmt::format("{} {}{}\n", actionName(change.action), forStream(STDOUT_FILENO, change.path), size);
}

// A rules file whole; a UsageError naming it when it cannot be read.
std::string rulesFile(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  if (!in.is_open() || in.bad()) throw UsageError(fmt::format("cannot read '{}': {}", path, std::strerror(errno)));
  return text.str();
}

// A dry run's plan, a line per change; what the filter leaves out only when verbose.
void printPlan(std::vector<ssh::PlannedChange> const& plan, bool verbose) {
  for (auto const& change : plan) {
    if (change.action == ssh::PlannedChange::Action::Exclude && !verbose) continue;
    writeTo(stdout, describeChange(change));
  }
}

}  // namespace

ssh::Filter buildFilter(TransferFlags const& flags, std::vector<std::string> const& order) {
  ssh::Filter filter;
  std::map<std::string, std::size_t> used;
  auto const next = [&](std::string const& option, std::vector<std::string> const& values) -> std::string const& {
    return values.at(used[option]++);
  };
  try {
    for (auto const& option : order) {
      if (option == "--exclude") {
        filter.exclude(next(option, flags.excludes));
      } else if (option == "--include") {
        filter.include(next(option, flags.includes));
      } else if (option == "--exclude-from") {
        auto const& file = next(option, flags.excludesFrom);
        filter.excludeFrom(rulesFile(file), file);
      } else if (option == "--include-from") {
        auto const& file = next(option, flags.includesFrom);
        filter.includeFrom(rulesFile(file), file);
      } else if (option == "--filter") {
        filter.rule(next(option, flags.filterRules));
      } else if (option == "--gitignore") {
        filter.gitignore();
      }
    }
  } catch (ssh::FilterError const& e) {
    throw UsageError(e.what());
  }
  if (flags.deleteExcluded) filter.deleteExcluded();
  return filter;
}

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
  options.skipUnchanged = flags.checksum      ? ssh::UnchangedTest::Checksum
                          : flags.ignoreTimes ? ssh::UnchangedTest::None
                                              : ssh::UnchangedTest::SizeAndTime;
  options.deleteExtraneous = flags.deleteExtraneous || flags.deleteExcluded;
  options.dryRun = flags.dryRun;
  options.resume = !flags.noResume;
  options.delta = flags.wholeFile ? ssh::DeltaMode::Off : flags.delta ? ssh::DeltaMode::Always : ssh::DeltaMode::Auto;
  options.ignoreSuspectNames = flags.ignoreSuspectNames;
  options.filter = flags.filter;
  // As rsync: what is in the way is replaced (a folder only with --delete).
  options.replaceInTheWay = true;

  InterruptGuard const interruptible;
  TransferReporter reporter(isTerminal(STDERR_FILENO));
  auto const printNotes = [name](sfa::TransferReport const& done) {
    for (auto const& note : done.notes) {
      writeTo(stderr, fmt::format("sshfa: {}: {}\n", name, forStream(STDERR_FILENO, note)));
    }
  };
  sfa::TransferReport report;
  try {
    ReporterScope const scope(progress, reporter);
    report = upload ? access.upload(pairs, options) : access.download(pairs, options);
  } catch (ssh::TransferError const& e) {
    // What was found goes out before the failure: a dry run's plan too.
    printNotes(e.report());
    if (flags.dryRun && !json) printPlan(e.report().plan, flags.verbose);
    throw;
  }
  TransferTotals totals = reporter.finish();
  totals.files = report.files;
  totals.bytes = report.bytes;
  printNotes(report);
  if (flags.verbose) {
    for (auto const& line : report.details) trace(fmt::format("{}: {}", name, fl::i18n::ustring_to_utf8(line)));
  }
  if (json) {
    std::string plan;
    if (flags.dryRun) {
      plan = "\"dryRun\": true, \"plan\": [";
      for (auto const& change : report.plan) {
        if (plan.back() != '[') plan += ", ";
        plan += fmt::format("{{\"action\": \"{}\", \"path\": {}, \"bytes\": {}}}", actionName(change.action),
                            jsonString(change.path), change.bytes);
      }
      plan += "], ";
    }
    writeTo(stdout,
            fmt::format("{{{}\"files\": {}, \"skipped\": {}, \"deleted\": {}, \"resumed\": {}, "
                        "\"bytes\": {}, \"reused\": {}, \"seconds\": {:.3f}, \"folders\": {}, "
                        "\"links\": {}, \"special\": {}, \"replaced\": {}}}\n",
                        plan, totals.files, report.skipped, report.deleted, report.resumed, totals.bytes, report.reused,
                        totals.seconds, report.folders, report.links, report.special, report.replaced));
    return 0;
  }
  if (flags.dryRun) printPlan(report.plan, flags.verbose);
  std::string extra;
  if (report.links > 0) extra += ", " + counted(report.links, "link", "links");
  if (report.special > 0) extra += ", " + counted(report.special, "special file", "special files") + " left out";
  if (report.reused > 0) extra += fmt::format(", {} reused", formatBytes(report.reused));
  if (report.resumed > 0) extra += fmt::format(", {} resumed", report.resumed);
  if (report.skipped > 0) extra += fmt::format(", {} unchanged", report.skipped);
  if (report.deleted > 0) extra += fmt::format(", {} deleted", report.deleted);
  if (report.replaced > 0) extra += fmt::format(", {} replaced", report.replaced);
  writeTo(stderr, fmt::format("{}: {} {}{}\n", name, flags.dryRun ? "dry run, would copy" : "copied",
                              describeTotals(totals), extra));
  return 0;
}

}  // namespace sshfa::cli
