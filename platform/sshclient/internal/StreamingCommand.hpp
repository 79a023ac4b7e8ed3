#pragma once
// Runs one command on an exec channel of its own with live standard streams:
// output is handed to the caller as it arrives, standard input is fed from a
// descriptor until its end-of-file. The persistent shell cannot do this (its
// standard input carries its own script), so every streamed command pays for
// a channel of its own. The command text goes first on the channel's input,
// read by streamingWrapper() (see ExecChannelRunner.hpp), which drops what
// the login writes before the command starts, as exec channels do.
//
// Throws SSHError as the command runners do (NoShell when no shell answered:
// nothing is handed over then); an exception of a callback passes through
// (the channel is closed).

#include <string>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/internal/Session.hpp"

namespace foundation::sshclient::internal {

// The exit status; 128 + N for a command killed by signal N; 130 when
// streams.stopRequested stopped it.
int runStreaming(Session& session, std::string const& command, CommandStreams const& streams);

}  // namespace foundation::sshclient::internal
