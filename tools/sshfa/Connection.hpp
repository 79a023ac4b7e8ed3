#pragma once
// From the tool's connection options to a connected FileAccess: the SSH
// client's options, the authentication methods in the order they are tried,
// and the questions asked on the terminal (passphrase of an encrypted key,
// keyboard-interactive prompts), never echoed.

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "sshfileaccess/FileAccess.hpp"
#include "tools/sshfa/Progress.hpp"

namespace sshfa::cli {

struct ConnectionSettings {
  std::string host;  // a name, an address, a ~/.ssh/config alias; "user@host" also works
  int port = 0;      // 0: from the SSH configuration, else 22
  std::string user;  // empty: from the SSH configuration, else the login name
  std::string identityFile;
  bool agent = false;
  bool passwordFromStdin = false;
  std::string knownHostsFile;  // empty: ~/.ssh/known_hosts, /etc/ssh/ssh_known_hosts
  bool acceptNewHostKey = false;
  std::optional<std::chrono::seconds> keepalive;  // unset: the client's default; 0: no keep-alives
  std::chrono::seconds connectTimeout{0};         // 0: the client's default
  bool compression = false;                       // offer zlib, as ssh -C does
  bool readSshConfig = true;
  std::string sshConfigFile;  // instead of ~/.ssh/config
  std::string proxyJump;      // jump hosts, like ssh -J
  bool batch = false;         // never ask on the terminal
  // -v: say on standard error which algorithms the connection uses, and
  // when the server runs no shell (found out at once, by starting the shell
  // that commands need).
  bool verbose = false;
};

// Connects. Throws foundation::sshclient::SSHError from the client, and
// std::runtime_error when a password was asked for on standard input and
// none came.
std::unique_ptr<nimbal::remoteaccess::sshfileaccess::FileAccess> connect(ConnectionSettings settings,
                                                                         ProgressRouter& progress);

// "kex K, host key H, cipher C, MAC M, compression Z" (each "X out, Y in"
// where the directions differ; "?" where not known).
std::string describeAlgorithms(foundation::sshclient::NegotiatedAlgorithms const& algorithms);

// Whether the private key file is protected by a passphrase (PEM with
// "ENCRYPTED", or an OpenSSH key whose cipher is not "none"). False when the
// file cannot be read: the client then reports the problem.
bool isEncryptedKeyFile(std::string const& path);

}  // namespace sshfa::cli
