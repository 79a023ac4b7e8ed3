#include "tools/sshfa/Demo.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sshfileaccess/platform/i18n/i18n.hpp"
#include "support/loopback_sshd/LoopbackSshd.hpp"
#include "tools/sshfa/Commands.hpp"
#include "tools/sshfa/Connection.hpp"
#include "tools/sshfa/Interrupt.hpp"
#include "tools/sshfa/Json.hpp"
#include "tools/sshfa/Progress.hpp"
#include "tools/sshfa/Text.hpp"

extern char** environ;

namespace sshfa::cli {
namespace {

namespace fs = std::filesystem;
namespace sfa = nimbal::remoteaccess::sshfileaccess;
using fl::ustring;

constexpr int kSteps = 9;

ustring u(fs::path const& path) { return fl::i18n::utf8_to_ustring(path.string()); }
ustring u(char const* text) { return fl::i18n::utf8_to_ustring(text); }

// Where the tour is told: standard output, or standard error when standard
// output carries the JSON document.
std::FILE* gTour = stdout;

void print(std::string const& text) {
  std::string const line = text + "\n";
  std::fwrite(line.data(), 1, line.size(), gTour);
  std::fflush(gTour);
}

// The demo's scratch space; removed with everything in it, by this object
// or, should this process end without unwinding (a second Ctrl-C, SIGKILL),
// by a watcher: a shell in a session of its own that waits for the end of a
// pipe only this process can write to. (The server dies with this process.)
class ScratchFolder {
 public:
  ScratchFolder() {
    std::string pattern = (fs::temp_directory_path() / "sshfa-demo-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot create a temporary folder");
    path_ = pattern;
    startWatcher();
  }
  ~ScratchFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
    if (watcherPipe_ >= 0) ::close(watcherPipe_);
  }
  ScratchFolder(ScratchFolder const&) = delete;
  ScratchFolder& operator=(ScratchFolder const&) = delete;
  [[nodiscard]] fs::path const& path() const noexcept { return path_; }

 private:
  void startWatcher() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return;  // cleanup then rests on this object alone
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    std::string const script = "read _; rm -rf -- \"$0\"";
    std::string const folder = path_.string();
    char const* argv[] = {"sh", "-c", script.c_str(), folder.c_str(), nullptr};
    pid_t pid = 0;
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): posix_spawn's signature
    int const rc = ::posix_spawn(&pid, "/bin/sh", &actions, &attributes, const_cast<char* const*>(argv), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[0]);
    if (rc == 0) {
      watcherPipe_ = fds[1];
    } else {
      ::close(fds[1]);
    }
  }

  fs::path path_;
  int watcherPipe_ = -1;
};

class Tour {
 public:
  void step(std::string const& title) {
    throwIfInterrupted();
    print(fmt::format("\n[{}/{}] {}", ++number_, kSteps, title));
  }
  static void detail(std::string const& text) { print("      " + forStream(::fileno(gTour), text)); }

  template <class Work>
  auto timed(std::string const& label, Work&& work) {
    auto const start = std::chrono::steady_clock::now();
    auto finish = [&] {
      double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      timings_.emplace_back(label, seconds);
      return seconds;
    };
    if constexpr (std::is_void_v<decltype(work())>) {
      work();
      return finish();
    } else {
      auto result = work();
      finish();
      return result;
    }
  }

  void printTimings() const {
    print("\nTimings");
    for (auto const& [label, seconds] : timings_) print(fmt::format("  {:<44} {:8.3f} s", label, seconds));
  }
  [[nodiscard]] std::vector<std::pair<std::string, double>> const& timings() const noexcept { return timings_; }

 private:
  int number_ = 0;
  std::vector<std::pair<std::string, double>> timings_;
};

struct TreeFacts {
  std::size_t files = 0;
  std::uint64_t bytes = 0;
  std::vector<std::string> awkward;  // one name of each awkward pattern
};

// Folders and name patterns with blanks, apostrophes and text beyond ASCII.
TreeFacts buildTree(fs::path const& root, int files) {
  static constexpr char const* kFolders[] = {
      "docs", "docs/notes with blanks", "src/core", "src/util", "data/2024", "it's a folder", "Ünïcödé", "日本語",
  };
  static constexpr char const* kNames[] = {
      "file-{:03}.txt", "report {} (final).txt", "it's {}.txt", "café-{}.csv", "naïve résumé {}.md", "データ-{}.bin",
  };
  std::mt19937 random(20240601);
  TreeFacts facts;
  std::set<std::size_t> sampledPatterns;
  for (int i = 0; i < files; ++i) {
    throwIfInterrupted();
    auto const index = static_cast<std::size_t>(i);
    char const* folder = kFolders[index % std::size(kFolders)];
    std::size_t const pattern = (index / std::size(kFolders)) % std::size(kNames);
    std::string const name = fmt::format(fmt::runtime(kNames[pattern]), i);
    fs::create_directories(root / folder);
    // One empty file; the rest between 1 byte and 24 KiB.
    std::size_t const size = i == 0 ? 0 : 1 + (index * 7919) % (24 * 1024);
    std::string content(size, '\0');
    for (auto& c : content) c = static_cast<char>(random() & 0xFF);
    std::ofstream(root / folder / name, std::ios::binary).write(content.data(), static_cast<std::streamsize>(size));
    ++facts.files;
    facts.bytes += size;
    // Samples from the three folders whose names are awkward too.
    bool const awkwardFolder = index % std::size(kFolders) == 5 + pattern % 3;
    if (pattern != 0 && awkwardFolder && sampledPatterns.insert(pattern).second) {
      facts.awkward.push_back(fmt::format("{}/{}", folder, name));
    }
  }
  return facts;
}

std::string readAll(fs::path const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

struct Comparison {
  std::size_t identical = 0;
  std::vector<std::string> problems;
};

Comparison compareTrees(fs::path const& original, fs::path const& copy) {
  Comparison result;
  std::set<fs::path> expected;
  for (auto const& entry : fs::recursive_directory_iterator(original)) {
    if (!entry.is_regular_file()) continue;
    fs::path const relative = fs::relative(entry.path(), original);
    expected.insert(relative);
    fs::path const other = copy / relative;
    if (!fs::is_regular_file(other)) {
      result.problems.push_back("missing: " + relative.string());
    } else if (readAll(entry.path()) != readAll(other)) {
      result.problems.push_back("differs: " + relative.string());
    } else {
      ++result.identical;
    }
  }
  if (fs::exists(copy)) {
    for (auto const& entry : fs::recursive_directory_iterator(copy)) {
      if (entry.is_regular_file() && expected.count(fs::relative(entry.path(), copy)) == 0) {
        result.problems.push_back("extra: " + fs::relative(entry.path(), copy).string());
      }
    }
  }
  return result;
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

// Runs a transfer with the progress bar (on a terminal) and reports it.
void transfer(Tour& tour, ProgressRouter& router, std::string const& label, auto&& copy) {
  TransferReporter reporter(isTerminal(STDERR_FILENO));
  router.setReporter(&reporter);
  try {
    tour.timed(label, copy);
  } catch (...) {
    router.setReporter(nullptr);
    throw;
  }
  router.setReporter(nullptr);
  Tour::detail("copied " + describeTotals(reporter.finish()));
}

// What the tour found, for the JSON document.
struct Outcome {
  int status = 0;
  std::size_t files = 0;
  std::size_t identical = 0;
  std::vector<std::string> problems;
  std::vector<std::pair<std::string, double>> timings;
};

Outcome tourWith(DemoSettings const& settings, ScratchFolder const& scratch) {
  Tour tour;
  print("sshfa demo: one FileAccess object, this machine and an SSH host (here a private sshd on 127.0.0.1)");

  tour.step("Start a private OpenSSH server with throwaway keys");
  fs::path const sshdFolder = scratch.path() / "sshd";
  fs::create_directory(sshdFolder);
  fs::permissions(sshdFolder, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                  fs::perms::others_read | fs::perms::others_exec);
  auto const server = tour.timed("start sshd", [&] {
    return std::make_unique<loopback::LoopbackSshd>(
        loopback::LoopbackSshd::Settings{sshdFolder, {}, std::chrono::seconds(15)});
  });
  loopback::LoopbackSshd const& sshd = *server;
  Tour::detail(fmt::format("listening on {}:{} (pid {}), keys and log in {}", sshd.host(), sshd.port(), sshd.pid(),
                           sshdFolder.string()));

  tour.step("Connect: FileAccess over an SSH client (key login, host key checked against known_hosts)");
  ConnectionSettings connection;
  connection.host = sshd.host();
  connection.port = sshd.port();
  connection.user = sshd.user();
  connection.identityFile = sshd.identityFile();
  connection.knownHostsFile = sshd.knownHostsFile();
  connection.readSshConfig = false;
  connection.batch = true;
  ProgressRouter router;
  auto const access = tour.timed("connect", [&] { return connect(connection, router); });
  auto const uname = tour.timed("remoteExecute(\"uname -sr\")", [&] { return access->remoteExecute(u("uname -sr")); });
  Tour::detail(fmt::format("logged in as {}; remoteExecute(\"uname -sr\") -> {} (exit {})", sshd.user(),
                           trimmed(raw(uname.getStdout())), uname.getExitcode()));

  fs::path const localTree = scratch.path() / "local" / "tree";
  fs::path const remoteRoot = scratch.path() / "remote";
  fs::path const remoteTree = remoteRoot / "tree";
  fs::path const localBack = scratch.path() / "local" / "back";

  tour.step(fmt::format("Build a local tree of {} files with awkward names", settings.files));
  TreeFacts const facts = tour.timed("build local tree", [&] { return buildTree(localTree, settings.files); });
  Tour::detail(fmt::format("{}: {} files, {}", localTree.string(), facts.files, formatBytes(facts.bytes)));
  for (auto const& name : facts.awkward) Tour::detail("  e.g. " + name);

  tour.step("Copy it up: localToRemoteCopy(tree, remote/tree) — one listing, one mkdir -p, one transfer");
  transfer(tour, router, "localToRemoteCopy", [&] { access->localToRemoteCopy(u(localTree), u(remoteTree)); });

  tour.step("Look at it remotely: isDir, list, listRecursively, getFileInfo (one batched stat)");
  auto* remote = access->remote();
  bool const isDir = remote->isDir(u(remoteTree));
  auto const top = tour.timed("list", [&] { return remote->list(u(remoteTree)); });
  auto const files = tour.timed("listRecursively", [&] { return remote->listRecursively(u(remoteTree)); });
  auto const infos =
      tour.timed(fmt::format("getFileInfo of {} paths", files.size()), [&] { return remote->getFileInfo(files); });
  std::uint64_t remoteBytes = 0;
  for (auto const& info : infos) remoteBytes += info ? info->size : 0;
  Tour::detail(fmt::format("isDir -> {}; list -> {} entries; listRecursively -> {} files; {} in total", isDir,
                           top.size(), files.size(), formatBytes(remoteBytes)));
  for (std::size_t i = 0; i < infos.size() && i < 3; ++i) {
    if (!infos[i]) continue;
    Tour::detail(fmt::format("  {:>6}  {}Z  {}", infos[i]->size,
                             boost::posix_time::to_iso_extended_string(infos[i]->lastWriteTime),
                             raw(files[i].substr(u(remoteRoot).size() + 1))));
  }

  tour.step("Archive it on the remote side: tar and zip, then untar into a new folder");
  ustring const tarFile = u(remoteRoot / "tree.tar");
  ustring const zipFile = u(remoteRoot / "tree.zip");
  fs::path const unpacked = remoteRoot / "unpacked";
  tour.timed("tar", [&] { remote->tar(u(remoteTree), tarFile); });
  tour.timed("zip", [&] { remote->zip(u(remoteTree), zipFile); });
  tour.timed("makeDir + untar", [&] {
    remote->makeDir(u(unpacked));
    remote->untar(tarFile, u(unpacked));
  });
  auto const archives = remote->getFileInfo(std::vector<ustring>{tarFile, zipFile});
  Tour::detail(fmt::format("tree.tar {}, tree.zip {}; unpacked into {}",
                           formatBytes(archives[0] ? archives[0]->size : 0),
                           formatBytes(archives[1] ? archives[1]->size : 0), unpacked.string()));

  tour.step("Copy the unpacked tree back: remoteToLocalCopy(remote/unpacked/tree, local/back)");
  transfer(tour, router, "remoteToLocalCopy", [&] { access->remoteToLocalCopy(u(unpacked / "tree"), u(localBack)); });

  tour.step("Compare the copy with the original, byte for byte");
  Comparison const comparison = tour.timed("compare", [&] { return compareTrees(localTree, localBack); });
  Tour::detail(fmt::format("{} of {} files identical", comparison.identical, facts.files));
  for (auto const& problem : comparison.problems) Tour::detail("  " + problem);

  tour.step("Clean up remotely: remove (one batched rm -rf), then exists");
  std::vector<ustring> const made{u(remoteTree), u(unpacked), tarFile, zipFile};
  tour.timed("remove", [&] { remote->remove(made); });
  auto const left = remote->exists(made);
  Tour::detail(fmt::format("exists after remove -> {} of {} still there", std::count(left.begin(), left.end(), true),
                           made.size()));

  tour.printTimings();
  bool const ok = comparison.problems.empty() && comparison.identical == facts.files;
  print(ok ? "\nThe tree came back unchanged." : "\nThe tree did NOT come back unchanged.");
  return {ok ? 0 : 1, facts.files, comparison.identical, comparison.problems, tour.timings()};
}

}  // namespace

int runDemo(DemoSettings const& settings) {
  InterruptGuard const interruptible;
  gTour = settings.json ? stderr : stdout;
  fs::path scratchPath;
  Outcome outcome;
  std::exception_ptr failure;
  {
    ScratchFolder const scratch;
    scratchPath = scratch.path();
    // Leaving tourWith closes the connection and stops the server, leaving
    // this block removes the scratch folder: on success, failure and Ctrl-C.
    try {
      outcome = tourWith(settings, scratch);
    } catch (...) {
      failure = std::current_exception();
    }
  }
  print(fmt::format("{}Closed the connection, stopped the server, removed {}.", failure ? "\n" : "",
                    scratchPath.string()));
  if (failure) std::rethrow_exception(failure);
  if (settings.json) {
    Json timings = Json::object();
    for (auto const& [label, seconds] : outcome.timings) timings[label] = std::round(seconds * 1000.0) / 1000.0;
    Json problems = Json::array();
    for (auto const& problem : outcome.problems) problems.push_back(problem);
    writeTo(stdout, document({{"files", outcome.files},
                              {"identical", outcome.identical},
                              {"problems", problems},
                              {"seconds", timings}}));
  }
  return outcome.status;
}

}  // namespace sshfa::cli
