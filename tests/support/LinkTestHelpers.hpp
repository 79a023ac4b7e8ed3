#pragma once
// Reaching a test server through a LinkEmulator: the host key known under the
// relay's port, a client connected through it.
//
// Throws what the SSH client or the file system throws. Not thread-safe.

#include <cstdint>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "support/link_emulator/LinkEmulator.hpp"
#include "tests/support/SshTestHelpers.hpp"
#include "tests/support/TestSshd.hpp"

namespace sshfa::testing {

// `server`'s options with a known_hosts file (in a fresh folder) that names
// its host key under the link's port.
inline ssh::SSHClientOptions optionsThrough(TestSshd const& server, linkemu::LinkEmulator const& link) {
  auto const file = TestSshd::makeTempDir() / "known_hosts";
  std::ofstream out(file);
  out << "[127.0.0.1]:" << link.port() << " " << server.hostPublicKey() << "\n";
  if (!out.flush()) throw std::runtime_error("cannot write '" + file.string() + "'");
  auto options = server.options();
  options.knownHostsFiles = {file.string()};
  return options;
}

inline std::unique_ptr<ssh::SSHClient> connectThrough(TestSshd const& server, linkemu::LinkEmulator const& link,
                                                      ssh::SSHClientOptions const& options) {
  return std::make_unique<ssh::SSHClient>(u("127.0.0.1"), link.port(), server.auth(), options);
}

// A link to 127.0.0.1:`port` with `up` and `down` delays and `bitsPerSecond` (0: no limit).
inline linkemu::EmulatorSettings linkSettings(int port, linkemu::Nanoseconds up, linkemu::Nanoseconds down,
                                              std::uint64_t bitsPerSecond = 0) {
  linkemu::EmulatorSettings settings;
  settings.targetPort = port;
  settings.delayUp = up;
  settings.delayDown = down;
  settings.bitsPerSecond = bitsPerSecond;
  return settings;
}

// A link to `server` with `delay` each way.
inline std::unique_ptr<linkemu::LinkEmulator> linkTo(TestSshd const& server, linkemu::Nanoseconds delay,
                                                     std::uint64_t bitsPerSecond = 0) {
  auto settings = linkSettings(server.port(), delay, delay, bitsPerSecond);
  settings.targetHost = server.host();
  return std::make_unique<linkemu::LinkEmulator>(settings);
}

}  // namespace sshfa::testing
