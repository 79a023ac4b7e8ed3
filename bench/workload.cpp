// One timed library workload against a host, for scripts/bench.sh: the same
// command line and the same one-line JSON answer as the Python peers in
// bench/peers, so the script treats every library alike.
//
// Usage: workload --host H --port P --user U --key FILE --known-hosts FILE
//                 [--backend shell|sftp] OP [ARG]
//   connect         FileAccess constructor (work: the first command, which
//                   starts the persistent shell, or with --backend sftp
//                   opens the SFTP channel; the other workloads run it
//                   before their clock starts)
//   stat LIST       getFileInfo over the paths in LIST (one per line), one call
//   exists LIST     exists over the paths in LIST, one call
//   walk DIR        listRecursively of DIR
// --backend: the remote backend, UnixSSHFileAccess (shell, the default) or
// SftpFileAccess (sftp: every list form one batch of pipelined requests).
// Prints {"connect": s, "first": s, "work": s, "count": n} (first: the first
// command); exit status 1 and a message on standard error on failure.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "sshfileaccess/FileAccess.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "sshfileaccess/platform/sshclient/SSHClient.hpp"

namespace {

namespace ssh = foundation::sshclient;
using nimbal::remoteaccess::sshfileaccess::FileAccess;
using nimbal::remoteaccess::sshfileaccess::RemoteBackend;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

std::vector<fl::ustring> readPaths(std::string const& listFile) {
  std::ifstream in(listFile);
  if (!in) throw std::runtime_error("cannot open '" + listFile + "'");
  std::vector<fl::ustring> paths;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) paths.push_back(fl::i18n::utf8_to_ustring(line));
  }
  return paths;
}

// How many answers of a workload count as handled.
long countWork(FileAccess& access, std::string const& op, std::string const& arg) {
  auto& remote = *access.remote();
  if (op == "connect") return 0;
  if (op == "stat") {
    auto const infos = remote.getFileInfo(readPaths(arg));
    if (std::any_of(infos.begin(), infos.end(), [](auto const& info) { return !info; })) {
      throw std::runtime_error("a path of '" + arg + "' has no size and time");
    }
    return static_cast<long>(infos.size());
  }
  if (op == "exists") {
    auto const answers = remote.exists(readPaths(arg));
    return static_cast<long>(std::count(answers.begin(), answers.end(), true));
  }
  if (op == "walk") return static_cast<long>(remote.listRecursively(fl::i18n::utf8_to_ustring(arg)).size());
  throw std::runtime_error("unknown workload '" + op + "'");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    std::map<std::string, std::string> options;
    std::vector<std::string> rest;
    for (int i = 1; i < argc; ++i) {
      std::string const word = argv[i];
      if (word.starts_with("--") && i + 1 < argc) {
        options[word.substr(2)] = argv[++i];
      } else {
        rest.push_back(word);
      }
    }
    for (char const* needed : {"host", "port", "user", "key", "known-hosts"}) {
      if (!options.contains(needed)) throw std::runtime_error(std::string("missing --") + needed);
    }
    if (rest.empty() || rest.size() > 2) throw std::runtime_error("expected OP [ARG]");
    std::string const backend = options.contains("backend") ? options["backend"] : "shell";
    if (backend != "shell" && backend != "sftp") throw std::runtime_error("--backend: shell or sftp");
    ssh::SSHClientOptions clientOptions;
    clientOptions.knownHostsFiles = {options["known-hosts"]};
    clientOptions.readSshConfig = false;
    clientOptions.ciphers = "aes128-gcm@openssh.com";

    auto const start = Clock::now();
    FileAccess access(
        std::make_unique<ssh::SSHClient>(
            fl::i18n::utf8_to_ustring(options["host"]), std::stoi(options["port"]),
            ssh::AuthMethods{ssh::IdentityFileAuth{options["user"], options["key"], std::nullopt}}, clientOptions),
        backend == "sftp" ? RemoteBackend::Sftp : RemoteBackend::Shell);
    double const connect = secondsSince(start);
    auto const firstStart = Clock::now();
    access.remote()->exists(fl::ustring(u"/"));
    double const first = secondsSince(firstStart);
    auto const workStart = Clock::now();
    long const count = countWork(access, rest[0], rest.size() > 1 ? rest[1] : std::string());
    double const work = rest[0] == "connect" ? first : secondsSince(workStart);
    std::printf("{\"connect\": %.6f, \"first\": %.6f, \"work\": %.6f, \"count\": %ld}\n", connect, first, work, count);
    return 0;
  } catch (std::exception const& error) {
    std::cerr << "workload: " << error.what() << "\n";
    return 1;
  }
}
