#pragma once
// The SSH configuration of one destination, as OpenSSH resolves it.
//
// When the ssh program can be run, it is asked ("ssh -G [-F FILE] [-p PORT]
// [-l USER] [-J JUMPS] HOST", no shell in between), so that Host and Match
// blocks, their order, wildcards, Include and tokens are evaluated by the
// program whose rules users know; the caller's explicit port, user and jump
// hosts are passed along so that Match sees them. Where ssh cannot be run,
// resolveSshConfig() answers nullopt and the caller falls back to libssh's
// own parser.
//
// Everything here is a pure function of its inputs except the process runs;
// thread-safe. Failures throw ConfigError naming the file or the program and
// the cause; the session reports it as SSHError(Connect) with its
// user@host:port.

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

namespace foundation::sshclient::internal {

class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The settings a connection takes from the configuration. Fields the
// configuration leaves at OpenSSH's built-in default are empty (nullopt) where
// the client has a default of its own (ciphers, timeouts).
struct ResolvedConfig {
  std::string hostName;  // HostName: the name or address to connect to
  std::string user;      // User (ssh answers the login name when none is set)
  int port = 22;
  std::vector<std::string> identityFiles;      // IdentityFile, ~ and %-tokens expanded, in order
  std::vector<std::string> knownHostsFiles;    // UserKnownHostsFile then GlobalKnownHostsFile (ssh expands them)
  std::optional<HostKeyPolicy> hostKeyPolicy;  // StrictHostKeyChecking accept-new or no
  std::string proxyJump;                       // "[user@]host[:port][,...]", empty: none
  std::string proxyCommand;                    // unexpanded (%h, %p are libssh's to fill in); empty: none
  std::string ciphers;                         // empty: OpenSSH's built-in list, i.e. not configured
  std::optional<std::chrono::seconds> connectTimeout;
  std::optional<std::chrono::seconds> serverAliveInterval;  // only a positive interval
};

struct ConfigRequest {
  std::string host;  // as the caller named it (an alias, a name, an address)
  std::string user;  // empty: not given
  int port = 0;      // <= 0: not given
  std::string proxyJump;
  std::string configFile;  // empty: ~/.ssh/config and /etc/ssh/ssh_config
  std::string program;     // the ssh program, found through PATH when it has no slash
};

// Runs the program and parses its answer; nullopt when the program is not
// there. Throws ConfigError when it exits non-zero (its message
// included) or the answer cannot be read.
std::optional<ResolvedConfig> resolveSshConfig(ConfigRequest const& request);

// The answer of "ssh -G" for `host` (lines "keyword value"). Ciphers equal
// to OpenSSH's built-in list count as not configured. Throws ConfigError on a
// value that cannot be used (a port that is no number, an unknown %-token).
ResolvedConfig parseResolvedConfig(std::string_view output, std::string_view host);

// The ProxyCommand that reaches the destination through the jump hosts
// "[user@]host[:port][,...]" the way ssh itself does: the last hop by
// "PROGRAM [-l USER] [-p PORT] [-J EARLIER-HOPS] [-F FILE] -W '[%h]:%p' HOST",
// so that each hop is resolved and its host key checked by ssh with the same
// configuration file. Throws ConfigError on an empty hop.
std::string proxyCommandForJump(std::string_view jumps, std::string const& program, std::string const& configFile);

// "~" and "~/..." against the home folder, and the %-tokens of ssh_config
// (%% %d %h %i %L %l %n %p %r %u) in an IdentityFile or known_hosts path;
// ConfigError for another token.
std::string expandConfigPath(std::string_view path, ResolvedConfig const& settings, std::string_view originalHost);

// Throws ConfigError "cannot read the SSH configuration 'FILE': cause"
// when the file cannot be opened for reading.
void requireReadableConfig(std::string const& file);

// The login name of the process owner, for messages when no user is known.
std::string localUserName();
std::string homeDirectory();

}  // namespace foundation::sshclient::internal
