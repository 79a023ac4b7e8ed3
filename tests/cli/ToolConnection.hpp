#pragma once
// The connection options that reach a test sshd with its own key and
// known_hosts file, without the user's ~/.ssh/config, and never asking.

#include <string>
#include <vector>

#include "tests/support/TestSshd.hpp"

namespace sshfa::testing {

inline std::vector<std::string> connectionArgs(TestSshd const& sshd) {
  return {"-H",
          sshd.host(),
          "-p",
          std::to_string(sshd.port()),
          "-u",
          sshd.user(),
          "-i",
          sshd.identityFile(),
          "--known-hosts",
          sshd.knownHostsFile(),
          "-F",
          "/dev/null",
          "--batch"};
}

// The connection options followed by `args`.
inline std::vector<std::string> withConnection(TestSshd const& sshd, std::vector<std::string> const& args) {
  auto all = connectionArgs(sshd);
  all.insert(all.end(), args.begin(), args.end());
  return all;
}

}  // namespace sshfa::testing
