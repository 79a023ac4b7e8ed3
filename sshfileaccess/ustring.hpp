#pragma once

#include "sshfileaccess/platform/i18n/ustring.hpp"

namespace nimbal::remoteaccess::sshfileaccess {
using fl::ustring;
}  // namespace nimbal::remoteaccess::sshfileaccess
