#pragma once
// Shared by the examples: opens a FileAccess from the five connection
// arguments HOST PORT USER PRIVATE_KEY KNOWN_HOSTS, checking the host key
// strictly against that known_hosts file and ignoring ~/.ssh/config.

#include <sshfileaccess/FileAccess.hpp>
#include <sshfileaccess/Utils.hpp>

#include <memory>
#include <string>

namespace examples {

inline constexpr int kConnectionArguments = 5;
inline constexpr char const* kConnectionUsage = "HOST PORT USER PRIVATE_KEY KNOWN_HOSTS";

inline std::unique_ptr<nimbal::remoteaccess::sshfileaccess::FileAccess> connect(char** arguments) {
  namespace ssh = foundation::sshclient;
  namespace sfa = nimbal::remoteaccess::sshfileaccess;
  std::string const user = arguments[2];
  ssh::SSHClientOptions options;
  options.knownHostsFiles = {arguments[4]};
  options.hostKeyPolicy = ssh::HostKeyPolicy::Strict;
  options.readSshConfig = false;
  auto client = std::make_unique<ssh::SSHClient>(sfa::str2ustr(arguments[0]), std::stoi(arguments[1]),
                                                 ssh::AuthMethods{ssh::IdentityFileAuth{user, arguments[3], {}}},
                                                 std::move(options));
  return std::make_unique<sfa::FileAccess>(std::move(client));
}

}  // namespace examples
