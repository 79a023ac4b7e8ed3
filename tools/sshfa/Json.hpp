#pragma once
// The tool's JSON documents: built as nlohmann::ordered_json values (keys in
// the order they are added) and written here, with the one escaper of our
// own (jsonString in Text.hpp) for every string, so that a name's bytes that
// are not UTF-8 travel as \udcHH. Strings in a value are a name's raw bytes
// (see raw() in Text.hpp), UTF-8 or not.
//
// document() writes the top level one member per line, indented by two
// blanks, and everything nested on that member's line; it ends with a line
// feed. Pure functions; thread-safe; throw only std::bad_alloc.

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sshfileaccess/platform/i18n/ustring.hpp"

namespace sshfa::cli {

using Json = nlohmann::ordered_json;

std::string document(Json const& value);

// A name as a JSON value: its raw bytes.
Json jsonName(fl::ustring const& name);
Json jsonNames(std::vector<fl::ustring> const& names);

}  // namespace sshfa::cli
