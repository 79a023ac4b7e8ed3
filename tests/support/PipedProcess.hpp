#pragma once
// A program started with its standard input and output on pipes: how the
// tests run SFTP servers without SSH. Standard error is shared with this
// process. The caller owns the pipe ends and reaps the child.
//
// startPiped() throws std::runtime_error naming the program and the cause.

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace sshfa::testing {

struct PipedProcess {
  pid_t pid = -1;
  int input = -1;   // the child's standard input
  int output = -1;  // the child's standard output
};

inline PipedProcess startPiped(std::string const& program, std::vector<std::string> const& arguments) {
  int toChild[2];
  int fromChild[2];
  if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0) {
    throw std::runtime_error("cannot make pipes for '" + program + "': " + std::strerror(errno));
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], 0);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], 1);
  std::vector<std::string> args{program};
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  PipedProcess child;
  int const rc = ::posix_spawn(&child.pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(toChild[0]);
  ::close(fromChild[1]);
  if (rc != 0) {
    ::close(toChild[1]);
    ::close(fromChild[0]);
    throw std::runtime_error("cannot start '" + program + "': " + std::strerror(rc));
  }
  child.input = toChild[1];
  child.output = fromChild[0];
  return child;
}

}  // namespace sshfa::testing
