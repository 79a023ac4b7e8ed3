#pragma once
// .gitignore files read with git's rules (internal; the rules are listed in
// Filter.hpp). Parsing never fails: git ignores what it cannot use, and so
// do we. Immutable once built; thread-safe.
//
// Matched here rather than by libgit2 or "git check-ignore": both read the
// files from a local work tree themselves, while a remote source's files
// arrive as text over SFTP, and check-ignore answers one path in about 20
// microseconds of round trip (0.1 here): over 10,000 files, the whole of a
// no-op re-run again.

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "sshfileaccess/platform/sshclient/internal/FilterSubject.hpp"
#include "sshfileaccess/platform/sshclient/internal/Glob.hpp"

namespace foundation::sshclient::internal {

struct IgnorePattern {
  Glob glob;
  bool negated = false;
  bool folderOnly = false;
  bool nameOnly = false;  // no '/' but a trailing one: matches the name at any depth
};

// The patterns of one .gitignore, in the file's order.
[[nodiscard]] std::vector<IgnorePattern> parseGitignore(std::string_view text);

// One folder's .gitignore, linked to the nearest one above it.
struct IgnoreLevel {
  std::vector<IgnorePattern> patterns;
  std::size_t folderLength = 0;  // of the folder's relative path: its patterns see the path past it
  std::shared_ptr<IgnoreLevel const> parent;
};

// The verdict of the files from level up: Exclude (ignored), Include
// (negated) or None.
[[nodiscard]] Verdict ignoreVerdict(IgnoreLevel const* level, Subject const& subject);

}  // namespace foundation::sshclient::internal
