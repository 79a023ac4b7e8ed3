#include "sshfileaccess/platform/i18n/i18n.hpp"

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
    if (b0 == 0xE0 && b1 < 0xA0) return 0;   // overlong
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
    if (b0 == 0xF0 && b1 < 0x90) return 0;   // overlong
    if (b0 == 0xF4 && b1 >= 0x90) return 0;  // past U+10FFFF
    cp = (char32_t{b0} & 0x07U) << 18U | (char32_t{b1} & 0x3FU) << 12U | (char32_t{b2} & 0x3FU) << 6U |
         (char32_t{b3} & 0x3FU);
    return 4;
  }
  return 0;
}

}  // namespace

ustring utf8_to_ustring(std::string_view utf8) {
  // Every byte yields at most one code unit (a 4-byte sequence yields two), so
  // the input size bounds the output: write through a pointer, trim at the end.
  ustring out(utf8.size(), u'\0');
  char16_t* dst = out.data();
  const std::size_t n = utf8.size();
  std::size_t i = 0;
  while (i < n) {
    const auto b0 = static_cast<unsigned char>(utf8[i]);
    if (b0 < 0x80) {
      *dst++ = static_cast<char16_t>(b0);
      ++i;
      continue;
    }
    char32_t cp = 0;
    const std::size_t len = decodeOne(utf8, i, cp);
    if (len == 0) {
      *dst++ = static_cast<char16_t>(kEscapeBase + b0);
      ++i;
    } else if (cp >= 0x10000) {
      cp -= 0x10000;
      *dst++ = static_cast<char16_t>(0xD800U + (cp >> 10U));
      *dst++ = static_cast<char16_t>(0xDC00U + (cp & 0x3FFU));
      i += len;
    } else {
      *dst++ = static_cast<char16_t>(cp);
      i += len;
    }
  }
  out.resize(static_cast<std::size_t>(dst - out.data()));
  return out;
}

std::string ustring_to_utf8(std::u16string_view text) {
  // At most three bytes per code unit (a surrogate pair: four bytes for two).
  std::string out(text.size() * 3, '\0');
  char* dst = out.data();
  auto put = [&dst](unsigned v) { *dst++ = static_cast<char>(v); };
  const std::size_t n = text.size();
  for (std::size_t i = 0; i < n; ++i) {
    const char16_t u = text[i];
    if (u < 0x80) {
      put(u);
      continue;
    }
    char32_t cp = u;
    if (u >= 0xD800 && u <= 0xDBFF && i + 1 < n && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      cp = 0x10000U + ((char32_t{u} - 0xD800U) << 10U) + (char32_t{text[i + 1]} - 0xDC00U);
      ++i;
    } else if (u >= 0xDC80 && u <= 0xDCFF) {
      put(u - kEscapeBase);
      continue;
    } else if (u >= 0xD800 && u <= 0xDFFF) {
      cp = 0xFFFD;
    }
    if (cp < 0x800) {
      put(0xC0U | (cp >> 6U));
      put(0x80U | (cp & 0x3FU));
    } else if (cp < 0x10000) {
      put(0xE0U | (cp >> 12U));
      put(0x80U | ((cp >> 6U) & 0x3FU));
      put(0x80U | (cp & 0x3FU));
    } else {
      put(0xF0U | (cp >> 18U));
      put(0x80U | ((cp >> 12U) & 0x3FU));
      put(0x80U | ((cp >> 6U) & 0x3FU));
      put(0x80U | (cp & 0x3FU));
    }
  }
  out.resize(static_cast<std::size_t>(dst - out.data()));
  return out;
}

}  // namespace fl::i18n
