// What a filter adds to a tree listing: a walk of a 10,000-file tree held in
// memory, asking the filter of every entry folder by folder as the listing
// does (a folder left out is not entered), with rsync-style rules, nested
// .gitignore files (parsed as each folder is entered), both, or no filter.
// per_decision is the time of one walk over the decisions it asked.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "sshfileaccess/platform/sshclient/Filter.hpp"

namespace {

namespace ssh = foundation::sshclient;

struct Folder {
  std::string name;
  std::vector<std::string> files;
  std::vector<Folder> folders;
  std::string gitignore;  // its .gitignore text, empty when it has none
};

constexpr std::array<char const*, 10> kExtensions{".c",  ".h",   ".o",  ".cpp",  ".log",
                                                  ".md", ".tmp", ".py", ".json", ".txt"};
constexpr std::array<char const*, 10> kSubfolders{"src", "include", "build", "docs", "test",
                                                  "gen", "lib",     "cache", "util", "node_modules"};

// 20 top folders of 10 subfolders of 50 files each: 10,000 files; every
// top folder has a .gitignore and so has the root.
Folder makeTree() {
  Folder root;
  root.gitignore =
      "# generated\n*.o\n*.tmp\n*.log\n!keep.log\n/dist/\nnode_modules/\n**/cache/\n*.py[co]\n"
      "__pycache__/\n.DS_Store\n*~\n*.swp\ncore.*\n";
  for (int t = 0; t < 20; ++t) {
    Folder top{"module" + std::to_string(t), {}, {}, "/build/\ngen/*.c\n!gen/keep.c\n*.json\ndocs/**/*.txt\n"};
    for (auto const* sub : kSubfolders) {
      Folder folder{sub, {}, {}, {}};
      for (std::size_t f = 0; f < 50; ++f) {
        folder.files.push_back("file_" + std::to_string(f) + kExtensions.at(f % kExtensions.size()));
      }
      top.folders.push_back(std::move(folder));
    }
    root.folders.push_back(std::move(top));
  }
  return root;
}

// 20 rules, a project's usual list.
ssh::Filter rsyncRules(ssh::Filter filter) {
  filter.include("keep.log");
  for (auto const* pattern : {"*.o", "*.tmp", "*.log", "*.swp", "*~", ".DS_Store", "build/", "node_modules/", "/dist",
                              "**/cache/", "module1/*/gen/", "*.py[co]", "__pycache__/", ".git/", "*.[ao]", "core.*",
                              "/docs/**/*.pdf", "CMakeFiles/", "*.d"}) {
    filter.exclude(pattern);
  }
  return filter;
}

std::int64_t walk(ssh::FilterFolder const& filter, Folder const& folder) {
  std::int64_t decisions = 0;
  for (auto const& file : folder.files) {
    ++decisions;
    benchmark::DoNotOptimize(filter.takes(file, false));
  }
  for (auto const& sub : folder.folders) {
    ++decisions;
    if (filter.takes(sub.name, true)) decisions += walk(filter.enter(sub.name, sub.gitignore), sub);
  }
  return decisions;
}

void listing(benchmark::State& state, ssh::Filter const& filter) {
  Folder const tree = makeTree();
  std::int64_t decisions = 0;
  for (auto _ : state) decisions = walk(filter.root(tree.gitignore), tree);
  state.counters["decisions"] = static_cast<double>(decisions);
  state.counters["per_decision"] = benchmark::Counter(
      static_cast<double>(decisions), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

ssh::Filter withGitignore() {
  ssh::Filter filter;
  filter.gitignore();
  return filter;
}

BENCHMARK_CAPTURE(listing, no_filter, ssh::Filter())->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(listing, rules_20, rsyncRules(ssh::Filter()))->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(listing, nested_gitignores, withGitignore())->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(listing, rules_20_and_gitignores, rsyncRules(withGitignore()))->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
