#pragma once
// Small helpers shared by the SSH client integration tests and the tool's
// tests.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "tests/support/TestSshd.hpp"

namespace sshfa::testing {

namespace ssh = foundation::sshclient;

inline fl::ustring u(std::string const& utf8) { return fl::i18n::utf8_to_ustring(utf8); }
inline std::string utf8(fl::ustring const& text) { return fl::i18n::ustring_to_utf8(text); }

// Runs `action`, which must throw SSHError; returns it (or nullopt after
// recording a failure).
template <class Action>
std::optional<ssh::SSHError> catchSSHError(Action&& action) {
  try {
    action();
  } catch (ssh::SSHError const& error) {
    return error;
  } catch (std::exception const& error) {
    ADD_FAILURE() << "expected SSHError, got: " << error.what();
    return std::nullopt;
  }
  ADD_FAILURE() << "expected SSHError, nothing was thrown";
  return std::nullopt;
}

inline std::string prefixOf(TestSshd const& server, std::string const& user) {
  return user + "@" + server.host() + ":" + std::to_string(server.port()) + ": ";
}

// An ssh_config Host block that reaches `server` with its own key and
// known_hosts file, asking nothing.
inline std::string sshConfigHostBlock(std::string const& alias, TestSshd const& server) {
  return "Host " + alias + "\n  HostName 127.0.0.1\n  Port " + std::to_string(server.port()) + "\n  User " +
         server.user() + "\n  IdentityFile " + server.identityFile() + "\n  UserKnownHostsFile " +
         server.knownHostsFile() + "\n  StrictHostKeyChecking yes\n  BatchMode yes\n";
}

// How many logins the server has accepted so far (a jump host counts the
// hops through it).
inline std::size_t acceptedLogins(TestSshd const& server) {
  std::string const log = server.log();
  std::size_t count = 0;
  for (auto at = log.find("Accepted publickey"); at != std::string::npos; at = log.find("Accepted publickey", at + 1)) {
    ++count;
  }
  return count;
}

// A port on 127.0.0.1 that nothing listens on.
inline int closedPort() {
  int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

inline double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace sshfa::testing
