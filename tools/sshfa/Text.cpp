#include "tools/sshfa/Text.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <array>

#include "sshfileaccess/platform/i18n/i18n.hpp"

namespace sshfa::cli {
namespace {

constexpr char32_t kFirstEscapedByte = 0xDC80;
constexpr char32_t kLastEscapedByte = 0xDCFF;

bool isHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Calls visit(codePoint) for each code point; a lone surrogate is passed on
// as it is.
template <class Visit>
void forEachCodePoint(fl::ustring const& text, Visit&& visit) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (isHighSurrogate(c) && i + 1 < text.size() && isLowSurrogate(text[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<char32_t>(text[i + 1]) - 0xDC00);
      ++i;
    }
    visit(c);
  }
}

void appendUtf8(std::string& out, char32_t c) {
  auto const byte = [](char32_t v) { return static_cast<char>(v); };
  if (c < 0x80) {
    out += byte(c);
  } else if (c < 0x800) {
    out += byte(0xC0 | (c >> 6));
    out += byte(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += byte(0xE0 | (c >> 12));
    out += byte(0x80 | ((c >> 6) & 0x3F));
    out += byte(0x80 | (c & 0x3F));
  } else {
    out += byte(0xF0 | (c >> 18));
    out += byte(0x80 | ((c >> 12) & 0x3F));
    out += byte(0x80 | ((c >> 6) & 0x3F));
    out += byte(0x80 | (c & 0x3F));
  }
}

bool reordersText(char32_t c) {
  return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

void appendForTerminal(std::string& out, char32_t c) {
  static constexpr std::array<char, 7> kNamed{'a', 'b', 't', 'n', 'v', 'f', 'r'};  // \a (7) .. \r (13)
  if (c == '\\') {
    out += "\\\\";
  } else if (c >= 0x07 && c <= 0x0D) {
    out += '\\';
    out += kNamed[c - 0x07];
  } else if (c < 0x20 || c == 0x7F) {
    out += fmt::format("\\x{:02x}", static_cast<unsigned>(c));
  } else if (c >= kFirstEscapedByte && c <= kLastEscapedByte) {
    out += fmt::format("\\x{:02x}", static_cast<unsigned>(c - 0xDC00));
  } else if ((c >= 0x80 && c <= 0x9F) || reordersText(c) || (c >= 0xD800 && c <= 0xDFFF)) {
    out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
  } else {
    appendUtf8(out, c);
  }
}

void appendForJson(std::string& out, char32_t c) {
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\b':
      out += "\\b";
      return;
    case '\f':
      out += "\\f";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default:
      break;
  }
  if (c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029 || (c >= 0xD800 && c <= 0xDFFF)) {
    out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
  } else {
    appendUtf8(out, c);
  }
}

}  // namespace

std::string raw(fl::ustring const& text) { return fl::i18n::ustring_to_utf8(text); }

std::string forTerminal(fl::ustring const& text) {
  std::string out;
  out.reserve(text.size());
  forEachCodePoint(text, [&](char32_t c) { appendForTerminal(out, c); });
  return out;
}

std::string forTerminal(std::string_view utf8) { return forTerminal(fl::i18n::utf8_to_ustring(utf8)); }

std::string jsonString(fl::ustring const& text) {
  std::string out = "\"";
  out.reserve(text.size() + 2);
  forEachCodePoint(text, [&](char32_t c) { appendForJson(out, c); });
  out += '"';
  return out;
}

std::string jsonString(std::string_view utf8) { return jsonString(fl::i18n::utf8_to_ustring(utf8)); }

bool isTerminal(int fd) {
  static int const stdoutTty = ::isatty(STDOUT_FILENO);
  static int const stderrTty = ::isatty(STDERR_FILENO);
  if (fd == STDOUT_FILENO) return stdoutTty != 0;
  if (fd == STDERR_FILENO) return stderrTty != 0;
  return ::isatty(fd) != 0;
}

std::string forStream(int fd, fl::ustring const& text) { return isTerminal(fd) ? forTerminal(text) : raw(text); }

std::string forStream(int fd, std::string_view utf8) { return isTerminal(fd) ? forTerminal(utf8) : std::string(utf8); }

}  // namespace sshfa::cli
