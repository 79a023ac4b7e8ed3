#pragma once
// put, get and sync: files, folder trees and links between this machine and
// the remote host, with a progress line on a terminal, a line per change
// under -v, and a summary (or one JSON document) afterwards.

#include <cstdint>
#include <string>
#include <vector>

#include "sshfileaccess/FileAccess.hpp"
#include "tools/sshfa/Progress.hpp"

namespace sshfa::cli {

// What put, get and sync keep; by default modes (without setuid, setgid and
// sticky), times and links as links. By default files of the source's size
// and time are left alone and an interrupted file is resumed.
struct TransferFlags {
  bool noPermissions = false;
  bool noTimes = false;
  bool keepSpecialBits = false;
  bool followLinks = false;
  bool ignoreTimes = false;  // copy every file
  bool checksum = false;     // equal sizes compared by SHA-256
  bool update = false;       // leave destination files newer than their source alone
  bool deleteExtraneous = false;
  bool dryRun = false;
  bool noResume = false;
  bool delta = false;      // every changed file with an old version as a delta
  bool wholeFile = false;  // never a delta
  bool ignoreSuspectNames = false;
  bool progress = false;             // the bar also when standard error is no terminal
  std::uint64_t bytesPerSecond = 0;  // --bwlimit; 0: none
  std::size_t channels = 0;          // --channels; 0: chosen from the round trip
  bool verbose = false;              // a line per change; a dry run also names skips and what is left out
  bool quiet = false;                // no progress and no summary
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

// The filter of a transfer: its rules in the order the command line gave
// them (`order`: the options' names as parsed, one per occurrence). A bad
// rule, or a rules file that cannot be read, is a UsageError naming it.
foundation::sshclient::Filter buildFilter(TransferFlags const& flags, std::vector<std::string> const& order);

struct TransferCommand {
  std::string name;  // put, get or sync
  bool upload = true;
  // The paths, SOURCE... DESTINATION, the remote ones without their HOST:
  // and relative to the login folder; and the operands as typed.
  std::vector<std::string> paths;
  std::vector<std::string> typed;
  TransferFlags flags;
  bool json = false;
};

// put and get take SOURCE... DESTINATION as cp and scp do: a destination
// that is an existing folder or ends with '/' receives each source under its
// own name (said on standard error when that makes DEST/NAME inside a DEST
// named NAME); several sources always go into a folder. sync takes SOURCE
// DESTINATION and makes the destination the copy of the source, whether or
// not it exists, so the same command repeats exactly; it refuses to put a
// file in a folder's place at the top or the other way round. A missing
// source is an error; Ctrl-C, SIGTERM and SIGHUP stop the transfer cleanly,
// keeping what an interrupted file received for the next run. A dry run
// prints its plan (a line per change, or JSON) and changes nothing.
int runTransfer(nimbal::remoteaccess::sshfileaccess::FileAccess& access, ProgressRouter& progress,
                TransferCommand const& command);

}  // namespace sshfa::cli
