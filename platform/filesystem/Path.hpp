#pragma once
// Path-string functions of the file-system layer (fl::filesystem::detail),
// with POSIX rules: '/' is the only separator, a leading '/' is the root.
// They work on text only and never touch the file system. No state; they
// throw only std::bad_alloc, except where stated.

#include <string>

#include "sshfileaccess/export.hpp"
#include "sshfileaccess/platform/i18n/ustring.hpp"

namespace fl::filesystem::detail {

// Native form. With `removeTrailingSeparators`, runs of '/' collapse to one
// and trailing '/' are dropped (the root "/" stays "/"), so "/a//b/" -> "/a/b".
// Without it the text is returned unchanged.
SSHFA_EXPORT ustring make_native_form(ustring const& path, bool removeTrailingSeparators);

// Generic form (forward slashes). On POSIX the native form already is one.
SSHFA_EXPORT ustring make_generic_form(ustring const& path);

// The path without its last element: "/a/b" -> "/a", "/a" -> "/", "a" -> "",
// "/" -> "", "" -> "". Trailing separators are not an element: "/a/b/" -> "/a".
SSHFA_EXPORT ustring extract_parent_path(ustring const& path);

// The last element: "/a/b" -> "b", "a" -> "a", "/" -> "", "" -> "",
// "/a/b/" -> "b".
SSHFA_EXPORT ustring extract_filename(ustring const& path);

// The byte form used to open a file: the lossless UTF-8 of the path, with
// the same clean-up as make_native_form(path, true). Throws
// foundation::core::except::RuntimeError for a path holding a NUL character.
SSHFA_EXPORT std::string make_native_access_form_with_cleanup_i18n(ustring const& path);

}  // namespace fl::filesystem::detail
