#pragma once
// Shared by the latency benchmarks: timing a repeated action, printing the
// percentiles, and running OpenSSH's programs for side-by-side rows.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

namespace sshfa::bench {

using Clock = std::chrono::steady_clock;

struct Summary {
  double p10;
  double median;
  double p90;
};

// Milliseconds per run of `action`, after a few warm-up runs.
inline Summary measure(int repetitions, std::function<void()> const& action) {
  for (int i = 0; i < std::max(1, repetitions / 20); ++i) action();
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(std::max(1, repetitions)));
  for (int i = 0; i < repetitions; ++i) {
    auto const start = Clock::now();
    action();
    samples.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  if (samples.empty()) return {0, 0, 0};
  std::sort(samples.begin(), samples.end());
  auto at = [&](double fraction) {
    return samples[static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1))];
  };
  return {at(0.1), at(0.5), at(0.9)};
}

inline void report(char const* what, Summary const& s) {
  std::printf("%-52s median %8.3f ms   p10 %8.3f   p90 %8.3f\n", what, s.median, s.p10, s.p90);
}

// Runs a program with no shell, standard input and output on /dev/null;
// throws when it cannot start or fails.
inline void runProgram(std::vector<std::string> arguments) {
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

}  // namespace sshfa::bench
