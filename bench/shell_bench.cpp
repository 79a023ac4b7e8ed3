// Latency of one remote command in the persistent shell, on exec channels and
// through OpenSSH's client over a ControlMaster connection, on a private sshd
// on 127.0.0.1; and UnixSSHFileAccess::exists over 1,000 paths in both modes.
//
// Usage: shell_bench [commands]   (default 2000 per row)
// A row for a command that needs a subshell shows what the fork costs.
// Prints the median and the 10th/90th percentiles, the ratios, and whether
// the targets are met: <= 0.3 ms per command in the shell, >= 30x faster
// than exec channels, >= 40x faster than ssh with a ControlMaster, and
// exists over 1,000 paths within 0.4 s.

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
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/LatencySupport.hpp"
#include "sshfileaccess/UnixSSHFileAccess.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SSHClient.hpp"
#include "support/loopback_sshd/LoopbackSshd.hpp"

namespace {

namespace ssh = foundation::sshclient;
namespace fs = std::filesystem;
using nimbal::remoteaccess::sshfileaccess::UnixSSHFileAccess;
using sshfa::bench::Clock;
using sshfa::bench::measure;
using sshfa::bench::report;
using sshfa::bench::runProgram;
using sshfa::bench::Summary;

constexpr char const* kCommand = "test -e '/tmp' && echo 1";
// The same answer from a command the shell must run in a subshell.
constexpr char const* kSubshellCommand = "cd / && test -e tmp && echo 1";

void check(ssh::SSHClient& client, char const* command = kCommand) {
  auto const result = client.executeCommand(ssh::ExecuteCommand(fl::i18n::utf8_to_ustring(command)));
  if (result.getStdout() != u"1\n") throw std::runtime_error("unexpected answer to a benchmark command");
}

char const* verdict(bool met) { return met ? "met" : "NOT met"; }

}  // namespace

int main(int argc, char** argv) {
  int const repetitions = argc > 1 ? std::max(20, std::atoi(argv[1])) : 2000;
  fs::path const dir = fs::temp_directory_path() / ("sshfa-shell-bench." + std::to_string(getpid()));
  fs::create_directories(dir);
  try {
    sshfa::loopback::LoopbackSshd server({dir, {}});
    std::string const port = std::to_string(server.port());
    auto const host = fl::i18n::utf8_to_ustring(server.host());
    ssh::AuthMethods const auth = {ssh::IdentityFileAuth{server.user(), server.identityFile(), std::nullopt}};
    auto connect = [&](ssh::CommandMode mode) {
      ssh::SSHClientOptions options;
      options.knownHostsFiles = {server.knownHostsFile()};
      options.readSshConfig = false;
      options.commandMode = mode;
      return std::make_unique<ssh::SSHClient>(host, server.port(), auth, options);
    };
    std::printf("sshd on %s:%s; command: %s; %d runs per row\n", server.host().c_str(), port.c_str(), kCommand,
                repetitions);

    auto shell = connect(ssh::CommandMode::PersistentShell);
    auto exec = connect(ssh::CommandMode::ExecChannel);
    Summary const viaShell = measure(repetitions, [&] { check(*shell); });
    report("SSHClient, persistent shell", viaShell);
    report("SSHClient, persistent shell, in a subshell",
           measure(repetitions, [&] { check(*shell, kSubshellCommand); }));
    Summary const viaExec = measure(repetitions / 4, [&] { check(*exec); });
    report("SSHClient, exec channel per command", viaExec);

    std::string const target = server.user() + "@" + server.host();
    std::string const control = (dir / "control.sock").string();
    std::vector<std::string> const common = {"ssh",
                                             "-F",
                                             "/dev/null",
                                             "-o",
                                             "BatchMode=yes",
                                             "-o",
                                             "UserKnownHostsFile=" + server.knownHostsFile(),
                                             "-o",
                                             "StrictHostKeyChecking=yes",
                                             "-i",
                                             server.identityFile(),
                                             "-p",
                                             port,
                                             "-S",
                                             control};
    auto sshWith = [&](std::vector<std::string> const& extra) {
      std::vector<std::string> arguments = common;
      arguments.insert(arguments.end(), extra.begin(), extra.end());
      return arguments;
    };
    runProgram(sshWith({"-o", "ControlMaster=yes", "-o", "ControlPersist=yes", "-fN", target}));
    Summary const viaMaster = measure(repetitions / 10, [&] { runProgram(sshWith({target, kCommand})); });
    report("ssh over a ControlMaster connection", viaMaster);
    runProgram(sshWith({"-O", "exit", target}));

    std::vector<fl::ustring> paths;
    for (int i = 0; i < 1000; ++i) {
      paths.push_back(i % 2 == 0 ? fl::i18n::utf8_to_ustring(server.directory().string())
                                 : fl::i18n::utf8_to_ustring("/nonexistent/" + std::to_string(i)));
    }
    auto timeExists = [&](ssh::CommandMode mode) {
      UnixSSHFileAccess remote(connect(mode));
      remote.exists(paths);  // warm-up: the shell starts on first use
      auto const start = Clock::now();
      auto const answers = remote.exists(paths);
      double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
      if (std::count(answers.begin(), answers.end(), true) != 500) throw std::runtime_error("wrong exists answers");
      return seconds;
    };
    double const existsShell = timeExists(ssh::CommandMode::PersistentShell);
    double const existsExec = timeExists(ssh::CommandMode::ExecChannel);
    std::printf("%-44s %8.3f s (exec channels: %.3f s)\n", "UnixSSHFileAccess::exists, 1,000 paths", existsShell,
                existsExec);

    double const vsExec = viaExec.median / viaShell.median;
    double const vsMaster = viaMaster.median / viaShell.median;
    std::printf("\npersistent shell: %.3f ms per command (target <= 0.3 ms): %s\n", viaShell.median,
                verdict(viaShell.median <= 0.3));
    std::printf("  %.1fx faster than exec channels (target >= 30x): %s\n", vsExec, verdict(vsExec >= 30));
    std::printf("  %.1fx faster than ssh with a ControlMaster (target >= 40x): %s\n", vsMaster,
                verdict(vsMaster >= 40));
    std::printf("exists over 1,000 paths: %.3f s (target <= 0.4 s): %s\n", existsShell, verdict(existsShell <= 0.4));
  } catch (std::exception const& error) {
    std::cerr << "shell_bench: " << error.what() << "\n";
    fs::remove_all(dir);
    return 1;
  }
  fs::remove_all(dir);
  return 0;
}
