#include "tools/sshfa/Transfer.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"
#include "tools/sshfa/Commands.hpp"
#include "tools/sshfa/Interrupt.hpp"
#include "tools/sshfa/Json.hpp"
#include "tools/sshfa/Text.hpp"
#include "tools/sshfa/Trace.hpp"
#include "tools/sshfa/TransferRules.hpp"

namespace sshfa::cli {
namespace {

namespace sfa = nimbal::remoteaccess::sshfileaccess;
namespace ssh = foundation::sshclient;
using PathPairs = sfa::FileAccessInterface::PathPairs;
using Action = ssh::PlannedChange::Action;

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

// While it lives, standard error goes nowhere: -q silences what a transfer
// reports on its way (progress, notes, summary); failures are reported by the
// caller after it has gone.
class SilencedStderr {
 public:
  explicit SilencedStderr(bool active) {
    if (!active) return;
    std::fflush(stderr);
    saved_ = ::dup(STDERR_FILENO);
    int const null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved_ >= 0 && null >= 0) ::dup2(null, STDERR_FILENO);
    if (null >= 0) ::close(null);
  }
  ~SilencedStderr() {
    if (saved_ < 0) return;
    std::fflush(stderr);
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
  }
  SilencedStderr(SilencedStderr const&) = delete;
  SilencedStderr& operator=(SilencedStderr const&) = delete;

 private:
  int saved_ = -1;
};

std::string counted(std::size_t count, char const* singular, char const* plural) {
  return fmt::format("{} {}", count, count == 1 ? singular : plural);
}

char const* actionName(Action action) {
  switch (action) {
    case Action::Copy:
      return "copy";
    case Action::Resume:
      return "resume";
    case Action::Skip:
      return "skip";
    case Action::Link:
      return "link";
    case Action::Folder:
      return "mkdir";
    case Action::Delete:
      return "delete";
    case Action::Replace:
      return "replace";
    case Action::Exclude:
      return "exclude";
    case Action::Fix:
      return "fix";
    case Action::Delta:
      return "delta";
  }
  return "?";
}

// "copy PATH (SIZE)": one line of a plan or of -v; sizes for file data.
std::string describeChange(ssh::PlannedChange const& change) {
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

// A dry run's plan, a line per change; what is left alone (unchanged, or
// left out by the filter) only when verbose.
void printPlan(std::vector<ssh::PlannedChange> const& plan, bool verbose) {
  std::string out;
  for (auto const& change : plan) {
    if (!verbose && (change.action == Action::Exclude || change.action == Action::Skip)) continue;
    out += describeChange(change);
  }
  writeTo(stdout, out);
}

enum class Kind { Missing, Folder, Other };

Kind localKind(std::string const& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return Kind::Missing;
  return S_ISDIR(st.st_mode) ? Kind::Folder : Kind::Other;
}

Kind remoteKind(sfa::FileAccess& access, std::string const& path) {
  auto const status = access.sftp().stat({path}).front();
  if (!status.exists()) return Kind::Missing;
  return status.kind == ssh::FileKind::Folder ? Kind::Folder : Kind::Other;
}

Kind kindOf(sfa::FileAccess& access, bool remote, std::string const& path) {
  return remote ? remoteKind(access, path) : localKind(path);
}

// sync makes the destination a copy of the source; at the top it does not
// put a file in a folder's place, or a folder in a file's: that is almost
// always a mistyped operand, and would remove what was there.
void refuseKindChange(sfa::FileAccess& access, TransferCommand const& command) {
  auto const source = kindOf(access, !command.upload, command.paths[0]);
  if (source == Kind::Missing) return;  // the transfer says so
  auto const destination = kindOf(access, command.upload, command.paths[1]);
  if (destination == Kind::Missing || (source == Kind::Folder) == (destination == Kind::Folder)) return;
  auto const& from = command.typed[0];
  auto const& to = command.typed[1];
  throw std::runtime_error(
      destination == Kind::Folder
          ? fmt::format("'{}' is a folder and '{}' is not; sync makes the destination a copy of the source and will "
                        "not put a file in a folder's place: name the copy ('{}/NAME')",
                        to, from, to)
          : fmt::format("'{}' is a folder and '{}' is not; sync makes the destination a copy of the source and will "
                        "not put a folder in its place: remove it first, or name another destination",
                        from, to));
}

// put and get into an existing DEST named like the source: said once.
void noteNesting(sfa::FileAccess& access, TransferCommand const& command) {
  if (command.name == "sync" || command.paths.size() != 2) return;
  auto const& destination = command.paths[1];
  if (!nestsUnderItsOwnName(command.paths[0], destination)) return;
  if (kindOf(access, command.upload, destination) != Kind::Folder) return;
  writeTo(stderr,
          "sshfa: " + forStream(STDERR_FILENO, nestingNote(command.name, command.typed[0], command.typed[1])) + "\n");
}

sfa::TransferOptions optionsOf(TransferCommand const& command) {
  auto const& flags = command.flags;
  sfa::TransferOptions options;
  options.keepPermissions = !flags.noPermissions;
  options.keepSpecialBits = flags.keepSpecialBits;
  options.keepTimes = !flags.noTimes;
  options.followLinks = flags.followLinks;
  // sync: the destination is the copy itself, whether or not it exists.
  options.intoFolders = command.name != "sync";
  options.skipUnchanged = flags.checksum      ? ssh::UnchangedTest::Checksum
                          : flags.ignoreTimes ? ssh::UnchangedTest::None
                                              : ssh::UnchangedTest::SizeAndTime;
  options.update = flags.update;
  options.deleteExtraneous = flags.deleteExtraneous || flags.deleteExcluded;
  options.dryRun = flags.dryRun;
  options.resume = !flags.noResume;
  options.delta = flags.wholeFile ? ssh::DeltaMode::Off : flags.delta ? ssh::DeltaMode::Always : ssh::DeltaMode::Auto;
  options.ignoreSuspectNames = flags.ignoreSuspectNames;
  options.filter = flags.filter;
  options.bytesPerSecond = flags.bytesPerSecond;
  options.channels = flags.channels;
  // As rsync: what is in the way is replaced (a folder only with --delete).
  options.replaceInTheWay = true;
  return options;
}

// The one document of a transfer: its counts in the summary's words.
Json totalsDocument(TransferCommand const& command, sfa::TransferReport const& report, TransferTotals const& totals) {
  Json json;
  if (command.flags.dryRun) {
    json["dryRun"] = true;
    Json plan = Json::array();
    for (auto const& change : report.plan) {
      plan.push_back({{"action", actionName(change.action)}, {"path", jsonName(change.path)}, {"bytes", change.bytes}});
    }
    json["plan"] = std::move(plan);
  }
  json["copied"] = report.files;
  json["bytes"] = report.bytes;
  json["reused"] = report.reused;
  json["seconds"] = std::round(totals.seconds * 1000.0) / 1000.0;
  json["resumed"] = report.resumed;
  json["unchanged"] = report.skipped;
  json["newer"] = report.newer;
  json["deleted"] = report.deleted;
  json["replaced"] = report.replaced;
  json["folders"] = report.folders;
  json["links"] = report.links;
  json["special"] = report.special;
  return json;
}

// "put: copied 3 files, 1.2 MiB in 0.20 s (6.0 MiB/s), 1 resumed, 997 unchanged, 2 deleted"; a dry run has no time.
std::string summary(TransferCommand const& command, sfa::TransferReport const& report, TransferTotals const& totals) {
  std::string extra;
  if (report.links > 0) extra += ", " + counted(report.links, "link", "links");
  if (report.special > 0) extra += ", " + counted(report.special, "special file", "special files") + " left out";
  if (report.reused > 0) extra += fmt::format(", {} reused", formatBytes(report.reused));
  if (report.resumed > 0) extra += fmt::format(", {} resumed", report.resumed);
  if (report.skipped > 0) extra += fmt::format(", {} unchanged", report.skipped);
  if (report.newer > 0) extra += fmt::format(", {} newer", report.newer);
  if (report.deleted > 0) extra += fmt::format(", {} deleted", report.deleted);
  if (report.replaced > 0) extra += fmt::format(", {} replaced", report.replaced);
  if (command.flags.dryRun) {
    return fmt::format("{}: dry run, would copy {}{}\n", command.name, describeAmount(totals), extra);
  }
  return fmt::format("{}: copied {}{}\n", command.name, describeTotals(totals), extra);
}

// With descriptors to spare an upload keeps its source open from its start
// (one open a file, not two) and more folders may be open at once. The soft
// limit goes up to kOpenFilesWanted where the hard limit allows; the limits
// before and after when it moved.
constexpr rlim_t kOpenFilesWanted = 16384;
std::optional<std::pair<rlim_t, rlim_t>> raiseOpenFileLimit() {
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kOpenFilesWanted) return std::nullopt;
  auto const before = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? kOpenFilesWanted : std::min(kOpenFilesWanted, limit.rlim_max);
  if (limit.rlim_cur <= before || ::setrlimit(RLIMIT_NOFILE, &limit) != 0) return std::nullopt;
  return std::pair(before, limit.rlim_cur);
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

int runTransfer(sfa::FileAccess& access, ProgressRouter& progress, TransferCommand const& command) {
  auto const& name = command.name;
  auto const& flags = command.flags;
  auto const& paths = command.paths;
  if (paths.size() < 2) throw UsageError(fmt::format("{} takes SOURCE... DESTINATION", name));
  std::string destination = paths.back();
  // Several sources go into one folder, made when missing.
  if (paths.size() > 2 && !destination.ends_with('/')) destination += '/';
  PathPairs pairs;
  pairs.reserve(paths.size() - 1);
  auto const to = fl::i18n::utf8_to_ustring(destination);
  for (std::size_t i = 0; i + 1 < paths.size(); ++i) pairs.emplace_back(fl::i18n::utf8_to_ustring(paths[i]), to);

  InterruptGuard const interruptible;
  if (name == "sync") refuseKindChange(access, command);
  noteNesting(access, command);
  auto options = optionsOf(command);
  if (auto const raised = raiseOpenFileLimit(); raised && flags.verbose) {
    trace(fmt::format("{}: open files: up to {} (was {})", name, raised->second, raised->first));
  }
  SilencedStderr const silenced(flags.quiet);
  TransferReporter reporter(flags.progress || isTerminal(STDERR_FILENO));
  if (flags.verbose && !command.json && !flags.dryRun) {
    // rsync's -v: a line per change as it is done, the bar out of its way.
    options.onChange = [&reporter](ssh::PlannedChange const& change) {
      reporter.clearBar();
      writeTo(stdout, describeChange(change));
    };
  }
  auto const printNotes = [&name](sfa::TransferReport const& done) {
    for (auto const& note : done.notes) {
      writeTo(stderr, fmt::format("sshfa: {}: {}\n", name, forStream(STDERR_FILENO, note)));
    }
  };
  sfa::TransferReport report;
  try {
    ReporterScope const scope(progress, reporter);
    report = command.upload ? access.upload(pairs, options) : access.download(pairs, options);
  } catch (ssh::TransferError const& e) {
    // What was found goes out before the failure: a dry run's plan too.
    printNotes(e.report());
    if (flags.dryRun && !command.json) printPlan(e.report().plan, flags.verbose);
    throw;
  }
  TransferTotals totals = reporter.finish();
  totals.files = report.files;
  totals.bytes = report.bytes;
  printNotes(report);
  if (flags.verbose) {
    if (report.channels > 1) trace(fmt::format("{}: files went over {} channels", name, report.channels));
    for (auto const& line : report.details) trace(fmt::format("{}: {}", name, fl::i18n::ustring_to_utf8(line)));
  }
  if (command.json) {
    writeTo(stdout, document(totalsDocument(command, report, totals)));
    return 0;
  }
  if (flags.dryRun) printPlan(report.plan, flags.verbose);
  writeTo(stderr, summary(command, report, totals));
  return 0;
}

}  // namespace sshfa::cli
