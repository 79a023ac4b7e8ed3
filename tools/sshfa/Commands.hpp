#pragma once
// The tool's commands once the side (local or remote) is chosen. Each writes
// its answer to standard output — plain, one entry per line, or one JSON
// document (mutations report what they did) — and returns the exit status
// (exists, isfile and isdir: 1 when any answer is false, as test(1) does);
// failures of the library propagate as exceptions.

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "sshfileaccess/FileAccess.hpp"

namespace sshfa::cli {

// A command line that parsed but makes no sense (exit status 2).
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct FileCommand {
  std::string name;  // exists, isfile, isdir, parent, ls, stat, touch, rm, mkdir, cp, mv, tar, untar, zip, unzip
  std::vector<std::string> args;
  bool recursive = false;  // ls -R
  bool json = false;
};

bool isFileCommand(std::string const& name);
// Writes all of `text` and flushes, so that output and messages interleave
// as they happen.
void writeTo(std::FILE* stream, std::string const& text);
// Operands SOURCE DESTINATION [SOURCE DESTINATION ...] of command `name`;
// throws UsageError for an odd count or none.
nimbal::remoteaccess::sshfileaccess::FileAccessInterface::PathPairs toPairs(std::string const& name,
                                                                            std::vector<std::string> const& args);
int runFileCommand(nimbal::remoteaccess::sshfileaccess::FileAccessInterface& side, FileCommand const& command);
// On the remote host: the queries (exists, isfile, isdir, stat, ls) over SFTP,
// each one batch of requests with every name as its bytes, whatever the
// server allows; the rest through access.remote().
int runRemoteFileCommand(nimbal::remoteaccess::sshfileaccess::FileAccess& access, FileCommand const& command);

// exec: the words joined by blanks, run by the remote shell; its output goes
// to ours and its exit status becomes ours.
// Streams the command's output as it arrives and feeds it this process's
// standard input until its end (none with noInput); with json, collects the
// output into one answer instead. Ctrl-C stops the command (SIGINT, then
// SIGTERM and SIGKILL while it still runs, each said on standard error) and
// throws Interrupted.
int runExec(nimbal::remoteaccess::sshfileaccess::FileAccess& access, std::vector<std::string> const& words, bool json,
            bool noInput);

// The line that says which signal a stopped command was sent.
std::string stopNotice(int signalNumber);

}  // namespace sshfa::cli
