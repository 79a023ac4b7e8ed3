#include "platform/i18n/i18n.hpp"

#include <cstdint>

namespace fl::i18n {
namespace {

constexpr char16_t kEscapeBase = 0xDC00;  // + byte (0x80..0xFF) => U+DC80..U+DCFF

bool isContinuation(unsigned char b) { return (b & 0xC0U) == 0x80U; }

// Length of the valid UTF-8 sequence starting at s[i] and its code point, or 0
// when the bytes there do not form one (overlong forms, encoded surrogates and
// values past U+10FFFF count as invalid, as in strict UTF-8).
std::size_t decodeOne(std::string_view s, std::size_t i, char32_t& cp) {
  const auto b0 = static_cast<unsigned char>(s[i]);
  const std::size_t left = s.size() - i;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    if (left < 2) return 0;
    const auto b1 = static_cast<unsigned char>(s[i + 1]);
    if (!isContinuation(b1)) return 0;
    cp = (char32_t{b0} & 0x1FU) << 6U | (char32_t{b1} & 0x3FU);
    return 2;
  }
  if (b0 >= 0xE0 && b0 <= 0xEF) {
    if (left < 3) return 0;
    const auto b1 = static_cast<unsigned char>(s[i + 1]);
    const auto b2 = static_cast<unsigned char>(s[i + 2]);
    if (!isContinuation(b1) || !isContinuation(b2)) return 0;
    if (b0 == 0xE0 && b1 < 0xA0) return 0;  // overlong
    if (b0 == 0xED && b1 >= 0xA0) return 0;  // UTF-16 surrogate
    cp = (char32_t{b0} & 0x0FU) << 12U | (char32_t{b1} & 0x3FU) << 6U | (char32_t{b2} & 0x3FU);
    return 3;
  }
  if (b0 >= 0xF0 && b0 <= 0xF4) {
    if (left < 4) return 0;
    const auto b1 = static_cast<unsigned char>(s[i + 1]);
    const auto b2 = static_cast<unsigned char>(s[i + 2]);
    const auto b3 = static_cast<unsigned char>(s[i + 3]);
    if (!isContinuation(b1) || !isContinuation(b2) || !isContinuation(b3)) return 0;
    if (b0 == 0xF0 && b1 < 0x90) return 0;  // overlong
    if (b0 == 0xF4 && b1 >= 0x90) return 0;  // past U+10FFFF
    cp = (char32_t{b0} & 0x07U) << 18U | (char32_t{b1} & 0x3FU) << 12U | (char32_t{b2} & 0x3FU) << 6U |
         (char32_t{b3} & 0x3FU);
    return 4;
  }
  return 0;
}

void appendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0U | (cp >> 6U)));
    out.push_back(static_cast<char>(0x80U | (cp & 0x3FU)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0U | (cp >> 12U)));
    out.push_back(static_cast<char>(0x80U | ((cp >> 6U) & 0x3FU)));
    out.push_back(static_cast<char>(0x80U | (cp & 0x3FU)));
  } else {
    out.push_back(static_cast<char>(0xF0U | (cp >> 18U)));
    out.push_back(static_cast<char>(0x80U | ((cp >> 12U) & 0x3FU)));
    out.push_back(static_cast<char>(0x80U | ((cp >> 6U) & 0x3FU)));
    out.push_back(static_cast<char>(0x80U | (cp & 0x3FU)));
  }
}

}  // namespace

ustring utf8_to_ustring(std::string_view utf8) {
  ustring out;
  out.reserve(utf8.size());
  std::size_t i = 0;
  while (i < utf8.size()) {
    const auto b0 = static_cast<unsigned char>(utf8[i]);
    if (b0 < 0x80) {
      out.push_back(static_cast<char16_t>(b0));
      ++i;
      continue;
    }
    char32_t cp = 0;
    const std::size_t n = decodeOne(utf8, i, cp);
    if (n == 0) {
      out.push_back(static_cast<char16_t>(kEscapeBase + b0));
      ++i;
    } else if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800U + (cp >> 10U)));
      out.push_back(static_cast<char16_t>(0xDC00U + (cp & 0x3FFU)));
      i += n;
    } else {
      out.push_back(static_cast<char16_t>(cp));
      i += n;
    }
  }
  return out;
}

std::string ustring_to_utf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 2);
  const std::size_t n = text.size();
  for (std::size_t i = 0; i < n; ++i) {
    const char16_t u = text[i];
    if (u < 0x80) {
      out.push_back(static_cast<char>(u));
    } else if (u >= 0xD800 && u <= 0xDBFF && i + 1 < n && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      const char32_t cp = 0x10000U + ((char32_t{u} - 0xD800U) << 10U) + (char32_t{text[i + 1]} - 0xDC00U);
      appendUtf8(out, cp);
      ++i;
    } else if (u >= 0xDC80 && u <= 0xDCFF) {
      out.push_back(static_cast<char>(u - kEscapeBase));
    } else if (u >= 0xD800 && u <= 0xDFFF) {
      appendUtf8(out, 0xFFFD);
    } else {
      appendUtf8(out, u);
    }
  }
  return out;
}

}  // namespace fl::i18n
