// Latency of SSHClient against OpenSSH's own client, on a private sshd on
// 127.0.0.1: connection set-up, and one `true` over an open connection (ours
// with the stdin-fed wrapper and with a plain argument line; ssh over a
// ControlMaster connection), and a fresh `ssh host true`.
//
// Usage: ssh_exec_bench [repetitions]   (default 100; connections use a fifth)
// Prints the median and the 10th/90th percentiles in milliseconds.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/LatencySupport.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "sshfileaccess/platform/sshclient/internal/ExecChannelRunner.hpp"
#include "sshfileaccess/platform/sshclient/internal/Session.hpp"
#include "support/loopback_sshd/LoopbackSshd.hpp"

namespace {

namespace ssh = foundation::sshclient;
namespace fs = std::filesystem;
using sshfa::bench::Clock;
using sshfa::bench::measure;
using sshfa::bench::report;
using sshfa::bench::runProgram;
using sshfa::bench::Summary;

// One exec channel running `line` as the server's command line, no input.
void execDirect(ssh::internal::Session& session, std::string const& line) {
  ssh::internal::Channel channel(session);
  channel.requestExec(line);
  channel.sendEof();
  std::string out;
  std::string err;
  for (;;) {
    bool const progressed =
        channel.read(out, ssh::internal::Stream::Stdout) + channel.read(err, ssh::internal::Stream::Stderr) > 0;
    if (channel.finished()) return;
    if (!progressed) session.wait();
  }
}

}  // namespace

int main(int argc, char** argv) {
  int const repetitions = argc > 1 ? std::max(5, std::atoi(argv[1])) : 100;
  int const connections = std::max(5, repetitions / 5);
  fs::path dir = fs::temp_directory_path() / ("sshfa-exec-bench." + std::to_string(getpid()));
  fs::create_directories(dir);
  try {
    sshfa::loopback::LoopbackSshd server({dir, {}});
    std::string const port = std::to_string(server.port());
    std::string const target = server.user() + "@" + server.host();
    ssh::SSHClientOptions options;
    options.knownHostsFiles = {server.knownHostsFile()};
    options.readSshConfig = false;
    ssh::AuthMethods const auth = {ssh::IdentityFileAuth{server.user(), server.identityFile(), std::nullopt}};
    auto const host = fl::i18n::utf8_to_ustring(server.host());

    std::printf("sshd on %s:%s, %d commands, %d connections per row\n", server.host().c_str(), port.c_str(),
                repetitions, connections);

    report("SSHClient: connect + authenticate",
           measure(connections, [&] { ssh::SSHClient client(host, server.port(), auth, options); }));

    ssh::SSHClient client(host, server.port(), auth, options);
    report("SSHClient: executeCommand(\"true\") on an open connection",
           measure(repetitions, [&] { client.executeCommand(ssh::ExecuteCommand(u"true")); }));

    ssh::internal::Session session(server.host(), server.port(), auth, options);
    ssh::internal::ExecChannelRunner wrapper(session);
    report("  exec channel, text on stdin (the wrapper)", measure(repetitions, [&] { wrapper.run("true"); }));
    report("  exec channel, sh -c 'true' as the argument",
           measure(repetitions, [&] { execDirect(session, "sh -c 'true'"); }));

    std::vector<std::string> const common = {"-o", "BatchMode=yes",
                                             "-o", "UserKnownHostsFile=" + server.knownHostsFile(),
                                             "-o", "StrictHostKeyChecking=yes",
                                             "-F", "/dev/null",
                                             "-i", server.identityFile(),
                                             "-p", port};
    auto sshCommand = [&](std::vector<std::string> extra) {
      std::vector<std::string> arguments = {"ssh"};
      arguments.insert(arguments.end(), common.begin(), common.end());
      arguments.insert(arguments.end(), extra.begin(), extra.end());
      return arguments;
    };
    report("ssh host true (fresh connection each time)", measure(connections, [&] {
             runProgram(sshCommand({target, "true"}));
           }));

    std::string const control = (dir / "control.sock").string();
    runProgram(sshCommand({"-o", "ControlMaster=yes", "-o", "ControlPersist=yes", "-S", control, "-fN", target}));
    report("ssh -S control host true (ControlMaster connection)", measure(repetitions, [&] {
             runProgram(sshCommand({"-S", control, target, "true"}));
           }));
    runProgram(sshCommand({"-S", control, "-O", "exit", target}));
  } catch (std::exception const& error) {
    std::cerr << "ssh_exec_bench: " << error.what() << "\n";
    fs::remove_all(dir);
    return 1;
  }
  fs::remove_all(dir);
  return 0;
}
