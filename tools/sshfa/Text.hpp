#pragma once
// How the tool writes names and messages.
//
// Names are ustring; bytes of a file name that are not UTF-8 arrive as the
// lone surrogates U+DC80..U+DCFF (one per byte).
//  - raw():      the original bytes, for a pipe or a file.
//  - forTerminal(): nothing that a terminal would act on gets through:
//      \\ for a backslash; \a \b \t \n \v \f \r; \xHH for other C0 controls,
//      DEL and each byte that is not UTF-8; \uHHHH for C1 controls, for the
//      marks and overrides that reorder text (U+061C, U+200E, U+200F,
//      U+202A..U+202E, U+2066..U+2069) and for any other lone surrogate.
//  - jsonString(): a JSON string literal: " and \ escaped, controls, DEL and
//      C1 as \u00HH (\b \f \n \r \t where JSON has them), U+2028/U+2029 as
//      \u2028/\u2029, other text as UTF-8, and each byte that is not UTF-8
//      as the lone surrogate \udcHH, HH being the byte's value (\udc80 ..
//      \udcff). That is Python's
//      "surrogateescape" convention: json.loads then os.fsencode gives back
//      the bytes. Strict parsers that refuse lone surrogates fail only on such
//      names.
// All functions are pure and throw only std::bad_alloc.

#include <string>
#include <string_view>

#include "sshfileaccess/platform/i18n/ustring.hpp"

namespace sshfa::cli {

std::string raw(fl::ustring const& text);
std::string forTerminal(fl::ustring const& text);
std::string forTerminal(std::string_view utf8);
std::string jsonString(fl::ustring const& text);
std::string jsonString(std::string_view utf8);

// Whether the file descriptor is a terminal (checked once per descriptor).
bool isTerminal(int fd);

// Text for a stream: escaped when it is a terminal, raw otherwise.
std::string forStream(int fd, fl::ustring const& text);
std::string forStream(int fd, std::string_view utf8);

}  // namespace sshfa::cli
