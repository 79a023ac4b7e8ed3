#pragma once
// [user@]host:path operands of put and get, the way scp reads them.
//
// An operand is remote when it has a colon before any slash and does not
// begin with one: "box:/srv/a", "alice@box:notes", "box:" (the login folder),
// "[::1]:/srv/a" and "alice@[fe80::1%eth0]:a" (an address in brackets). A
// local name that contains a colon stays reachable as "./a:b" or "/abs/a:b".
//
// takeRemoteOperands() checks that remote operands stand only on the remote
// side of the command (put: the destination; get: the sources), that they all
// name one host and one user, and that -H/-u agree with them; then it sets
// the connection's host and user and returns the plain paths in order. Every
// ambiguity is a UsageError with a hint. Pure functions; thread-safe.

#include <optional>
#include <string>
#include <vector>

#include "tools/sshfa/Connection.hpp"

namespace sshfa::cli {

struct RemoteOperand {
  std::string user;  // empty: not given
  std::string host;  // brackets removed from an address
  std::string path;  // "." for "host:" (the login folder)
};

// nullopt for a local operand.
std::optional<RemoteOperand> parseRemoteOperand(std::string const& operand);

// put (upload) or get: `operands` are SOURCE... DESTINATION.
std::vector<std::string> takeRemoteOperands(std::string const& command, bool upload,
                                            std::vector<std::string> const& operands, ConnectionSettings& connection);

// cp and mv work on one side: a host:path operand is a usage error that
// points at put and get.
void refuseRemoteOperands(std::string const& command, std::vector<std::string> const& operands);

}  // namespace sshfa::cli
