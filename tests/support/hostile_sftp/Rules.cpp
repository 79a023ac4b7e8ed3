#include "tests/support/hostile_sftp/Rules.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>

namespace sshfa::testing::hostile {

namespace {

struct TypeName {
  EntryType type;
  std::string_view name;
  std::uint32_t bits;
};

constexpr std::array<TypeName, 8> kTypes{{
    {EntryType::Unchanged, "-", 0},
    {EntryType::File, "file", S_IFREG},
    {EntryType::Directory, "dir", S_IFDIR},
    {EntryType::Symlink, "link", S_IFLNK},
    {EntryType::Fifo, "fifo", S_IFIFO},
    {EntryType::Socket, "socket", S_IFSOCK},
    {EntryType::CharDevice, "char", S_IFCHR},
    {EntryType::BlockDevice, "block", S_IFBLK},
}};

constexpr std::array<std::pair<Placement, std::string_view>, 3> kPlacements{{
    {Placement::Before, "before"},
    {Placement::After, "after"},
    {Placement::Replace, "replace"},
}};

constexpr std::uint64_t kMaxMode = 07777;
constexpr std::uint64_t kMaxTime = 0xffffffffU;

[[noreturn]] void refuse(std::size_t line, std::string const& what) {
  throw std::invalid_argument("rules line " + std::to_string(line) + ": " + what);
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::vector<std::string_view> split(std::string_view line) {
  std::vector<std::string_view> fields;
  for (std::size_t start = 0;;) {
    auto const tab = line.find('\t', start);
    fields.push_back(line.substr(start, tab == std::string_view::npos ? std::string_view::npos : tab - start));
    if (tab == std::string_view::npos) return fields;
    start = tab + 1;
  }
}

Field parseField(std::string_view text, int base, char const* what, std::size_t line) {
  if (text == "-") return {};
  if (!text.empty() && text.front() == '@') return CopiedFrom{unescape(text.substr(1))};
  std::uint64_t value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
    refuse(line, std::string(what) + " '" + std::string(text) + "' is not " +
                     (base == 8 ? "octal permission bits" : "a number") + ", '@PATH' or '-'");
  }
  return value;
}

std::string formatField(Field const& field, int base) {
  if (auto const* copied = field.copied()) return "@" + escape(copied->path);
  auto const* number = field.number();
  if (number == nullptr) return "-";
  std::array<char, 24> digits{};
  auto const end = std::to_chars(digits.data(), digits.data() + digits.size(), *number, base).ptr;
  return (base == 8 ? "0" : "") + std::string(digits.data(), end);
}

// What parseRules refuses beyond the syntax of single fields.
void check(Rule const& rule, std::size_t line) {
  if (auto const* mode = rule.mode.number(); mode != nullptr && *mode > kMaxMode) {
    refuse(line, "mode " + formatField(rule.mode, 8) + " has more than permission bits");
  }
  if (auto const* mtime = rule.mtime.number(); mtime != nullptr && *mtime > kMaxTime) {
    refuse(line, "mtime " + std::to_string(*mtime) + " does not fit in 32 bits");
  }
  if (rule.linkTarget && rule.type != EntryType::Symlink) refuse(line, "a link target is only for a link");
}

}  // namespace

std::uint32_t typeBits(EntryType type) noexcept {
  for (auto const& t : kTypes) {
    if (t.type == type) return t.bits;
  }
  return 0;
}

std::string escape(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (char const c : bytes) {
    auto const byte = static_cast<unsigned char>(c);
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\0':
        out += "\\0";
        break;
      default:
        if (byte < 0x20 || byte >= 0x7f) {
          out += "\\x";
          out += kHex[byte >> 4U];
          out += kHex[byte & 0xfU];
        } else {
          out += c;
        }
    }
  }
  return out;
}

std::string unescape(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    if (++i == text.size()) throw std::invalid_argument("'" + std::string(text) + "' ends in a lone backslash");
    switch (text[i]) {
      case '\\':
        out += '\\';
        break;
      case 't':
        out += '\t';
        break;
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case '0':
        out += '\0';
        break;
      case 'x': {
        int const high = i + 1 < text.size() ? hexDigit(text[i + 1]) : -1;
        int const low = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
        if (high < 0 || low < 0) {
          throw std::invalid_argument("'" + std::string(text) + "': \\x needs two hexadecimal digits");
        }
        out += static_cast<char>(high * 16 + low);
        i += 2;
        break;
      }
      default:
        throw std::invalid_argument("'" + std::string(text) + "': unknown escape \\" + std::string(1, text[i]));
    }
  }
  return out;
}

std::vector<Rule> parseRules(std::string_view text) {
  std::vector<Rule> rules;
  std::size_t lineNumber = 0;
  for (std::size_t start = 0; start < text.size();) {
    auto const newline = text.find('\n', start);
    auto const line = text.substr(start, newline == std::string_view::npos ? std::string_view::npos : newline - start);
    start = newline == std::string_view::npos ? text.size() : newline + 1;
    ++lineNumber;
    if (line.empty() || line.front() == '#') continue;

    auto const fields = split(line);
    if (fields.size() != 7 && fields.size() != 8) {
      refuse(lineNumber, "has " + std::to_string(fields.size()) + " fields, not 7 or 8 separated by tabs");
    }
    Rule rule;
    auto const placement =
        std::find_if(kPlacements.begin(), kPlacements.end(), [&](auto const& p) { return p.second == fields[0]; });
    if (placement == kPlacements.end()) {
      refuse(lineNumber, "unknown placement '" + std::string(fields[0]) + "' (before, after or replace)");
    }
    rule.placement = placement->first;
    auto const type =
        std::find_if(kTypes.begin(), kTypes.end(), [&](TypeName const& t) { return t.name == fields[3]; });
    if (type == kTypes.end()) {
      refuse(lineNumber,
             "unknown type '" + std::string(fields[3]) + "' (file, dir, link, fifo, socket, char, block or -)");
    }
    rule.type = type->type;
    try {
      rule.folder = unescape(fields[1]);
      rule.name = unescape(fields[2]);
      rule.mode = parseField(fields[4], 8, "mode", lineNumber);
      rule.size = parseField(fields[5], 10, "size", lineNumber);
      rule.mtime = parseField(fields[6], 10, "mtime", lineNumber);
      if (fields.size() == 8) rule.linkTarget = unescape(fields[7]);
    } catch (std::invalid_argument const& e) {
      if (std::string_view(e.what()).starts_with("rules line ")) throw;
      refuse(lineNumber, e.what());
    }
    check(rule, lineNumber);
    rules.push_back(std::move(rule));
  }
  return rules;
}

std::string formatRules(std::vector<Rule> const& rules) {
  std::string text;
  std::size_t index = 0;
  for (auto const& rule : rules) {
    check(rule, ++index);
    for (auto const& [placement, name] : kPlacements) {
      if (placement == rule.placement) text += name;
    }
    text += '\t' + escape(rule.folder) + '\t' + escape(rule.name) + '\t';
    for (auto const& t : kTypes) {
      if (t.type == rule.type) text += t.name;
    }
    text += '\t' + formatField(rule.mode, 8) + '\t' + formatField(rule.size, 10) + '\t' + formatField(rule.mtime, 10);
    if (rule.linkTarget) text += '\t' + escape(*rule.linkTarget);
    text += '\n';
  }
  return text;
}

}  // namespace sshfa::testing::hostile
