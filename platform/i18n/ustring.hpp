#pragma once
// The one definition of the library's text type: UTF-16 code units.

#include <string>

namespace fl {
using ustring = std::u16string;
}  // namespace fl
