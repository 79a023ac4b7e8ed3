#include "sshfileaccess/platform/sshclient/internal/GitIgnore.hpp"

#include <string>

namespace foundation::sshclient::internal {
namespace {

// Drops trailing spaces but one escaped by '\' (and what follows it).
std::string_view withoutTrailingSpaces(std::string_view line) {
  std::size_t keep = line.size();
  std::size_t firstSpace = std::string_view::npos;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == ' ') {
      if (firstSpace == std::string_view::npos) firstSpace = i;
      continue;
    }
    if (line[i] == '\\' && ++i >= line.size()) return line;
    firstSpace = std::string_view::npos;
  }
  if (firstSpace != std::string_view::npos) keep = firstSpace;
  return line.substr(0, keep);
}

std::optional<IgnorePattern> parseLine(std::string_view line) {
  if (line.empty() || line.front() == '#') return std::nullopt;
  if (line.back() == '\r') line.remove_suffix(1);
  line = withoutTrailingSpaces(line);
  IgnorePattern pattern;
  if (!line.empty() && line.front() == '!') {
    pattern.negated = true;
    line.remove_prefix(1);
  }
  if (!line.empty() && line.back() == '/') {
    pattern.folderOnly = true;
    line.remove_suffix(1);
  }
  if (line.empty()) return std::nullopt;  // matches nothing
  pattern.nameOnly = line.find('/') == std::string_view::npos;
  if (line.front() == '/') line.remove_prefix(1);
  pattern.glob = Glob(line, GlobDialect::Git);
  return pattern;
}

}  // namespace

std::vector<IgnorePattern> parseGitignore(std::string_view text) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  std::vector<IgnorePattern> patterns;
  while (!text.empty()) {
    std::size_t const end = text.find('\n');
    if (auto pattern = parseLine(text.substr(0, end))) patterns.push_back(std::move(*pattern));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return patterns;
}

Verdict ignoreVerdict(IgnoreLevel const* level, Subject const& subject) {
  std::string_view const path = subject.path();
  for (; level != nullptr; level = level->parent.get()) {
    std::string_view const below = level->folderLength == 0 ? path : path.substr(level->folderLength + 1);
    for (auto it = level->patterns.rbegin(); it != level->patterns.rend(); ++it) {
      if (it->folderOnly && !subject.isFolder()) continue;
      if (it->glob.matches(it->nameOnly ? subject.name() : below)) {
        return it->negated ? Verdict::Include : Verdict::Exclude;
      }
    }
  }
  return Verdict::None;
}

}  // namespace foundation::sshclient::internal
