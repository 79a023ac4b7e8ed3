#pragma once
// Conversion between UTF-8 bytes and UTF-16 text (fl::i18n).
//
// The conversion is lossless for byte strings that are not valid UTF-8, because
// file names on POSIX systems are bytes and must survive a round trip
// (listing -> ustring -> command line) unchanged:
//  - valid UTF-8 converts exactly, both ways;
//  - each byte of an invalid UTF-8 sequence becomes the lone surrogate
//    U+DC80 + (byte - 0x80), i.e. U+DC80..U+DCFF, and converts back to that byte;
//  - any other lone surrogate in a ustring becomes the UTF-8 of U+FFFD.
// Both directions run in one pass and never throw except for std::bad_alloc.
// Thread-safe: no state.

#include <locale>
#include <string>
#include <string_view>

#include "sshfileaccess/export.hpp"
#include "sshfileaccess/platform/i18n/ustring.hpp"

namespace fl::i18n {

SSHFA_EXPORT ustring utf8_to_ustring(std::string_view utf8);
SSHFA_EXPORT std::string ustring_to_utf8(std::u16string_view text);

namespace facet {
// A process-wide locale (classic "C" rules) that additionally carries the
// char16_t facets that libstdc++ lacks (ctype, numpunct, num_put, num_get), so
// that text and numbers can be inserted into std::basic_stringstream<char16_t>
// without std::bad_cast. Created once, thread-safely, on first use.
SSHFA_EXPORT const std::locale& get_global_std_locale();
}  // namespace facet

}  // namespace fl::i18n
