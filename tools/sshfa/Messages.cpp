#include "tools/sshfa/Messages.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace sshfa::cli {
namespace {

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// "sh: 1: ", "bash: line 3: ", "sh: ": the shell that reported.
std::string_view withoutShell(std::string_view line) {
  for (std::string_view const shell : {"sh: ", "bash: ", "dash: "}) {
    if (!startsWith(line, shell)) continue;
    line.remove_prefix(shell.size());
    if (startsWith(line, "line ")) line.remove_prefix(5);
    std::size_t digits = 0;
    while (digits < line.size() && std::isdigit(static_cast<unsigned char>(line[digits])) != 0) ++digits;
    if (digits > 0 && startsWith(line.substr(digits), ": ")) line.remove_prefix(digits + 2);
    return line;
  }
  return line;
}

std::string inWords(std::string_view line) {
  line = withoutShell(line);
  // The programs the remote commands run; their name adds nothing to ours.
  static constexpr std::array<std::string_view, 13> kPrograms{
      "mkdir: ", "rm: ",   "cp: ",   "mv: ", "touch: ", "tar: ", "zip: ",
      "unzip: ", "stat: ", "find: ", "ls: ", "test: ",  "cd: "};
  for (auto const program : kPrograms) {
    if (!startsWith(line, program)) continue;
    line.remove_prefix(program.size());
    if (program == "cd: ") {
      // dash: "can't cd to /x"; bash: "/x: No such file or directory"
      if (startsWith(line, "can't cd to ")) return "cannot enter the folder '" + std::string(line.substr(12)) + "'";
      return "cannot enter the folder " + std::string(line);
    }
    break;
  }
  return std::string(line);
}

}  // namespace

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
  return text;
}

std::string inTheToolsWords(std::string const& command, std::string const& message) {
  std::string out;
  std::size_t start = 0;
  std::string_view const text(message);
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string line = trimmed(inWords(text.substr(start, end - start)));
    start = end + 1;
    if (line.empty() || line == "Exiting with failure status due to previous errors") continue;
    out += (out.empty() ? "" : "\n") + (command.empty() ? line : command + ": " + line);
  }
  return out.empty() ? (command.empty() ? "failed" : command + ": failed") : out;
}

std::string nearestName(std::string const& word, std::vector<std::string> const& names) {
  auto distance = [](std::string const& a, std::string const& b) {
    // Optimal string alignment distance.
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
      for (std::size_t j = 1; j <= b.size(); ++j) {
        std::size_t const cost = a[i - 1] == b[j - 1] ? 0 : 1;
        d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
        if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
          d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
      }
    }
    return d[a.size()][b.size()];
  };
  // Short words are near anything at two edits; allow one there.
  std::size_t const allowed = word.size() <= 3 ? 1 : 2;
  std::string best;
  std::size_t bestDistance = allowed + 1;
  for (auto const& name : names) {
    std::size_t const d = distance(word, name);
    if (d < bestDistance) {
      best = name;
      bestDistance = d;
    }
  }
  return best;
}

}  // namespace sshfa::cli
