#pragma once
// The tool's own remote command lines for zip and unzip, beside the library's
// fixed ones, so that an archive keeps what a tree is on both sides:
// - zip with -y stores a symbolic link as the link (zip -r alone stores what
//   it points to, and fails on a dangling one); -q and its output sent to
//   standard error make a source it cannot find ("Nothing to do!", written
//   to standard output with status 12) a failure, as the checked run judges
//   by standard error alone;
// - unzip with -o replaces files that the destination holds already, as
//   untar does (unzip alone asks, and fails on its unanswered question).
// Like the library's lines, zip packs from the source's parent, so the
// archive holds the source under its own name. Every path is quoted as one
// shell word; a relative path that begins with '-' goes as "./" + path, so
// that no program reads it as an option. Pure functions; thread-safe.

#include "sshfileaccess/platform/i18n/ustring.hpp"

namespace sshfa::cli {

// cd '<parent>' && zip -q -r -y '<archive>' '<name>' >&2
fl::ustring zipLine(fl::ustring const& parent, fl::ustring const& name, fl::ustring const& archive);

// unzip -o '<archive>' -d '<folder>'
fl::ustring unzipLine(fl::ustring const& archive, fl::ustring const& folder);

}  // namespace sshfa::cli
