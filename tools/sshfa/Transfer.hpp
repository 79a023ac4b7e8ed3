#pragma once
// put and get: files, folder trees and links between this machine and the
// remote host, with a progress line on a terminal and a summary afterwards.

#include <string>
#include <vector>

#include "sshfileaccess/FileAccess.hpp"
#include "tools/sshfa/Progress.hpp"

namespace sshfa::cli {

// What put and get keep; by default modes (without setuid, setgid and
// sticky), times and links as links. By default files of the source's size
// and time are left alone and an interrupted file is resumed.
struct TransferFlags {
  bool noPermissions = false;
  bool noTimes = false;
  bool keepSpecialBits = false;
  bool followLinks = false;
  bool ignoreTimes = false;  // copy every file
  bool checksum = false;     // equal sizes compared by SHA-256
  bool deleteExtraneous = false;
  bool dryRun = false;
  bool noResume = false;
  bool delta = false;      // every changed file with an old version as a delta
  bool wholeFile = false;  // never a delta
  bool ignoreSuspectNames = false;
  bool verbose = false;  // a dry run also names what the filter leaves out
  // Choosing files: the options as given; the filter built from them, in
  // their order (buildFilter).
  std::vector<std::string> excludes;
  std::vector<std::string> includes;
  std::vector<std::string> excludesFrom;
  std::vector<std::string> includesFrom;
  std::vector<std::string> filterRules;
  bool gitignore = false;
  bool deleteExcluded = false;
  foundation::sshclient::Filter filter;
};

// The filter of a put or get: its rules in the order the command line gave
// them (`order`: the options' names as parsed, one per occurrence). A bad
// rule, or a rules file that cannot be read, is a UsageError naming it.
foundation::sshclient::Filter buildFilter(TransferFlags const& flags, std::vector<std::string> const& order);

// put (upload) and get: SOURCE... DESTINATION, as cp and scp take them: a
// destination that is an existing folder or ends with '/' receives each
// source under its own name; several sources always go into a folder. A
// missing source is an error; Ctrl-C, SIGTERM and SIGHUP stop the transfer
// cleanly, keeping what an interrupted file received for the next run. A dry
// run prints its plan (a line per change, or JSON) and changes nothing.
int runTransfer(nimbal::remoteaccess::sshfileaccess::FileAccess& access, ProgressRouter& progress, bool upload,
                std::vector<std::string> const& operands, TransferFlags const& flags, bool json);

}  // namespace sshfa::cli
