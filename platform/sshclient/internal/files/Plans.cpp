#include "sshfileaccess/platform/sshclient/internal/files/Plans.hpp"

#include <algorithm>
#include <unordered_set>

#include "sshfileaccess/platform/sshclient/internal/transfer/Paths.hpp"
#include "sshfileaccess/platform/sshclient/internal/transfer/Temporaries.hpp"

namespace foundation::sshclient::internal::files {

namespace {

constexpr std::uint32_t kModeBits = 07777;

// `path` normalized, and whether it is absolute.
std::pair<std::string, bool> normalForm(std::string_view path) {
  return {transfer::normalized(path), path.starts_with('/')};
}

}  // namespace

std::string withoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  return std::string(path);
}

std::vector<std::string> foldersAbove(std::string_view path) {
  std::vector<std::string> folders;
  auto const trimmed = withoutTrailingSlashes(path);
  auto rest = std::string_view(trimmed);
  for (;;) {
    auto const slash = rest.rfind('/');
    if (slash == std::string_view::npos) break;
    auto folder = rest.substr(0, slash);
    while (folder.ends_with('/')) folder.remove_suffix(1);
    if (folder.empty()) break;
    folders.emplace_back(folder);
    rest = folder;
  }
  std::reverse(folders.begin(), folders.end());
  return folders;
}

std::size_t depth(std::string_view path) noexcept {
  std::size_t names = 0;
  bool inName = false;
  for (char const c : path) {
    if (c != '/' && !inName) ++names;
    inName = c != '/';
  }
  return names;
}

bool treeOrder(std::string_view a, std::string_view b) noexcept {
  auto const key = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c) + 1; };
  auto const n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) return key(a[i]) < key(b[i]);
  }
  return a.size() < b.size();
}

std::string_view below(std::string_view root, std::string_view path) noexcept {
  if (path.size() <= root.size()) return {};
  auto const cut = root.ends_with('/') ? root.size() : root.size() + 1;
  return path.size() > cut ? path.substr(cut) : std::string_view();
}

bool within(std::string_view folder, std::string_view path) {
  auto const [outer, outerAbsolute] = normalForm(folder);
  auto const [inner, innerAbsolute] = normalForm(path);
  if (outerAbsolute != innerAbsolute) return false;
  if (outer == inner || (outer == "." && !inner.starts_with(".."))) return true;
  return transfer::strictlyBelow(outer, inner);
}

std::vector<std::size_t> independentRuns(SftpFiles::PathPairs const& pairs) {
  std::vector<std::size_t> starts;
  // The run's paths, and every folder above them, by normalized text.
  std::unordered_set<std::string> named;
  std::unordered_set<std::string> above;
  auto const related = [&](std::string const& path) {
    auto const normal = transfer::normalized(path);
    if (named.contains(normal) || above.contains(normal)) return true;
    auto const folders = foldersAbove(normal);
    return std::any_of(folders.begin(), folders.end(),
                       [&](std::string const& folder) { return named.contains(folder); });
  };
  auto const add = [&](std::string const& path) {
    auto const normal = transfer::normalized(path);
    for (auto& folder : foldersAbove(normal)) above.insert(std::move(folder));
    named.insert(normal);
  };
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    if (i == 0 || related(pairs[i].first) || related(pairs[i].second)) {
      starts.push_back(i);
      named.clear();
      above.clear();
    }
    add(pairs[i].first);
    add(pairs[i].second);
  }
  if (starts.empty()) starts.push_back(0);
  return starts;
}

std::string intoFolder(std::string_view source, std::string_view folder) {
  auto const trimmed = withoutTrailingSlashes(source);
  auto const slash = trimmed.rfind('/');
  return transfer::joined(folder, slash == std::string::npos ? trimmed : trimmed.substr(slash + 1));
}

std::optional<std::string> refusedRemoval(std::string_view path) {
  if (!path.empty() && path.find_first_not_of('/') == std::string_view::npos) {
    return "cannot remove '" + std::string(path) + "': it is the root folder";
  }
  auto const trimmed = withoutTrailingSlashes(path);
  auto const name = std::string_view(trimmed);
  auto const slash = name.rfind('/');
  auto const last = slash == std::string_view::npos ? name : name.substr(slash + 1);
  if (last == "." || last == "..") {
    return "cannot remove '" + std::string(path) + "': '.' and '..' are never removed";
  }
  return std::nullopt;
}

std::string copyTemporary(std::string_view destination, std::string_view suffix) {
  auto const slash = destination.rfind('/');
  auto const cut = slash == std::string_view::npos ? 0 : slash + 1;
  std::string temporary(destination.substr(0, cut));
  return temporary.append(transfer::temporaryName(destination.substr(cut), "copy-" + std::string(suffix)));
}

FileStatus statusOf(sftp::Attributes const& attributes) {
  FileStatus status;
  if (attributes.isDirectory()) {
    status.kind = FileKind::Folder;
  } else if (attributes.isSymlink()) {
    status.kind = FileKind::Link;
  } else if (attributes.isRegularOrUnknown()) {
    status.kind = FileKind::File;
  } else {
    status.kind = FileKind::Other;
  }
  status.permissions = attributes.permissions.value_or(0) & kModeBits;
  status.size = attributes.size.value_or(0);
  status.modified = attributes.mtime.value_or(0);
  status.accessed = attributes.atime.value_or(0);
  return status;
}

std::string causeOf(sftp::StatusCode status, std::string_view serverMessage) {
  switch (status) {
    case sftp::StatusCode::NoSuchFile:
      return "No such file or directory";
    case sftp::StatusCode::PermissionDenied:
      return "Permission denied";
    default:
      return sftp::describeStatus(status, serverMessage);
  }
}

}  // namespace foundation::sshclient::internal::files
