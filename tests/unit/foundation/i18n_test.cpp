#include "sshfileaccess/platform/i18n/i18n.hpp"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

namespace {

using fl::ustring;
using fl::i18n::ustring_to_utf8;
using fl::i18n::utf8_to_ustring;

TEST(Utf8ToUstring, ConvertsValidTextExactly) {
  EXPECT_EQ(utf8_to_ustring(""), u"");
  EXPECT_EQ(utf8_to_ustring("abc"), u"abc");
  EXPECT_EQ(utf8_to_ustring("\xC3\xA9t\xC3\xA9"), u"\u00E9t\u00E9");
  EXPECT_EQ(utf8_to_ustring("\xE2\x82\xAC"), u"\u20AC");
  EXPECT_EQ(utf8_to_ustring("\xF0\x9F\x98\x80"), u"\U0001F600");
  EXPECT_EQ(utf8_to_ustring(std::string("a\0b", 3)), ustring(u"a\0b", 3));
}

TEST(UstringToUtf8, ConvertsValidTextExactly) {
  EXPECT_EQ(ustring_to_utf8(u"\u00E9t\u00E9"), "\xC3\xA9t\xC3\xA9");
  EXPECT_EQ(ustring_to_utf8(u"\u20AC"), "\xE2\x82\xAC");
  EXPECT_EQ(ustring_to_utf8(u"\U0001F600"), "\xF0\x9F\x98\x80");
  EXPECT_EQ(ustring_to_utf8(u"\uFFFF"), "\xEF\xBF\xBF");
}

TEST(Utf8ToUstring, MapsEachInvalidByteToAnEscapeSurrogate) {
  EXPECT_EQ(utf8_to_ustring("\xFF"), u"\xDCFF");
  EXPECT_EQ(utf8_to_ustring("a\x80z"), u"a\xDC80z");
  // A truncated sequence: both bytes are escaped, the next valid byte is kept.
  EXPECT_EQ(utf8_to_ustring("\xE2\x82z"), u"\xDCE2\xDC82z");
  // Overlong "/" and an encoded surrogate are invalid UTF-8.
  EXPECT_EQ(utf8_to_ustring("\xC0\xAF"), u"\xDCC0\xDCAF");
  EXPECT_EQ(utf8_to_ustring("\xED\xA0\x80"), u"\xDCED\xDCA0\xDC80");
  // Past U+10FFFF.
  EXPECT_EQ(utf8_to_ustring("\xF4\x90\x80\x80"), u"\xDCF4\xDC90\xDC80\xDC80");
}

TEST(I18nRoundTrip, EveryHighByteAloneAndInsideValidText) {
  for (int b = 0x80; b <= 0xFF; ++b) {
    const std::string alone(1, static_cast<char>(b));
    const ustring u = utf8_to_ustring(alone);
    ASSERT_EQ(u, ustring(1, static_cast<char16_t>(0xDC00 + b))) << b;
    ASSERT_EQ(ustring_to_utf8(u), alone) << b;

    const std::string inside = "\xC3\xA9" + alone + "x\xE2\x82\xAC" + alone;
    ASSERT_EQ(ustring_to_utf8(utf8_to_ustring(inside)), inside) << b;
  }
}

TEST(I18nRoundTrip, RandomByteStringsSurvive) {
  std::mt19937 rng(42);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<int> len(0, 64);
  for (int i = 0; i < 20000; ++i) {
    std::string s(static_cast<std::size_t>(len(rng)), '\0');
    for (auto& c : s) c = static_cast<char>(byte(rng));
    ASSERT_EQ(ustring_to_utf8(utf8_to_ustring(s)), s);
  }
}

TEST(UstringToUtf8, OtherLoneSurrogatesBecomeReplacementCharacter) {
  EXPECT_EQ(ustring_to_utf8(u"\xD800"), "\xEF\xBF\xBD");
  EXPECT_EQ(ustring_to_utf8(u"a\xDBFFz"), "a\xEF\xBF\xBDz");
  EXPECT_EQ(ustring_to_utf8(u"\xDC7F"), "\xEF\xBF\xBD");
  EXPECT_EQ(ustring_to_utf8(u"\xDD00"), "\xEF\xBF\xBD");
  EXPECT_EQ(ustring_to_utf8(u"\xDFFF\xD800"), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(GlobalStdLocale, UnimbuedUtf16StreamThrowsBadCast) {
  std::basic_stringstream<char16_t> plain;
  plain.exceptions(std::ios_base::badbit);
  EXPECT_THROW(plain << 42, std::bad_cast);
}

TEST(GlobalStdLocale, Utf16StreamAcceptsTextAndNumbers) {
  std::basic_stringstream<char16_t> s;
  s.imbue(fl::i18n::facet::get_global_std_locale());
  s.exceptions(std::ios_base::badbit | std::ios_base::failbit);
  s << u"size " << 42 << u' ' << -7 << u' ' << 18446744073709551615ULL << u' ' << 1.5 << u' ' << true;
  EXPECT_EQ(s.str(), u"size 42 -7 18446744073709551615 1.5 1");
  s << std::boolalpha << false;
  EXPECT_EQ(s.str(), u"size 42 -7 18446744073709551615 1.5 1false");
}

TEST(GlobalStdLocale, Utf16StreamParsesNumbers) {
  std::basic_stringstream<char16_t> s(u"123 -45 word");
  s.imbue(fl::i18n::facet::get_global_std_locale());
  long a = 0;
  long b = 0;
  ustring w;
  s >> a >> b >> w;
  EXPECT_EQ(a, 123);
  EXPECT_EQ(b, -45);
  EXPECT_EQ(w, u"word");
}

TEST(GlobalStdLocale, IsOneObject) {
  EXPECT_EQ(&fl::i18n::facet::get_global_std_locale(), &fl::i18n::facet::get_global_std_locale());
}

}  // namespace
