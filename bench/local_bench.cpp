// The local backend next to plain std::filesystem loops doing the same work:
// getFileInfo of 10,000 paths and listRecursively of 100,000 files. With
// SSHFA_BENCH_TAR_TREE set to a folder, also tar of that folder (see
// bench/local_tar_vs_gnu_tar.sh for the comparison with GNU tar).

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "sshfileaccess/LocalFileAccess.hpp"
#include "sshfileaccess/platform/i18n/i18n.hpp"

namespace {

namespace stdfs = std::filesystem;
using nimbal::remoteaccess::sshfileaccess::LocalFileAccess;
using nimbal::remoteaccess::sshfileaccess::ustring;

constexpr int kFolders = 100;
constexpr int kFilesPerFolder = 1000;
constexpr int kInfoPaths = 10'000;

// 100 folders of 1000 small files each, made once and removed at exit.
class Tree {
 public:
  Tree() : root_(stdfs::temp_directory_path() / ("sshfa-local-bench-" + std::to_string(::getpid()))) {
    for (int f = 0; f < kFolders; ++f) {
      const stdfs::path folder = root_ / ("folder" + std::to_string(f));
      stdfs::create_directories(folder);
      for (int i = 0; i < kFilesPerFolder; ++i) {
        std::ofstream(folder / ("file" + std::to_string(i) + ".dat")) << "payload " << i;
      }
    }
    for (int i = 0; i < kInfoPaths; ++i) {
      const auto path = root_ / ("folder" + std::to_string(i % kFolders)) / ("file" + std::to_string(i) + ".dat");
      nativePaths_.push_back(path.native());
      paths_.push_back(fl::i18n::utf8_to_ustring(path.native()));
    }
  }
  ~Tree() {
    std::error_code ec;
    stdfs::remove_all(root_, ec);
  }
  Tree(Tree const&) = delete;
  Tree& operator=(Tree const&) = delete;

  static Tree& instance() {
    static Tree tree;
    return tree;
  }
  [[nodiscard]] stdfs::path const& root() const { return root_; }
  [[nodiscard]] std::vector<ustring> const& paths() const { return paths_; }
  [[nodiscard]] std::vector<std::string> const& nativePaths() const { return nativePaths_; }

 private:
  stdfs::path root_;
  std::vector<ustring> paths_;
  std::vector<std::string> nativePaths_;
};

void localGetFileInfo(benchmark::State& state) {
  Tree const& tree = Tree::instance();
  LocalFileAccess local;
  for (auto _ : state) {
    auto infos = local.getFileInfo(tree.paths());
    benchmark::DoNotOptimize(infos.data());
  }
  state.SetItemsProcessed(state.iterations() * kInfoPaths);
}
BENCHMARK(localGetFileInfo)->Unit(benchmark::kMillisecond);

void stdFilesystemStatus(benchmark::State& state) {
  Tree const& tree = Tree::instance();
  for (auto _ : state) {
    std::uintmax_t total = 0;
    for (auto const& path : tree.nativePaths()) {
      std::error_code ec;
      if (!stdfs::exists(stdfs::status(path, ec))) continue;
      total += stdfs::file_size(path, ec);
      benchmark::DoNotOptimize(stdfs::last_write_time(path, ec));
    }
    benchmark::DoNotOptimize(total);
  }
  state.SetItemsProcessed(state.iterations() * kInfoPaths);
}
BENCHMARK(stdFilesystemStatus)->Unit(benchmark::kMillisecond);

void localListRecursively(benchmark::State& state) {
  Tree const& tree = Tree::instance();
  LocalFileAccess local;
  const ustring root = fl::i18n::utf8_to_ustring(tree.root().native());
  for (auto _ : state) {
    auto files = local.listRecursively(root);
    if (files.size() != static_cast<std::size_t>(kFolders) * kFilesPerFolder) state.SkipWithError("wrong count");
    benchmark::DoNotOptimize(files.data());
  }
  state.SetItemsProcessed(state.iterations() * kFolders * kFilesPerFolder);
}
BENCHMARK(localListRecursively)->Unit(benchmark::kMillisecond);

void stdRecursiveDirectoryIterator(benchmark::State& state) {
  Tree const& tree = Tree::instance();
  for (auto _ : state) {
    std::vector<std::string> files;
    for (auto const& entry : stdfs::recursive_directory_iterator(tree.root())) {
      if (entry.is_regular_file()) files.push_back(entry.path().native());
    }
    benchmark::DoNotOptimize(files.data());
  }
  state.SetItemsProcessed(state.iterations() * kFolders * kFilesPerFolder);
}
BENCHMARK(stdRecursiveDirectoryIterator)->Unit(benchmark::kMillisecond);

// The std loop with the conversion to UTF-16 that the library's answer needs.
void stdRecursiveDirectoryIteratorToUtf16(benchmark::State& state) {
  Tree const& tree = Tree::instance();
  for (auto _ : state) {
    std::vector<ustring> files;
    for (auto const& entry : stdfs::recursive_directory_iterator(tree.root())) {
      if (entry.is_regular_file()) files.push_back(fl::i18n::utf8_to_ustring(entry.path().native()));
    }
    benchmark::DoNotOptimize(files.data());
  }
  state.SetItemsProcessed(state.iterations() * kFolders * kFilesPerFolder);
}
BENCHMARK(stdRecursiveDirectoryIteratorToUtf16)->Unit(benchmark::kMillisecond);

void localTar(benchmark::State& state) {
  const char* source = std::getenv("SSHFA_BENCH_TAR_TREE");
  if (source == nullptr) {
    state.SkipWithError("set SSHFA_BENCH_TAR_TREE to a folder to pack");
    return;
  }
  LocalFileAccess local;
  const stdfs::path archive =
      stdfs::temp_directory_path() / ("sshfa-local-bench-" + std::to_string(::getpid()) + ".tar");
  for (auto _ : state) local.tar(fl::i18n::utf8_to_ustring(source), fl::i18n::utf8_to_ustring(archive.native()));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(stdfs::file_size(archive)));
  stdfs::remove(archive);
}
BENCHMARK(localTar)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
