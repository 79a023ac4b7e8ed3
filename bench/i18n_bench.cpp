// Throughput of the UTF-8 <-> UTF-16 conversion on path-like text.
#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include "sshfileaccess/platform/i18n/i18n.hpp"

namespace {

// About 1 MiB of text built from `piece`, with a varying counter so the
// strings look like real listings.
std::string makeText(std::string const& piece) {
  std::string text;
  for (int i = 0; text.size() < (1U << 20U); ++i) text += "/srv/data/" + piece + std::to_string(i) + "\n";
  return text;
}

std::string asciiPaths() { return makeText("project/src/module/file_name.txt"); }
std::string mixedUtf8() { return makeText("proj\xC3\xA9t/\xE6\x96\x87\xE4\xBB\xB6/\xF0\x9F\x98\x80-caf\xC3\xA9.txt"); }
std::string invalidBytes() { return makeText("bad\xFF\xFEname\xC3/x\xE2\x82.txt"); }

void toUstring(benchmark::State& state, std::string const& text) {
  for (auto _ : state) benchmark::DoNotOptimize(fl::i18n::utf8_to_ustring(text));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void toUtf8(benchmark::State& state, std::string const& text) {
  const fl::ustring u = fl::i18n::utf8_to_ustring(text);
  for (auto _ : state) benchmark::DoNotOptimize(fl::i18n::ustring_to_utf8(u));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

BENCHMARK_CAPTURE(toUstring, ascii_paths, asciiPaths());
BENCHMARK_CAPTURE(toUstring, mixed_utf8, mixedUtf8());
BENCHMARK_CAPTURE(toUstring, invalid_bytes, invalidBytes());
BENCHMARK_CAPTURE(toUtf8, ascii_paths, asciiPaths());
BENCHMARK_CAPTURE(toUtf8, mixed_utf8, mixedUtf8());
BENCHMARK_CAPTURE(toUtf8, invalid_bytes, invalidBytes());

}  // namespace
