#pragma once
// The decisions of SftpFiles on paths and answers, apart from any I/O: path
// text (trailing slashes, the folders above a path, depth, order), which
// pairs of a list may go out together, what remove refuses, and how a
// server's attributes and status codes read. Pure functions; thread-safe.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sshfileaccess/platform/sshclient/SftpFiles.hpp"
#include "sshfileaccess/platform/sshclient/internal/sftp/Protocol.hpp"

namespace foundation::sshclient::internal::files {

// "a/b//" -> "a/b"; "/" and "" stay as they are.
[[nodiscard]] std::string withoutTrailingSlashes(std::string_view path);

// The folders above `path` by its text, outermost first: "/a/b/c" ->
// {"/a", "/a/b"}; "a/b" -> {"a"}; "/a", "a" and "/" -> {}.
[[nodiscard]] std::vector<std::string> foldersAbove(std::string_view path);

// How many names `path` has: "/a/b/" -> 2, "a" -> 1, "/" -> 0.
[[nodiscard]] std::size_t depth(std::string_view path) noexcept;

// The order of a tree listing: component by component, each by its bytes,
// so that a folder comes right before what it holds ("a", "a/b", "a b").
[[nodiscard]] bool treeOrder(std::string_view a, std::string_view b) noexcept;

// The part of `path` below `root` (as joined by transfer::joined), "" for
// the root itself.
[[nodiscard]] std::string_view below(std::string_view root, std::string_view path) noexcept;

// Whether `path` is `folder` or lies below it, by their normalized text; a
// relative and an absolute path are never related.
[[nodiscard]] bool within(std::string_view folder, std::string_view path);

// Where each run of pairs that may go out together begins: a pair starts a
// new run when one of its paths is, holds or lies below a path of an earlier
// pair of the current run (a -> b, then b -> c). Always starts with 0.
[[nodiscard]] std::vector<std::size_t> independentRuns(SftpFiles::PathPairs const& pairs);

// Where `source` goes in the existing folder `folder`: under its own (last)
// name, as cp and mv put it.
[[nodiscard]] std::string intoFolder(std::string_view source, std::string_view folder);

// Why remove refuses `path`, or nullopt: "/" (any number of slashes), and
// a path whose last name is "." or "..".
[[nodiscard]] std::optional<std::string> refusedRemoval(std::string_view path);

// "<folder>/.<name>.sshfa-copy-<suffix>": a copy's temporary beside its
// destination, named as a transfer's temporaries are (transfer::
// temporaryName), so that a later transfer knows it for a leftover.
[[nodiscard]] std::string copyTemporary(std::string_view destination, std::string_view suffix);

// The status that attributes describe; no type bits: a file, as the
// server's word.
[[nodiscard]] FileStatus statusOf(sftp::Attributes const& attributes);

// The cause of a failure in the words of the system's own tools:
// "No such file or directory", "Permission denied", else the server's.
[[nodiscard]] std::string causeOf(sftp::StatusCode status, std::string_view serverMessage);

}  // namespace foundation::sshclient::internal::files
