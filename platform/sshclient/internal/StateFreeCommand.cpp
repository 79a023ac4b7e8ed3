#include "sshfileaccess/platform/sshclient/internal/StateFreeCommand.hpp"

#include <algorithm>
#include <array>
#include <cstring>

namespace foundation::sshclient::internal {

namespace {

constexpr std::array<std::string_view, 7> kBuiltins = {"test", "[", "echo", "printf", "true", "false", ":"};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("_./,:=+%@-", c) != nullptr);
}

void skipBlanks(std::string_view& text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
}

// Takes one word off the front of `text`; false when what is there is not a
// word made of the accepted parts.
bool takeWord(std::string_view& text) {
  std::string_view const start = text;
  // [ and ] alone cannot start a pattern; anywhere else they could.
  if (text.starts_with('[') || text.starts_with(']')) {
    text.remove_prefix(1);
  } else {
    while (!text.empty()) {
      char const c = text.front();
      if (isPlain(c)) {
        text.remove_prefix(1);
      } else if (c == '\'') {
        std::size_t const close = text.find('\'', 1);
        if (close == std::string_view::npos) return false;
        text.remove_prefix(close + 1);
      } else if (c == '\\') {
        // A backslash before a line feed joins lines instead of quoting.
        if (text.size() < 2 || text[1] == '\n') return false;
        text.remove_prefix(2);
      } else {
        break;
      }
    }
  }
  return text.size() != start.size() &&
         (text.empty() || isBlank(text.front()) || text.front() == ';' || text.front() == '&' || text.front() == '|');
}

// Takes one simple command: a builtin's name and its arguments.
bool takeCommand(std::string_view& text) {
  skipBlanks(text);
  std::string_view rest = text;
  if (!takeWord(rest)) return false;
  std::string_view const name = text.substr(0, text.size() - rest.size());
  if (std::find(kBuiltins.begin(), kBuiltins.end(), name) == kBuiltins.end()) return false;
  text = rest;
  for (;;) {
    skipBlanks(text);
    if (text.empty() || text.front() == ';' || text.front() == '&' || text.front() == '|') return true;
    if (!takeWord(text)) return false;
  }
}

}  // namespace

bool isStateFreeCommand(std::string_view command) {
  for (;;) {
    if (!takeCommand(command)) return false;
    if (command.empty()) return true;
    if (command.starts_with("&&") || command.starts_with("||")) {
      command.remove_prefix(2);
    } else if (command.front() == ';') {
      command.remove_prefix(1);
      skipBlanks(command);
      if (command.empty()) return true;
    } else {
      return false;
    }
  }
}

}  // namespace foundation::sshclient::internal
