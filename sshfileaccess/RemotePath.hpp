#pragma once
// Path text of the remote side, computed on the client and shared by the
// remote backends. Pure; throws what the path-string functions throw.

#include "sshfileaccess/ustring.hpp"

namespace nimbal::remoteaccess::sshfileaccess {

// The folder that holds `path`, by its text: "/a/b" -> "/a", "/a" -> "/",
// "a" -> "". The host is never asked.
ustring remoteParent(ustring const& path);

}  // namespace nimbal::remoteaccess::sshfileaccess
