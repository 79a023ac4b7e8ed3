// Cost of the Unix remote operations against the test sshd on 127.0.0.1:
// time per path and the number of command lines each operation sends.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "sshfileaccess/UnixSSHFileAccess.hpp"
#include "sshfileaccess/Utils.hpp"
#include "tests/support/TestSshd.hpp"

namespace {

namespace ssh = foundation::sshclient;
using nimbal::remoteaccess::sshfileaccess::quoted;
using nimbal::remoteaccess::sshfileaccess::str2ustr;
using nimbal::remoteaccess::sshfileaccess::UnixSSHFileAccess;
using Paths = UnixSSHFileAccess::PathList;
using fl::ustring;

// Forwards to the real client and counts the command lines it is given.
class CountingSSHClient : public ssh::SSHClient {
 public:
  explicit CountingSSHClient(std::unique_ptr<ssh::SSHClient> inner) : inner_(std::move(inner)) {}
  ssh::ExecuteCommandResult executeCommand(ssh::ExecuteCommand command) override {
    ++lines;
    return inner_->executeCommand(std::move(command));
  }
  void copyFiles(ssh::CopyFilesCommand command) override { inner_->copyFiles(std::move(command)); }
  void setKeepaliveInterval(std::chrono::seconds interval) override { inner_->setKeepaliveInterval(interval); }
  [[nodiscard]] std::chrono::seconds getKeepaliveInterval() const override { return inner_->getKeepaliveInterval(); }

  std::int64_t lines = 0;

 private:
  std::unique_ptr<ssh::SSHClient> inner_;
};

struct Host {
  CountingSSHClient* counter = nullptr;
  std::unique_ptr<UnixSSHFileAccess> remote;
  ustring dir;

  Host() {
    auto client = std::make_unique<CountingSSHClient>(sshfa::testing::TestSshd::instance().connect());
    counter = client.get();
    remote = std::make_unique<UnixSSHFileAccess>(std::move(client));
    dir = str2ustr(sshfa::testing::TestSshd::makeTempDir().string());
  }

  // One shell command that runs in `folder` (created first).
  void shell(ustring const& folder, ustring const& script) const {
    remote->executeExpectNoError(u"mkdir -p " + quoted(folder) + u" && cd " + quoted(folder) + u" && " + script);
  }
};

Host& host() {
  static Host instance;
  return instance;
}

ustring number(std::size_t value) { return str2ustr(std::to_string(value)); }

Paths numberedPaths(ustring const& folder, std::size_t count) {
  Paths paths;
  paths.reserve(count);
  for (std::size_t i = 0; i < count; ++i) paths.push_back(folder + u"/f" + number(i));
  return paths;
}

ustring createFilesScript(std::size_t count) {
  return u"i=0; while [ $i -lt " + number(count) + u" ]; do : > f$i; i=$((i + 1)); done";
}

// Reports the time per path and the command lines one operation sends;
// `prepare` runs untimed and uncounted before each operation.
template <class Prepare, class Operation>
void measure(benchmark::State& state, std::size_t paths, Prepare&& prepare, Operation&& operation) {
  std::int64_t lines = 0;
  for (auto _ : state) {
    state.PauseTiming();
    prepare();
    state.ResumeTiming();
    const std::int64_t before = host().counter->lines;
    operation();
    lines = host().counter->lines - before;
  }
  state.counters["per_path"] = benchmark::Counter(
      static_cast<double>(paths), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["command_lines"] = static_cast<double>(lines);
}

void nothing() {}

void getFileInfoOf10000Files(benchmark::State& state) {
  const ustring folder = host().dir + u"/info";
  host().shell(folder, createFilesScript(10000));
  const Paths paths = numberedPaths(folder, 10000);
  measure(state, paths.size(), nothing, [&] {
    const auto infos = host().remote->getFileInfo(paths);
    if (!infos.back().has_value()) throw std::runtime_error("getFileInfo missed a file");
  });
}

void listRecursivelyOf100000Files(benchmark::State& state) {
  const ustring folder = host().dir + u"/tree";
  host().shell(folder, u"d=0; while [ $d -lt 100 ]; do mkdir d$d && (cd d$d && " + createFilesScript(1000) +
                           u"); d=$((d + 1)); done");
  measure(state, 100000, nothing, [&] {
    if (host().remote->listRecursively(folder).size() != 100000) throw std::runtime_error("listRecursively lost files");
  });
}

void existsOver1000Paths(benchmark::State& state) {
  const ustring folder = host().dir + u"/exists";
  host().shell(folder, createFilesScript(500));
  const Paths paths = numberedPaths(folder, 1000);  // half of them missing
  measure(state, paths.size(), nothing, [&] { benchmark::DoNotOptimize(host().remote->exists(paths)); });
}

void makeDir10000(benchmark::State& state) {
  const ustring folder = host().dir + u"/mkdir";
  const Paths paths = numberedPaths(folder, 10000);
  measure(
      state, paths.size(), [&] { host().remote->execute(u"rm -rf " + quoted(folder)); },
      [&] { host().remote->makeDir(paths); });
}

void touch10000(benchmark::State& state) {
  const ustring folder = host().dir + u"/touch";
  host().shell(folder, u":");
  const Paths paths = numberedPaths(folder, 10000);
  measure(state, paths.size(), nothing, [&] { host().remote->touch(paths); });
}

void remove10000(benchmark::State& state) {
  const ustring folder = host().dir + u"/remove";
  const Paths paths = numberedPaths(folder, 10000);
  measure(
      state, paths.size(), [&] { host().shell(folder, createFilesScript(10000)); },
      [&] { host().remote->remove(paths); });
}

BENCHMARK(getFileInfoOf10000Files)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(listRecursivelyOf100000Files)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(existsOver1000Paths)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(makeDir10000)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(touch10000)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(remove10000)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace
