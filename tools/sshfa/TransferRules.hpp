#pragma once
// The decisions of put, get and sync that need no connection: rates for
// --bwlimit, remote paths relative to the login folder, which side sync
// copies from, and when put or get would make DEST/NAME inside a DEST named
// NAME. Pure functions; thread-safe; a command line that makes no sense is
// a UsageError naming what is wrong.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sshfa::cli {

// "1M", "512K", "2.5M", "1G", "1000" (bytes per second); K, M, G and T are
// powers of 1024, and may be followed by "i", "B" or "iB". nullopt for
// anything else, and for 0.
std::optional<std::uint64_t> parseRate(std::string_view text);

// A remote path as SFTP takes it: "~" and "~/x" are the login folder and
// "x" in it (SFTP's relative paths start there); other paths unchanged.
// "~user" is a UsageError: only one's own login folder can be named so.
std::string homeRelative(std::string const& command, std::string const& path);

// sync SOURCE DESTINATION: true when it uploads (the destination is the
// remote HOST:PATH), false when it downloads. Exactly one operand is remote.
bool syncUploads(std::vector<std::string> const& operands);

// sync makes its destination the copy itself, so a remote destination that
// is the login folder ("host:", "host:~", "host:.") or a root folder ("/")
// on either side would become a copy of the source, with everything else in
// it at risk (scp users write "host:" to copy into the login folder): a
// UsageError that names the form meant. `path` is the destination's path
// (relative to the login folder when `remote`), `typed` the operands as
// given.
void refuseWholeFolderDestination(std::string const& path, std::string const& typed, std::string const& source,
                                  bool remote);

// Whether put or get of the single source `source` to `destination` (no
// trailing '/') would make DESTINATION/NAME inside a DESTINATION whose own
// name is NAME, should the destination be a folder already.
bool nestsUnderItsOwnName(std::string const& source, std::string const& destination);

// The note put and get give then, naming the forms that repeat: sync, or the
// destination's parent with a trailing '/'. The operands as the user typed
// them; `command` is put or get.
std::string nestingNote(std::string const& command, std::string const& source, std::string const& destination);

}  // namespace sshfa::cli
