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

#include "platform/i18n/i18n.hpp"
#include "platform/sshclient/SSHClient.hpp"
#include "platform/sshclient/internal/ExecChannelRunner.hpp"
#include "platform/sshclient/internal/Session.hpp"
#include "support/loopback_sshd/LoopbackSshd.hpp"

extern char** environ;

namespace {

namespace ssh = foundation::sshclient;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Summary {
  double p10;
  double median;
  double p90;
};

Summary measure(int repetitions, std::function<void()> const& action) {
  action();  // warm-up
  std::vector<double> samples;
  for (int i = 0; i < repetitions; ++i) {
    auto const start = Clock::now();
    action();
    samples.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  std::sort(samples.begin(), samples.end());
  auto at = [&](double fraction) {
    return samples[static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1))];
  };
  return {at(0.1), at(0.5), at(0.9)};
}

void report(char const* what, Summary const& s) {
  std::printf("%-52s median %8.3f ms   p10 %8.3f   p90 %8.3f\n", what, s.median, s.p10, s.p90);
}

// Runs a program with no shell, output discarded; throws when it fails.
void run(std::vector<std::string> arguments) {
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  int const rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot run " + arguments.front());
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(arguments.front() + " failed");
}

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
             run(sshCommand({target, "true"}));
           }));

    std::string const control = (dir / "control.sock").string();
    run(sshCommand({"-o", "ControlMaster=yes", "-o", "ControlPersist=yes", "-S", control, "-fN", target}));
    report("ssh -S control host true (ControlMaster connection)", measure(repetitions, [&] {
             run(sshCommand({"-S", control, target, "true"}));
           }));
    run(sshCommand({"-S", control, "-O", "exit", target}));
  } catch (std::exception const& error) {
    std::cerr << "ssh_exec_bench: " << error.what() << "\n";
    fs::remove_all(dir);
    return 1;
  }
  fs::remove_all(dir);
  return 0;
}
