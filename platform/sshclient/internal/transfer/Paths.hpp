#pragma once
// Path text rules of tree transfers: which names a listing may hand over,
// how `.` and `..` in a caller's path are resolved, and what lies below a
// destination root. Pure functions on byte strings; no I/O except through
// the resolver a caller passes in.

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace foundation::sshclient::internal::transfer {

// A name a server (or any listing) sent that must never be joined to a
// path: empty, "." or "..", or holding a '/' or a NUL byte.
[[nodiscard]] bool suspectName(std::string_view name) noexcept;

// `folder` + "/" + `name`, without doubling a separator the folder ends with.
[[nodiscard]] std::string joined(std::string_view folder, std::string_view name);

// Whether some component of `path` is "." or "..".
[[nodiscard]] bool hasDotComponents(std::string_view path) noexcept;

// `path` with "." components, empty components and each ".." (with the
// component before it) taken out by text alone; ".." at the root stays at the
// root. A relative path that climbs above its start keeps its leading "..".
[[nodiscard]] std::string normalized(std::string_view path);

// The canonical path of an existing path, or nullopt when it cannot be had.
using RealPath = std::function<std::optional<std::string>(std::string const& path)>;

// `path` unchanged when it has no "." or ".." component. Otherwise its
// canonical path; a path that named a folder's contents ("x/", "x/.", "x/..")
// keeps a trailing '/'. A path that need not exist yet (`mustExist` false: a
// destination) takes the canonical path of its longest prefix that exists,
// followed by the rest normalized. nullopt when nothing resolves.
[[nodiscard]] std::optional<std::string> resolved(std::string const& path, RealPath const& realPath, bool mustExist);

// `path` as the file system names it: the canonical path of its longest
// prefix that `realPath` resolves, followed by the rest, normalized (links
// resolved, "." and ".." taken out). nullopt when nothing resolves.
[[nodiscard]] std::optional<std::string> canonical(std::string const& path, RealPath const& realPath);

// Whether `path` lies strictly below `root` (neither may hold "." or "..").
[[nodiscard]] bool strictlyBelow(std::string_view root, std::string_view path) noexcept;

// Whether a copy of `source` to `destination` would write into the source
// itself (both canonical, on one file system): the same path, or one below.
[[nodiscard]] bool overlaps(std::string_view source, std::string_view destination) noexcept;

// Whether a peer ("user@host:port") is this machine's loopback address.
[[nodiscard]] bool loopbackPeer(std::string_view peer) noexcept;

}  // namespace foundation::sshclient::internal::transfer
